#!/usr/bin/env python3
"""How many single-point faults in a source file do the tests catch?

    tools/mutate.py [--build DIR] [-n N] [--seed S] [--jobs J] FILE...
    tools/mutate.py --targets 't1 t2' --tests REGEX FILE

For each FILE (a path from the project root) it lists every candidate change
of one point: a comparison negated (== !=, < >=, > <=), an integer literal
off by one, a returned 0/-1 or true/false swapped, a simple statement line
deleted.  Comments, strings, #include/#define lines, the calls of the LOG_*
macros and assert/static_assert (compiled out) are never changed.  N of the
candidates are picked by a hash of the seed and the changed line's text, so
the same seed picks the same mutants even after unrelated lines moved.

Each mutant is written into the file, the area's test targets are rebuilt in
DIR (default build-mutate/, configured when missing) and its tests run under
ctest.  A failing or hanging test catches the mutant; one that does not build
is not viable and does not count.  The file is restored on every exit path
(a copy waits in DIR/mutate-backup/ in case this process is killed).
"""

import argparse
import hashlib
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DAEMON = "vesta-monitor"

# The tests of an area: the gtest binaries (each brings every test it
# registers with ctest) and the ctest names of the tests run through Python.
# What those need is built too: the daemon for the system tests.
STREAM = ("stream_test pobject_test stream_file_test ipc_test", "pstream_cross_check", "pstream_echo")
DB = ("system_db_test filter_test error_handler_test", "error_system", DAEMON)
ERROR = ("error_handler_test", "error_system", DAEMON)
MONITOR = ("worker_test message_test", "monitor_system workers_system",
           DAEMON + " vesta-monitorctl")
SHARES = ("share_test", "share_hook_system", DAEMON)
AREAS = {
    "stream/stream.cc": STREAM, "stream/stream_read.cc": STREAM,
    "stream/stream_binary.cc": STREAM,
    "db/system-db.cc": DB, "db/system-db-reads.cc": DB,
    "error/error-handler.cc": ERROR, "error/nx-error-handler.cc": ERROR,
    "error/nx-upgrade.cc": ERROR,
    "monitor/status-monitor.cc": MONITOR, "monitor/list-share.cc": MONITOR,
    "platform/shares.cc": SHARES,
}

CMP = {"==": "!=", "!=": "==", "<": ">=", ">=": "<", ">": "<=", "<=": ">"}
CMP_RE = re.compile(r"(?<= )(==|!=|<=|>=|<|>)(?= )")
INT_RE = re.compile(r"(?<![\w.])(0[xX][0-9a-fA-F]+|\d+)(?=[uUlL]*(?![\w.]))")
NEGATED = re.compile(r"(^|[(,={\[:?]|return) *-$")
RET_RE = re.compile(r"\breturn (0|-1|true|false);")
RET = {"0": "-1", "-1": "0", "true": "false", "false": "true"}
# An expression statement: a (member) name, then a call, an assignment or ++/--.
STMT_RE = re.compile(r"^\s*(\*|\+\+|--)?[A-Za-z_]\w*((::|\.|->)~?[A-Za-z_]\w*|\[[^\]]*\])*"
                     r"\s*(\(|[-+*/%&|^]?=(?!=)|<<=|>>=|\+\+|--|<<)")
DEFAULTED = re.compile(r"= *(default|delete);")
KEYWORDS = re.compile(r"^\s*(if|for|while|switch|return|sizeof|delete)\b")
MASKED_CALL_RE = re.compile(r"\b(LOG_[A-Z]+|assert|static_assert|sizeof)\s*\(")
# The bound of an array declared on a line: a larger one changes nothing.
ARRAY_BOUND = re.compile(r"^\s*(?:(?:static|const|constexpr)\s+)*(?!return|delete|else)[\w:<>]+\s+"
                         r"\w+\s*\[([^\]]*)\]", re.M)
# Who uses a function's result: the text from the statement's start up to a
# call of it.  A call after labels, `else` or `(void)`, through an object or
# scope, is a statement of its own; a declaration is none; a returned call
# is read when the caller's caller reads it.
LABELS = r"(?:(?:case\s+[\w:]+?|default)\s*:(?!:)\s*)*"
OBJECT = r"(?:[\w\[\]]*(?:\.|->|::))*"
DISCARDED = re.compile(LABELS + r"(?:else\s*|\(void\)\s*|(?:if|for|while)\s*\(.*\)\s*)?" + OBJECT, re.S)
RETURNED = re.compile(LABELS + r"return\s+" + OBJECT)
DECLARED = re.compile(r"(?!(return|else|case)\b)[\w:<>,*&]+(\s+[\w:<>,*&]+)*")
LAMBDA = re.compile(r"\]\s*(\(.*\))?\s*(mutable\s*)?(->[\w\s:<>*&]+)?$", re.S)


def mask(text):
    """`text` with comments, literals' contents, preprocessor lines and the
    masked calls blanked (newlines kept), so offsets match the original."""
    out, i, n = list(text), 0, len(text)
    blank = lambda a, b: out.__setitem__(slice(a, b), [c if c == "\n" else " " for c in text[a:b]])
    while i < n:
        c = text[i]
        if text.startswith("//", i) or (c == "#" and text[text.rfind("\n", 0, i) + 1:i].strip() == ""):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(i, j)
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2) + 2
            blank(i, j)
        elif c in "\"'" and not (c == "'" and text[i - 1].isalnum()):
            j = i + 1
            while j < n and text[j] != c:
                j += 2 if text[j] == "\\" else 1
            blank(i + 1, j)  # the quotes stay
            j += 1
        else:
            j = i + 1
        i = j
    masked = "".join(out)
    for m in MASKED_CALL_RE.finditer(masked):
        depth, j = 0, m.end() - 1
        while j < n:
            depth += {"(": 1, ")": -1}.get(masked[j], 0)
            if depth == 0:
                break
            j += 1
        blank(m.start(), j + 1)
    for m in ARRAY_BOUND.finditer(masked):
        blank(m.start(1), m.end(1))
    return "".join(out)


def function_at(code, pos):
    """The name of the function whose body holds `pos` in masked `code`;
    "" inside a lambda, None outside any function."""
    stack, last = [], 0  # per open brace: the function it belongs to
    for m in re.finditer(r"[{};]", code[:pos]):
        if m.group() == "{":
            head, inner = code[last:m.start()], next((f for f in reversed(stack) if f is not None), None)
            if inner is not None:
                stack.append("" if LAMBDA.search(head.strip()) else inner)
            else:
                call = re.search(r"(~?\w+)\s*\(", head)
                kinds = re.search(r"\b(namespace|class|struct|enum|union)\b|=", head)
                stack.append(call.group(1) if call and not kinds else None)
        elif m.group() == "}" and stack:
            stack.pop()
        last = m.end()
    return next((f for f in reversed(stack) if f is not None), None)


_program = []


def program():
    """Masked text of every source of the daemon and its tools (tests aside)."""
    if not _program:
        for d, dirs, names in os.walk(ROOT):
            dirs[:] = [x for x in dirs if not x.startswith((".", "build")) and x not in ("tests", "bench")]
            for name in names:
                if name.endswith((".cc", ".h")):
                    with open(os.path.join(d, name), errors="replace") as f:
                        _program.append(mask(f.read()))
    return _program


def result_read(name, seen=None):
    """Whether what the function `name` returns may matter: some caller uses
    it, or the program never calls it (then its tests are its users)."""
    seen = set() if seen is None else seen
    if not name or name in seen:
        return not name  # a lambda's result is taken as read; a cycle reads nothing new
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
    """literal + delta, written in the literal's base (hex, octal, decimal)."""
    sign, digits = (-1, literal[1:]) if literal[0] == "-" else (1, literal)
    base, form = (16, "0x%x") if digits[:2] in ("0x", "0X") else (
        (8, "0%o") if digits[0] == "0" and len(digits) > 1 else (10, "%d"))
    value = sign * int(digits, base) + delta
    return form % value if value >= 0 else "-" + form % -value


def candidates(text):
    """(line number, original line, mutated line, what) of every point."""
    masked = mask(text)
    lines, mlines = text.split("\n"), masked.split("\n")
    found, prev, offset = [], ";", 0
    for no, (line, code) in enumerate(zip(lines, mlines), 1):
        new, returned = {}, []  # mutated line: what changed; spans of returned codes

        def swap(start, end, to):
            what = "%s -> %s" % (line[start:end], to)
            twins = sum(w.startswith(what) for w in new.values())
            new.setdefault(line[:start] + to + line[end:], what + (" #%d" % (twins + 1) if twins else ""))
        for m in CMP_RE.finditer(code):
            swap(m.start(), m.end(), CMP[m.group()])
        for m in RET_RE.finditer(code):
            returned.append(m.span(1))  # swapped only: a caller tests the sign or zero
            if result_read(function_at(masked, offset + m.start())):
                swap(m.start(1), m.end(1), RET[m.group(1)])
        for m in INT_RE.finditer(code):
            start = m.start()  # a unary minus belongs to the literal: -1 becomes 0 or -2
            if NEGATED.search(code[:start]):
                start -= 1
            if any(a <= start < b for a, b in returned):
                continue
            for delta in (1, -1):
                swap(start, m.end(), bump(line[start:m.end()], delta))
        stripped = code.strip()
        if (prev[-1] in ";{}:" and stripped.endswith(";") and STMT_RE.match(code)
                and not KEYWORDS.match(code) and code.count("(") == code.count(")")
                and "{" not in code and "}" not in code and not DEFAULTED.search(code)):
            new[""] = "deleted"
        new.pop(line, None)
        for n in sorted(new):
            found.append((no, line, n, new[n]))
        if stripped:
            prev = stripped
        offset += len(line) + 1
    return found


def pick(found, n, seed):
    """The n candidates with the smallest hash of (seed, line, change, occurrence)."""
    seen, keyed = {}, []
    for cand in found:
        ident = (cand[1].strip(), cand[2].strip())
        seen[ident] = seen.get(ident, 0) + 1
        h = hashlib.sha256(repr((seed,) + ident + (seen[ident],)).encode()).hexdigest()
        keyed.append((h, cand))
    return sorted(c for _, c in sorted(keyed)[:n])


def my_daemons(build):
    """Pids of daemons started from this build (a killed test leaves them)."""
    exe = os.path.join(os.path.realpath(build), "monitor", DAEMON)
    pids = []
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink("/proc/%s/exe" % pid).startswith(exe):
                pids.append(int(pid))
        except OSError:
            pass
    return pids


def run(cmd, log, timeout=None):
    """Return code of cmd (None on time-out); its whole process group is
    killed on a time-out or an interrupt."""
    with open(log, "w") as out:
        p = subprocess.Popen(cmd, stdout=out, stderr=subprocess.STDOUT, start_new_session=True)
        try:
            return p.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None
        finally:
            if p.poll() is None:
                os.killpg(p.pid, signal.SIGKILL)
                p.wait()


class Area:
    """What judges one file: the targets to build and the ctest selection."""

    def __init__(self, path, args):
        binaries, scripts, needs = AREAS.get(path, ("", "", ""))
        self.args, self.log = args, os.path.join(args.build, "mutate.log")
        self.binaries = (args.targets or binaries).split()
        self.targets = self.binaries + ([] if args.targets else needs.split())
        self.names, self.tests = scripts.split(), args.tests

    def build(self):
        cmd = ["cmake", "--build", self.args.build, "-j", str(self.args.jobs), "--target"]
        return run(cmd + self.targets, self.log) == 0

    def select(self):
        """Unless --tests gave it, the ctest regex of every suite the gtest
        binaries registered (known once they are built) and the named tests."""
        if self.tests:
            return
        listing = subprocess.run(["ctest", "--test-dir", self.args.build, "--show-only=json-v1"],
                                 capture_output=True, text=True, check=True).stdout
        suites = sorted({t["name"].split(".")[0] for t in json.loads(listing)["tests"]
                         if os.path.basename((t.get("command") or [""])[0]) in self.binaries})
        parts = ["^(%s)\\." % "|".join(map(re.escape, suites))] if suites else []
        parts += ["^(%s)$" % "|".join(self.names)] if self.names else []
        self.tests = "|".join(parts)

    def test(self, timeout=None):
        """0 when the tests pass; a flaky failure gets one more run."""
        rc = run(["ctest", "--test-dir", self.args.build, "-R", self.tests, "-j",
                  str(self.args.jobs), "--stop-on-failure", "--no-tests=error",
                  "--repeat", "until-pass:2"], self.log, timeout)
        if rc is None:
            for pid in my_daemons(self.args.build):
                os.kill(pid, signal.SIGKILL)
        return rc


def mutate_file(path, args):
    area = Area(path, args)
    if not area.targets:
        sys.exit("%s: no built-in targets and tests; give --targets (and --tests)" % path)
    full = os.path.join(ROOT, path)
    backup = os.path.join(args.build, "mutate-backup", path)
    with open(full) as f:
        original = f.read()
    chosen = pick(candidates(original), args.n, args.seed)
    print("%s: %d mutants of %d points" % (path, len(chosen), len(candidates(original))), flush=True)
    t0 = time.monotonic()
    if not area.build():
        sys.exit("%s: the targets do not build (see %s)" % (path, area.log))
    area.select()
    if not area.tests:
        sys.exit("%s: no test of %s is known to ctest" % (path, " ".join(area.binaries)))
    print("  tests: %s" % area.tests, flush=True)
    if area.test() != 0:
        sys.exit("%s: the tests fail without a mutant (see %s)" % (path, area.log))
    timeout = args.timeout or 3 * (time.monotonic() - t0) + 60
    os.makedirs(os.path.dirname(backup), exist_ok=True)
    shutil.copyfile(full, backup)
    caught, viable, survivors = 0, 0, []
    try:
        for i, (no, line, new, what) in enumerate(chosen, 1):
            lines = original.split("\n")
            lines[no - 1] = new
            with open(full, "w") as f:
                f.write("\n".join(lines))
            t = time.monotonic()
            if not area.build():
                verdict = "not viable"
            else:
                viable += 1
                rc = area.test(timeout)
                verdict = "caught" if rc != 0 else "survived"
                caught += rc != 0
                if rc == 0:
                    survivors.append((no, line.strip(), what))
            print("  [%d/%d] %s:%d %s -> %s: %s (%.0f s)" % (
                i, len(chosen), path, no, line.strip(), what, verdict, time.monotonic() - t),
                flush=True)
    finally:
        with open(full, "w") as f:
            f.write(original)
        os.remove(backup)
    return caught, viable, survivors


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    p.add_argument("files", nargs="+", help="source files, from the project root")
    p.add_argument("--build", default=os.path.join(ROOT, "build-mutate"))
    p.add_argument("--targets", help="build targets, blank-separated")
    p.add_argument("--tests", help="ctest regex of the tests to run")
    p.add_argument("-n", type=int, default=30, help="mutants per file")
    p.add_argument("--seed", default="1")
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--timeout", type=float, help="seconds per mutant's tests (default: "
                   "three times the clean run, plus 60)")
    p.add_argument("--list", action="store_true", help="print the candidates and the pick")
    args = p.parse_args()
    # SIGTERM and SIGHUP unwind like Ctrl-C, so the finally clauses restore.
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, signal.default_int_handler)
    backups = os.path.join(args.build, "mutate-backup")
    for d, _, names in os.walk(backups):
        for name in names:  # left by a killed run
            rel = os.path.relpath(os.path.join(d, name), backups)
            shutil.move(os.path.join(d, name), os.path.join(ROOT, rel))
            print("restored %s from %s" % (rel, backups))
    if args.list:
        for path in args.files:
            with open(os.path.join(ROOT, path)) as f:
                found = candidates(f.read())
            chosen = pick(found, args.n, args.seed)
            for no, line, new, what in found:
                print("%s %s:%d %s -> %s" % ("*" if (no, line, new, what) in chosen else " ",
                                             path, no, line.strip(), what))
        return
    if not os.path.exists(os.path.join(args.build, "CMakeCache.txt")):
        subprocess.run(["cmake", "-S", ROOT, "-B", args.build], check=True,
                       stdout=subprocess.DEVNULL)
    results = [(path,) + mutate_file(path, args) for path in args.files]
    print("\nseed %s, at most %d mutants per file" % (args.seed, args.n))
    for path, caught, viable, survivors in results:
        share = 100.0 * caught / viable if viable else 0.0
        print("%s: caught %d / %d viable (%.0f%%), %d survived" % (
            path, caught, viable, share, len(survivors)))
        for no, line, what in survivors:
            print("  %s:%d %s -> %s" % (path, no, line, what))


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit("interrupted; the file is restored")
