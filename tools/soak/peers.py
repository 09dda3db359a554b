"""The soak's peers of the daemon, in-process so that one schedule drives them:
the sync daemon on its command socket and the remote servers (plain TCP,
TLS, "unix:"), each answering as a healthy peer unless a fault window of its
kind is open.  The wire codec is tests/peers/pstream.py.
"""

import os
import random
import socket
import ssl
import struct
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "tests", "peers"))
import pstream  # noqa: E402  (the shared wire codec)

MAGIC, VERSION = 0x25521814, 70
HEADER = struct.Struct(">IBBH")
COMMANDS = {22: "encrypt_channel", 25: "query_server_info", 17: "query_user_info"}


class Window:
    """One fault in progress from `start` to `end` (monotonic seconds).
    `hold`: how long it may hold the daemon's main thread, by design."""

    def __init__(self, kind, seconds, hold, params):
        self.kind, self.params, self.hold = kind, params, hold
        self.start = time.monotonic()
        self.end = self.start + seconds
        self.ended = threading.Event()

    def wait_end(self):
        self.ended.wait(max(0.0, self.end - time.monotonic()) + 0.05)
        self.ended.set()

    def finish(self):
        self.end = min(self.end, time.monotonic())
        self.ended.set()


class Faults:
    """Every fault window of the run, open or past."""

    def __init__(self):
        self.lock = threading.Lock()
        self.windows = []

    def open(self, kind, length, hold=0.0, **params):
        """A window of `length` seconds from now."""
        w = Window(kind, length, hold, params)
        with self.lock:
            self.windows.append(w)
        timer = threading.Timer(length, w.ended.set)
        timer.daemon = True
        timer.start()
        return w

    def active(self, kind, **match):
        """The latest open window of `kind` whose params hold `match`."""
        now = time.monotonic()
        with self.lock:
            for w in reversed(self.windows):
                if (w.kind == kind and not w.ended.is_set() and w.end > now and
                        all(w.params.get(k) == v for k, v in match.items())):
                    return w
        return None

    def hold_between(self, t0, t1, kind=None):
        """What the windows (of `kind`, or all) that overlap [t0, t1] may hold
        the main thread; a window counts until its hold has passed after its
        end (what it held up is still being served)."""
        with self.lock:
            return sum(w.hold for w in self.windows if w.start <= t1 and w.end + w.hold >= t0
                       and kind in (None, w.kind))

    def finish_all(self):
        with self.lock:
            for w in self.windows:
                w.ended.set()


def recv_exact(conn, n):
    data = b""
    while len(data) < n:
        chunk = conn.recv(n - len(data))
        if not chunk:
            return None
        data += chunk
    return data


def reset(conn):
    """Closes with a TCP reset (a plain close on a UNIX socket)."""
    try:
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    except OSError:
        pass
    conn.close()


def serve_forever(server, handle):
    def loop():
        while True:
            try:
                conn, _ = server.accept()
            except OSError:
                return  # closed at the end of the run
            threading.Thread(target=handle, args=(conn,), daemon=True).start()
    threading.Thread(target=loop, daemon=True).start()


def listen_unix(path):
    if os.path.exists(path):
        os.unlink(path)
    return socket.create_server(path, family=socket.AF_UNIX, backlog=64)


class SyncDaemon:
    """The sync daemon: answers get_status from `reported` (connection id ->
    the fields it reports) and every command with {"ack": "ok"}; records
    when each status request came."""

    def __init__(self, path, faults, reported):
        self.faults, self.reported = faults, reported
        self.lock = threading.Lock()
        self.words = {}          # connection id -> status word while a flap lasts
        self.passes = []         # monotonic times of get_status requests
        self.commands = 0
        self.server = listen_unix(path)
        serve_forever(self.server, self.handle)

    def status_reply(self):
        with self.lock:
            return {"connection_list": [
                dict(fields, connection_id=cid, status=self.words.get(cid, "connected"))
                for cid, fields in sorted(self.reported.items())]}

    def handle(self, conn):
        with conn:
            try:
                conn.settimeout(90)
                request = pstream.recv_value(conn)
                action = request.get("action") if isinstance(request, dict) else None
                with self.lock:
                    if action == "get_status":
                        self.passes.append(time.monotonic())
                    else:
                        self.commands += 1
                self.answer(conn, action)
            except (OSError, pstream.PStreamError):
                pass

    def answer(self, conn, action):
        reply = self.status_reply() if action == "get_status" else {"ack": "ok"}
        w = self.faults.active("sync.silence")
        if w:
            w.wait_end()
            return
        w = self.faults.active("sync.garbage")
        if w:
            rng = random.Random(w.params["seed"] ^ self.commands)
            conn.sendall(bytes(rng.getrandbits(8) for _ in range(rng.randint(1, 300))))
            return
        data = pstream.encode(reply)
        if self.faults.active("sync.cut"):
            conn.sendall(data[:max(1, len(data) // 2)])
            return
        w = self.faults.active("sync.slow")
        if w:
            w.hold += w.params["delay"]
            time.sleep(w.params["delay"])
        w = self.faults.active("sync.error")
        if w and (action != "get_status" or w.params["status_too"]):
            data = pstream.encode(w.params["reply"])
        conn.sendall(data)


class RemoteServer:
    """One remote server: `name` is "plain", "tls" or "unix".  Answers
    query_user_info from `views`, query_server_info from `info`."""

    def __init__(self, name, faults, views, info, contexts=None, unix_path=None):
        self.name, self.faults, self.views, self.info = name, faults, views, info
        self.contexts = contexts or {}
        self.lock = threading.Lock()
        self.asked = 0
        self.big = {}
        if unix_path:
            self.server = listen_unix(unix_path)
            self.port = 0
        else:
            self.server = socket.create_server(("127.0.0.1", 0), backlog=64)
            self.port = self.server.getsockname()[1]
        serve_forever(self.server, self.handle)

    def reply_to(self, action):
        if action == "query_user_info":
            with self.lock:
                return {"uid": 1026, "gid": 100, "is_admin_group": 0,
                        "view_list": [dict(v) for v in self.views]}
        if action == "query_server_info":
            with self.lock:
                return dict(self.info)
        return {}

    def oversized(self, mib):
        """A reply of about `mib` MiB: views with long names."""
        if mib not in self.big:
            name = "x" * 60000
            self.big[mib] = pstream.encode(
                {"view_list": [{"view_id": i, "name": name} for i in range(mib * 17)]})
        return self.big[mib]

    def handle(self, conn):
        try:
            conn.settimeout(90)
            while True:
                raw = recv_exact(conn, HEADER.size)
                if raw is None:
                    return
                magic, version, command, _ = HEADER.unpack(raw)
                if magic != MAGIC or version != VERSION:
                    return
                pstream.recv_value(conn)
                action = COMMANDS.get(command, "cmd%d" % command)
                with self.lock:
                    self.asked += 1
                conn, ended = self.answer(conn, action), conn
                if conn is None:
                    conn = ended
                    return
        except (OSError, pstream.PStreamError, ssl.SSLError):
            pass
        finally:
            try:
                conn.close()
            except OSError:
                pass

    def answer(self, conn, action):
        """Answers one request; the socket to go on with, or None to end."""
        mine = {"server": self.name}
        w = self.faults.active("server.stall", **mine)
        if w:
            w.wait_end()
            return None
        data = pstream.encode(self.reply_to(action))
        if action != "encrypt_channel":
            w = self.faults.active("server.error", **mine)
            if w:
                data = pstream.encode({"error": {"code": w.params["code"], "reason": "soak"}})
            w = self.faults.active("server.oversize", **mine)
            if w:
                data = self.oversized(w.params["mib"])
            w = self.faults.active("server.keepalive", **mine)
            if w:
                data = pstream.encode({"type": "keep_alive"}) * w.params["count"] + data
        if self.faults.active("server.reset", **mine):
            conn.sendall(data[:len(data) // 2])
            reset(conn)
            return None
        conn.sendall(data)
        if action != "encrypt_channel":
            return conn
        if not self.contexts:
            return None
        w = self.faults.active("server.cert")
        context = self.contexts[w.params["cert"] if w else "good"]
        return context.wrap_socket(conn, server_side=True)


def tls_contexts(certs):
    """SSL server contexts by name from {name: (cert, key)}."""
    contexts = {}
    for name, (cert, key) in certs.items():
        c = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        c.load_cert_chain(cert, key)
        contexts[name] = c
    return contexts
