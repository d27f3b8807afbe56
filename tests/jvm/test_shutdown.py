"""What is alive when the JVM ends is reported before the program's shutdown hooks free it."""

import json
import re
import stat
import time

import pytest

from features import SAMPLED_ALLOCATIONS

OUTPUT = "results"
SAY = "javanativeagent: "
ALLOCATIONS = "allocations=true,allocations.interval=64k"
MEMORY = "memory=true,memory.track=com.example.tracked.*,memory.interval=1h"
ENDS = [("exit", 7), ("return", 0), ("term", 143), ("twice", 7), ("interrupted", 7)]


@pytest.fixture
def start(jvm):
    (jar,) = [p for p in jvm.class_path.split(":") if p.endswith("javanativeagent.jar")]

    def run(way, exit_code, *given, **others):
        options = ",".join((f"output={OUTPUT}", *given))
        return jvm.run("LastOrder", way, OUTPUT, vm=[f"-javaagent:{jar}={options}"],
                       exit_code=exit_code, quiet=False, **others)

    return run


def folder_of(run):
    (folder,) = (run.folder / OUTPUT).iterdir()
    return folder


def tracked(folder):
    classes = json.loads((folder / "memory-1.json").read_text())["topNMemoryleakClass"]
    return {name: row["totalCount"] for name, row in classes.items()}


def allocations(folder):
    report = json.loads((folder / "allocations-1.json").read_text())
    assert report["report"] == "allocations" and report["startedAt"] <= report["writtenAt"]
    return report


def site_of(report, method):
    """The figures of the site whose topmost frame is this method."""
    stacks = {each["id"]: each["frames"] for each in report["stacks"]}
    found = [each for each in report["sites"]
             if each["stack"] is not None and "".join(stacks[each["stack"]][:1]).startswith(method)]
    assert len(found) == 1, [each["class"] for each in report["sites"]]
    return found[0]


@pytest.mark.parametrize("way, exit_code", ENDS)
def test_reports_are_there_before_the_hooks_run(jvm, start, way, exit_code):
    if not jvm.has(SAMPLED_ALLOCATIONS):
        run = start(way, exit_code, MEMORY)
        assert run.err == "" and run.facts["memory-1.json"] == "true"
        assert tracked(folder_of(run)) == {"com.example.tracked.Tracked": 30}
        return
    run = start(way, exit_code, ALLOCATIONS, MEMORY)
    assert run.err == ""
    assert run.facts["memory-1.json"] == run.facts["allocations-1.json"] == "true"
    folder = folder_of(run)
    assert tracked(folder) == {"com.example.tracked.Tracked": 30}
    report = allocations(folder)
    assert report["endedAt"] >= report["shutdownAt"] >= report["startedAt"]
    kept = site_of(report, "LastOrder.keep(LastOrder.java:")
    assert (kept["class"], kept["alive"]["samples"], kept["allocated"]["samples"]) == ("byte[]", 30, 30)
    assert kept["afterHooks"]["samples"] == 0, "the hook has thrown them away"
    assert stat.S_IMODE((folder / "allocations-1.json").stat().st_mode) == 0o600
    assert not list(folder.glob("*.part"))


@pytest.mark.parametrize("way, exit_code", [("exit", 7), ("halt", 7), ("kill", 137)])
def test_the_report_is_written_anew_meanwhile(start, way, exit_code):
    run = start(f"allocations-1.json/{way}", exit_code, ALLOCATIONS, "allocations.write=1s")
    report = allocations(folder_of(run))
    assert (report["shutdownAt"] is None) == (way != "exit")
    assert (report["endedAt"] is None) == (way == "kill")
    samples = site_of(report, "LastOrder.keep")["allocated"]["samples"]
    # What was kept after the last report went with the killed JVM.
    assert samples == 30 or way == "kill" and 0 < samples < 30


def test_the_companion_is_not_sampled_on_threads_of_the_program(start):
    report = allocations(folder_of(start("exit", 7, "allocations=true",
                                         options="twHome={home},allocations=1,"
                                                 "allocationsInterval=1024,features=contention")))
    # What the VM makes to load the first classes comes before the companion can skip it.
    own = re.compile(r".*nativeagent\.companion\.(?!Companion\.)C")
    frames = {frame for each in report["stacks"] for frame in each["frames"]}
    assert not [frame for frame in frames if own.match(frame)]


def test_a_profile_that_began_with_the_jvm(start):
    run = start("exit", 7, "allocations=true,allocations.interval=1m",
                options="twHome={home},allocations=1,allocationsInterval=65536,features=contention")
    assert run.err == ""
    report = allocations(folder_of(run))
    assert report["settings"] == {"intervalBytes": 65536, "liveSamples": 50_000}


def test_a_session_that_is_too_short_for_paths(start):
    folder = folder_of(start("exit", 7, ALLOCATIONS, "allocations.paths=true"))
    paths = json.loads((folder / "allocations-1.paths").read_text())
    assert paths["report"] == "paths" and (paths["problem"] or paths["paths"])
    assert not list(folder.glob("*.part"))


def test_no_collection_before_the_last_report(start):
    run = start("exit", 7, ALLOCATIONS, "allocations.collect=false")
    report = allocations(folder_of(run))
    assert report["shutdownAt"] is not None and report["afterCollection"] is False


def test_a_lock_session_in_its_detail_phase_does_not_stand_in_the_way(start):
    run = start("locks-1.stacks.part/exit", 7, ALLOCATIONS, MEMORY,
                "locks=true,locks.summary=0,locks.detail=1h")
    assert run.err == "" and run.facts["memory-1.json"] == "true"
    assert tracked(folder_of(run)) == {"com.example.tracked.Tracked": 30}
    assert (folder_of(run) / "locks-1.json").exists()


@pytest.mark.parametrize("way", ["sink", "limit"])
def test_code_that_the_agent_calls_ends_the_jvm(start, way):
    began = time.monotonic()
    run = start(way, 7, ALLOCATIONS)
    assert time.monotonic() - began < 9, "nobody has waited for the thread that ends the JVM"
    assert run.err == "" and run.facts["allocations-1.json"] == "true"
    report = allocations(folder_of(run))
    assert site_of(report, "LastOrder.keep")["alive"]["samples"] == 30


def test_a_control_call_that_never_ends(start):
    began = time.monotonic()
    run = start("stuck", 7, ALLOCATIONS, MEMORY)
    assert time.monotonic() - began < 45, "10 s before the hooks, 2 s and 10 s in them"
    assert run.err.splitlines() == [
        SAY + "the shutdown hooks of the program run before what is alive is reported: that takes more"
        " than 10 s",
        SAY + "running sessions get no report: another start or stop took too long"]
    assert run.facts["memory-1.json"] == run.facts["allocations-1.json"] == "false"
    report = allocations(folder_of(run))
    assert report["shutdownAt"] is None and report["endedAt"] is not None, "the VM has written it"


@pytest.mark.parametrize("track, shown", [
    ("byte[]", "byte[]"), ("no.such.Class\\,LastO*", "LastO*"), ("*", "*"), ("Keeper", "Keeper")])
def test_what_memory_reports_cannot_have(start, track, shown):
    run = start("exit", 7, f"memory=true,memory.track={track},allocations.interval=64k")
    (line, *more) = run.err.splitlines()
    assert line.startswith(SAY + f"memory.track: '{shown}': memory reports have no arrays of prim")
    assert line.endswith("has all classes, by samples: allocations-N.json")
    unmatched = {"LastO*": "no.such.Class", "Keeper": "Keeper"}.get(shown)
    assert (f"no loaded class matches '{unmatched}'" in "".join(more)) if unmatched else not more
    folder = folder_of(run)
    assert tracked(folder) == {}
    report = allocations(folder)
    assert site_of(report, "LastOrder.keep")["alive"]["samples"] == 30


def test_arrays_of_classes_are_in_memory_reports(start):
    run = start("exit", 7, "memory=true,memory.track=java.lang.String[]\\,java.lang.Object[][]")
    assert re.search(r"^(javanativeagent: memory.track: no loaded class matches .*\n)?$", run.err)
    assert set(tracked(folder_of(run))) <= {"[Ljava.lang.String;", "[[Ljava.lang.Object;"}
    assert tracked(folder_of(run))["[Ljava.lang.String;"] > 0


def test_what_is_alive_by_the_typed_api(jvm):
    run = jvm.run("AllocationApi", ".", vm=["-Xcheck:jni", "-Xmx1g", "-XX:+UseSerialGC"])
    facts = run.facts
    assert "IllegalArgumentException" in facts["refused.nowhere"]
    running = "IllegalStateException: an allocation session is already running: stop it first"
    assert facts["refused.second"] == facts["refused.while unwritten"] == running
    assert facts["snapshot"] == "a.json null"
    assert facts["refused.snapshot"].startswith("FileSystemException: ")
    assert facts["refused.stop"].startswith("FileSystemException: ") and facts["stopped"] == "true"
    assert facts["refused.afterwards"] == "IllegalStateException: the allocation session is stopped"
    assert facts["stop"] == facts["stopAgain"] == "a.json" and facts["bytes"] == "true"
    assert facts["next"] == "b.json"

    so_far, last, second = (json.loads((run.folder / f"{name}.json").read_text())
                            for name in ("a-1", "a", "b"))
    assert so_far["endedAt"] is None and so_far["afterCollection"] and last["endedAt"] is not None
    for report in (so_far, last):
        kept = site_of(report, "AllocationApi.keep")
        assert (kept["allocated"]["samples"], kept["alive"]["samples"]) == (20, 20)
        dropped = site_of(report, "AllocationApi.drop")
        assert (dropped["allocated"]["samples"], dropped["alive"]["samples"]) == (20, 0)
    assert second["settings"] == {"intervalBytes": 65_536, "liveSamples": 1000}
    kept = site_of(second, "AllocationApi.keep")
    assert (kept["allocated"]["samples"], kept["alive"]["samples"], kept["young"]["samples"]) == (1, 0, 1)
    assert not second["afterCollection"] and not list(run.folder.glob("*.part"))

    def tracked_in(name):
        classes = json.loads((run.folder / name).read_text())["topNMemoryleakClass"]
        return {name: row["totalCount"] for name, row in classes.items()}

    assert tracked_in("with.json") == {"com.example.tracked.Tracked": 5}
    assert tracked_in("without.json") == tracked_in("with.json"), "those of the session before"
