"""Local clients of the daemon's socket: requests and notifications, hostile
bytes, silent, trickling and bloating clients.  Every client opens its own
connection, as the daemon's real clients do."""

import random
import socket
import time

from peers import pstream

PROBE = {"action": "soak_probe"}  # an unknown action: answered once the main thread is free


def connect(path, timeout):
    """A connection to the daemon's socket.  While its backlog is full, a
    connect fails with EAGAIN: it is tried again, as a blocking connect
    would wait, until `timeout` has passed (then TimeoutError)."""
    deadline = time.monotonic() + timeout
    while True:
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(timeout)
        try:
            s.connect(path)
            return s
        except BlockingIOError:
            s.close()
            if time.monotonic() > deadline:
                raise TimeoutError("backlog full for %.0f s" % timeout)
            time.sleep(0.05)
        except OSError:
            s.close()
            raise


def request(path, value, timeout=30):
    """Sends one value; the decoded reply.  Raises OSError or PStreamError."""
    with connect(path, timeout) as s:
        s.sendall(pstream.encode(value))
        return pstream.recv_value(s)


def quietly(path, value, timeout=30):
    """request(), failures ignored (the daemon may be restarting)."""
    try:
        return request(path, value, timeout)
    except (OSError, pstream.PStreamError):
        return None


def send_raw(path, data, timeout=30):
    """Sends `data` and closes our side; what came back."""
    try:
        with connect(path, timeout) as s:
            s.sendall(data)
            s.shutdown(socket.SHUT_WR)
            return s.recv(16)
    except OSError:
        return b""


def hostile_bytes(pattern, seed):
    rng = random.Random(seed)
    if pattern == "garbage":
        return bytes(rng.getrandbits(8) for _ in range(rng.randint(1, 4096)))
    return {
        "unknown tag": b"\x07",
        "bad null": b"\x00\x01",
        "bad key": b"\x42\x01\x01\x00\x40",
        "wide integer": b"\x01\xc8" + b"\x01" * 200,
        "deep": b"\x41" * rng.choice((129, 200000)),
        "huge buffer": b"\x20\xff\xff\xff\xff" + b"abc",
        "binary": b"\x42\x10\x00\x01f\x30" + (5).to_bytes(8, "big") + b"hello\x40",
        "cut": pstream.encode({"notify": "error", "conn_id": 1})[:rng.randint(1, 20)],
        "empty": b"",
        "repeated keys": b"\x42" + b"\x10\x00\x01k\x42\x10\x00\x01k\x10\x00\x01v\x40" * 5000
                         + b"\x40",
    }[pattern]


def silent(path, seconds):
    """Connects and sends nothing for `seconds`."""
    try:
        with connect(path, seconds + 30) as s:
            time.sleep(seconds)
    except OSError:
        pass


def trickle(path, seconds):
    """Announces a long key and sends it a byte every half second."""
    try:
        with connect(path, 30) as s:
            s.sendall(b"\x42\x10\xff\xff")
            end = time.monotonic() + seconds
            while time.monotonic() < end:
                s.sendall(b"a")
                time.sleep(0.5)
    except OSError:
        pass


def bloat(path, arrays):
    """`arrays` empty arrays in one: few bytes each on the wire, far more decoded."""
    send_raw(path, b"\x41" + b"\x41\x40" * arrays + b"\x40", timeout=60)
