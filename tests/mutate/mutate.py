# SPDX-License-Identifier: Apache-2.0
"""Breaks the shipped half in one small way after another, and lists what the tests do not notice.

scripts/mutate runs this, and says how. Each mutation is built and tested in a copy of the tree. One
that no test notices is a survivor: either a test is missing, or the difference cannot be seen from
outside, and then equivalent.txt says why.
"""

import argparse
import concurrent.futures
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

from mutations import ROOT, all_mutations

EQUIVALENT = ROOT / "tests/mutate/equivalent.txt"
# The internals test compiles the library's source once more, so it is built for what is left.
FIRST = ("library_tests", "library_end_tests")
LAST = ("library_internals_tests",)
BUILD_SECONDS = 300
TEST_SECONDS = 15
EVERY_TEST_SECONDS = 60  # of one mutation, when tests hang

running = set()
stopping = threading.Event()


def run(command, seconds, folder):
    """Whether a command succeeded in time, and what it wrote. It ends with all that it started."""
    if stopping.is_set():
        raise RuntimeError("stopping")
    environment = dict(os.environ, TMPDIR=str(folder), TEST_TMPDIR=f"{folder}/")
    process = subprocess.Popen(command, cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                               errors="replace", start_new_session=True)
    running.add(process)
    try:
        output, _ = process.communicate(timeout=seconds)
        return process.returncode == 0, output
    except subprocess.TimeoutExpired:
        return False, "out of time"
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
    """A copy of the sources, built without optimisation, and its tests: (program, name) each."""

    def __init__(self, folder, threads):
        self.folder, self.threads, self.tests = folder, str(threads), {}
        listed = subprocess.run(
            ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
            cwd=ROOT, check=True, capture_output=True, text=True)
        for name in filter(None, listed.stdout.split("\0")):
            if (ROOT / name).is_file():
                (folder / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(ROOT / name, folder / name)
        configure = ["cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                     "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DPOWERSTATS_DBUS=OFF"]
        configured, output = run(configure, BUILD_SECONDS, folder)
        if not configured or not self.make(FIRST + LAST):
            raise RuntimeError("the unchanged sources do not build\n" + output)
        for programs in (FIRST, LAST):
            self.tests[programs] = [test for name in programs for test in self.list_tests(name)]

    def make(self, targets):
        command = ["ninja", "-C", "build", "-j", self.threads, *targets]
        return run(command, BUILD_SECONDS, self.folder)[0]

    def run_test(self, program, argument):
        return run([f"build/bin/{program}", argument], TEST_SECONDS, self.folder)

    def list_tests(self, program):
        for line in self.run_test(program, "--gtest_list_tests")[1].splitlines():
            name = line.split("#")[0].strip()
            if line.startswith("  "):
                yield program, suite + name
            else:
                suite = name

    def passes(self, test):
        """In a process of its own: the library keeps state."""
        return self.run_test(test[0], f"--gtest_filter={test[1]}")[0]

    def sort_tests(self):
        """Fastest first. All of them have to pass."""
        for tests in self.tests.values():
            seconds = {}
            for test in tests:
                begin = time.monotonic()
                if not self.passes(test):
                    raise RuntimeError(f"{test[1]} fails with the unchanged sources")
                seconds[test] = time.monotonic() - begin
            tests.sort(key=seconds.get)

    def try_out(self, mutation, every_test):
        """The tests that notice a mutation, one alone unless every one is asked for; None when
        it does not build."""
        file = self.folder / mutation.file
        original = file.read_text()
        file.write_text(mutation.text)
        noticed, deadline = [], time.monotonic() + EVERY_TEST_SECONDS
        try:
            for programs, tests in self.tests.items():
                if not self.make(programs):
                    return [f"{programs[0]}, not building"] if programs == LAST else None
                for test in tests:
                    if not self.passes(test):
                        noticed.append(test[1])
                        if not every_test or time.monotonic() > deadline:
                            return noticed
                if noticed:
                    break
            return noticed
        finally:
            file.write_text(original)


def try_all(mutations, arguments, folder):
    """Prints and returns which tests noticed each mutation."""
    trees, results = queue.Queue(), {}

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
            first = trees.queue[0]
            first.sort_tests()
            for tree in trees.queue:
                tree.tests = first.tests
            work = [pool.submit(try_one, mutation) for mutation in mutations]
            for done in concurrent.futures.as_completed(work):
                mutation, noticed, seconds = done.result()
                results[mutation] = noticed
                outcome = ("does not build" if noticed is None else
                           "noticed by " + " ".join(noticed) if noticed else "SURVIVED")
                progress = f"[{len(results)}/{len(mutations)}] {mutation.id}"
                print(f"{progress}: {outcome} ({seconds:.0f} s)", flush=True)
        except BaseException:
            stopping.set()
            pool.shutdown(wait=False, cancel_futures=True)
            for process in list(running):
                end(process)
            raise
    return results


def read_equivalent():
    """The reasons of survivors that cannot be noticed, by file, rule and line."""
    reasons = {}
    for line in EQUIVALENT.read_text().splitlines():
        if line and not line.startswith("#"):
            file, rule, text, reason = line.split(" | ", 3)
            reasons[file, rule, text] = reason
    return reasons


def report(results, complete):
    """Prints the survivors and the score; returns the exit status."""
    reasons = read_equivalent()
    built = [mutation for mutation, noticed in results.items() if noticed is not None]
    survivors = [mutation for mutation in built if not results[mutation]]
    unexplained = [mutation for mutation in survivors if mutation[1:4] not in reasons]
    for mutation in survivors:
        reason = reasons.get(mutation[1:4], "UNEXPLAINED")
        print(f"\n{mutation.id}: {reason}\n{mutation.diff}")
    # A list that keeps what is noticed by now would hide it when that test goes.
    obsolete = reasons.keys() - {mutation[1:4] for mutation in survivors} if complete else ()
    for key in sorted(obsolete):
        print(f"\ntests/mutate/equivalent.txt: take out what did not survive: {' | '.join(key)}")
    noticed = len(built) - len(survivors)
    print(f"\nmutations {len(results)}, built {len(built)}, noticed {noticed}, survived "
          f"{len(survivors)}, unexplained {len(unexplained)}")
    if built:
        print(f"noticed: {100 * noticed / len(built):.1f} % of those that build, "
              f"{100 * noticed / max(1, noticed + len(unexplained)):.1f} % of those that can be")
    return 1 if unexplained or obsolete else 0


def main():
    parser = argparse.ArgumentParser(prog="scripts/mutate")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--only", default="", metavar="REGEX")
    parser.add_argument("--sample", type=int, metavar="N")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1, metavar="N")
    parser.add_argument("--every-test", action="store_true")
    arguments = parser.parse_args()
    everything = all_mutations()
    mutations = [mutation for mutation in everything if re.search(arguments.only, mutation.id)]
    if arguments.sample is not None and arguments.sample < len(mutations):
        mutations = sorted(random.sample(mutations, arguments.sample), key=mutations.index)
    if arguments.list:
        for mutation in mutations:
            print(f"{mutation.id}\n{mutation.diff}")
        return 0
    if not mutations:
        sys.exit("scripts/mutate: no mutation matches; --list shows them all")
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    with tempfile.TemporaryDirectory(prefix="mutate.") as folder:
        results = try_all(mutations, arguments, pathlib.Path(folder))
    return report(results, len(mutations) == len(everything))


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
    except (RuntimeError, re.error) as error:
        sys.exit(f"scripts/mutate: {error}")
