"""The seeded schedule of a soak run: which fault, when, with what parameters.

One random.Random(seed) draws the whole schedule before the run starts, so a
seed always names the same list of entries whatever the processes' timing;
a replay (SOAK_SEED=S) injects that list again.  The first round injects
every kind once in a shuffled order, so that a run of a few minutes reaches
all of them; after it, kinds follow their rates.
"""

import random

# The connections and sessions the sandbox stores (environment.py).  Ids past
# them are unknown to the daemon on purpose.
CONNECTIONS = (1, 2, 3, 4)
SESSIONS = (1, 2, 3, 4, 5, 6)
SHARES = ("docs", "photo", "team", "media", "home", "vault")
SERVERS = ("plain", "tls", "unix")

# Daemon error types (all the daemon translates, then some it does not).
ERROR_TYPES = (-6, -10, -14, -15, -16, -17, -18, -19, -20, -22, -24, -25, -26, -29, -33,
               -35, -36, -41, -45, -46, -48, -50, -7, 0, 5, -2**31)
HOOK_TYPES = ("set_privilege_change", "pre_snapshot_restore", "post_snapshot_restore",
              "pre_share_transform", "post_share_transform", "encrypt", "decrypt",
              "deleted", "")
# Server error codes, one or more of every group and of the specific ones.
SERVER_ERRORS = (0x1001, 0x100E, 0x1FFF, 0x2001, 0x2FFF, 0x3003, 0x3FFF, 0x4002, 0x5001,
                 0x5FFF, 0x6005, 0x6FFF, 0x7008, 0x7FFF, 0x8005, 0x9010, 0x9FFF, 0xA004,
                 0xB001, 0xC014, 0xD001, 0xE123, 0xF000, 0)
# Build numbers on both sides of every threshold the daemon knows.
BUILDS = (3000, 3208, 4000, 4101, 4200, 9999, 10000, 10119, 10200, 12124, 12500, 13000)
PROTOCOLS = (69, 70, 71, 79, 80)


def _seconds(rng, short, long_, long_share=0.3):
    """A duration: mostly `short` (lo, hi), sometimes `long_`."""
    lo, hi = long_ if rng.random() < long_share else short
    return round(rng.uniform(lo, hi), 1)


def _sync_change(rng):
    field = rng.choice(("address", "port", "tunnel", "nx_id", "restore_id", "version",
                        "build", "protocol", "mode"))
    value = {"address": lambda: rng.choice(("127.0.0.1", "127.0.0.2", "::1", "")),
             "port": lambda: rng.choice((1, 6690, 65535)),
             "tunnel": lambda: ["127.0.0.%d" % rng.randint(1, 9), rng.randint(0, 65535)],
             "nx_id": lambda: "nx-%d" % rng.randint(0, 3),
             "restore_id": lambda: rng.choice(("", "r1", "r2")),
             "version": lambda: [rng.randint(2, 4), rng.randint(0, 2)],
             "build": lambda: rng.choice(BUILDS),
             "protocol": lambda: rng.choice(PROTOCOLS),
             "mode": lambda: rng.choice((0, 1, 3, 1 | 16, 1 | 32, 256 | 32))}[field]()
    return {"conn": rng.choice(CONNECTIONS), "field": field, "value": value}


def _request(rng):
    """One request or notification with valid or invalid fields."""
    conn = rng.choice(CONNECTIONS + (0, 99, 2**64 - 1, -1, "1"))
    return rng.choice((
        {"action": "fast_monitor"},
        {"action": "refresh_session", "conn_id": conn},
        {"action": rng.choice(("", "nothing", 7, ["stop"]))},
        {"notify": rng.choice(("", "nothing", "error", "share_hook", 3))},
        {"notify": "error", "conn_id": conn, "sess_id": rng.choice(SESSIONS + (0, 77, "x")),
         "error_type": rng.choice(ERROR_TYPES + ("-18", None))},
        {"notify": "share_hook", "type": rng.choice(HOOK_TYPES + (5, None)),
         "share_name": rng.choice(SHARES + ("", "no-such", "a\nb", "\x00", b"\xff\xfe")),
         "result": rng.choice((0, 1, -1, "0"))},
        {"action": "fast_monitor", "notify": "error", "conn_id": conn},
        {},
        [1, 2],
        "text",
    ))


def _hostile(rng):
    return {"pattern": rng.choice(("garbage", "unknown tag", "bad null", "bad key",
                                   "wide integer", "deep", "huge buffer", "binary", "cut",
                                   "empty", "repeated keys")),
            "seed": rng.getrandbits(32)}


# kind: (injections per minute, parameter maker)
KINDS = {
    "sync.add": (1.0, lambda r: {"conn": r.choice(CONNECTIONS + (5, 6, 2**63))}),
    "sync.drop": (1.0, lambda r: {"conn": r.choice(CONNECTIONS)}),
    "sync.flap": (1.5, lambda r: {"conn": r.choice(CONNECTIONS),
                                  "word": r.choice(("disconnected", "", "connecting")),
                                  "seconds": _seconds(r, (1, 8), (30, 45))}),
    "sync.change": (2.0, _sync_change),
    "sync.error": (0.8, lambda r: {"seconds": _seconds(r, (2, 10), (20, 30)),
                                   "status_too": r.random() < 0.5,
                                   "reply": r.choice(({"error": "busy"}, {"ack": "no"}))}),
    "sync.silence": (0.6, lambda r: {"seconds": _seconds(r, (2, 8), (15, 30))}),
    "sync.slow": (0.6, lambda r: {"seconds": _seconds(r, (3, 10), (15, 25)),
                                  "delay": round(r.uniform(0.2, 2.0), 1)}),
    "sync.cut": (0.6, lambda r: {"seconds": _seconds(r, (2, 8), (10, 20))}),
    "sync.garbage": (0.6, lambda r: {"seconds": _seconds(r, (2, 8), (10, 20)),
                                     "seed": r.getrandbits(32)}),
    "server.views": (2.0, lambda r: {"server": r.choice(SERVERS),
                                     "op": r.choice(("rename", "version", "privilege",
                                                     "encrypt", "unmount", "drop",
                                                     "restore")),
                                     "pick": r.getrandbits(16)}),
    "server.error": (1.0, lambda r: {"server": r.choice(SERVERS),
                                     "code": r.choice(SERVER_ERRORS),
                                     "seconds": _seconds(r, (3, 15), (20, 40))}),
    "server.keepalive": (0.6, lambda r: {"server": r.choice(SERVERS),
                                         "count": r.choice((3, 1000, 100000)),
                                         "seconds": _seconds(r, (3, 15), (20, 40))}),
    "server.stall": (0.6, lambda r: {"server": r.choice(SERVERS),
                                     "seconds": _seconds(r, (3, 10), (20, 40))}),
    "server.reset": (0.6, lambda r: {"server": r.choice(SERVERS),
                                     "seconds": _seconds(r, (3, 15), (20, 40))}),
    "server.oversize": (0.4, lambda r: {"server": r.choice(SERVERS),
                                        "mib": r.choice((1, 17, 40)),
                                        "seconds": _seconds(r, (3, 10), (15, 25))}),
    "server.cert": (0.5, lambda r: {"cert": r.choice(("wrong", "forged")),
                                    "seconds": _seconds(r, (5, 15), (20, 40))}),
    "client.request": (6.0, lambda r: {"request": _request(r)}),
    "client.error": (4.0, lambda r: {"conn": r.choice(CONNECTIONS + (99,)),
                                     "sess": r.choice(SESSIONS + (0, 77)),
                                     "type": r.choice(ERROR_TYPES)}),
    "client.hook": (2.0, lambda r: {"share": r.choice(SHARES + ("no-such",)),
                                    "type": r.choice(HOOK_TYPES),
                                    "result": r.choice((0, 0, 1))}),
    "client.hostile": (2.0, _hostile),
    "client.silent": (0.6, lambda r: {"seconds": round(r.uniform(1, 15), 1)}),
    "client.trickle": (0.6, lambda r: {"seconds": round(r.uniform(1, 15), 1)}),
    "client.bloat": (0.3, lambda r: {"arrays": r.choice((1 << 20, 4 << 20))}),
    "client.burst": (0.8, lambda r: {"requests": [_request(r) for _ in range(r.randint(5, 40))]}),
    "env.dblock": (0.7, lambda r: {"seconds": _seconds(r, (0.5, 4), (12, 40), 0.4)}),
    "env.dbro": (0.5, lambda r: {"seconds": _seconds(r, (2, 10), (15, 30))}),
    "env.logfull": (0.5, lambda r: {"seconds": _seconds(r, (2, 10), (20, 40))}),
    "env.filter": (0.5, lambda r: {"sess": r.choice(SESSIONS),
                                   "seconds": _seconds(r, (3, 15), (20, 40))}),
    "env.eventdb": (0.5, lambda r: {"sess": r.choice(SESSIONS),
                                    "seconds": _seconds(r, (3, 15), (20, 40))}),
    "env.sigusr": (0.5, lambda r: {"signal": r.choice(("SIGUSR1", "SIGUSR2")),
                                   "times": r.randint(1, 5)}),
    "env.kill": (0.8, lambda r: {}),
    "env.stop": (0.6, lambda r: {"how": r.choice(("SIGTERM", "SIGTERM", "request"))}),
    # Not a fault: the back end of the user interface re-links and resumes
    # what errors paused, as a user would, and commits a marker row.
    "ui.reset": (1.0, lambda r: {"conn": r.choice(CONNECTIONS)}),
}


class Entry:
    """One injection: at `t` seconds after the start, `kind` with `params`."""

    def __init__(self, n, t, kind, params):
        self.n, self.t, self.kind, self.params = n, t, kind, params

    def __str__(self):
        args = " ".join("%s=%s" % (k, _short(v)) for k, v in sorted(self.params.items()))
        return "#%d %7.1fs %s %s" % (self.n, self.t, self.kind, args)


def _short(value):
    text = repr(value)
    return text if len(text) <= 60 else text[:57] + "..."


def make(seed, seconds, kinds=None):
    """The entries of a run of `seconds` with `seed`; `kinds` limits the kinds
    drawn (all when None)."""
    rng = random.Random(seed)
    names = sorted(kinds or KINDS)
    first = names[:]
    rng.shuffle(first)
    rate = sum(KINDS[k][0] for k in names) / 60.0
    entries, t = [], 3.0
    while True:
        if first:
            kind, t = first.pop(0), t + 1.5
        else:
            kind = rng.choices(names, [KINDS[k][0] for k in names])[0]
            t += rng.expovariate(rate)
        if t >= seconds - 2:
            return entries
        entries.append(Entry(len(entries) + 1, round(t, 1), kind, KINDS[kind][1](rng)))
