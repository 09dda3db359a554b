#!/usr/bin/env python3
"""Error notifications sent to the real binary; connections point at a
closed port or at the simulated remote server with an openssl certificate.
Usage: error_system_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import os
import signal
import socket
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import monitor_system_test as mst  # noqa: E402

S = "0|1|1|0"      # session 1 untouched: error|status|is_daemon_enable|is_read_only
C = "0|0|1|stale"  # connection untouched: error|status|linked|ssl_signature

# error_type, setup, session 1, connection, commands, notification, log line.
# Setup: "server" points the connection at the remote server reporting that
# build ("reply": answering query_server_info with that instead, "silent": after a
# keep-alive that many seconds late), "asks" lists
# what that server then received (command, over TLS, restore id); "other": 0
# disables session 2; "dir", "ro", "cerr", "serr", "mode" set sync_direction,
# is_read_only, the stored errors and conn_mode.
ROWS = [
    (-6, {}, S, "-6|2|1|stale", ["pause c1"], "AuthError"),
    (-10, {}, S, "-4|2|1|stale", ["pause c1"], "ServerNeedToUpdate",
     "Check Fernbox server version protocol error"),
    (-10, {"server": 9000, "asks": [[25, False, None]]}, S, "-2|2|1|stale", ["pause c1"],
     "ServerNeedToUpdate", "Server build number 9000 is too old"),
    (-10, {"server": 20000, "asks": [[25, False, None]]}, S, "-4|2|1|stale", ["pause c1"],
     "ServerNeedToUpdate"),
    (-14, {}, S, "-10|2|1|stale", ["pause c1"], "UserKOSDisable"),
    (-15, {}, "-3|3|1|0", C, ["pause s1"], "QuotaFull"),
    (-16, {}, "-4|3|1|0", C, ["pause s1"], "fernboxtandem_DiskFull"),
    (-17, {}, "-6|0|0|0", C, ["remove_session s1"], "ShareNonExist"),
    (-18, {}, "-1|0|0|0", C, ["remove_session s1"], "ShareFailEnable"),
    (-18, {"other": 0}, "-1|0|0|0", "0|3|0|stale",
     ["remove_session s1", "unlink_connection c1"], "ShareFailEnable"),
    (-19, {}, "-2|3|1|0", C, ["pause s1"], "ShareNoWritePerm"),
    (-20, {}, "-1|0|0|0", C, ["remove_session s1"], "ShareFailEnable"),
    (-22, {}, "-5|3|1|0", C, ["pause s1"], "LocalDiskFull"),
    # The server's certificate does not carry the stored signature: paused.
    (-24, {"server": 20000, "asks": [[22, False, "r9"]]}, S, "-7|2|1|stale", ["pause c1"],
     "SSLVerifyFail", "Failed to pass sign auth."),
    (-25, {"server": 20000, "asks": [[22, False, "r9"]]}, S, "-8|2|1|stale", ["pause c1"],
     "SSLChange"),
    (-24, {"server": 20000, "mode": 256 | 32, "asks": [[22, False, "r9"], [25, True, None]]}, S,
     "0|0|1|CERT", ["reload_connection c1"], "SSLVerifyFail",
     "Update ssl sign for conn_id: 1, old: stale, new: "),
    # An answer that is no map is still the answer, also after 13 s of silence (the
    # query waits 60 s for it).
    (-24, {"reply": 7, "silent": 13, "mode": 256 | 32,
           "asks": [[22, False, "r9"], [25, True, None]]}, S,
     "0|0|1|CERT", ["reload_connection c1"], "SSLVerifyFail"),
    (-26, {}, "-9|3|1|1", C, ["pause s1"], "SyncDirectionMismatch"),
    (-26, {"dir": 2}, "0|1|1|1", C, [], "UnknownError"),
    (-26, {"dir": 2, "ro": 1}, "0|1|1|1", C, [], "UnknownError",
     "session 1 is now read-only, skip reload"),
    (-29, {}, "-8|3|1|0", C, ["pause s1"], "RemoteShareNotMounted"),
    (-33, {}, S, C, [], None, "the old connection info is not given"),
    (-35, {}, S, "-9|2|1|stale", ["pause c1"], "IPNotAllowed"),
    (-36, {}, S, "-5|2|1|stale", ["pause c1"], "NXChange"),
    (-41, {}, "-10|3|1|0", C, ["pause s1"], "RemoteShareQuotaFull"),
    (-45, {}, S, "-11|2|1|stale", ["pause c1"], "UserNoAppPriv"),
    (-46, {}, S, "-12|2|1|stale", ["pause c1"], "UserInfoUnavail"),
    (-48, {}, S, C, [], None, "the old connection info is not given"),
    (-50, {}, S, "-13|2|1|stale", ["pause c1"], "fernboxtandem_UserNotAllowed"),
    (-7, {}, S, C, [], None, "unhandled daemon error code -7"),
    # An error already stored: handled, not notified again.
    (-15, {"cerr": -6}, "-3|3|1|0", "-6|0|1|stale", ["pause s1"], None),
    (-15, {"serr": -2}, "-3|3|1|0", C, ["pause s1"], None),
]


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class ErrorNotificationTest(unittest.TestCase):
    def setUp(self):
        box = self.box = mst.Sandbox()
        self.addCleanup(box.cleanup)
        cert, key, self.signature = box.certificate("server")
        box.start_peer("sync_daemon")
        self.server_port = int(box.start_peer("remote_server", "--port", "0", "--cert", cert,
                                              "--key", key))
        box.start_and_wait()

    def reset(self, setup):
        v = {"cerr": 0, "serr": 0, "dir": 1, "ro": 0, "other": 1, "mode": 0, "port": free_port()}
        v.update(setup)
        if "server" in setup or "reply" in setup:
            v["port"] = self.server_port
            build = {"package_version": {"major": 3, "minor": 0, "build": setup.get("server")}}
            self.box.script("remote_server", {
                "replies": {"query_server_info": setup.get("reply", build)},
                "keep_alive": {"query_server_info": 1 if "silent" in setup else 0},
                "keep_alive_every": setup.get("silent", 0)})
        self.box.sql("DELETE FROM connection_table; DELETE FROM session_table;"
                     "INSERT INTO connection_table (id, nx_id, server_name, server_ip, "
                     "server_port, linked, error, conn_mode, use_ssl, ssl_signature, restore_id) "
                     "VALUES (1, 'nx1', 'nas', '127.0.0.1', %(port)d, 1, %(cerr)d, %(mode)d, 1, "
                     "'stale', 'r9');"
                     "INSERT INTO session_table (id, conn_id, share_name, sync_folder, "
                     "remote_path, view_id, is_daemon_enable, status, error, sync_direction, "
                     "is_read_only) VALUES (1, 1, 'docs', 'home/', '/docs/', 11, 1, 1, %(serr)d, "
                     "%(dir)d, %(ro)d), (2, 1, 'team', 'home/', '/team/', 12, %(other)d, 1, 0, 0, "
                     "0);" % v)
        for name in ("sync_daemon", "remote_server", "notifications"):
            self.box.records(name, new=True)

    def test_every_daemon_error(self):
        box = self.box
        for type_, setup, session, connection, commands, note, *log in ROWS:
            with self.subTest(error_type=type_, setup=setup):
                self.reset(setup)
                log_from = len(box.log_text())
                self.assertEqual({"ack": "ok"}, box.request(
                    {"notify": "error", "conn_id": 1, "sess_id": 1, "error_type": type_}))
                # Served one after the other: the answer comes once the error is handled.
                self.assertIsNone(box.request({"action": "next"}, timeout=30))

                self.assertEqual(session, box.sql("SELECT error, status, is_daemon_enable, "
                                                  "is_read_only FROM session_table WHERE id = 1"))
                # CERT: the signature that openssl prints.
                self.assertEqual(connection.replace("CERT", self.signature), box.sql(
                    "SELECT error, status, linked, ssl_signature FROM connection_table"))
                # The status thread's own get_status requests aside.
                self.assertEqual(commands, [
                    r["action"] + (" s%d" % r["session_id"] if "session_id" in r
                                   else " c%d" % r["connection_id"])
                    for r in box.requests("sync_daemon", new=True)
                    if r.get("action") != "get_status"])
                posted = box.records("notifications", new=True)
                self.assertEqual([note] if note else [], [n["notify_id"] for n in posted])
                if note == "fernboxtandem_DiskFull":
                    self.assertEqual("2GB", posted[0]["table"]["%CAPACITY%"])
                self.assertEqual(setup.get("asks", []), [
                    [r["command"], r["tls"], r["request"].get("server_id", {}).get("restore_id")]
                    for r in box.records("remote_server", new=True) if "request" in r])
                for line in log:
                    self.assertRegex(box.log_text()[log_from:], line)

    def test_a_stop_ends_the_main_threads_wait_on_a_server_that_keeps_it_alive(self):
        box = self.box
        self.reset({"server": 20000})
        box.script("remote_server", {"keep_alive": {"query_server_info": 1000},
                                     "keep_alive_every": 1})
        box.request({"notify": "error", "conn_id": 1, "sess_id": 1, "error_type": -10})
        self.assertTrue(mst.wait_for(lambda: box.requests("remote_server"), limit=10))
        pid = box.pid()
        os.kill(pid, signal.SIGTERM)
        self.assertTrue(box.wait_gone(pid)[0])


if __name__ == "__main__":
    mst.main()
