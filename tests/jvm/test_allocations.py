"""The allocation profile finds what a program has kept, and where it came from.

The programs know what they allocate. A report's estimates are of samples: of n samples the sum is
right within 5 / sqrt(n) of itself, and a run in a million is not.
"""

import json
import math
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest

from features import (COMPACT_HEADERS, GENERATIONAL_ZGC, LAST_LOOK_OF_THE_AGENT,
                      SAMPLED_ALLOCATIONS, SAMPLES_AS_ASKED, SECURITY_MANAGER_BY_WORD,
                      VIRTUAL_THREADS)
from harness import DEFAULT_OPTIONS

KB = 1024
SESSION = "AllocationTruth$Session"
COLLECTORS = ("-XX:+UseG1GC", "-XX:+UseSerialGC", "-XX:+UseParallelGC", "-XX:+UseShenandoahGC",
              "-XX:+UseZGC")


@pytest.fixture(autouse=True)
def _needs_samples(jvm):
    jvm.need(SAMPLED_ALLOCATIONS)


def reported(run, name="running.json"):
    report = json.loads((run.folder / name).read_text("utf-8"))
    assert report["report"] == "allocations"
    return report


def sites_of(report, cls):
    return [each for each in report["sites"] if each["class"] == cls]


def sums_of(report, cls, member="alive"):
    """Samples, bytes and objects of all sites of a class."""
    found = [each[member] for each in sites_of(report, cls)]
    return tuple(sum(each[name] for each in found) for name in ("samples", "bytes", "objects"))


def frames_of(report, site):
    return next(each["frames"] for each in report["stacks"] if each["id"] == site["stack"])


def assert_near(estimate, truth, samples):
    """Whether an estimate is within five standard deviations of what is so."""
    assert samples > 20, "too few to judge"
    slack = 5 / math.sqrt(samples)
    assert abs(estimate - truth) <= slack * truth, (estimate, truth, samples)


def assert_whole(report):
    """What holds of any report."""
    sites = report["sites"]
    for member in ("allocated", "alive", "young"):
        of_sites = sum(each[member]["samples"] for each in sites)
        of_others = report["otherSites"][member]["samples"]
        assert of_sites + of_others == report[member]["samples"]
    for each in sites:
        assert each["alive"]["samples"] + each["young"]["samples"] <= each["allocated"]["samples"]
        assert sum(each["ages"]) == sum(each["seconds"]) == each["alive"]["samples"]
        assert len(each["course"]) + each["courseFrom"] == len(report["points"])
        assert not re.search(r"[/.+]0x", each["class"]), each["class"]
    for stack in report["stacks"]:
        assert stack["frames"]
    assert report["omitted"]["failed"] == 0
    return report


def oldest(report):
    """Of how many rounds there is a sample that outlived them, at least."""
    ages = [(1 << len(each["ages"])) // 2 for each in report["sites"] if each["ages"]]
    return max(ages, default=0)


# --- What is found.


def test_a_leak_is_found_by_class_and_site(jvm):
    run = jvm.run("AllocationTruth", 16 * KB, "sessions", "garbage", vm=("-Xmx512m",))
    report = assert_whole(reported(run))
    assert report["afterCollection"]
    samples, size, objects = sums_of(report, SESSION)
    shorter = 8 if jvm.has(COMPACT_HEADERS) else 0
    assert_near(objects, 400_000, samples)
    assert_near(size, 400_000 * (32 - shorter), samples)
    (first, *_) = sites_of(report, SESSION)
    assert re.match(r"AllocationTruth.openSessions\(AllocationTruth.java:\d+\)",
                    frames_of(report, first)[0])
    assert first["threads"][0]["name"] == "main"
    # What went again is in what was allocated only: but for the one that a field still holds.
    assert sums_of(report, "AllocationTruth$Passing")[0] <= 1
    passing = sites_of(report, "AllocationTruth$Passing")[0]["allocated"]
    assert_near(passing["bytes"], 400_000 * (24 - shorter), passing["samples"])
    top = [each["class"] for each in report["sites"][:4]]
    assert SESSION in top, top


def test_arrays_have_the_names_of_the_source(jvm):
    run = jvm.run("AllocationTruth", interval_for_thousands(jvm), "arrays", vm=("-Xmx512m",))
    report = assert_whole(reported(run))
    for cls, truth in (("byte[]", 2000 * (8 * KB + 16)), ("char[]", 2000 * (2 * KB + 16))):
        mine = [each for each in sites_of(report, cls)
                if "AllocationTruth.fillArrays" in frames_of(report, each)[0]]
        (site,) = mine
        assert_near(site["alive"]["bytes"], truth, site["alive"]["samples"])
    assert sums_of(report, "java.lang.String[]")[0] > 0
    assert sums_of(report, "java.lang.String[][]")[0] > 0


def test_lambdas_have_no_address(jvm):
    run = jvm.run("AllocationTruth", 16 * KB, "lambdas", vm=("-Xmx512m",))
    report = assert_whole(reported(run))
    mine = [each for each in report["sites"] if each["class"].startswith("AllocationTruth$$Lambda")]
    samples = sum(each["alive"]["samples"] for each in mine)
    assert_near(sum(each["alive"]["objects"] for each in mine), 200_000, samples)
    assert re.fullmatch(r"AllocationTruth\$\$Lambda(\$\d+)?", mine[0]["class"])


def test_what_a_stop_reports_is_what_was_alive_then(jvm):
    run = jvm.run("AllocationTruth", 64 * KB, "sessions", vm=("-Xmx512m",))
    running, ended = reported(run), reported(run, "ended.json")
    assert running["endedAt"] is None and ended["endedAt"] >= running["writtenAt"]
    assert ended["afterCollection"]
    assert abs(sums_of(ended, SESSION)[0] - sums_of(running, SESSION)[0]) <= 1


def interval_for_thousands(jvm):
    """Where the VM samples too much, one against which objects of a thousand bytes are small."""
    return (16 if jvm.has(SAMPLES_AS_ASKED) else 128) * KB


def test_threads_that_are_left_out_are_not_sampled(jvm):
    interval = interval_for_thousands(jvm)
    run = jvm.run("AllocationTruth", interval, "leftOut", "garbage")
    report = assert_whole(reported(run))
    assert report["omitted"]["leftOut"] > 1000 * 16 * KB / interval
    allocated = sites_of(report, "byte[]")
    samples = sum(each["allocated"]["samples"] for each in allocated)
    size = sum(each["allocated"]["bytes"] for each in allocated)
    # A loaded machine may leave the queue full; what was lost is in the report.
    assert_near(size + report["omitted"]["lostBytes"], 200 * KB * 1016, samples)


def test_many_threads_are_sampled(jvm):
    run = jvm.run("AllocationTruth", interval_for_thousands(jvm), "threads")
    report = assert_whole(reported(run))
    allocated = sites_of(report, "byte[]")
    samples = sum(each["allocated"]["samples"] for each in allocated)
    size = sum(each["allocated"]["bytes"] for each in allocated)
    # Four threads at full speed may fill the queue; what was lost is in the report. The first
    # sample of each thread follows the interval that the VM began with, half a megabyte.
    assert_near(size + report["omitted"]["lostBytes"] + 4 * 512 * KB, 80 * KB * 1016, samples)


def test_virtual_threads_share_a_name(jvm):
    jvm.need(VIRTUAL_THREADS)
    run = jvm.run("VirtualAllocations")
    report = assert_whole(reported(run, "virtual.json"))
    samples, _, objects = sums_of(report, "VirtualAllocations$Request")
    assert_near(objects, run.fact("kept"), samples)
    threads = [thread for each in sites_of(report, "VirtualAllocations$Request")
               for thread in each["threads"]]
    assert {each["name"] for each in threads} == {"virtual threads"}


# --- Collectors.


@pytest.mark.parametrize("collector", COLLECTORS)
def test_rounds_are_collections_and_not_pauses(jvm, collector):
    if not jvm.supports(collector):
        pytest.skip("this VM has no such collector")
    run = jvm.run("AllocationTruth", 64 * KB, "sessions", "gigabyte",
                  vm=(collector, "-Xmx256m"), limit=200)
    report = assert_whole(reported(run, "before.json"))
    # ZGC with generations clears weak references in major collections only, which may be rare.
    has_major = collector.endswith("ZGC") and jvm.has(GENERATIONAL_ZGC)
    least = 0 if has_major else 2
    assert least <= report["collections"] <= run.fact("collections.before")
    assert oldest(report) <= run.fact("collections.before")
    report = assert_whole(reported(run))
    samples, _, objects = sums_of(report, SESSION)
    assert_near(objects, 400_000, samples)
    assert report["young"]["samples"] <= 5
    # Garbage of two thousand megabytes, of which nothing is left.
    garbage = [each for each in sites_of(report, "byte[]")
               if any("makeGarbage" in frame for frame in frames_of(report, each))]
    assert sum(each["alive"]["samples"] for each in garbage) <= 1
    assert sum(each["allocated"]["samples"] for each in garbage) > 10_000


# --- Beside others.


def test_with_the_vm_from_the_start_in_the_interpreter(jvm):
    options = DEFAULT_OPTIONS + ",allocations=1,allocationsInterval=4096"
    run = jvm.run("AllocationTruth", 16 * KB, "arrays", options=options,
                  vm=("-Xint", "-Xcheck:jni"), quiet=False)
    assert run.facts["problem"] == "the allocation profile runs already"


def test_every_check_of_the_interface_is_passed(jvm):
    run = jvm.run("AllocationTruth", 4 * KB, "arrays", "lambdas", "threads",
                  vm=("-Xcheck:jni", "-Xmx512m"), quiet=False)
    assert_whole(reported(run))


def test_another_agent_may_have_the_samples(jvm):
    other = Path(jvm.class_path.split(":")[0]).parent / "libsamplingAgent.so"
    run = jvm.run("AllocationTruth", 64 * KB, "sessions", vm=(f"-agentpath:{other}",))
    # The agent of the run comes first on the command line, and asks later, when it starts.
    assert run.facts["problem"] == (
        "the VM gives the samples of allocations to one agent, and another one has them")
    assert run.fact("kept") == 400_000


# --- The end.


def ending(jvm, how, action, vm=(), exit_code=0):
    return jvm.run("AllocationEnding", how, action, vm=vm, exit_code=exit_code, quiet=False)


def assert_kept_before_hooks(jvm, run):
    assert run.facts["hook"] == "null"
    assert run.facts["action"].endswith(" false"), "the hooks were first"
    assert run.facts["hookAfterAction"] == "true"
    report = assert_whole(reported(run, "end.json"))
    assert report["shutdownAt"] is not None
    samples, _, objects = sums_of(report, "AllocationEnding$Session")
    assert_near(objects, 100_000, samples)
    (site,) = sites_of(report, "AllocationEnding$Session")
    if jvm.has(LAST_LOOK_OF_THE_AGENT):
        assert site["afterHooks"]["samples"] <= 1, "the hooks have cleared them"
    else:
        assert site["afterHooks"] is None
    return report


@pytest.mark.parametrize("how, status", [("exit", 3), ("return", 0)])
def test_what_hooks_erase_is_in_the_report(jvm, how, status):
    assert_kept_before_hooks(jvm, ending(jvm, how, "plain", exit_code=status))


@pytest.mark.parametrize("collector", COLLECTORS)
def test_every_collector_lets_the_vm_end(jvm, collector):
    if not jvm.supports(collector):
        pytest.skip("this VM has no such collector")
    # Some have ended their threads by then: they never answer a request for a collection.
    run = ending(jvm, "exit", "plain", vm=(collector,), exit_code=3)
    report = assert_whole(reported(run, "end.json"))
    samples, _, objects = sums_of(report, "AllocationEnding$Session")
    assert_near(objects, 100_000, samples)
    if report["afterHooks"] is not None:
        (site,) = sites_of(report, "AllocationEnding$Session")
        assert site["afterHooks"]["samples"] <= 1, "the hooks have cleared them"


@pytest.mark.parametrize("action", ["throws", "error"])
def test_an_action_that_fails_is_no_matter(jvm, action):
    assert_kept_before_hooks(jvm, ending(jvm, "exit", action, exit_code=3))


def test_an_exit_from_another_thread_waits_for_the_action(jvm):
    run = ending(jvm, "exit", "exits", exit_code=3)
    assert run.facts["otherWaits"] == "true"
    assert_kept_before_hooks(jvm, run)


def test_without_an_action_the_report_is_of_the_end(jvm):
    run = ending(jvm, "exit", "none", exit_code=3)
    report = assert_whole(reported(run, "end.json"))
    assert report["shutdownAt"] is None
    assert report["afterHooks"] is None


def test_the_action_runs_under_a_security_manager(jvm):
    jvm.need(SECURITY_MANAGER_BY_WORD)
    folder = jvm.new_folder("policy")
    policy = folder / "all.policy"
    policy.write_text("grant { permission java.security.AllPermission; };\n")
    vm = ("-Djava.security.manager", f"-Djava.security.policy=={policy}")
    assert_kept_before_hooks(jvm, ending(jvm, "exit", "plain", vm=vm, exit_code=3))


def test_a_signal_that_ends_the_program_runs_the_action(jvm):
    folder = jvm.new_folder("sigterm")
    command = [jvm.java, "-Xmx256m", f"-agentpath:{jvm.agent}=logLevel=3,twHome={folder / 'home'}",
               "-cp", jvm.class_path, "AllocationEnding", "sleep", "plain"]
    with open(folder / "out", "wb") as out:
        process = subprocess.Popen(command, cwd=folder, stdout=out, stderr=subprocess.STDOUT)
        try:
            end = time.monotonic() + 60
            while b"ready" not in (folder / "out").read_bytes():
                assert time.monotonic() < end and process.poll() is None
                time.sleep(0.05)
            process.send_signal(signal.SIGTERM)
            assert process.wait(60) == 128 + signal.SIGTERM
        finally:
            if process.poll() is None:
                process.kill()
                process.wait()
    report = assert_whole(json.loads((folder / "end.json").read_text("utf-8")))
    samples, _, objects = sums_of(report, "AllocationEnding$Session")
    assert_near(objects, 100_000, samples)
    if jvm.has(LAST_LOOK_OF_THE_AGENT):
        assert report["afterHooks"]["samples"] < report["alive"]["samples"]
    else:
        assert report["afterHooks"] is None
