#!/usr/bin/env python3
"""The Python codec against the daemon's: the echo peer
(tests/stream/pstream_echo.cc) decodes each value this codec sends and
encodes it again; the answer must be byte for byte what this codec writes
for the value as it reads back after one trip.

    cross_check.py PATH_OF_pstream_echo [COUNT] [SEED]
"""

import hashlib
import os
import random
import shlex
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pstream  # noqa: E402

INT_EDGES = [0, 255, 256, 65535, 65536, 2**32 - 1, 2**32, 2**63 - 1, -1, -(2**63)]
TEXT_POOL = "abcxyzABC_0123 \"\\\t\n\x01é€😀"
# Sent every run: the key rule ("__a" arrives as "_a"), a cut string and the
# longest whole one, keys and texts that are no UTF-8, each kind of byte
# block, files larger than a socket buffer.
EDGES = [{"_agent": "x", "_": 1, "__a": None}, "a" + "b" * 65536, "z" * 65535,
         {b"\xff\x00": b"\x80"}, [pstream.Buffer(), pstream.Binary(), pstream.BinaryEx()],
         {"k": [pstream.Binary(bytes(100000)), pstream.BinaryEx(b"x" * 70000, "h")]}]


def gen_value(rng, depth=0):
    def text():
        n = rng.choice([0, 1, 15, 16, 40, rng.randrange(300)])
        return "".join(rng.choice(TEXT_POOL) for _ in range(n))

    def raw(limit=64):
        return rng.randbytes(rng.randrange(limit))

    kinds = ["null", "int", "text", "bytes", "buffer"]
    if depth < 4:
        kinds += ["list", "dict", "dict", "binary", "binary_ex"]
    kind = rng.choice(kinds)
    if kind == "list":
        return [gen_value(rng, depth + 1) for _ in range(rng.randrange(6))]
    if kind == "dict":  # keys with a '_' to drop, keys that are no UTF-8; none twice on the wire
        members = {}
        for _ in range(rng.randrange(6)):
            key = rng.choice([text()[:20], "_" + text()[:10], b"\xff" + raw(8)])
            if pstream.encode({key: 0}) not in {pstream.encode({k: 0}) for k in members}:
                members[key] = gen_value(rng, depth + 1)
        return members
    return {"null": lambda: None,
            "int": lambda: rng.choice([rng.choice(INT_EDGES), rng.randrange(-2**63, 2**63)]),
            "text": text,
            "bytes": raw,
            "buffer": lambda: pstream.Buffer(raw(5000)),
            "binary": lambda: pstream.Binary(raw(3000)),
            "binary_ex": lambda: pstream.BinaryEx(raw(3000), "sent"),
            }[kind]()


def as_echoed(value):
    """`value` as the echo sends it back: every binary_ex with the sha256
    digest that the echo computes of its content."""
    if isinstance(value, pstream.BinaryEx):
        return pstream.BinaryEx(value.data, hashlib.sha256(value.data).hexdigest())
    if isinstance(value, list):
        return [as_echoed(v) for v in value]
    if isinstance(value, dict):
        return {k: as_echoed(v) for k, v in value.items()}
    return value


def exchange(path, data):
    """Sends `data`, returns every byte of the answer."""
    deadline = time.monotonic() + 30
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(30)
        while s.connect_ex(path) != 0 and time.monotonic() < deadline:  # the echo starting
            time.sleep(0.01)
        s.sendall(data)
        return b"".join(iter(lambda: s.recv(1 << 16), b""))


def main():
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 300
    rng = random.Random(int(sys.argv[3]) if len(sys.argv) > 3 else 20240601)
    failures = 0
    with tempfile.TemporaryDirectory(prefix="vesta-cross-") as work:
        sock_path = os.path.join(work, "echo.sock")
        # A cross build's echo runs under the emulator that VESTA_EMULATOR names.
        emulator = shlex.split(os.environ.get("VESTA_EMULATOR", ""))
        peer = subprocess.Popen(emulator + [sys.argv[1], sock_path, work])
        try:
            values = EDGES + [gen_value(rng) for _ in range(count)]
            for i, value in enumerate(values):
                expected = pstream.encode(as_echoed(pstream.decode(pstream.encode(value))))
                answer = exchange(sock_path, pstream.encode(value))
                if answer != expected:
                    failures += 1
                    print("value %d differs:\n sent %r\n expected %r\n got      %r"
                          % (i, value, pstream.decode(expected), pstream.decode(answer)))
        finally:
            peer.kill()
            peer.wait()
    print("%d values, %d failures" % (len(values), failures))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
