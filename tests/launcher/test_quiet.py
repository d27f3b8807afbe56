"""`twprofile run` adds nothing to what the program prints, and next to nothing to its start."""

import re
import shutil

import pytest

from harness import OUTPUT, results, wait_for, without_agent

ALL = ("--locks", "--contention", "--allocations", "--exceptions", "--memory")
MANAGEMENT = re.compile(r"(javax|java\.lang|sun|com\.sun)\.management\.|java\.util\.logging\.")
COMPANION = "com.korvane.twutils.nativeagent."


def echo(launcher, *flags):
    return ["java", *flags, "-cp", launcher.programs, "Echo", 3, "a"]


def script(folder, text):
    file = folder.parent / "start.sh"
    file.write_text("#!/bin/sh\n" + text)
    file.chmod(0o755)
    return file


@pytest.mark.parametrize("options", ((), ("--idle",), ALL))
def test_both_outputs_are_the_same_byte_for_byte(launcher, folder, options):
    plain = launcher.plain(*echo(launcher), folder=folder, stdin="one\n")
    profiled = launcher.run("run", *options, "--", *echo(launcher), folder=folder, stdin="one\n")
    assert plain.err and (profiled.code, profiled.out, profiled.err) == (3, plain.out, plain.err)

    command = [script(folder, 'exec "$@"\n'), *echo(launcher)]
    profiled = launcher.run("run", *options, "--", *command, folder=folder, stdin="one\n")
    assert (profiled.out, without_agent(profiled.err)) == (plain.out, plain.err)
    assert profiled.err.count("\n") == plain.err.count("\n") + 1, "the JVM's own line"


DIAGRAM = "@startuml\nA -> B: hello\n@enduml\n"
PROJECT = ("<project><modelVersion>4.0.0</modelVersion><groupId>a</groupId><artifactId>b</artifactId>"
           "<version>1</version><packaging>pom</packaging></project>")


@pytest.mark.parametrize("command, stdin", (
    (("plantuml", "-svg", "-pipe"), DIAGRAM),
    (("plantuml", "-ttxt", "-pipe"), DIAGRAM.replace("@enduml", "")),
    (("mvn", "-q", "-o", "validate"), ""),
    (("mvn", "-q", "-o", "no-such-phase"), ""),
))
def test_tools_print_the_same(launcher, folder, command, stdin):
    if not shutil.which(command[0]):
        pytest.skip(f"no {command[0]}")
    (folder / "pom.xml").write_text(PROJECT)
    plain = launcher.plain(*command, folder=folder, stdin=stdin)
    profiled = launcher.run("run", "--", *command, folder=folder, stdin=stdin)
    assert plain.out and (profiled.code, profiled.out) == (plain.code, plain.out)
    assert without_agent(profiled.err) == plain.err
    assert profiled.err != plain.err, "the JVM's own line"


def test_notes_go_to_the_folder_of_the_run(launcher, folder):
    profiled = launcher.run("run", "--locks=summary=1h", "--", *echo(launcher), folder=folder)
    assert profiled.err == "", profiled
    (found,) = results(folder / OUTPUT)
    notes = (found.folder / "notes.log").read_text()
    assert notes.startswith("lock session 1 ends in its summary phase") and notes.count("\n") == 1
    assert (found.folder / "notes.log").stat().st_mode & 0o777 == 0o600


def test_errors_are_printed_all_the_same(launcher, folder):
    text = 'rm -rf twprofile-out && echo > twprofile-out && exec "$@"\n'
    command = [script(folder, text), *echo(launcher)]
    profiled = launcher.run("run", "--memory", "--", *command, folder=folder)
    assert profiled.code == 3 and "javanativeagent: " in profiled.err, profiled


def test_jvms_with_nothing_to_report_leave_no_folder(launcher, folder):
    text = ('for i in 1 2; do for j in 1 2 3 4 5 6 7 8 9 10; do (sleep 1 | "$@" || true) & done; wait;'
            ' done\n')
    profiled = launcher.run("run", "--", script(folder, text), *echo(launcher), folder=folder)
    assert profiled.code == 0 and results(folder / OUTPUT) == [], profiled
    (jvms,) = (folder / OUTPUT).glob("settings-*.jvms")
    lines = jvms.read_text().splitlines()
    assert len(set(lines)) == 20 and all(re.fullmatch(r"\d+ -", line) for line in lines)
    assert jvms.stat().st_mode & 0o777 == 0o600
    shown = launcher.run("report", folder=folder)
    assert "20 JVMs of the last command left no results: they ended" in shown.err, shown


def loaded_by(launcher, folder, *words):
    """The names of the classes that a JVM loads up to its end."""
    log = folder / "classes.log"
    flags = (f"-Xlog:class+load:file={log}:none",)
    run = launcher.run(*words, *echo(launcher, *flags), folder=folder) if words else launcher.plain(
        *echo(launcher, *flags), folder=folder)
    assert run.code == 3, run
    # Classes that are made as the program runs have numbers.
    return [re.sub(r"0x\w+|\d+", "", line.split()[0]) for line in log.read_text().splitlines()]


@pytest.mark.parametrize("options, more", (((), 80), (("--idle",), 30), (("--locks",), 700)))
def test_the_start_loads_few_classes(launcher, folder, options, more):
    if launcher.plain("java", "-Xlog:disable", "-version", folder=folder).code != 0:
        pytest.skip("this Java does not log what it loads")
    plain = loaded_by(launcher, folder)
    profiled = loaded_by(launcher, folder, "run", *options, "--")
    assert len(plain) > 300 and len(profiled) <= len(plain) + more
    assert not [name for name in profiled if MANAGEMENT.match(name)]
    assert not [name for name in profiled if name.startswith("java.lang.instrument.")]
    companion = [name for name in profiled if name.startswith(COMPANION + "companion.")]
    assert bool(companion) == ("--locks" in options)


def test_an_idle_jvm_starts_all_that_can_be(launcher, folder):
    command = ["java", "-cp", launcher.programs, "example.Idle"]
    with launcher.started("run", "--idle", "--", *command, folder=folder) as process:
        while not process.stdout.readline().startswith("pid "):
            assert process.poll() is None
        assert not results(folder / OUTPUT)
        options = ("--locks=summary=200ms,detail=1h", "--contention", "--allocations", "--exceptions",
                   "--memory=track=example.Idle$Ticket,interval=100ms")
        started = launcher.run("start", process.pid, *options, folder=folder)
        assert (started.code, started.err) == (0, ""), started
        (found,) = results(folder / OUTPUT)

        def has_all():
            shown = launcher.run("status", process.pid, folder=folder).out
            swept = found.folder / "memory-1.sweeps"
            return swept.exists() and "locks        detail" in shown and not re.search(r"exceptions +on; 0 rec", shown)

        wait_for(has_all, "lock session in its detail phase, and exceptions")
        stopped = launcher.run("stop", process.pid, folder=folder)
        assert (stopped.code, stopped.out.count("\n"), stopped.err) == (0, 5, ""), stopped
        process.terminate()
        assert process.wait(60) == 143 and process.stderr.read() == ""
    assert (found.folder / "locks-1.json").is_file()
    assert {each["class"] for each in found.exceptions()} == {"example.Idle$Jam"}
    assert '"added":' in (found.folder / "memory-1.sweeps").read_text()
    assert found.json("contention-1.json")["endedAt"] is not None


def test_status_of_an_idle_jvm_names_what_it_cannot_give_and_leaves_its_log_manager(
        launcher, folder):
    log = folder / "classes.log"
    command = echo(launcher, f"-Xlog:class+load:file={log}:uptimemillis")
    with launcher.started("run", "--idle", "--", *command, folder=folder) as process:
        def status():
            run = launcher.run("status", process.pid, folder=folder)
            return run if run.code == 0 else None

        asked = wait_for(status, "status")
    missing = [line.split(": ")[1] for line in asked.out.splitlines() if "--idle" in line]
    assert [text.split(",")[0] for text in missing] == [
        "exceptions where they are thrown (mode=thrown); they are captured where they are made",
        "values in records of exceptions",
        "the check that an owner still holds a monitor when its stack is taken (contention)",
    ], asked
    early = [line for line in log.read_text().splitlines()
             if MANAGEMENT.search(line) and int(re.match(r"\[(\d+)ms", line)[1]) < 2500]
    assert early == []


def test_idle_takes_no_profiler(launcher, folder):
    refused = launcher.run("run", "--idle", "--locks", "--", "true", folder=folder)
    assert refused.code == 2 and "run: --idle: unexpected argument '--locks'" in refused.err, refused
