#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Turns a run of powerstats_bench into tables of ratios, and compares the ratios with the targets.

Usage: report.py RUN.json TARGETS.json

RUN.json is Google Benchmark's output, or empty. TARGETS.json has further figures with their limits, as
bench/tools.py prints them. A ratio is the median of the ratios of repetitions that ran one after the
other. A time is the lower quartile, because others on the same machine make a repetition slower, often by
half, and never faster. Exits with 1 when a target is missed or there is nothing to report.
"""

import json
import signal
import statistics
import sys
from collections import defaultdict


def read(run):
    """The figures: {group: {workload: {subject: rows, one for each repetition}}}."""
    results = defaultdict(lambda: defaultdict(lambda: defaultdict(list)))
    for row in run["benchmarks"]:
        group, *workload, subject = row["run_name"].split("/")[:6]
        results[group]["/".join(workload)][subject].append(row)
    for group, workloads in results.items():
        for workload, subjects in workloads.items():
            for missing in {"library", "floor"} - subjects.keys():
                raise SystemExit(f"report.py: {group}/{workload}: --filter leaves out the {missing}, "
                                 "so there is nothing to compare")
    return results


def times(rows):
    # A steady call is the work of one thread, whatever else the machine does.
    clock = "cpu_time" if rows[0]["name"].startswith("steady/") else "real_time"
    return [row[clock] for row in rows]


def nanoseconds(rows):
    """The time of an item. A run of few repetitions has no quartiles."""
    return (statistics.quantiles(times(rows), n=4)[0] if len(rows) > 1 else times(rows)[0]) / rows[0]["size"]


def ratio(subjects, other):
    return statistics.median(a / b for a, b in zip(times(subjects["library"]), times(subjects[other])))


def print_table(results):
    print(f"{'':37} library us  floor us  /floor  /against  ns an item  floor's  allocations  floor's")
    for group, workloads in sorted(results.items()):
        for workload, subjects in workloads.items():
            library, floor = subjects["library"], subjects["floor"]
            ours, bare = nanoseconds(library), nanoseconds(floor)
            against = f"{ratio(subjects, 'against'):.2f}" if "against" in subjects else "-"
            allocations = [round(rows[0]["allocations"]) if "allocations" in rows[0] else "-"
                           for rows in (library, floor)]
            print(f"{group + ' ' + workload:37} {ours * library[0]['size'] / 1000:10.1f} "
                  f"{bare * floor[0]['size'] / 1000:9.1f} {ratio(subjects, 'floor'):7.2f} {against:>9} "
                  f"{ours:11.1f} {bare:8.1f} {allocations[0]:>12} {allocations[1]:>8}")


def growths(steady):
    """How many times the ratio to the floor in the smallest collection is that in the largest."""
    kinds = defaultdict(list)
    for workload, subjects in steady.items():
        backend, call, _, names = workload.split("/")
        kinds[f"{backend}/{call}/{names}"].append(ratio(subjects, "floor"))
    return {kind: ratios[-1] / ratios[0] for kind, ratios in kinds.items() if len(ratios) > 1}


def targets(results):
    """The worst figure of each target in this run."""
    def at_most(text, limit, values):
        if values:
            where, value = max(values.items(), key=lambda item: item[1])
            yield {"target": text, "limit": limit, "value": value, "where": where}

    def ratios(group, *sizes):
        return {workload: ratio(subjects, "floor") for workload, subjects in results[group].items()
                if not sizes or workload.split("/")[2] in sizes}

    yield from at_most("library/floor, residencies 50x8", 1.05, ratios("steady", "50x8"))
    yield from at_most("library/floor, rails 20 and 60, residencies 20x5", 1.10,
                       ratios("steady", "20", "60", "20x5"))
    yield from at_most("library/floor, residencies 1000x10 and 10000x10", 1.30,
                       ratios("steady", "1000x10", "10000x10"))
    yield from at_most("allocations above the floor's", 2,
                       {workload: subjects["library"][0]["allocations"] - subjects["floor"][0]["allocations"]
                        for workload, subjects in results["steady"].items()})
    yield from at_most("growth of library/floor with the size", 1.2, growths(results["steady"]))
    yield from at_most("library/floor, first call", 1.2, ratios("first"))
    yield from at_most("library/floor, 8 threads", 1.111, ratios("threads-8"))


def main():
    with open(sys.argv[1]) as file:
        results = read(json.loads(file.read() or '{"benchmarks": []}'))
    with open(sys.argv[2]) as file:
        found = [json.loads(line) for line in file]
    if results:
        print_table(results)
    found = [*targets(results), *found]
    if not found:
        raise SystemExit("report.py: nothing was measured (does --filter match anything?)")
    print("\nTargets\n")
    missed = False
    for target in found:
        limit, value = target["limit"], target["value"]
        verdict = "-" if limit is None else "met" if value <= limit else "NOT MET"
        missed |= verdict == "NOT MET"
        print(f"{verdict:7}  {target['target']}: {value:.4g}, at most {limit or '-'} ({target['where']})")
    return missed


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    sys.exit(main())
