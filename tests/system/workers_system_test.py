#!/usr/bin/env python3
"""The status and share-listing threads of the real binary against scripted
peers.  Usage: workers_system_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import ctypes
import glob
import os
import signal
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import monitor_system_test as mst  # noqa: E402

# Connection 1 as stored (server address, status, error) and as reported.
SESSION = "sid-4f9c1e77"  # its login session, a secret
CONNECTION = ("INSERT INTO connection_table (id, conn_mode, server_ip, server_port, session,"
              " package_version, protocol_version, use_ssl, status, error)"
              " VALUES (1, 1, '%s', %d, '" + SESSION + "', 10000, 70, 0, %d, %d);")
REPORTED = {"connection_id": 1, "status": "connected", "server_ip": "192.0.2.10",
            "server_port": 6690, "connection_mode": 1, "package_version": 10000,
            "protocol_version": 70}


FAKETIME = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")


class Workers(unittest.TestCase):
    """A sandbox with both simulated peers; each test starts the daemon."""
    daemon_env = {}

    def setUp(self):
        box = self.box = mst.Sandbox()
        self.addCleanup(box.cleanup)
        box.start_peer("sync_daemon")
        self.server_port = int(box.start_peer("remote_server", "--port", "0"))

    def start(self, levels=""):
        """Starts the daemon with these lines added to its level file; its pid."""
        self.box.write(self.box.levels, levels, "a")
        self.box.daemon_env = self.daemon_env
        return self.box.start_and_wait()

    def report(self, **changes):
        self.box.script("sync_daemon", {"replies": {"get_status": {"connection_list": [
            dict(REPORTED, **changes)]}}})


class WorkersTest(Workers):
    """The status thread and the share-listing thread at work."""

    def test_listing_brings_sessions_in_line_with_the_servers_views(self):
        box = self.box
        self.start("proto_ui_debug=7\nstream=7\n")
        box.sql(CONNECTION % ("127.0.0.1", self.server_port, 0, 0) +
                "INSERT INTO session_table (id, conn_id, view_id, share_name, remote_path,"
                " is_daemon_enable, status, error) VALUES (1, 1, 100, 'team', '/', 1, 0, 0),"
                " (2, 1, 200, 'vault', '/', 1, 3, -8), (3, 1, 300, 'gone', '/', 1, 0, 0);"
                "UPDATE session_table SET is_read_only = 1 WHERE id = 2;")
        # The login echoed back: a reply is logged without it too.
        box.script("remote_server", {"replies": {"query_user_info": {
            "uid": 1026, "session": SESSION, "view_list": [
                {"view_id": 100, "node_id": 0, "name": "photo", "privilege": "read-only",
                 "version": 2},
                {"view_id": 200, "node_id": 7, "name": "vault", "privilege": "read-write",
                 "is_encryption": 1, "is_mounted": 1, "version": 3}]}}})
        sessions = ("SELECT id, share_name, share_version, perm_mode, is_read_only, status, error"
                    " FROM session_table;")
        views = "SELECT view_id, node_id, name, privilege, is_mount FROM server_view_table;"

        def listed(times):
            return box.refresh_until(lambda: len(box.requests("remote_server")) >= times)

        # Due at once: listed within about a second, the thread's pause.
        self.assertIsNone(box.request({"action": "refresh_session", "conn_id": 1}))
        self.assertTrue(mst.wait_for(lambda: box.requests("remote_server"), limit=3.0))
        self.assertTrue(mst.wait_for(lambda: box.sql(sessions) == "1|photo|2|2|1|0|0\n"
                                 "2|vault|3|0|0|1|0\n3|gone|0|0|0|0|0"), box.sql(sessions))
        self.assertIn({"action": "resume", "session_id": 2}, box.requests("sync_daemon"))
        self.assertEqual("1026", box.sql("SELECT user_uid FROM connection_table;"))
        self.assertEqual("100|100|photo|1|0\n200|7|vault|2|1", box.sql(views))
        # Every request and its wire dump are logged, the login's value never.
        self.assertIn('"session": "***"', box.log_text())
        self.assertFalse(SESSION in box.log_text())

        # An unchanged list rewrites no row.
        box.sql("UPDATE server_view_table SET name = 'kept' WHERE view_id = 100;")
        self.assertTrue(listed(2) and listed(3))
        self.assertEqual("100|100|kept|1|0\n200|7|vault|2|1", box.sql(views))

        # An error and an empty list leave every session as it is, even one
        # that the last views would change.
        for reply in ({"error": {"code": 28680, "reason": "denied"}}, {"view_list": []}):
            box.script("remote_server", {"replies": {"query_user_info": reply}})
            self.assertTrue(listed(len(box.requests("remote_server")) + 1))  # all get `reply` now
            box.sql("UPDATE session_table SET share_name = 'team', is_read_only = 0 WHERE id = 1;")
            before = box.sql(sessions)
            self.assertTrue(listed(len(box.requests("remote_server")) + 2))
            self.assertEqual(before, box.sql(sessions), reply)
        # A failed listing reads the sessions and changes none, without an error.
        self.assertEqual([], [line for line in box.log_text().splitlines() if "[ERROR]" in line])


class RemoteServerTest(Workers):
    """A listing over TLS, and an upgrade cut short."""

    def test_a_listing_goes_only_to_the_certificate_whose_signature_is_stored(self):
        box = self.box
        self.start()
        certs = {name: box.certificate(name) for name in ("pinned", "other")}
        # The other key's certificate carrying the pinned one's signature: a
        # 2048-bit RSA signature is the last 256 bytes of the DER form.
        der = {n: mst.run_openssl("x509", "-in", certs[n][0], "-outform", "DER")
               for n in ("pinned", "other")}
        box.write("forged.der", der["other"][:-256] + der["pinned"][-256:], "wb")
        forged = os.path.join(box.root, "forged.crt")
        mst.run_openssl("x509", "-inform", "DER", "-in", forged[:-4] + ".der", "-out", forged)
        certs["forged"] = (forged, certs["other"][1], None)
        box.sql(CONNECTION % ("127.0.0.1", self.server_port, 0, 0) +
                "UPDATE connection_table SET use_ssl = 1, ssl_signature = '%s';"
                % certs["pinned"][2])
        refused = ("ListShare: list shared folder for connection #1 failed with error code -202"
                   " (channel error while converting SSL channel)")
        # The certificate the server presents, the commands it then receives.
        for cert, commands in (("pinned", [22, 17]), ("forged", [22]), ("other", [22])):
            with self.subTest(cert=cert):
                cert_file, key_file, _ = certs[cert]
                box.script("remote_server", {"tls": {"cert": cert_file, "key": key_file}})
                asked, warned = len(box.records("remote_server")), box.log_text().count(refused)
                self.assertTrue(box.refresh_until(
                    lambda: len(box.records("remote_server")) > asked))
                self.assertTrue(mst.wait_for(
                    lambda: box.log_text().count(refused) > warned if len(commands) == 1
                    else len(box.records("remote_server")) >= asked + 2, limit=10))
                self.assertEqual(commands,
                                 [r["command"] for r in box.records("remote_server")[asked:]])

    def test_a_reply_of_millions_of_empty_arrays_is_refused_within_the_memory_cap(self):
        box = self.box
        pid = self.start()
        box.sql(CONNECTION % ("127.0.0.1", self.server_port, 0, 0))
        box.script("remote_server", {"replies": {"query_user_info": {
            "view_list": {"$repeat": [[], 3000000]}}}})  # 6 MB on the wire
        box.request({"action": "refresh_session", "conn_id": 1})
        self.assertTrue(mst.wait_for(lambda: "failed with error code -301" in box.log_text(),
                                     limit=60), box.log_text()[-2000:])
        self.assertEqual({"ack": "ok"}, box.request({"notify": "x"}))
        with open("/proc/%d/status" % pid) as f:
            peak_kib = int(next(line for line in f if line.startswith("VmHWM:")).split()[1])
        # An emulator's or a sanitizer's own memory would count in the peak.
        with open(mst.BINARY, "rb") as f:
            binary = f.read()
        plain = not mst.EMULATOR and b"__asan_init" not in binary and b"__tsan_init" not in binary
        if plain:
            self.assertLess(peak_kib, 64 * 1024)

    def test_a_too_old_build_leaves_its_line_open_for_the_next_entry(self):
        box = self.box
        self.start()
        box.sql(CONNECTION % ("192.0.2.10", 6690, 0, 0))
        self.report(package_version=9000)
        self.assertTrue(mst.wait_for(lambda: box.sql("SELECT error, status FROM connection_table;")
                                     == "-2|2", limit=10))
        with open(box.log, "rb") as f:
            self.assertRegex(f.read(), rb"Server build number 9000 is too old\d{4}-\d\d-\d\dT")

    def test_an_upgrade_cut_short_is_carried_out(self):
        """A re-sync takes the sessions out of the sync daemon, pauses 3 s and
        hands them back: a stop inside the pause still hands them back; after
        a SIGKILL there, the next start carries the upgrade out again."""
        box = self.box
        # The killed daemon becomes this process's child, reaped here as init
        # would: a zombie still counts as running to the next start.
        ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
        os.makedirs(os.path.join(box.volume, "@FernboxTandem/session"))
        for how, actions in (("stop", ["remove_session"]),
                             ("kill", ["remove_session", "remove_session"])):
            with self.subTest(how=how):
                pid = self.start()
                box.sql("DELETE FROM connection_table; DELETE FROM session_table;" +
                        CONNECTION % ("192.0.2.10", 6690, 0, 0) +
                        "INSERT INTO session_table (id, conn_id, sync_folder, is_daemon_enable,"
                        " status) VALUES (1, 1, 'home', 1, 1);")
                box.requests("sync_daemon", new=True)
                before = len(box.requests("sync_daemon"))
                self.report(package_version=10119)  # a build that calls for a re-sync
                self.assertTrue(mst.wait_for(lambda: {"action": "remove_session", "session_id": 1}
                                             in box.requests("sync_daemon")[before:], limit=10))
                if how == "stop":
                    self.assertIsNone(box.request({"action": "stop"}))
                else:
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, 0)
                    self.assertEqual("10000", box.sql("SELECT package_version FROM"
                                                      " connection_table;"))
                    pid = self.start()
                    self.assertTrue(mst.wait_for(lambda: box.sql(
                        "SELECT package_version FROM connection_table;") == "10119", limit=20))
                    box.request({"action": "stop"})
                self.assertTrue(mst.wait_for(lambda: pid not in box.daemons(), limit=10))
                self.assertEqual(actions + ["reload_connection", "add_session", "add_event"],
                                 [r["action"] for r in box.requests("sync_daemon", new=True)
                                  if r["action"] != "get_status"])
                self.assertEqual("10119|0|0", box.sql("SELECT package_version, status, error"
                                                     " FROM connection_table;"))
                self.assertEqual("1|0", box.sql("SELECT status, error FROM session_table;"))
                self.report()


@unittest.skipIf(mst.EMULATOR, "the host's libfaketime cannot enter an emulated daemon; the"
                 " worker unit tests' clock stands in 2038 there")
class WorkersIn2038Test(WorkersTest):
    """The same scenarios with the daemon's clock started in June 2038, past
    the end of 32-bit time: connections are still followed, listed on
    schedule and listed at once on "refresh_session"."""
    daemon_env = {"LD_PRELOAD": ":".join(FAKETIME[:1]), "FAKETIME": "@2038-06-01 00:00:00",
                  "ASAN_OPTIONS": "verify_asan_link_order=0"}  # libfaketime comes first

    def start(self, levels=""):
        self.assertTrue(FAKETIME, "libfaketime is missing (Debian's faketime package)")
        pid = super().start(levels)
        self.assertTrue(self.box.log_text().startswith("2038-"), self.box.log_text()[:40])
        return pid


if __name__ == "__main__":
    mst.main()
