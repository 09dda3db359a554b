#!/usr/bin/env python3
"""Cross-check of the Python codec against the daemon's encoder: the echo
peer (tests/stream/pstream_echo.cc) decodes each value sent and encodes it
again; the answer must be byte for byte what this codec writes for the
value after one trip.  Malformed inputs fail with the same code in both
decoders (the echo answers {"error": code}).

    cross_check.py PATH_OF_pstream_echo [COUNT] [SEED]
"""

import hashlib
import os
import random
import shlex
import shutil
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pstream  # noqa: E402

INT_EDGES = [0, 1, 255, 256, 65535, 65536, 2**32 - 1, 2**32, 2**63 - 1, -1, -2,
             -256, -(2**31), -(2**63)]
TEXT_POOL = "abcxyzABC_0123 \"\\\t\n\x01é€😀"
# Sent every run: the key rule, a cut string, keys and texts that are no
# UTF-8, each kind of byte block.
EDGES = [{"_agent": "x", "_": 1, "__a": None}, "a" + "b" * 65536, {b"\xff\x00": b"\x80"},
         [pstream.Buffer(b""), pstream.Binary(b""), pstream.BinaryEx(b"", hash_algo="sha256")],
         {"k": [pstream.Binary(b"\x00" * 100000), pstream.BinaryEx(b"x" * 70000)]}]
MALFORMED = [  # (input, code)
    (bytes([0x07]), -5),  # unknown tag
    (bytes([0x00, 0x01]), -5),  # null with length 1
    (bytes([0x42, 0x01, 0x01, 0x05]), -5),  # key not a string
    (bytes([0x01, 200]) + bytes(8), -5),  # integer length 200
    (bytes([0x41]) * 2000, -5),  # too deep
    (bytes([0x40]), -5),  # end marker alone
    (bytes([0x20, 0xff, 0xff, 0xff, 0xff, 1, 2, 3]), -2),  # cut buffer
]


def gen_value(rng, depth=0):
    def text():
        n = rng.choice([0, 1, 5, 15, 16, 17, 40, rng.randrange(300)])
        return "".join(rng.choice(TEXT_POOL) for _ in range(n))

    def raw(limit=64):
        return bytes(rng.randrange(256) for _ in range(rng.randrange(limit)))

    def key():
        r = rng.random()
        return "_" + text()[:10] if r < 0.15 else b"\xff" + raw(8) if r < 0.25 else text()[:20]

    def wire(k):  # a key and its bytes form are the same key on the wire
        return k.encode() if isinstance(k, str) else k

    kind = rng.choice(["null", "int", "int", "text", "bytes", "buffer"] +
                      (["list", "dict", "dict", "binary", "binary_ex"] if depth < 4 else []))
    if kind == "list":
        return [gen_value(rng, depth + 1) for _ in range(rng.randrange(6))]
    if kind == "dict":
        members = {}
        for k in (key() for _ in range(rng.randrange(6))):
            if wire(k) not in set(map(wire, members)):
                members[k] = gen_value(rng, depth + 1)
        return members
    return {"null": lambda: None,
            "int": lambda: (rng.choice(INT_EDGES) if rng.random() < 0.5
                            else rng.randrange(-(2**63), 2**63)),
            "text": text,
            "bytes": raw,
            "buffer": lambda: pstream.Buffer(raw(5000)),
            "binary": lambda: pstream.Binary(raw(3000)),
            "binary_ex": lambda: pstream.BinaryEx(raw(3000), hash_algo="sha256"),
            }[kind]()


def exchange(path, data, half_close=False):
    """Sends raw bytes, returns every byte of the answer."""
    deadline = time.monotonic() + 30
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(30)
        while s.connect_ex(path) != 0 and time.monotonic() < deadline:  # the echo starting
            time.sleep(0.01)
        s.sendall(data)
        if half_close:
            s.shutdown(socket.SHUT_WR)
        return b"".join(iter(lambda: s.recv(1 << 16), b""))


def with_sha256(value):
    """The daemon side sends every binary_ex with a sha256 digest."""
    if isinstance(value, pstream.BinaryEx):
        return pstream.BinaryEx(value.data, send_hash=hashlib.sha256(value.data).hexdigest())
    if isinstance(value, list):
        return [with_sha256(v) for v in value]
    if isinstance(value, dict):
        return {k: with_sha256(v) for k, v in value.items()}
    return value


def python_error(data):
    try:
        pstream.decode(data)
        return 0
    except pstream.PStreamError as e:
        return e.code


def main():
    echo = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 300
    rng = random.Random(int(sys.argv[3]) if len(sys.argv) > 3 else 20240601)
    work = tempfile.mkdtemp(prefix="vesta-cross-")
    sock_path = os.path.join(work, "echo.sock")
    os.mkdir(os.path.join(work, "files"))
    # A cross build's echo runs under the emulator that VESTA_EMULATOR names.
    emulator = shlex.split(os.environ.get("VESTA_EMULATOR", ""))
    peer = subprocess.Popen(emulator + [echo, sock_path, os.path.join(work, "files")])
    failures = 0
    try:
        values = EDGES + [gen_value(rng) for _ in range(count)]
        for i, value in enumerate(values):
            # Two trips: a key "__a" arrives as "_a" and goes back as "a".
            received = with_sha256(pstream.wire_form(value))
            expected = pstream.wire_form(received)
            answer = exchange(sock_path, pstream.encode(value))
            got = pstream.decode(answer, hash_algo="sha256")
            if answer != pstream.encode(received) or got != expected:
                failures += 1
                print("value %d differs:\n sent     %r\n expected %r\n got      %r"
                      % (i, value, expected, got))
            if isinstance(got, pstream.BinaryEx) and got.recv_hash != got.send_hash:
                failures += 1
                print("value %d: digest %s != %s" % (i, got.send_hash, got.recv_hash))
        for data, code in MALFORMED:
            answer = pstream.decode(exchange(sock_path, data, half_close=True))
            if answer != {"error": code} or python_error(data) != code:
                failures += 1
                print("%r: expected error %d, got %r and %d"
                      % (data[:8], code, answer, python_error(data)))
    finally:
        peer.kill()
        peer.wait()
        shutil.rmtree(work, ignore_errors=True)
    print("%d values, %d malformed inputs, %d failures" % (len(values), len(MALFORMED), failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
