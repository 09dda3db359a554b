#!/usr/bin/env python3
"""Share hooks sent to the real binary in the Sandbox of monitor_system_test.py,
beside tests/peers/sync_daemon.py; rows written and read by the sqlite3 shell.
Usage: share_hook_system_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import json
import os
import sys
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
import monitor_system_test  # noqa: E402
from monitor_system_test import Sandbox, wait_for  # noqa: E402

def read(path):
    with open(path) as f:
        return f.read()


def sess(action, **keys):
    return dict(action=action, session_id=1, **keys)


PAUSE, RESUME, REMOVE = sess("pause"), sess("resume"), sess("remove_session")
UNWATCH, RELOAD = sess("remove_watch_session"), sess("reload_session", do_reload_filter=1)
WATCH0, WATCH1 = sess("add_watch_session", merge_mode=0), sess("add_watch_session", merge_mode=1)
UPLOAD = sess("add_event", type="upload", path="/", is_dir=1)


class ShareHookTest(unittest.TestCase):
    def setUp(self):
        box = self.box = Sandbox()
        self.addCleanup(box.cleanup)
        with open(box.conf, "a") as f:  # no worker pass while a test runs
            f.write("update_status_period=3600\nlist_share_period=3600\n")
        self.record = box.root + "/sync-daemon.jsonl"
        box.spawn("sync_daemon.py", "--record", self.record)
        self.folder = box.volume + "/docs"
        self.filter = box.volume + "/@FernboxTandem/session/1/conf/blacklist.filter"
        os.makedirs(os.path.dirname(self.filter))
        os.makedirs(box.root + "/etc/vesta/shares")
        self.write_share("")
        box.start_and_wait()
        self.assertTrue(wait_for(lambda: "starts receiving messages" in box.log_text()))
        # Session 2 keeps connection 1 linked when session 1 is disabled.
        self.box.sql("INSERT INTO connection_table (id, server_ip, linked) VALUES (1, '127.0.0.1', 1);"
                 "INSERT INTO session_table (id, conn_id, share_name, view_id, remote_path,"
                 " sync_folder, is_daemon_enable, status) VALUES"
                 " (1, 1, 'team', 10, '/', 'docs/', 1, 1), (2, 1, 'x', 20, '/', 'x/', 1, 1);"
                 "INSERT INTO system_table VALUES ('sync_mode', '2');")

    def write_share(self, extra):
        with open(self.box.root + "/etc/vesta/shares/docs.conf", "w") as f:
            f.write("path=%s\n%s" % (self.folder, extra))

    def row(self, table="session_table",
            columns="error, status, is_daemon_enable, is_encryption, is_mounted"):
        out = self.box.sql("SELECT %s FROM %s WHERE id = 1;" % (columns, table))
        return tuple(int(v) for v in out.split("|"))

    def notices(self):
        path = self.box.root + "/var/lib/vesta/notifications.jsonl"
        return read(path).count('"LocalShareNotMounted"') if os.path.exists(path) else 0

    def hook(self, type_, result=0, share="docs"):
        """Sends one hook; the commands the sync daemon received for it."""
        open(self.record, "w").close()
        self.assertEqual({"ack": "ok"}, self.box.request(
            {"notify": "share_hook", "share_name": share, "type": type_, "result": result}))
        # One request at a time: once an action is answered the hook is done.
        self.assertIsNone(self.box.request({"action": "barrier"}))
        return [json.loads(line)["request"] for line in read(self.record).splitlines()]

    def assertCommands(self, want, got):
        self.assertEqual(want, [{k: g.get(k) for k in w} for w, g in zip(want, got)] +
                         got[len(want):])

    def test_each_hook_type(self):
        add = sess("add_session", connection_id=1, sync_mode=2, sync_folder=self.folder)
        # type, result, enabled, mounted (from paused, error -3, unencrypted);
        # commands; after: error, status, enabled, encryption, mounted.
        cases = [
            ("set_privilege_change", 0, 1, 1, [UPLOAD], (-3, 3, 1, 0, 1)),
            ("set_privilege_change", 0, 1, 0, [], (-3, 3, 1, 0, 0)),
            ("set_privilege_change", 0, 0, 1, [], (-3, 3, 0, 0, 1)),
            ("pre_snapshot_restore", 0, 1, 1, [PAUSE, UNWATCH], (-3, 3, 1, 0, 1)),
            ("pre_snapshot_restore", 0, 0, 1, [PAUSE, UNWATCH], (-3, 3, 0, 0, 1)),
            ("post_snapshot_restore", 0, 1, 1, [RESUME, WATCH0], (-3, 3, 1, 0, 1)),
            ("post_snapshot_restore", 0, 0, 1, [RESUME, WATCH0], (-3, 3, 0, 0, 1)),
            ("pre_share_transform", 0, 1, 1, [PAUSE, UNWATCH], (-3, 3, 1, 0, 1)),
            ("pre_share_transform", 0, 0, 1, [], (-3, 3, 0, 0, 1)),
            ("post_share_transform", 5, 1, 0, [RESUME, WATCH0], (-3, 3, 1, 0, 0)),
            ("post_share_transform", 0, 1, 0, [RELOAD, RESUME, WATCH1], (-3, 3, 1, 0, 1)),
            ("post_share_transform", 0, 0, 0, [], (-3, 3, 0, 0, 0)),
            ("encrypt", 0, 1, 1, [REMOVE], (-11, 0, 1, 1, 0)),
            ("encrypt", 0, 0, 1, [], (-3, 3, 0, 0, 1)),
            ("decrypt", 0, 1, 0, [add, RESUME], (0, 1, 1, 1, 1)),
            ("decrypt", 0, 0, 0, [], (-3, 3, 0, 0, 0)),
            ("share_removed", 0, 1, 1, [REMOVE], (-6, 0, 0, 0, 1)),
            ("share_removed", 0, 0, 1, [], (-3, 3, 0, 0, 1)),
        ]
        for type_, result, enabled, mounted, commands, after in cases:
            with self.subTest(type=type_, result=result, enabled=enabled, mounted=mounted):
                self.box.sql("UPDATE session_table SET error = -3, status = 3, is_encryption = 0,"
                         " is_daemon_enable = %d, is_mounted = %d WHERE id = 1;"
                         % (enabled, mounted))
                self.assertCommands(commands, self.hook(type_, result))
                self.assertEqual(after, self.row())

    def test_transform_into_a_locked_share_stops_the_session(self):
        self.write_share("encrypted=yes\nlocked=yes\n")
        # Only a new error is notified.
        for stored, notified in ((0, 1), (-3, 0)):
            with self.subTest(stored=stored):
                open(self.filter, "w").close()
                self.box.sql("UPDATE session_table SET error = %d, status = 1 WHERE id = 1;" % stored)
                before = self.notices()
                self.assertCommands([REMOVE], self.hook("post_share_transform"))
                self.assertEqual((-11, 0, 1, 1, 0), self.row())
                self.assertIn("max_length = 143", read(self.filter))
                self.assertEqual(notified, self.notices() - before)

    def test_encrypt_then_decrypt(self):
        self.assertCommands([REMOVE], self.hook("encrypt"))
        self.assertEqual((-11, 0, 1, 1, 0), self.row())
        self.assertCommands([sess("add_session"), RESUME], self.hook("decrypt"))
        self.assertEqual((0, 1, 1, 1, 1), self.row())

    def test_share_gone(self):
        self.box.sql("UPDATE session_table SET is_daemon_enable = 0 WHERE id = 2;")
        self.assertCommands([REMOVE, {"action": "unlink_connection", "connection_id": 1}],
                            self.hook("share_removed"))
        self.assertEqual((0, 3, 0), self.row("connection_table", "error, status, linked"))
        self.assertEqual([], self.hook("encrypt", share="nobody"))
        self.assertRegex(self.box.log_text(), r"\[WARNING\] .*: no such session 'nobody'\n")


if __name__ == "__main__":
    monitor_system_test.BINARY = os.path.abspath(sys.argv.pop(1))
    unittest.main()
