"""What grows, and who holds it: the companion's class histograms and paths to roots."""

import json
import re
import subprocess
from pathlib import Path

import pytest

from features import (CLASSES_ARE_NO_ROOTS, INTERNED_STRINGS_ARE_NO_ROOTS, MODULES, SAMPLED_ALLOCATIONS,
                      STOPS_IN_LOG)

MAP = ["java.util.HashMap$Node", "java.util.HashMap$Node[]", "java.util.HashMap"]
LIST = ["java.lang.Object[]", "java.util.ArrayList"]
LOCALS = ["java.lang.ThreadLocal$ThreadLocalMap$Entry",
          "java.lang.ThreadLocal$ThreadLocalMap$Entry[]", "java.lang.ThreadLocal$ThreadLocalMap"]
FEW_MODULES = "java.base,java.instrument,java.logging"


@pytest.fixture
def start(jvm):
    def run(program, *arguments, vm=()):
        return jvm.run(program, *arguments, vm=["-Xmx400m", *vm])

    return run


def read(run, name):
    path = run.folder / name
    assert not list(run.folder.glob("*.part"))
    assert path.stat().st_mode & 0o777 == 0o600
    return json.loads(path.read_text("utf-8"))


def check_paths(report):
    """What must hold for each."""
    assert report["report"] == "paths" and report["version"] == 1 and report["problem"] is None
    assert report["source"] == "jdk.OldObjectSample"
    counted = sum(path["samples"] for path in report["paths"])
    assert counted + report["own"] == report["withRoot"] <= report["samples"]
    for path in report["paths"]:
        assert len(path["chain"]) <= 60 and len(path["stack"]) <= 64
        assert report["writtenAt"] - 3_600_000 < path["allocatedAt"] <= report["writtenAt"]
        assert all("0x" not in step["class"] for step in path["chain"])


# --- Growth ---


def test_the_class_that_grows_and_what_holds_it(start):
    run = start("GrowingMap", 6)
    growth = read(run, "growth.json")
    assert growth["report"] == "growth" and growth["version"] == 1 and growth["problem"] is None
    points = growth["points"]
    assert len(points) >= 6 and growth["askedMillis"] == 20
    spaces = [later["at"] - point["at"] for point, later in zip(points, points[1:-1])]
    for point, space in zip(points, spaces):
        assert space >= 99 * point["tookMillis"]  # at most 1 % of the time
    expected = run.fact("bytes a minute")
    first = growth["classes"][0]
    assert first["class"] == "byte[]" and first["bytes"] == sorted(first["bytes"])
    assert abs(first["bytesPerMinute"] / expected - 1) < 0.2 and first["fit"] > 0.9
    assert abs(growth["heap"]["bytesPerMinute"] / expected - 1) < 0.3
    left = growth["maxHeap"] - points[-1]["liveBytes"]
    until = growth["heap"]["fullAt"] - points[-1]["at"]
    assert abs(until / (left / growth["heap"]["bytesPerMinute"] * 60_000) - 1) < 0.01
    assert len(growth["classes"]) <= 200
    for each in growth["classes"]:
        assert len(each["bytes"]) == len(each["objects"]) == len(points)
        assert "0x" not in each["class"] and "nativeagent" not in each["class"]

    paths = read(run, "paths.json")
    check_paths(paths)
    held = paths["paths"][0]
    assert held["class"] == "byte[]" and held["root"]["text"] == "GrowingMap.KEPT"
    assert [step["class"] for step in held["chain"]] == [*MAP, "GrowingMap"]


def test_without_management_growth_has_a_problem(jvm, start):
    jvm.need(MODULES)
    run = start("GrowingMap", 0, vm=["--limit-modules", FEW_MODULES])
    growth = read(run, "growth.json")
    assert growth["problem"] == (
        "no class histograms: this Java lacks the module java.management")
    assert growth["points"] == [] and growth["classes"] == []
    paths = read(run, "paths.json")
    assert paths["problem"] == (
        "this Java has no flight recorder, or the program runs without the module jdk.jfr")
    assert paths["paths"] == [] and paths["samples"] == 0


def test_without_the_diagnostic_commands_growth_has_a_problem(jvm, start):
    jvm.need(MODULES)
    run = start("GrowingMap", 0, vm=["--limit-modules", f"{FEW_MODULES},java.management"])
    assert read(run, "growth.json")["problem"] == (
        "no class histograms: this VM has no diagnostic commands, or this Java lacks the module"
        " jdk.management")


# --- Who holds it ---


def test_the_program_stands_still_once_for_the_paths(jvm, start):
    jvm.need(STOPS_IN_LOG)
    run = start("Holders", "map", vm=["-Xlog:safepoint:file=stops.log"])
    check_paths(read(run, "paths.json"))
    log = (run.folder / "stops.log").read_text()
    *others, longest = sorted(int(nanos) for nanos in re.findall(
        r'"JFROldObject".*At safepoint: +(\d+) ns', log))
    assert all(each < longest / 4 for each in others), "not when the recording ends, too"


@pytest.mark.parametrize("way, chain, root", [
    ("map", [*MAP, "Holders"], ("static field", "Holders.MAP", None)),
    ("thread local", [*LIST, *LOCALS, "java.lang.Thread"],
     ("thread local", "java.util.ArrayList", "keeper")),
    ("thread stack", LIST, ("thread stack", "java.util.ArrayList", "holder")),
    ("queue", ["java.util.concurrent.LinkedBlockingQueue$Node",
               "java.util.concurrent.LinkedBlockingQueue", "Holders"],
     ("static field", "Holders.QUEUE", None)),
    ("lambdas", ["Holders$$Lambda", *LIST, "Holders"], ("static field", "Holders.LAMBDAS", None)),
])
def test_holders(jvm, start, way, chain, root):
    report = read(start("Holders", way), "paths.json")
    check_paths(report)
    paths = report["paths"]
    if not jvm.has(SAMPLED_ALLOCATIONS):  # with few samples, what holds them may have as many
        paths = [each for each in paths if each["class"] in ("byte[]", "Holders$Held")]
    found = paths[0]
    assert (found["root"]["kind"], found["root"]["text"], found["root"]["thread"]) == root
    classes = [step["class"] for step in found["chain"]]
    if found["class"] == "byte[]":
        assert classes.pop(0) == "Holders$Held" and found["chain"][0]["field"] == "content"
    classes = [re.sub(r"(?<=Lambda)\$\d+$", "", name) for name in classes]
    assert [name for name in classes if not name.startswith("java.lang.Thread$")] == chain
    assert any(frame.startswith("Holders") for frame in found["stack"])


CONTENT = ("static field", "Holders$Plugin.CONTENT")


def holder_of_arrays(jvm, way, found):
    """What is to be there; with older VMs the recorder finds roots of the VM's own first."""
    if way == "interned":
        return ("static field", "Holders.INTERNED") if jvm.has(INTERNED_STRINGS_ARE_NO_ROOTS) else (
            "other", "String Table, <unknown>: java.lang.String")
    if way == "one loader":
        return CONTENT
    if jvm.has(CLASSES_ARE_NO_ROOTS):
        return ("class loader", "Holders$PluginLoader (held by static field Holders.LOADERS)")
    return CONTENT if found == CONTENT else (
        "class loader", "Holders$PluginLoader (held by System Dictionary, <unknown>:"
        " java.security.ProtectionDomain)")


@pytest.mark.parametrize("way", ["interned", "one loader", "loaders"])
def test_holders_of_arrays(jvm, start, way):
    report = read(start("Holders", way), "paths.json")
    check_paths(report)
    found = report["paths"][0]
    root = (found["root"]["kind"], found["root"]["text"])
    assert root == holder_of_arrays(jvm, way, root)
    assert ("Holders$PluginLoader" in str(found["chain"])) == (root[0] == "class loader")


# --- Recordings of the program's own ---


def recorded(jvm, run, kind):
    tool = Path(jvm.java).with_name("jfr")
    command = [tool, "print", "--json", "--events", kind, run.folder / "own.jfr"]
    text = subprocess.run(command, capture_output=True, text=True, check=True).stdout
    return [event["values"] for event in json.loads(text)["recording"]["events"]]


def settings(jvm, run):
    """Of the VM's events in the program's recording, except for those that ours has as well."""
    found = {(each["id"], each["name"], each["value"])
             for each in recorded(jvm, run, "jdk.ActiveSetting")}
    ours = {each[0] for each in found if each[1] == "cutoff"}
    # The events of Java's own classes come later, in any order.
    return {each for each in found if each[0] not in ours and each[0] < 1000}


def test_a_recording_of_the_program_keeps_its_settings_and_events(jvm, start):
    jvm.need(SAMPLED_ALLOCATIONS)
    if not Path(jvm.java).with_name("jfr").exists():
        pytest.skip("no tool to read recordings with")
    vm = ["-XX:StartFlightRecording=filename=own.jfr,settings=profile,dumponexit=true"]
    alone = start("Holders", "no paths", vm=vm)
    beside = start("Holders", "map", vm=vm)
    check_paths(read(beside, "paths.json"))
    assert not list(beside.folder.glob("*.jfr.part"))
    expected = settings(jvm, alone)
    assert len(expected) > 100 and settings(jvm, beside) == expected
    for kind in ("jdk.GarbageCollection", "jdk.ObjectAllocationInNewTLAB", "jdk.JVMInformation"):
        if recorded(jvm, alone, kind):
            assert recorded(jvm, beside, kind), kind
