"""What the simulated peers share: the JSON script they answer from (read
again for every request) and the record they keep (one JSON line per
request, integers as JSON numbers and strings as JSON strings)."""

import json
import sys
import threading

import pstream

_record_lock = threading.Lock()


def load_script(path, who):
    """The script at `path` ({} when there is none or it is unreadable)."""
    if not path:
        return {}
    try:
        with open(path, encoding="utf-8") as f:
            return json.load(f)
    except (OSError, ValueError) as e:
        print("%s: bad script %s: %s" % (who, path, e), file=sys.stderr)
        return {}


def to_json(value):
    """A decoded wire value made JSON-friendly: bytes that are no UTF-8 as
    {"buffer": HEX}, buffers and files as {"file": HEX}."""
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
    """Appends `entry` as one line to the record file `path` ("" = none);
    safe from several threads."""
    if not path:
        return
    with _record_lock, open(path, "a", encoding="utf-8") as f:
        f.write(json.dumps(entry) + "\n")
