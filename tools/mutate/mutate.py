#!/usr/bin/env python3
"""Mutation testing of the library: does the plain suite notice a one-token fault?

Each mutant changes one token of one source file of the library or of the stand-in's
RPC and file store (a comparison flipped, && and || swapped, binary + and - swapped,
a "!" dropped, an integer or character constant moved by one, true and false swapped). It
is built incrementally and the plain suite runs against it: every test of tests/api
and tests/internal, as ctest runs them, each test with a time limit. A mutant is
killed (a test failed, and failed again when run once more), survived (every test
passed), timed out (a test ran past its limit and none failed otherwise), same code
(its source file compiled to the very object code the unmutated file does: no test can
tell it, and it counts nowhere) or did not build. Headers, the debug trace (KEP_LOG and
friends, and ifs that only trace) and static_assert are left alone.

The tool never writes to the sources it is run from: it mutates a copy of them in
BUILD/src (synchronised with the working tree at every start, so a copy left mutated
by a killed run is mended then) and builds it in BUILD/build without the tools, the
gateway and the benchmarks, and without debug information.

    tools/mutate/mutate.py --seed 7 --sample 12 --min-score 90   # what CI runs
    tools/mutate/mutate.py --file text/encode.cpp               # every mutant of a file
    tools/mutate/mutate.py --only xml/xml_parse.cpp:512:22      # chosen mutants
    tools/mutate/mutate.py --seed 7 --sample 12 --list          # the mutants, not run
    tools/mutate/mutate.py --kills BUILD/last-run.json          # which tests kill what
    tools/mutate/mutate.py --recheck BUILD/full-run.json        # its survivors, after new tests

A seed and a sample size choose the same mutants on every machine for the same
sources. The results go to BUILD/last-run.json (--out). While the file named by
--wait-for exists (default /tmp/kep-quiet: someone is measuring), no build or test
run starts; the tool polls every 10 s.
"""

import argparse
import json
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]

# The sources whose tokens are mutated. Headers are left out: their code is a few
# inline helpers and constants, and a change there rebuilds most of the library.
SCOPE = ["request/*.cpp", "tree/*.cpp", "model/*.cpp", "xml/*.cpp", "ops/*.cpp", "config/*.cpp",
         "text/*.cpp", "platform/standin/rpc_*.cpp", "platform/standin/file_store.cpp",
         "platform/standin/json*.cpp"]
# The plain suite: the library's unit tests, fast and self-contained.
SUITE = ["tests/api", "tests/internal"]
EQUIVALENT = ROOT / "tools" / "mutate" / "equivalent.txt"

# ---------------------------------------------------------------------------------
# Finding mutants

TOKEN = re.compile(r"""
    (?P<space>\s+)
  | (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<string>(?:u8|[uUL])?R"(?P<delim>[^(\s]*)\(.*?\)(?P=delim)"|(?:u8|[uUL])?"(?:\\.|[^"\\\n])*")
  | (?P<char>(?:u8|[uUL])?'(?:\\.|[^'\\\n])+')
  | (?P<number>\.?\d(?:[\w.']|[eEpP][+-])*)
  | (?P<ident>[A-Za-z_]\w*)
  | (?P<op>->\*?|\+\+|--|<<=|>>=|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|::|\.\.\.|\S)
""", re.S | re.X)

# Token replacements: one mutant per token, so that file:line:column names a mutant.
SWAP = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==",
        "&&": "||", "||": "&&", "+": "-", "-": "+", "++": "--", "--": "++",
        "+=": "-=", "-=": "+=", "!": "", "true": "false", "false": "true"}
# Keywords after which + or - is a sign, not an operator.
SIGN_AFTER = {"return", "case", "throw", "co_return", "co_yield", "else", "do"}
TEMPLATE_OPENERS = {"template", "static_cast", "reinterpret_cast", "const_cast", "dynamic_cast"}


def tokens(text):
    """(kind, text, offset) of every token outside comments and preprocessor lines."""
    out, pos, line_start = [], 0, True
    while pos < len(text):
        if line_start and text[pos] == "#":  # a directive, with its continuation lines
            while True:
                end = text.find("\n", pos)
                if end < 0:
                    return out
                if text[end - 1] != "\\":
                    break
                pos = end + 1
            pos = end
            continue
        m = TOKEN.match(text, pos)
        kind = m.lastgroup if m.lastgroup != "delim" else "string"
        if kind == "space":
            if "\n" in m.group():
                line_start = True
        elif kind != "comment":
            line_start = False
            out.append((kind, m.group(), pos))
        pos = m.end()
    return out


def bump_number(text):
    """An integer literal moved by one (0 and 1 swapped), or None for other numbers."""
    m = re.fullmatch(r"(0[xX][0-9a-fA-F]+|[1-9]\d*|0[0-7]*)([uUlL]*)", text.replace("'", ""))
    if not m:
        return None
    digits, suffix = m.groups()
    if digits.lower().startswith("0x"):
        value = int(digits, 16)
    elif digits.startswith("0") and len(digits) > 1:
        value = int(digits, 8)
    else:
        value = int(digits)
    new = {0: 1, 1: 0}.get(value, value + 1)
    if digits.lower().startswith("0x"):
        body = format(new, "X" if digits[2:].isupper() else "x").rjust(len(digits) - 2, "0")
        return digits[:2] + body + suffix
    return str(new) + suffix


def bump_char(text):
    """A plain character constant moved to the next character, or None."""
    m = re.fullmatch(r"'(.)'", text)
    if not m or not (32 <= ord(m.group(1)) < 126) or m.group(1) in "'\\":
        return None
    nxt = chr(ord(m.group(1)) + 1)
    return "'\\''" if nxt == "'" else "'\\\\'" if nxt == "\\" else f"'{nxt}'"


def template_brackets(toks):
    """Offsets of the < and > that enclose template arguments, not comparisons."""
    skip = set()
    for i, (kind, text, _) in enumerate(toks):
        if text == "<" and i and toks[i - 1][1] in TEMPLATE_OPENERS:
            depth = 0
            for kind2, text2, off2 in toks[i:]:
                if text2 == "<":
                    depth += 1
                elif text2 in (">", ">>"):
                    depth -= len(text2)
                skip.add(off2) if text2 in ("<", ">") else None
                if depth <= 0:
                    break
    return skip


# Calls whose arguments are not mutated: static_assert (the compiler checks it) and the
# library's debug trace, whose texts and arguments only a developer reads (its format
# and its switch are tested in log_lines_test). Nor is the condition of an if whose
# only statement is such a trace: it decides no more than whether a line is written.
UNMUTATED_CALLS = {"static_assert", "KEP_LOG", "KEP_LOGJ", "KEP_LOG_AS", "KEP_LOG_MID"}
TRACE_CALLS = UNMUTATED_CALLS - {"static_assert"}


def closing(toks, i):
    """Index of the bracket that closes the one at toks[i]."""
    opening, depth = toks[i][1], 0
    pair = {"(": ")", "{": "}", "[": "]"}[opening]
    for j in range(i, len(toks)):
        depth += 1 if toks[j][1] == opening else -1 if toks[j][1] == pair else 0
        if depth == 0:
            return j
    return len(toks) - 1


def trace_statement(toks, i):
    """The index just past the statement at toks[i] when it is a trace call or a block of
    them, else None."""
    if toks[i][1] in TRACE_CALLS and toks[i + 1][1] == "(":
        return closing(toks, i + 1) + 2  # past ")" and ";"
    if toks[i][1] != "{":
        return None
    end, j = closing(toks, i), i + 1
    while j < end:
        if toks[j][1] not in TRACE_CALLS or toks[j + 1][1] != "(":
            return None
        j = closing(toks, j + 1) + 2
    return end + 1 if j == end and end > i + 1 else None


def only_traces(toks, i):
    """Whether an if's statement at toks[i], and its else when it has one, only trace."""
    after = trace_statement(toks, i)
    if after is None:
        return False
    return after >= len(toks) or toks[after][1] != "else" or trace_statement(toks, after + 1) is not None


def unmutated_calls(toks):
    """Offsets of the tokens inside the argument lists of UNMUTATED_CALLS, and of the
    conditions of ifs that only trace."""
    skip = set()
    for i, (kind, text, _) in enumerate(toks):
        if text in UNMUTATED_CALLS and i + 1 < len(toks) and toks[i + 1][1] == "(":
            skip.update(t[2] for t in toks[i + 1:closing(toks, i + 1) + 1])
        elif text == "if" and i + 1 < len(toks) and toks[i + 1][1] == "(":
            end = closing(toks, i + 1)
            if end + 1 < len(toks) and only_traces(toks, end + 1):
                skip.update(t[2] for t in toks[i + 1:end + 1])
    return skip


def is_binary(toks, i):
    """Whether the + or - at toks[i] stands between two operands (not a sign)."""
    if i == 0:
        return False
    kind, text, _ = toks[i - 1]
    if kind in ("number", "char", "string"):
        return True
    if kind == "ident":
        return text not in SIGN_AFTER
    return text in (")", "]")


def file_mutants(rel):
    text = (ROOT / rel).read_text()
    toks = tokens(text)
    skip = template_brackets(toks) | unmutated_calls(toks)
    line_starts = [0] + [m.end() for m in re.finditer("\n", text)]
    found = []
    for i, (kind, tok, off) in enumerate(toks):
        if off in skip:
            continue
        new = None
        if tok in ("+", "-") and not is_binary(toks, i):
            # A sign: flipping -1 to +1 mostly turns one error result into another that
            # callers treat alike; the constant rule moves the number itself instead.
            continue
        if kind in ("op", "ident"):
            new = SWAP.get(tok)
        elif kind == "number":
            new = bump_number(tok)
        elif kind == "char":
            new = bump_char(tok)
        if new is None:
            continue
        line = _line_of(line_starts, off)
        col = off - line_starts[line - 1] + 1
        found.append({"file": rel, "line": line, "col": col, "offset": off, "old": tok, "new": new,
                      "id": f"{rel}:{line}:{col}"})
    return found


def _line_of(line_starts, off):
    lo, hi = 0, len(line_starts)
    while hi - lo > 1:
        mid = (lo + hi) // 2
        if line_starts[mid] <= off:
            lo = mid
        else:
            hi = mid
    return lo + 1


def scope_files():
    files = set()
    for pattern in SCOPE:
        files.update(str(p.relative_to(ROOT)) for p in ROOT.glob(pattern))
    return sorted(files)


def all_mutants(files=None):
    found = []
    for rel in files or scope_files():
        found.extend(file_mutants(rel))
    return found


def choose(mutants, seed, sample):
    """The first sample mutants of an order fixed by the seed, then in source order
    (mutants of one file one after another rebuild the fewest objects)."""
    order = list(range(len(mutants)))
    random.Random(seed).shuffle(order)
    picked = sorted(order[:sample]) if sample else range(len(mutants))
    return [mutants[i] for i in picked]


def load_equivalent():
    """Survivors judged equivalent, "FILE:LINE:COL OLD -> NEW  reason" a line; an entry
    whose token is no longer there (the source changed) is reported and left out."""
    known = {}
    if not EQUIVALENT.exists():
        return known
    found = {}
    for raw in EQUIVALENT.read_text().splitlines():
        if not raw.strip() or raw.startswith("#"):
            continue
        key, change, reason = re.fullmatch(r"(\S+)\s+(.+?\s->\s\S*)\s{2,}(.+)", raw.strip()).groups()
        rel = key.rsplit(":", 2)[0]
        if rel not in found:
            found[rel] = {m["id"]: change_text(m) for m in file_mutants(rel)} if (ROOT / rel).exists() else {}
        if found[rel].get(key) != change:
            print(f"mutate: {EQUIVALENT.name}: {key} {change} no longer matches the source", file=sys.stderr)
            continue
        known[key] = (change, reason)
    return known


def change_text(m):
    return f"{m['old']} -> {m['new']}" if m["new"] else f"{m['old']} -> (removed)"

# ---------------------------------------------------------------------------------
# Building and running


class Runner:
    def __init__(self, args):
        self.args = args
        self.work = Path(args.build_dir).resolve()
        self.src = self.work / "src"
        self.build = self.work / "build"
        self.targets = []
        self.limit = args.limit
        self.suite_seconds = 0
        self.objects = None  # source -> {object file: its unmutated bytes}

    def wait_quiet(self):
        path = self.args.wait_for
        if not path or not os.path.exists(path):
            return
        print(f"waiting: {path} exists (someone is measuring)", flush=True)
        while os.path.exists(path):
            time.sleep(10)

    def sync(self):
        """Makes BUILD/src a copy of the working tree's files; only changed files are
        written, so the incremental build stays incremental."""
        listed = subprocess.run(["git", "-C", str(ROOT), "ls-files", "-z", "--cached", "--others",
                                 "--exclude-standard"], check=True, capture_output=True).stdout
        wanted = {p for p in listed.decode().split("\0") if p and (ROOT / p).is_file()}
        mended = 0
        for rel in wanted:
            src, dst = ROOT / rel, self.src / rel
            data = src.read_bytes()
            if not dst.exists() or dst.read_bytes() != data:
                dst.parent.mkdir(parents=True, exist_ok=True)
                dst.write_bytes(data)
                shutil.copymode(src, dst)
                mended += 1
        for dst in self.src.rglob("*") if self.src.exists() else []:
            if dst.is_file() and str(dst.relative_to(self.src)) not in wanted:
                dst.unlink()
        print(f"sources copied to {self.src} ({mended} files updated)", flush=True)

    def configure(self):
        self.wait_quiet()
        gen = ["-G", "Ninja"] if shutil.which("ninja") and not (self.build / "Makefile").exists() else []
        flags = "-O2 -DNDEBUG"  # the plain build's optimisation, without debug information
        subprocess.run(["cmake", "-S", str(self.src), "-B", str(self.build), *gen,
                        "-DCMAKE_BUILD_TYPE=RelWithDebInfo", f"-DCMAKE_C_FLAGS_RELWITHDEBINFO={flags}",
                        f"-DCMAKE_CXX_FLAGS_RELWITHDEBINFO={flags}", "-DKEP_BUILD_TOOLS=OFF",
                        "-DKEP_BUILD_GATEWAY=OFF", "-DKEP_BUILD_BENCH=OFF"],
                       check=True, stdout=subprocess.DEVNULL)

    def compile(self, targets=None, quiet=True):
        self.wait_quiet()
        cmd = ["cmake", "--build", str(self.build), "-j", str(self.args.jobs)]
        for t in targets or []:
            cmd += ["--target", t]
        out = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if out.returncode and not quiet:
            print(out.stdout[-4000:])
        return out.returncode == 0

    def suite_targets(self):
        """The executables the suite runs, by their target names."""
        names = set()
        for d in SUITE:
            listed = subprocess.run(["ctest", "--test-dir", str(self.build / d), "--show-only=json-v1"],
                                    check=True, capture_output=True, text=True).stdout
            # The command may start with a launcher (env and the checking allocator's variables).
            names.update(Path(next(a for a in t["command"] if a.startswith(str(self.build)))).name
                         for t in json.loads(listed)["tests"])
        return sorted(names)

    def run_suite(self, stop_early=True, only=None):
        """(outcome, failed tests, what the failing ctest runs printed): outcome is
        killed, timed out or survived. only: run just the tests of these names."""
        self.wait_quiet()
        failed = []
        printed = ""
        deadline = time.monotonic() + self.limit if self.limit else None
        for d in SUITE:
            cmd = ["ctest", "--test-dir", str(self.build / d), "-j", str(self.args.jobs),
                   "--timeout", str(self.args.test_timeout), "--output-on-failure"]
            if stop_early:
                cmd.append("--stop-on-failure")
            if only:
                cmd += ["-R", "^(" + "|".join(only) + ")$"]
            # A test may print any byte (the XML tests feed the parser 0xFF).
            proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                    errors="replace", start_new_session=True)
            try:
                left = None if deadline is None else max(1.0, deadline - time.monotonic())
                out, _ = proc.communicate(timeout=left)
            except subprocess.TimeoutExpired:
                os.killpg(proc.pid, signal.SIGKILL)
                proc.communicate()
                return "timed out", failed + [f"{d} (the mutant's {self.limit} s)"], printed
            except BaseException:
                if proc.poll() is None:
                    os.killpg(proc.pid, signal.SIGKILL)
                proc.wait()
                raise
            # "  12 - Suite.Name (Failed)" under "The following tests FAILED:"
            failed += [f"{n} ({why})" for n, why in re.findall(r"^\s+\d+ - (\S+) \((.+)\)$", out, re.M)]
            if proc.returncode:
                printed += f"==== {time.strftime('%H:%M:%S')} {' '.join(cmd)}\n{out}\n"
            if proc.returncode and not failed:
                failed.append(f"{d} (ctest: {out.strip().splitlines()[-1] if out.strip() else 'no output'})")
            if failed and stop_early:
                break
        if not failed:
            return "survived", [], printed
        if all(f.endswith("(Timeout)") for f in failed):
            return "timed out", failed, printed
        return "killed", failed, printed

    def judge(self, stop_early=True):
        """(outcome, failed tests, flaky tests). A test failure counts only when the test
        fails again at once: a test that a busy machine upset (one that measures time)
        kills nothing. After such a failure the suite runs once more. What a failure that
        did not come back printed is kept in failures.log, to see what upset the test."""
        flaky = []
        for _ in range(2):
            outcome, failed, printed = self.run_suite(stop_early)
            if outcome == "survived" or any("the mutant's" in f for f in failed):
                return outcome, failed, flaky
            names = [f.rsplit(" (", 1)[0] for f in failed]
            again = self.run_suite(False, only=names) if all("." in n for n in names) else self.run_suite(False)
            if again[0] != "survived":
                return again[0], again[1], flaky
            flaky += failed
            with open(self.work / "failures.log", "a") as log:
                log.write(printed)
        return "survived", [], flaky

    def prepare(self):
        self.sync()
        self.configure()
        print("building the unmutated sources", flush=True)
        if not self.compile(quiet=False):
            sys.exit("mutate: the unmutated sources do not build")
        self.targets = self.suite_targets()
        self.objects = self.object_files()
        start = time.monotonic()
        outcome, failed, _ = self.run_suite(stop_early=False)
        took = time.monotonic() - start
        if outcome != "survived":
            sys.exit("mutate: the suite fails without a mutant: " + ", ".join(failed))
        self.suite_seconds = round(took)
        if not self.limit:
            self.limit = max(120, int(5 * took))
        print(f"suite passes unmutated in {took:.0f} s; {len(self.targets)} test programs; "
              f"each mutant's suite run is cut after {self.limit} s", flush=True)

    def object_files(self):
        """The object files each source of the scope compiles to, with their bytes, when
        compiling a source again gives the same bytes; otherwise None, and no mutant is
        judged by its object code."""
        if not (self.build / "build.ninja").exists():
            return None
        objects = {}
        built = list(self.build.rglob("*.o"))
        for rel in scope_files():
            mine = [p for p in built if str(p).endswith("/" + rel + ".o")]
            objects[rel] = {str(p.relative_to(self.build)): p.read_bytes() for p in mine}
        probe = next((rel for rel in objects if objects[rel]), None)
        if probe is None:
            return None
        (self.src / probe).touch()
        if not self.compile(list(objects[probe])) or not self.same_objects(objects[probe]):
            print("mutate: compiling a source again gives other object code; mutants are not compared by it",
                  flush=True)
            return None
        return objects

    def same_objects(self, objects):
        return all((self.build / o).read_bytes() == data for o, data in objects.items())

    def run_mutant(self, m):
        path = self.src / m["file"]
        original = path.read_bytes()
        text = original.decode()
        if text[m["offset"]:m["offset"] + len(m["old"])] != m["old"]:
            raise RuntimeError(f"{m['id']}: the copy does not hold {m['old']!r} there")
        start = time.monotonic()
        try:
            path.write_text(text[:m["offset"]] + m["new"] + text[m["offset"] + len(m["old"]):])
            mine = (self.objects or {}).get(m["file"])
            if mine:
                # A mutant the compiler turns into the very same object code cannot be
                # told apart by any test: it is not run.
                if not self.compile(list(mine)):
                    return {"outcome": "did not build", "failed": [], "seconds": round(time.monotonic() - start)}
                if self.same_objects(mine):
                    return {"outcome": "same code", "failed": [], "seconds": round(time.monotonic() - start)}
            if not self.compile(self.targets):
                return {"outcome": "did not build", "failed": [], "seconds": round(time.monotonic() - start)}
            outcome, failed, flaky = self.judge(stop_early=not self.args.all_tests)
            return {"outcome": outcome, "failed": failed, "flaky": flaky,
                    "seconds": round(time.monotonic() - start)}
        finally:
            path.write_bytes(original)

    def restore_build(self):
        """Rebuilds the copy's restored sources so that the folder holds no mutant's objects."""
        self.compile(self.targets)

# ---------------------------------------------------------------------------------
# Reporting

OUTCOMES = ["killed", "survived", "timed out", "same code", "did not build"]


def is_equivalent(equivalent, mutant_id):
    """Listed, and not as a mutant that changes what can be observed ("not killed:")."""
    entry = equivalent.get(mutant_id)
    return entry is not None and not entry[1].startswith("not killed:")


def listed_reason(equivalent, mutant_id):
    """Why a survivor is listed as not to be killed, or None."""
    entry = equivalent.get(mutant_id)
    return entry[1] if entry else None


def summarise(results, equivalent):
    """The counts of a run. The score is of the mutants that built and can be told
    apart from the source: survivors judged equivalent are left out of it (the raw
    score keeps them)."""
    count = {o: sum(r["outcome"] == o for r in results) for o in OUTCOMES}
    built = len(results) - count["did not build"]
    same = sum(r["outcome"] == "survived" and is_equivalent(equivalent, r["id"]) for r in results)
    # A hang the suite's time limit stops is a fault noticed, as a failed test is.
    caught = count["killed"] + count["timed out"]
    # A mutant compiled to the source's own object code is no fault: it counts nowhere.
    told = built - count["same code"]
    score = 100.0 * caught / (told - same) if told > same else 0.0
    raw = 100.0 * caught / told if told else 0.0
    return {"generated": len(results), "built": built, **count, "equivalent": same,
            "score": round(score, 1), "raw score": round(raw, 1)}


def print_report(run, equivalent):
    s = run["summary"]
    print(f"\nseed {run['seed']}, {s['generated']} mutants: {s['built']} built, {s['killed']} killed, "
          f"{s['survived']} survived ({s['equivalent']} of them equivalent), {s['timed out']} timed out, "
          f"{s.get('same code', 0)} compiled to the source's own code, "
          f"{s['did not build']} did not build; score {s['score']} % of those built and not equivalent "
          f"(raw {s['raw score']} %)")
    survivors = [r for r in run["mutants"] if r["outcome"] == "survived"]
    for r in survivors:
        reason = listed_reason(equivalent, r["id"])
        if reason is None:
            tag = "not known to be equivalent"
        else:
            tag = f"equivalent: {reason}" if is_equivalent(equivalent, r["id"]) else reason
        print(f"  survived  {r['id']}  {change_text(r)}  [{tag}]\n            {r['source'].strip()}")


def markdown_report(path, equivalent, samples=()):
    """The figures and survivors of a run as the robustness report shows them; samples:
    the results of runs of other seeds, each shown as it scored when it ran."""
    run = json.loads(Path(path).read_text())
    first = run.get("first", {})

    def row(what, s, when):
        return (f"| {what} | {s['generated']} | {s['built']} | {s['killed']} | {s['timed out']} | "
                f"{s['survived']} | {s['equivalent']} | {s.get('same code', 0)} | {s['did not build']} | "
                f"**{s['score']} %** | "
                f"{s['raw score']} % | {when} |")

    lines = [
        "| | mutants | built | killed | timed out | survived | of them equivalent | same code | did not build "
        "| score | raw score | run on |",
        "|---|---|---|---|---|---|---|---|---|---|---|---|",
    ]
    when = f"{run['date']} (`{run['commit']}`"
    for part in run.get("resumed", []):
        when += f"; from mutant {part['after'] + 1} on `{part['commit']}`"
    when += f"), {run['minutes']} min"
    if first:
        if "summary" in first:
            # What the run scored with the equivalents known before it: what a new seed
            # scores.
            lines.append(row(f"seed {run['seed']}, as the run scored it", first["summary"], when))
        lines.append(row(f"seed {run['seed']}, the run, with today's list", summarise(first["mutants"], equivalent),
                         when))
        lines.append(row("its survivors run again", summarise(run["mutants"], equivalent),
                         f"{first['recheck_date']} (`{first['recheck_commit']}`)"))
    else:
        lines.append(row(f"seed {run['seed']}", summarise(run["mutants"], equivalent), when))
    for sample in samples:
        other = json.loads(Path(sample).read_text())
        scored = other.get("first", other)["summary"]
        lines.append(row(f"seed {other['seed']}, {other['sample']} mutants, as it scored", scored,
                         f"{other['date']} (`{other['commit']}`), {other['minutes']} min"))
    lines += [
        "",
        "Score: killed or timed out, of the mutants that built, leaving out those that compiled to "
        "the source's own object code (\"same code\") and the survivors judged equivalent below; the "
        "raw score keeps the latter in.",
        "",
    ]
    later = [r for r in run["mutants"] if r.get("first_outcome") == "survived" and r["outcome"] != "survived"]
    if later:
        lines += ["Survivors of the run killed by the tests written for them:", "",
                  "| mutant | change | line | killed by |", "|---|---|---|---|"]
        for r in later:
            code = r["source"].strip().replace("|", "\\|")
            by = ", ".join(f.rsplit(" (", 1)[0] for f in r["failed"][:2]) or r["outcome"]
            change = change_text(r).replace("|", "\\|")
            lines.append(f"| `{r['id']}` | `{change}` | `{code}` | {by} |")
        lines.append("")
    survivors = [r for r in run["mutants"] if r["outcome"] == "survived"]
    if survivors:
        lines += ["| survivor | change | line | why the suite cannot tell it from the source |", "|---|---|---|---|"]
        for r in survivors:
            reason = listed_reason(equivalent, r["id"]) or "**not known to be equivalent**"
            code = r["source"].strip().replace("|", "\\|")
            change = change_text(r).replace("|", "\\|")
            lines.append(f"| `{r['id']}` | `{change}` | `{code}` | {reason} |")
    print("\n".join(lines))


def record_recheck(path, run, results, commit, equivalent):
    """Puts what became of a run's survivors into its results, keeping the run's own
    outcomes under "first"."""
    first = run.setdefault("first", {"mutants": [dict(r) for r in run["mutants"]],
                                     "summary": dict(run["summary"])})
    first.update(recheck_commit=commit, recheck_date=time.strftime("%Y-%m-%d", time.gmtime()))
    again = {r["id"]: r for r in results}
    for i, r in enumerate(first["mutants"]):
        if r["id"] in again:
            run["mutants"][i] = dict(again[r["id"]], first_outcome=r["outcome"])
    run["summary"] = summarise(run["mutants"], equivalent)
    path.write_text(json.dumps(run, indent=1) + "\n")
    print(f"recorded in {path}: score {run['summary']['score']} % after the survivors ran again")


def kills_report(path):
    """For each test: the mutants it kills, and those no other test kills. Needs a run
    made with --all-tests, so that every failing test is recorded."""
    run = json.loads(Path(path).read_text())
    if not run.get("all_tests"):
        sys.exit("mutate: --kills needs the results of a run made with --all-tests")
    by_test = {}
    for r in run["mutants"]:
        if r["outcome"] in ("killed", "timed out"):
            names = {f.rsplit(" (", 1)[0] for f in r["failed"]}
            for n in names:
                by_test.setdefault(n, []).append((r["id"], len(names)))
    print(f"{'test':60} kills  only-killer")
    for n in sorted(by_test, key=lambda n: (sum(k == 1 for _, k in by_test[n]), len(by_test[n]))):
        only = [i for i, k in by_test[n] if k == 1]
        print(f"{n:60} {len(by_test[n]):5}  {len(only):4}  {' '.join(only)}")


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--seed", type=int, default=1, help="chooses the sample (default 1)")
    p.add_argument("--sample", type=int, default=0, help="how many mutants (default: all that are chosen)")
    p.add_argument("--file", action="append", default=[], help="only this source file (repeatable)")
    p.add_argument("--only", action="append", default=[], help="only the mutant FILE:LINE:COL (repeatable)")
    p.add_argument("--list", action="store_true", help="list the chosen mutants and stop")
    p.add_argument("--all-tests", action="store_true", help="run every test against each mutant, "
                   "not just until one fails (for --kills)")
    p.add_argument("--kills", metavar="RESULTS", help="which tests kill which mutants, from a run's results")
    p.add_argument("--markdown", metavar="RESULTS", nargs="+", help="a run's figures and survivors as "
                   "tables, then a row for each further results file, as it scored when it ran "
                   "(tools/robustness-report.sh puts them in docs/ROBUSTNESS.md)")
    p.add_argument("--recheck", metavar="RESULTS", help="run the survivors of a run again (those not "
                   "judged equivalent), against the tests as they are now, and record what became of "
                   "them in RESULTS")
    p.add_argument("--resume", action="store_true", help="go on with the run recorded in the results "
                   "file (same seed and sample): the mutants it holds are not run again")
    p.add_argument("--min-score", type=float, help="exit 1 when fewer per cent of the built mutants are killed")
    p.add_argument("--build-dir", default=str(ROOT / "build-mutate"), help="default: build-mutate")
    p.add_argument("--out", help="results file (default: BUILD/last-run.json)")
    p.add_argument("--jobs", type=int, default=int(os.environ.get("JOBS", 2)), help="build and test jobs (default 2)")
    p.add_argument("--test-timeout", type=int, default=15, help="seconds for each test (default 15; "
                   "the slowest takes about 2)")
    p.add_argument("--limit", type=int, default=0, help="seconds for a mutant's whole suite run "
                   "(default: 5 times the unmutated run, at least 120)")
    p.add_argument("--wait-for", default="/tmp/kep-quiet", help="start no build or test while this file "
                   "exists (default /tmp/kep-quiet; '' waits for nothing)")
    args = p.parse_args()

    if args.kills:
        kills_report(args.kills)
        return 0
    if args.markdown:
        markdown_report(args.markdown[0], load_equivalent(), args.markdown[1:])
        return 0

    equivalent = load_equivalent()
    mutants = all_mutants(args.file or None)
    earlier = None
    if args.recheck:
        earlier = json.loads(Path(args.recheck).read_text())
        first = earlier.get("first", {}).get("mutants", earlier["mutants"])
        args.only = [r["id"] for r in first if r["outcome"] == "survived" and not is_equivalent(equivalent, r["id"])]
        if not args.only:
            print("mutate: every survivor is judged equivalent; nothing to run again")
            return 0
    if args.only:
        wanted = set(args.only)
        mutants = [m for m in mutants if m["id"] in wanted]
        missing = wanted - {m["id"] for m in mutants}
        if missing:
            sys.exit("mutate: no such mutant: " + ", ".join(sorted(missing)))
    else:
        mutants = choose(mutants, args.seed, args.sample)
    sources = {}
    for m in mutants:
        lines = sources.setdefault(m["file"], (ROOT / m["file"]).read_text().splitlines())
        m["source"] = lines[m["line"] - 1]
    if args.list:
        for m in mutants:
            print(f"{m['id']}  {change_text(m)}\n    {m['source'].strip()}")
        print(f"{len(mutants)} mutants")
        return 0

    runner = Runner(args)
    out = Path(args.out) if args.out else runner.work / "last-run.json"
    # A signal ends the run through the same clean-up as an error: the copy is restored.
    for sig in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(sig, lambda *_: sys.exit(130))
    runner.prepare()
    commit = subprocess.run(["git", "-C", str(ROOT), "describe", "--always", "--dirty"],
                            capture_output=True, text=True).stdout.strip()
    run = {"seed": args.seed, "sample": args.sample, "files": args.file, "only": args.only,
           "all_tests": args.all_tests, "commit": commit, "date": time.strftime("%Y-%m-%d", time.gmtime()),
           "suite_seconds": runner.suite_seconds, "limit": runner.limit, "test_timeout": args.test_timeout}
    results = []
    before = 0.0
    if args.resume and out.exists():
        done = json.loads(out.read_text())
        if (done["seed"], done["sample"], done["only"]) != (args.seed, args.sample, args.only):
            sys.exit(f"mutate: {out} holds another run (seed {done['seed']}, sample {done['sample']})")
        held = {(r["id"], r["new"]): r for r in done["mutants"]}
        results = [held[(m["id"], m["new"])] for m in mutants if (m["id"], m["new"]) in held]
        before = done.get("minutes", 0.0)
        # Each part of the run names the sources and tests it ran with.
        run.update(date=done["date"], commit=done["commit"],
                   resumed=done.get("resumed", []) + [{"after": len(results), "commit": commit}])
        print(f"resuming after {len(results)} mutants", flush=True)
    ran = {(r["id"], r["new"]) for r in results}
    started = time.monotonic()
    for i, m in enumerate(mutants, 1):
        if (m["id"], m["new"]) in ran:
            continue
        r = dict(m, **runner.run_mutant(m))
        results.append(r)
        why = f"  ({', '.join(r['failed'][:2])})" if r["failed"] else ""
        if r.get("flaky"):
            why += f"  [failed once, passed again: {', '.join(r['flaky'][:2])}]"
        print(f"[{i}/{len(mutants)}] {r['outcome']:13} {r['id']}  {change_text(r)}  {r['seconds']} s{why}",
              flush=True)
        # Written after every mutant, so that a run cut short still tells what it found.
        run.update(minutes=round(before + (time.monotonic() - started) / 60, 1), complete=i == len(mutants),
                   summary=summarise(results, equivalent), mutants=results)
        out.write_text(json.dumps(run, indent=1) + "\n")
    runner.restore_build()
    print_report(run, equivalent)
    if earlier is not None:
        record_recheck(Path(args.recheck), earlier, results, run["commit"], equivalent)
    print(f"results: {out}; {run['minutes']} min")
    if args.min_score is not None and run["summary"]["score"] < args.min_score:
        print(f"mutate: score {run['summary']['score']} % is below {args.min_score} %", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
