#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures what watching, recording and opening a recording cost, and prints it as JSON.

Usage: tools.py POWERSTATS

CPU times are the process's own, its start included, as a share of one CPU over 60 s: `watch` of this
machine's counters at two intervals, and `record` of 100 rails and 100 states, which are played back
from a file, at 20 Hz. The growth of resident memory is that of 9,000 intervals of `watch`. A trace
of 1 GB with 1 % power data, in packets of 1,000 bytes and in the page cache, is opened by `dump`;
that is compared with `cat`, both best of nine.
"""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time


def run(*arguments):
    """Returns seconds of CPU, seconds that passed, and the greatest resident memory in KiB."""
    start = time.monotonic()
    process = subprocess.Popen(arguments, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    if status != 0:
        raise SystemExit(f"tools.py: {' '.join(map(str, arguments))}: status {os.waitstatus_to_exitcode(status)}")
    return usage.ru_utime + usage.ru_stime, time.monotonic() - start, usage.ru_maxrss


def cpu_percent(program, subcommand, interval, *arguments):
    return 100 * run(program, subcommand, "--interval", str(interval), *arguments)[0] / 60


def resident_kib(process):
    with open(f"/proc/{process.pid}/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmRSS"))


def start_memory(program):
    return subprocess.Popen([program, "watch", "--format", "csv", "--interval", "0.05", "--count", "10000"],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)


def growth_kib(process):
    before = after = 0
    for number, _ in enumerate(process.stdout):  # the header is line 0
        if number == 1000:
            before = resident_kib(process)
        if number == 9_999:
            after = resident_kib(process)
    if process.wait() != 0 or after == 0:
        raise SystemExit("tools.py: too few intervals")
    return after - before


def make_counters(folder):
    for i in range(100):
        chip = folder / f"class/hwmon/hwmon{i}"
        chip.mkdir(parents=True)
        (chip / "energy1_input").write_text("5000000\n")
        (chip / "energy1_label").write_text(f"rail{i}\n")
    for i in range(50):
        power = folder / f"devices/pci0/{i}/power"
        power.mkdir(parents=True)
        for state in ("active", "suspended"):
            (power / f"runtime_{state}_time").write_text(f"{1000 + i}\n")
        (power / "runtime_status").write_text("active\n")


def varint(value):
    encoded = bytearray()
    while value > 0x7F:
        encoded.append(value & 0x7F | 0x80)
        value >>= 7
    return bytes(encoded) + bytes([value])


def message(number, content):
    return varint(number << 3 | 2) + varint(len(content)) + content


def make_trace(file):
    """A hundredth of the bytes are readings of 20 rails; the rest is packets of another kind."""
    # A time stamp, a sequence, and 980 bytes of a field that nobody here reads.
    other = message(1, b"\x40\xff\xff\xff\xff\x0f\x50\x07" + message(5, os.urandom(980)))
    names = b"".join(message(1, varint(8) + varint(i) + message(2, b"rail%d" % i)) for i in range(20))
    for sample in range(1 << 30):
        readings = b"".join(
            message(2, b"\x08" + varint(i) + b"\x10" + varint(5000 + sample) + b"\x18" + varint(1000 * sample + i))
            for i in range(20))
        packet = message(1, b"\x50\x01" + message(40, names + readings))
        names = b""
        file.write(packet + other * (99 * len(packet) // len(other)))
        if file.tell() >= 1e9:
            return


def main():
    program = sys.argv[1]
    memory = start_memory(program)
    figures = {f"watch_{interval}_cpu_percent":
               cpu_percent(program, "watch", interval, "--format", "csv", "--count", str(round(60 / interval)))
               for interval in (1, 0.1)}
    with tempfile.TemporaryDirectory() as folder:
        folder = pathlib.Path(folder)
        make_counters(folder / "sys")
        run(program, "record", "--interval", "0.05", "--duration", "2", "--sysfs", folder / "sys", "-o", folder / "short")
        figures["record_cpu_percent"] = cpu_percent(program, "record", 0.05, "--duration", "60", "--replay",
                                                    folder / "short", "--loop", "-o", folder / "recording")
        with open(folder / "trace", "wb") as file:
            make_trace(file)
        # In turns, because a machine is slow for seconds at a time.
        opened, read = map(min, zip(*((run(program, "dump", "--rails", "--replay", folder / "trace")[1:],
                                       run("cat", folder / "trace")[1]) for _ in range(9))))
    figures.update(trace_open_s=opened[0], trace_cat_s=read, trace_resident_kib=opened[1],
                   watch_growth_kib=growth_kib(memory))
    print(json.dumps({name: round(value, 4) for name, value in figures.items()}))


if __name__ == "__main__":
    main()
