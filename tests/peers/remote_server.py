#!/usr/bin/env python3
"""A simulated remote storage server for tests and the sandbox.

Per request: an 8-byte header (magic, version 70, command, payload length),
then one request map.  Listens on 127.0.0.1 at --port (0: a free one, written
to --ready) and on the UNIX socket --unix when given.  --script, read again
for every request: {"replies": {ACTION or "*": REPLY ({"$binary": TEXT} is
sent as a file, {"$repeat": [VALUE, N]} as an array of N times VALUE)},
"keep_alive": {ACTION: COUNT}, "keep_alive_every": SECONDS, "close_after_header":
[ACTION], "tls": {"cert": PEM, "key": PEM} (instead of --cert/--key)}.  --record:
a JSON line per request, {"command": N, "tls": .., "unix": .., "request": {...}},
else {"bad_header"|"bad_request"|"tls_error": TEXT}.
"""

import argparse
import os
import socket
import ssl
import struct
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pstream  # noqa: E402  (the shared wire codec)
from peer_script import (exit_on_signals, listen_unix, load_script, record,  # noqa: E402
                         to_json, write_ready)

MAGIC = 0x25521814
VERSION = 70
HEADER = struct.Struct(">IBBH")
COMMANDS = {22: "encrypt_channel", 25: "query_server_info", 17: "query_user_info"}


def from_json(value):
    """A scripted reply as a wire value ({"$binary": TEXT} as a file)."""
    if isinstance(value, dict) and list(value) == ["$binary"]:
        return pstream.Binary(value["$binary"].encode("utf-8"))
    if isinstance(value, dict) and list(value) == ["$repeat"]:
        element, n = value["$repeat"]
        return pstream.Raw(bytes([pstream.TAG_ARRAY]) + pstream.encode(from_json(element)) * n +
                           bytes([pstream.TAG_END]))
    if isinstance(value, dict):
        return {k: from_json(v) for k, v in value.items()}
    return [from_json(v) for v in value] if isinstance(value, list) else value


def tls_context(files):
    """A server context with {"cert": PEM, "key": PEM}; None for none."""
    if not files:
        return None
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(files["cert"], files["key"])
    return context


def serve_one(conn, args, is_unix):
    """Header, request, reply; again (after a TLS switch) until the client closes."""
    tls = False
    try:
        conn.settimeout(30)
        while True:
            raw = b""
            while len(raw) < HEADER.size:
                chunk = conn.recv(HEADER.size - len(raw))
                if not chunk:
                    return
                raw += chunk
            magic, version, command, _length = HEADER.unpack(raw)
            if magic != MAGIC or version != VERSION:
                record(args.record, {"bad_header": raw.hex()})
                return
            action = COMMANDS.get(command, str(command))
            script = load_script(args.script, "remote_server")
            if action in script.get("close_after_header", []):
                # Take in what the client still sends: no reset meets its request.
                conn.shutdown(socket.SHUT_WR)
                while conn.recv(65536):
                    pass
                return
            try:
                request = pstream.recv_value(conn)
            except Exception as e:  # garbage from the client: record, drop
                record(args.record, {"bad_request": str(e)})
                return
            record(args.record, {"command": command, "tls": tls, "unix": is_unix,
                                 "request": to_json(request)})
            for _ in range(int(script.get("keep_alive", {}).get(action, 0))):
                time.sleep(float(script.get("keep_alive_every", 0)))
                pstream.send_value(conn, {"type": "keep_alive"})
            replies = script.get("replies", {})
            pstream.send_value(conn, from_json(replies.get(action, replies.get("*", {}))))
            if action == "encrypt_channel":
                context = tls_context(script.get("tls")) or args.tls
                if context is None or is_unix:
                    return
                try:
                    conn = context.wrap_socket(conn, server_side=True)
                except (ssl.SSLError, OSError) as e:
                    record(args.record, {"tls_error": str(e)})
                    return
                tls = True
    except OSError:
        pass
    finally:
        conn.close()


def accept_loop(server, args, is_unix):
    while True:
        conn, _ = server.accept()
        threading.Thread(target=serve_one, args=(conn, args, is_unix), daemon=True).start()


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--port", type=int, default=6690)
    for name in ("unix", "cert", "key", "script", "record", "ready"):
        p.add_argument("--" + name, default="")
    args = p.parse_args()
    args.tls = None
    if args.cert:
        args.tls = tls_context({"cert": args.cert, "key": args.key})
    tcp = socket.create_server(("127.0.0.1", args.port), backlog=16)
    if args.unix:
        unix = listen_unix(args.unix)
        threading.Thread(target=accept_loop, args=(unix, args, True), daemon=True).start()
    exit_on_signals(args.unix)
    write_ready(args.ready, "%d\n" % tcp.getsockname()[1])
    accept_loop(tcp, args, False)


if __name__ == "__main__":
    main()
