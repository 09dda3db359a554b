#!/usr/bin/env python3
"""How many single-point faults in a source file do its tests catch?

  tools/mutate.py [-n N] [--seed S] [--build DIR] [--jobs J] FILE...   (FILE from the root)

A mutant negates a comparison, moves an integer literal by one, swaps a
returned 0/-1 or true/false, or deletes a simple statement line.  N of them
are picked by a hash of the seed and the line's text, so unrelated edits do
not change the pick.  Each is built in DIR (build-mutate/) and judged by the
tests of its area: a failing or hanging test catches it, a build failure
makes it not viable.  The file is restored on every exit path; a copy waits
in DIR/mutate-backup/ in case this process is killed.
"""

import argparse
import functools
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
# Survivors read and found to change nothing the program does, each with why.
EQUIVALENT = os.path.join(ROOT, "tools", "mutate-equivalent.txt")
DAEMON = "vesta-monitor"

# Area: gtest binaries (each brings all its ctest entries), tests run through
# Python by ctest name, and what those need built.
STREAM = ("stream_test pobject_test stream_file_test stream_memory_test ipc_test", "pstream_cross_check", "pstream_echo")
DB = ("system_db_test filter_test error_handler_test", "error_system", DAEMON)
ERROR = ("error_handler_test", "error_system", DAEMON)
MONITOR = ("worker_test message_test", "monitor_system workers_system", DAEMON + " vesta-monitorctl")
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


def run(cmd, log, timeout=None):
    """cmd's exit status, None on a time-out; its process group is killed
    on a time-out or an interrupt."""
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
    """What judges one file: targets to build and a ctest selection."""

    def __init__(self, path, args):
        binaries, self.names, needs = (s.split() for s in AREAS.get(path, ("", "", "")))
        self.args, self.log, self.tests = args, os.path.join(args.build, "mutate.log"), args.tests
        self.binaries = args.targets.split() if args.targets else binaries
        self.targets = self.binaries + ([] if args.targets else needs)

    def build(self):
        cmd = ["cmake", "--build", self.args.build, "-j", str(self.args.jobs), "--target"]
        return run(cmd + self.targets, self.log) == 0

    def select(self):
        """Unless --tests gave one, a regex of the suites the binaries
        registered (known once built) and of the named tests."""
        listing = subprocess.run(["ctest", "--test-dir", self.args.build, "--show-only=json-v1"],
                                 capture_output=True, text=True, check=True).stdout
        suites = sorted({t["name"].split(".")[0] for t in json.loads(listing)["tests"]
                         if os.path.basename((t.get("command") or [""])[0]) in self.binaries})
        parts = ["^(%s)\\." % "|".join(map(re.escape, suites))] if suites else []
        if self.names:
            parts.append("^(%s)$" % "|".join(self.names))
        self.tests = self.tests or "|".join(parts)
        return self.tests

    def test(self, timeout=None):
        """0 when the tests pass; a failing test gets a second run (flakes)."""
        rc = run(["ctest", "--test-dir", self.args.build, "-R", self.tests, "-j", str(self.args.jobs),
                  "--stop-on-failure", "--no-tests=error", "--repeat", "until-pass:2"], self.log, timeout)
        daemon = os.path.join(os.path.realpath(self.args.build), "monitor", DAEMON)
        for pid in filter(str.isdigit, os.listdir("/proc") if rc is None else []):
            try:  # the daemons a killed test left behind
                if os.readlink("/proc/%s/exe" % pid).startswith(daemon):
                    os.kill(int(pid), signal.SIGKILL)
            except OSError:
                pass
        return rc


def equivalents():
    """{(file, stripped line, change)} of the listed equivalent mutants."""
    if not os.path.exists(EQUIVALENT):
        return set()
    with open(EQUIVALENT) as f:
        rows = [line.split(" | ") for line in f if line.strip() and not line.startswith("#")]
    return {tuple(r[:3]) for r in rows}


def mutate_file(path, args):
    """(caught, viable, survivors, equivalent), or None when the clean tree fails."""
    area, full = Area(path, args), os.path.join(ROOT, path)
    backup = os.path.join(args.build, "mutate-backup", path)
    with open(full) as f:
        original = f.read()
    found = candidates(original)
    chosen = pick(found, args.n, args.seed)
    print("%s: %d mutants of %d points" % (path, len(chosen), len(found)), flush=True)
    t0 = time.monotonic()
    if not area.targets or not area.build() or not area.select() or area.test() != 0:
        print("  no targets, or they do not build or pass without a mutant (see %s)" % area.log)
        return None
    print("  tests: %s" % area.tests, flush=True)
    timeout = args.timeout or 3 * (time.monotonic() - t0) + 60
    os.makedirs(os.path.dirname(backup), exist_ok=True)
    shutil.copyfile(full, backup)
    caught, viable, survivors, equivalent, known = 0, 0, [], 0, equivalents()
    try:
        for i, (no, line, new, what) in enumerate(chosen, 1):
            lines = original.split("\n")
            lines[no - 1] = new
            with open(full, "w") as f:
                f.write("\n".join(lines))
            t = time.monotonic()
            if not area.build():
                verdict = "not viable"
            elif area.test(timeout) != 0:  # a time-out (None) too
                verdict, viable, caught = "caught", viable + 1, caught + 1
            elif (path, line.strip(), what) in known:  # only a survivor is excused
                verdict, equivalent = "equivalent", equivalent + 1
            else:
                verdict, viable = "survived", viable + 1
                survivors.append((no, line.strip(), what))
            print("  [%d/%d] %s:%d %s -> %s: %s (%.0f s)" % (
                i, len(chosen), path, no, line.strip(), what, verdict, time.monotonic() - t), flush=True)
    finally:
        with open(full, "w") as f:
            f.write(original)
        os.remove(backup)
    return caught, viable, survivors, equivalent


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n")[1])
    p.add_argument("files", nargs="+", help="source files, from the project root")
    p.add_argument("--build", default=os.path.join(ROOT, "build-mutate"))
    p.add_argument("--targets", help="build targets, blank-separated (gtest binaries)")
    p.add_argument("--tests", help="ctest regex of the tests to run")
    p.add_argument("-n", type=int, default=30, help="mutants per file")
    p.add_argument("--seed", default="1")
    p.add_argument("--jobs", type=int, default=2)
    p.add_argument("--timeout", type=float, help="seconds for a mutant's tests "
                   "(default: three times the clean build and run, plus 60)")
    p.add_argument("--list", action="store_true", help="print the points, the picked ones with *")
    args = p.parse_args()
    for sig in (signal.SIGTERM, signal.SIGHUP):  # unwind like Ctrl-C: the file is restored
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
            for c in found:
                print("%s %s:%d %s -> %s" % ("*" if c in chosen else " ", path, c[0], c[1].strip(), c[3]))
        return
    if not os.path.exists(os.path.join(args.build, "CMakeCache.txt")):
        subprocess.run(["cmake", "-S", ROOT, "-B", args.build], check=True, stdout=subprocess.DEVNULL)
    results = [(path, mutate_file(path, args)) for path in args.files]
    print("\nseed %s, at most %d mutants per file" % (args.seed, args.n))
    for path, result in results:
        if result is None:
            print("%s: not measured" % path)
            continue
        caught, viable, survivors, equivalent = result
        print("%s: caught %d / %d viable (%.0f%%), %d survived, %d equivalent" % (
            path, caught, viable, 100.0 * caught / max(viable, 1), len(survivors), equivalent))
        for no, line, what in survivors:
            print("  %s:%d %s -> %s" % (path, no, line, what))


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit("interrupted; the file is restored")
