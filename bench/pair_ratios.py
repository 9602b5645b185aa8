#!/usr/bin/env python3
"""Runs BitMapperBench or MfibBench (or reads their JSON output) and prints
each figure beside its baseline from the same run, with the ratio the
targets name:

    BitMapperAllocRelease / BaselineDequeAndHashMap   cpu ns per allocate+release   [<=3]
    MergeWalk / BaselineMapMergeWalk                  perPosition                   [<=1 at 2+ tables]
    OrderInit / BaselineMapOrderInit                  perRoute                      [flat in tables]
    RouteQuery / BaselineMapRouteQuery                perTable

    bench/pair_ratios.py --bench build/default/bin/MfibBench -- --benchmark_filter='MergeWalk|OrderInit'
    bench/pair_ratios.py --bench build/default/bin/BitMapperBench -- --benchmark_repetitions=3
"""
import sys

from benchrun import load, parse_args

# (figure, baseline, what is compared, target)
PAIRS = [
    ("BitMapperAllocRelease", "BaselineDequeAndHashMap", "cpu_time", "<=3"),
    ("MergeWalk", "BaselineMapMergeWalk", "perPosition", "<=1 at 2+ tables"),
    ("OrderInit", "BaselineMapOrderInit", "perRoute", "flat in tables"),
    ("RouteQuery", "BaselineMapRouteQuery", "perTable", ""),
]



UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def ns(b, field):
    """The field in ns: times come in the benchmark's unit, per-item
    counters (rates inverted) in seconds."""
    v = b.get(field)
    if v is None:
        return None
    if field in ("cpu_time", "real_time"):
        return v * UNIT_NS[b.get("time_unit", "ns")]
    return v * 1e9


def main():
    args = parse_args(__doc__, "build/default/bin/MfibBench")
    runs = load(args)["benchmarks"]
    # With --benchmark_repetitions, use the medians.
    if any(b.get("aggregate_name") == "median" for b in runs):
        runs = [dict(b, name=b["run_name"]) for b in runs if b.get("aggregate_name") == "median"]
    by = {}  # (name, args) -> benchmark
    for b in runs:
        name, _, rest = b["name"].partition("/")
        by[(name, rest)] = b
    print("figure / baseline, same run (the machine may be shared: cpu time)\n")
    for fig, base, field, target in PAIRS:
        shapes = [a for (n, a) in by if n == fig and (base, a) in by]
        if not shapes:
            continue
        print("%s / %s, %s%s" % (fig, base, field, " [target %s]" % target if target else ""))
        for a in shapes:
            f, b = ns(by[(fig, a)], field), ns(by[(base, a)], field)
            if f is None or b is None or b == 0:
                continue
            print("  %-24s %12.1f ns %12.1f ns   %6.2f" % (a or "-", f, b, f / b))
        print()


if __name__ == "__main__":
    main()
