# SPDX-License-Identifier: Apache-2.0
"""Breaks the shipped half in one small way after another, and lists what the tests do not notice.

scripts/mutate runs this, and says how. Mutations come from the source by the rules below. Each one is
built and tested in a copy of the tree. A mutation that no test notices is a survivor: either a test is
missing, or the difference cannot be seen from outside, and then equivalent.txt says why.
"""

import argparse
import collections
import concurrent.futures
import difflib
import os
import pathlib
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
EQUIVALENT = ROOT / "tests/mutate/equivalent.txt"
SOURCES = ("jni/*.h", "jni/*.cpp", "aidl/*.h", "hidl/*.h", "jni/exports.map", "proto/*.proto")
# The internals test compiles the library's source once more, so it comes last.
PROGRAMS = ("library_tests", "library_end_tests")
LAST_PROGRAMS = ("library_internals_tests",)
BUILD_SECONDS = 300
TEST_SECONDS = 15
MUTATION_SECONDS = 60  # with --every-test, when tests hang

# Rules. Each yields (start, end, replacement) for a source; `code` is the text with comments,
# preprocessor lines and the contents of literals blanked out, character for character.

OPPOSITE = {
    "!=": "==", "==": "!=", " >= ": " < ", " < ": " >= ", "&&": "||", "||": "&&",
    "true": "false", "false": "true", "::max()": "::min()", "::min()": "::max()",
    "Status::NOT_SUPPORTED": "Status::SUCCESS", "Status::SUCCESS": "Status::NOT_SUPPORTED",
    "KIND_RAIL": "KIND_POWER_ENTITY", "KIND_POWER_ENTITY": "KIND_RAIL",
    "subsysName": "railName", "railName": "subsysName", ".second": ".first",
    "totalTimeInStateMs": "totalStateEntryCount", "totalStateEntryCount": "totalTimeInStateMs",
    "getRailEnergyAidl": "getResidenciesAidl", "getRailEnergyV1_0": "getResidenciesV1_0",
    "ANDROID_LOG_ERROR": "ANDROID_LOG_WARN", "ANDROID_LOG_WARN": "ANDROID_LOG_INFO",
    "ANDROID_LOG_INFO": "ANDROID_LOG_ERROR", "CLOCK_BOOTTIME": "CLOCK_MONOTONIC",
    "int64_t": "int32_t", "int32_t": "int16_t", "int": "int16_t", "float": "int32_t",
    "jsize": "int8_t", " >=": " >", " <": " <=",
}  # fmt: skip


def swap(match):
    return OPPOSITE[match[0]]


def larger(match):
    return str(2 * int(match[1]) + 1) + (match[2] or "")


# name, files, pattern in the code, replacement
PATTERNS = (
    ("turn-comparison", r"\.(h|cpp)$", r"[!=]=| >= | < ", swap),
    ("move-boundary", r"\.(h|cpp)$", r" >=(?= )| <(?= )", swap),
    ("turn-logic", r"\.(h|cpp)$", r"(?<= )(&&|\|\|)(?=\s)", swap),
    ("drop-negation", r"\.(h|cpp)$", r"!(?=[\w(])", lambda match: ""),
    ("change-constant", r"\.(h|cpp)$", r"(?<![\w.])(\d+)(\.\d+f)?\b", larger),
    ("change-constant", r"\.(h|cpp)$", r"\b(true|false)\b|::(max|min)\(\)|\bCLOCK_BOOTTIME\b", swap),
    ("change-constant", r"\.(h|cpp)$", r"(?<=\()\{\}(?=, )", lambda match: "{1}"),
    ("swap-name", r"\.(h|cpp)$", r"\bStatus::(NOT_SUPPORTED|SUCCESS)\b|\bKIND_[A-Z_]+\b", swap),
    ("swap-name", r"\.(h|cpp)$", r"(?<=\.)(subsysName|railName|total(TimeInStateMs|StateEntryCount))\b|"
     r"\.second\b|(?<== )getRailEnergy(Aidl|V1_0)\b", swap),
    ("swap-priority", r"\.(h|cpp)$", r"\bANDROID_LOG_(ERROR|WARN|INFO)\b", swap),
    ("change-width", r"\.(h|cpp)$", r"(?<=static_cast<)\w+(?=>)|\bint64_t(?= \w+[,)])", swap),
    ("replace-entries", r"\.(h|cpp)$", r"\bemplace(?=\()", lambda match: "insert_or_assign"),
    ("keep-after-nul", r"\.(h|cpp)$", r"(?<=\bname)\.c_str\(\)", lambda match: ""),
    ("alter-message", r"\.(h|cpp)$", r'(?<!extern )"(?=x*")', lambda match: '"~'),
    ("swap-definitions", r"\.cpp$", r"(?m)^(?=([:\w][^;{}]*\bg[A-Z]\w+\b[^;{}]*;\n)([:\w][^;{}]*;\n))",
     None),
    ("drop-export", r"\.map$", r"(?<= )[\w:*]+;", lambda match: ""),
    ("narrow-export", r"\.map$", r"(?<=\w)\*(?=;)", lambda match: ""),
    ("change-number", r"\.proto$", r"(?<!_\d = )(?<!_1[0-2] = )(?<= = )(\d+)()(?=;)", larger),
)  # fmt: skip


def closing(code, start):
    """The end of the brackets that open at `start`."""
    depth = 0
    for position in range(start, len(code)):
        depth += (code[position] in "([{") - (code[position] in ")]}")
        if depth == 0:
            return position + 1
    return len(code)


def forced_conditions(code):
    for match in re.finditer(r"\bif (?=\()", code):
        end = closing(code, match.end())
        yield match.end(), end, "(true)"
        if code[end:].lstrip()[0] == "{":  # else the statement as a whole is dropped
            yield match.end(), end, "(false)"


def dropped_statements(code):
    """Whole statements that are not blocks. Left out: declarations, what a function ends with, and log
    lines, which the other rules change."""
    left_out = r"using\b|static_assert\b|const\b|std::(string|vector|unordered_map)\b|proto::\w+\*? \w|__android_log"
    for match in re.finditer(rf"(?<=[;{{}}])\s*\n( {{4,}})(?!{left_out})(?=[\w:])", code):
        if len(match[1]) == 4 and code.startswith("return", match.end()):
            continue
        position = match.end()
        while code[position] not in ";{}":
            position = closing(code, position) if code[position] in "([" else position + 1
        if code[position] == ";":
            yield match.end(), position + 1, ";"


Mutation = collections.namedtuple("Mutation", "id file rule line text diff")


def blank(match):
    text = match[0]
    return text[0] + "x" * (len(text) - 2) + text[0] if text[0] in "\"'" else re.sub(r"\S", " ", text)


def mutations_of(file):
    text = (ROOT / file).read_text()
    code = re.sub(r"(?ms)//[^\n]*|/\*.*?\*/|^#[^\n]*|\"(\\.|[^\"\\\n])*\"|'(\\.|[^'\\\n])+'", blank, text)
    found = []
    for rule, files, pattern, replace in PATTERNS:
        for match in re.finditer(pattern, code) if re.search(files, file) else ():
            if replace:
                found.append((match.start(), match.end(), replace(match), rule))
            else:  # two definitions
                first, second = (text[match.start(group) : match.end(group)] for group in (1, 2))
                found.append((match.start(), match.end(2), second + first, rule))
    if re.search(r"\.(h|cpp)$", file):
        forced = list(forced_conditions(code))
        # To turn a condition that is one comparison is noticed by what notices both that it is forced
        # and that its statement is dropped.
        single = [(start, end) for start, end, _ in forced if not re.search(r"&&|\|\|", code[start:end])]
        found = [change for change in found
                 if change[3] not in ("turn-comparison", "drop-negation")
                 or not any(start <= change[0] < end for start, end in single)]  # fmt: skip
        found += [(*change, "force-condition") for change in forced]
        found += [(*change, "drop-statement") for change in dropped_statements(code)]
        for match in re.finditer(r"(?m)^#pragma GCC visibility push.*$", text):
            found.append((match.start(), match.end(), "", "drop-statement"))
    before = text.splitlines()
    seen = collections.Counter()
    for start, end, replacement, rule in sorted(found):
        number = text.count("\n", 0, start)
        seen[number, rule] += 1
        if seen[number, rule] > 1:
            rule += f"#{seen[number, rule]}"
        changed = text[:start] + replacement + text[end:]
        diff = list(difflib.unified_diff(before, changed.splitlines(), n=0, lineterm=""))[3:]
        diff = "\n".join("    " + line for line in diff if not line.startswith("@@"))
        yield Mutation(f"{file}:{number + 1} {rule}", file, rule, before[number].strip(), changed, diff)


def all_mutations():
    files = sorted({str(path.relative_to(ROOT)) for glob in SOURCES for path in ROOT.glob(glob)})
    return [mutation for file in files for mutation in mutations_of(file)]


def explained():
    """(file, rule, line) of the survivors that are listed as such; each with its reason."""
    lines = [line for line in EQUIVALENT.read_text().splitlines() if line and line[0] != "#"]
    return {tuple(parts[:3]): parts[3] for parts in (line.split(" | ", 3) for line in lines)}


running = set()
stopping = threading.Event()


def run(command, seconds, folder):
    """What a command wrote, and whether it succeeded within the time. It ends with all it started."""
    if stopping.is_set():
        raise RuntimeError("stopping")
    environment = dict(os.environ, TMPDIR=str(folder))
    process = subprocess.Popen(
        command, cwd=folder, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True)  # fmt: skip
    running.add(process)
    try:
        output, _ = process.communicate(timeout=seconds)
        return output, process.returncode == 0
    except subprocess.TimeoutExpired:
        return "out of time", False
    finally:
        end(process)
        running.discard(process)


def end(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


class Tree:
    """A copy of the sources, built without optimisation, and the tests that it has."""

    def __init__(self, folder, threads):
        self.folder, self.build = folder, folder / "build"
        self.threads, self.tests = str(threads), {}
        listed = subprocess.run(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            cwd=ROOT, check=True, capture_output=True, text=True)  # fmt: skip
        for name in filter(None, listed.stdout.split("\0")):
            if (ROOT / name).is_file():
                (folder / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(ROOT / name, folder / name)
        output, configured = run(
            ["cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
             "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DPOWERSTATS_DBUS=OFF"], BUILD_SECONDS, folder)  # fmt: skip
        if not configured or not self.make(*PROGRAMS, *LAST_PROGRAMS):
            raise RuntimeError("the unchanged sources do not build; scripts/test shows why\n" + output)
        for programs in (PROGRAMS, LAST_PROGRAMS):
            self.tests[programs] = [test for name in programs for test in self.list_tests(name)]

    def make(self, *targets):
        command = ["ninja", "-C", str(self.build), "-j", self.threads, *targets]
        return run(command, BUILD_SECONDS, self.folder)[1]

    def list_tests(self, program):
        output, _ = run([self.build / "bin" / program, "--gtest_list_tests"], TEST_SECONDS, self.folder)
        suite = ""
        for line in output.splitlines():
            name = line.split("#")[0].strip()
            if line.startswith("  "):
                yield program, suite + name
            elif name.endswith("."):
                suite = name

    def measure(self):
        """Sorts the tests, fastest first. All of them have to pass."""
        for tests in self.tests.values():
            seconds = {}
            for test in tests:
                begin = time.monotonic()
                if self.notices(test):
                    raise RuntimeError(f"{test[1]} fails with the unchanged sources")
                seconds[test] = time.monotonic() - begin
            tests.sort(key=seconds.get)

    def notices(self, test):
        """Each test has a process of its own: the library keeps state."""
        program, name = test
        return not run([self.build / "bin" / program, f"--gtest_filter={name}"], TEST_SECONDS, self.folder)[1]

    def try_out(self, mutation, every_test):
        """The tests that notice a mutation, the first alone unless every one is asked for; None when
        it does not build."""
        original = (self.folder / mutation.file).read_text()
        (self.folder / mutation.file).write_text(mutation.text)
        noticed, deadline = [], time.monotonic() + MUTATION_SECONDS
        try:
            for programs, tests in self.tests.items():
                if not self.make(*programs):
                    return [programs[0] + " (does not build)"] if programs != PROGRAMS else None
                for test in tests:
                    if self.notices(test):
                        noticed.append(test[1])
                        if not every_test or time.monotonic() > deadline:
                            return noticed
            return noticed
        finally:
            (self.folder / mutation.file).write_text(original)


def try_all(mutations, arguments, folder):
    """Prints and returns what became of each mutation."""
    trees = queue.Queue()
    results = {}

    def prepare(number):
        (folder / str(number)).mkdir()
        trees.put(Tree(folder / str(number), max(1, (os.cpu_count() or 1) // arguments.jobs)))

    def try_one(mutation):
        tree, begin = trees.get(), time.monotonic()
        try:
            return mutation, tree.try_out(mutation, arguments.every_test), time.monotonic() - begin
        finally:
            trees.put(tree)

    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        try:
            list(pool.map(prepare, range(arguments.jobs)))
            first = trees.get()
            first.measure()
            trees.put(first)
            for tree in trees.queue:
                tree.tests = first.tests
            work = [pool.submit(try_one, mutation) for mutation in mutations]
            for done in concurrent.futures.as_completed(work):
                mutation, noticed, seconds = done.result()
                results[mutation] = noticed
                outcome = ("does not build" if noticed is None
                           else "noticed by " + " ".join(noticed) if noticed
                           else "SURVIVED")  # fmt: skip
                print(f"[{len(results)}/{len(mutations)}] {mutation.id}: {outcome} ({seconds:.0f} s)", flush=True)
        except BaseException:
            stopping.set()
            pool.shutdown(wait=False, cancel_futures=True)
            for process in list(running):
                end(process)
            raise
    return results


def report(results, complete):
    """Prints the table and the survivors; returns the exit status."""
    reasons = explained()
    built = [mutation for mutation, noticed in results.items() if noticed is not None]
    survivors = [mutation for mutation in built if not results[mutation]]
    unexplained = [mutation for mutation in survivors if (mutation.file, mutation.rule, mutation.line) not in reasons]
    for mutation in survivors:
        reason = reasons.get((mutation.file, mutation.rule, mutation.line), "UNEXPLAINED")
        print(f"\n{mutation.id}: {reason}\n{mutation.diff}")
    noticed = len(built) - len(survivors)
    print(f"\nmutations {len(results)}, built {len(built)}, noticed {noticed}, survivors {len(survivors)}, "
          f"of them unexplained {len(unexplained)}")  # fmt: skip
    if built:
        print(f"noticed {100 * noticed / len(built):.1f} % of those that build, "
              f"{100 * noticed / max(1, noticed + len(unexplained)):.1f} % of those that can be")  # fmt: skip
    stale = set(reasons) - {(mutation.file, mutation.rule, mutation.line) for mutation in survivors}
    for file, rule, line in sorted(stale) if complete else ():
        print(f"equivalent.txt: no survivor is {file} | {rule} | {line}")
    return 1 if unexplained else 0


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--only", default="", metavar="REGEX")
    parser.add_argument("--sample", type=int, metavar="N")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1, metavar="N")
    parser.add_argument("--every-test", action="store_true")
    arguments = parser.parse_args()
    mutations = [mutation for mutation in all_mutations() if re.search(arguments.only, mutation.id)]
    if arguments.sample is not None and arguments.sample < len(mutations):
        mutations = sorted(random.sample(mutations, arguments.sample), key=mutations.index)
    if arguments.list:
        for mutation in mutations:
            print(f"{mutation.id}\n{mutation.diff}")
        return 0
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    with tempfile.TemporaryDirectory(prefix="mutate.") as folder:
        results = try_all(mutations, arguments, pathlib.Path(folder))
    return report(results, not arguments.only and arguments.sample is None)


if __name__ == "__main__":
    sys.exit(main())
