#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Turns a run of powerstats_bench into tables of ratios, and into a JSON file to draw from.

Usage: report.py RUN.json LIBRARY.json [TOOLS.json] [--json FILE]

RUN.json is Google Benchmark's output, LIBRARY.json the properties of the library's file that
scripts/bench found, TOOLS.json the output of bench/tools.py. A ratio is the median of the ratios of
repetitions that ran one after the other. A time is the lower quartile, because others on the same
machine make a repetition slower, often by half, and never faster. Exits with 1 when a target is
missed.
"""

import argparse
import json
import signal
import statistics
import sys
from collections import defaultdict


# The subject that is measured, in the groups where it has a floor.
MEASURED = dict.fromkeys(["steady", "first", "reconnect", "bus", "threads"], "library")
MEASURED["counters"] = "service"


def read(run):
    """The figures: {(group, workload, threads): {subject: {"ns", "runs" (by repetition), counters...}}}."""
    runs = defaultdict(list)
    for row in run["benchmarks"]:
        if row["run_type"] != "iteration":
            continue
        if row.get("error_occurred"):
            raise SystemExit(f"report.py: {row['name']}: {row['error_message']}")
        group, backend, call, size, names, subject, threads, *_ = f"{row['run_name']}/".split("/")
        threads = int(threads) if group == "threads" else 1
        runs[group, f"{backend}/{call}/{size}/{names}", threads, subject].append(row)
    results = defaultdict(dict)
    for (group, workload, threads, subject), rows in sorted(runs.items(), key=in_order):
        # A collection within one process is the work of one thread, whatever else the machine does.
        clock = "cpu_time" if group in ("steady", "counters") else "real_time"
        times = [row[clock] for row in rows]
        entry = {"ns": statistics.quantiles(times, n=4)[0], "runs": times}
        for counter in ("allocations", "allocated_bytes", "size"):
            if counter in rows[0]:
                entry[counter] = statistics.median(row[counter] for row in rows)
        results[group, workload, threads][subject] = entry
    for (group, workload, _), subjects in results.items():
        missing = {MEASURED.get(group), "floor"} - subjects.keys()
        if group in MEASURED and missing:
            raise SystemExit(f"report.py: {group}/{workload}: --filter leaves out {missing.pop()}, "
                             "so there is nothing to compare")
    return results


def in_order(item):
    group, workload, threads, subject = item[0]
    backend, call, size, names = workload.split("/")
    return group, backend, call, [int(part) for part in size.split("x")], int(names), threads, subject


def group_of(results, group):
    return {key[1]: subjects for key, subjects in results.items() if key[0] == group}


def table(title, header, rows):
    if not rows:
        return
    print(f"\n{title}\n")
    widths = [max(len(str(row[i])) for row in [header, *rows]) for i in range(len(header))]
    for row in [header, *rows]:
        cells = [str(cell).ljust(width) if i == 0 else str(cell).rjust(width)
                 for i, (cell, width) in enumerate(zip(row, widths))]
        print("  ".join(cells).rstrip())


def ratio(subjects, other, measured="library"):
    if other not in subjects:
        return None
    return statistics.median(
        ours / theirs for ours, theirs in zip(subjects[measured]["runs"], subjects[other]["runs"]))


def shown(value, digits=2):
    return "-" if value is None else f"{value:.{digits}f}"


def print_tables(results, library):
    steady = group_of(results, "steady")
    header = ["one collection, connected", "library us", "/floor", "/limit", "/against",
              "ns an item", "floor's", "allocations", "floor's"]
    rows = []
    for workload, subjects in steady.items():
        ours, floor = subjects["library"], subjects["floor"]
        rows.append([workload, shown(ours["ns"] / 1000, 1), shown(ratio(subjects, "floor")),
                     shown(ratio(subjects, "limit")), shown(ratio(subjects, "against")),
                     shown(ours["ns"] / ours["size"], 1), shown(floor["ns"] / floor["size"], 1),
                     round(ours["allocations"]), round(floor["allocations"])])
    table("Steady calls (an item is a rail, or a state of an entity; names of 12 or 40 bytes)",
          header, rows)

    table("Growth of the cost of an item from the smallest to the largest size",
          ["", "library", "floor", "library/floor"],
          [[name, *map(shown, growth)] for name, growth in growths(steady).items()])

    rows = [[f"{group} {workload}", shown(subjects["library"]["ns"] / 1000, 1),
             shown(ratio(subjects, "floor")), shown(ratio(subjects, "against"))]
            for group in ("first", "reconnect", "selecting", "loading", "bus")
            for workload, subjects in group_of(results, group).items()]
    table("Other calls: the first of a process, the first after a death, one that chooses the backend\n"
          "again, dlopen with the first call, and a steady one over a bus (whose floor are the bare bus\n"
          "calls, replies unread)", ["", "library us", "/floor", "/against"], rows)

    rows = []
    for workload, subjects in group_of(results, "counters").items():
        service, floor = subjects["service"], subjects["floor"]
        rows.append([workload, shown(service["ns"] / service["size"], 0),
                     shown(floor["ns"] / floor["size"], 0), shown(ratio(subjects, "floor", "service"))])
    table("Reading the kernel's counters (the floor are bare preads of open files)",
          ["", "ns a counter", "floor's", "/floor"], rows)

    rows = []
    for (group, workload, threads), subjects in results.items():
        if group == "threads":
            alone = results.get((group, workload, 1))
            ours = subjects["library"]
            row = [f"{workload}, {threads}", shown(1e9 * ours["size"] / ours["ns"], 0)]
            for subject in "library", "floor":
                row.append(shown(alone and alone[subject]["ns"] / subjects[subject]["ns"]))
            rows.append(row)
    table("Threads calling at once (the floor is the bare client under a mutex)",
          ["", "calls/s", "of one thread's", "floor's"], rows)

    print("\nThe library's file: {stripped_bytes} bytes stripped; {relocations} relocations "
          "({symbolic} by symbol); static initialisers: {initialisers}".format(**library))


def growths(steady):
    """How much dearer an item is in the largest collection than in the smallest: to the library, to
    the floor, and one compared with the other."""
    by_kind = defaultdict(list)
    for workload, subjects in steady.items():
        backend, call, _, names = workload.split("/")
        by_kind[f"{backend}/{call}/{names}"].append(subjects)
    result = {}
    for kind, sizes in by_kind.items():
        sizes.sort(key=lambda subjects: subjects["library"]["size"])
        if len(sizes) < 2:
            continue
        result[kind] = [
            sizes[-1][subject]["ns"] / sizes[-1][subject]["size"] /
            (sizes[0][subject]["ns"] / sizes[0][subject]["size"]) for subject in ("library", "floor")]
        result[kind].append(ratio(sizes[-1], "floor") / ratio(sizes[0], "floor"))
    return result


def targets(results, library, tools):
    """The targets, with the worst value of this run and its place."""
    steady = group_of(results, "steady")
    found = []

    def at_most(text, limit, values):
        if values:
            where, value = max(values.items(), key=lambda item: item[1])
            found.append({"target": text, "limit": limit, "worst": round(value, 3), "where": where,
                          "met": value <= limit})

    def ratios(group, *sizes):
        return {workload: ratio(subjects, "floor")
                for workload, subjects in group_of(results, group).items()
                if not sizes or workload.split("/")[2] in sizes}

    at_most("library/floor, residencies 50x8", 1.05, ratios("steady", "50x8"))
    at_most("library/floor, rails 20 and 60, residencies 20x5", 1.10,
            ratios("steady", "20", "60", "20x5"))
    at_most("library/floor, residencies 1000x10 and 10000x10", 1.30,
            ratios("steady", "1000x10", "10000x10"))
    at_most("allocations above the floor's", 2,
            {workload: subjects["library"]["allocations"] - subjects["floor"]["allocations"]
             for workload, subjects in steady.items()})
    at_most("growth, compared with the floor's", 1.2,
            {kind: compared for kind, (_, _, compared) in growths(steady).items()})
    at_most("first call, compared with its floor", 1.2, ratios("first"))
    at_most("throughput of 8 threads, the floor's compared with it", 1 / 0.9,
            {key[1]: ratio(subjects, "floor")
             for key, subjects in results.items() if key[0] == "threads" and key[2] == 8})
    at_most("counters of /sys, compared with bare preads", 1.5,
            {workload: ratio(subjects, "floor", "service")
             for workload, subjects in group_of(results, "counters").items()})
    at_most("stripped size, bytes", 128 * 1024, {"the library's file": library["stripped_bytes"]})
    at_most("static initialisers, the globals' and the messages'", 2,
            {"the library's file": library["initialisers"]})
    if tools:
        for interval, limit in ((1, 0.1), (0.1, 1)):
            at_most(f"watch --interval {interval}, percent of a CPU", limit,
                    {"this machine": tools[f"watch_{interval}_cpu_percent"]})
        at_most("record at 20 Hz, percent of a CPU", 1, {"100 rails, 100 states": tools["record_cpu_percent"]})
        at_most("watch, growth of memory over 9,000 intervals, KiB", 64,
                {"this machine": tools["watch_growth_kib"]})
        at_most("opening a trace, compared with cat", 2,
                {"1 GB": tools["trace_open_s"] / tools["trace_cat_s"]})
        at_most("memory to open it, MiB", 64 + 10, {"1 GB, 10 MB of power data": tools["trace_resident_kib"] / 1024})
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("run")
    parser.add_argument("library")
    parser.add_argument("tools", nargs="?")
    parser.add_argument("--json")
    arguments = parser.parse_args()
    with open(arguments.run) as file:
        run = json.load(file)
    with open(arguments.library) as file:
        library = json.load(file)
    tools = None
    if arguments.tools:
        with open(arguments.tools) as file:
            tools = json.load(file)
    results = read(run)
    print_tables(results, library)
    found = targets(results, library, tools)
    print("\nTargets\n")
    for target in found:
        print("{}  {target}: at most {limit:.4g}, worst {worst:.4g} ({where})".format(
            "met    " if target["met"] else "NOT MET", **target))
    if arguments.json:
        # The kind of machine, without its name.
        context = {key: run["context"][key] for key in ("num_cpus", "mhz_per_cpu", "caches")}
        rows = [{"group": group, "workload": workload, "threads": threads, "subject": subject,
                 **{key: [round(run, 1) for run in value] if key == "runs" else round(value, 1)
                    for key, value in entry.items()}}
                for (group, workload, threads), subjects in results.items()
                for subject, entry in subjects.items()]
        with open(arguments.json, "w") as file:
            file.write('{{"machine": {}, "library": {}, "targets": [\n{}\n], "figures": [\n{}\n]}}\n'
                       .format(json.dumps(context), json.dumps(library),
                               ",\n".join(json.dumps(target) for target in found),
                               ",\n".join(json.dumps(row) for row in rows)))
    return 0 if all(target["met"] for target in found) else 1


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    sys.exit(main())
