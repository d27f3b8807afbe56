"""The reading of a JVM's safepoint log, and the arithmetic behind the tables of bench/run."""

import os
import pathlib
import sys
import time

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bench"))

from benchlib import jvm, safepoints, tables, truth  # noqa: E402

# One line of JDK 17 and one of JDK 25.
LINES = (
    '[1000ns] Safepoint "GetOrSetLocal", Time since last: 8 ns, Reaching safepoint: 20 ns,'
    " At safepoint: 30 ns, Total: 50 ns\n",
    '[3000ns] Safepoint "HeapIterateOperation", Time since last: 8 ns, Reaching safepoint: 20 ns,'
    " At safepoint: 30 ns, Leaving safepoint: 50 ns, Total: 700 ns, Threads: 1 runnable, 9 total\n",
)


def test_safepoints_of_the_measured_time(tmp_path):
    path = tmp_path / "log"
    path.write_text("".join(LINES))
    log = safepoints.SafepointLog(path)
    assert log.between(900, 2000) == [safepoints.Safepoint(1000, 50, "GetOrSetLocal")]
    assert log.between(2000, 4000) == [safepoints.Safepoint(3000, 700, "HeapIterateOperation")]


def test_safepoint_begun_before_the_measured_time_is_cut(tmp_path):
    path = tmp_path / "log"
    path.write_text(LINES[1])
    assert [each.nanos for each in safepoints.SafepointLog(path).between(2900, 4000)] == [100]


def test_line_still_being_written_is_read_when_it_is_whole(tmp_path):
    path = tmp_path / "log"
    path.write_text(LINES[0] + LINES[1][:40])
    log = safepoints.SafepointLog(path)
    assert len(log.between(0, 1500)) == 1
    with open(path, "a") as file:
        file.write(LINES[1][40:])
    assert len(log.between(1500, 4000)) == 1


def test_percentiles_of_a_histogram():
    counts = [0] * 200
    counts[10] = 50  # 10 ns
    counts[32 + 5] = 49  # 37 ns
    counts[64] = 1  # 64 and 65 ns
    assert tables.percentile(counts, 0.5) == 11
    assert tables.percentile(counts, 0.99) == 38
    assert tables.percentile(counts, 1) == 66
    assert tables.percentile([0] * 200, 0.5) is None


def test_ratio_compares_within_a_turn():
    rounds = [
        {
            "slow": [{"operationsPerSecond": 1.0}, {"operationsPerSecond": 50.0}],
            "fast": [{"operationsPerSecond": 2.0}, {"operationsPerSecond": 100.0}],
        }
    ]
    assert tables.ratio(rounds, "slow", "fast") == tables.Spread(0.5, 0.5, 0.5)
    assert tables.ratio(rounds, "slow", "not measured") is None


@pytest.mark.parametrize(
    "is_upper_limit, verdict",
    [
        (False, "goal: missed in JDK 17 a (0.500)"),
        (True, "goal: reached, worst in JDK 17 a (0.500)"),
    ],
)
def test_goal(is_upper_limit, verdict):
    goal = tables.Goal("goal", lambda rounds: rounds, {"a": 0.9}, is_upper_limit)
    assert goal.verdict([("JDK 17 a", "a", 0.5), ("JDK 17 b", "b", 5)]) == verdict
    assert goal.verdict([]) == "goal: not measured"


def test_markdown_has_the_tables_and_goals(tmp_path):
    path = tmp_path / "tables.md"
    with open(path, "w") as file:
        out = tables.MarkdownOutput(file)
        out.text("\nWhat it says.\n")
        out.table(("", "Ratio"), [["library", tables.Spread(0.5, 0.4, 0.6)], ["none", None]], "JDK 17")
        out.goals([tables.Goal("goal", lambda rounds: rounds, {"a": 1})], [("JDK 17 a", "a", 2)])
    assert path.read_text() == (
        "What it says.\n\n**JDK 17**\n\n"
        "|  | Ratio |\n| --- | ---: |\n| library | 0.50 ±20% |\n| none | - |\n\n"
        "- goal: reached, worst in JDK 17 a (2.000)\n\n"
    )


def test_processor_time_of_a_process():
    before = time.process_time_ns()
    read = jvm.processor_nanos(os.getpid())
    assert before <= read <= time.process_time_ns()


def _contention(count, seconds, cut):
    """A round of which the library's report says this; true were 100 enters in 50 seconds."""
    return {
        "tools": {truth._LIBRARY: {"count": count, "seconds": seconds, "cut": cut}},
        "truths": {truth._LIBRARY: {"count": 100, "seconds": 50.0}},
    }


@pytest.mark.parametrize(
    "seconds, cut, error",
    [
        (49, 1, 0),  # 49 to 50 seconds
        (48, 1, 0.02),
        (52, 1, 0.04),
        (40, 16, None),  # of 16 monitors: 40 to 56 seconds say nothing
    ],
)
def test_time_that_is_cut_off(seconds, cut, error):
    assert truth._time_error([_contention(100, seconds, cut)]) == (
        error if error is None else pytest.approx(error)
    )


def test_counts_beside_the_truth():
    assert truth._count_error([_contention(99, 50, 1)]) == pytest.approx(0.01)
    assert truth._count_error([_contention(None, 50, 1)]) is None
    assert [str(each) for each in truth._shares([_contention(99, 49, 1)], truth._LIBRARY)] == [
        "0.99",
        "0.98 to 1.00",
    ]
