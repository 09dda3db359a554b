#!/usr/bin/env python3
"""System tests of the two worker threads of the real vesta-monitor binary:
the status thread against the simulated sync daemon's scripted get_status
replies, the share-listing thread against the simulated remote server's
scripted view lists.  Rows are written and read with the sqlite3 shell.

Usage: workers_system_test.py PATH_TO_VESTA_MONITOR [unittest args]
"""

import json
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import monitor_system_test as mst  # noqa: E402
from monitor_system_test import Sandbox, wait_for  # noqa: E402

# Connection 1 as the sync daemon reports it; the row below matches it.
REPORTED = {"connection_id": 1, "status": "connected", "server_ip": "192.0.2.10",
            "server_port": 6690, "connection_mode": 1, "package_major": 3,
            "package_minor": 1, "package_version": 10001, "protocol_version": 70,
            "nx_id": "NX", "restore_id": "R", "tunnel_ip": "", "tunnel_port": 0}
CONNECTION = ("INSERT INTO connection_table (id, conn_mode, server_name, server_ip, server_port,"
              " nx_id, restore_id, major, minor, package_version, protocol_version, session,"
              " use_ssl, status, error) VALUES (1, 1, 'nas', '%s', %d, 'NX', 'R', 3, 1, 10001, 70,"
              " 'sid', 0, %d, %d);")


class WorkersSandbox(Sandbox):
    """A Sandbox with the simulated sync daemon and remote server, each
    answering from its script PEER.json and recording into PEER.jsonl."""

    def start_peers(self):
        for peer in ("sync_daemon", "remote_server"):
            self.script(peer, {})
        self.spawn("sync_daemon.py", *self.peer_files("sync_daemon"))
        self.server_port = int(self.spawn("remote_server.py", "--port", "0",
                                          *self.peer_files("remote_server")))

    def peer_files(self, peer):
        path = os.path.join(self.root, peer)
        return ["--script", path + ".json", "--record", path + ".jsonl"]

    def script(self, peer, value):
        path = os.path.join(self.root, peer + ".json")
        with open(path + ".tmp", "w") as f:
            json.dump(value, f)
        os.rename(path + ".tmp", path)

    def recorded(self, peer):
        try:
            with open(os.path.join(self.root, peer + ".jsonl")) as f:
                return [json.loads(line)["request"] for line in f if '"request"' in line]
        except OSError:
            return []


class WorkersTest(unittest.TestCase):
    def setUp(self):
        self.box = WorkersSandbox()
        self.box.start_peers()
        self.box.start_and_wait()

    def tearDown(self):
        self.box.cleanup()

    def report(self, **changes):
        """The sync daemon reports connection 1 with `changes`."""
        self.box.script("sync_daemon", {"replies": {"get_status": {"connection_list": [
            dict(REPORTED, **changes)]}}})

    def test_status_recovers_a_connection_and_follows_its_server(self):
        box = self.box
        box.sql(CONNECTION % ("192.0.2.10", 6690, 1, -1))
        self.report(status="disconnected")
        self.assertTrue(wait_for(lambda: "Connection #1 has been added to daemon"
                                 in box.log_text()), box.log_text())
        self.report(server_ip="192.0.2.99")
        row = "SELECT status, error, server_ip FROM connection_table;"
        self.assertTrue(wait_for(lambda: box.sql(row) == "0|0|192.0.2.99", limit=10),
                        box.sql(row) + box.log_text())
        self.assertIn("Connection 1 is recovered to connected status", box.log_text())

        # Another server behind the address: the connection is paused with
        # -5, the administrators are told once.
        self.report(server_ip="192.0.2.99", nx_id="OTHER")
        self.assertTrue(wait_for(lambda: box.sql(row) == "2|-5|192.0.2.99", limit=10),
                        box.sql(row))
        self.assertIn({"action": "pause", "connection_id": 1}, box.recorded("sync_daemon"))
        # Two passes later there is still one notification.
        asked = len(box.recorded("sync_daemon"))
        self.assertTrue(wait_for(lambda: len(box.recorded("sync_daemon")) >= asked + 2))
        with open(os.path.join(box.root, "var/lib/vesta/notifications.jsonl")) as f:
            self.assertEqual(["NXChange"], [json.loads(line)["notify_id"] for line in f])

    def test_listing_brings_sessions_in_line_with_the_servers_views(self):
        box = self.box
        box.sql(CONNECTION % ("127.0.0.1", box.server_port, 0, 0) +
                "INSERT INTO session_table (id, conn_id, view_id, share_name, remote_path,"
                " is_daemon_enable, is_mounted, status, error) VALUES"
                " (1, 1, 100, 'team', '/', 1, 1, 0, 0), (2, 1, 200, 'vault', '/', 1, 1, 3, -8),"
                " (3, 1, 300, 'gone', '/', 1, 1, 0, 0);")
        views = [{"view_id": 100, "node_id": 0, "name": "photo", "privilege": "read-only",
                  "version": 2},
                 {"view_id": 200, "node_id": 7, "name": "vault", "privilege": "read-write",
                  "is_encryption": 1, "is_mounted": 1}]
        box.script("remote_server", {"replies": {"query_user_info": {
            "uid": 1026, "gid": 100, "is_admin_group": 0, "view_list": views}}})
        sessions = ("SELECT id, share_name, share_version, perm_mode, is_read_only, status, error"
                    " FROM session_table ORDER BY id;")

        def listings():
            return len(box.recorded("remote_server"))

        def listed(times):
            """Asks for listings until the server has seen `times` in all: a
            request that comes while the connection is being listed is undone
            when that listing ends.  One listing runs at a time, so the one
            before the last has ended by then."""
            def ask():
                box.request({"action": "refresh_session", "conn_id": 1})
                return wait_for(lambda: listings() >= times, limit=0.5)
            return wait_for(ask, limit=10, step=0)

        # The first request makes the connection due at once: it is listed
        # within about a second, the thread's pause when nothing is due.
        self.assertIsNone(box.request({"action": "refresh_session", "conn_id": 1}))
        self.assertTrue(wait_for(lambda: listings() >= 1, limit=3.0))
        self.assertTrue(wait_for(lambda: box.sql(sessions) == "1|photo|2|2|1|0|0\n"
                                 "2|vault|0|0|0|1|0\n3|gone|0|0|0|0|0"), box.sql(sessions))
        self.assertIn({"action": "resume", "session_id": 2}, box.recorded("sync_daemon"))
        self.assertEqual("1026|100|0", box.sql(
            "SELECT user_uid, user_gid, user_is_admin FROM connection_table;"))
        views_rows = "SELECT view_id, node_id, name, privilege, is_mount FROM server_view_table;"
        self.assertEqual("100|100|photo|1|0\n200|7|vault|2|1", box.sql(views_rows))

        # An unchanged list rewrites no row.
        box.sql("UPDATE server_view_table SET name = 'kept' WHERE view_id = 100;")
        self.assertTrue(listed(2) and listed(3))
        self.assertEqual("100|100|kept|1|0\n200|7|vault|2|1", box.sql(views_rows))

        # An error and an empty list leave every session as it is.
        box.sql("UPDATE session_table SET share_name = 'team', is_read_only = 0 WHERE id = 1;")
        before = box.sql(sessions)
        for reply in ({"error": {"code": 28680, "reason": "denied"}}, {"view_list": []}):
            box.script("remote_server", {"replies": {"query_user_info": reply}})
            done = listings()
            self.assertTrue(listed(done + 1) and listed(done + 2))
            self.assertEqual(before, box.sql(sessions), reply)
        self.assertEqual("", box.sql(views_rows))


if __name__ == "__main__":
    mst.BINARY = os.path.abspath(sys.argv.pop(1))
    unittest.main()
