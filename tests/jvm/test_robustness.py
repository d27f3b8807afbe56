"""Control calls and collections while threads contend."""

import json
import re
from pathlib import Path

import pytest

from harness import HOME

FILES = ("report.json", "stacks.txt")


@pytest.mark.parametrize("vm", [(), ("-Xcheck:jni",)], ids=["plain", "checked"])
def test_control_calls_in_any_order(jvm, vm):
    run = jvm.run("AnyOrder", *FILES, options=f"logLevel=1,twHome={HOME}", vm=vm)
    others = ("summary", "detail", "stopSummary", "stopDetail")
    assert run.facts["unstarted.stop"] == "[0]"
    assert run.facts["unstarted.report"] == "false"
    assert run.facts["started.start"] == run.facts["started.stop"] == "[1]"
    for when in ("unstarted", "started"):
        assert [run.facts[f"{when}.{call}"] for call in others] == ["[0]"] * 4
    assert run.report().root["sessionname"] == "any order"


def test_a_report_without_a_session_is_an_error(jvm):
    run = jvm.run("AnyOrder", *FILES, options=f"logLevel=1,twHome={HOME}")
    errors = [r for r in run.log() if r.severity == "Error"]
    assert any("dumpJsonObjectFromMapDS" in r.function + r.message for r in errors)


def test_200_sessions_under_contention(jvm):
    run = jvm.run("ManySessions", 200, ".", "stacks.txt")
    assert run.facts["ones"] == "400"
    names = {
        run.facts["lock.0"]: {"crowd-0", "crowd-2"},
        run.facts["lock.1"]: {"crowd-1", "crowd-3"},
    }
    for i in range(1, 201):
        report = run.report(f"{i}.json")
        assert (report.root["sessionid"], report.root["sessionname"]) == (i, f"session {i}")
        for lock, threads in names.items():
            counts = report.thread_counts(lock)
            assert set(counts) == threads
            assert min(counts.values()) >= 1
            # Each thread may be in the middle of one entry while the report is written.
            assert sum(counts.values()) <= report.locks[lock]["count"] + len(threads)
    # An owner that has just let go is nobody that an entry could be charged to.
    assert set(run.messages("Error")) <= {"monitor usage owner not found"}


def test_a_limit_of_the_file_size_harms_only_the_log(jvm):
    limit = 200_000
    options = f"logLevel=4,twHome={HOME}"
    run = jvm.run("ManySessions", 20, ".", "stacks.txt", options=options, file_limit=limit)
    assert run.facts["ones"] == "40"
    for i in range(1, 21):
        assert run.report(f"{i}.json").locks
    # On a slow machine there is so much to log that the agent begins its second file.
    files = sorted((run.home / "logs").iterdir())
    assert 1 <= len(files) <= 2
    texts = [file.read_bytes().decode("latin-1") for file in files]
    assert max(map(len, texts)) == limit
    for text in texts:
        _, *whole, _ = re.split(r"\n(?=[\d/]{8} [\d:]{8}\|)", text)  # the last one may be cut
        assert len(text) < limit or len(whole) > 100
        assert all(re.match(r"[^|]+\|\*{6}(\|[^|]+){7}\|.", record) for record in whole)


@pytest.mark.parametrize("collector", [None, "Serial", "Parallel", "G1", "Z"])
def test_loaders_are_dropped_during_a_session(jvm, collector):
    vm = [f"-XX:+Use{collector}GC"] if collector else ["-Xcheck:jni"]
    if not jvm.supports(*vm):
        pytest.skip(f"this Java has no {collector} collector")
    run = jvm.run("DroppedLoaders", *FILES, vm=vm)
    assert run.facts["stop"] == "1"
    report = run.report()
    for i in range(5):
        guest = run.facts[f"guest.{i}"]
        assert guest.startswith("DroppedLoaders$Guest@")
        assert report.locks[guest]["count"] == 2
        assert report.thread_counts(guest) == {"one": 1, "two": 1}
    assert report.owner_counts()["owner"] == 10


# HotSpot 23 and later read the java.lang.Thread of each thread when they are asked for an owner, and
# crash when one that is just attaching has none yet.
@pytest.mark.parametrize("threads", [1, 3])
def test_owners_are_asked_for_while_threads_attach(jvm, threads):
    storm = Path(jvm.class_path.split(":")[0]).parent / "libattachStorm.so"
    run = jvm.run("AttachStorm", storm, threads, 4000, quiet=False)
    assert run.fact("attached") > 100
    report = json.loads((run.folder / "storm.json").read_text("utf-8"))
    pairs = [pair for lock in report["locks"] for pair in lock["pairs"]]
    owners = {pair["ownerThread"] for pair in pairs} - {None}
    assert owners and all(name.startswith("contender-") for name in owners)
