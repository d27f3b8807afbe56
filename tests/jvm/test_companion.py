"""The companion: sessions by options of -javaagent, by its API and by its MBean, and what can go
wrong with them."""

import itertools
import json
import os
import re
import shutil
import stat
import subprocess
import tempfile
import threading
import time
import zipfile
from datetime import datetime
from pathlib import Path

import pytest

from features import MODULES, SAMPLED_ALLOCATIONS, SECURITY_MANAGER, VIRTUAL_THREADS
from harness import HOME, Report, read_stacks

LOCKS = "locks=true,locks.summary=1h,locks.detail=1h"
OUTPUT = "results"
SAY = "javanativeagent: "


@pytest.fixture(scope="module")
def jar(jvm):
    (path,) = [p for p in jvm.class_path.split(":") if p.endswith("javanativeagent.jar")]
    return path


@pytest.fixture
def start(jvm, jar):
    """Runs a program with the companion; its working directory is the run's folder."""

    def run(program, *arguments, given=f"output={OUTPUT}", vm=(), **others):
        return jvm.run(program, *arguments, vm=[f"-javaagent:{jar}={given}", *vm], **others)

    return run


def run_folder(run, output=None):
    (folder,) = (output or run.folder / OUTPUT).iterdir()
    assert re.fullmatch(r"run-\d{8}-\d{6}-\d+", folder.name)
    return folder


def names(folder):
    return sorted(file.name for file in folder.iterdir())


def lines(file):
    """The records of a file of exceptions, and its last line when that is a summary."""
    read = [json.loads(line) for line in file.read_text("utf-8").splitlines()]
    summary = read.pop() if read and "recorded" in read[-1] else None
    return read, summary


def said(run):
    """All that the companion prints except for one thing, which is up to the machine."""
    told = run.err.splitlines(keepends=True)
    return "".join(line for line in told if "more than 2 % of" not in line)


# --- Sessions to the end of the JVM ---


@pytest.mark.parametrize("way, exit_code", [("exit", 7), ("return", 0), ("term", 143)])
@pytest.mark.parametrize("phase", ["waiting", "summary", "detail", "locks-1.json"])
def test_the_end_in_each_phase(start, phase, way, exit_code):
    options = {
        "waiting": "locks=true,locks.delay=1h",
        "summary": "locks=true,locks.summary=1h",
        "detail": LOCKS,
        "locks-1.json": "locks=true,locks.summary=20ms,locks.detail=200ms",
    }
    run = start("Profiled", phase, way, OUTPUT, given=f"output={OUTPUT},{options[phase]}",
                exit_code=exit_code, quiet=False)
    assert run.out.endswith("ending\n")
    if phase == "waiting":
        assert run.err == "" and names(run_folder(run)) == ["run.json"]
        return
    folder = run_folder(run)
    assert names(folder) == ["locks-1.json", "locks-1.stacks", "run.json"]
    report = Report(folder / "locks-1.json")
    if phase == "summary":
        assert run.err.startswith(SAY + "lock session 1 ends in its summary phase")
        assert report.locks == {}
    else:
        assert run.err == ""
    if phase == "detail":
        lock = report.locks[run.facts["lock"]]
        assert set(lock["threadbean"]) == {"clerk-1", "clerk-2", "clerk-3"}
        known = {str(hash_) for hash_, _ in read_stacks(folder / "locks-1.stacks")}
        assert known and set(report.stacks) <= known
    assert not any("nativeagent" in name for name in report.locks), "its own locks"


def test_what_a_run_leaves(start):
    given = (f"output={OUTPUT},{LOCKS},locks.name=the till,exceptions=true,memory=true,"
             "memory.track=com.example.tracked.*\\,no.such.Class")
    run = start("Profiled", "detail", "exit", OUTPUT, given=given, exit_code=7, quiet=False)
    assert said(run) == (SAY + "memory.track: no loaded class matches 'no.such.Class'"
                       " (nested classes are written com.example.Outer$Inner)\n")
    folder = run_folder(run)
    assert names(folder) == ["exception-counts.json", "exceptions.jsonl", "locks-1.json",
                             "locks-1.stacks", "memory-1.json", "memory-1.sweeps", "run.json"]
    assert stat.S_IMODE((run.folder / OUTPUT).stat().st_mode) == 0o700
    assert stat.S_IMODE(folder.stat().st_mode) == 0o700
    assert {stat.S_IMODE(file.stat().st_mode) for file in folder.iterdir()} == {0o600}

    about = json.loads((folder / "run.json").read_text())
    assert folder.name.endswith(f"-{about['pid']}")
    assert about["host"] == Path("/proc/sys/kernel/hostname").read_text().strip()
    assert about["command"].startswith("Profiled detail exit")
    assert about["options"]["locks.name"] == "the till"
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z", about["started"])
    assert Report(folder / "locks-1.json").root["sessionname"] == "the till"

    memory = Report(folder / "memory-1.json").root["topNMemoryleakClass"]
    assert memory["com.example.tracked.Tracked"]["totalCount"] == 50
    sweeps = [json.loads(line) for line in (folder / "memory-1.sweeps").read_text().splitlines()]
    assert sum(sweep["added"] for sweep in sweeps) == 50
    assert all(sweep["pauseMillis"] > 0 for sweep in sweeps)
    assert all(sweep["nextMillis"] >= 10_000 and "full" not in sweep for sweep in sweeps)

    records, summary = lines(folder / "exceptions.jsonl")
    counts = summary.pop("agent")
    own = summary.pop("own")
    assert summary == {"recorded": len(records), "dropped": 0, "mode": "thrown"}
    assert set(counts) == {"seen", "filtered", "blackListed", "overRate", "delivered", "cut",
                           "rethrown", "failed"}
    assert counts["failed"] == {"stack": 0, "callback": 0, "memory": 0, "vm": 0}
    assert counts["delivered"] == len(records) + own > 0
    assert counts["seen"] == sum(counts[k] for k in ("filtered", "blackListed", "overRate",
                                                     "delivered", "rethrown"))
    refused = [r for r in records if r["class"] == "java.lang.IllegalStateException"]
    assert [r["message"] for r in refused] == [f"refused: order {i} é" for i in (1, 2, 3)]
    for i, record in enumerate(refused, 1):
        assert record["thread"] == "main" and record["caught"] is True
        frame = record["frames"][0]
        assert frame["method"] == "Profiled.fail" and frame["file"] == "Profiled.java"
        assert frame["arguments"] == [
            {"name": "order", "type": "String", "value": f"order {i}"},
            {"name": "quantity", "type": "int", "value": str(i)},
        ]
        assert record["raw"].startswith("Profiled.fail(Profiled.java:")


def test_lock_sessions_repeat(start):
    given = f"output={OUTPUT},locks=true,locks.summary=100ms,locks.detail=400ms,locks.repeat=3"
    run = start("Profiled", "locks-3.json", "return", OUTPUT, given=given)
    folder = run_folder(run)
    reports = [name for name in names(folder) if name.endswith(".json")]
    assert reports == ["locks-1.json", "locks-2.json", "locks-3.json", "run.json"], "and no fourth"
    assert [Report(folder / name).root["sessionid"] for name in reports[:3]] == [1, 2, 3]


@pytest.mark.parametrize("repeat", ["2", "forever"])
def test_memory_sessions_repeat(start, repeat):
    given = "memory=true,memory.track=com.example.tracked.Tracked,memory.duration=500ms"
    run = start("Profiled", "memory-2.json", "return", OUTPUT,
                given=f"output={OUTPUT},{given},memory.repeat={repeat},memory.interval=20ms",
                quiet=False)
    assert said(run) == ""
    folder = run_folder(run)
    reports = sorted(folder.glob("memory-*.json"), key=lambda file: int(file.stem[7:]))
    numbers = [int(file.stem[7:]) for file in reports]
    assert numbers == list(range(1, len(reports) + 1))
    assert [Report(file).root["sessionid"] for file in reports] == numbers
    if repeat == "2":
        assert len(reports) == 2, "and no third"
    else:
        last = Report(reports[-1]).root["topNMemoryleakClass"]
        assert last["com.example.tracked.Tracked"]["totalCount"] == 50


def test_memory_sessions_that_track_nothing(start):
    """Each reason is printed once."""
    untagged = SAY + "memory sessions track only what the program tags: name classes to track with"
    unpackaged = (SAY + "memory.track: 'Profiled$Till': memory reports have no arrays of primitives,"
                  " no classes without a package, and no '*'; the allocation profile has all classes,"
                  " by samples: allocations-N.json")
    repeat = "memory=true,memory.duration=500ms,memory.repeat=2"
    for track, told in (("", f"{untagged} memory.track\n"),
                        (",memory.track=Profiled$Till", unpackaged + "\n")):
        run = start("Profiled", "memory-2.json", "return", OUTPUT, quiet=False,
                    given=f"output={OUTPUT},{repeat}{track}")
        assert said(run) == told


def test_a_killed_jvm_leaves_no_half_report(start):
    given = f"output={OUTPUT},{LOCKS},memory=true,memory.track=a.B,exceptions=true"
    run = start("Profiled", "detail", "kill", OUTPUT, given=given, exit_code=137)
    found = names(run_folder(run))
    assert "exceptions.jsonl" in found and "run.json" in found
    assert not {"locks-1.json", "locks-1.stacks", "memory-1.json"} & set(found)


def test_the_program_is_left_alone(start):
    run = start("OwnLogManager", given=f"output={OUTPUT},exceptions=true,memory=true", quiet=False)
    assert run.facts["manager"] == "OwnLogManager$Chosen", "nobody has asked for a log manager before"
    run = start("Profiled", "waiting", "return", OUTPUT, given="")
    assert not list(run.folder.glob("run-*")) and not (run.folder / OUTPUT).exists()


# --- What the companion must not do to its program ---


def test_exceptions_load_no_classes(start):
    """Neither while the program's locks are held nor later; the message is asked for, though."""
    run = start("ForeignLoader", given=f"output={OUTPUT},exceptions=true,exceptions.rate=0")
    assert run.facts["revealed"] == "false"
    assert run.facts["thrower"] == run.facts["loading"] == "TERMINATED"
    records, summary = lines(run_folder(run) / "exceptions.jsonl")
    (thrown,) = [r for r in records if r["class"] == "ForeignLoader$Thrown"]
    assert thrown["message"] == "told" and thrown["thread"] == "thrower"
    assert summary["dropped"] == 0


def test_messages_that_the_program_would_have_to_give(start):
    run = start("Messages", given=f"output={OUTPUT},exceptions=true,exceptions.rate=0")
    records, _ = lines(run_folder(run) / "exceptions.jsonl")
    messages = {r["class"]: r["message"] for r in records}
    assert messages["java.lang.IllegalStateException"] == "given"
    assert messages["Messages$Inherited"] == "given"
    assert messages["java.nio.file.NoSuchFileException"] == "a file: why"
    assert messages["Messages$Talking"] is None
    assert messages["Messages$Reasoning"] is None
    assert run.facts["asked"] == "0"


COLLECTORS = ["Serial", "Parallel", "G1", "Z"]


@pytest.mark.parametrize("collector", COLLECTORS)
def test_sessions_outlive_a_lack_of_memory(start, collector):
    """No thread ends of it, each session has its report, and what was lost is counted."""
    given = (f"output={OUTPUT},exceptions=true,exceptions.rate=0,exceptions.depth=2,"
             "locks=true,locks.summary=200ms,locks.detail=400ms,locks.repeat=forever,"
             "memory=true,memory.track=com.example.tracked.Tracked,memory.interval=100ms,"
             "memory.duration=700ms,memory.repeat=forever")
    run = start("Starved", OUTPUT, 6, given=given, vm=["-Xmx32m", f"-XX:+Use{collector}GC"],
                quiet=False)
    assert run.facts["threads"] == \
        "javanativeagent control,javanativeagent exceptions,javanativeagent notifications"
    folder = run_folder(run)
    records, summary = lines(folder / "exceptions.jsonl")
    late = [r for r in records if r["message"] == "late"]
    assert len(late) == 20, "the writer goes on"
    files = [folder / "exceptions.jsonl", *folder.glob("exceptions-*.jsonl")]
    written = sum(len(lines(file)[0]) for file in files)
    assert summary["recorded"] == written
    for kind in ("locks", "memory"):
        reports = sorted(folder.glob(f"{kind}-*.json"), key=lambda f: int(f.stem.split("-")[1]))
        last = Report(reports[-1]).root["sessionid"]
        assert len(reports) >= 4
        assert last <= len(reports) + 1, "one at most was running when all ended"
    last = Report(reports[-1]).root["topNMemoryleakClass"]
    assert last["com.example.tracked.Tracked"]["totalCount"] == 50


def test_threads_that_cannot_be_had(jvm, jar):
    """Where the program has its threads, it has them with us, too; what we cannot do is told."""
    if os.getuid() != 0 or not shutil.which("setpriv"):
        pytest.skip("takes another user, who has a limit")
    user = 60_000 + os.getpid() % 5000  # who has no other process
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o777)
        agents = [f"-agentpath:{jvm.agent}=logLevel=0,twHome={folder}/home", f"-javaagent:{jar}="]
        if limited(jvm, agents, folder, user, 1000).returncode != 0:
            pytest.skip("another user cannot run this Java with the agent here")
        least = next(n for n in range(8, 100)
                     if all(limited(jvm, [], folder, user, n).returncode == 0 for _ in range(3)))
        told, recorded = [], []
        for limit in range(least + 2, least + 22):
            agents[1] = f"-javaagent:{jar}=output={folder}/out{limit},exceptions=true,memory=true"
            ended = limited(jvm, agents, folder, user, limit)
            assert ended.returncode == 0 and "fact other" in ended.stdout, (limit, ended)
            ours = [line for line in ended.stderr.splitlines() if line.startswith(SAY)]
            told.append([line for line in ours if "unable to create native thread" in line])
            recorded += Path(folder).glob(f"out{limit}/*/exceptions.jsonl")
        assert told[0] and not told[-1] and all(len(lines) <= 1 for lines in told), told
        assert recorded, "the last ones had threads enough"


def limited(jvm, agent, folder, user, threads):
    command = ["setpriv", f"--reuid={user}", "--clear-groups", "prlimit", f"--nproc={threads}",
               jvm.java, "-Xmx64m", "-XX:+UseSerialGC", "-XX:TieredStopAtLevel=1",
               "-XX:-UsePerfData", *agent, "-cp", jvm.class_path, "OtherAgent"]
    return subprocess.run(command, cwd=folder, capture_output=True, text=True, timeout=60)


def test_all_is_switched_off_first_when_the_jvm_ends(start):
    """Whatever is captured while reports are written would be in the way of the JVM's end."""
    given = f"output={OUTPUT},{LOCKS},exceptions=true,exceptions.rate=0,exceptions.depth=1"
    run = start("StillThrowing", given=given, exit_code=7, quiet=False)
    folder = run_folder(run)
    records, summary = lines(folder / "exceptions.jsonl")
    assert len(records) > 10 and summary
    last = datetime.fromisoformat(records[-1]["time"].replace("Z", "+00:00")).timestamp()
    coarse = 0.02  # the clock of file times moves on in steps
    assert last <= (folder / "locks-1.json").stat().st_mtime + coarse
    messages = [record.message for record in run.log()]
    assert messages.index("Stopping Lock Detail Session Id -> 1") < \
        messages.index("Stopping Lock Profiling Session Id -> 1")


# --- What memory.track follows ---


def sweeps_of(run):
    """From the first one on that found objects: a sweep may come before the program has made any."""
    (file,) = run_folder(run).glob("*.sweeps")
    sweeps = [json.loads(line) for line in file.read_text().splitlines()]
    return list(itertools.dropwhile(lambda sweep: sweep["added"] == 0, sweeps))


@pytest.mark.parametrize("collector", COLLECTORS)
def test_only_objects_that_are_alive_are_tracked(jvm, start, collector):
    if not jvm.supports(f"-XX:+Use{collector}GC"):
        pytest.skip(f"this Java has no {collector} collector")
    given = (f"output={OUTPUT},memory=true,memory.track=com.example.tracked.Tracked,"
             "memory.interval=50ms")
    run = start("Churning", OUTPUT, 3, 30, 100_000, given=given, vm=[f"-XX:+Use{collector}GC"],
                quiet=False)
    added = [sweep["added"] for sweep in sweeps_of(run)]
    assert 30 <= added[0] <= 32, "the last one that was made is alive, too"
    assert sum(added) <= 30 + 2 * len(added)
    memory = Report(run_folder(run) / "memory-1.json").root["topNMemoryleakClass"]
    assert 30 <= memory["com.example.tracked.Tracked"]["totalCount"] <= 31


def test_no_more_objects_are_tracked_than_the_limit_allows(start):
    given = (f"output={OUTPUT},memory=true,memory.track=com.example.tracked.Tracked,"
             "memory.interval=50ms,memory.limit=500")
    run = start("Churning", OUTPUT, 4, 2000, 1, given=given, quiet=False)
    sweeps = sweeps_of(run)
    assert [sweep["added"] for sweep in sweeps] == [500] + [0] * (len(sweeps) - 1)
    assert sweeps[0]["full"] == ["com.example.tracked.Tracked"]
    assert all("full" not in sweep for sweep in sweeps[1:]), "printed once"
    full = [line for line in run.err.splitlines() if "are tracked" in line]
    assert full == [SAY + "memory.track: 500 objects of com.example.tracked.Tracked are tracked,"
                    " and no more until some of them are gone (memory.limit)"]
    memory = Report(run_folder(run) / "memory-1.json").root["topNMemoryleakClass"]
    assert 499 <= memory["com.example.tracked.Tracked"]["totalCount"] <= 500


def test_sweeps_that_take_long_come_less_often(start):
    given = (f"output={OUTPUT},memory=true,memory.track=com.example.tracked.Tracked,"
             "memory.interval=1ms")
    run = start("Churning", OUTPUT, 5, 200_000, 1, given=given, quiet=False)
    told = [line for line in run.err.splitlines() if "more than 2 % of" in line]
    assert len(told) == 1 and "of the 1 ms of memory.interval" in told[0]
    sweeps = sweeps_of(run)
    assert all(sweep["nextMillis"] >= 49 * sweep["pauseMillis"] - 1 for sweep in sweeps)
    times = [datetime.fromisoformat(sweep["sweep"][:19] + "+00:00") for sweep in sweeps]
    between = (times[-2] - times[0]).total_seconds()
    planned = sum(sweep["nextMillis"] for sweep in sweeps[:-2]) / 1000
    assert between >= planned - 1


# --- Options ---


@pytest.mark.parametrize("given, refusal", [
    ("locks=true,locks.summary=0,locks.detail=0,locks.repeat=forever",
     "invalid option 'locks.summary=0,locks.detail=0': expected sessions of at least 500ms with"
     " 'locks.repeat=forever', found 0ms"),
    ("locks=true,locks.summary=0s,locks.detail=0",
     "invalid option 'locks.summary=0s,locks.detail=0': expected a session that is longer than"
     " 0, found 0ms"),
    ("memory=true,memory.duration=10ms,memory.repeat=3",
     "invalid option 'memory.duration=10ms': expected sessions of at least 500ms with"
     " 'memory.repeat=3', found 10ms"),
])
def test_sessions_without_length_are_refused(start, given, refusal):
    run = start("OtherAgent", given=f"output={OUTPUT},{given}", quiet=False)
    assert run.err == f"{SAY}{refusal}\n"
    assert names(run_folder(run)) == ["run.json"]


def test_the_oldest_reports_go(start):
    given = (f"output={OUTPUT},files=2,exceptions=true,locks=true,locks.summary=100ms,"
             "locks.detail=400ms,locks.repeat=forever")
    run = start("Profiled", "locks-5.json", "return", OUTPUT, given=given, quiet=False)
    folder = run_folder(run)
    kept = [int(file.stem[6:]) for file in folder.glob("locks-*.json")]
    stacks = [int(file.stem[6:]) for file in folder.glob("locks-*.stacks")]
    last = max(kept)
    assert sorted(kept) == sorted(stacks) == [last - 1, last]
    removed = json.loads((folder / "run.json").read_text())["removed"]
    assert removed == {"reports": last - 2, "files": 2 * (last - 2), "kept": 2}
    told = f"{SAY}{last - 2} reports were deleted, the oldest ones, to keep 2 (files=2)\n"
    assert told in run.err
    assert (folder / "exceptions.jsonl").exists()


def test_whatever_the_umask_nobody_else_may_read(start):
    before = os.umask(0)
    try:
        given = (f"output={OUTPUT}/a/b,{LOCKS},exceptions=true,exceptions.fileSize=1,memory=true,"
                 "memory.track=com.example.tracked.*")
        run = start("Profiled", "detail", "exit", f"{OUTPUT}/a/b", given=given, exit_code=7,
                    quiet=False)
    finally:
        os.umask(before)
    made = [run.folder / OUTPUT, *(run.folder / OUTPUT).rglob("*")]
    folders = [path for path in made if path.is_dir()]
    files = [path for path in made if path.is_file()]
    assert len(folders) == 4 and {stat.S_IMODE(p.stat().st_mode) for p in folders} == {0o700}
    assert {"locks-1.json", "locks-1.stacks", "memory-1.json", "memory-1.sweeps", "run.json",
            "exceptions.jsonl", "exceptions-1.jsonl"} <= {file.name for file in files}
    assert {stat.S_IMODE(p.stat().st_mode) for p in files} == {0o600}



def test_options_that_are_wrong_stop_nothing(start):
    given = f"output={OUTPUT},{LOCKS},lokcs.name=x,exceptions,locks.top=many,memory=yes"
    run = start("Profiled", "detail", "return", OUTPUT, given=given, quiet=False)
    assert run.err.splitlines() == [
        SAY + "unknown option 'lokcs.name'; did you mean 'locks.name'?",
        SAY + "ignoring option 'exceptions': expected key=value, as in 'exceptions=true'; a comma"
        " within a value is written '\\,'",
        SAY + "ignoring option 'locks.top=many': expected a number from 1 to 2147483647, or -1 for"
        " all",
        SAY + "ignoring option 'memory=yes': expected true or false",
    ]
    assert "locks-1.json" in names(run_folder(run))


def test_sessions_without_length_stop_only_their_profiler(start):
    given = f"output={OUTPUT},{LOCKS},memory=true,memory.duration=1ms,memory.repeat=2"
    run = start("Profiled", "detail", "return", OUTPUT, given=given, quiet=False)
    assert run.err.startswith(SAY + "invalid option 'memory.duration=1ms': expected sessions of")
    assert "locks-1.json" in names(run_folder(run))


def test_a_properties_file_and_odd_paths(jvm, start):
    folder = jvm.new_folder("odd paths, Ünïcode")
    output = folder / "mes résultats, à moi"
    config = folder / "ma config.properties"
    config.write_text(f"output = {output}\nlocks=true\nlocks.summary=1h\n", "utf-8")
    run = start("Profiled", "detail", "return", output, folder=folder,
                given="config=" + str(config).replace(",", "\\,"),
                environment={"LC_ALL": "C.UTF-8"})
    assert "locks-1.json" in names(run_folder(run, output))


# --- Places that cannot be written to ---


def test_an_output_folder_that_cannot_be_made(start):
    run = start("Profiled", "waiting", "return", OUTPUT, given=f"output=/proc/none,{LOCKS},exceptions=true",
                quiet=False)
    assert run.err.startswith(SAY + "nothing can be written to the output folder '/proc/none': ")
    assert len(run.err.splitlines()) == 1


def test_a_full_disk(start, tmp_path):
    if subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16k", "tmpfs", tmp_path],
                      capture_output=True).returncode:
        pytest.skip("no file system may be mounted here")
    try:
        given = f"output={tmp_path}/full,{LOCKS},locks.top=-1,exceptions=true"
        run = start("FilledDisk", tmp_path / "full", given=given, quiet=False)
        (folder,) = (tmp_path / "full").iterdir()
        assert "locks-1.json" not in names(folder), "a half report bears no name"
        assert re.search(SAY + r"the lock report .* is not complete: No space left on device", run.err)
        assert SAY + "exceptions cannot be written to " in run.err
        assert re.search(SAY + r"[1-9]\d* exception records were dropped, \d+ are in ", run.err)
        records, _ = lines(folder / "exceptions.jsonl")
        assert all("frames" in record for record in records), "every line is whole"
    finally:
        subprocess.run(["umount", tmp_path], check=True)


def test_two_jvms_share_an_output_folder(jvm, start, tmp_path):
    runs = []
    threads = [
        threading.Thread(target=lambda: runs.append(
            start("Profiled", "detail", "return", tmp_path, given=f"output={tmp_path},{LOCKS}")))
        for _ in range(2)
    ]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert len(runs) == 2
    found = [Report(folder / "locks-1.json") for folder in tmp_path.iterdir()]
    assert len(found) == 2
    for run in runs:
        assert sum(run.facts["lock"] in report.locks for report in found) >= 1


# --- What else a JVM may be started with ---


def policy(folder, jar, granted):
    file = folder / "policy"
    everyone = 'grant { permission java.util.PropertyPermission "*", "read"; };'
    ours = f'grant codeBase "file:{jar}" {{ permission java.security.AllPermission; }};'
    file.write_text(everyone + (ours if granted else ""))
    return [f"-Djava.security.manager", f"-Djava.security.policy=={file}"]


@pytest.mark.parametrize("granted", [True, False])
def test_a_security_manager(jvm, jar, start, granted):
    jvm.need(SECURITY_MANAGER)
    folder = jvm.new_folder("security")
    run = start("OtherAgent", given=f"output={OUTPUT},{LOCKS},exceptions=true", folder=folder,
                vm=policy(folder, jar, granted), quiet=False)
    said = [line for line in run.err.splitlines() if line.startswith(SAY)]
    assert run.facts["other"] == "null", "the program has run"
    if granted:
        assert names(run_folder(run))[:3] == ["exception-counts.json", "exceptions.jsonl",
                                             "locks-1.json"]
    else:
        assert len(said) == 1 and "grant java.security.AllPermission" in said[0]
        assert not (run.folder / OUTPUT).exists()


def test_native_access_denied(jvm, start):
    if not jvm.supports("--illegal-native-access=deny"):
        pytest.skip("this Java does not ask for native access")
    run = start("Profiled", "detail", "return", OUTPUT, given=f"output={OUTPUT},{LOCKS}",
                vm=["--illegal-native-access=deny"])
    assert "locks-1.json" in names(run_folder(run))


def test_the_agent_of_someone_else(jvm, start, tmp_path):
    classes = Path(jvm.class_path.split(":")[0])
    other = tmp_path / "other.jar"
    with zipfile.ZipFile(other, "w") as file:
        file.writestr("META-INF/MANIFEST.MF", "Premain-Class: OtherAgent\n")
        file.write(classes / "OtherAgent.class", "OtherAgent.class")
    for environment in ({}, {"JAVA_TOOL_OPTIONS": f"-javaagent:{other}=its-options"}):
        vm = [] if environment else [f"-javaagent:{other}=its-options"]
        run = start("OtherAgent", vm=vm, environment=environment, quiet=False)
        assert run.facts["other"] == "with its-options"
        assert SAY not in run.err


@pytest.mark.parametrize("folder", [None, "/proc"])
def test_all_from_the_environment(jvm, jar, tmp_path, folder):
    home = tmp_path / "home"
    (home / "logs").mkdir(parents=True)
    options = f"-agentpath:{jvm.agent}=twHome={home} -javaagent:{jar}=output={tmp_path}/out,{LOCKS}"
    command = [jvm.java, "-cp", jvm.class_path, "Profiled", "detail", "exit", f"{tmp_path}/out"]
    ended = subprocess.run(command, env={**os.environ, "JAVA_TOOL_OPTIONS": options},
                           cwd=folder or tmp_path, capture_output=True, text=True, timeout=60)
    assert ended.returncode == 7, ended.stderr
    (run,) = (tmp_path / "out").iterdir()
    assert "locks-1.json" in names(run)
    assert SAY not in ended.stderr, "the working directory need not be writable"
    assert names(tmp_path) == ["home", "out"], "no folder of the agent's is left"


def test_without_the_agent(jvm, jar, tmp_path):
    command = [jvm.java, f"-javaagent:{jar}=locks=true", "-cp", jvm.class_path, "OtherAgent"]
    ended = subprocess.run(command, cwd=tmp_path, capture_output=True, text=True, timeout=60)
    assert ended.returncode == 0 and "fact other=null" in ended.stdout
    assert ended.stderr == (SAY + "nothing is profiled: the JVM was started without"
                            " -agentpath:/path/to/libjavanativeagent.so\n")


def test_without_a_feature(start):
    run = start("MissingFeature", ".", given=f"output={OUTPUT},{LOCKS}",
                options=f"twHome={HOME},features=memoryprofiling", quiet=False)
    sentence = "the JVM was started without features="
    assert f"{SAY}there is no lock profiler: {sentence}mutexprofiling" in run.err
    assert f"no lock profiler: {sentence}mutexprofiling" in run.facts["locks"]
    assert f"no exception profiler: {sentence}exceptionprofiling" in run.facts["exceptions"]
    assert run.facts["memory"] == "started"


def test_without_the_management_module(jvm, start):
    jvm.need(MODULES)
    run = start("OtherAgent", given=f"output={OUTPUT},{LOCKS},exceptions=true",
                vm=["--limit-modules=java.base,java.instrument"], quiet=False)
    assert [line for line in run.err.splitlines() if "summary phase" not in line] == []
    assert names(run_folder(run))[:3] == ["exception-counts.json", "exceptions.jsonl",
                                             "locks-1.json"]


# --- The agent's home ---


def test_old_logs_and_stray_folders_go(jvm, start):
    folder = jvm.new_folder("home")
    logs = folder / "home" / "logs"
    old, kept = (logs / f"tw_NativeAgent_2026010100000{i}_99999999.log_0" for i in (0, 1))
    for file, days in ((old, 6), (kept, 4)):
        file.write_text("log")
        os.utime(file, (time.time() - days * 86400,) * 2)
    first = folder.parts[1]
    run = jvm.run("OtherAgent", folder=folder)
    assert (folder / first).is_dir(), "the agent leaves this one"
    (folder / first).rmdir()
    mine = folder / "".join(folder.parts[1:3])
    before = {p.name for p in folder.iterdir() if p.is_dir() and not any(p.iterdir())}
    for name in before:
        (folder / name).rmdir()
    mine.mkdir()
    os.utime(mine, (0, 0))
    time.sleep(0.05)  # made before the next JVM, by any clock
    run = start("OtherAgent", folder=folder)
    left = {p.name for p in folder.iterdir() if p.is_dir()}
    assert left == {"home", mine.name}, "an empty folder from before stays"
    assert not old.exists() and kept.exists()
    assert run.err == ""


def test_folders_of_the_program_stay(jvm, start):
    folder = jvm.new_folder("home")
    name = folder.parts[1]  # which the agent makes, too
    start("OwnFolder", name, folder=folder)
    assert (folder / name).is_dir()


# --- Control from inside and outside ---


def test_the_typed_api(jvm):
    run = jvm.run("TypedApi", ".", vm=jvm.checks())
    assert run.facts["features"] == "[lock, memory, exception]"
    assert run.facts["refused.second"] == "a lock session is already running: stop it first"
    assert run.facts["refused.early"] == \
        "the detail phase cannot begin: the lock session is begun, expected summary"
    assert run.facts["phase"] == "detail"
    for what in ("memory", "capture"):
        assert "would end the detail phase of the running lock session" in \
            run.facts[f"refused.{what}"]
    assert run.facts["undisturbed"] == "detail true"
    assert run.facts["stop"] == run.facts["stopAgain"] == "l.json"
    assert run.facts["interrupted"] == "true"
    assert "the lock session is stopped" in run.facts["refused.afterwards"]
    assert run.facts["run"] == "t.json"
    assert run.facts["interruptedRun"] == "i.json true"
    assert run.facts["captured"] == "1"
    assert run.facts["followed"] == "2" and run.facts["followedAfter"] == "0"
    assert run.facts["memory"] == run.facts["memoryAgain"] == "y.json"
    assert "z.json" in run.facts["refused.lost"]
    assert "was not written" in run.facts["refused.lostAgain"]
    memory = run.report("y.json").root["topNMemoryleakClass"]
    assert memory["com.example.tracked.Tracked"]["totalCount"] == 3
    for name in ("l.json", "l.stacks", "t.json", "i.json", "y.json"):
        assert stat.S_IMODE((run.folder / name).stat().st_mode) == 0o600


def contention(file):
    """A contention report; there is no other with this name than complete ones."""
    report = json.loads(file.read_text("utf-8"))
    assert report["report"] == "contention"
    assert report["startedAt"] <= (report["endedAt"] or report["writtenAt"]) <= report["writtenAt"]
    return report


def entries_of(report, name, identity):
    found = [lock["entries"] for lock in report["locks"]
             if (lock["class"], lock["identity"]) == (name, identity)]
    assert len(found) <= 1
    return sum(found)


@pytest.mark.parametrize("way, exit_code", [("exit", 7), ("return", 0), ("term", 143), ("kill", 137)])
@pytest.mark.parametrize("switch", ["", ",contention=1"])
def test_the_contention_profile_to_the_end(start, way, exit_code, switch):
    given = f"output={OUTPUT},contention=true,contention.interval=1s,contention.samples=20"
    run = start("Profiled", "contention-1.json", way, OUTPUT, given=given, exit_code=exit_code,
                options=f"twHome={HOME}{switch},contentionSamples=30,features=contention")
    folder = run_folder(run)
    assert {"contention-1.json", "run.json"} == set(names(folder)) - {"contention-1.json.part"}
    report = contention(folder / "contention-1.json")
    hash_ = int(run.facts["lock"].split("@")[1])
    assert entries_of(report, "Profiled$Till", f"{hash_:x}") >= 9, "each clerk has blocked a few times"
    # A profile that has begun with the JVM has the settings that it was given there.
    assert report["settings"]["samplesPerSecond"] == (30 if switch else 20)
    assert (report["endedAt"] is None) == (way == "kill")
    assert stat.S_IMODE((folder / "contention-1.json").stat().st_mode) == 0o600
    if way != "kill":
        assert names(folder) == ["contention-1.json", "run.json"]


def test_the_contention_report_when_the_end_begins_and_when_all_else_is_ended(start):
    run = start("LongEnding", OUTPUT, given=f"output={OUTPUT},contention=true", exit_code=7)
    assert (run.facts["before"], run.facts["written"]) == ("false", "2")
    assert names(run_folder(run)) == ["contention-1.json", "run.json"]
    report = contention(run_folder(run) / "contention-1.json")
    assert report["endedAt"] is not None
    assert [lock["entries"] for lock in report["locks"] if lock["class"] == "LongEnding$Door"] == [1]


def test_the_contention_report_of_a_jvm_that_halts(start):
    run = start("LongEnding", OUTPUT, "halt", given=f"output={OUTPUT},contention=true", exit_code=7)
    assert contention(run_folder(run) / "contention-1.json")["endedAt"] is not None


def test_all_profilers_at_once(start):
    given = (f"output={OUTPUT},{LOCKS},exceptions=true,memory=true,"
             "memory.track=com.example.tracked.*,contention=true")
    run = start("Profiled", "detail", "exit", OUTPUT, given=given, exit_code=7, quiet=False)
    assert said(run) == ""
    folder = run_folder(run)
    assert {"contention-1.json", "exceptions.jsonl", "locks-1.json", "memory-1.json"} <= \
        set(names(folder))
    lock = run.facts["lock"]
    assert set(Report(folder / "locks-1.json").locks[lock]["threadbean"]) == \
        {"clerk-1", "clerk-2", "clerk-3"}
    till = f"{int(lock.split('@')[1]):x}"
    report = contention(folder / "contention-1.json")
    assert report["endedAt"] is not None and entries_of(report, "Profiled$Till", till) > 0


def test_the_contention_profile_by_the_typed_api(jvm):
    run = jvm.run("ContentionApi", ".", vm=jvm.checks())
    facts = run.facts
    assert "IllegalArgumentException" in facts["refused.nowhere"]
    running = "IllegalStateException: a contention session is already running: stop it first"
    assert facts["refused.second"] == facts["refused.while unwritten"] == running
    assert facts["snapshot"] == "a.json null"
    assert facts["refused.snapshot"].startswith("FileSystemException: ")
    assert facts["refused.stop"].startswith("FileSystemException: ") and facts["stopped"] == "true"
    assert facts["refused.afterwards"] == "IllegalStateException: the contention session is stopped"
    assert facts["stop"] == "a.json true" and facts["stopAgain"] == "a.json"
    assert facts["bytes"] == "true" and facts["undisturbed"] == "detail"
    assert facts["next"] == "b.json"

    till = ("ContentionApi$Till", facts["lock"])
    so_far, last, second = (contention(run.folder / f"{name}.json") for name in ("a-1", "a", "b"))
    assert so_far["endedAt"] is None and last["endedAt"] is not None
    assert entries_of(so_far, *till) == entries_of(last, *till) == 2
    assert last["settings"] == {"locks": 4096, "samplesPerSecond": 50, "budgetPercent": 1,
                                "stuckMillis": 30_000, "windowMillis": 10_000}
    assert second["settings"] == {"locks": 64, "samplesPerSecond": 7, "budgetPercent": 3,
                                  "stuckMillis": 123, "windowMillis": 2_000}
    assert entries_of(second, *till) == 0, "what was before is dropped"
    (lock,) = [name for name in run.report("l.json").locks if name.startswith("ContentionApi$Till@")]
    assert run.report("l.json").locks[lock]["threadbean"].keys() == {"customer"}
    assert not list(run.folder.glob("*.part"))


def test_contention_options_out_of_their_range(start):
    run = start("OtherAgent", quiet=False,
                given=f"output={OUTPUT},contention.samples=1001,contention.window=1ms,contention=yes")
    assert run.err.splitlines() == [
        SAY + "ignoring option 'contention.samples=1001': expected a number from 0 to 1000",
        SAY + "ignoring option 'contention.window=1ms': expected a duration from 1s to 1h, such as"
        " 500ms, 30s, 2m or 1h",
        SAY + "ignoring option 'contention=yes': expected true or false",
    ]


def test_threads_of_the_companion_are_interrupted(start):
    given = f"output={OUTPUT},locks=true,locks.summary=50ms,locks.detail=200ms,exceptions=true"
    run = start("Interrupter", OUTPUT, given=given)
    records, summary = lines(run_folder(run) / "exceptions.jsonl")
    assert "java.lang.ArithmeticException" in [record["class"] for record in records]
    assert summary["dropped"] == 0


def test_management_clients(jvm, start):
    run = start("Managed", given=f"output={OUTPUT}", quiet=False)
    assert said(run) == ""
    facts = run.facts
    assert facts["state"] == "locks: off, exceptions: off, memory: off, contention: off, allocations: off"
    assert facts["features"] == "mutexprofiling memoryprofiling exceptionprofiling"
    assert facts["folder"] == "null"
    assert facts["notRunning"] == "lock sessions are not running"
    assert "did you mean 'locks.summary'?" in facts["unknown"]
    assert "expected a duration" in facts["malformed"]
    assert facts["startLocks"] == "done"
    assert facts["twice"] == "lock sessions are already running: stop first"
    assert facts["waiting"] == "done"
    assert "would end the detail phase" in facts["disturbing"]
    assert facts["undisturbed"] == "locks: detail, exceptions: off, memory: waiting, contention: off," \
        " allocations: off"
    assert facts["withdrawn"] == "done"
    assert facts["stopLocks"] == "done"
    assert facts["told"] == "tracewell.report.written true"
    assert facts["lastLockReport"] == facts["there"] == "true"
    assert facts["startMemory"] == facts["stopMemory"] == "done"
    assert facts["followed"] == "1" and facts["paused"] == "true"
    assert facts["startExceptions"] == facts["stopExceptions"] == "done"
    assert facts["dropped"] == "0"
    assert facts["noContention"] == "the contention profile is not running"
    assert facts["manySamples"] == \
        "invalid option 'contention.samples=1001': expected a number from 0 to 1000"
    assert facts["noContentionReport"] == "null"
    assert facts["startContention"] == facts["stopContention"] == "done"
    assert facts["contention"] == "running 1"
    assert facts["contentionTwice"] == "the contention profile is already running: stop first"
    assert facts["contentionTold"] == facts["lastContentionReport"] == "true"
    assert facts["noAllocations"] == "the allocation profile is not running"
    if jvm.has(SAMPLED_ALLOCATIONS):
        assert facts["startAllocations"] == facts["stopAllocations"] == "done"
        assert facts["allocations"] == "running 1"
        assert facts["allocationsTwice"] == "the allocation profile is already running: stop first"
        assert facts["allocationsTold"] == facts["lastAllocationReport"] == "true"
    else:
        assert facts["startAllocations"] == (
            "the allocation profile cannot be started: the VM samples allocations from JDK 11 on")
    assert facts["sessions"] == "1 1"
    assert facts["end"] == facts["state"]
    records, summary = lines(run_folder(run) / "exceptions.jsonl")
    # Half of the rate at once.
    assert sum(r["class"] == "java.lang.ArithmeticException" for r in records) == 2
    assert summary["recorded"] == len(records)
    assert "did you mean" in facts["refusedMeanwhile"]
    others = [r for r in records if r["class"] != "java.lang.ArithmeticException"]
    assert all("Managed.invoke" in [frame["method"] for frame in r["frames"]] for r in others), \
        "none of the bean's, but what its client throws"


def test_a_listener_that_ends_the_jvm(start):
    given = (f"output={OUTPUT},exceptions=true,locks=true,locks.delay=1500ms,locks.summary=100ms,"
             "locks.detail=400ms,locks.repeat=forever")
    run = start("ExitingListener", given=given, exit_code=7, quiet=False)
    _, summary = lines(run_folder(run) / "exceptions.jsonl")
    assert summary, "all sessions were ended"


# --- Records that the agent tells something about ---


def test_threads_without_stack(start):
    """The agent could not call the companion then; the records come later."""
    given = f"output={OUTPUT},exceptions=true,exceptions.rate=0"
    run = start("Overflowing", given=given)
    records, summary = lines(run_folder(run) / "exceptions.jsonl")
    overflows = [r for r in records if r["class"] == "java.lang.StackOverflowError"]
    assert len(overflows) == 5
    assert {r["thread"] for r in overflows} == {"main"}
    assert {r["frames"][0]["method"] for r in overflows} == {"ExceptionLoss.recurse"}
    assert summary["dropped"] == 0
    assert sum(summary["agent"]["failed"].values()) == 0


def test_records_that_are_cut(start):
    # What is redacted ends before it is too long.
    given = f"output={OUTPUT},exceptions=true,exceptions.redact=off"
    # The queue has room for five records of a MiB in a heap of that size.
    run = start("ExceptionBudget", "string", "others", given=given, vm=["-Xmx512m"])
    records, summary = lines(run_folder(run) / "exceptions.jsonl")
    assert summary["recorded"] == summary["agent"]["cut"] == 5
    assert all(r["cut"] is True and not r.get("ambiguous") for r in records)


def test_nulls_of_compiled_frames(jvm, start):
    folders = [Path(path) for path in jvm.class_path.split(":")]
    jvm.need(VIRTUAL_THREADS)
    if not any((f / "TakenApart.class").exists() for f in folders):
        pytest.skip("nothing to compile virtual threads with")
    vm = ["-XX:CompileCommand=quiet", "-XX:CompileCommand=dontinline,TakenApart::leaf"]
    run = start("TakenApart", given=f"output={OUTPUT},exceptions=true", vm=vm)
    records, _ = lines(run_folder(run) / "exceptions.jsonl")
    by_thread = {r["message"]: r["frames"][1]["locals"] for r in records
                 if (r["message"] or "").startswith("thrown on ")}
    virtual, platform = by_thread["thrown on true"], by_thread["thrown on false"]
    (pair,) = [v for v in platform if v["name"] == "pair"]
    assert [f["value"] for f in pair["fields"]] == ["1", "2"]
    (pair,) = [v for v in virtual if v["name"] == "pair"]
    # Where the JVM gives it after all, nothing is uncertain.
    assert pair.get("uncertain") is True if "fields" not in pair else "uncertain" not in pair
