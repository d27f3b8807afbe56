"""A busy JVM ends in time whatever the companion records, and whichever way it ends."""

import time

import pytest

from features import END_WITHIN_HANDLERS, SAMPLED_ALLOCATIONS

BOUND = 5  # seconds
WAYS = [("exit", 7), ("return", 0), ("halt", 9), ("term", 143)]
RECORDED = {
    "locks": ("mutexprofiling", "locks=true,locks.summary=500ms,locks.detail=1h"),
    "thrown": ("exceptionprofiling", "exceptions=true,exceptions.rate=0"),
    "made": ("exceptionprofiling,exceptionCapture=made", "exceptions=true,exceptions.rate=0"),
    "contention": ("contention,contention=1", "contention=true"),
    "allocations": ("contention", "allocations=true,allocations.interval=64k"),
}


def end(jvm, what, way, exit_code):
    features, given = RECORDED[what]
    words = features.split(",")
    options = ",".join(["twHome={home}", *words[1:], "features=" + words[0]])
    (jar,) = [p for p in jvm.class_path.split(":") if p.endswith("javanativeagent.jar")]
    run = jvm.run("BusyEnd", way, 1500, options=options, vm=[f"-javaagent:{jar}={given}"],
                  exit_code=exit_code, quiet=False, limit=100)
    return time.time() - run.fact("end") / 1000


@pytest.mark.parametrize("way, exit_code", WAYS)
@pytest.mark.parametrize("what", RECORDED)
def test_end_is_in_time(jvm, what, way, exit_code):
    if what == "allocations":
        jvm.need(SAMPLED_ALLOCATIONS)
    assert end(jvm, what, way, exit_code) < BOUND


def test_end_within_a_sink_is_in_time(jvm):
    jvm.need(END_WITHIN_HANDLERS)
    assert end(jvm, "thrown", "sink", 7) < BOUND
