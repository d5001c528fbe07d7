#!/usr/bin/env python3
"""Mutation check: how many small breaks of the sources does the suite notice?

Each mutant is one small change to one source file of ZV_FileShare or QB_Base:

  drop-call   a call statement (one or more lines, ending in ");") becomes ";"
  compare     a comparison is flipped or loosened: < <=, > >=, == != and back
  constant    an integer literal moves up by one
  swap-args   two neighbouring arguments of a call swap, when both are plain
              names with the same type prefix (ulPos, m_ulLen)
  return      "return CODE;" becomes "return 0;" (an error code, a result
              variable or true)

Comments, string and character literals and preprocessor lines are never
changed. The platform layer (*Posix.cpp) is left out by default: a break
there talks to the real file system.

The checkout this is run from is never written. Its files (tracked and
untracked, minus ignored ones) are copied into a work folder, configured once
(ccache if present, no benchmarks) and built; the fast
test programs (base_tests, module_tests, scenario_tests, sim_tests, and the
seeded random conferences of random_tests) must pass
there before any mutant is tried. Then, one mutant at a time: the file is
changed in the copy, the test programs are rebuilt incrementally, those that
were relinked run with a time-out (first failure stops them), and the file
is put back. A mutant is caught when a test program fails, crashes or runs
out of time; it survives when they all pass. A mutant that does not compile
counts for nothing.

With --matrix FILE the run also records which test cases fail for each
mutant (the kill matrix): no program stops at its first failure, every
program that was relinked runs whole, and its GoogleTest XML output is read.
Each program is split into --jobs GoogleTest shards and the shards of all
programs run that many at a time, the longest programs first, so that both
cores stay busy while the slowest program runs.
One JSON line per mutant is appended to FILE as soon as it is done, and a
rerun with the same FILE skips the mutants already in it, so a sample of
hundreds can be spread over several sittings. --matrix-report FILE reads a
matrix back and lists, per test case, the mutants it kills and how many of
those no other test kills: a test with none is a candidate to fold or drop.

Mutant ids are a hash of the file, the operator, the changed text and its
place among identical lines, so they survive edits elsewhere in the file.
The equivalent list (see --equivalent) names ids of mutants that cannot
change behaviour; they are shown but left out of the score.

Examples:
  nice -n 19 tools/mutate.py --list --files 'ZV_FileShare/*.cpp' | head
  nice -n 19 tools/mutate.py --sample 50 --seed 1 --files 'ZV_FileShare/*.cpp'
  nice -n 19 tools/mutate.py                    # every mutant: a night
  nice -n 19 tools/mutate.py --sample 400 --seed 7 --matrix kill.jsonl   # resumable
  tools/mutate.py --matrix-report kill.jsonl
"""

import argparse
import fnmatch
import hashlib
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
import xml.etree.ElementTree as ET
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from pathlib import Path

DEFAULT_FILES = "ZV_FileShare/*.cpp,QB_Base/Src/*.cpp"
SOURCE_GLOBS = ["ZV_FileShare/**/*.cpp", "ZV_FileShare/**/*.h", "QB_Base/Src/*.cpp", "QB_Base/Include/*.h"]
LEFT_OUT = ["*Posix.cpp"]
TEST_PROGRAMS = ["base_tests", "module_tests", "scenario_tests", "sim_tests", "random_tests"]
KEYWORDS = {"if", "for", "while", "switch", "return", "sizeof", "alignof", "decltype", "catch",
            "static_assert", "new", "delete", "throw", "case", "else", "do", "co_return",
            "operator", "typeid", "noexcept", "alignas", "template"}


@dataclass
class Mutant:
    file: str        # path relative to the tree
    line: int        # 1-based first line
    op: str
    before: str      # the changed text as it was
    after: str       # and as the mutant has it
    start: int       # offset of the change in the file's text
    end: int
    mid: str = ""    # stable id

    def describe(self):
        return f"{self.file}:{self.line}: {self.op}: {short(self.before)} -> {short(self.after)}"


def short(text):
    return " ".join(text.split())


# ---------------------------------------------------------------------------
# Reading C++: a copy of the text in which comments, literals and
# preprocessor lines are blanked, offsets unchanged.

def blank(text, start, end, out):
    for i in range(start, end):
        if out[i] != "\n":
            out[i] = " "


def in_number(text, i):
    """Is the quote at i a digit separator (1'000, 0xFF'FF)?"""
    j = i - 1
    while j >= 0 and (text[j].isalnum() or text[j] == "'"):
        j -= 1
    return i > 0 and j + 1 < i and text[j + 1].isdigit()


def code_only(text):
    out = list(text)
    i, n = 0, len(text)
    at_line_start = True
    while i < n:
        c = text[i]
        if c == "\n":
            at_line_start = True
            i += 1
            continue
        if at_line_start and c == "#":
            j = i
            while j < n and not (text[j] == "\n" and text[j - 1] != "\\"):
                j += 1
            blank(text, i, j, out)
            i = j
            continue
        if not c.isspace():
            at_line_start = False
        if text.startswith("//", i):
            j = text.find("\n", i)
            j = n if j < 0 else j
            blank(text, i, j, out)
            i = j
        elif text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            blank(text, i, j, out)
            i = j
        elif c == "R" and text.startswith('R"', i) and (i == 0 or not text[i - 1].isalnum() or
                                                         text[i - 1] in "uU8L"):
            k = text.find("(", i)
            delim = text[i + 2:k]
            j = text.find(")" + delim + '"', k)
            j = n if j < 0 else j + len(delim) + 2
            blank(text, i + 2, j - 1, out)
            i = j
        elif c == '"' or (c == "'" and not in_number(text, i)):
            j = i + 1
            while j < n and text[j] != c and text[j] != "\n":
                j += 2 if text[j] == "\\" else 1
            blank(text, i + 1, min(j, n), out)
            i = j + 1
        else:
            i += 1
    return "".join(out)


def line_of(text, offset):
    return text.count("\n", 0, offset) + 1


def matching_paren(code, open_at, limit):
    depth = 0
    for i in range(open_at, limit):
        if code[i] in "([{":
            depth += 1
        elif code[i] in ")]}":
            depth -= 1
            if depth == 0:
                return i
    return -1


# ---------------------------------------------------------------------------
# The operators. Each yields (start, end, replacement) over the file's text.

CALL_HEAD = re.compile(r"[ \t]*(?:[A-Za-z_]\w*(?:::|\.|->))*([A-Za-z_~]\w*)[ \t]*\(")


def statement_starts_at(code, pos):
    """True when the code before pos ends a statement or opens a block."""
    j = pos - 1
    while j >= 0 and code[j].isspace():
        j -= 1
    if j < 0 or code[j] in ";{}":
        return True
    if code[j] == ")":  # if (...) / for (...) / while (...) without braces
        k = j
        depth = 0
        while k >= 0:
            depth += code[k] == ")"
            depth -= code[k] == "("
            if depth == 0:
                break
            k -= 1
        word = re.search(r"(\w+)\s*$", code[:k])
        return bool(word) and word.group(1) in ("if", "for", "while")
    if code[j] == ":":  # case label, access label; not a scope ::
        return j == 0 or code[j - 1] != ":"
    return code[max(0, j - 3):j + 1] == "else"


def drop_calls(text, code):
    pos = 0
    for line in code.splitlines(keepends=True):
        head = CALL_HEAD.match(line)
        start = pos
        pos += len(line)
        # assert is compiled out in the build the check makes (NDEBUG)
        if not head or head.group(1) in KEYWORDS | {"assert"} or not statement_starts_at(code, start):
            continue
        open_at = start + head.end() - 1
        close = matching_paren(code, open_at, len(code))
        if close < 0:
            continue
        rest = re.match(r"\s*;", code[close + 1:])
        if not rest:
            continue
        end = close + 1 + rest.end()
        first = start + len(line) - len(line.lstrip())
        yield first, end, ";" + "\n" * text.count("\n", first, end)


COMPARE = re.compile(r"(?<=\s)(<=|>=|==|!=|<|>)(?=\s)")
COMPARE_SWAP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "=="}


def compares(text, code):
    for m in COMPARE.finditer(code):
        if code[:m.start()].rstrip().endswith("operator"):
            continue
        yield m.start(), m.end(), COMPARE_SWAP[m.group(1)]


NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlL]*)(?![\w.'])")


def constants(text, code):
    for m in NUMBER.finditer(code):
        digits = m.group(1).replace("'", "")
        if digits.lower().startswith("0x"):
            value = int(digits, 16) + 1
            moved = "0x%0*X" % (len(digits) - 2, value)
        elif len(digits) > 1 and digits.startswith("0"):
            continue  # octal: rare, and easy to get wrong
        else:
            moved = str(int(digits) + 1)
        yield m.start(), m.end(), moved + m.group(2)


PLAIN_NAME = re.compile(r"[A-Za-z_]\w*(?:(?:\.|->)[A-Za-z_]\w*)*")


def type_prefix(name):
    """The Hungarian prefix of a name's last part (ulConn: ul, m_usFileID: us), or None."""
    last = re.split(r"\.|->", name)[-1]
    last = last[2:] if last.startswith("m_") else last
    m = re.match(r"([a-z]+)[A-Z]", last)
    return m.group(1) if m else None


def split_args(code, open_at, close):
    args, depth, begin = [], 0, open_at + 1
    for i in range(open_at + 1, close):
        if code[i] in "([{":
            depth += 1
        elif code[i] in ")]}":
            depth -= 1
        elif code[i] == "," and depth == 0:
            args.append((begin, i))
            begin = i + 1
    args.append((begin, close))
    return args


def swaps(text, code):
    for m in re.finditer(r"([A-Za-z_]\w*)\s*\(", code):
        if m.group(1) in KEYWORDS:
            continue
        open_at = m.end() - 1
        line_end = code.find("\n", open_at)
        close = matching_paren(code, open_at, len(code) if line_end < 0 else line_end)
        if close < 0:
            continue
        args = split_args(code, open_at, close)
        for (a0, a1), (b0, b1) in zip(args, args[1:]):
            a, b = text[a0:a1].strip(), text[b0:b1].strip()
            # Names of one type by their prefix, so that the swap builds
            # and means something.
            if a != b and PLAIN_NAME.fullmatch(a) and PLAIN_NAME.fullmatch(b) and \
                    type_prefix(a) is not None and type_prefix(a) == type_prefix(b):
                lead_a = a0 + len(text[a0:a1]) - len(text[a0:a1].lstrip())
                end_b = b0 + len(text[b0:b1].rstrip())
                inner = text[lead_a:end_b]
                yield lead_a, end_b, b + inner[len(a):len(inner) - len(b)] + a


RETURN_CODE = re.compile(
    r"\breturn\s+((?:[A-Z][A-Z0-9]*_[A-Z0-9_]+)|true|(?:ul|us|ull|n|dw|l|u)[A-Z]\w*)\s*;")


def returns(text, code):
    for m in RETURN_CODE.finditer(code):
        if m.group(1) in ("zvResultOk",):
            continue
        yield m.start(1), m.end(1), "0"


OPERATORS = [("drop-call", drop_calls), ("compare", compares), ("constant", constants),
             ("swap-args", swaps), ("return", returns)]


def mutants_of(root, rel):
    text = (root / rel).read_text(encoding="utf-8")
    code = code_only(text)
    # assert is compiled out in the build the check makes (NDEBUG): nothing
    # inside one can change what the suite sees.
    asserts = []
    for m in re.finditer(r"\bassert\s*\(", code):
        close = matching_paren(code, m.end() - 1, len(code))
        asserts.append((m.start(), close if close >= 0 else m.end()))
    found, seen = [], {}
    for op, make in OPERATORS:
        for start, end, after in make(text, code):
            before = text[start:end]
            line = line_of(text, start)
            context = text[text.rfind("\n", 0, start) + 1:text.find("\n", end) if "\n" in text[end:] else None]
            key = (op, short(context), short(before), short(after), start - text.rfind("\n", 0, start))
            seen[key] = seen.get(key, 0) + 1
            mid = hashlib.sha1(repr((rel,) + key + (seen[key],)).encode()).hexdigest()[:10]
            if any(begin <= start < close for begin, close in asserts):
                continue
            found.append(Mutant(rel, line, op, before, after, start, end, mid))
    found.sort(key=lambda m: (m.start, m.op))
    return found


# ---------------------------------------------------------------------------
# The copy of the tree and its build.

def run(cmd, cwd=None, timeout=None, log=None, env=None):
    """Runs cmd in a process group of its own; returns (code, seconds); code None on time-out."""
    began = time.monotonic()
    with open(log or os.devnull, "ab") as out:
        proc = subprocess.Popen(cmd, cwd=cwd, stdout=out, stderr=subprocess.STDOUT, start_new_session=True,
                                env=env)
        try:
            code = proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
            code = None
    return code, time.monotonic() - began


def tree_files(checkout):
    out = subprocess.run(["git", "-C", str(checkout), "ls-files", "-z", "--cached", "--others",
                          "--exclude-standard"], check=True, capture_output=True).stdout
    return [f for f in out.decode().split("\0") if f and (checkout / f).is_file()]


def sync_copy(checkout, copy):
    """Makes copy/ hold the checkout's files; copies only what differs, so builds stay incremental."""
    wanted = set(tree_files(checkout))
    for rel in wanted:
        src, dst = checkout / rel, copy / rel
        data = src.read_bytes()
        if dst.is_file() and dst.read_bytes() == data:
            continue
        dst.parent.mkdir(parents=True, exist_ok=True)
        dst.write_bytes(data)
        shutil.copymode(src, dst)
    for path in copy.rglob("*"):
        rel = path.relative_to(copy).as_posix()
        if path.is_file() and not rel.startswith("build/") and rel not in wanted:
            path.unlink()


def configure(copy, log):
    flags = ["-DROOMCRATE_BENCH=OFF"]
    if shutil.which("ccache"):
        flags.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
    code, _ = run(["cmake", "-S", str(copy), "-B", str(copy / "build")] + flags, log=log)
    if code != 0:
        sys.exit(f"mutate: configuring the copy failed, see {log}")


def build(copy, jobs, log):
    cmd = ["cmake", "--build", str(copy / "build"), "-j", str(jobs), "--target"] + TEST_PROGRAMS
    return run(cmd, log=log)[0] == 0


def programs(copy):
    found = {}
    for name in TEST_PROGRAMS:
        hits = [p for p in (copy / "build").rglob(name) if p.is_file() and os.access(p, os.X_OK)]
        if hits:
            found[name] = hits[0]
    return found


def stamp(exe):
    st = exe.stat()
    return (st.st_mtime_ns, st.st_size)


def run_tests(exes, timeouts, log):
    """Runs the programs, quickest first; 'failed', 'timeout' or 'passed'."""
    for name, exe in sorted(exes.items(), key=lambda kv: timeouts[kv[0]]):
        code, _ = run([str(exe), "--gtest_fail_fast", "--gtest_brief=1"], cwd=exe.parent,
                      timeout=timeouts[name], log=log)
        if code is None:
            return "timeout"
        if code != 0:
            return "failed"
    return "passed"


def failed_cases(xml_path):
    """The names (Suite.Case) of the failed cases of one GoogleTest XML report."""
    try:
        root = ET.parse(xml_path).getroot()
    except (ET.ParseError, OSError):
        return None
    return sorted(f"{case.get('classname')}.{case.get('name')}" for case in root.iter("testcase")
                  if case.find("failure") is not None)


def run_matrix(exes, timeouts, log, xml_dir, jobs):
    """Runs every program whole, as `jobs` shards side by side; the outcome and the failed cases.

    A shard that crashes or runs out of time leaves no usable report: its
    program is recorded by its name alone, since any of its cases may be the
    one."""
    def one(shard):
        name, exe, index = shard
        xml_path = xml_dir / f"{name}.{index}.xml"
        if xml_path.exists():
            xml_path.unlink()
        env = dict(os.environ, GTEST_TOTAL_SHARDS=str(jobs), GTEST_SHARD_INDEX=str(index))
        code, _ = run([str(exe), f"--gtest_output=xml:{xml_path}", "--gtest_brief=1"], cwd=exe.parent,
                      timeout=timeouts[name], log=log, env=env)
        return name, code, xml_path

    shards = [(name, exe, index) for name, exe in sorted(exes.items(), key=lambda kv: -timeouts[kv[0]])
              for index in range(jobs)]
    with ThreadPoolExecutor(max_workers=jobs) as pool:
        finished = list(pool.map(one, shards))
    outcome, killed = "passed", []
    for name, code, xml_path in finished:
        if code == 0:
            continue
        outcome = "timeout" if code is None or outcome == "timeout" else "failed"
        cases = failed_cases(xml_path) if code is not None else None
        killed += cases if cases else [f"{name}.*"]
    return outcome, sorted(set(killed))


def read_matrix(path):
    rows = {}
    if path.is_file():
        for line in path.read_text().splitlines():
            try:
                row = json.loads(line)
            except json.JSONDecodeError:
                continue  # a line cut by an interrupted run: that mutant runs again
            rows[row["id"]] = row
    return rows


def matrix_report(path):
    rows = [r for r in read_matrix(path).values() if r["outcome"] in ("failed", "timeout", "passed")]
    if not rows:
        sys.exit(f"mutate: no mutant in {path}")
    by_test = {}
    for row in rows:
        for test in row["killed"]:
            by_test.setdefault(test, set()).add(row["id"])
    killers = {r["id"]: len(r["killed"]) for r in rows}
    caught = sum(1 for r in rows if r["killed"])
    print(f"{len(rows)} mutants, {caught} caught ({100 * caught / len(rows):.1f}%), {len(by_test)} tests kill any")
    print(f"{'kills':>5} {'alone':>5}  test")
    for test, ids in sorted(by_test.items(), key=lambda kv: (sum(killers[i] == 1 for i in kv[1]), len(kv[1]))):
        print(f"{len(ids):5} {sum(killers[i] == 1 for i in ids):5}  {test}")
    return 0


# ---------------------------------------------------------------------------

def parse_args():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--files", default=DEFAULT_FILES,
                   help="comma-separated globs of sources to change, relative to the tree "
                        f"(default {DEFAULT_FILES}; headers may be named too; *Posix.cpp only if named)")
    p.add_argument("--ops", default=",".join(op for op, _ in OPERATORS),
                   help="comma-separated operators to use (default: all)")
    p.add_argument("--sample", type=int, metavar="N", help="try a seeded sample of N mutants instead of all")
    p.add_argument("--seed", type=int, default=1, help="seed of the sample (default 1)")
    p.add_argument("--only", metavar="IDS", help="comma-separated mutant ids to try, e.g. survivors again")
    p.add_argument("--list", action="store_true", help="only print the mutants, build nothing")
    p.add_argument("--equivalent", default=None, metavar="FILE",
                   help="ids of mutants judged equivalent (default tools/mutate-equivalent.txt)")
    p.add_argument("--work", metavar="DIR",
                   help="work folder for the copy and its build (default /tmp/roomcrate-mutate-<user>); "
                        "kept between runs so that the next build is incremental")
    p.add_argument("--report", metavar="FILE", help="where to write the report (default WORK/report.txt)")
    p.add_argument("--matrix", metavar="FILE",
                   help="record the failed test cases of each mutant, one JSON line each, appended to FILE; "
                        "mutants already in FILE are skipped")
    p.add_argument("--matrix-report", metavar="FILE", help="only read a matrix and list what each test kills")
    p.add_argument("--jobs", type=int, default=2,
                   help="build jobs, and with --matrix the test shards run side by side (default 2)")
    p.add_argument("--timeout-factor", type=float, default=3.0,
                   help="a test program runs out of time at this many times its clean run, +10 s (default 3)")
    return p.parse_args()


def select_files(root, globs):
    chosen = []
    for pattern in SOURCE_GLOBS:
        for path in sorted(root.glob(pattern)):
            rel = path.relative_to(root).as_posix()
            named = [g for g in globs if fnmatch.fnmatch(rel, g)]
            left_out = any(fnmatch.fnmatch(rel, g) for g in LEFT_OUT)
            if named and (not left_out or any(g.endswith(Path(rel).name) for g in named)):
                chosen.append(rel)
    return chosen


def read_equivalent(path):
    ids = set()
    if path.is_file():
        for line in path.read_text().splitlines():
            word = line.split("#", 1)[0].split()
            if word:
                ids.add(word[0])
    return ids


def report(results, elapsed, out_path):
    lines, files = ["mutate.py " + " ".join(sys.argv[1:])], {}
    for m, outcome in results:
        files.setdefault(m.file, []).append((m, outcome))
    totals = {"caught": 0, "survived": 0, "scored": 0}
    lines.append(f"{'file':52} {'mutants':>7} {'caught':>6} {'surv':>5} {'t/o':>4} {'nobuild':>7} "
                 f"{'equiv':>5} {'score':>6}")
    survivors = []
    for rel, rows in files.items():
        count = lambda o: sum(1 for _, x in rows if x == o)
        caught, timeout, survived = count("failed") + count("timeout"), count("timeout"), count("passed")
        equiv, nobuild = count("equivalent"), count("nobuild")
        scored = caught + survived
        score = f"{100 * caught / scored:.0f}%" if scored else "-"
        lines.append(f"{rel:52} {len(rows):7} {caught:6} {survived:5} {timeout:4} {nobuild:7} {equiv:5} {score:>6}")
        totals["caught"] += caught
        totals["survived"] += survived
        totals["scored"] += scored
        survivors += [m for m, o in rows if o == "passed"]
    if totals["scored"]:
        lines.append(f"{'all':52} {len(results):7} {totals['caught']:6} {totals['survived']:5} {'':4} {'':7} {'':5} "
                     f"{100 * totals['caught'] / totals['scored']:.0f}%".rstrip())
    lines.append(f"time: {elapsed:.0f} s, {elapsed / max(1, len(results)):.1f} s a mutant")
    lines.append("")
    lines.append("survivors:")
    lines += [f"  {m.describe()}  [{m.mid}]" for m in survivors] or ["  none"]
    equivalents = [m for m, o in results if o == "equivalent"]
    if equivalents:
        lines.append("equivalent (not scored):")
        lines += [f"  {m.describe()}  [{m.mid}]" for m, o in results if o == "equivalent"]
    text = "\n".join(lines) + "\n"
    out_path.write_text(text)
    print(text, end="")
    print(f"report written to {out_path}")


def main():
    args = parse_args()
    if args.matrix_report:
        return matrix_report(Path(args.matrix_report))
    checkout = Path(subprocess.run(["git", "rev-parse", "--show-toplevel"], cwd=Path(__file__).parent,
                                   check=True, capture_output=True, text=True).stdout.strip())
    ops = set(args.ops.split(","))
    files = select_files(checkout, [g.strip() for g in args.files.split(",") if g.strip()])
    mutants = [m for rel in files for m in mutants_of(checkout, rel) if m.op in ops]
    if args.only:
        wanted = set(args.only.split(","))
        mutants = [m for m in mutants if m.mid in wanted]
    if args.sample is not None and args.sample < len(mutants):
        # Kept in drawn order, not file order: a run stopped part way has
        # still tried a fair sample of the whole tree.
        mutants = random.Random(args.seed).sample(mutants, args.sample)
    if args.list:
        for m in mutants:
            print(f"{m.mid}  {m.describe()}")
        print(f"{len(mutants)} mutants in {len(files)} files", file=sys.stderr)
        return 0

    equivalent = read_equivalent(Path(args.equivalent) if args.equivalent
                                 else checkout / "tools" / "mutate-equivalent.txt")
    work = Path(args.work or f"/tmp/roomcrate-mutate-{os.environ.get('USER', os.getuid())}").resolve()
    if work == checkout or checkout in work.parents:
        sys.exit("mutate: the work folder must lie outside the checkout")
    copy, log = work / "tree", work / "last.log"
    copy.mkdir(parents=True, exist_ok=True)
    log.write_bytes(b"")
    os.environ.setdefault("CCACHE_BASEDIR", str(copy))

    began = time.monotonic()
    print(f"mutate: {len(mutants)} mutants in {len(files)} files; copy and build in {work}", flush=True)
    sync_copy(checkout, copy)
    configure(copy, log)
    if not build(copy, args.jobs, log):
        sys.exit(f"mutate: the unchanged copy does not build, see {log}")
    exes = programs(copy)
    timeouts = {}
    for name, exe in exes.items():
        code, seconds = run([str(exe), "--gtest_brief=1"], cwd=exe.parent, log=log)
        if code != 0:
            sys.exit(f"mutate: {name} fails on the unchanged tree, see {log}")
        timeouts[name] = seconds * args.timeout_factor + 10
    print("mutate: clean run passes: " + ", ".join(f"{n} {t:.0f} s limit" for n, t in sorted(timeouts.items())),
          flush=True)

    matrix = Path(args.matrix).resolve() if args.matrix else None
    done = read_matrix(matrix) if matrix else {}
    results = []
    started = time.monotonic()
    for n, m in enumerate(mutants, 1):
        if m.mid in equivalent:
            results.append((m, "equivalent"))
            continue
        if m.mid in done:
            results.append((m, done[m.mid]["outcome"]))
            continue
        killed = []
        path = copy / m.file
        clean = path.read_text(encoding="utf-8")
        before = {name: stamp(exe) for name, exe in exes.items()}
        try:
            path.write_text(clean[:m.start] + m.after + clean[m.end:], encoding="utf-8")
            log.write_bytes(b"")
            if not build(copy, args.jobs, log):
                outcome = "nobuild"
            else:
                relinked = {k: e for k, e in exes.items() if stamp(e) != before[k]}
                if matrix and relinked:
                    outcome, killed = run_matrix(relinked, timeouts, log, work, max(1, args.jobs))
                else:
                    outcome = run_tests(relinked, timeouts, log) if relinked else "passed"
        finally:
            path.write_text(clean, encoding="utf-8")
        results.append((m, outcome))
        if matrix:
            with open(matrix, "a") as out:
                out.write(json.dumps({"id": m.mid, "file": m.file, "line": m.line, "op": m.op,
                                      "change": f"{short(m.before)} -> {short(m.after)}",
                                      "outcome": outcome, "killed": killed}) + "\n")
        spent = time.monotonic() - started
        print(f"[{n}/{len(mutants)} {spent / n:.0f} s each] {outcome:8} {m.describe()}", flush=True)

    build(copy, args.jobs, log)  # leave the copy's build matching its sources
    report(results, time.monotonic() - began,
           Path(args.report) if args.report else work / "report.txt")
    return 0


if __name__ == "__main__":
    sys.exit(main())
