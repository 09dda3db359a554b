#!/usr/bin/env python3
"""The tree installed in a DESTDIR, its unit checked with systemd-analyze;
usage: install_test.py BUILD_DIR PREFIX."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD = PREFIX = None


def run(args, **kw):
    return subprocess.run(args, capture_output=True, text=True, timeout=60, **kw)


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dest = tempfile.mkdtemp(prefix="vesta-install-")
        cls.addClassCleanup(shutil.rmtree, cls.dest, ignore_errors=True)
        cls.install()
        cls.conf = ("/etc" if PREFIX == "/usr" else PREFIX + "/etc") + "/vesta-monitor.conf"
        cls.unit = PREFIX + "/lib/systemd/system/vesta-monitor.service"
        cls.man = PREFIX + "/share/man"

    @classmethod
    def install(cls):
        r = run(["cmake", "--install", BUILD], env=dict(os.environ, DESTDIR=cls.dest))
        assert r.returncode == 0, r.stdout + r.stderr

    def test_every_file_lands_with_its_mode(self):
        expected = {PREFIX + "/sbin/vesta-monitor": 0o755, PREFIX + "/bin/vesta-monitorctl": 0o755,
                    self.man + "/man8/vesta-monitor.8": 0o644, self.unit: 0o644, self.conf: 0o644,
                    self.man + "/man1/vesta-monitorctl.1": 0o644}
        found = {os.path.join(d, n)[len(self.dest):]: os.stat(os.path.join(d, n)).st_mode & 0o7777
                 for d, _, names in os.walk(self.dest) for n in names}
        self.assertEqual(expected, found)

    def test_configuration_survives_reinstall(self):
        with open(self.dest + self.conf) as f:
            text = f.read()
        with open(self.dest + self.conf, "a") as f:
            f.write("update_status_period = 2\n")
        self.install()
        with open(self.dest + self.conf) as f:
            self.assertEqual(text + "update_status_period = 2\n", f.read())

    def test_unit_verifies(self):
        if not shutil.which("systemd-analyze"):
            self.skipTest("systemd-analyze is not installed: the unit is not verified")
        with open(self.dest + self.unit) as f:
            unit = f.read()
        self.assertIn("ExecStart=%s/sbin/vesta-monitor %s\n" % (PREFIX, self.conf), unit)
        # systemd-analyze checks that ExecStart's program exists and that
        # Documentation's man pages are found: both are in the DESTDIR.
        path = os.path.join(self.dest, "vesta-monitor.service")
        with open(path, "w") as f:
            f.write(unit.replace("ExecStart=", "ExecStart=" + self.dest))
        r = run(["systemd-analyze", "verify", path],
                env=dict(os.environ, MANPATH=self.dest + self.man))
        os.remove(path)
        self.assertEqual((0, ""), (r.returncode, r.stdout + r.stderr))


if __name__ == "__main__":
    BUILD, PREFIX = sys.argv.pop(1), sys.argv.pop(1)
    result = unittest.main(exit=False).result
    # 77: ctest reports the test as skipped rather than passed.
    sys.exit(1 if not result.wasSuccessful() else 77 if result.skipped else 0)
