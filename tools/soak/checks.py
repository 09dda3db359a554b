"""The invariants a soak run checks all along, each bound named once below
(README "A soak under faults" explains them), and the record of violations."""

import os
import re
import sqlite3
import threading
import time

import clients
from environment import alive, connect

REQUEST_DEADLINE = 10
STATUS_PERIOD = 1
SLACK = 8
STOP_LIMIT = 5
RSS_LIMIT_MIB = 64
RSS_LIMIT_SANITIZED_MIB = 512
FD_LIMIT = 64

LOG_LINE = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d \( *\d+: *\d+\) "
                      r"\[(CRIT|ERROR|WARNING|INFO|DEBUG)\] [\w.-]+\(\d+\): ")
FILTER_LINE = re.compile(r'(\[\w+\]|\w+ = .*|".*|)')
FILTER_SECTIONS = ["[Version]", "[Common]", "[File]", "[Directory]", "[EA]"]


class Report:
    """Violations, thread-safe; the first one ends the run unless `keep_going`."""

    def __init__(self, out, keep_going=False):
        self.out, self.keep_going = out, keep_going
        self.lock = threading.Lock()
        self.violations = []
        self.failed = threading.Event()

    def say(self, text):
        with self.lock:
            self.out.write(text + "\n")
            self.out.flush()

    def violation(self, invariant, detail):
        with self.lock:
            self.violations.append((invariant, detail))
        self.say("VIOLATION of '%s': %s" % (invariant, detail))
        if not self.keep_going:
            self.failed.set()


class State:
    """Whether the daemon is up, and which life of it (epoch) that is."""

    def __init__(self):
        self.lock = threading.Lock()
        self.up = False
        self.epoch = 0
        self.pid = None
        self.since = time.monotonic()

    def set_up(self, pid):
        with self.lock:
            self.up, self.pid, self.since = True, pid, time.monotonic()
            self.epoch += 1

    def set_down(self):
        with self.lock:
            self.up = False
            self.epoch += 1

    def snapshot(self):
        with self.lock:
            return self.up, self.epoch, self.pid


class Checker:
    def __init__(self, box, faults, report, state, sync, sanitize):
        self.box, self.faults, self.report, self.state = box, faults, report, state
        self.sync, self.sanitize = sync, sanitize
        self.slack = SLACK * (2 if sanitize else 1)
        self.rss_limit = RSS_LIMIT_SANITIZED_MIB if sanitize else RSS_LIMIT_MIB
        self.max_rss = self.max_fds = 0
        self.log_pos = {}        # inode -> bytes of that log file checked
        self.reported_files = set()
        self.probes = 0
        self.refusals = 0        # probes refused in a row

    def bound(self, t0, t1, base):
        return base + self.faults.hold_between(t0, t1) + self.slack

    # ---- the request deadline ----

    def probe_once(self):
        up, epoch, _pid = self.state.snapshot()
        if not up:
            return
        t0 = time.monotonic()
        s = None
        while s is None:
            try:
                s = clients.connect(self.box.socket, 5)
            except TimeoutError:  # the backlog is full: the main thread is held
                if self.late(t0, epoch):
                    return
            except OSError as e:
                return self.refused(epoch, e)
        self.refusals = 0
        with s:
            try:
                s.sendall(clients.pstream.encode(clients.PROBE))
                s.settimeout(1)
                while True:
                    try:
                        reply = clients.pstream.recv_value(s)
                        break
                    except TimeoutError:
                        if self.late(t0, epoch):
                            return
            except (OSError, clients.pstream.PStreamError):
                return self.check_still_up(epoch)
        self.probes += 1
        if reply is not None:
            self.report.violation("request answered", "probe answered %r" % (reply,))

    def late(self, t0, epoch):
        """True when the probe sent at `t0` is to be given up: the daemon
        restarted meanwhile, or it is late (a violation)."""
        now = time.monotonic()
        if self.state.snapshot()[1] != epoch:
            return True
        bound = self.bound(t0, now, REQUEST_DEADLINE)
        if now - t0 <= bound:
            return False
        self.report.violation("request answered within its deadline",
                              "no answer after %.1f s (bound %.1f s)" % (now - t0, bound))
        return True

    def refused(self, epoch, error):
        """A running daemon may refuse a connection while it restarts, not for long."""
        self.check_still_up(epoch)
        up, now_epoch, pid = self.state.snapshot()
        if up and now_epoch == epoch and alive(pid):
            self.refusals += 1
            if self.refusals >= 5:
                self.report.violation("daemon keeps serving",
                                      "its socket refused 5 probes in a row: %s" % error)

    def check_still_up(self, epoch):
        time.sleep(0.5)
        up, now_epoch, pid = self.state.snapshot()
        if up and now_epoch == epoch and not alive(pid):
            self.report.violation("daemon keeps serving", "pid %d exited on its own" % pid)

    # ---- sampled every second ----

    def sample(self):
        up, epoch, pid = self.state.snapshot()
        self.check_sanitizer()
        self.check_log()
        if not up:
            return
        try:
            with open("/proc/%d/status" % pid) as f:
                rss = int(next(line for line in f if line.startswith("VmRSS:")).split()[1])
            fds = len(os.listdir("/proc/%d/fd" % pid))
        except (OSError, StopIteration):
            return self.check_still_up(epoch)
        self.max_rss, self.max_fds = max(self.max_rss, rss), max(self.max_fds, fds)
        if rss > self.rss_limit * 1024:
            self.report.violation("resident memory", "%d KiB > %d MiB" % (rss, self.rss_limit))
        if fds > FD_LIMIT:
            self.report.violation("open descriptors", "%d > %d: %s" % (
                fds, FD_LIMIT, sorted(os.readlink("/proc/%d/fd/%s" % (pid, n))
                                      for n in os.listdir("/proc/%d/fd" % pid))))
        now = time.monotonic()
        with self.sync.lock:
            last = max(self.sync.passes[-1] if self.sync.passes else 0, self.state.since)
        if now - last > self.bound(last, now, STATUS_PERIOD + REQUEST_DEADLINE):
            self.report.violation("status passes keep coming",
                                  "none for %.1f s (bound %.1f s)" % (
                                      now - last,
                                      self.bound(last, now, STATUS_PERIOD + REQUEST_DEADLINE)))

    def check_sanitizer(self):
        for name in sorted(os.listdir(self.box.sanitizer_dir)):
            if name not in self.reported_files:
                self.reported_files.add(name)
                with open(os.path.join(self.box.sanitizer_dir, name), errors="replace") as f:
                    self.report.violation("no sanitizer report", "%s:\n%s" % (name, f.read()[:6000]))

    def check_log(self):
        """Every complete line added since the last look, the rotated file's rest too."""
        for name in ("tarn_monitor.log_0", "tarn_monitor.log"):
            try:
                with open(os.path.join(self.box.logdir, name), "rb") as f:
                    st = os.fstat(f.fileno())
                    if name.endswith("_0") and st.st_ino not in self.log_pos:
                        continue  # rotated before this run looked: nothing of ours
                    pos = self.log_pos.get(st.st_ino, 0)
                    pos = pos if pos <= st.st_size else 0  # a new file under an old inode
                    f.seek(pos)
                    lines = f.read().split(b"\n")
            except OSError:
                continue
            lines.pop()  # unfinished: read again once its newline is there
            self.log_pos[st.st_ino] = pos + sum(len(line) + 1 for line in lines)
            for line in lines:
                text = line.decode("utf-8", "replace")
                if not LOG_LINE.match(text):
                    self.report.violation("log line format", repr(text[:300]))
                    return

    def log_tail(self, lines=40):
        try:
            with open(self.box.log, errors="replace") as f:
                return "".join(f.readlines()[-lines:])
        except OSError:
            return "(no log)"

    # ---- SIGKILL ----

    def snapshot_rows(self):
        """Every row of the system database, read in one transaction that
        stays open (the daemon cannot commit meanwhile), and that connection."""
        c = sqlite3.connect(self.box.db, timeout=600, isolation_level=None)
        c.execute("BEGIN")
        rows = {t: sorted(map(repr, c.execute("SELECT * FROM %s" % t)))
                for t in ("connection_table", "session_table", "server_view_table",
                          "system_table")}
        return c, rows

    def after_kill(self, rows, skip_filters):
        """The database and filter files as the kill left them."""
        try:
            with connect(self.box.db) as c:
                check = c.execute("PRAGMA integrity_check").fetchall()
                if check != [("ok",)]:
                    return self.report.violation("integrity after SIGKILL", repr(check[:5]))
                after = {t: sorted(map(repr, c.execute("SELECT * FROM %s" % t))) for t in rows}
        except sqlite3.Error as e:
            return self.report.violation("integrity after SIGKILL", repr(e))
        for table, before in rows.items():
            if after[table] != before:
                lost = sorted(set(before) - set(after[table]))
                return self.report.violation(
                    "no committed row lost after SIGKILL",
                    "%s: %d rows differ, e.g. %s" % (table, len(lost), lost[:3]))
        for sid in self.box_sessions():
            if sid not in skip_filters:
                self.check_filter(self.box.filter_file(sid))

    def box_sessions(self):
        return sorted(int(n) for n in os.listdir(self.box.session_path("")) if n.isdigit())

    def check_filter(self, path):
        try:
            with open(path, encoding="utf-8") as f:
                lines = f.read().split("\n")
        except (OSError, UnicodeDecodeError) as e:
            return self.report.violation("filter file loads", "%s: %s" % (path, e))
        sections = [line for line in lines if line.startswith("[")]
        bad = [line for line in lines if not FILTER_LINE.fullmatch(line)]
        if sections != FILTER_SECTIONS or bad or lines[-1] != "":
            self.report.violation("filter file loads", "%s: sections %s, bad lines %s"
                                  % (path, sections, bad[:3]))

