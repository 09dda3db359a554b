#!/usr/bin/env python3
"""A simulated sync daemon for tests and the sandbox: listens on the sync
daemon's command socket ($VESTA_ROOT/tmp/tarn.sock by default), reads one
value per connection, records it (--record: a JSON line {"request": value})
and answers by a script (--script, read again for every request):
    {"replies": {"pause": {"error": "busy"}, "*": {"ack": "ok"}}, "close": ["resume"]}
an action's reply ("*" for any other; else {}); actions in "close" get none.
"""

import argparse
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import pstream  # noqa: E402  (the shared wire codec)
from peer_script import (exit_on_signals, listen_unix, load_script, record,  # noqa: E402
                         to_json, write_ready)


def serve_one(conn, args):
    with conn:
        conn.settimeout(10)
        try:
            request = pstream.recv_value(conn)
        except Exception as e:  # a client that sent garbage: record and drop
            record(args.record, {"bad_request": str(e)})
            return
        record(args.record, {"request": to_json(request)})
        script = load_script(args.script, "sync_daemon")
        action = request.get("action", "") if isinstance(request, dict) else ""
        if action not in script.get("close", []):
            replies = script.get("replies", {})
            pstream.send_value(conn, replies.get(action, replies.get("*", {})))


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--socket", default=os.environ.get("VESTA_ROOT", "") + "/tmp/tarn.sock")
    p.add_argument("--record", default="")
    p.add_argument("--script", default="")
    p.add_argument("--ready", default="", help="file created once listening")
    args = p.parse_args()
    server = listen_unix(args.socket)
    exit_on_signals(args.socket)
    write_ready(args.ready, str(os.getpid()))
    while True:
        serve_one(server.accept()[0], args)


if __name__ == "__main__":
    main()
