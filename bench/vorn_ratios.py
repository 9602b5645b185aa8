#!/usr/bin/env python3
"""Runs VornBench (or reads its JSON output) and prints Vorn's figures beside
the baselines measured in the same run, with the ratios the targets name.

    bench/vorn_ratios.py [--bench build/default/bin/VornBench] [--json results.json] [-- bench args]
"""
import sys

from benchrun import load, parse_args



def main():
    args = parse_args(__doc__, "build/default/bin/VornBench")
    data = load(args)
    t = {}  # (operation, system, size) -> benchmark
    runs = data["benchmarks"]
    # With --benchmark_repetitions, use the medians.
    if any(b.get("aggregate_name") == "median" for b in runs):
        runs = [dict(b, name=b["run_name"]) for b in runs if b.get("aggregate_name") == "median"]
    for b in runs:
        parts = b["name"].split("/")
        if len(parts) >= 3 and parts[2].isdigit():
            t[(parts[0], parts[1], int(parts[2]))] = b
        else:
            t[(parts[0], parts[1], 0)] = b
    sizes = sorted({k[2] for k in t if k[2]})

    def cpu(op, system, n):
        b = t.get((op, system, n))
        return b["cpu_time"] if b else float("nan")

    print("CPU ns per operation (cpu_time; the machine may be shared)\n")
    head = "%-34s" + " %12s" * len(sizes)
    row = "%-34s" + " %12.1f" * len(sizes)
    print(head % (("",) + tuple("%d records" % n for n in sizes)))
    for op, systems in [("LookupHit", ["Vorn", "UnorderedMap", "Lmdb"]),
                        ("LookupMiss", ["Vorn", "UnorderedMap", "Lmdb"]),
                        ("InsertOrReplace", ["Vorn", "UnorderedMap", "Lmdb"]),
                        ("InsertNewKey", ["Vorn", "UnorderedMap", "Lmdb"]),
                        ("Delete", ["Vorn", "UnorderedMap", "Lmdb"]),
                        ("OrderedStep", ["Vorn", "OrderedMap", "Lmdb"]),
                        ("LookupHitWhileAnotherProcessWrites", ["Vorn"])]:
        for s in systems:
            print(row % (("%s %s" % (op, s),) + tuple(cpu(op, s, n) for n in sizes)))
    print("\nRatios (target in brackets)\n")
    print(head % (("",) + tuple("%d" % n for n in sizes)))
    ratio = "%-34s" + " %12.2f" * len(sizes)
    lines = [
        ("hit: Vorn / unordered_map [<=1.5]", lambda n: cpu("LookupHit", "Vorn", n) / cpu("LookupHit", "UnorderedMap", n)),
        ("miss: Vorn / unordered_map [<=1.5]", lambda n: cpu("LookupMiss", "Vorn", n) / cpu("LookupMiss", "UnorderedMap", n)),
        ("hit: LMDB / Vorn [>=5]", lambda n: cpu("LookupHit", "Lmdb", n) / cpu("LookupHit", "Vorn", n)),
        ("miss: LMDB / Vorn [>=5]", lambda n: cpu("LookupMiss", "Lmdb", n) / cpu("LookupMiss", "Vorn", n)),
        ("put: LMDB / Vorn [>=10]", lambda n: cpu("InsertOrReplace", "Lmdb", n) / cpu("InsertOrReplace", "Vorn", n)),
        ("new key: LMDB / Vorn", lambda n: cpu("InsertNewKey", "Lmdb", n) / cpu("InsertNewKey", "Vorn", n)),
        ("delete: LMDB / Vorn", lambda n: cpu("Delete", "Lmdb", n) / cpu("Delete", "Vorn", n)),
        ("ordered step: Vorn ns [<100]", lambda n: cpu("OrderedStep", "Vorn", n)),
    ]
    for name, f in lines:
        print(ratio % ((name,) + tuple(f(n) for n in sizes)))
    lat = t.get(("ChangeToReaderProcessHook", "Vorn", 0))
    base = t.get(("ChangeToReaderProcessHook", "PipeBaseline", 0))
    if lat:
        print("\nwriter change to a reader process's hook: median %.1f us [<50], p99 %.1f us"
              % (lat.get("median_us", float("nan")), lat.get("p99_us", float("nan"))))
    if base:
        print("plain pipe between two processes (the floor): median %.1f us, p99 %.1f us"
              % (base.get("median_us", float("nan")), base.get("p99_us", float("nan"))))


if __name__ == "__main__":
    main()
