#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The work of scripts/bench, which describes the arguments.

A ratio is the median of the ratios of repetitions. A time is the lower quartile, because others on the
same machine make a repetition slower, often by half, and never faster.

The figures of the tools are "tools/watch", "tools/record", "tools/memory", "tools/trace", "tools/formats" and
"tools/metrics". Shares of a CPU are the process's own time, its start included, over 60 s: `watch` of this
machine's counters at two intervals, and `record` of 100 rails and 100 states, which are played back from a
file, at 20 Hz. The growth of resident memory is that of 9,000 intervals of `watch`. The other figures are
ratios of two commands that run one after the other in each repetition, in random order.
"""

import argparse
import itertools
import json
import os
import pathlib
import random
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from collections import defaultdict

# The limits of what library_figures() compares, by its names.
TARGETS = (
    ("library/floor, residencies 50x8", 1.05, "^steady/.*/50x8/"),
    ("library/floor, rails 20 and 60, residencies 20x5", 1.10, "^steady/.*/(20|60|20x5)/"),
    ("library/floor, residencies 1000x10 and 10000x10", 1.30, "^steady/.*/(1000|10000)x10/"),
    ("allocations above the floor's", 2, "^allocations/"),
    ("growth of library/floor with the size", 1.2, "^growth/"),
    ("library/floor, first call", 1.2, "^first/"),
    ("library/floor, 8 threads", 1.111, "^threads-8/"),
)
LIBRARY = "build/lib/libpowerstatshaldataprovider.so"


def build_other(revision, folder, target, *layers):
    """Builds a target of another revision from layers, each with the arguments of git archive."""
    folder.mkdir()
    for layer in layers:
        archive = subprocess.run(["git", "archive", *layer], stdout=subprocess.PIPE, check=True).stdout
        subprocess.run(["tar", "x", "-C", folder], input=archive, check=True)
    for command in (["-S", folder, "-B", folder / "build", "-G", "Ninja", "-DBUILD_TESTING=OFF"],
                    ["--build", folder / "build", "--target", target]):
        done = subprocess.run(["cmake", *command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            raise SystemExit(f"{done.stdout}scripts/bench: {target} of {revision} does not build (the reason is above)")
    return folder / "build"


def processor_time():
    """Returns the time that others than this program have used, and all that there was, in ticks since boot."""
    ticks = [int(tick) for tick in pathlib.Path("/proc/stat").read_text().split()[1:9]]
    own = sum(os.times()[:4]) * os.sysconf("SC_CLK_TCK")
    return sum(ticks) - ticks[3] - ticks[4] - own, sum(ticks)


def measure_library(repetitions, regex, others, output):
    """Returns the repetitions of each benchmark of powerstats_bench: the counters."""
    done = subprocess.run(
        ["build/bin/powerstats_bench", str(repetitions), *others, f"--benchmark_filter={regex}",
         "--benchmark_enable_random_interleaving=true", f"--benchmark_out={output}"],
        stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, timeout=3600)
    if done.returncode != 0:
        raise SystemExit(done.stderr)
    rows = json.loads(output.read_text() or '{"benchmarks": []}')["benchmarks"]  # empty if nothing matches
    runs = defaultdict(list)
    for row in sorted(rows, key=lambda row: (row["name"].split("/")[0], row["family_index"])):
        if row["run_type"] == "iteration":
            runs["/".join(row["name"].split("/")[:5])].append(row)
    return runs


def ratio(rows, other):
    return statistics.median(row["library"] / row[other] for row in rows)


def print_table(runs):
    print(f"{'':37} library us  floor us  /floor  /against  ns an item  floor's  allocations  floor's")
    for name, rows in runs.items():
        ours, bare = (sorted(row[subject] for row in rows)[len(rows) // 4] for subject in ("library", "floor"))
        against = f"{ratio(rows, 'against'):.2f}" if "against" in rows[0] else "-"
        size, *allocations = (f"{rows[0][key]:.0f}" if key in rows[0] else "-"
                              for key in ("size", "library allocations", "floor allocations"))
        print(f"{name.replace('/', ' ', 1):37} {ours / 1000:10.1f} {bare / 1000:9.1f} {ratio(rows, 'floor'):7.2f} "
              f"{against:>9} {ours / int(size):11.1f} {bare / int(size):8.1f} {allocations[0]:>12} {allocations[1]:>8}")


def library_figures(runs):
    """Yields the worst figure of each target."""
    values = {}
    ratios = defaultdict(list)  # of each kind of steady calls, in the order of their sizes
    for name, rows in runs.items():
        values[name] = ratio(rows, "floor")
        group, backend, call, _, names = name.split("/")
        if group == "steady":
            values[name.replace(group, "allocations")] = rows[0]["library allocations"] - rows[0]["floor allocations"]
            ratios[f"growth/{backend}/{call}/{names}"].append(values[name])
    values.update({kind: of_kind[-1] / of_kind[0] for kind, of_kind in ratios.items() if len(of_kind) > 1})
    for target, limit, regex in TARGETS:
        chosen = [(value, name.partition("/")[2]) for name, value in values.items() if re.search(regex, name)]
        if chosen:
            yield target, limit, *max(chosen)


def file_figures(folder):
    subprocess.run(["strip", "-o", folder / "stripped", LIBRARY], check=True)
    yield "stripped size, bytes", 128 * 1024, (folder / "stripped").stat().st_size, "the library's file"
    symbols = subprocess.check_output(["nm", LIBRARY], text=True)
    yield ("static initialisers, the globals' and the messages'", 2, symbols.count(" t _GLOBAL__sub_I_"),
           "the library's file")


def run(*command):
    """Returns a command's seconds, and its use of resources."""
    start = time.monotonic()
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        raise SystemExit(f"scripts/bench: {' '.join(map(str, command))}: status {os.waitstatus_to_exitcode(status)}")
    return time.monotonic() - start, usage


def ratio_of_commands(repetitions, ours, theirs, figure=lambda result: result[0]):
    """Returns the median of the ratios of a figure of two commands' runs: their seconds, if none is given."""
    ratios = []
    for _ in range(repetitions):
        figures = {command: figure(run(*command)) for command in random.sample((ours, theirs), 2)}
        ratios.append(figures[ours] / figures[theirs])
    return statistics.median(ratios)


def cpu_percent(program, subcommand, interval, *arguments):
    usage = run(program, subcommand, "--interval", str(interval), *arguments)[1]
    return 100 * (usage.ru_utime + usage.ru_stime) / 60


def growth_kib(program):
    process = subprocess.Popen([program, "watch", "--format", "csv", "--interval", "0.05", "--count", "10000"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    status = pathlib.Path(f"/proc/{process.pid}/status")
    readings = [int(re.search(r"VmRSS:\s*(\d+)", status.read_text())[1])
                for number, _ in enumerate(process.stdout) if number in (1000, 9999)]
    if process.wait() != 0:
        raise SystemExit("scripts/bench: watch failed")
    return readings[1] - readings[0]


def write(folder, **files):
    folder.mkdir(parents=True)
    for name, content in files.items():
        (folder / name).write_text(f"{content}\n")


def make_machine(folder, rails, cpus, states):
    for i in range(rails):
        write(folder / f"class/hwmon/hwmon{i}", energy1_input=5000000, energy1_label=f"rail{i}")
    for cpu, state in itertools.product(range(cpus), range(states)):
        write(folder / f"devices/system/cpu/cpu{cpu}/cpuidle/state{state}", name=f"C{state}",
              time=1000000 * state + cpu, usage=100 * state + cpu)


def varint(value):
    return bytes([value]) if value < 0x80 else bytes([value & 0x7F | 0x80]) + varint(value >> 7)


def message(number, content):
    return varint(number << 3 | 2) + varint(len(content)) + content


def make_trace(path):
    """A hundredth of 1 GB is readings of 20 rails; the rest is packets of 1,000 bytes of another kind."""
    # A time stamp, a sequence, and 980 bytes of a field that nobody here reads.
    other = message(1, b"\x40\xff\xff\xff\xff\x0f\x50\x07" + message(5, os.urandom(980)))
    names = b"".join(message(1, varint(8) + varint(i) + message(2, b"rail%d" % i)) for i in range(20))
    with open(path, "wb") as file:
        for sample in itertools.takewhile(lambda _: file.tell() < 1e9, itertools.count()):
            readings = b"".join(
                message(2, b"\x08" + varint(i) + b"\x10" + varint(5000 + sample) + b"\x18" + varint(1000 * sample + i))
                for i in range(20))
            packet = message(1, b"\x50\x01" + message(40, names + readings))
            names = b""
            file.write(packet + other * (99 * len(packet) // len(other)))


def tools_figures(repetitions, is_chosen, folder, program, *others):
    if is_chosen("tools/watch"):
        for interval, limit in ((1, 0.1), (0.1, 1)):
            yield (f"watch --interval {interval}, percent of a CPU", limit,
                   cpu_percent(program, "watch", interval, "--format", "csv", "--count", str(round(60 / interval))),
                   "this machine")
    if is_chosen("tools/record"):
        make_machine(folder / "sys", rails=100, cpus=25, states=4)
        run(program, "record", "--interval=0.05", "--duration=2", "--sysfs", folder / "sys", "-o", folder / "short")
        yield ("record at 20 Hz, percent of a CPU", 1,
               cpu_percent(program, "record", 0.05, "--duration", "60", "--replay", folder / "short", "--loop",
                           "-o", folder / "recording"), "100 rails, 100 states")
    if is_chosen("tools/memory"):
        yield "watch, growth of memory over 9,000 intervals, KiB", 64, growth_kib(program), "this machine"
    if is_chosen("tools/trace"):
        trace = folder / "trace"
        make_trace(trace)
        opening = program, "dump", "--rails", "--replay", trace
        yield "opening a trace, compared with cat", 2, ratio_of_commands(9, opening, ("cat", trace)), "1 GB"
        yield "memory to open it, MiB", 64 + 10, run(*opening)[1].ru_maxrss / 1024, "1 GB, 10 MB of power data"
        trace.unlink()
    if is_chosen("tools/formats"):
        make_machine(folder / "cpus", rails=0, cpus=512, states=8)
        watch = "watch", "--sysfs", folder / "cpus", "--interval", "0.05", "--count", "20", "--format"
        for tool, limit, of in ((program, 1, ""), *((other, None, ", the other commit's") for other in others)):
            yield ("watch, user CPU of csv compared with jsonl" + of, limit,
                   ratio_of_commands(5, (tool, *watch, "csv"), (tool, *watch, "jsonl"), lambda run: run[1].ru_utime),
                   "512 CPUs, 8 idle states")
    if is_chosen("tools/metrics"):
        for other in others:
            yield ("time of metrics, compared with the other commit's", 1.1,
                   ratio_of_commands(repetitions, (program, "metrics"), (other, "metrics")), "this machine")


def main():
    parser = argparse.ArgumentParser("scripts/bench", usage="scripts/bench [OPTION]... (see scripts/bench --help)")
    parser.add_argument("--against")
    parser.add_argument("--repetitions", type=int, default=60)
    parser.add_argument("--filter", type=re.compile, default=".")
    options = parser.parse_args()
    if options.repetitions < 1:
        parser.error("argument --repetitions: at least 1")
    against = options.against
    if against and subprocess.run(["git", "rev-parse", "--verify", "--quiet", against + "^{commit}"],
                                  stdout=subprocess.DEVNULL).returncode != 0:
        parser.error(f"{against}: no such revision of this repository (see git log)")

    for command in ("scripts/setup run bench", "scripts/build --benchmarks powerstats_bench powerstats"):
        if subprocess.run(command.split()).returncode != 0:
            return 1
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        other_libraries, other_tools = [], []
        if against:
            print(f"building {against}...", flush=True)
            now = subprocess.check_output(["git", "stash", "create"], text=True).strip() or "HEAD"
            library = build_other(against, folder / "library", "powerstatshaldataprovider",
                                  [now], [against, "jni", "proto", "aidl", "hidl"])
            other_libraries.append(library / "lib/libpowerstatshaldataprovider.so")
            other_tools.append(build_other(against, folder / "tools", "powerstats", [against]) / "bin/powerstats")

        print("measuring (a quarter of an hour or more; best with nothing else running)...", flush=True)
        others_before, all_before = processor_time()
        runs = measure_library(options.repetitions, options.filter.pattern, other_libraries, folder / "run.json")
        figures = [*library_figures(runs), *(file_figures(folder) if options.filter.pattern == "." else ()),
                   *tools_figures(options.repetitions, options.filter.search, folder, "build/bin/powerstats",
                                  *other_tools)]
        others, all_time = processor_time()
    if not figures:
        raise SystemExit("scripts/bench: nothing was measured (does --filter match anything?)")
    if runs:
        print_table(runs)
    print("\nTargets\n")
    missed = False
    for target, limit, value, where in figures:
        verdict = "-" if limit is None else "met" if value <= limit else "NOT MET"
        missed |= verdict == "NOT MET"
        print(f"{verdict:7}  {target}: {value:.4g}, at most {limit or '-'} ({where})")
    busy = round(100 * (others - others_before) / (all_time - all_before))
    if busy >= 10:
        print(f"\nThe machine was busy: other programs used {busy} % of its processors. Measure again without them.")
    return missed


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    sys.exit(main())
