#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures the cost of `powerstats watch` of this machine's counters, and prints it as JSON.

Usage: watch.py POWERSTATS

For 60 s at each of two intervals, the process's own CPU time, its start included, as a share of one CPU. For 10,000
intervals of the shortest length, the growth of its resident memory from the 1,000th interval on.
"""

import json
import os
import subprocess
import sys


def start(program, interval, count):
    return subprocess.Popen([program, "watch", "--format", "csv", "--interval", str(interval), "--count", str(count)],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)


def cpu_percent(program, interval, seconds=60):
    process = start(program, interval, round(seconds / interval))
    process.stdout.read()
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        raise SystemExit(f"watch.py: {program} watch ended with status {os.waitstatus_to_exitcode(status)}")
    return 100 * (usage.ru_utime + usage.ru_stime) / seconds


def resident_kib(process):
    with open(f"/proc/{process.pid}/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmRSS"))


def main():
    program = sys.argv[1]
    memory = start(program, 0.05, 10_000)
    figures = {f"cpu_percent_{interval}": round(cpu_percent(program, interval), 4) for interval in (1, 0.1)}
    before = after = 0
    for number, _ in enumerate(memory.stdout):
        before = before or (number >= 1000 and resident_kib(memory))
        if number == 10_000:  # the header is a line too; the process waits for nothing but its end
            break
        after = resident_kib(memory) if number == 9_999 else after
    if memory.wait() != 0 or after == 0:
        raise SystemExit("watch.py: too few intervals")
    figures["growth_kib"] = after - before
    print(json.dumps(figures))


if __name__ == "__main__":
    main()
