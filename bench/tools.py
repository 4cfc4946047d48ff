#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the cost of the tools, and prints each figure with its limit as a line of JSON.

Usage: tools.py REPETITIONS REGEX POWERSTATS [OTHER-POWERSTATS]

REGEX selects figures by their names: "tools/watch", "tools/record", "tools/memory", "tools/trace",
"tools/formats", "tools/metrics". Shares of a CPU are the process's own time, its start included, over
60 s: `watch` of this machine's counters at two intervals, and `record` of 100 rails and 100 states, which
are played back from a file, at 20 Hz. The growth of resident memory is that of 9,000 intervals of `watch`.
The other figures are ratios of two commands that run one after the other in each repetition, in random
order: the median of the repetitions' ratios.
"""

import json
import os
import pathlib
import random
import re
import statistics
import subprocess
import sys
import tempfile
import time


def run(*arguments):
    """Returns a command's seconds, and its use of resources."""
    start = time.monotonic()
    process = subprocess.Popen(arguments, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        raise SystemExit(f"tools.py: {' '.join(map(str, arguments))}: status {os.waitstatus_to_exitcode(status)}")
    return time.monotonic() - start, usage


def ratio(repetitions, ours, theirs, figure=lambda result: result[0]):
    """Returns the median of the ratios of a figure of two commands' runs: their seconds, if none is given."""
    ratios = []
    for _ in range(repetitions):
        pair = [(True, ours), (False, theirs)]
        random.shuffle(pair)
        figures = {is_ours: figure(run(*command)) for is_ours, command in pair}
        ratios.append(figures[True] / figures[False])
    return statistics.median(ratios)


def cpu_percent(program, subcommand, interval, *arguments):
    usage = run(program, subcommand, "--interval", str(interval), *arguments)[1]
    return 100 * (usage.ru_utime + usage.ru_stime) / 60


def growth_kib(program):
    def resident_kib():
        return int(re.search(r"VmRSS:\s*(\d+)", pathlib.Path(f"/proc/{process.pid}/status").read_text())[1])

    process = subprocess.Popen([program, "watch", "--format", "csv", "--interval", "0.05", "--count", "10000"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    readings = [resident_kib() for number, _ in enumerate(process.stdout) if number in (1000, 9999)]
    if process.wait() != 0:
        raise SystemExit("tools.py: watch failed")
    return readings[1] - readings[0]


def write(folder, **files):
    folder.mkdir(parents=True)
    for name, content in files.items():
        (folder / name).write_text(f"{content}\n")


def make_counters(folder):
    for i in range(100):
        write(folder / f"class/hwmon/hwmon{i}", energy1_input=5000000, energy1_label=f"rail{i}")
    for i in range(50):
        write(folder / f"devices/pci0/{i}/power", runtime_active_time=1000 + i,
              runtime_suspended_time=1000 + i, runtime_status="active")


def make_cpus(folder):
    for cpu in range(512):
        for state in range(8):
            write(folder / f"devices/system/cpu/cpu{cpu}/cpuidle/state{state}", name=f"C{state}",
                  time=1000000 * state + cpu, usage=100 * state + cpu)


def varint(value):
    encoded = bytearray()
    while value > 0x7F:
        encoded.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes(encoded) + bytes([value])


def message(number, content):
    return varint(number << 3 | 2) + varint(len(content)) + content


def make_trace(path):
    """A hundredth of 1 GB is readings of 20 rails; the rest is packets of 1,000 bytes of another kind."""
    # A time stamp, a sequence, and 980 bytes of a field that nobody here reads.
    other = message(1, b"\x40\xff\xff\xff\xff\x0f\x50\x07" + message(5, os.urandom(980)))
    names = b"".join(message(1, varint(8) + varint(i) + message(2, b"rail%d" % i)) for i in range(20))
    with open(path, "wb") as file:
        for sample in range(1 << 30):
            readings = b"".join(
                message(2, b"\x08" + varint(i) + b"\x10" + varint(5000 + sample) + b"\x18" + varint(1000 * sample + i))
                for i in range(20))
            packet = message(1, b"\x50\x01" + message(40, names + readings))
            names = b""
            file.write(packet + other * (99 * len(packet) // len(other)))
            if file.tell() >= 1e9:
                return


def measure(repetitions, is_chosen, folder, program, other=None):
    """Yields each figure's description, limit, value and place."""
    if is_chosen("tools/watch"):
        for interval, limit in ((1, 0.1), (0.1, 1)):
            yield (f"watch --interval {interval}, percent of a CPU", limit,
                   cpu_percent(program, "watch", interval, "--format", "csv", "--count", str(round(60 / interval))),
                   "this machine")
    if is_chosen("tools/record"):
        make_counters(folder / "sys")
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
        yield ("opening a trace, compared with cat", 2, ratio(9, opening, ("cat", trace)), "1 GB")
        yield ("memory to open it, MiB", 64 + 10, run(*opening)[1].ru_maxrss / 1024, "1 GB, 10 MB of power data")
        trace.unlink()
    if is_chosen("tools/formats"):
        make_cpus(folder / "cpus")
        watch = "watch", "--sysfs", folder / "cpus", "--interval", "0.05", "--count", "20", "--format"
        for tool, limit, of in ((program, 1, ""), (other, None, ", the other commit's")):
            if tool:
                yield ("watch, user CPU of csv compared with jsonl" + of, limit,
                       ratio(5, (tool, *watch, "csv"), (tool, *watch, "jsonl"), lambda result: result[1].ru_utime),
                       "512 CPUs, 8 idle states")
    if is_chosen("tools/metrics") and other:
        yield ("time of metrics, compared with the other commit's", 0.5,
               ratio(repetitions, (program, "metrics"), (other, "metrics")), "this machine")


def main():
    repetitions, regex, *programs = sys.argv[1:]
    with tempfile.TemporaryDirectory() as folder:
        for figure in measure(int(repetitions), re.compile(regex).search, pathlib.Path(folder), *programs):
            print(json.dumps(dict(zip(("target", "limit", "value", "where"), figure))), flush=True)


if __name__ == "__main__":
    main()
