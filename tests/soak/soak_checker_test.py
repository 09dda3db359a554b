#!/usr/bin/env python3
"""The soak's checker reports a broken invariant as a violation with exit
status 1: a daemon that ignores SIGTERM, and a database cut after a SIGKILL.
Usage: soak_checker_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import os
import subprocess
import sys
import tempfile
import unittest

TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "tools", "soak")
sys.path.insert(0, TOOL)
import schedule  # noqa: E402
BINARY = None
SECONDS = 12
# The first seed whose one stop is by SIGTERM, not by a "stop" request.
SEED = next(s for s in range(1, 100)
            if schedule.make(s, SECONDS, ["env.stop"])[0].params["how"] == "SIGTERM")


def soak(binary, kind, *extra):
    """A short soak that injects only `kind`; (exit status, output)."""
    r = subprocess.run([sys.executable, os.path.join(TOOL, "soak.py"), binary, "--seconds",
                        str(SECONDS), "--seed", str(SEED), "--kinds", kind] + list(extra),
                       capture_output=True, text=True, timeout=150)
    return r.returncode, r.stdout


@unittest.skipIf(os.environ.get("VESTA_EMULATOR"), "the soak runs the host's own build")
class SoakCheckerTest(unittest.TestCase):
    def assertViolation(self, invariant, code, out):
        self.assertEqual(1, code, out)
        self.assertIn("VIOLATION of '%s'" % invariant, out)
        self.assertRegex(out.splitlines()[-1],
                         r"^soak: seed %d, .* [1-9]\d* invariant violations$" % SEED)

    def test_a_daemon_that_ignores_sigterm(self):
        with tempfile.TemporaryDirectory() as d:
            wrapper = os.path.join(d, "deaf-monitor")
            with open(wrapper, "w") as f:
                f.write("#!%s\nimport os, signal, sys\n"
                        "signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})\n"
                        "os.execv(%r, [%r] + sys.argv[1:])\n" % (sys.executable, BINARY, BINARY))
            os.chmod(wrapper, 0o755)
            self.assertViolation("stop within 5 s", *soak(wrapper, "env.stop"))

    def test_a_database_cut_after_a_kill(self):
        self.assertViolation("integrity after SIGKILL",
                             *soak(BINARY, "env.kill", "--after-kill", 'truncate -s 5000 "$SOAK_DB"'))


if __name__ == "__main__":
    BINARY = os.path.abspath(sys.argv.pop(1))
    unittest.main()
