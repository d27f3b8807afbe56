#!/usr/bin/env python3
"""Fails when the cost of an event or of the report grows faster than it should.

    growth.py build/release/tests/bench/growthBench          compares
    growth.py build/release/tests/bench/growthBench --times  prints what it measures by the clock

Instructions, as callgrind counts them, do not depend on the machine's speed, nor do bytes of the
heap: those of an event with many locks, threads or stacks are compared with those with few (beside
the VM's own calls), those of a pair of lock and thread in a large report with those in a small one,
and the heap that a report takes with its size.
"""

import argparse
import json
import pathlib
import subprocess
import sys
import tempfile

import guard

FLAT = 1.15  # a record that the first event of a lock makes is among the costs with many locks
LOGARITHMIC = 2
LINEAR = 1.1  # for each pair
SORTED = 1.4  # for each lock

# Of each benchmark: few, many, and the most that it may cost with many as a multiple of the cost with
# few. Of an event:
EVENTS = {
    "locksSummaryEnter": (10, 100000, FLAT),
    "locksSummaryEntered": (10, 100000, FLAT),
    "locksDetailEnter": (10, 100000, FLAT),
    "locksDetailEntered": (10, 10000, FLAT),
    "threadsDetailEnter": (1, 10000, LOGARITHMIC),
    "threadsDetailEntered": (1, 10000, LOGARITHMIC),
    "stacksDetailEnter": (1, 10000, FLAT),
}
FIRST_EVENTS = {
    "locksMeet": (1000, 10000, FLAT),
    "threadsMeet": (100, 1000, FLAT),
    "stacksMeet": (100, 1000, FLAT),
}
# Of one lock that is ranked, and of one pair in a report:
RANKINGS = {"ranking": (1000, 10000, SORTED)}
REPORTS = {
    "reportOfManyLocks": (1000, 100000, LINEAR),
    "reportOfManyThreads": (1000, 10000, LINEAR),
    "reportOfManyStacks": (1000, 10000, LINEAR),
}
ALL = {**EVENTS, **FIRST_EVENTS, **RANKINGS, **REPORTS}

# Heap bytes for each byte of a report of many pairs: of the whole session, of writing it.
PAIRS = 100000
HEAP = {"session/bytes": 3, "writing/bytes": 3}


def run(bench, names):
    """Runs the benchmarks of those names at full speed; gives their results."""
    with tempfile.TemporaryDirectory() as folder:
        results = pathlib.Path(folder) / "results.json"
        subprocess.run(
            [bench, pattern(names), f"--benchmark_out={results}", "--benchmark_out_format=json"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
        return json.loads(results.read_text())["benchmarks"]


def pattern(names):
    return "--benchmark_filter=" + "|".join(f"^{name}/" for name in names)


def costs(bench):
    """The cost of each case with few and with many, in instructions."""
    names = [f"{name}Calls/{few}" for name, (few, _, _) in EVENTS.items()]
    for name, (few, many, _) in ALL.items():
        names += [f"{name}/{few}", f"{name}/{many}"]
    counted = {}
    for each in guard.run_under_callgrind(bench, pattern(names)):
        name, size, *_ = each["name"].split("/")
        items = int(size) if name in RANKINGS or name in REPORTS else 1
        counted[name, int(size)] = each["instructions"] / items
    found = {}
    for name, (few, many, _) in ALL.items():
        calls = counted.get((f"{name}Calls", few), 0)
        found[name] = counted[name, few] - calls, counted[name, many] - calls
    return found


def problems(found, heap):
    """What grows too fast, from the costs of events and reports and the heap that reports take."""
    said = []
    for name, (few, many, most) in ALL.items():
        small, large = found[name]
        if large > most * small:
            said.append(f"{name}: {large:.0f} instructions with {many}, {small:.0f} with {few}: "
                        f"at most {most} times as many are expected")
    for name, ratios in heap.items():
        said += [f"{name}: {what} is {ratios[what]:.2f}, at most {most} is expected"
                 for what, most in HEAP.items() if ratios[what] > most]
    return said


def print_times(bench):
    names = [name for each in EVENTS for name in (each, f"{each}Calls")]
    results = run(bench, [*names, *FIRST_EVENTS, *RANKINGS, *REPORTS])
    times = {tuple(each["name"].split("/")[:2]): each for each in results}
    print(f"{'Event':24}{'with':>10}{'ns':>10}{'of the VM':>12}")
    for (name, size), each in times.items():
        if name not in {**EVENTS, **FIRST_EVENTS}:
            continue
        calls = times.get((f"{name}Calls", size))
        vm = f"{calls['cpu_time']:.0f}" if calls else ""
        print(f"{name:24}{size:>10}{each['cpu_time']:>10.0f}{vm:>12}")
    print(f"\n{'Ranking':24}{'locks':>10}{'ms':>10}{'ns a lock':>12}")
    for (name, size), each in times.items():
        if name in RANKINGS:
            print(f"{name:24}{size:>10}{each['cpu_time']:>10.1f}"
                  f"{each['cpu_time'] * 1e6 / int(size):>12.0f}")
    print(f"\n{'Report':24}{'pairs':>10}{'ms':>10}{'ns a pair':>12}{'kB':>10}"
          f"{'session/bytes':>16}{'writing/bytes':>16}")
    for (name, size), each in times.items():
        if name in REPORTS:
            print(f"{name:24}{size:>10}{each['cpu_time']:>10.1f}"
                  f"{each['cpu_time'] * 1e6 / int(size):>12.0f}{each['bytes'] / 1000:>10.0f}"
                  f"{each['session/bytes']:>16.3f}{each['writing/bytes']:>16.3f}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("bench", help="the program growthBench of a release build")
    parser.add_argument("--times", action="store_true", help="print times instead")
    arguments = parser.parse_args()
    if arguments.times:
        print_times(arguments.bench)
        return
    found = costs(arguments.bench)
    for name, (few, many, most) in ALL.items():
        small, large = found[name]
        print(f"{name:24}{small:10.0f} with {few:<8}{large:10.0f} with {many:<8}"
              f"{large / small:6.2f} times, at most {most}")
    results = run(arguments.bench, [f"{name}/{PAIRS}" for name in REPORTS])
    heap = {each["name"].split("/")[0]: each for each in results}
    for name, ratios in heap.items():
        print(f"{name:24}" + "".join(f"{what:>16}{ratios[what]:6.2f}, at most {most}"
                                     for what, most in HEAP.items()))
    said = problems(found, heap)
    if said:
        sys.exit("\n".join(said))


if __name__ == "__main__":
    main()
