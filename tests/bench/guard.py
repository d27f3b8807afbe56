#!/usr/bin/env python3
"""Fails when an event costs more instructions or allocations than expected.json says.

    guard.py build/release/tests/bench/handlerBench            compares
    guard.py build/release/tests/bench/handlerBench --rewrite  writes what it counts to expected.json

The benchmarks run under callgrind, whose counts do not depend on the machine's speed.
"""

import argparse
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

EXPECTED = pathlib.Path(__file__).resolve().parent / "expected.json"
GROWTH = 1.05
FEW_ALLOCATIONS = 0.01  # an event: a table that grows once in a run


def run_under_callgrind(bench, *arguments):
    """Runs benchmarks; gives their results, as Google Benchmark writes them, with "instructions"."""
    if not shutil.which("valgrind"):
        sys.exit("guard: there is no valgrind (Debian: apt-get install valgrind)")
    with tempfile.TemporaryDirectory() as folder:
        results = pathlib.Path(folder) / "results.json"
        dumps = pathlib.Path(folder) / "dump"
        command = [
            *("valgrind", "--quiet", "--tool=callgrind", "--instr-atstart=no"),
            *(f"--callgrind-out-file={dumps}", bench, *arguments),
            *(f"--benchmark_out={results}", "--benchmark_out_format=json"),
        ]
        # The same versions of memcpy and its kind, whatever the processor has.
        tunables = "glibc.cpu.hwcaps=-AVX2,-AVX512F,-AVX512VL,-AVX512BW,-ERMS,-FSRM"
        # Blocks that are freed wait for their next use apart, whatever lies next to them.
        tunables += ":glibc.malloc.tcache_count=65535"
        environment = {**os.environ, "GLIBC_TUNABLES": tunables}
        done = subprocess.run(command, env=environment, capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(f"guard: {' '.join(command)} failed:\n{done.stdout}{done.stderr}")
        benchmarks = json.loads(results.read_text())["benchmarks"]
        for number, each in enumerate(benchmarks, 1):
            if "error_message" in each:
                sys.exit(f"guard: {each['name']}: {each['error_message']}")
            text = dumps.with_name(f"dump.{number}").read_text()
            instructions = int(re.search(r"^totals: (\d+)", text, re.M)[1])
            each["instructions"] = instructions / each["iterations"]
        return benchmarks


def count(bench):
    """Runs the benchmarks; gives instructions and allocations of an event by their names.

    Instructions are those beside the VM calls, where a benchmark "...Calls" makes these alone.
    """
    counted = {
        each["name"].split("/")[0]: {
            "instructions": round(each["instructions"]),
            "allocations": round(each["allocs/event"], 2),
        }
        for each in run_under_callgrind(bench)
    }
    calls = {name: counted.pop(name) for name in list(counted) if name.endswith("Calls")}
    for name, values in counted.items():
        values["instructions"] -= calls.get(f"{name}Calls", {"instructions": 0})["instructions"]
    return counted


def problems(expected, counted):
    """What has grown by more than 5 %, and which benchmarks are on one side only; a line each."""
    found = [f"{name}: not in expected.json" for name in counted if name not in expected]
    found += [f"{name}: did not run" for name in expected if name not in counted]
    for name in expected.keys() & counted.keys():
        for what, before in expected[name].items():
            slack = FEW_ALLOCATIONS if what == "allocations" else 0
            if counted[name][what] > before * GROWTH + slack:
                found.append(f"{name}: {counted[name][what]} {what} an event, expected {before}")
    return sorted(found)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("bench", help="the program handlerBench of a release build")
    parser.add_argument("--rewrite", action="store_true", help="write expected.json anew")
    arguments = parser.parse_args()
    counted = count(arguments.bench)
    if arguments.rewrite:
        EXPECTED.write_text(json.dumps(counted, indent=2) + "\n")
        return
    expected = json.loads(EXPECTED.read_text())
    for name, values in counted.items():
        print(f"{name:26}{values['instructions']:8} instructions{values['allocations']:8} "
              f"allocations, expected {expected.get(name)}")
    found = problems(expected, counted)
    if found:
        again = f"{sys.argv[0]} {arguments.bench} --rewrite"
        sys.exit("\n".join([*found, f"Where that is meant to be: {again}"]))


if __name__ == "__main__":
    main()
