#!/usr/bin/env python3
"""vesta-monitorctl status on a system database the real daemon created;
usage: status_test.py VESTA_MONITOR VESTA_MONITORCTL."""

import json
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))
import monitor_system_test as system  # noqa: E402

CTL = None
VALUES = range(-16, 6)  # every stored error and status value, and some beyond


class StatusTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.box = box = system.Sandbox()
        cls.addClassCleanup(box.cleanup)
        pid = box.start_and_wait()
        box.request({"action": "stop"})
        assert box.wait_gone(pid)[0]
        # Characters that mean something in a SQLite URI.
        cls.db = os.path.join(box.root, "system?#%.sqlite")
        os.rename(box.db, cls.db)
        # Connection and session i carry error value i - 17 and status i % 6;
        # session 1 names a connection without a row; a name holds an escape.
        sql = []
        for i, value in enumerate(VALUES, 1):
            sql.append("INSERT INTO connection_table (id, server_name, server_ip, server_port,"
                       " username, linked, status, error) VALUES (%d, 'nas' || char(27) || '[2J',"
                       " '192.0.2.%d', 6690, 'alice', 1, %d, %d);" % (i, i, i % 6, value))
            sql.append("INSERT INTO session_table (id, conn_id, share_name, remote_path, status,"
                       " error) VALUES (%d, %d, 'share %d', '/r', %d, %d);"
                       % (i, 99 if i == 1 else 2, i, i % 6, value))
        subprocess.run(["sqlite3", cls.db], input="\n".join(sql), text=True, check=True,
                       timeout=30)

    def status(self, *args):
        r = subprocess.run(system.command(CTL, "status", "--db", self.db, *args),
                           capture_output=True, text=True, timeout=30)
        self.assertEqual(0, r.returncode, r.stderr)
        return r.stdout

    def test_values_in_words(self):
        lines = [json.loads(line) for line in self.status("--json").splitlines()]
        rows = [("connection", c) for c in lines if not c.get("missing")]
        rows += [("session", s) for c in lines for s in c["sessions"]]
        words = {"%s %s %d" % (kind, column, row[column]): row[column + "_words"]
                 for kind, row in rows for column in ("error", "status")}
        # A few rows typed here.
        for line in ("connection error 0 no error", "connection error -4 server needs update",
                     "connection error -5 server identity changed", "session error -4 disk full",
                     "session error -11 local shared folder not mounted",
                     "connection status 3 unlinked", "session status 1 running"):
            key = " ".join(line.split()[:3])
            self.assertEqual(line, key + " " + words[key])

        text = self.status().splitlines()
        self.assertEqual(["connection 99 (no row)", '  session 1 share "share 1" remote "/r", '
                          'disabled, status 1 (running), error -16 (unknown)'], text[-2:])
        self.assertIn('connection 12 "nas?[2J" 192.0.2.12:6690 user "alice", linked, '
                      'status 0 (connected), error -5 (server identity changed)', text)

    def test_reads_beside_a_writer_and_leaves_the_file_as_it_was(self):
        with open(self.db, "rb") as f:
            before = f.read()
        marker = os.path.join(self.box.root, "locked")
        writer = subprocess.Popen(["sqlite3", self.db], stdin=subprocess.PIPE, text=True)
        try:
            writer.stdin.write("BEGIN IMMEDIATE;\nUPDATE connection_table SET error = -3;\n"
                               ".system touch '%s'\n" % marker)
            writer.stdin.flush()
            self.assertTrue(system.wait_for(lambda: os.path.exists(marker), limit=30))
            # The committed value, not the pending one.
            self.assertIn("error -5 (server identity changed)", self.status())
            writer.stdin.write("ROLLBACK;\n")
        finally:
            writer.stdin.close()
            writer.wait(timeout=30)
        with open(self.db, "rb") as f:
            self.assertTrue(before == f.read(), "the database file changed")
        self.assertFalse(os.path.exists(self.db + "-journal"))

        missing = os.path.join(self.box.root, "none.sqlite")
        r = subprocess.run(system.command(CTL, "status", "--db", missing), capture_output=True,
                           timeout=30)
        self.assertEqual(1, r.returncode)
        self.assertFalse(os.path.exists(missing))


if __name__ == "__main__":
    system.BINARY = os.path.abspath(sys.argv.pop(1))
    CTL = os.path.abspath(sys.argv.pop(1))
    unittest.main()
