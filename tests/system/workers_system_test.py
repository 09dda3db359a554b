#!/usr/bin/env python3
"""The status and share-listing threads of the real binary against scripted
peers.  Usage: workers_system_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import glob
import os
import subprocess
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
        with open(self.box.levels, "a") as f:
            f.write(levels)
        self.box.daemon_env = self.daemon_env
        return self.box.start_and_wait()

    def report(self, **changes):
        self.box.script("sync_daemon", {"replies": {"get_status": {"connection_list": [
            dict(REPORTED, **changes)]}}})


class WorkersTest(Workers):
    """The status thread and the share-listing thread at work."""

    def test_status_recovers_a_connection_and_follows_its_server(self):
        box = self.box
        row = "SELECT status, error, server_ip || ':' || server_port FROM connection_table;"
        self.start()
        box.sql(CONNECTION % ("192.0.2.10", 6690, 1, -1))
        self.report(status="disconnected")
        self.assertTrue(mst.wait_for(lambda: "Connection #1 has been added" in box.log_text()))
        self.report(server_ip="192.0.2.99", server_port=6691, connection_mode=17)
        self.assertTrue(mst.wait_for(lambda: box.sql(row) == "0|0|192.0.2.99:6691", limit=10),
                        box.sql(row))
        self.assertEqual("17|1", box.sql("SELECT conn_mode, use_proxy FROM connection_table;"))

        # Another server behind the address: paused with -5, notified once.
        self.report(server_ip="192.0.2.99", server_port=6691, nx_id="OTHER")
        self.assertTrue(mst.wait_for(lambda: box.sql(row) == "2|-5|192.0.2.99:6691", limit=10),
                        box.sql(row))
        self.assertIn({"action": "pause", "connection_id": 1}, box.requests("sync_daemon"))
        asked = len(box.requests("sync_daemon"))
        self.assertTrue(mst.wait_for(lambda: len(box.requests("sync_daemon")) >= asked + 2))
        self.assertEqual(["NXChange"], [n["notify_id"] for n in box.records("notifications")])

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

        def listings():
            return len(box.requests("remote_server"))

        def listed(times):
            """Asks until the server has seen `times` listings (a request
            during a listing is undone by its end)."""
            def ask():
                box.request({"action": "refresh_session", "conn_id": 1})
                return mst.wait_for(lambda: listings() >= times, limit=0.5)
            return mst.wait_for(ask, limit=10, step=0)

        # Due at once: listed within about a second, the thread's pause.
        self.assertIsNone(box.request({"action": "refresh_session", "conn_id": 1}))
        self.assertTrue(mst.wait_for(lambda: listings() >= 1, limit=3.0))
        self.assertTrue(mst.wait_for(lambda: box.sql(sessions) == "1|photo|2|2|1|0|0\n"
                                 "2|vault|3|0|0|1|0\n3|gone|0|0|0|0|0"), box.sql(sessions))
        self.assertIn({"action": "resume", "session_id": 2}, box.requests("sync_daemon"))
        self.assertEqual("1026", box.sql("SELECT user_uid FROM connection_table;"))
        self.assertEqual("100|100|photo|1|0\n200|7|vault|2|1", box.sql(views))
        self.assertEqual([], [line for line in box.log_text().splitlines() if "[ERROR]" in line])
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
            self.assertTrue(listed(listings() + 1))  # from here on, listings get `reply`
            box.sql("UPDATE session_table SET share_name = 'team', is_read_only = 0 WHERE id = 1;")
            before = box.sql(sessions)
            self.assertTrue(listed(listings() + 2))
            self.assertEqual(before, box.sql(sessions), reply)


class RemoteServerTest(Workers):
    """What a hostile or odd remote server can make of a listing or a query."""

    def test_a_reply_of_millions_of_empty_arrays_is_refused_within_the_memory_cap(self):
        box = self.box
        pid = self.start()
        box.sql(CONNECTION % ("127.0.0.1", self.server_port, 0, 0))
        box.script("remote_server", {"replies": {"query_user_info": {
            "view_list": {"$repeat": [[], 3000000]}}}})  # 6 MB on the wire
        peak_before = mst.vm_rss_kib(pid, "VmHWM")
        box.request({"action": "refresh_session", "conn_id": 1})
        self.assertTrue(mst.wait_for(lambda: "failed with error code -301" in box.log_text(),
                                     limit=30), box.log_text()[-2000:])
        peak = mst.vm_rss_kib(pid, "VmHWM")
        self.assertEqual({"ack": "ok"}, box.request({"notify": "x"}))
        if not mst.sanitized_binary():  # a sanitizer's own memory says nothing here
            # An emulator's own footprint counts in the peak of its process, not
            # in the growth of that peak.
            self.assertLess(peak - peak_before, 48 * 1024, (peak_before, peak))
            if not os.environ.get("VESTA_EMULATOR"):
                self.assertLess(peak, 64 * 1024, peak)

    def test_a_certificate_with_a_copied_signature_gets_no_request(self):
        box = self.box
        self.start()

        def openssl(*args):
            return subprocess.run(["openssl"] + list(args), cwd=box.root, check=True,
                                  capture_output=True, timeout=60).stdout

        for name in ("pinned", "other"):
            openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", name + ".key",
                    "-out", name + ".crt", "-days", "2", "-subj", "/CN=nas.test")
        # The other key's certificate with the pinned one's signature: a
        # 2048-bit RSA signature is the last 256 bytes of the DER form.
        der = {n: openssl("x509", "-in", n + ".crt", "-outform", "DER")
               for n in ("pinned", "other")}
        with open(os.path.join(box.root, "forged.der"), "wb") as f:
            f.write(der["other"][:-256] + der["pinned"][-256:])
        openssl("x509", "-inform", "DER", "-in", "forged.der", "-out", "forged.crt")
        text = openssl("x509", "-noout", "-text", "-in", "pinned.crt").decode()
        signature = "".join(text[text.rindex("Signature Value:") + 16:].split())
        box.sql(CONNECTION % ("127.0.0.1", self.server_port, 0, 0) +
                "UPDATE connection_table SET use_ssl = 1, ssl_signature = '%s';" % signature)
        refused = ("ListShare: list shared folder for connection #1 failed with error code -202"
                   " (channel error while converting SSL channel)")
        # Certificate and key the server presents, the commands it then receives.
        for cert, key, commands in (("pinned", "pinned", [22, 17]), ("forged", "other", [22]),
                                    ("other", "other", [22])):
            with self.subTest(cert=cert):
                box.script("remote_server", {"tls": {"cert": os.path.join(box.root, cert + ".crt"),
                                                     "key": os.path.join(box.root, key + ".key")}})
                asked, warned = len(box.records("remote_server")), box.log_text().count(refused)

                def ask():  # a request during a listing is undone by its end
                    box.request({"action": "refresh_session", "conn_id": 1})
                    return mst.wait_for(lambda: len(box.records("remote_server")) > asked,
                                        limit=0.5)
                self.assertTrue(mst.wait_for(ask, limit=10, step=0))
                self.assertTrue(mst.wait_for(
                    lambda: box.log_text().count(refused) > warned if len(commands) == 1
                    else len(box.records("remote_server")) >= asked + 2, limit=10))
                self.assertEqual(commands,
                                 [r["command"] for r in box.records("remote_server")[asked:]])

    def test_a_too_old_build_leaves_its_line_open_for_the_next_entry(self):
        box = self.box
        self.start()
        box.sql(CONNECTION % ("192.0.2.10", 6690, 0, 0))
        self.report(package_version=9000)
        self.assertTrue(mst.wait_for(lambda: box.sql("SELECT error, status FROM connection_table;")
                                     == "-2|2", limit=10))
        with open(box.log, "rb") as f:
            self.assertRegex(f.read(), rb"Server build number 9000 is too old"
                                       rb"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d \(")

    def test_a_stop_inside_the_resync_pause_still_hands_the_sessions_back(self):
        box = self.box
        pid = self.start()
        os.makedirs(os.path.join(box.volume, "@FernboxTandem/session"))
        box.sql(CONNECTION % ("192.0.2.10", 6690, 0, 0) +
                "INSERT INTO session_table (id, conn_id, sync_folder, is_daemon_enable, status)"
                " VALUES (1, 1, 'home', 1, 1);")
        self.report(package_version=10119)  # a build that calls for a re-sync
        self.assertTrue(mst.wait_for(lambda: {"action": "remove_session", "session_id": 1}
                                     in box.requests("sync_daemon"), limit=10))
        self.assertIsNone(box.request({"action": "stop"}))
        self.assertTrue(mst.wait_for(lambda: pid not in box.daemons(), limit=10))
        self.assertEqual(["remove_session", "reload_connection", "add_session", "add_event"],
                         [r["action"] for r in box.requests("sync_daemon")
                          if r["action"] != "get_status"])
        self.assertEqual("10119|0|0", box.sql("SELECT package_version, status, error"
                                             " FROM connection_table;"))
        self.assertEqual("1|0", box.sql("SELECT status, error FROM session_table;"))


@unittest.skipIf(mst.EMULATOR, "the host's libfaketime cannot enter an emulated daemon; the"
                 " worker unit tests' clock stands in 2038 there")
class WorkersIn2038Test(WorkersTest):
    """The same scenarios with the daemon's clock started in June 2038, past
    the end of 32-bit time: connections are still followed, listed on
    schedule and listed at once on "refresh_session"."""
    daemon_env = {"LD_PRELOAD": ":".join(FAKETIME[:1]), "FAKETIME": "@2038-06-01 00:00:00"}

    def start(self, levels=""):
        self.assertTrue(FAKETIME, "libfaketime is missing (Debian's faketime package)")
        pid = super().start(levels)
        self.assertTrue(self.box.log_text().startswith("2038-"), self.box.log_text()[:40])
        return pid


if __name__ == "__main__":
    mst.main()
