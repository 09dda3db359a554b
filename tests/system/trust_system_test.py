#!/usr/bin/env python3
"""Who may drive the real binary's socket, and files it must not write
through.  Usage: trust_system_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import json
import os
import stat
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import monitor_system_test as mst  # noqa: E402

NOBODY = 65534


class TrustTest(unittest.TestCase):
    def setUp(self):
        box = self.box = mst.Sandbox()
        self.addCleanup(box.cleanup)

    def request_as(self, uid, value):
        """box.request() from a child process running as `uid`: (the reply as
        JSON, or "dropped" when closed unanswered; the child's pid)."""
        read_end, write_end = os.pipe()
        pid = os.fork()
        if pid == 0:
            try:
                os.setgroups([])
                os.setgid(uid)
                os.setuid(uid)
                try:
                    out = json.dumps(self.box.request(value))
                except (mst.pstream.PStreamError, ConnectionResetError, BrokenPipeError):
                    out = "dropped"  # closed before or after our request went
                except BaseException as e:  # noqa: B902: reported to the parent
                    out = repr(e)
                os.write(write_end, out.encode())
            finally:
                os._exit(0)
        os.close(write_end)
        with os.fdopen(read_end) as f:
            out = f.read()
        os.waitpid(pid, 0)
        return out, pid

    def run_refused(self):
        """Runs a start that must fail before detaching; its standard error."""
        box = self.box
        r = subprocess.run(box.argv(), env=box.env(), capture_output=True, text=True, timeout=20)
        self.assertEqual(0, r.returncode)
        self.assertEqual([], box.daemons())
        return r.stderr

    def test_a_link_at_the_pid_file_leaves_its_target_untouched(self):
        box = self.box
        target = os.path.join(box.root, "target")
        with open(target, "w") as f:
            f.write("kept\n")
        os.symlink(target, box.pid_file)
        self.assertIn("failed to become daemon", self.run_refused())
        with open(target) as f:
            self.assertEqual("kept\n", f.read())
        self.assertTrue(os.path.islink(box.pid_file))

    def test_the_socket_gets_its_mode_without_a_chmod_by_path(self):
        # strace follows every child: the detached daemon's calls, or those an
        # emulator makes on its behalf, all land in the trace.
        box = self.box
        trace = os.path.join(box.root, "strace.out")
        tracer = subprocess.Popen(
            box.argv(["strace", "-f", "-qq", "-o", trace, "-e", "trace=%file,umask,bind"]),
            env=box.env())
        self.addCleanup(lambda: tracer.poll() is None and tracer.kill())
        serving = "monitor daemon starts receiving messages on domain socket " + box.socket
        self.assertTrue(mst.wait_for(lambda: serving in box.log_text(), limit=30), box.log_text())
        self.assertEqual(0o666, stat.S_IMODE(os.stat(box.socket).st_mode))
        self.assertIsNone(box.request({"action": "stop"}))
        tracer.wait(timeout=30)
        with open(trace) as f:
            calls = [line for line in f if box.socket in line]
        self.assertTrue([c for c in calls if "bind(" in c], calls)
        self.assertEqual([], [c for c in calls if "chmod" in c])

    def test_socket_allowed_uids(self):
        box = self.box
        os.chmod(box.root, 0o755)  # so that nobody reaches the socket below it
        # Absent: every local user is served, a stop included.
        pid = box.start_and_wait()
        self.assertEqual("null", self.request_as(NOBODY, {"action": "stop"})[0])
        self.assertTrue(box.wait_gone(pid)[0])

        box.write(box.conf, "socket_allowed_uids = 0\n", "a")
        pid = box.start_and_wait()
        reply, child = self.request_as(NOBODY, {"action": "stop"})
        self.assertEqual("dropped", reply)
        refusals = [line for line in box.log_text().splitlines() if "refused a connection" in line]
        self.assertEqual(1, len(refusals), refusals)
        self.assertIn("[WARNING]", refusals[0])
        self.assertIn("uid %d (pid %d): not in socket_allowed_uids" % (NOBODY, child), refusals[0])
        self.assertEqual([pid], box.daemons())
        self.assertIsNone(box.request({"action": "stop"}))  # root is served
        self.assertTrue(box.wait_gone(pid)[0])

        # A value meant to restrict that does not parse never serves everyone.
        box.write(box.conf, "socket_allowed_uids = root\n", "a")
        self.assertIn("socket_allowed_uids 'root' is not a list of numeric uids separated by "
                      "commas: refusing to start", self.run_refused())


if __name__ == "__main__":
    mst.main()
