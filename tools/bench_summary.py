#!/usr/bin/env python3
"""Prints the goals of `make bench` as one table: each goal is the ratio of
two benchmarks measured in the same run, beside the bound it must meet.

Reads every Google Benchmark JSON file in the folder given (one per
benchmark binary, written by tools/run-bench.sh) and looks benchmarks up by
their full name ("BM_LoggerLog/share_mode:1").

Usage: bench_summary.py RESULTS_DIR
"""

import glob
import json
import os
import sys

# (goal, numerator, denominator, "<=" or ">=", bound): the goal holds when
# time(numerator) / time(denominator) compares to the bound as stated.  A
# ">=" row reads as "at least this fast": its ratio is the speed ratio
# denominator-time / numerator-time, so 0.8 means 80 % of the baseline's
# speed.
# The one-row writers of SystemDB; each is measured beside sqlite3_exec of
# its own SQL text on the same handle.
DB_WRITERS = ("setSessionStatus", "setConnectionStatus", "setSessionErr", "setConnectionErr",
              "setLinkByConnection", "updateUserInfo", "setSessionReadOnly",
              "clearSessionReadOnly", "setSessionEncryptionState")

GOALS = [
    ("status pass over 1,000 connections vs its reads", "BM_StatusPass/real_time",
     "BM_StatusPassRawReads/real_time", "<=", 2.0),
    ("share reconciliation of 1,000 sessions vs its reads", "BM_Reconcile",
     "BM_ReconcileRawReads", "<=", 2.0),
    ("SystemDB 1,000-session read vs stepping its select", "BM_GetSessionListByConnectionID",
     "BM_StepPreparedSelect", "<=", 1.1),
    ("Logger share_mode 1 speed vs fprintf+fflush", "BM_LoggerLog/share_mode:1",
     "BM_FprintfFflush", ">=", 0.8),
    ("Logger share_mode 2 vs share_mode 1", "BM_LoggerLog/share_mode:2",
     "BM_LoggerLog/share_mode:1", "<=", 1.5),
    # A decoded map is a tree of nodes, as a copy of it is: decoding is held
    # to the cost of the blocks it makes, not to an arena-based decoder.
    ("PStream decode, status reply, vs a deep copy of it",
     "BM_PStreamDecode/status", "BM_PObjectCopyReply/status", "<=", 2.0),
    ("PStream decode, user-info reply, vs a deep copy of it",
     "BM_PStreamDecode/user_info", "BM_PObjectCopyReply/user_info", "<=", 2.0),
    ("PStream encode, status reply, vs msgpack-c pack",
     "BM_PStreamEncode/status", "BM_MsgpackPack/status", ">=", 1.00),
    ("PStream encode, user-info reply, vs msgpack-c pack",
     "BM_PStreamEncode/user_info", "BM_MsgpackPack/user_info", ">=", 1.00),
] + [("SystemDB.%s vs exec of its SQL" % op, "BM_SystemDBWrite/" + op, "BM_ExecSameSql/" + op,
      "<=", 1.1) for op in DB_WRITERS]


def load_times(folder):
    times = {}
    for path in sorted(glob.glob(os.path.join(folder, "*.json"))):
        with open(path) as f:
            data = json.load(f)
        for b in data.get("benchmarks", []):
            if b.get("run_type") == "aggregate" and b.get("aggregate_name") != "median":
                continue
            name = b.get("run_name", b["name"])
            times[name] = float(b["real_time"]) if "real_time" in b else float(b["cpu_time"])
    return times


def main():
    if len(sys.argv) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    times = load_times(sys.argv[1])
    rows = []
    for goal, num, den, op, bound in GOALS:
        if num not in times or den not in times:
            rows.append((goal, "missing", "%s %.2f" % (op, bound), "?"))
            continue
        if op == "<=":
            ratio = times[num] / times[den]
            ok = ratio <= bound
        else:
            ratio = times[den] / times[num]
            ok = ratio >= bound
        rows.append((goal, "%.2f" % ratio, "%s %.2f" % (op, bound), "holds" if ok else "MISSED"))
    width = max([len(r[0]) for r in rows] + [4])
    print("== summary: ratio to the baseline measured in the same run")
    print("%-*s  %8s  %8s  %s" % (width, "goal", "ratio", "bound", ""))
    for r in rows:
        print("%-*s  %8s  %8s  %s" % (width, r[0], r[1], r[2], r[3]))
    return 0


if __name__ == "__main__":
    sys.exit(main())
