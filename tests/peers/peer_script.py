"""What the simulated peers share: their script, record, UNIX socket, ready
file and way out on SIGTERM and SIGINT."""

import contextlib
import json
import os
import signal
import socket
import sys
import threading

import pstream

_record_lock = threading.Lock()


def load_script(path, who):
    """The script at `path` ({} when there is none or it is unreadable)."""
    try:
        with open(path, encoding="utf-8") as f:
            return json.load(f)
    except (OSError, ValueError) as e:
        if path:
            print("%s: bad script %s: %s" % (who, path, e), file=sys.stderr)
        return {}


def to_json(value):
    """A decoded value as JSON: bytes as {"buffer": HEX}, buffers and files as {"file": HEX}."""
    if isinstance(value, dict):
        return {k: to_json(v) for k, v in value.items()}
    if isinstance(value, list):
        return [to_json(v) for v in value]
    if isinstance(value, (bytes, bytearray)):
        return {"buffer": value.hex()}
    if isinstance(value, (pstream.Buffer, pstream.Binary, pstream.BinaryEx)):
        return {"file": value.data.hex()}
    return value


def record(path, entry):
    """Appends `entry` as one line to the record file `path` ("" = none)."""
    if path:
        with _record_lock, open(path, "a", encoding="utf-8") as f:
            f.write(json.dumps(entry) + "\n")


def listen_unix(path):
    """A stream socket listening at `path`; a stale socket file is replaced."""
    os.makedirs(os.path.dirname(path) or ".", exist_ok=True)
    if os.path.exists(path):
        os.unlink(path)
    return socket.create_server(path, family=socket.AF_UNIX, backlog=16)


def exit_on_signals(socket_path):
    """SIGTERM and SIGINT remove `socket_path` ("" = none) and end the process."""
    def stop(_signo, _frame):
        with contextlib.suppress(OSError):  # none, or gone
            os.unlink(socket_path)
        os._exit(0)

    signal.signal(signal.SIGTERM, stop)
    signal.signal(signal.SIGINT, stop)


def write_ready(path, text):
    """Writes the ready file `path` ("" = none) in one step, never half written."""
    if path:
        with open(path + ".tmp", "w") as f:
            f.write(text)
        os.rename(path + ".tmp", path)
