#!/usr/bin/env python3
"""vesta-monitorctl status on a system database the real daemon created.

Usage: status_test.py VESTA_MONITOR VESTA_MONITORCTL
"""

import json
import os
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))
import monitor_system_test as system  # noqa: E402

CTL = None

# value: words.  Values beyond the known ones read "unknown".
CONNECTION_ERRORS = {
    0: "no error", -1: "unknown error", -2: "server needs update",
    -3: "client needs update", -4: "server needs update", -5: "server identity changed",
    -6: "authentication failed", -7: "certificate verification failed",
    -8: "certificate changed", -9: "address not allowed", -10: "user disabled",
    -11: "user has no application privilege", -12: "user information unavailable",
    -13: "user not allowed", -14: "unknown error", -15: "unknown", 5: "unknown",
}
SESSION_ERRORS = {
    0: "no error", -1: "shared folder could not be enabled",
    -2: "no write permission on the shared folder", -3: "quota full", -4: "disk full",
    -5: "local disk full", -6: "shared folder does not exist", -7: "unknown",
    -8: "remote shared folder not mounted", -9: "sync direction mismatch",
    -10: "remote shared folder quota full", -11: "local shared folder not mounted",
    -12: "unknown", -13: "unknown", -14: "unknown error", -15: "unknown",
}
CONNECTION_STATUS = {0: "connected", 1: "connecting", 2: "paused", 3: "unlinked", 4: "unknown"}
SESSION_STATUS = {0: "stopped", 1: "running", 2: "unknown", 3: "paused"}


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
        sql = []
        for i, error in enumerate(CONNECTION_ERRORS):
            status = list(CONNECTION_STATUS)[i % len(CONNECTION_STATUS)]
            sql.append("INSERT INTO connection_table (id, server_name, server_ip, server_port,"
                       " username, linked, status, error) VALUES (%d, 'nas%d', '192.0.2.%d',"
                       " 6690, 'alice', 1, %d, %d);" % (i + 1, i + 1, i + 1, status, error))
        for i, error in enumerate(SESSION_ERRORS):
            status = list(SESSION_STATUS)[i % len(SESSION_STATUS)]
            sql.append("INSERT INTO session_table (id, conn_id, share_name, remote_path,"
                       " status, error) VALUES (%d, %d, 'share %d', '/r', %d, %d);"
                       % (i + 1, 99 if i == 0 else 1 + i % 3, i + 1, status, error))
        subprocess.run(["sqlite3", cls.db], input="\n".join(sql), text=True, check=True,
                       timeout=30)

    def status(self, *args):
        r = subprocess.run(system.command(CTL, "status", "--db", self.db, *args),
                           capture_output=True, text=True, timeout=30)
        self.assertEqual(0, r.returncode, r.stderr)
        return r.stdout

    def test_every_value_in_words(self):
        lines = [json.loads(line) for line in self.status("--json").splitlines()]
        connections = [c for c in lines if not c.get("missing")]
        sessions = [s for c in lines for s in c["sessions"]]
        for rows, errors, statuses in ((connections, CONNECTION_ERRORS, CONNECTION_STATUS),
                                       (sessions, SESSION_ERRORS, SESSION_STATUS)):
            self.assertEqual(errors, {r["error"]: r["error_words"] for r in rows})
            self.assertEqual(statuses, {r["status"]: r["status_words"] for r in rows})
        self.assertEqual([99], [c["id"] for c in lines if c.get("missing")])

        text = self.status().splitlines()
        self.assertIn('connection 6 "nas6" 192.0.2.6:6690 user "alice", linked, '
                      'status 0 (connected), error -5 (server identity changed)', text)
        self.assertIn('  session 12 share "share 12" remote "/r", disabled, '
                      'status 3 (paused), error -11 (local shared folder not mounted)', text)
        self.assertEqual(["connection 99 (no row)", '  session 1 share "share 1" remote "/r", '
                          'disabled, status 0 (stopped), error 0 (no error)'], text[-2:])

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
