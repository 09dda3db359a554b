#!/usr/bin/env python3
"""A seeded fault-injection soak of the real vesta-monitor binary.

    soak.py BINARY [--seconds N] [--seed S] [--sanitize] [--keep-going]
                   [--kinds K,K...] [--after-kill CMD]

Runs the daemon in a fresh VESTA_ROOT beside an in-process sync daemon,
three remote servers (plain, TLS, "unix:") and local clients, injects the
faults of one seeded schedule (schedule.py; printed as they happen) and
checks the invariants of checks.py all along.  The seed is printed first;
the same seed injects the same schedule again.  The last line sums the run
up; the exit status is 1 when an invariant was broken.

--keep-going goes on after a violation (to see what else a schedule finds).
--kinds limits the schedule to those kinds; --after-kill runs CMD (with
SOAK_DB naming the system database) after every SIGKILL, before the checks:
both are for testing the checker itself.  Run as root (it mounts a tmpfs and
a read-only bind mount inside its sandbox, and undoes them on every exit).
"""

import argparse
import collections
import contextlib
import os
import random
import shutil
import signal
import sqlite3
import subprocess
import sys
import threading
import time

import checks
import clients
import environment as env
import oracle
import peers
import schedule

# What a window may hold the main thread, by design: a stall or silence until
# it ends (each exchange waits for the end, within its time-outs); a flood or
# an oversized reply until the server exchange's deadline (twice its 60-s
# time-out); a silent, trickling or bloating client until the request deadline.
EXCHANGE_DEADLINE = 120
HOLDS = {"sync.silence": lambda p: p["seconds"], "server.stall": lambda p: p["seconds"],
         "server.keepalive": lambda p: EXCHANGE_DEADLINE,
         "server.oversize": lambda p: EXCHANGE_DEADLINE}
DISTURBANCES = ("recovered to connected status", "switch session", "Resuming back",
                "UpgradeConnection", "Received share hook", "connection info changed",
                "switch connection", "Connected to a different nx", "Server has been restored",
                "version changed")


class Soak:
    def __init__(self, args, seed, entries):
        self.args, self.seed, self.entries = args, seed, entries
        self.report = checks.Report(sys.stdout, args.keep_going)
        self.faults = peers.Faults()
        self.state = checks.State()
        self.writer = threading.Lock()  # the soak's own database writes, one at a time
        self.done = []
        self.kills = 0
        self.t0 = time.monotonic()
        self.oracle_checked = self.oracle_skipped = 0
        self.box = env.Sandbox(args.sanitize)
        self.daemon = env.Daemon(self.box, args.binary)

    # ---- set-up ----

    def start_peers(self):
        box = self.box
        views = collections.defaultdict(list)
        for sid, (cid, share, view) in env.SESSIONS.items():
            server = env.CONNECTIONS[cid][0]
            if server:
                views[server].append({"view_id": view, "name": share, "privilege": "read-write",
                                      "version": 1, "is_encryption": 0, "is_mounted": 1})
        self.initial_views = {k: [dict(v) for v in vs] for k, vs in views.items()}
        info = {"package_version": {"major": 3, "minor": 1, "build": 10001}}
        self.servers = {
            "plain": peers.RemoteServer("plain", self.faults, views["plain"], info),
            "tls": peers.RemoteServer("tls", self.faults, views["tls"], info,
                                      contexts=peers.tls_contexts(box.certs)),
            "unix": peers.RemoteServer("unix", self.faults, views["unix"], info,
                                       unix_path=box.unix_server)}
        self.sync = peers.SyncDaemon(box.sync_socket, self.faults, {})
        self.checker = checks.Checker(box, self.faults, self.report, self.state, self.sync,
                                      self.args.sanitize)

    def answers(self):
        try:
            return clients.request(self.box.socket, clients.PROBE, timeout=5) is None
        except (OSError, peers.pstream.PStreamError):
            return False

    def start_daemon(self):
        """Starts the daemon; only another process's database lock may delay
        its start (the schema step waits for it)."""
        self.writable_db()
        now = time.monotonic()
        locks = self.faults.hold_between(now, now, kind="env.dblock")
        pid = self.daemon.start(self.answers, limit=30 + locks)
        self.state.set_up(pid)
        return pid

    def writable_db(self):
        """Ends a read-only spell of the database early: the daemon cannot
        start on it (its schema step writes), by design, and the checks
        after a kill need its journal."""
        w = self.faults.active("env.dbro")
        if w:
            w.finish()
            while self.box.dbdir in self.box.mounts:
                time.sleep(0.05)

    def first_start(self):
        self.start_daemon()
        ports = {name: s.port for name, s in self.servers.items()}
        self.box.seed_database(ports)
        self.original = self.box.reported(ports)
        with self.sync.lock:
            self.sync.reported.update({k: dict(v) for k, v in self.original.items()})

    # ---- the run ----

    def run(self):
        self.start_peers()
        self.first_start()
        for loop in (self.probe_loop, self.sample_loop):
            env.start_thread(loop)
        t0 = self.t0 = time.monotonic()
        for entry in self.entries:
            while time.monotonic() - t0 < entry.t and not self.report.failed.is_set():
                time.sleep(0.05)
            if self.report.failed.is_set():
                break
            self.report.say(str(entry))
            self.done.append(entry)
            getattr(self, "do_" + entry.kind.replace(".", "_"), self.do_window)(entry.params,
                                                                                entry.kind)
        while time.monotonic() - t0 < self.args.seconds and not self.report.failed.is_set():
            time.sleep(0.1)
        if self.state.snapshot()[0] and not self.report.failed.is_set():
            self.stop(restart=False)
        self.faults.finish_all()

    def probe_loop(self):
        while not self.report.failed.is_set():
            self.checker.probe_once()
            time.sleep(1)

    def sample_loop(self):
        while not self.report.failed.is_set():
            self.checker.sample()
            env.prune_rotated_logs(self.box)
            time.sleep(1)

    def in_thread(self, target, *args):
        env.start_thread(target, *args)

    # ---- the sync daemon ----

    def do_sync_add(self, p, _kind):
        with self.sync.lock:
            self.sync.reported[p["conn"]] = dict(self.original.get(p["conn"], self.original[1]))

    def do_sync_drop(self, p, _kind):
        with self.sync.lock:
            self.sync.reported.pop(p["conn"], None)

    def do_sync_flap(self, p, _kind):
        with self.sync.lock:
            self.sync.words[p["conn"]] = p["word"]

        def back():
            with self.sync.lock:
                self.sync.words.pop(p["conn"], None)
        threading.Timer(p["seconds"], back).start()

    def do_sync_change(self, p, _kind):
        fields = {"address": ["server_ip"], "port": ["server_port"],
                  "tunnel": ["tunnel_ip", "tunnel_port"], "nx_id": ["nx_id"],
                  "restore_id": ["restore_id"], "version": ["package_major", "package_minor"],
                  "build": ["package_version"], "protocol": ["protocol_version"],
                  "mode": ["connection_mode"]}[p["field"]]
        values = p["value"] if len(fields) > 1 else [p["value"]]
        with self.sync.lock:
            if p["conn"] in self.sync.reported:
                self.sync.reported[p["conn"]].update(zip(fields, values))

    def do_window(self, p, kind):
        """A fault of a peer that lasts `seconds`; the peers look it up."""
        seconds = p.get("seconds", 10)
        self.faults.open(kind, seconds, hold=HOLDS.get(kind, lambda _: 0)(p), **p)

    # ---- the remote servers ----

    def do_server_views(self, p, _kind):
        server = self.servers[p["server"]]
        with server.lock:
            views = server.views
            if p["op"] == "restore" or not views:
                views[:] = [dict(v) for v in self.initial_views[p["server"]]]
                return
            v = views[p["pick"] % len(views)]
            if p["op"] == "rename":
                v["name"] = v["name"].split("-")[0] + ("" if "-" in v["name"] else "-%d" % p["pick"])
            elif p["op"] == "version":
                v["version"] += 1
            elif p["op"] == "privilege":
                v["privilege"] = {"read-write": "read-only", "read-only": "none"}.get(
                    v["privilege"], "read-write")
            elif p["op"] in ("encrypt", "unmount"):
                v["is_encryption"], v["is_mounted"] = 1, int(p["op"] == "encrypt")
            else:
                views.remove(v)

    # ---- local clients ----

    def do_client_request(self, p, _kind):
        self.in_thread(clients.quietly, self.box.socket, p["request"], 600)

    def do_client_hook(self, p, _kind):
        self.in_thread(clients.quietly, self.box.socket, {
            "notify": "share_hook", "share_name": p["share"], "type": p["type"],
            "result": p["result"]}, 600)

    def do_client_hostile(self, p, _kind):
        self.in_thread(clients.send_raw, self.box.socket,
                       clients.hostile_bytes(p["pattern"], p["seed"]))

    def do_client_silent(self, p, kind):
        """A silent or trickling client: it may hold the main thread until
        the request deadline."""
        self.faults.open(kind, p["seconds"], hold=min(p["seconds"], checks.REQUEST_DEADLINE))
        self.in_thread(getattr(clients, kind.split(".")[1]), self.box.socket, p["seconds"])

    do_client_trickle = do_client_silent

    def do_client_bloat(self, p, kind):
        self.faults.open(kind, checks.REQUEST_DEADLINE, hold=checks.REQUEST_DEADLINE)
        self.in_thread(clients.bloat, self.box.socket, p["arrays"])

    def do_client_burst(self, p, kind):
        self.faults.open(kind, 5, hold=0.5 * len(p["requests"]))
        for r in p["requests"]:
            self.in_thread(clients.quietly, self.box.socket, r, 600)

    def do_client_error(self, p, _kind):
        self.in_thread(self.checked_error, p["conn"], p["sess"], p["type"])

    def checked_error(self, conn, sess, error_type):
        """Sends an error notification and checks the state it leaves."""
        note = {"notify": "error", "conn_id": conn, "sess_id": sess, "error_type": error_type}
        with self.writer:
            up, epoch, _ = self.state.snapshot()
            log_from = self.log_size()
            try:
                with env.connect(self.box.db, timeout=600) as db:
                    before = oracle.read_state(db)
            except sqlite3.Error:
                before = None
            try:
                reply = clients.request(self.box.socket, note, timeout=600)
                handled = clients.request(self.box.socket, clients.PROBE, timeout=600) is None
            except (OSError, peers.pstream.PStreamError):
                reply, handled = None, False
            if self.state.snapshot()[1] != epoch or not up:
                return
            if reply != {"ack": "ok"}:
                return self.report.violation("notification acknowledged", repr(reply))
            window = self.log_since(log_from)
            if before is None or not handled or window is None or window.count(
                    "handling error code") > 1 or any(d in window for d in DISTURBANCES):
                self.oracle_skipped += 1
                return
            with env.connect(self.box.db, timeout=600) as db:
                after = oracle.read_state(db)
            bad = oracle.violations(before, after, conn, sess, error_type)
            if bad:
                return self.report.violation("error notification leaves an allowed state",
                                             "%r: %s" % (note, "; ".join(bad)))
            self.oracle_checked += 1

    def log_size(self):
        try:
            st = os.stat(self.box.log)
            return st.st_ino, st.st_size
        except OSError:
            return None

    def log_since(self, mark):
        """The log text written since `mark`; None when it rotated meanwhile."""
        now = self.log_size()
        if not mark or not now or now[0] != mark[0]:
            return None
        with open(self.box.log, "rb") as f:
            f.seek(mark[1])
            return f.read().decode("utf-8", "replace")

    # ---- the environment ----

    def do_env_dblock(self, p, _kind):
        self.in_thread(env.db_lock, self.box, self.faults, p["seconds"])

    def do_env_dbro(self, p, _kind):
        if self.box.dbdir not in self.box.mounts:
            self.in_thread(env.db_read_only, self.box, self.faults, p["seconds"])

    def do_env_logfull(self, p, _kind):
        if not self.faults.active("env.logfull"):
            self.in_thread(env.log_full, self.box, self.faults, p["seconds"])

    def do_env_filter(self, p, kind):
        """A session's filter file or event database made unreadable."""
        path = (self.box.filter_file if kind == "env.filter" else self.box.event_db)(p["sess"])
        if not self.faults.active(kind, sess=p["sess"]):
            self.in_thread(env.unreadable, self.faults, kind, path, p["seconds"], p["sess"])

    do_env_eventdb = do_env_filter

    def do_env_sigusr(self, p, _kind):
        if self.state.snapshot()[0]:
            for _ in range(p["times"]):
                self.daemon.signal(getattr(signal, p["signal"]))

    def do_env_kill(self, _p, _kind):
        if not self.state.snapshot()[0]:
            return
        self.writable_db()
        db, rows = self.checker.snapshot_rows()
        self.state.set_down()
        self.daemon.signal(signal.SIGKILL)
        self.daemon.wait_gone(10)
        db.close()
        self.kills += 1
        if self.args.after_kill:
            subprocess.run(self.args.after_kill, shell=True,
                           env=dict(os.environ, SOAK_DB=self.box.db))
        skip = {w.params["sess"] for w in self.faults.windows
                if w.kind == "env.filter" and not w.ended.is_set()}
        self.checker.after_kill(rows, skip)
        self.restart()

    def do_env_stop(self, p, _kind):
        if self.state.snapshot()[0]:
            self.stop(how=p["how"])

    def stop(self, how="SIGTERM", restart=True):
        """Stops the daemon; it must be gone within the stop limit."""
        self.state.set_down()
        if how == "request":
            clients.quietly(self.box.socket, {"action": "stop"}, timeout=600)
        else:
            self.daemon.signal(signal.SIGTERM)
        if self.daemon.wait_gone(checks.STOP_LIMIT) is None:
            self.report.violation("stop within %d s" % checks.STOP_LIMIT,
                                  "pid %d still runs after %s" % (self.daemon.pid, how))
            self.daemon.kill_all()
            self.daemon.wait_gone(10)
        elif os.path.exists(self.box.pid_file):
            self.report.violation("stop removes the pid file", self.box.pid_file)
        if restart and not self.report.failed.is_set():
            self.restart()

    def restart(self):
        if self.report.failed.is_set():
            return
        try:
            pid = self.start_daemon()
        except RuntimeError as e:
            return self.report.violation("restart", str(e))
        try:
            with open(self.box.pid_file) as f:
                named = f.read().strip()
        except OSError as e:
            named = str(e)
        if named != str(pid) or self.daemon.running() != [pid]:
            self.report.violation("pid file names the new process",
                                  "pid file %r, running %s" % (named, self.daemon.running()))

    def do_ui_reset(self, p, _kind):
        self.in_thread(self.ui_reset, p["conn"], len(self.done))

    def ui_reset(self, cid, n):
        """Re-links a connection with its server as it first was, resumes its
        sessions, and commits a marker row."""
        o = self.original[cid]
        with self.writer:
            if self.box.dbdir in self.box.mounts:
                return
            try:
                with env.connect(self.box.db, timeout=5) as db:
                    db.execute("BEGIN IMMEDIATE")
                    db.execute("UPDATE connection_table SET error = 0, status = 0, linked = 1, "
                               "server_ip = ?, server_port = ?, conn_mode = ?, nx_id = ?, "
                               "restore_id = ?, package_version = ?, major = ?, minor = ?, "
                               "protocol_version = ?, tunnel_ip = ?, tunnel_port = ? WHERE id = ?",
                               (o["server_ip"], o["server_port"], o["connection_mode"], o["nx_id"],
                                o["restore_id"], o["package_version"], o["package_major"],
                                o["package_minor"], o["protocol_version"], o["tunnel_ip"],
                                o["tunnel_port"], cid))
                    db.execute("UPDATE session_table SET error = 0, status = 1, "
                               "is_daemon_enable = 1 WHERE conn_id = ?", (cid,))
                    db.execute("INSERT INTO system_table (key, value) VALUES (?, ?)",
                               ("soak_marker_%d" % n, str(self.seed)))
                    db.execute("COMMIT")
            except sqlite3.Error:
                return  # locked by a fault: the back end would try again later
        with self.sync.lock:
            self.sync.reported[cid] = dict(o)

    # ---- the end ----

    def summary(self, seconds):
        faults = collections.Counter(e.kind for e in self.done if e.kind != "ui.reset")
        by_kind = ", ".join("%s %d" % kv for kv in sorted(faults.items()))
        return ("soak: seed %d, %d s, %d faults injected (by kind: %s), %d restarts after "
                "SIGKILL, %d invariant violations"
                % (self.seed, seconds, sum(faults.values()), by_kind, self.kills,
                   len(self.report.violations)))

    def failure_report(self):
        say = self.report.say
        say("---- violation report ----")
        say("seed: %d (replay: SOAK_SEED=%d make soak)" % (self.seed, self.seed))
        for invariant, detail in self.report.violations:
            say("broken: %s: %s" % (invariant, detail))
        say("schedule up to it (%d entries; all of them above):" % len(self.done))
        for e in self.done[-25:]:
            say("  " + str(e))
        say("daemon log tail:\n" + self.checker.log_tail())

    def cleanup(self):
        self.state.set_down()  # what follows is no fault of the daemon
        self.faults.finish_all()
        self.daemon.kill_all()
        time.sleep(0.2)
        if self.report.violations:  # the log volume goes with its mount
            shutil.copytree(self.box.logdir, os.path.join(self.box.root, "log"))
        self.box.undo_mounts()
        if self.report.violations or os.environ.get("SOAK_KEEP"):
            self.report.say("sandbox kept: %s" % self.box.root)
        else:
            self.box.remove()


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("binary")
    p.add_argument("--seconds", type=int, default=int(os.environ.get("SOAK_SECONDS") or 300))
    p.add_argument("--seed", type=int, default=int(os.environ.get("SOAK_SEED") or 0) or None)
    p.add_argument("--sanitize", action="store_true")
    p.add_argument("--kinds", default="")
    p.add_argument("--after-kill", default="")
    p.add_argument("--keep-going", action="store_true")
    args = p.parse_args()
    args.binary = os.path.abspath(args.binary)
    seed = args.seed or random.SystemRandom().randrange(1, 2**31)
    print("soak: seed %d (SOAK_SEED=%d replays this run)" % (seed, seed), flush=True)
    kinds = [k for k in args.kinds.split(",") if k] or None
    entries = schedule.make(seed, args.seconds, kinds)
    soak = Soak(args, seed, entries)

    def interrupted(_signo, _frame):
        raise KeyboardInterrupt
    signal.signal(signal.SIGTERM, interrupted)
    try:
        soak.run()
    except KeyboardInterrupt:
        soak.report.violation("run completed", "interrupted")
    finally:
        if soak.report.violations:
            with contextlib.suppress(Exception):
                soak.failure_report()
        soak.cleanup()
    c = soak.checker
    print("soak: %d probes answered; %d error notifications checked against the error "
          "tables, %d skipped (state changed meanwhile); resident memory at most %d KiB, "
          "%d descriptors" % (c.probes, soak.oracle_checked, soak.oracle_skipped, c.max_rss,
                              c.max_fds), flush=True)
    print(soak.summary(time.monotonic() - soak.t0), flush=True)
    os._exit(1 if soak.report.violations else 0)


if __name__ == "__main__":
    main()
