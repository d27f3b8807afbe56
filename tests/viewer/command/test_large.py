"""Memory that twreport takes for reports of many megabytes."""

import json
import os
import subprocess
import sys

import pytest

TWREPORT = os.environ["TWREPORT"]
MEGABYTE = 1_000_000


def peak_memory(*arguments):
    """Runs twreport in a process of its own, whose children's peak is that of twreport."""
    script = (
        "import resource, subprocess, sys;"
        "subprocess.run(sys.argv[1:], stdout=subprocess.DEVNULL, check=True, timeout=100);"
        "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss * 1024)")
    done = subprocess.run([sys.executable, "-c", script, TWREPORT, *map(str, arguments)],
                          capture_output=True, check=True, timeout=110)
    return int(done.stdout)


def lock_report(file):
    stacks = ",\n".join(f'"{10**19 + i}": {{"count": 1, "hashcode": "0"}}' for i in range(200))
    thread = (f'{{"name": "t", "count": 200, "totalBlockTime": 1, "totalWaitTime": 0,'
              f'"stacktracebean": {{{stacks}}}}}')
    file.write('{"sessionname": "large", "sessionid": 1, "stacktracemap": {},'
               '"blockingThreads": {}, "lockmap": {')
    for i in range(8 * MEGABYTE // (4 * len(thread))):
        threads = ",".join(f'"t{t}": {thread}' for t in range(4))
        file.write(("," if i else "") + f'"a.B@{i}": {{"id": "", "count": 800, "graph": [],'
                   f'"totalBlockTime": 4, "totalWaitTime": 0, "threadbean": {{{threads}}}}}')
    file.write("}}")


def exceptions(file):
    values = [{"name": f"value{i}", "type": "int", "value": str(i)} for i in range(60)]
    line = json.dumps({"time": "2026-11-21T14:35:15.123Z", "thread": "main", "class": "a.X",
                       "frames": [{"method": "a.B.c", "locals": values}], "raw": "x" * 1000})
    for _ in range(8 * MEGABYTE // len(line)):
        file.write(line + "\n")


def one_name(file):
    file.write('{"sessionname": "' + "n" * (8 * MEGABYTE) + '", "sessionid": 1, "lockmap": {},'
               '"stacktracemap": {}, "blockingThreads": {}}')


@pytest.mark.parametrize("write, multiple", [(lock_report, 3), (exceptions, 4), (one_name, 10)])
@pytest.mark.parametrize("option", ["--json", "--top=3"])
def test_memory_is_a_small_multiple_of_the_input(tmp_path, write, multiple, option):
    report = tmp_path / "report"
    with report.open("w") as file:
        write(file)
    assert peak_memory(report, option) < multiple * report.stat().st_size
