#!/usr/bin/env python3
"""Peers that stall and a system database that fails under the real binary:
the daemon keeps serving, loses nothing stored and stops when told.
Usage: faults_system_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import os
import re
import signal
import socket
import subprocess
import sys
import threading
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import monitor_system_test as mst  # noqa: E402

ROWS = ("INSERT INTO connection_table (id, conn_mode, server_ip, server_port, session,"
        " package_version, protocol_version) VALUES (1, 1, '127.0.0.1', %d, 's', 10000, 70);"
        "INSERT INTO session_table (id, conn_id, share_name, view_id, sync_folder,"
        " is_daemon_enable, status) VALUES (1, 1, 'team', 100, 'home/', 1, 1);")


class Silent:
    """A peer that accepts every connection and never answers: on the UNIX
    socket `path`, else on a free loopback port."""

    def __init__(self, path=None):
        self.sock = socket.socket(socket.AF_UNIX if path else socket.AF_INET)
        self.sock.bind(path or ("127.0.0.1", 0))
        self.sock.listen(16)
        self.port = None if path else self.sock.getsockname()[1]
        self.accepted = []
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                self.accepted.append(self.sock.accept()[0])
            except OSError:
                return

    def close(self):
        for s in self.accepted + [self.sock]:
            s.close()


class StalledPeerTest(unittest.TestCase):
    def test_a_stalled_peer_holds_up_neither_the_socket_nor_a_stop(self):
        # Who stalls, what asks it, whether the socket is served meanwhile
        # (the main thread serves one request at a time: what it waits for
        # ends by the exchange's deadline, twice the client's 60-s time-out).
        for peer, ask, served in (("sync_daemon", None, True),
                                  ("remote_server", {"action": "refresh_session", "conn_id": 1},
                                   True),
                                  ("remote_server", {"notify": "error", "conn_id": 1,
                                                     "sess_id": 1, "error_type": -10}, False)):
            with self.subTest(peer=peer, ask=ask):
                box = mst.Sandbox()
                self.addCleanup(box.cleanup)
                if peer == "sync_daemon":
                    silent = Silent(os.path.join(box.root, "tmp/tarn.sock"))
                else:
                    box.start_peer("sync_daemon")
                    silent = Silent()
                self.addCleanup(silent.close)
                pid = box.start_and_wait()
                box.sql(ROWS % (silent.port or 1))
                if ask:
                    box.request(ask)
                self.assertTrue(mst.wait_for(lambda: silent.accepted, limit=10))
                if served:
                    self.assertEqual({"ack": "ok"}, box.request({"notify": "x"}))
                os.kill(pid, signal.SIGTERM)
                self.assertTrue(box.wait_gone(pid)[0])


# An ERROR line: process id, thread id (the main thread's is the process id), text.
MAIN_ERROR = re.compile(r"\( *(\d+): *(\d+)\) \[ERROR\] [^:]*: (.*)")


class FailingDatabaseTest(unittest.TestCase):
    def test_a_failing_database_loses_nothing(self):
        """The system database on a small tmpfs of its own fails while the
        error handler (main thread) and the share-listing thread write to
        it.  A lock held past the busy time-out (300 s) is the database
        tests' row, with the time-out shortened on the handle; here another
        process holds the lock until both writers wait on it."""
        box = mst.Sandbox()
        self.addCleanup(box.cleanup)
        fs = box.mount("dbfs", "size=1m")
        box.db = os.path.join(fs, "system.sqlite")
        box.write_conf()
        box.start_peer("sync_daemon")
        port = int(box.start_peer("remote_server", "--port", "0"))
        pid = box.start_and_wait()
        box.sql(ROWS % port)
        error = {"notify": "error", "conn_id": 1, "sess_id": 1, "error_type": -15}  # pause s1

        def commands():  # what the sync daemon was told since the last call, but its status
            return [r for r in box.requests("sync_daemon", new=True) if r["action"] != "get_status"]
        # How the database fails; the main thread's ERROR lines for the pause.
        for uid, fault, errors in (
                (1000, "read-only", ["setSessionErr fail ret = 14 unable to open database file",
                                     "failed to set session error (1, -3)"]),
                (1001, "full", ["setSessionErr fail ret = 13 database or disk is full",
                                "failed to set session error (1, -3)"]),
                (1002, "locked", [])):
            with self.subTest(fault=fault):
                # A user the listing has not stored yet.
                box.script("remote_server", {"replies": {"query_user_info": {"uid": uid}}})
                box.sql("UPDATE session_table SET error = 0, status = 1;")
                box.requests("sync_daemon", new=True)
                log_from = len(box.log_text())
                if fault == "read-only":
                    subprocess.run(["mount", "--bind", "-o", "ro", fs, fs], check=True)
                elif fault == "full":
                    subprocess.run(["dd", "if=/dev/zero", "of=" + fs + "/filler", "bs=4096"],
                                   capture_output=True)
                else:
                    locker = subprocess.Popen(["sqlite3", "-cmd", ".timeout 10000", box.db],
                                              stdin=subprocess.PIPE, text=True)
                    locker.stdin.write("BEGIN EXCLUSIVE; UPDATE connection_table"
                                       " SET computer_name = 'locker';\n")
                    locker.stdin.flush()
                    self.assertTrue(mst.wait_for(lambda: subprocess.run(
                        ["sqlite3", box.db, "BEGIN IMMEDIATE;"], capture_output=True).returncode))
                if fault == "locked":
                    # The listing and the error handler each begin with a read,
                    # which waits; the lock is released once both are on it.
                    self.assertTrue(box.refresh_until(lambda: box.log_text()[log_from:].count(
                        "listing shared folders of connection 1")))
                    self.assertEqual({"ack": "ok"}, box.request(error))
                    locker.communicate("COMMIT;\n", timeout=20)
                else:  # refused, nothing stored or sent in part; again once repaired
                    self.assertEqual({"ack": "ok"}, box.request(error))
                    self.assertIsNone(box.request({"action": "next"}))
                    self.assertEqual("0|1", box.sql("SELECT error, status FROM session_table;"))
                    self.assertEqual([], commands())
                    self.assertTrue(box.refresh_until(lambda: "failed to update user info of "
                                                      "connection 1" in box.log_text()[log_from:]))
                    subprocess.run(["umount", fs] if fault == "read-only"
                                   else ["rm", fs + "/filler"], check=True)
                    self.assertEqual({"ack": "ok"}, box.request(error))
                self.assertIsNone(box.request({"action": "next"}))
                self.assertEqual("-3|3", box.sql("SELECT error, status FROM session_table;"))
                self.assertEqual([{"action": "pause", "session_id": 1}], commands())
                self.assertTrue(box.refresh_until(
                    lambda: box.sql("SELECT user_uid FROM connection_table;") == str(uid)))
                main_thread = [m[2] for m in MAIN_ERROR.findall(box.log_text()[log_from:])
                               if int(m[0]) % 100000 == int(m[1])]
                self.assertEqual(errors, main_thread)
                self.assertEqual("ok", box.sql("PRAGMA integrity_check;"))
        self.assertEqual("locker", box.sql("SELECT computer_name FROM connection_table;"))
        os.kill(pid, signal.SIGTERM)
        self.assertTrue(box.wait_gone(pid)[0])


if __name__ == "__main__":
    mst.main()
