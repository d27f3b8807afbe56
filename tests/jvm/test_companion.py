"""The companion: sessions by options of -javaagent, by its API and by its MBean, and what can go
wrong with them."""

import json
import os
import re
import stat
import subprocess
import threading
import time
import zipfile
from pathlib import Path

import pytest

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
    assert run.err == (SAY + "memory.track: no class that was loaded matches 'no.such.Class'"
                       " (nested classes are written com.example.Outer$Inner)\n")
    folder = run_folder(run)
    assert names(folder) == ["exceptions.jsonl", "locks-1.json", "locks-1.stacks", "memory-1.json",
                             "memory-1.sweeps", "run.json"]
    assert stat.S_IMODE((run.folder / OUTPUT).stat().st_mode) == 0o700
    assert stat.S_IMODE(folder.stat().st_mode) == 0o700
    assert {stat.S_IMODE(file.stat().st_mode) for file in folder.iterdir()} == {0o600}

    about = json.loads((folder / "run.json").read_text())
    assert folder.name.endswith(f"-{about['pid']}")
    assert about["command"].startswith("Profiled detail exit")
    assert about["options"]["locks.name"] == "the till"
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z", about["started"])
    assert Report(folder / "locks-1.json").root["sessionname"] == "the till"

    memory = Report(folder / "memory-1.json").root["topNMemoryleakClass"]
    assert memory["com.example.tracked.Tracked"]["totalCount"] == 50
    sweeps = [json.loads(line) for line in (folder / "memory-1.sweeps").read_text().splitlines()]
    assert sum(sweep["added"] for sweep in sweeps) == 50
    assert all(sweep["pauseMillis"] > 0 for sweep in sweeps)

    records, summary = lines(folder / "exceptions.jsonl")
    assert summary == {"recorded": len(records), "dropped": 0}
    refused = [r for r in records if r["class"] == "java.lang.IllegalStateException"]
    assert [r["message"] for r in refused] == [f"refused: order {i} é" for i in (1, 2, 3)]
    for i, record in enumerate(refused, 1):
        assert record["thread"] == "main" and record["caught"] is None
        frame = record["frames"][0]
        assert frame["method"] == "Profiled.fail" and frame["file"] == "Profiled.java"
        assert frame["arguments"] == [
            {"name": "order", "type": "String", "value": f"order {i}"},
            {"name": "quantity", "type": "int", "value": str(i)},
        ]
        assert record["raw"].startswith("Profiled.fail(Profiled.java:")


def test_lock_sessions_repeat(start):
    given = f"output={OUTPUT},locks=true,locks.summary=10ms,locks.detail=30ms,locks.repeat=3"
    run = start("Profiled", "locks-3.json", "return", OUTPUT, given=given)
    folder = run_folder(run)
    reports = [name for name in names(folder) if name.endswith(".json")]
    assert reports == ["locks-1.json", "locks-2.json", "locks-3.json", "run.json"], "and no fourth"
    assert [Report(folder / name).root["sessionid"] for name in reports[:3]] == [1, 2, 3]


@pytest.mark.parametrize("repeat", ["2", "forever"])
def test_memory_sessions_repeat(start, repeat):
    given = "memory=true,memory.track=com.example.tracked.Tracked,memory.duration=50ms"
    run = start("Profiled", "memory-2.json", "return", OUTPUT,
                given=f"output={OUTPUT},{given},memory.repeat={repeat},memory.interval=20ms")
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


def test_memory_sessions_that_follow_nothing(start):
    """Each reason is told once."""
    untagged = SAY + "memory sessions follow only what the program tags: memory.track names classes"
    unpackaged = SAY + "class Profiled$Till is in no package: memory reports leave such classes out"
    repeat = "memory=true,memory.duration=20ms,memory.repeat=2"
    for track, told in (("", f"{untagged} to follow\n"),
                        (",memory.track=Profiled$Till", unpackaged + "\n")):
        run = start("Profiled", "memory-2.json", "return", OUTPUT, quiet=False,
                    given=f"output={OUTPUT},{repeat}{track}")
        assert run.err == told


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


# --- Options ---


def test_options_that_are_wrong_stop_nothing(start):
    given = f"output={OUTPUT},{LOCKS},lokcs.name=x,exceptions,locks.top=many,memory=yes"
    run = start("Profiled", "detail", "return", OUTPUT, given=given, quiet=False)
    assert run.err.splitlines() == [
        SAY + "there is no option 'lokcs.name' (given as 'lokcs.name=x'): did you mean"
        " 'locks.name'?",
        SAY + "option 'exceptions' is left out: expected key=value, as in 'exceptions=true'; a"
        " comma within a value is written '\\,'",
        SAY + "option 'memory=yes' is left out: expected true or false",
        SAY + "option 'locks.top=many' is left out: expected a number from -1 on",
    ]
    assert "locks-1.json" in names(run_folder(run))


def test_patterns_that_are_wrong_stop_only_their_profiler(start):
    given = f"output={OUTPUT},{LOCKS},memory=true,memory.track=a b"
    run = start("Profiled", "detail", "return", OUTPUT, given=given, quiet=False)
    assert run.err.startswith(SAY + "there is no class pattern 'a b': expected names")
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
        assert re.search(SAY + r"the lock report .* is not whole: .*is the disk full", run.err)
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
    if jvm.version() > 17:
        pytest.skip("this Java has no security manager, or warns of it")
    folder = jvm.new_folder("security")
    run = start("OtherAgent", given=f"output={OUTPUT},{LOCKS},exceptions=true", folder=folder,
                vm=policy(folder, jar, granted), quiet=False)
    said = [line for line in run.err.splitlines() if line.startswith(SAY)]
    assert run.facts["other"] == "null", "the program has run"
    if granted:
        assert names(run_folder(run))[:2] == ["exceptions.jsonl", "locks-1.json"]
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


def test_without_the_management_module(start):
    run = start("OtherAgent", given=f"output={OUTPUT},{LOCKS},exceptions=true",
                vm=["--limit-modules=java.base,java.instrument"], quiet=False)
    assert [line for line in run.err.splitlines() if "summary phase" not in line] == []
    assert names(run_folder(run))[:2] == ["exceptions.jsonl", "locks-1.json"]


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
    run = jvm.run("TypedApi", ".", vm=["-Xcheck:jni"])
    assert run.facts["features"] == "[lock, memory, exception]"
    assert run.facts["refused.second"] == "a lock session is running already: stop it first"
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


def test_threads_of_the_companion_are_interrupted(start):
    given = f"output={OUTPUT},locks=true,locks.summary=50ms,locks.detail=200ms,exceptions=true"
    run = start("Interrupter", OUTPUT, given=given)
    records, summary = lines(run_folder(run) / "exceptions.jsonl")
    assert "java.lang.ArithmeticException" in [record["class"] for record in records]
    assert summary["dropped"] == 0


def test_management_clients(start):
    run = start("Managed", given=f"output={OUTPUT}")
    facts = run.facts
    assert facts["state"] == "locks: off, exceptions: off, memory: off"
    assert facts["features"] == "mutexprofiling memoryprofiling exceptionprofiling"
    assert facts["folder"] == "null"
    assert facts["notRunning"] == "lock sessions are not running"
    assert "did you mean 'locks.summary'?" in facts["unknown"]
    assert "expected a duration" in facts["malformed"]
    assert facts["startLocks"] == "done"
    assert facts["twice"] == "lock sessions are running already: stop first"
    assert facts["waiting"] == "done"
    assert "would end the detail phase" in facts["disturbing"]
    assert facts["undisturbed"] == "locks: detail, exceptions: off, memory: waiting"
    assert facts["withdrawn"] == "done"
    assert facts["stopLocks"] == "done"
    assert facts["told"] == "tracewell.report.written true"
    assert facts["lastLockReport"] == facts["there"] == "true"
    assert facts["startMemory"] == facts["stopMemory"] == "done"
    assert facts["followed"] == "1" and facts["paused"] == "true"
    assert facts["startExceptions"] == facts["stopExceptions"] == "done"
    assert facts["dropped"] == "0"
    assert facts["sessions"] == "1 1"
    assert facts["end"] == facts["state"]
    records, summary = lines(run_folder(run) / "exceptions.jsonl")
    assert sum(r["class"] == "java.lang.ArithmeticException" for r in records) == 2
    assert summary["recorded"] == len(records)
    assert "did you mean" in facts["refusedMeanwhile"]
    assert {r["class"] for r in records} == {"java.lang.ArithmeticException"}, "none of the bean's"


def test_a_listener_that_ends_the_jvm(start):
    given = (f"output={OUTPUT},exceptions=true,locks=true,locks.delay=1500ms,locks.summary=20ms,"
             "locks.detail=20ms,locks.repeat=forever")
    run = start("ExitingListener", given=given, exit_code=7, quiet=False)
    _, summary = lines(run_folder(run) / "exceptions.jsonl")
    assert summary, "all sessions were ended"
