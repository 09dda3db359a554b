"""The soak's sandbox (one VESTA_ROOT with everything the daemon reads, its
log folder on a small tmpfs), the daemon process, and the faults of its
environment: a locked or read-only system database, a full log volume,
files made unreadable, signals.  Everything stays inside the sandbox; every
mount is undone on every way out (undo_mounts)."""

import contextlib
import ctypes
import os
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import threading
import time

PR_SET_CHILD_SUBREAPER = 36
LOG_VOLUME_BYTES = 24 << 20     # the tmpfs under the log folder
LEVELS = "monitor_daemon=6\nerror_handler=6\nsystem_db_debug=4\nipc=4\n"

CONNECTIONS = {  # id: (server, use_ssl); server None: a port nobody listens on
    1: ("plain", 0), 2: ("tls", 1), 3: ("unix", 0), 4: (None, 0)}
SESSIONS = {  # id: (connection, share, view id)
    1: (1, "docs", 101), 2: (1, "photo", 102), 3: (2, "team", 201), 4: (2, "media", 202),
    5: (3, "home", 301), 6: (4, "vault", 401)}
FILTER = ('[Version]\nmajor = 1\nminor = 0\n\n[Common]\nmax_length = 0\nmax_path = 0\n\n'
          '[File]\nblack_ext = "tmp", "swp"\nmax_size = 0\n\n[Directory]\n\n[EA]\n\n')
EVENT_DB = ("CREATE TABLE config_table (key TEXT PRIMARY KEY, value TEXT);"
            "INSERT INTO config_table VALUES ('sync_id', '7');" +
            "".join("CREATE TABLE %s (x INTEGER);" % t for t in
                    ("event_table", "local_filter_table", "server_filter_table", "scan_path_table")))


def run(*args):
    return subprocess.run(args, capture_output=True, text=True, check=True, timeout=60)


class Sandbox:
    def __init__(self, sanitize):
        self.root = tempfile.mkdtemp(prefix="vesta-soak-")
        self.mounts = []
        try:
            self.make(sanitize)
        except BaseException:
            self.remove()
            raise

    def make(self, sanitize):
        r = self.root
        self.volume = os.path.join(r, "volume1")
        self.logdir = os.path.join(self.volume, "@FernboxTandem/log")
        self.log = os.path.join(self.logdir, "tarn_monitor.log")
        self.dbdir = os.path.join(r, "db")
        self.db = os.path.join(self.dbdir, "system.sqlite")
        self.pid_file = os.path.join(r, "run/monitor.pid")
        self.socket = os.path.join(r, "run/monitor.sock")
        self.sync_socket = os.path.join(r, "tmp/tarn.sock")
        self.unix_server = os.path.join(r, "tmp/remote.sock")
        self.sanitizer_dir = os.path.join(r, "sanitizer")
        for d in ("run", "tmp", "db", "certs", "sanitizer", "etc/vesta/shares",
                  "var/packages/Fernbox/etc/tandem", "volume1/@FernboxTandem/db"):
            os.makedirs(os.path.join(r, d))
        os.makedirs(self.logdir)
        self.mount("-t", "tmpfs", "-o", "size=%d" % LOG_VOLUME_BYTES, "tmpfs", self.logdir)
        write(os.path.join(r, "var/packages/Fernbox/etc/tandem/service.conf"),
              "volume=%s\n" % self.volume)
        write(os.path.join(r, "levels"), LEVELS)
        self.conf = os.path.join(r, "monitor.conf")
        write(self.conf, "pid_file=%s\nsystem_db_path=%s\nsocket_path=%s\nlog_level_file=%s\n"
              "update_status_period=1\nlist_share_period=5\n"
              % (self.pid_file, self.db, self.socket, os.path.join(r, "levels")))
        for _conn, share, _view in SESSIONS.values():
            os.makedirs(os.path.join(self.volume, share), exist_ok=True)
            write(os.path.join(r, "etc/vesta/shares/%s.conf" % share),
                  "path=%s/%s\n" % (self.volume, share))
        for sid in SESSIONS:
            os.makedirs(self.session_path(sid, "conf"))
            os.makedirs(self.session_path(sid, "db"))
            write(self.filter_file(sid), FILTER)
            sqlite(self.event_db(sid), EVENT_DB)
        sqlite(os.path.join(self.volume, "@FernboxTandem/db/filter.sqlite"),
               "CREATE TABLE filter_table (sess_id, sync_id, filter_type, filter_desc);"
               "CREATE TABLE filter_range_table (sess_id, sync_id, filter_type, filter_desc);")
        self.env = dict(os.environ, VESTA_ROOT=r)
        if sanitize:
            self.env["ASAN_OPTIONS"] = "log_path=%s/asan:detect_leaks=1" % self.sanitizer_dir
            self.env["UBSAN_OPTIONS"] = ("log_path=%s/ubsan:print_stacktrace=1"
                                         % self.sanitizer_dir)
        self.certs = {name: self.make_cert(name, cn) for name, cn in
                      (("good", "nas.test"), ("forged", "nas.test"), ("wrong", "other.test"))}

    def session_path(self, sid, *rest):
        return os.path.join(self.volume, "@FernboxTandem/session", str(sid), *rest)

    def filter_file(self, sid):
        return self.session_path(sid, "conf", "blacklist.filter")

    def event_db(self, sid):
        return self.session_path(sid, "db", "event-db.sqlite")

    def make_cert(self, name, cn):
        key, cert = (os.path.join(self.root, "certs", name + ext) for ext in (".key", ".pem"))
        run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key,
            "-out", cert, "-days", "2", "-subj", "/CN=" + cn)
        return cert, key

    def mount(self, *args):
        run("mount", *args)
        self.mounts.append(args[-1])

    def umount(self, path):
        subprocess.run(["umount", "-l", path], capture_output=True)
        if path in self.mounts:
            self.mounts.remove(path)

    def undo_mounts(self):
        for path in reversed(list(self.mounts)):
            self.umount(path)

    def remove(self):
        self.undo_mounts()
        shutil.rmtree(self.root, ignore_errors=True)

    def seed_database(self, ports):
        """The connections and sessions, once the daemon made the schema."""
        rows = []
        for cid, (server, ssl_) in CONNECTIONS.items():
            ip = "unix:" + self.unix_server if server == "unix" else "127.0.0.1"
            port = ports.get(server, 1)
            rows.append("INSERT INTO connection_table (id, conn_mode, server_name, server_ip, "
                        "server_port, username, nx_id, session, protocol_version, linked, "
                        "package_version, major, minor, use_ssl) VALUES (%d, 1, 'nas%d', '%s', "
                        "%d, 'alice', 'nx-%d', 'sid', 70, 1, 10001, 3, 1, %d);"
                        % (cid, cid, ip, port, cid, ssl_))
        for sid, (cid, share, view) in SESSIONS.items():
            rows.append("INSERT INTO session_table (id, conn_id, share_name, remote_path, view_id, "
                        "node_id, sync_folder, is_daemon_enable, status, sync_direction) VALUES "
                        "(%d, %d, '%s', '/%s/', %d, %d, '%s/', 1, 1, %d);"
                        % (sid, cid, share, share, view, view, share, sid % 3))
        with connect(self.db) as c:
            c.executescript("BEGIN;" + "".join(rows) + "COMMIT;")

    def reported(self, ports):
        """What the sync daemon reports of each stored connection."""
        out = {}
        with connect(self.db) as c:
            for row in c.execute("SELECT id, server_ip, server_port, conn_mode, major, minor, "
                                 "package_version, protocol_version, nx_id, restore_id, "
                                 "tunnel_ip, tunnel_port FROM connection_table"):
                out[row[0]] = dict(zip(
                    ("server_ip", "server_port", "connection_mode", "package_major",
                     "package_minor", "package_version", "protocol_version", "nx_id",
                     "restore_id", "tunnel_ip", "tunnel_port"), row[1:]))
        return out


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


def connect(path, timeout=120):
    return contextlib.closing(sqlite3.connect(path, timeout=timeout, isolation_level=None))


def sqlite(path, script):
    with connect(path) as c:
        c.executescript(script)


class Daemon:
    """The daemon of one sandbox: start, find, stop, kill.  The soak becomes
    the subreaper of the daemons it starts: each detaches into a child of
    the soak, which reaps it when it ends."""

    def __init__(self, box, binary):
        self.box, self.binary = box, binary
        self.pid = None
        ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)

    def start(self, answers, limit=30):
        """Starts the binary and waits until `answers`() is true; its pid."""
        subprocess.run([self.binary, self.box.conf], env=self.box.env, timeout=limit,
                       stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + limit
        while time.monotonic() < deadline:
            pids = self.running()
            if pids and answers():
                self.pid = pids[0]
                return self.pid
            time.sleep(0.1)
        raise RuntimeError("the daemon did not serve within %d s" % limit)

    def running(self):
        """Pids of live processes running this sandbox's configuration."""
        pids = []
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open("/proc/%s/cmdline" % pid, "rb") as f:
                    argv = f.read().split(b"\0")
                if self.box.conf.encode() not in argv[1:]:
                    continue
                if alive(int(pid)):
                    pids.append(int(pid))
                else:  # one that ended by itself (a failed start): reaped
                    with contextlib.suppress(ChildProcessError):
                        os.waitpid(int(pid), os.WNOHANG)
            except OSError:
                pass
        return pids

    def signal(self, signo):
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.pid, signo)

    def wait_gone(self, limit):
        """Seconds until the daemon was gone, or None when still there after
        `limit`.  A gone daemon is reaped (the soak is its subreaper), so
        that its pid names no process when the next one starts."""
        t0 = time.monotonic()
        while time.monotonic() - t0 < limit:
            if not alive(self.pid):
                with contextlib.suppress(ChildProcessError):
                    os.waitpid(self.pid, 0)
                return time.monotonic() - t0
            time.sleep(0.05)
        return None

    def kill_all(self):
        for pid in self.running():
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
            with contextlib.suppress(ChildProcessError):
                os.waitpid(pid, 0)


def alive(pid):
    """Running, not a zombie."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


# ---- faults of the environment; each runs on its own thread for its window ----

def db_lock(box, faults, seconds):
    """Another process holds the system database's exclusive lock."""
    code = ("import sqlite3,sys,time\n"
            "c=sqlite3.connect(sys.argv[1],timeout=60,isolation_level=None)\n"
            "c.execute('BEGIN EXCLUSIVE')\nprint('locked',flush=True)\n"
            "time.sleep(float(sys.argv[2]))\nc.execute('ROLLBACK')\n")
    p = subprocess.Popen([sys.executable, "-c", code, box.db, str(seconds)],
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    if p.stdout.readline().strip() == "locked":
        w = faults.open("env.dblock", seconds, hold=seconds)
        p.wait()
        w.finish()
    else:
        p.wait()


def db_read_only(box, faults, seconds):
    """The database's folder is mounted read-only over itself."""
    box.mount("--bind", box.dbdir, box.dbdir)
    try:
        run("mount", "-o", "remount,ro,bind", box.dbdir)
        faults.open("env.dbro", seconds).wait_end()
    finally:
        box.umount(box.dbdir)


def log_full(box, faults, seconds):
    """The log volume is filled to its last byte."""
    filler = os.path.join(box.logdir, "filler")
    fd = os.open(filler, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    for size in (1 << 20, 4096, 1):
        try:
            while True:
                os.write(fd, b"\0" * size)
        except OSError:
            pass
    os.close(fd)
    try:
        faults.open("env.logfull", seconds).wait_end()
    finally:
        os.unlink(filler)


def unreadable(faults, kind, path, seconds, sess):
    """The file at `path` is replaced by a folder for the window."""
    saved = path + ".soak-saved"
    os.rename(path, saved)
    os.mkdir(path)
    try:
        faults.open(kind, seconds, sess=sess).wait_end()
    finally:
        os.rmdir(path)
        os.rename(saved, path)


def prune_rotated_logs(box):
    """What an operator's clean-up would do: only the newest rotated log stays."""
    for name in os.listdir(box.logdir):
        if name.startswith("tarn_monitor.log_") and name != "tarn_monitor.log_0":
            with contextlib.suppress(OSError):
                os.unlink(os.path.join(box.logdir, name))


def start_thread(target, *args):
    t = threading.Thread(target=target, args=args, daemon=True)
    t.start()
    return t
