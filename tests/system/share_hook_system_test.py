#!/usr/bin/env python3
"""Share hooks sent to the real binary in the Sandbox of monitor_system_test.py,
beside the simulated sync daemon; rows written and read by the sqlite3 shell.
Usage: share_hook_system_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import monitor_system_test as mst  # noqa: E402


def sess(action, **keys):
    return dict(action=action, session_id=1, **keys)


PAUSE, RESUME, REMOVE = sess("pause"), sess("resume"), sess("remove_session")
UNWATCH, RELOAD = sess("remove_watch_session"), sess("reload_session", do_reload_filter=1)
WATCH0, WATCH1 = sess("add_watch_session", merge_mode=0), sess("add_watch_session", merge_mode=1)
UPLOAD = sess("add_event", type="upload", path="/", is_dir=1)
# Session 1 as the hooks leave it: error|status|is_daemon_enable|is_encryption|is_mounted
SESSION = "SELECT error, status, is_daemon_enable, is_encryption, is_mounted FROM session_table" \
          " WHERE id = 1;"


class ShareHookTest(unittest.TestCase):
    def setUp(self):
        box = self.box = mst.Sandbox(period=3600)  # no worker pass while a test runs
        self.addCleanup(box.cleanup)
        box.start_peer("sync_daemon")
        self.folder = box.volume + "/docs"
        self.filter = box.volume + "/@FernboxTandem/session/1/conf/blacklist.filter"
        os.makedirs(os.path.dirname(self.filter))
        self.write_share("")
        box.start_and_wait()
        # Session 2 keeps connection 1 linked when session 1 is disabled.
        box.sql("INSERT INTO connection_table (id, server_ip, linked) VALUES (1, '127.0.0.1', 1);"
                "INSERT INTO session_table (id, conn_id, share_name, view_id, remote_path,"
                " sync_folder, is_daemon_enable, status) VALUES"
                " (1, 1, 'team', 10, '/', 'docs/', 1, 1), (2, 1, 'x', 20, '/', 'x/', 1, 1);"
                "INSERT INTO system_table VALUES ('sync_mode', '2');")

    def write_share(self, extra):
        self.box.write("etc/vesta/shares/docs.conf", "path=%s\n%s" % (self.folder, extra))

    def hook(self, type_, result=0, share="docs"):
        """Sends one hook; the commands the sync daemon received for it."""
        self.box.requests("sync_daemon", new=True)
        self.assertEqual({"ack": "ok"}, self.box.request(
            {"notify": "share_hook", "share_name": share, "type": type_, "result": result}))
        # One request at a time: once an action is answered the hook is done.
        self.assertIsNone(self.box.request({"action": "barrier"}))
        return self.box.requests("sync_daemon", new=True)

    def test_each_hook_type(self):
        add = sess("add_session", connection_id=1, view_id=10, node_id=0, share_name="team",
                   sync_folder=self.folder, sync_mode=2, sync_direction=0, perm_mode="sync-all",
                   config_path=self.box.volume + "/@FernboxTandem/session/1",
                   ignore_local_remove=0, conflict_policy="compare_mtime", rename_conflict=1,
                   attribute_check_strength=0, with_q9share=0)
        # type, result, enabled, mounted (from paused, error -3, unencrypted);
        # commands; session 1 after.
        cases = [
            ("set_privilege_change", 0, 1, 1, [UPLOAD], "-3|3|1|0|1"),
            ("set_privilege_change", 0, 1, 0, [], "-3|3|1|0|0"),
            ("set_privilege_change", 0, 0, 1, [], "-3|3|0|0|1"),
            ("pre_snapshot_restore", 0, 1, 1, [PAUSE, UNWATCH], "-3|3|1|0|1"),
            ("pre_snapshot_restore", 0, 0, 1, [PAUSE, UNWATCH], "-3|3|0|0|1"),
            ("post_snapshot_restore", 0, 1, 1, [RESUME, WATCH0], "-3|3|1|0|1"),
            ("post_snapshot_restore", 0, 0, 1, [RESUME, WATCH0], "-3|3|0|0|1"),
            ("pre_share_transform", 0, 1, 1, [PAUSE, UNWATCH], "-3|3|1|0|1"),
            ("pre_share_transform", 0, 0, 1, [], "-3|3|0|0|1"),
            ("post_share_transform", 5, 1, 0, [RESUME, WATCH0], "-3|3|1|0|0"),
            ("post_share_transform", 0, 1, 0, [RELOAD, RESUME, WATCH1], "-3|3|1|0|1"),
            ("post_share_transform", 0, 0, 0, [], "-3|3|0|0|0"),
            ("encrypt", 0, 1, 1, [REMOVE], "-11|0|1|1|0"),
            ("encrypt", 0, 0, 1, [], "-3|3|0|0|1"),
            ("decrypt", 0, 1, 0, [add, RESUME], "0|1|1|1|1"),
            ("decrypt", 0, 0, 0, [], "-3|3|0|0|0"),
            ("share_removed", 0, 1, 1, [REMOVE], "-6|0|0|0|1"),
            ("share_removed", 0, 0, 1, [], "-3|3|0|0|1"),
        ]
        for type_, result, enabled, mounted, commands, after in cases:
            with self.subTest(type=type_, result=result, enabled=enabled, mounted=mounted):
                self.box.sql("UPDATE session_table SET error = -3, status = 3, is_encryption = 0,"
                             " is_daemon_enable = %d, is_mounted = %d WHERE id = 1;"
                             % (enabled, mounted))
                self.assertEqual(commands, self.hook(type_, result))
                self.assertEqual(after, self.box.sql(SESSION))

    def test_transform_into_a_locked_share_stops_the_session(self):
        self.write_share("encrypted=yes\nlocked=yes\n")
        # Only a new error is notified.
        for stored, notified in ((0, 1), (-3, 0)):
            with self.subTest(stored=stored):
                open(self.filter, "w").close()
                self.box.sql("UPDATE session_table SET error = %d, status = 1 WHERE id = 1;"
                             % stored)
                self.assertEqual([REMOVE], self.hook("post_share_transform"))
                self.assertEqual("-11|0|1|1|0", self.box.sql(SESSION))
                with open(self.filter) as f:
                    self.assertIn("max_length = 143", f.read())
                self.assertEqual(["LocalShareNotMounted"] * notified, [
                    n["notify_id"] for n in self.box.records("notifications", new=True)])

    def test_share_gone(self):
        self.box.sql("UPDATE session_table SET is_daemon_enable = 0 WHERE id = 2;")
        self.assertEqual([REMOVE, {"action": "unlink_connection", "connection_id": 1}],
                         self.hook("share_removed"))
        self.assertEqual("0|3|0",
                         self.box.sql("SELECT error, status, linked FROM connection_table;"))
        self.assertEqual([], self.hook("encrypt", share="nobody"))
        self.assertRegex(self.box.log_text(), r"\[WARNING\] .*: no such session 'nobody'\n")


if __name__ == "__main__":
    mst.main()
