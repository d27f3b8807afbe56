"""The verbs of twprofile beside `run`."""

import json
import os
import re
import shutil
import subprocess
from contextlib import contextmanager
from pathlib import Path

import pytest

from harness import OUTPUT, SOURCE, let_threads_block, results, wait_for

VERBS = ("run", "list", "status", "start", "stop", "attach", "detach", "report", "doctor")


@contextmanager
def idle(launcher, folder, *options):
    """The program Idle under `twprofile run`, as soon as it runs; gives the process."""
    command = ["java", "-cp", launcher.programs, "example.Idle"]
    with launcher.started("run", *options, "--", *command, folder=folder) as process:
        while not process.stdout.readline().startswith("pid "):
            assert process.poll() is None, process.stderr.read()
        yield process


@contextmanager
def plain_jvm(launcher, folder, *flags):
    """Idle without twprofile; gives its process id."""
    command = [launcher.java, *flags, "-cp", launcher.programs, "example.Idle"]
    with subprocess.Popen(command, cwd=folder, stdout=subprocess.PIPE, text=True) as process:
        try:
            while not process.stdout.readline().startswith("pid "):
                assert process.poll() is None
            yield process.pid
        finally:
            process.kill()


def done(launcher, *words, folder):
    """What a verb that works prints."""
    run = launcher.run(*words, folder=folder)
    assert run.code == 0 and run.err == "", run
    return run.out


def test_list_shows_the_jvms_with_the_agent(launcher, folder):
    with plain_jvm(launcher, folder) as plain, idle(launcher, folder, "--locks") as process:
        shown = done(launcher, "list", folder=folder)
        assert re.search(rf"^{process.pid} +\S*java -cp \S+ example\.Idle$", shown, re.M), shown
        assert not re.search(rf"^{plain}\b", shown, re.M), shown
    assert str(process.pid) not in done(launcher, "list", folder=folder)


def test_status_counts_what_is_recorded(launcher, folder):
    with idle(launcher, folder, "--locks=summary=100ms,detail=1h", "--exceptions=rate=0") as process:
        def status():
            return done(launcher, "status", process.pid, folder=folder)

        wait_for(lambda: re.search(r"^locks +detail; 1 session$", status(), re.M), "detail phase")
        first = int(re.search(r"^exceptions +on; (\d+) recorded, 0 dropped", status(), re.M)[1])
        wait_for(lambda: int(re.search(r"(\d+) recorded", status())[1]) > first, "new exceptions")
        assert re.search(r"^memory +the JVM was started without it$", status(), re.M)
        (found,) = results(folder / OUTPUT)
        assert f"results      {found.folder}\n" in status()


def test_start_and_stop(launcher, folder):
    memory = "--memory=delay=1h,track=example.Idle$Ticket,interval=100ms"
    options = ("--locks=delay=1h", "--exceptions", memory)
    with idle(launcher, folder, *options) as process:
        def verb(name, *words):
            return done(launcher, name, process.pid, *words, folder=folder)

        def status(profiler):
            return re.search(rf"^{profiler} +(.*)$", verb("status"), re.M)[1]

        stopped = verb("stop")
        assert "locks: stopped before it began\n" in stopped
        assert re.search(r"^exceptions: .*/exceptions\.jsonl$", stopped, re.M), stopped
        assert "off" in status("locks") and "off" in status("memory")

        again = launcher.run("stop", process.pid, folder=folder)
        assert again.code == 1 and "nothing is being profiled in JVM" in again.err, again
        again = launcher.run("stop", process.pid, "--locks", folder=folder)
        assert again.code == 1 and "not running" in again.err, again

        name = "a\\b, \"c\", Ü"
        (found,) = results(folder / OUTPUT)

        def names_the_turnstile():
            """One session; a loaded machine may end it before any thread came to a lock."""
            started = verb("start", f"--locks=summary=200ms,detail=1h,name={name}")
            assert started == "locks: summary\n"
            wait_for(lambda: "detail" in status("locks"), "detail phase")
            twice = launcher.run("start", process.pid, "--locks", folder=folder)
            assert twice.code == 1 and "already running" in twice.err, twice
            (report,) = re.findall(r"^locks: (.*/locks-\d+\.json)$", verb("stop", "--locks"), re.M)
            assert found.json(Path(report).name)["sessionname"] == name.replace(", ", ",")
            return "example.Idle$Turnstile" in found.locks()

        wait_for(names_the_turnstile, "a session with contention")
        shown = status("locks")
        told = re.search(r"/(locks-\d+\.json) \(owner lookups: (\d+) made, (\d+) skipped\)$", shown)
        assert told, shown
        made, skipped = int(told[2]), int(told[3])
        assert made > 0 and found.json(told[1])["ownerLookups"] == {
            "perSecond": 100, "made": made, "leftOut": skipped}

        verb("start", "--exceptions")
        some = launcher.run("stop", process.pid, "--locks", "--exceptions", folder=folder)
        assert some.code == 1 and "stop: locks: lock sessions are not running" in some.err, some
        assert some.out.startswith("exceptions: ") and "off" in status("exceptions"), some

        assert "memory: running\n" == verb("start", "--memory")
        wait_for(lambda: re.search(r" [1-9]\d* objects tracked", status("memory")), "sweep")
        assert re.search(r"^memory: .*/memory-\d+\.json$", verb("stop"), re.M)

        assert "example.Idle$Ticket" in found.memory()
        # The JDK makes some that it does not throw; what the companion has refused is its own.
        captured = {e["class"] for e in found.exceptions()}
        assert "example.Idle$Jam" in captured
        assert not [name for name in captured if "MBean" in name or "InvocationTarget" in name]


def contention_of(found, name):
    """A contention report, which is complete whenever it is there."""
    report = found.json(name)
    assert report["report"] == "contention" and report["writtenAt"] >= report["startedAt"]
    return report


def blocked_by_turnstile(report):
    return [lock["entries"] for lock in report["locks"] if lock["class"] == "example.Idle$Turnstile"]


def test_the_contention_profile_beside_a_lock_session(launcher, folder):
    options = ("--contention=interval=1s,samples=100", "--locks=summary=200ms,detail=1h,top=-1")
    with idle(launcher, folder, *options) as process:
        def verb(name, *words):
            return done(launcher, name, process.pid, *words, folder=folder)

        def status(profiler):
            return re.search(rf"^{profiler} +(.*)$", verb("status"), re.M)[1]

        (found,) = wait_for(lambda: results(folder / OUTPUT), "run folder")
        report = found.folder / "contention-1.json"
        wait_for(report.exists, "first report")
        seen = set()

        def is_written_anew():
            seen.add(contention_of(found, report.name)["writtenAt"])
            return len(seen) == 3

        wait_for(is_written_anew, "a third report")
        wait_for(lambda: blocked_by_turnstile(contention_of(found, report.name)), "contention")
        assert contention_of(found, report.name)["endedAt"] is None
        assert status("contention") == f"running; 1 session, last report {report}"
        wait_for(lambda: "detail" in status("locks"), "detail phase")

        assert verb("stop", "--contention") == f"contention: {report}\n"
        last = contention_of(found, report.name)
        assert last["endedAt"] >= max(seen) and last["settings"]["samplesPerSecond"] == 100
        assert "detail" in status("locks") and status("contention").startswith("off; 1 session")
        again = launcher.run("stop", process.pid, "--contention", folder=folder)
        assert again.code == 1 and "the contention profile is not running" in again.err, again

        assert verb("start", "--contention=stuck=700ms,locks=64") == "contention: running\n"
        twice = launcher.run("start", process.pid, "--contention", folder=folder)
        assert twice.code == 1 and "the contention profile is already running" in twice.err, twice
        wait_for(lambda: (found.folder / "contention-2.json").exists(), "report of the second")
        process.terminate()
        assert process.wait(60) == 143
    second = contention_of(found, "contention-2.json")
    assert second["startedAt"] >= last["endedAt"] and second["endedAt"] is not None
    assert (second["settings"]["stuckMillis"], second["settings"]["locks"]) == (700, 64)
    assert second["settings"]["samplesPerSecond"] == 100, "as given to run"
    assert blocked_by_turnstile(second) and "example.Idle$Turnstile" in found.locks()
    assert not list(found.folder.glob("*.part"))


def test_a_jvm_that_was_started_without_the_contention_profile(launcher, folder):
    with idle(launcher, folder, "--exceptions") as process:
        shown = done(launcher, "status", process.pid, folder=folder)
        assert re.search("^contention +off; 0 sessions$", shown, re.M), shown
        done(launcher, "start", process.pid, "--contention=interval=1s", folder=folder)
        (found,) = results(folder / OUTPUT)
        report = found.folder / "contention-1.json"
        wait_for(lambda: report.exists() and blocked_by_turnstile(contention_of(found, report.name)),
                 "contention")
        process.kill()
        process.wait(60)
    assert contention_of(found, report.name)["endedAt"] is None, "the last one before the end"


def allocations_of(found, name):
    """An allocation report, which is complete whenever it is there."""
    report = found.json(name)
    assert report["report"] == "allocations" and report["writtenAt"] >= report["startedAt"]
    return report


def test_the_allocation_profile(launcher, folder):
    options = ("--allocations=interval=16k,write=1s,growth=1s,paths=true", "--contention")
    with idle(launcher, folder, *options) as process:
        def verb(name, *words):
            return done(launcher, name, process.pid, *words, folder=folder)

        def status(profiler):
            return re.search(rf"^{profiler} +(.*)$", verb("status"), re.M)[1]

        (found,) = wait_for(lambda: results(folder / OUTPUT), "run folder")
        report = found.folder / "allocations-1.json"
        growth, paths = report.with_suffix(".growth"), report.with_suffix(".paths")
        for file in (report, growth, paths):
            wait_for(file.exists, file.name)
        assert status("allocations") == f"running; 1 session, last report {report}"
        assert allocations_of(found, report.name)["endedAt"] is None

        assert verb("stop", "--allocations") == f"allocations: {report}\n"
        last = allocations_of(found, report.name)
        assert last["endedAt"] is not None and last["shutdownAt"] is None and last["afterCollection"]
        assert last["settings"]["intervalBytes"] == 16384
        assert json.loads(growth.read_text())["report"] == "growth"
        assert json.loads(paths.read_text())["report"] == "paths"
        assert status("allocations").startswith("off; 1 session")
        assert status("contention").startswith("running; ")
        again = launcher.run("stop", process.pid, "--allocations", folder=folder)
        assert again.code == 1 and "the allocation profile is not running" in again.err, again

        assert verb("start", "--allocations=interval=1m,growth=0,paths=false") == "allocations: running\n"
        twice = launcher.run("start", process.pid, "--allocations", folder=folder)
        assert twice.code == 1 and "the allocation profile is already running" in twice.err, twice
        process.terminate()
        assert process.wait(60) == 143
    second = allocations_of(found, "allocations-2.json")
    assert second["startedAt"] >= last["endedAt"] and second["endedAt"] >= second["shutdownAt"]
    assert second["settings"]["intervalBytes"] == 1 << 20
    left = {file.name for file in found.folder.iterdir() if file.name.startswith("allocations-2")}
    assert left == {"allocations-2.json"}
    assert not list(found.folder.glob("*.part"))


def test_a_memory_session_that_needs_the_allocation_profile(launcher, folder):
    with idle(launcher, folder, "--memory=delay=1h") as process:
        def verb(name, *words):
            return done(launcher, name, process.pid, *words, folder=folder)

        verb("stop", "--memory")
        verb("start", "--memory=track=byte[]")
        assert re.search("^allocations +running; 1 session", verb("status"), re.M)
        stopped = verb("stop", "--memory")
        assert re.fullmatch(r"memory: .*/memory-1\.json\n", stopped)
        shown = verb("status")
        assert re.search(r"^allocations +off; 1 session, last report .*/allocations-1\.json$", shown, re.M)
        # The allocation profile is started first, whatever is named first.
        verb("start", "--memory=track=byte[]", "--allocations")
        assert verb("stop", "--memory").startswith("memory: ")
        assert re.search("^allocations +running; 2 sessions", verb("status"), re.M)


def takes_the_name(report):
    """Makes a folder where the report is to be."""
    try:
        report.mkdir()
        return True
    except FileExistsError:
        report.unlink()
        return False


def test_a_contention_report_that_cannot_be_written(launcher, folder):
    with idle(launcher, folder, "--contention=interval=1s") as process:
        (found,) = wait_for(lambda: results(folder / OUTPUT), "run folder")
        report = found.folder / "contention-1.json"
        wait_for(report.exists, "first report")  # a name that is taken before is passed over
        wait_for(lambda: takes_the_name(report), "folder with the report's name")
        part = report.with_suffix(".json.part")
        tries = set()

        def is_tried_again():
            if part.exists():
                tries.add(part.stat().st_mtime_ns)
            return len(tries) == 3

        wait_for(is_tried_again, "a third report that cannot have its name")
        refused = launcher.run("stop", process.pid, folder=folder)
        assert refused.code == 1 and f"{report}.part -> {report}" in refused.err, refused
        shown = done(launcher, "status", process.pid, folder=folder)
        assert re.search("^contention +stopped; 1 session", shown, re.M), shown
        report.rmdir()
        stopped = done(launcher, "stop", process.pid, folder=folder)
        assert stopped == f"contention: {report}\n"
        process.terminate()
        told = [line for line in process.communicate(timeout=60)[1].splitlines() if ".part" in line]
        assert len(told) == 1, "printed once"
    assert contention_of(found, report.name)["endedAt"] is not None


def test_a_jvm_whose_library_and_jar_were_replaced(launcher, folder):
    library, jar = "libjavanativeagent.so", "javanativeagent.jar"
    for name in (library, jar):
        shutil.copy(launcher.root / "lib" / name, folder)
    flags = (f"-agentpath:{folder}/{library}=twHome=.", f"-javaagent:{folder}/{jar}")
    with plain_jvm(launcher, folder, *flags) as pid:
        for name in (library, jar):
            (folder / name).unlink()
        assert re.search(rf"^{pid} ", done(launcher, "list", folder=folder), re.M)
        assert "results      none yet\n" in done(launcher, "status", pid, folder=folder)


def test_a_profiler_that_the_jvm_was_started_without(launcher, folder):
    with idle(launcher, folder, "--locks") as process:
        refused = launcher.run("start", process.pid, "--memory", folder=folder)
        assert refused.code == 1 and refused.out == "", refused
        assert "was started without memory; start it with: twprofile run --memory" in refused.err


@pytest.mark.parametrize("verb", ("status", "start", "stop"))
def test_jvms_that_cannot_be_asked(launcher, folder, verb):
    words = ("--locks",) if verb == "start" else ()

    def refusal(pid):
        refused = launcher.run(verb, pid, *words, folder=folder)
        assert refused.code == 1 and refused.out == "" and refused.err.count("\n") == 1, refused
        return refused.err

    with plain_jvm(launcher, folder) as pid:
        told = refusal(pid)
        assert f"was started without the agent; attach to it with: twprofile attach {pid}, or" in told
        assert " start it with: twprofile run -- " in told and told.endswith(" example.Idle\n")
    assert "is not a JVM" in refusal(os.getpid())
    assert "null" not in refusal(1)
    assert "no such process: 999999999" in refusal(999999999)
    agent = f"-agentpath:{launcher.root}/lib/libjavanativeagent.so=twHome=."
    with plain_jvm(launcher, folder, agent) as pid:
        assert "has the agent, but not the companion" in refusal(pid)


@pytest.mark.parametrize(
    "words, told",
    (
        ((), "The commands that most people need"),
        (("rnu",), "unknown verb 'rnu'; did you mean 'run'?"),
        (("xyzzy",), "unknown verb 'xyzzy'; expected run, list,"),
        (("run list",), "unknown verb 'run list'"),
        (("help", "stat"), "unknown verb 'stat'; did you mean 'start'?"),
        (("list", "all"), "unexpected argument 'all'"),
        (("status",), "expected a process id"),
        (("status", "x"), "'x' is not a process id"),
        (("status", "1", "2"), "unexpected argument '2'"),
        (("start", "1"), "expected a profiler"),
        (("start", "1", "--lock"), "unknown option '--lock'; did you mean '--locks'?"),
        (("start", "1", "--locks=detial=3s"), "unknown option 'detial'; did you mean 'detail'?"),
        (("stop", "-1"), "'-1' is not a process id"),
        (("stop", "1", "--locks=top=3"), "unexpected argument 'locks.top=3'"),
        (("run", "-o", "--", "java"), "-o: expected a folder after it"),
        (("start", "1", "--locks=summary=0,detail=0"), "expected one of them above 0"),
        (("doctor", "-o", "--", "java"), "-o: expected a folder after it"),
        (("doctor", "--otput=x"), "unknown option '--otput'; did you mean '--output'?"),
    ),
)
def test_wrong_use(launcher, folder, words, told):
    refused = launcher.run(*words, folder=folder)
    assert refused.code == 2 and refused.out == "" and told in refused.err, refused


@pytest.mark.parametrize("verb", VERBS)
def test_each_verb_has_help_with_examples(launcher, folder, verb):
    shown = done(launcher, "help", verb, folder=folder)
    assert shown.startswith(f"Usage: twprofile {verb}") and f"  twprofile {verb}" in shown or (
        f"Example: twprofile {verb}" in shown)
    if verb != "report":  # whose options are twreport's
        assert done(launcher, verb, "--help", folder=folder) == shown
    assert re.search(rf"^  {verb}  ", done(launcher, "--help", folder=folder), re.M)


def test_version(launcher, folder):
    assert re.fullmatch(r"twprofile \d+\.\d+\.\d+\n", done(launcher, "--version", folder=folder))


def test_report_shows_the_newest_run(launcher, folder):
    refused = launcher.run("report", folder=folder)
    assert refused.code == 1 and f"no such folder: '{OUTPUT}'" in refused.err, refused
    options = ("--locks=summary=300ms,detail=1h,top=-1", "--exceptions")
    with idle(launcher, folder, *options) as process:
        def state():
            return done(launcher, "status", process.pid, folder=folder)

        wait_for(lambda: "locks        detail" in state(), "detail phase")
        let_threads_block()
        process.terminate()
        process.wait(60)
    for words in ((), (OUTPUT,), (OUTPUT, "--top", "3")):
        shown = done(launcher, "report", *words, folder=folder)
        assert "example.Idle$Turnstile@" in shown and "example.Idle$Jam" in shown
    assert "Usage" in done(launcher, "report", "--help", folder=folder)


def test_report_of_a_run_that_finished_nothing(launcher, folder):
    old, new = folder / OUTPUT / "run-20260101-000000-1", folder / OUTPUT / "run-20260102-000000-1"
    for run in (old, new):
        run.mkdir(parents=True)
        (run / "run.json").write_text("{}")
        (run / "locks-1.json.part").write_text("")
    (old / "exceptions.jsonl").write_text('{"recorded":0,"dropped":0}\n')
    for words in ((), (f"{OUTPUT}/{new.name}",)):
        refused = launcher.run("report", *words, folder=folder)
        assert refused.code == 1 and f"no report is complete in '{OUTPUT}/{new.name}'" in refused.err
    assert "is complete in" not in launcher.run(
        "report", f"{OUTPUT}/{old.name}", folder=folder).err


# --- doctor ----------------------------------------------------------------------------------


def findings(run):
    """The lines of doctor as (level, subject, text)."""
    return [tuple(line.split(None, 2)) for line in run.out.splitlines() if line[:1] != " "]


def own_lib(launcher, folder):
    """A checkout whose lib holds links, to be changed; gives both."""
    root = launcher.checkout("own")
    (root / "lib").unlink()
    (root / "lib").mkdir()
    for file in (launcher.root / "lib").iterdir():
        (root / "lib" / file.name).symlink_to(file.resolve())
    return root, root / "lib"


def test_doctor_finds_nothing_wrong(launcher, folder):
    run = launcher.run("doctor", folder=folder)
    assert run.code == 0 and {level for level, _, _ in findings(run)} == {"ok"}, run
    assert {"Java", "APR", "agent", "output"} <= {subject for _, subject, _ in findings(run)}
    assert os.listdir(folder) == []


def test_doctor_names_classes_without_variables(launcher, folder):
    sources = folder / "src"
    sources.mkdir()
    (sources / "Bare.java").write_text("class Bare { int twice(int n) { int m = n; return m * 2; } }")
    (sources / "Constants.java").write_text("interface Constants { int ONE = 1; }")
    javac = str(Path(launcher.java).resolve().parent / "javac")
    (folder / "bare").mkdir()  # javac of Java 8 makes none
    subprocess.run([javac, "-g:none", "-d", folder / "bare", *sources.iterdir()], check=True)
    shutil.make_archive(folder / "bare", "zip", folder / "bare")
    (folder / "bare.zip").rename(folder / "bare.jar")

    path = f"{launcher.programs}:bare:missing.jar:*"
    run = launcher.run("doctor", "--", "java", "-Xmx1g", "-cp", path, "example.Idle", folder=folder)
    assert run.code == 0, run
    classes = [(level, text) for level, subject, text in findings(run) if subject == "classes"]
    assert [level for level, _ in classes] == ["ok", "hint", "hint", "hint"], run
    assert classes[0][1].startswith(launcher.programs)
    assert classes[1][1].startswith("bare: frames of 1 of 2 classes show no locals (Bare); compile")
    assert classes[2][1] == "missing.jar does not exist; correct the class path, or build it first"
    assert classes[3][1].startswith("./bare.jar: frames of 1 of 2 classes")

    run = launcher.run("doctor", "--", "java", "-jar", "bare.jar", folder=folder)
    assert [f[2][:8] for f in findings(run) if f[1] == "classes"] == ["bare.jar"]


def test_doctor_checks_the_command(launcher, folder):
    run = launcher.run("doctor", "--", "no-such-command", folder=folder)
    told = "unknown command 'no-such-command'; name a program on the PATH, or the path of one"
    assert run.code == 1 and ("FAULT", "command", told) in findings(run)
    run = launcher.run("doctor", "--", "sh", "start.sh", folder=folder)
    assert run.code == 0 and any(f[:2] == ("hint", "classes") for f in findings(run))


ATTACH = "keeps list, status, start, stop and attach from working; remove it"
AGENTS = "only one agent of a JVM can sample allocations; if there is no allocation profile, remove"
OWN = "already has the agent"


@pytest.mark.parametrize(
    "words, variables, level, told",
    (
        (["-XX:+DisableAttachMechanism"], {}, "hint", ATTACH),
        (["-XX:-EnableDynamicAgentLoading"], {}, "hint", ATTACH),
        (["@flags"], {}, "hint", ATTACH),
        ([], {"JAVA_TOOL_OPTIONS": "-Da=b -XX:+DisableAttachMechanism"}, "hint", ATTACH),
        (["-agentlib:other=x"], {}, "hint", AGENTS),
        ([], {"_JAVA_OPTIONS": "-agentpath:/opt/other.so"}, "hint", AGENTS),
        (["-agentpath:/opt/libjavanativeagent.so=twHome=x"], {}, "FAULT", OWN),
        ([], {"JAVA_TOOL_OPTIONS": "-agentpath:/opt/libjavanativeagent.so"}, "FAULT", OWN),
        (["-agentlib:jdwp=server=y"], {}, None, None),
        (["Main", "-XX:+DisableAttachMechanism", "-agentlib:other"], {}, None, None),
    ),
)
def test_doctor_names_a_remedy_for_options_that_limit(launcher, folder, words, variables, level, told):
    (folder / "flags").write_text("-Da=b\n-XX:+DisableAttachMechanism\n")
    run = launcher.run("doctor", "--", "java", *words, "-version", folder=folder, **variables)
    found = [f for f in findings(run) if f[1] in ("attach", "agents") or OWN in f[2]]
    assert [f[0] for f in found] == ([level] if level else []), run
    assert all(told in f[2] for f in found) and run.code == (level == "FAULT"), run


def test_doctor_names_what_root_lacks_to_attach(launcher, folder):
    if os.geteuid() != 0 or not shutil.which("setpriv"):
        pytest.skip("needs root and setpriv")
    words = ["setpriv", "--bounding-set=-sys_ptrace", "--inh-caps=-sys_ptrace"]
    run = launcher.plain(*words, *launcher.command("doctor"), folder=folder)
    assert run.code == 0 and "hint   attach     root lacks the capability SYS_PTRACE" in run.out, run
    assert "start the container with --cap-add=SYS_PTRACE" in run.out


def test_doctor_works_without_a_writable_tmp(launcher, folder):
    script = 'mount --bind /tmp /tmp && mount -o remount,ro,bind /tmp && exec "$@"'
    words = ["unshare", "--mount", "sh", "-c", script, "sh"]
    if launcher.plain(*words, "true", folder=folder).code != 0:
        pytest.skip("mounts cannot be changed here")
    run = launcher.plain(*words, *launcher.command("doctor", "-o", "/dev/shm/out"), folder=folder)
    assert run.code == 0 and "'/tmp' cannot be written, so attach, status" in run.out, run
    assert any(f[:2] == ("ok", "agent") for f in findings(run)), run


def stands_for_java(folder, text):
    java = folder / "java"
    java.write_text("#!/bin/sh\n" + text)
    java.chmod(0o755)
    return java


def test_doctor_names_what_jdk_8_lacks(launcher, folder):
    text = """echo 'Starting Java Native Agent'; echo 'openjdk version "1.8.0_504"'\n"""
    run = launcher.run("doctor", "--", stands_for_java(folder, text), "-version", folder=folder)
    (told,) = [f[2] for f in findings(run) if f[:2] == ("hint", "JDK")]
    assert "no allocation profile; use JDK 11 or later, or --memory=track=CLASS" in told and run.code == 0


def test_doctor_names_what_an_unfit_jvm_needs(launcher, folder):
    java = stands_for_java(folder, "echo 'wrong ELF class' >&2; exit 1\n")
    run = launcher.run("doctor", "--", java, "-version", folder=folder)
    assert run.code == 1 and "wrong ELF class\n  use a HotSpot JVM of JDK 8 or later" in run.out, run


def test_doctor_finds_a_library_that_does_not_load(launcher, folder):
    root, lib = own_lib(launcher, folder)
    (lib / "libjavanativeagent.so").unlink()
    run = launcher.run("doctor", folder=folder, root=root)
    missing = "libjavanativeagent.so does not exist; "
    assert run.code == 1 and f"{missing}it belongs to the release" in run.out, run
    (root / "CMakeLists.txt").touch()
    run = launcher.run("doctor", folder=folder, root=root)
    assert run.code == 1 and f"{missing}build it" in run.out, run
    (lib / "libjavanativeagent.so").write_text("no library")
    run = launcher.run("doctor", folder=folder, root=root)
    assert run.code == 1 and any(f[:2] == ("FAULT", "agent") for f in findings(run)), run


def test_doctor_checks_the_output_folder(launcher, folder):
    (folder / "file").write_text("")
    for words, told in (
        (("-o", "file"), "is not a folder"),
        (("-o", "/proc/inner"), "cannot be written"),
        (("-o", "deep/a,b"), "contains a comma"),
        (("-o", "a,b", "--", "sh"), "contains a comma"),
    ):
        run = launcher.run("doctor", *words, folder=folder)
        assert run.code == 1, run
        assert [f[0] for f in findings(run) if f[1] == "output" and told in f[2]] == ["FAULT"], run


def test_doctor_knows_the_locale(launcher, folder):
    run = launcher.run("doctor", "-o", "Größe", folder=folder, LC_ALL="C")
    assert run.code == 1 and "LC_ALL=C.UTF-8" in run.err, run
    run = launcher.run("doctor", folder=folder, LC_ALL="C")
    assert run.code == 0 and [f[:2] for f in findings(run) if f[0] != "ok"] == [("hint", "locale")], run
    assert "set LC_ALL=C.UTF-8" in run.out


# --- completion ------------------------------------------------------------------------------

COMPLETE = """
source "$1"
COMP_LINE=$2 COMP_POINT=${#2}
shift 2
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
_twprofile twprofile "${COMP_WORDS[COMP_CWORD]}"
printf '%s\\n' "${COMPREPLY[@]}"
"""


def completions(line):
    """What bash offers after this line, whose words readline takes apart at "="."""
    words = re.findall(r"=|[^\s=]+", line) + ([""] if line.endswith(" ") else [])
    command = ["bash", "-c", COMPLETE, "-", SOURCE / "completions" / "twprofile", line, *words]
    shown = subprocess.run(command, capture_output=True, text=True, check=True)
    assert shown.stderr == ""
    return shown.stdout.split()


def test_completion_of_verbs_and_options():
    assert completions("twprofile s") == ["status", "start", "stop"]
    assert completions("twprofile run --l") == ["--locks"]
    assert completions("twprofile run --f") == ["--files"]
    assert completions("twprofile stop 12 --c") == ["--contention"]
    assert completions("twprofile stop 12 --a") == ["--allocations"]
    assert completions("twprofile run --allocations=paths=t") == ["true"]
    assert completions("twprofile run --contention=samples=9,w") == ["9,window="]
    assert completions("twprofile run --locks=summary=3s,de") == ["3s,delay=", "3s,detail="]
    assert completions("twprofile run --locks=repeat=") == ["forever"]
    assert completions("twprofile run --locks=delay=3s,top=") == ["-1"]
    assert completions("twprofile run --memory=track=") == []
    assert completions("twprofile start 12 --exceptions=locals=t") == ["true"]
    assert completions("twprofile help rep") == ["report"]


def test_completion_of_process_ids(launcher, folder):
    with idle(launcher, folder, "--locks") as process:
        script = COMPLETE.replace("_twprofile twprofile", '_twprofile "$TWPROFILE"')
        line = "twprofile status "
        shown = subprocess.run(
            ["bash", "-c", script, "-", SOURCE / "completions" / "twprofile", line, *line.split(), ""],
            capture_output=True, text=True, check=True,
            env={**launcher.environment, "TWPROFILE": str(launcher.root / "bin" / "twprofile")},
        )
        assert str(process.pid) in shown.stdout.split()


def test_a_lock_session_that_is_stopped_in_its_summary(launcher, folder):
    with idle(launcher, folder, "--locks=summary=1h") as process:
        wait_for(lambda: "summary" in done(launcher, "status", process.pid, folder=folder), "session")
        told = done(launcher, "stop", process.pid, folder=folder)
    assert "locks-1.json\nthe report has no locks yet: the session was in its summary phase" in told
    assert f"twprofile start {process.pid} --locks=summary=5s\n" in told
