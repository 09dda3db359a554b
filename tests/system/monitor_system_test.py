#!/usr/bin/env python3
"""The real vesta-monitor binary, and the Sandbox every system test starts it
in: a fresh VESTA_ROOT, the simulated peers of tests/peers beside it, and
readers of what they wrote.
Usage: monitor_system_test.py PATH_TO_VESTA_MONITOR [unittest args]"""

import contextlib
import json
import os
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
PEERS = os.path.join(HERE, "..", "peers")
sys.path.insert(0, PEERS)
import pstream  # noqa: E402

BINARY = None

# Programs under test run through this prefix, "qemu-arm -L SYSROOT" for a
# cross build (ctest sets it), so that one suite serves every architecture.
EMULATOR = shlex.split(os.environ.get("VESTA_EMULATOR", ""))

# The daemon notices a cleared run flag within its 3-s poll; joining the
# workers adds at most one one-second sleep.
STOP_LIMIT = 5.0


def wait_for(predicate, limit=5.0, step=0.02):
    deadline = time.monotonic() + limit
    while not predicate() and time.monotonic() < deadline:
        time.sleep(step)
    return predicate()


def run_openssl(*args):
    """openssl's standard output, as bytes."""
    return subprocess.run(["openssl"] + list(args), capture_output=True, check=True,
                          timeout=60).stdout


def command(program, *args):
    """The command line that runs the built `program` with `args`."""
    return EMULATOR + [program] + list(args)


def main():
    global BINARY
    BINARY = os.path.abspath(sys.argv.pop(1))
    unittest.main()


class Sandbox:
    """One VESTA_ROOT with all the daemon reads at start; `period` (s) is
    both the status and the share-listing period."""

    def __init__(self, period=1):
        self.root = tempfile.mkdtemp(prefix="vesta-sys-")
        self.volume = os.path.join(self.root, "volume1")
        os.makedirs(os.path.join(self.volume, "@FernboxTandem", "log"))
        os.makedirs(os.path.join(self.root, "tmp"))
        self.write("var/packages/Fernbox/etc/tandem/service.conf", "volume=%s\n" % self.volume)
        self.pid_file = os.path.join(self.root, "monitor.pid")
        self.db = os.path.join(self.root, "system.sqlite")
        self.socket = os.path.join(self.root, "monitor.sock")
        self.levels = self.write("levels", "monitor_daemon=7\nipc=7\nsystem_db_debug=6\n"
                                 "channel_debug=7\nerror_handler=7\n")
        self.conf = os.path.join(self.root, "monitor.conf")
        self.period = period
        self.write_conf()
        self.log = os.path.join(self.volume, "@FernboxTandem/log/tarn_monitor.log")
        self.peers = []
        self.mounts = []
        self.seen = {}
        self.daemon_env = {}  # further environment of the daemon alone

    def write(self, name, text, mode="w"):
        """Writes (mode "a": appends) `text` to `name` (below ROOT when relative),
        its folder made; its path."""
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, mode) as f:
            f.write(text)
        return path

    def write_conf(self):
        self.write("monitor.conf", "pid_file=%s\nsystem_db_path=%s\nsocket_path=%s\n"
                   "log_level_file=%s\nupdate_status_period=%d\nlist_share_period=%d\n"
                   % (self.pid_file, self.db, self.socket, self.levels, self.period, self.period))

    def env(self):
        return dict(os.environ, VESTA_ROOT=self.root)

    def argv(self, prefix=()):
        """The daemon's command line, after `prefix` (a tracer)."""
        return list(prefix) + command(BINARY, self.conf)

    def start(self):
        """Runs the binary; it returns once it has detached."""
        return subprocess.run(self.argv(), env=dict(self.env(), **self.daemon_env),
                              timeout=20).returncode

    def start_and_wait(self):
        """Starts the daemon, waits until it serves, returns its pid."""
        log_from = len(self.log_text())
        assert self.start() == 0
        serving = "monitor daemon starts receiving messages on domain socket " + self.socket
        assert wait_for(lambda: serving in self.log_text()[log_from:], limit=10), self.log_text()
        return self.pid()

    def pid(self):
        with open(self.pid_file) as f:
            return int(f.read().strip())

    def log_text(self):
        try:
            with open(self.log, errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def request(self, value, timeout=10):
        """Sends one value and returns the decoded reply."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(timeout)
            s.connect(self.socket)
            s.sendall(pstream.encode(value))
            return pstream.recv_value(s)

    def refresh_until(self, predicate):
        """Asks "refresh_session" for connection 1 until `predicate` holds (a
        request during a listing is undone by the listing's end)."""
        return wait_for(lambda: self.request({"action": "refresh_session", "conn_id": 1}) or
                        predicate(), limit=10, step=0.2)

    def start_peer(self, peer, *args):
        """Starts tests/peers/PEER.py answering from PEER.json (script())
        and recording into PEER.jsonl; returns what its ready file says."""
        path = os.path.join(self.root, peer)
        self.script(peer, {})
        self.peers.append(subprocess.Popen(
            [sys.executable, os.path.join(PEERS, peer + ".py"), "--ready", path + ".ready",
             "--script", path + ".json", "--record", path + ".jsonl"] + list(args),
            env=self.env()))
        assert wait_for(lambda: os.path.exists(path + ".ready"), limit=20), peer
        with open(path + ".ready") as f:
            return f.read()

    def script(self, peer, value):
        """Replaces the script the peer answers its next request from."""
        path = os.path.join(self.root, peer + ".json")
        with open(path + ".tmp", "w") as f:
            json.dump(value, f)
        os.rename(path + ".tmp", path)

    def records(self, name, new=False):
        """The JSON lines of a peer's record or of "notifications"; new: only
        those added since the last call with new."""
        path = os.path.join(self.root, "var/lib/vesta/notifications.jsonl"
                            if name == "notifications" else name + ".jsonl")
        try:
            with open(path) as f:
                lines = [json.loads(line) for line in f]
        except FileNotFoundError:
            lines = []
        if not new:
            return lines
        taken, self.seen[name] = self.seen.get(name, 0), len(lines)
        return lines[taken:]

    def requests(self, peer, new=False):
        """The requests the peer has recorded (see records()); one it could
        not decode fails the test."""
        records = self.records(peer, new)
        assert all("request" in r for r in records), records
        return [r["request"] for r in records]

    def sql(self, text):
        """What the sqlite3 shell prints for `text` on the system database."""
        return subprocess.run(["sqlite3", "-cmd", ".timeout 10000", self.db, text],
                              capture_output=True, text=True, check=True).stdout.strip()

    def daemons(self):
        """Pids of the processes that run the binary on this sandbox's
        configuration (under an emulator the binary is not argv[0])."""
        pids, wanted = [], [BINARY.encode(), self.conf.encode()]
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open("/proc/%s/cmdline" % pid, "rb") as f:
                    argv = f.read().split(b"\0")
                if any(argv[i:i + 2] == wanted for i in range(len(argv))):
                    pids.append(int(pid))
            except OSError:
                pass
        return pids

    def wait_gone(self, pid):
        """(gone within STOP_LIMIT, seconds it took): the daemon ends that
        soon once told to stop."""
        t0 = time.monotonic()
        gone = wait_for(lambda: pid not in self.daemons(), limit=STOP_LIMIT)
        return gone, time.monotonic() - t0

    def certificate(self, name):
        """A self-signed certificate for CN nas.test made by openssl: (its file,
        its key's file, its signature as hex text, as the database stores it)."""
        cert, key = (os.path.join(self.root, name + ext) for ext in (".crt", ".key"))
        run_openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", cert,
                    "-days", "2", "-subj", "/CN=nas.test")
        text = run_openssl("x509", "-noout", "-text", "-in", cert).decode()
        return cert, key, "".join(text[text.rindex("Signature Value:") + 16:].split())

    def mount(self, name, *options):
        """A tmpfs (mount options `options`, e.g. "size=1m") at ROOT/name,
        unmounted by cleanup(); its path."""
        path = os.path.join(self.root, name)
        os.makedirs(path, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", ",".join(options), "tmpfs", path],
                       check=True)
        self.mounts.append(path)
        return path

    def cleanup(self):
        for p in self.peers:
            p.terminate()
            p.wait(timeout=10)
        for pid in self.daemons():
            os.kill(pid, signal.SIGKILL)
        for path in reversed(self.mounts):  # also a bind mount over one
            while subprocess.run(["umount", "-l", path], capture_output=True).returncode == 0:
                pass
        shutil.rmtree(self.root, ignore_errors=True)


class MonitorTest(unittest.TestCase):
    def setUp(self):
        self.box = Sandbox()
        self.addCleanup(self.box.cleanup)

    def test_start_up_and_stop(self):
        box = self.box
        for how in ("request", signal.SIGTERM, signal.SIGINT):
            with self.subTest(stop=how):
                log_from = len(box.log_text())
                pid = box.start_and_wait()
                self.assertTrue(os.path.exists(box.db))
                if how == "request":
                    self.assertIsNone(box.request({"action": "stop"}))  # answered once it ran
                else:
                    os.kill(pid, how)
                self.assertTrue(box.wait_gone(pid)[0])
                self.assertFalse(os.path.exists(box.socket) or os.path.exists(box.pid_file))
                log = box.log_text()[log_from:]
                stops = log.find("monitor daemon stops receiving messages")
                self.assertGreater(log.find("SystemDB has been deinitialzed", stops), stops, log)

    def test_a_pid_file_naming_a_live_process_stops_the_start(self):
        box = self.box
        sleeper = subprocess.Popen(["sleep", "600"])
        self.addCleanup(sleeper.kill)
        ended = subprocess.Popen(["true"])
        ended.wait()
        # The process the pid file names; whether the start goes on.  A live
        # process counts as the daemon, whatever it is: that start ends
        # before it detaches and leaves the pid file as it was.
        for named, starts in (("unrelated", False), ("ended", True), ("daemon", False)):
            with self.subTest(named=named):
                pid = {"unrelated": sleeper.pid, "ended": ended.pid}.get(named)
                if pid:
                    box.write(box.pid_file, "%d\n" % pid)
                running = box.daemons()
                if starts:
                    running = [box.start_and_wait()]
                else:
                    self.assertEqual(0, box.start())
                self.assertEqual(running, box.daemons())
                self.assertEqual(pid if pid and not starts else running[0], box.pid())
        self.assertIsNone(sleeper.poll())
        self.assertEqual({"ack": "ok"}, box.request({"notify": "anything"}))

    def test_replies_through_monitorctl(self):
        ctl = os.environ.get("VESTA_MONITORCTL")
        self.assertTrue(ctl, "VESTA_MONITORCTL must name vesta-monitorctl (ctest sets it)")
        box = self.box
        pid = box.start_and_wait()
        # Under a file-size limit the log already passes, every line fails
        # (EFBIG, no SIGXFSZ) and the daemon serves on.
        subprocess.run(["prlimit", "--pid", str(pid), "--fsize=1"], check=True)

        def run(*args):
            r = subprocess.run(command(ctl, "--socket", box.socket, *args),
                               capture_output=True, text=True, timeout=10)
            return r.returncode, r.stdout.strip()

        ack, null = (0, '{"ack":"ok"}'), (0, "null")
        for args, reply in ((("notify-error", "1", "0", "-18"), ack),
                            (("share-hook", "docs", "encrypt", "0"), ack),
                            (("refresh-session", "3"), null), (("refresh-session", "x"), (2, "")),
                            (("send", '{"notify": "unknown"}'), ack),
                            (("send", '{"action": "unknown"}'), null),
                            (("send", '{"action": "fast_monitor"}'), null), (("send", "{}"), null),
                            # Both members: acknowledged first, the action still runs.
                            (("send", '{"action": "stop", "notify": "x"}'), ack)):
            with self.subTest(args=args):
                self.assertEqual(reply, run(*args))
        self.assertTrue(box.wait_gone(pid)[0])
        self.assertEqual(1, run("stop")[0])

    def test_bad_requests_are_dropped_and_the_next_one_served(self):
        box = self.box
        pid = box.start_and_wait()
        # A file in a request is refused before any file is written (the
        # daemon's working directory is "/").
        before = set(os.listdir("/")), set(os.listdir(box.root))
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.connect(box.socket)
            s.sendall(b"\x42\x10\x00\x01f\x30" + (5).to_bytes(8, "big") + b"hello\x40")
            s.settimeout(20)
            self.assertEqual(b"", s.recv(16))
        self.assertEqual({"ack": "ok"}, box.request({"notify": "x"}))
        self.assertEqual(before, (set(os.listdir("/")), set(os.listdir(box.root))))

        # A request that trickles in is cut off at its deadline (10 s), well
        # before the request behind it gives up; a silent one holds up no stop.
        with socket.socket(socket.AF_UNIX) as slow, socket.socket(socket.AF_UNIX) as silent:
            slow.connect(box.socket)
            slow.sendall(b"\x42\x10\xff\xff")  # a key announced 65,535 bytes long
            stop = threading.Event()

            def trickle():
                with contextlib.suppress(OSError):  # until cut off
                    while not stop.wait(0.5):
                        slow.send(b"a")
            threading.Thread(target=trickle).start()
            try:
                self.assertEqual({"ack": "ok"}, box.request({"notify": "x"}, timeout=30))
            finally:
                stop.set()
            opened = box.log_text().count("Channel: opening socket")
            silent.connect(box.socket)
            self.assertTrue(wait_for(
                lambda: box.log_text().count("Channel: opening socket") > opened))
            os.kill(pid, signal.SIGTERM)
            self.assertTrue(box.wait_gone(pid)[0])


if __name__ == "__main__":
    main()
