"""What the ratio scripts share: their command line and a Google Benchmark
program's JSON results, run now or read from a file of an earlier run."""
import argparse
import json
import os
import subprocess
import sys
import tempfile


def parse_args(doc, default_bench):
    p = argparse.ArgumentParser(description=doc, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--bench", default=default_bench)
    p.add_argument("--json", help="results file: read it if it exists, else write it")
    p.add_argument("--rerun", action="store_true", help="run even if --json exists")
    p.add_argument("rest", nargs="*", help="arguments for the benchmark program (after --)")
    return p.parse_args()


def load(args):
    if args.json and os.path.exists(args.json) and not args.rerun:
        with open(args.json) as f:
            return json.load(f)
    out = args.json or tempfile.mktemp(suffix=".json")
    cmd = [args.bench, "--benchmark_out=" + out, "--benchmark_out_format=json"] + args.rest
    subprocess.run(cmd, check=True, stdout=sys.stderr)
    with open(out) as f:
        return json.load(f)
