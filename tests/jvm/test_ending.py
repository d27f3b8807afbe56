"""The VM ends while 16 daemon threads contend: with the right exit code, in time, every time."""

import time

import pytest

REPETITIONS = 5


@pytest.mark.parametrize("phase", ["summary", "detail"])
@pytest.mark.parametrize("way, exit_code", [("exit", 7), ("halt", 9), ("return", 0)])
def test_end_under_contention(jvm, phase, way, exit_code):
    for _ in range(REPETITIONS):
        run = jvm.run("Ending", phase, way, "stacks.txt", exit_code=exit_code, limit=60)
        assert run.out.endswith("ending\n")


@pytest.mark.parametrize("way, exit_code", [("exit", 7), ("halt", 9), ("return", 0)])
def test_end_under_contention_with_every_line_logged(jvm, way, exit_code):
    options = "logLevel=4,twHome={home}"
    jvm.run("Ending", "detail", way, "stacks.txt", exit_code=exit_code, options=options, limit=60)


# HotSpot 26 and later wait up to a minute for handlers that need a safepoint when they end.
@pytest.mark.parametrize("way, exit_code", [("exit", 7), ("halt", 9), ("return", 0), ("throw", 1)])
def test_end_is_in_time_while_16_threads_throw_and_64_contend(jvm, way, exit_code):
    for _ in range(3):
        run = jvm.run("BusyEnding", way, "stacks.txt", exit_code=exit_code, limit=120)
        assert time.time() - run.fact("end") / 1000 < 5
