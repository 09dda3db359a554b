#!/usr/bin/env python3
"""How many single-point faults in a source file do its tests catch?

  tools/mutate.py [-n N] [--seeds 1,2] [--build DIR] [--jobs J] FILE...   (FILE from the root)

A mutant negates a comparison, moves an integer literal by one, swaps a
returned 0/-1 or true/false, or deletes a simple statement line.  Each seed
picks N of them by a hash of the seed and the line's text, so unrelated edits
do not change the pick; the picks of all seeds are judged once each.  Each is
built in DIR (build-mutate/, warnings not errors) and judged by the tests of
its area: a failing or hanging test catches it; one that does not build is
counted apart.  Every build and test runs in an unprivileged user namespace
(checked at start).  A survivor is "equivalent" only if
tools/mutate-equivalent.txt names its file, line, change and line text; every
entry of a mutated file is judged again on every run, and is "stale" when its
line changed or its mutant no longer survives.  The file is restored on every
exit path; a copy waits in DIR-backup/ in case this process is killed.
"""

import argparse
import fcntl
import functools
import hashlib
import json
import os
import re
import shutil
import signal
import stat
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# Survivors read and found to change nothing the program does, each with why.
EQUIVALENT = os.path.join(ROOT, "tools", "mutate-equivalent.txt")
DAEMON = "vesta-monitor"
# The user and group, outside the namespace, that builds and tests mutants;
# an id no account has, so it owns nothing but the build dir.
NS_ID = 61000
# Run first in the namespace: a private /tmp (and the other folders anyone
# may write), loopback up (SIOCSIFFLAGS: IFF_UP | IFF_LOOPBACK | IFF_RUNNING), then the command.
JAIL_INIT = r"""
import ctypes, fcntl, os, socket, struct, sys
libc = ctypes.CDLL(None, use_errno=True)
for d in ("/tmp", "/var/tmp", "/run/lock", "/dev/shm"):
    if os.path.isdir(d) and libc.mount(b"tmpfs", d.encode(), b"tmpfs", 0, None) != 0:
        sys.exit("tmpfs on %s: %s" % (d, os.strerror(ctypes.get_errno())))
fcntl.ioctl(socket.socket(), 0x8914, struct.pack("16sH22x", b"lo", 0x1 | 0x8 | 0x40))
os.environ["HOME"] = "/tmp"
os.execvp(sys.argv[1], sys.argv[1:])
"""

# Area: gtest binaries (each brings all its ctest entries), tests run through
# Python by ctest name, and what those need built.
STREAM = ("stream_test pobject_test stream_file_test stream_memory_test ipc_test", "pstream_cross_check", "pstream_echo")
DB = ("system_db_test filter_test error_handler_test", "error_system faults_system", DAEMON)
ERROR = ("error_handler_test", "error_system faults_system", DAEMON)
MONITOR = ("worker_test message_test", "monitor_system workers_system faults_system",
           DAEMON + " vesta-monitorctl")
SHARES = ("share_test", "share_hook_system", DAEMON)
AREAS = {"stream/stream.cc": STREAM, "stream/stream_read.cc": STREAM, "stream/stream_binary.cc": STREAM,
         "stream/stream_read_containers.cc": STREAM, "stream/PObject.cc": STREAM,
         "db/system-db.cc": DB, "db/system-db-reads.cc": DB, "error/error-handler.cc": ERROR,
         "error/nx-error-handler.cc": ERROR, "error/nx-upgrade.cc": ERROR,
         "monitor/status-monitor.cc": MONITOR, "monitor/list-share.cc": MONITOR,
         "platform/shares.cc": SHARES}

CMP = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
CMP_RE = re.compile(r"(?<= )(==|!=|<=|>=|<|>)(?= )")
INT_RE = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)(?=[uUlL]*(?![\w.]))")
NEGATED = re.compile(r"(^|[(,={\[:?]|return) *-$")  # a unary minus before a literal
RET_RE = re.compile(r"\breturn (0|-1|true|false);")
RET = {"0": "-1", "-1": "0", "true": "false", "false": "true"}
# An expression statement: a (member) name, then a call, an assignment or ++/--.
STMT_RE = re.compile(r"^\s*(\*|\+\+|--)?[A-Za-z_]\w*((::|\.|->)~?[A-Za-z_]\w*|\[[^\]]*\])*"
                     r"\s*(\(|[-+*/%&|^]?=(?!=)|<<=|>>=|\+\+|--|<<)")
NOT_STMT = re.compile(r"^\s*(if|for|while|switch|return|sizeof|delete)\b|= *(default|delete);|[{}]")
# Never changed: log calls, what NDEBUG compiles out, sizeof operands (only a
# type counts), bounds of declared arrays (a larger one changes nothing).
MASKED_CALL_RE = re.compile(r"\b(LOG_[A-Z]+|assert|static_assert|sizeof)\s*\(")
ARRAY_BOUND = re.compile(r"^\s*(?:(?:static|const|constexpr)\s+)*(?!return|delete|else)[\w:<>]+\s+"
                         r"\w+\s*\[([^\]]*)\]", re.M)
# How a call of a function is used, judged by the statement's text before it:
# a statement of its own (after labels, else, (void) or an if, through an
# object or scope), a declaration, or returned to the caller's caller.
LABELS = r"(?:(?:case\s+[\w:]+?|default)\s*:(?!:)\s*)*"
OBJECT = r"(?:[\w\[\]]*(?:\.|->|::))*"
DISCARDED = re.compile(LABELS + r"(?:else\s*|\(void\)\s*|(?:if|for|while)\s*\(.*\)\s*)?" + OBJECT, re.S)
RETURNED = re.compile(LABELS + r"return\s+" + OBJECT)
DECLARED = re.compile(r"(?!(return|else|case)\b)[\w:<>,*&]+(\s+[\w:<>,*&]+)*")
LAMBDA = re.compile(r"\]\s*(\(.*\))?\s*(mutable\s*)?(->[\w\s:<>*&]+)?$", re.S)


def mask(text):
    """`text` with comments, the contents of literals, preprocessor lines and
    the never-changed parts blanked; newlines and offsets stay."""
    out, i, n = list(text), 0, len(text)
    blank = lambda a, b: out.__setitem__(slice(a, b), [c if c == "\n" else " " for c in text[a:b]])
    while i < n:
        c, j = text[i], i + 1
        if text.startswith("//", i) or (c == "#" and text[text.rfind("\n", 0, i) + 1:i].strip() == ""):
            j = text.find("\n", i) % (n + 1)
            blank(i, j)
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2) + 2
            blank(i, j)
        elif c in "\"'" and not (c == "'" and text[i - 1].isalnum()):
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            blank(i + 1, j)  # the quotes stay
            j += 1
        i = j
    masked = "".join(out)
    for m in MASKED_CALL_RE.finditer(masked):
        depth, j = 0, m.end() - 1
        while j < n:  # to the closing parenthesis
            depth += {"(": 1, ")": -1}.get(masked[j], 0)
            if depth == 0:
                break
            j += 1
        blank(m.start(), j + 1)
    for m in ARRAY_BOUND.finditer(masked):
        blank(m.start(1), m.end(1))
    return "".join(out)


def function_at(code, pos):
    """Name of the function whose body holds `pos` of masked `code` ("" in a
    lambda, None outside any)."""
    stack, last = [], 0  # per open brace: the function it belongs to, or None
    inner = lambda: next((f for f in reversed(stack) if f is not None), None)
    for m in re.finditer(r"[{};]", code[:pos]):
        head = code[last:m.start()]
        if m.group() == "{" and inner() is not None:
            stack.append("" if LAMBDA.search(head.strip()) else inner())
        elif m.group() == "{":
            call = re.search(r"(~?\w+)\s*\(", head)
            kinds = re.search(r"\b(namespace|class|struct|enum|union)\b|=", head)
            stack.append(call.group(1) if call and not kinds else None)
        elif m.group() == "}" and stack:
            stack.pop()
        last = m.end()
    return inner()


@functools.lru_cache(maxsize=None)
def program():
    """Masked text of every source of the daemon and its tools (tests aside)."""
    texts = []
    for d, dirs, names in os.walk(ROOT):
        dirs[:] = [x for x in dirs if not x.startswith((".", "build")) and x not in ("tests", "bench")]
        for name in (x for x in names if x.endswith((".cc", ".h"))):
            with open(os.path.join(d, name), errors="replace") as f:
                texts.append(mask(f.read()))
    return texts


def result_read(name, seen):
    """Whether what function `name` returns may matter: a caller uses it, or
    the program never calls it (its tests are its users)."""
    if not name or name in seen:
        return not name  # a lambda's result counts as read; a cycle adds nothing
    seen.add(name)
    calls = 0
    for code in program():
        for m in re.finditer(r"\b%s\b(\s*\()?" % re.escape(name), code):
            if not m.group(1):
                return True  # taken as a value, e.g. by address
            head = code[max(code.rfind(c, 0, m.start()) for c in ";{}") + 1:m.start()].strip()
            if DECLARED.fullmatch(head):
                continue
            calls += 1
            if not (DISCARDED.fullmatch(head) or RETURNED.fullmatch(head)
                    and not result_read(function_at(code, m.start()), seen)):
                return True
    return calls == 0


def bump(literal, delta):
    """literal + delta, written in the literal's base."""
    sign, digits = (-1, literal[1:]) if literal[0] == "-" else (1, literal)
    base, form = (16, "0x%x") if digits[:2] in ("0x", "0X") else (
        (8, "0%o") if digits[0] == "0" and len(digits) > 1 else (10, "%d"))
    value = sign * int(digits, base) + delta
    return form % value if value >= 0 else "-" + form % -value


def candidates(text):
    """(line number, line, mutated line, what changed) of every point."""
    masked = mask(text)
    found, prev, offset = [], ";", 0
    for no, (line, code) in enumerate(zip(text.split("\n"), masked.split("\n")), 1):
        new, returned = {}, []

        def swap(start, end, to):
            what = "%s -> %s" % (line[start:end], to)
            twins = sum(w.startswith(what) for w in new.values())
            new.setdefault(line[:start] + to + line[end:], what + (" #%d" % (twins + 1) if twins else ""))
        for m in CMP_RE.finditer(code):
            swap(m.start(), m.end(), CMP[m.group()])
        for m in RET_RE.finditer(code):
            returned.append(m.span(1))  # only swapped: callers test the sign or zero
            if result_read(function_at(masked, offset + m.start()), set()):
                swap(m.start(1), m.end(1), RET[m.group(1)])
        for m in INT_RE.finditer(code):
            start = m.start() - bool(NEGATED.search(code[:m.start()]))
            if not any(a <= start < b for a, b in returned):
                for delta in (1, -1):
                    swap(start, m.end(), bump(line[start:m.end()], delta))
        stripped = code.strip()
        if (prev[-1] in ";{}:" and stripped.endswith(";") and STMT_RE.match(code)
                and not NOT_STMT.search(code) and code.count("(") == code.count(")")):
            new[""] = "deleted"
        new.pop(line, None)
        found += [(no, line, n, new[n]) for n in sorted(new)]
        prev = stripped or prev
        offset += len(line) + 1
    return found


def pick(found, n, seed):
    """The n candidates with the smallest hash of (seed, line, change, occurrence)."""
    seen, keyed = {}, []
    for cand in found:
        ident = (cand[1].strip(), cand[2].strip())
        seen[ident] = seen.get(ident, 0) + 1
        keyed.append((hashlib.sha256(repr((seed,) + ident + (seen[ident],)).encode()).hexdigest(), cand))
    return sorted(c for _, c in sorted(keyed)[:n])


def jail(cmd):
    """`cmd` as root of a user namespace whose root is the unprivileged NS_ID
    outside: it may write only what NS_ID owns (the build dir) and its own
    /tmp, and sees only its own processes and its own loopback network (so a
    time-out's kill reaches every daemon a test started)."""
    return ["setpriv", "--reuid=%d" % NS_ID, "--regid=%d" % NS_ID, "--clear-groups",
            "unshare", "--user", "--map-root-user", "--mount", "--pid", "--fork", "--kill-child",
            "--mount-proc", "--net", shutil.which("python3", path=os.defpath), "-c", JAIL_INIT] + cmd


def check_jail(build):
    """Exits unless a jailed command can write the build dir but can neither
    replace a root-owned file left writable to all (as /dev/null is), nor add
    to a root-owned folder, nor write the machine's /tmp."""
    decoy, marker = os.path.join(build, "jail-check"), "/tmp/vesta-mutate-jail-%d" % os.getpid()
    shutil.rmtree(decoy, ignore_errors=True)
    os.mkdir(decoy, 0o755)
    null, ok = os.path.join(decoy, "null"), os.path.join(build, "jail-ok")
    with open(null, "w"):
        pass
    os.chmod(null, 0o666)
    script = "rm -f {0}; touch {1}/new; chmod 600 {0}; touch {2} {3}".format(null, decoy, marker, ok)
    subprocess.run(jail(["sh", "-c", script]), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    st = os.lstat(null) if os.path.lexists(null) else None
    broken = [what for what, bad in (
        ("removed or changed a root-owned file", not st or not stat.S_ISREG(st.st_mode) or st.st_uid != 0
         or stat.S_IMODE(st.st_mode) != 0o666),
        ("wrote into a root-owned folder", os.path.exists(os.path.join(decoy, "new"))),
        ("wrote the machine's /tmp", os.path.exists(marker)),
        ("could not write the build dir", not os.path.exists(ok))) if bad]
    shutil.rmtree(decoy, ignore_errors=True)
    for f in (marker, ok):
        if os.path.exists(f):
            os.remove(f)
    if broken:
        sys.exit("the namespace does not isolate (a jailed command %s); no mutant is run"
                 % ", ".join(broken))


def run(cmd, log, timeout=None):
    """Jailed cmd's exit status, None on a time-out; its process group (and
    with it the namespace) is killed on a time-out or an interrupt."""
    with open(log, "w") as out:
        p = subprocess.Popen(jail(cmd), stdout=out, stderr=subprocess.STDOUT, start_new_session=True)
        try:
            return p.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None
        finally:
            if p.poll() is None:
                os.killpg(p.pid, signal.SIGKILL)
                p.wait()


class Area:
    """What judges one file: targets to build and a ctest selection."""

    def __init__(self, path, args):
        binaries, self.names, needs = (s.split() for s in AREAS.get(path, ("", "", "")))
        self.args, self.log, self.tests = args, os.path.join(args.build, "mutate.log"), args.tests
        self.binaries = args.targets.split() if args.targets else binaries
        self.targets = self.binaries + ([] if args.targets else needs)
        self.skipped = []  # tests that fail in the namespace without a mutant

    def build(self):
        cmd = ["cmake", "--build", self.args.build, "-j", str(self.args.jobs), "--target"]
        return run(cmd + self.targets, self.log) == 0

    def select(self):
        """Unless --tests gave one, a regex of the suites the binaries
        registered (known once built) and of the named tests."""
        listing = subprocess.run(jail(["ctest", "--test-dir", self.args.build, "--show-only=json-v1"]),
                                 capture_output=True, text=True, check=True).stdout
        suites = sorted({t["name"].split(".")[0] for t in json.loads(listing)["tests"]
                         if os.path.basename((t.get("command") or [""])[0]) in self.binaries})
        parts = ["^(%s)\\." % "|".join(map(re.escape, suites))] if suites else []
        if self.names:
            parts.append("^(%s)$" % "|".join(self.names))
        self.tests = self.tests or "|".join(parts)
        return self.tests

    def test(self, timeout=None, clean=False):
        """0 when the tests pass; a failing test gets a second run (flakes).
        The clean run goes on past failures and leaves out, from then on, the
        tests that fail without a mutant (e.g. those that add real accounts)."""
        ctest = ["ctest", "--test-dir", self.args.build, "-R", self.tests, "--no-tests=error"]
        skip = lambda: ["-E", "^(%s)$" % "|".join(map(re.escape, self.skipped))] if self.skipped else []
        rc = run(ctest + skip() + ["-j", str(self.args.jobs), "--repeat", "until-pass:2"]
                 + ([] if clean else ["--stop-on-failure"]), self.log, timeout)
        failed = os.path.join(self.args.build, "Testing", "Temporary", "LastTestsFailed.log")
        if clean and rc != 0 and os.path.exists(failed):
            with open(failed) as f:  # lines "number:name"
                self.skipped = [line.strip().split(":", 1)[1] for line in f if ":" in line]
            rc = run(ctest + skip() + ["--show-only"], self.log)  # fails when no test is left
        return rc


def equivalents():
    """[(file, line number, change, line text, reason)] of the listed equivalent mutants."""
    rows = []
    with open(EQUIVALENT) as f:
        for line in f:
            if line.strip() and not line.startswith("#"):
                place, what, *text, why = line.rstrip("\n").split(" | ")
                path, no = place.rsplit(":", 1)
                rows.append((path, int(no), what, " | ".join(text), why))
    return rows


def picked(found, args):
    """The candidates any of the seeds picks."""
    return sorted({c for seed in args.seeds for c in pick(found, args.n, seed)})


def mutate_file(path, args, listed):
    """{"picked": [(mutant, verdict)], "equivalent": [...], "stale": [...],
    "skipped": [...]}, or None when the clean tree fails.  A verdict is "not
    built", "caught", "survived" or "equivalent"."""
    area, full = Area(path, args), os.path.join(ROOT, path)
    backup = os.path.join(args.backup, path)
    with open(full) as f:
        original = f.read()
    found = candidates(original)
    chosen, points = picked(found, args), {(c[0], c[3]): c for c in found}
    stale, recheck = [], {}  # recheck: mutant -> its entry
    for entry in (e for e in listed if e[0] == path):
        c = points.get(entry[1:3])
        if c and c[1].strip() == entry[3]:
            recheck[c] = entry
        else:
            why = ("the line no longer holds this text" if c else
                   "no such change on the line: moved or changed")
            stale.append((entry, why))
    todo = sorted(set(chosen) | set(recheck))
    print("%s: %d mutants of %d points picked by seeds %s, %d listed as equivalent" % (
        path, len(chosen), len(found), ",".join(args.seeds), len(recheck)), flush=True)
    t0 = time.monotonic()
    if not area.targets or not area.build() or not area.select() or area.test(clean=True) != 0:
        print("  no targets, or they do not build or pass without a mutant (see %s)" % area.log)
        return None
    print("  tests: %s" % area.tests, flush=True)
    if area.skipped:
        print("  left out, as they fail without a mutant in the namespace: %d tests: %s" % (
            len(area.skipped), " ".join(area.skipped)), flush=True)
    timeout = args.timeout or 3 * (time.monotonic() - t0) + 60
    os.makedirs(os.path.dirname(backup), exist_ok=True)
    shutil.copyfile(full, backup)
    verdicts = {}
    try:
        for i, c in enumerate(todo, 1):
            no, line, new, what = c
            lines = original.split("\n")
            lines[no - 1] = new
            with open(full, "w") as f:
                f.write("\n".join(lines))
            t = time.monotonic()
            if not area.build():
                verdict = "not built"
            elif area.test(timeout) != 0:  # a time-out (None) too
                verdict = "caught"
            else:  # only a survivor that an entry names exactly is excused
                verdict = "equivalent" if c in recheck else "survived"
            verdicts[c] = verdict
            note = "" if c in chosen else ", not picked"
            if c in recheck and verdict != "equivalent":
                stale.append((recheck[c], "its mutant is now " + verdict))
                note += ", listed as equivalent: stale"
            print("  [%d/%d] %s:%d %s -> %s: %s%s (%.0f s)" % (i, len(todo), path, no, line.strip(), what,
                  verdict, note, time.monotonic() - t), flush=True)
    finally:
        with open(full, "w") as f:
            f.write(original)
        os.remove(backup)
    return {"picked": [(c, verdicts[c]) for c in chosen], "stale": stale, "skipped": area.skipped,
            "equivalent": [(c, recheck[c]) for c in todo if verdicts[c] == "equivalent"]}


def table(results):
    """Counts of the picked mutants per file, per folder and over all; then
    the survivors, the re-checked equivalents, the stale entries and the
    tests left out."""
    rows = [(path, r) for path, r in results if r]
    groups = [(path, [r]) for path, r in rows]
    if len(rows) > 1:
        for d in sorted({os.path.dirname(p) + "/" for p, _ in rows}):
            groups.append((d, [r for p, r in rows if os.path.dirname(p) + "/" == d]))
        groups.append(("all", [r for _, r in rows]))
    form = "%-34s %6s %9s %6s %6s %10s %8s %8s %9s %5s"
    print(form % ("", "picked", "not built", "viable", "caught", "equivalent", "survived",
                  "caught", "w/o equiv", "stale"))
    for name, rs in groups:
        verdicts = [v for r in rs for _, v in r["picked"]]
        n = {v: verdicts.count(v) for v in ("not built", "caught", "equivalent", "survived")}
        viable = len(verdicts) - n["not built"]
        print(form % (name, len(verdicts), n["not built"], viable, n["caught"], n["equivalent"],
                      n["survived"], "%.1f%%" % (100.0 * n["caught"] / max(viable, 1)),
                      "%.1f%%" % (100.0 * n["caught"] / max(viable - n["equivalent"], 1)),
                      sum(len(r["stale"]) for r in rs)))
    for path, r in results:
        if r is None:
            print("%s: not measured" % path)
    survived, equivalent, stale, left_out = [], [], [], []
    for p, r in rows:
        survived += ["%s:%d %s -> %s" % (p, c[0], c[1].strip(), c[3])
                     for c, v in r["picked"] if v == "survived"]
        without = " (judged without the tests left out)" if r["skipped"] else ""
        equivalent += ["%s:%d %s: %s%s" % (p, c[0], c[3], e[4], without) for c, e in r["equivalent"]]
        stale += ["%s:%d %s: %s" % (e[0], e[1], e[2], why) for e, why in r["stale"]]
        left_out += ["%s: %s" % (p, " ".join(r["skipped"]))] if r["skipped"] else []
    for title, lines in (("survived", survived), ("equivalent, re-checked", equivalent),
                         ("stale entries", stale),
                         ("tests left out: they fail without a mutant in the namespace", left_out)):
        if lines:
            print("\n%s (%d):" % (title, len(lines)))
            print("\n".join("  " + line for line in lines))


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[1])
    p.add_argument("files", nargs="+", help="source files, from the project root")
    p.add_argument("--build", default=os.path.join(ROOT, "build-mutate"))
    p.add_argument("--targets", help="build targets, blank-separated (gtest binaries)")
    p.add_argument("--tests", help="ctest regex of the tests to run")
    p.add_argument("-n", type=int, default=30, help="mutants per file and seed")
    p.add_argument("--seeds", default="1,2", help="comma-separated; the picks of every seed are judged")
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--timeout", type=float, help="seconds for a mutant's tests "
                   "(default: three times the clean build and run, plus 60)")
    p.add_argument("--list", action="store_true",
                   help="print the points, the picked ones with *, the listed equivalents with =")
    args = p.parse_args()
    args.seeds = args.seeds.split(",")
    args.build = os.path.abspath(args.build)
    args.backup = args.build + "-backup"
    for sig in (signal.SIGTERM, signal.SIGHUP):  # unwind like Ctrl-C: the file is restored
        signal.signal(sig, signal.default_int_handler)
    listed = equivalents()
    if args.list:
        for path in args.files:
            with open(os.path.join(ROOT, path)) as f:
                found = candidates(f.read())
            chosen, keys = picked(found, args), {e[1:3] for e in listed if e[0] == path}
            for c in found:
                marks = ("*" if c in chosen else " ") + ("=" if (c[0], c[3]) in keys else " ")
                print("%s %s:%d %s -> %s" % (marks, path, c[0], c[1].strip(), c[3]))
        return
    # Outside the build dir, which the namespace may write; one run at a time.
    os.makedirs(args.backup, exist_ok=True)
    lock = open(os.path.join(args.backup, "lock"), "w")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        sys.exit("another run uses %s" % args.build)
    for d, _, names in os.walk(args.backup):
        for name in names if d != args.backup else []:  # left by a killed run (the lock stays)
            rel = os.path.relpath(os.path.join(d, name), args.backup)
            shutil.move(os.path.join(d, name), os.path.join(ROOT, rel))
            print("restored %s from %s" % (rel, args.backup))
    os.makedirs(args.build, exist_ok=True)
    subprocess.run(["chown", "-R", "%d:%d" % (NS_ID, NS_ID), args.build], check=True)
    check_jail(args.build)
    # Warnings stay warnings: a mutant that leaves a variable unused is a mutant.
    log = os.path.join(args.build, "mutate.log")
    if run(["cmake", "-S", ROOT, "-B", args.build, "-DVESTA_WERROR=OFF"], log):
        sys.exit("cmake failed to configure %s (see its mutate.log)" % args.build)
    results = [(path, mutate_file(path, args, listed)) for path in args.files]
    print("\nseeds %s, at most %d mutants per file and seed" % (",".join(args.seeds), args.n))
    table(results)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit("interrupted; the file is restored")
