"""`twprofile run`: the command runs as it would without it, and its JVMs get the agent."""

import os
import signal
import time
import zipfile
from pathlib import Path

import pytest

from harness import OUTPUT, results, wait_for, without_agent

STREAMS = ("first\n", "second\n")
AT_ONCE = "--memory"  # has a folder even for a JVM that ends at once


def echo(launcher, *arguments):
    return ["java", "-cp", launcher.programs, "Echo", *arguments]


def script(folder, text):
    file = folder.parent / "start.sh"
    file.write_text("#!/bin/sh\n" + text)
    file.chmod(0o755)
    return file


def same(profiled, plain):
    """Fails unless both runs showed the same, apart from the lines of agent and JVM."""
    assert profiled.code == plain.code, profiled
    assert without_agent(profiled.out) == plain.out, profiled
    assert without_agent(profiled.err) == plain.err, profiled


def test_java_keeps_streams_arguments_folder_and_exit_code(launcher, folder):
    command = echo(launcher, 7, "two words", "", "ü*$HOME", "--locks")
    plain = launcher.plain(*command, folder=folder, stdin="one\ntwo\n")
    profiled = launcher.run("run", AT_ONCE, "--", *command, folder=folder, stdin="one\ntwo\n")
    assert plain.code == 7 and "argument ü*$HOME\n" in plain.out and "last two\n" in plain.err
    same(profiled, plain)
    assert "JAVA_TOOL_OPTIONS" not in profiled.err
    assert [r.command.split()[:2] for r in results(folder / OUTPUT)] == [["Echo", "7"]]


def test_the_double_dash_can_be_left_out(launcher, folder):
    profiled = launcher.run("run", "--locks", *echo(launcher, 0), folder=folder)
    assert profiled.code == 0 and len(results(folder / OUTPUT)) == 1


def test_a_script_gets_the_agent_through_the_environment(launcher, folder):
    file = script(folder, 'echo before\njava "$@"\ncode=$?\necho after $code\nexit $code\n')
    command = [file, *echo(launcher, 3, "two words")[1:]]
    plain = launcher.plain(*command, folder=folder, stdin="one\n")
    profiled = launcher.run("run", AT_ONCE, "--", *command, folder=folder, stdin="one\n")
    assert plain.code == 3
    same(profiled, plain)
    assert len(results(folder / OUTPUT)) == 1


def test_each_jvm_of_a_script_has_a_run_folder(launcher, folder):
    text = 'java -cp "$1" Echo 0 a </dev/null & java -cp "$1" Echo 0 b </dev/null; wait\n'
    profiled = launcher.run("run", AT_ONCE, "--", script(folder, text), launcher.programs, folder=folder)
    assert profiled.code == 0, profiled
    assert sorted(r.command for r in results(folder / OUTPUT)) == ["Echo 0 a", "Echo 0 b"]


def test_a_script_that_changes_the_folder(launcher, folder):
    (folder / "inner").mkdir()
    file = script(folder, 'cd inner && exec java "$@"\n')
    profiled = launcher.run("run", AT_ONCE, "--", file, *echo(launcher, 0)[1:], folder=folder)
    assert profiled.code == 0, profiled
    assert len(results(folder / OUTPUT)) == 1
    assert os.listdir(folder / "inner") == []
    assert os.listdir(folder / OUTPUT / "logs")


def test_compilers_run_as_ever(launcher, folder):
    (folder / "A.java").write_text("class A {}")
    profiled = launcher.run("run", "--", "javac", "-d", ".", "A.java", folder=folder)
    assert profiled.code == 0 and (folder / "A.class").is_file(), profiled


def test_options_in_the_environment_stay(launcher, folder):
    options = "-Dmark='of the user'"
    plain = launcher.plain(*echo(launcher, 0), folder=folder, JAVA_TOOL_OPTIONS=options)
    assert "mark of the user\n" in plain.out
    for command in (echo(launcher, 0), [script(folder, 'exec "$@"\n'), *echo(launcher, 0)]):
        profiled = launcher.run("run", AT_ONCE, "--", *command, folder=folder, JAVA_TOOL_OPTIONS=options)
        assert without_agent(profiled.out) == plain.out, profiled
    assert len(results(folder / OUTPUT)) == 2


def test_options_of_the_java_command_stay(launcher, folder):
    command = ["java", "-Dmark=own", "-Xmx64m", *echo(launcher, 0)[1:]]
    assert "mark own\n" in launcher.run("run", "--", *command, folder=folder).out


@pytest.mark.parametrize("through_environment", (False, True))
def test_agents_of_the_program_stay(launcher, folder, through_environment):
    jar = folder.parent / "own.jar"
    with zipfile.ZipFile(jar, "w") as archive:
        archive.writestr("META-INF/MANIFEST.MF", "Premain-Class: OwnAgent\n\n")
        archive.write(Path(launcher.programs) / "OwnAgent.class", "OwnAgent.class")
    agent = f"-javaagent:{jar}=word"
    command = echo(launcher, 0)
    if through_environment:
        command = [script(folder, 'exec "$@"\n'), *command]
        profiled = launcher.run("run", AT_ONCE, "--", *command, folder=folder, JAVA_TOOL_OPTIONS=agent)
    else:
        command.insert(1, agent)
        profiled = launcher.run("run", AT_ONCE, "--", *command, folder=folder)
    assert profiled.code == 0 and "own agent word\n" in profiled.out, profiled
    assert len(results(folder / OUTPUT)) == 1


@pytest.mark.parametrize("through", ("java", "script"))
@pytest.mark.parametrize("number", (signal.SIGTERM, signal.SIGINT))
def test_signals_reach_the_command_itself(launcher, folder, through, number):
    command = ["java", "-cp", launcher.programs, "example.Idle"]
    if through == "script":
        command.insert(0, script(folder, 'exec "$@"\n'))
    with launcher.started("run", "-o", "out", "--", *command, folder=folder) as process:
        lines = iter(process.stdout.readline, "")
        pid = next(line.split()[1] for line in lines if line.startswith("pid "))
        assert int(pid) == process.pid  # the command has replaced the launcher
        process.send_signal(number)
        assert process.wait(60) == 128 + number
    (found,) = results(folder / "out")
    report = found.json("contention-1.json")
    assert report["report"] == "contention" and report["endedAt"] >= report["startedAt"]


def test_a_command_that_a_signal_ends(launcher, folder):
    profiled = launcher.run("run", "--", "sh", "-c", "kill -9 $$", folder=folder)
    assert profiled.code == 137


def test_working_directory_has_the_output_folder_only(launcher, folder):
    launcher.run("run", AT_ONCE, "--", *echo(launcher, 0), folder=folder)
    assert os.listdir(folder) == [OUTPUT]
    output = folder / OUTPUT
    assert output.stat().st_mode & 0o777 == 0o700
    assert (output / "logs").stat().st_mode & 0o777 == 0o700
    assert [log.name[:15] for log in (output / "logs").iterdir()] == ["tw_NativeAgent_"]
    (settings,) = output.glob("settings-*.properties")
    assert settings.stat().st_mode & 0o777 == 0o600


def test_the_output_folder_may_be_the_working_directory(launcher, folder):
    launcher.run("run", AT_ONCE, "-o", ".", "--", *echo(launcher, 0), folder=folder)
    assert os.listdir(folder / "logs") and len(results(folder)) == 1
    assert not [f for f in os.listdir(folder) if not f.startswith(("run-", "logs", "etc", "settings-"))]


def test_another_output_folder_leaves_nothing_in_the_working_directory(launcher, folder):
    output = folder.parent / "some" / "where else"
    profiled = launcher.run("run", AT_ONCE, "--output=" + str(output), "--", *echo(launcher, 0), folder=folder)
    assert profiled.code == 0, profiled
    assert len(results(output)) == 1 and os.listdir(output / "logs")
    assert os.listdir(folder) == []


@pytest.mark.parametrize("name", ("with blanks", "Größe 漢字", "it's \"quoted\"", "a\\b"))
def test_odd_names_of_folders(launcher, folder, name):
    for command in (echo(launcher, 5), [script(folder, 'exec "$@"\n'), *echo(launcher, 5)]):
        output = folder / name / "deep"
        profiled = launcher.run("run", AT_ONCE, "-o", output, "--", *command, folder=folder)
        assert profiled.code == 5, profiled
    assert len(results(output)) == 2


def test_a_checkout_with_an_odd_name_through_a_link(launcher, folder):
    root = launcher.checkout("dies & das ü")
    link = folder / "profile"
    link.symlink_to(os.path.relpath(root / "bin" / "twprofile", folder))
    for command in (echo(launcher, 5), [script(folder, 'exec "$@"\n'), *echo(launcher, 5)]):
        profiled = launcher.plain(link, "run", AT_ONCE, "--", *command, folder=folder)
        assert profiled.code == 5, profiled
    assert len(results(folder / OUTPUT)) == 2


def test_letters_beyond_ascii_in_the_c_locale(launcher, folder):
    refused = launcher.run("run", "-o", "Größe", "--", *echo(launcher, 0), folder=folder, LC_ALL="C")
    assert refused.code == 1 and "set LC_ALL=C.UTF-8" in refused.err, refused
    assert launcher.run("run", "--", *echo(launcher, 5), folder=folder, LC_ALL="C").code == 5


def test_letters_that_no_jvm_hands_on(launcher, folder):
    refused = launcher.run("run", "-o", "😀", "--", *echo(launcher, 0), folder=folder)
    assert refused.code == 1 and "such as emoji" in refused.err, refused


def test_commas_in_the_path(launcher, folder):
    inner = folder / "a,b"
    inner.mkdir()
    profiled = launcher.run("run", "--", *echo(launcher, 5), folder=inner)
    assert profiled.code == 5 and len(results(inner / OUTPUT)) == 1, profiled
    for words in (["-o", "c,d", "java"], ["sh", "-c", "java"]):
        refused = launcher.run("run", *words, folder=inner)
        assert refused.code == 1 and "contains a comma" in refused.err and "-o DIR" in refused.err


def test_profilers_choose_the_features(launcher, folder):
    def features(*options):
        shown = launcher.run("run", *options, "--", "sh", "-c", "echo $JAVA_TOOL_OPTIONS",
                             folder=folder).out
        return shown.split("features=")[1].split()[0]

    assert features() == features("--contention") == "contention"
    assert features("--locks") == features("--contention", "--locks") == "mutexprofiling"
    assert features("--allocations") == "contention", "the word that chooses nothing"
    assert features("--memory=track=a.B", "--exceptions") == "memoryprofiling_exceptionprofiling"


NOISE = "java.lang.ClassNotFoundException,java.security.PrivilegedActionException"


@pytest.mark.parametrize("option, excluded", (
    ("--exceptions", NOISE),
    ("--exceptions=rate=5", NOISE),
    ("--exceptions=exclude=none", "none"),
    ("--exceptions=rate=5,exclude=a.B,c.D", "a.B,c.D"),
    ("--locks", None),
))
def test_lookups_of_classes_have_no_records(launcher, folder, option, excluded):
    launcher.run("run", option, "--", "true", folder=folder)
    (settings,) = (folder / OUTPUT).glob("settings-*.properties")
    given = [line for line in settings.read_text("ascii").splitlines() if "exclude" in line]
    assert given == ([] if excluded is None else [f"exceptions.exclude={excluded}"])
    assert NOISE in launcher.run("help", "run", folder=folder).out


def test_the_choice_of_those_that_choose_none(launcher, folder):
    launcher.run("run", "--", "true", folder=folder)
    (settings,) = (folder / OUTPUT).glob("settings-*.properties")
    assert settings.read_text("ascii").splitlines() == [
        f"output={folder / OUTPUT}", "contention=true", "allocations=true"]


@pytest.mark.parametrize(
    "options, expected",
    (
        ((), "contention=1"),
        (("--contention",), "contention=1"),
        (("--contention", "--locks=top=3"), "contention=1"),
        (("--contention=interval=5s",), "contention=1"),
        (
            ("--contention=window=1M,stuck=500MS,budget=02,locks=64,samples=0",),
            "contention=1,contentionSamples=0,contentionLocks=64,contentionBudget=02,"
            "contentionStuck=500MS,contentionWindow=1M",
        ),
        (("--contention=stuck=1s,stuck=2",), "contention=1,contentionStuck=2s"),
        (("--locks", "--exceptions", "--memory"), None),
    ),
)
def test_the_contention_profile_starts_with_the_jvm(launcher, folder, options, expected):
    shown = launcher.run("run", *options, "--", "sh", "-c", "echo $JAVA_TOOL_OPTIONS", folder=folder)
    assert shown.code == 0, shown
    words = shown.out.split()[0].split(",")
    assert ",".join(w for w in words if w.startswith("contention")) == (expected or ""), shown


@pytest.mark.parametrize(
    "options, expected",
    (
        ((), "allocations=1"),
        (("--allocations=write=5s,growth=0,paths=true,collect=false",), "allocations=1"),
        (("--locks", "--allocations=interval=064K,samples=02000"),
         "allocations=1,allocationsInterval=65536,allocationsSamples=2000"),
        (("--contention", "--memory"), ""),
    ),
)
def test_the_allocation_profile_starts_with_the_jvm(launcher, folder, options, expected):
    shown = launcher.run("run", *options, "--", "sh", "-c", "echo $JAVA_TOOL_OPTIONS", folder=folder)
    assert shown.code == 0, shown
    words = shown.out.split()[0].split(",")
    assert ",".join(w for w in words if w.startswith("allocations")) == expected, shown


def test_the_agent_takes_what_the_allocation_profile_was_given(launcher, folder):
    options = "--allocations=interval=1m,samples=1000,growth=0"
    launcher.run("run", AT_ONCE, options, "--", *echo(launcher, 0), folder=folder)
    (found,) = results(folder / OUTPUT)
    report = found.json("allocations-1.json")
    assert report["settings"] == {"intervalBytes": 1 << 20, "liveSamples": 1000}
    assert report["endedAt"] >= report["shutdownAt"] >= report["startedAt"]


def test_the_agent_takes_what_the_contention_profile_was_given(launcher, folder):
    options = "--contention=samples=07,locks=100,budget=2,stuck=240000H,window=5,interval=1h"
    launcher.run("run", AT_ONCE, options, "--", *echo(launcher, 0), folder=folder)
    (found,) = results(folder / OUTPUT)
    assert found.json("contention-1.json")["settings"] == {
        "samplesPerSecond": 7, "locks": 100, "budgetPercent": 2,
        "stuckMillis": 864_000_000_000, "windowMillis": 5_000}


def test_the_cost_is_bounded(launcher, folder):
    shown = launcher.run("run", "--", "sh", "-c", "echo $JAVA_TOOL_OPTIONS", folder=folder).out
    bounds = "ownerLookupsPerSecond=100,scanInOneQuery=1"
    assert f",{bounds},features=" in shown
    shown = launcher.run("help", "run", folder=folder).out
    assert all(f"\n      {bound} " in shown for bound in bounds.split(","))


def test_settings_reach_the_controller(launcher, folder):
    options = ["--locks=summary = 30s, detail=10s,name=Käse, two 😀", "--memory=track=a.B,c.*,limit=9,top=3",
               "--contention=stuck=5s,interval=10s"]
    launcher.run("run", *options, "--", "true", folder=folder)
    (settings,) = (folder / OUTPUT).glob("settings-*.properties")
    assert settings.read_text("ascii").splitlines() == [
        f"output={folder / OUTPUT}",
        "locks=true",
        "memory=true",
        "contention=true",
        "locks.summary=30s",
        "locks.detail=10s",
        r"locks.name=K\u00e4se,two \ud83d\ude00",
        "memory.track=a.B,c.*",
        "memory.limit=9",
        "memory.top=3",
        "contention.stuck=5s",
        "contention.interval=10s",
    ]


def test_the_files_of_a_run_have_a_cap(launcher, folder):
    assert "--files N" in launcher.run("help", "run", folder=folder).out
    for words in (["--files", "7"], ["--files=7"]):
        launcher.run("run", *words, "-o", words[0], "--", "true", folder=folder)
        (settings,) = (folder / words[0]).glob("settings-*.properties")
        assert "files=7" in settings.read_text("ascii").splitlines()


ARCHIVED = "under an agent, a JVM cannot write the archive and exits with 1"


@pytest.mark.parametrize(
    "words, told",
    (
        (["-XX:ArchiveClassesAtExit=a.jsa", "-version"], "-XX:ArchiveClassesAtExit=a.jsa"),
        (["-cp", "x", "-XX:+AutoCreateSharedArchive", "-version"], "-XX:+AutoCreateSharedArchive"),
        (["@flags", "-version"], "@flags"),
        (["-XX:VMOptionsFile=flags", "-version"], "-XX:VMOptionsFile=flags"),
        (["-version", "Main", "-XX:ArchiveClassesAtExit=a.jsa"], None),
        (["-XX:-AutoCreateSharedArchive", "-version"], None),
        (["@nowhere", "-version"], None),
    ),
)
def test_class_archives_are_warned_of(launcher, folder, words, told):
    (folder / "flags").write_text("-Da=b\n'-XX:ArchiveClassesAtExit=a.jsa'\n")
    java = folder / "java"  # stands for one: not every JDK has all options
    java.write_text('#!/bin/sh\nexit 0\n')
    java.chmod(0o755)
    profiled = launcher.run("run", "--", java, *words, folder=folder)
    expected = f"twprofile: warning: {told}: {ARCHIVED}" if told else ""
    assert profiled.code == 0 and profiled.err.startswith(expected), profiled
    assert bool(profiled.err) == bool(told), profiled
    doctor = launcher.run("doctor", "--", java, *words, folder=folder)
    assert (f"hint   archive    {told}: {ARCHIVED}" in doctor.out) == bool(told), doctor


@pytest.mark.parametrize("name", ("JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS"))
def test_class_archives_in_the_environment_are_warned_of(launcher, folder, name):
    options = "-Da=b -XX:ArchiveClassesAtExit=a.jsa"
    profiled = launcher.run("run", "--", "true", folder=folder, **{name: options})
    assert profiled.err.startswith(f"twprofile: warning: {name} (it is '{options}'): {ARCHIVED}")
    doctor = launcher.run("doctor", folder=folder, **{name: options})
    assert doctor.code == 0 and f"{name} (it is '{options}'): {ARCHIVED}" in doctor.out, doctor


def test_class_archives_are_a_limit_of_the_jvm(launcher, folder):
    option = "-XX:ArchiveClassesAtExit=a.jsa"
    with zipfile.ZipFile(folder / "echo.jar", "w") as jar:  # no JVM archives classes of folders
        jar.write(Path(launcher.programs) / "Echo.class", "Echo.class")
    command = ["java", option, "-cp", "echo.jar", "Echo", 0]
    assert launcher.plain(*command, folder=folder).code == 0
    profiled = launcher.run("run", "--", *command, folder=folder)
    assert profiled.code == 1 and ARCHIVED in profiled.err, profiled


def test_old_settings_go(launcher, folder):
    output = folder / OUTPUT
    output.mkdir()
    ended, runs, new = (
        output / f"settings-20260101-000000-{pid}.properties" for pid in (99999999, 1, 99999998))
    for file, days in ((ended, 7), (runs, 7), (new, 1)):
        file.write_text("locks=true\n")
        os.utime(file, (time.time() - days * 86400,) * 2)
    launcher.run("run", "--", "true", folder=folder)
    assert not ended.exists() and runs.exists() and new.exists()


@pytest.mark.parametrize(
    "words, told",
    (
        ([], "expected a command"),
        (["--"], "expected a command"),
        (["--lokcs", "--", "true"], "run: unknown option '--lokcs'; did you mean '--locks'?\n"),
        (
            ["--locks=xyzzy=3s", "--", "true"],
            "unknown option 'xyzzy'; expected delay, summary, detail, repeat, top, name\n",
        ),
        (
            ["--locks=summary=3 s", "--", "true"],
            "--locks: invalid option 'summary=3 s': expected a duration from 0 to 240000h, such as",
        ),
        (["--locks=30s", "--", "true"], "unexpected argument '30s': expected KEY=VALUE"),
        (
            ["--locks", "summary=3s", "--", "true"],
            "--locks: unexpected 'summary=3s' after a blank; did you mean '--locks=summary=3s'?\n",
        ),
        (
            ["--exceptions", "--memory", "=track=a.B,top=3", "java"],
            "--memory: unexpected '=track=a.B,top=3' after a blank; did you mean '--memory=track=a.B,top=3'?\n",
        ),
        (["--contention", "samples=", "9", "--", "true"], "did you mean '--contention=samples='?\n"),
        (["--locks=", "--", "true"], "expected KEY=VALUE after the '='"),
        (["--locks", "--locks", "--", "true"], "--locks is given twice"),
        (
            ["--locks=summary=0,detail=0ms", "--", "true"],
            "--locks: summary is '0' and detail is '0ms'; expected one of them above 0\n",
        ),
        (
            ["--locks=summary=0,detail=0,repeat=forever", "--", "true"],
            "--locks: summary is '0' and detail is '0'; expected one of them above 0\n",
        ),
        (
            ["--locks=summary=249ms,detail=250ms,repeat=forever", "--", "true"],
            "summary is '249ms' and detail is '250ms' with repeat 'forever'; expected at least 500ms in"
            " total\n",
        ),
        (
            ["--memory=duration=0499ms,repeat=2", "--", "true"],
            "--memory: duration is '0499ms' with repeat '2'; expected at least 500ms\n",
        ),
        (
            ["--contention=samples=1001", "--", "true"],
            "--contention: invalid option 'samples=1001': expected a number from 0 to 1000\n",
        ),
        (["--files=0", "--", "true"], "invalid option '--files=0': expected a number from 1 to 1000000\n"),
        (["--files", "many", "--", "true"], "invalid option '--files=many': expected a number"),
        (["--files"], "--files: expected a number after it"),
        (["-o"], "-o: expected a folder"),
        (["-o", "", "--", "true"], "name is empty"),
    ),
)
def test_wrong_use(launcher, folder, words, told):
    refused = launcher.run("run", *words, folder=folder)
    assert refused.code == 2 and refused.out == "", refused
    assert told in refused.err and refused.err.startswith("twprofile: "), refused
    assert os.listdir(folder) == []


def test_a_command_that_is_not_there(launcher, folder):
    refused = launcher.run("run", "--", "no-such-command", folder=folder)
    assert (refused.code, refused.out) == (1, "")
    assert refused.err == "twprofile: run: unknown command 'no-such-command'\n"
    assert os.listdir(folder) == []


def test_the_agent_twice(launcher, folder):
    nested = launcher.command("run", "--", "java", "-version")
    refused = launcher.run("run", "--", *nested, folder=folder)
    assert refused.code == 1 and "JAVA_TOOL_OPTIONS already has the agent" in refused.err
    agent = "-agentpath:/opt/libjavanativeagent.so=features=ALL"
    refused = launcher.run("run", "--", "java", agent, "-version", folder=folder)
    assert refused.code == 1 and "the command already has the agent" in refused.err


def test_output_folder_that_cannot_be(launcher, folder):
    (folder / "file").write_text("")
    for output, told in (("file", "is not a folder"), ("file/inner", "Not a directory"),
                         ("/proc/inner", "No such file or directory")):
        refused = launcher.run("run", "-o", output, "--", "true", folder=folder)
        assert refused.code == 1 and told in refused.err and "-o DIR" in refused.err, refused


def test_a_working_directory_that_cannot_be_written(launcher, folder):
    read_only = "/proc"
    refused = launcher.run("run", AT_ONCE, "--", *echo(launcher, 5), folder=read_only)
    assert refused.code == 1 and "cannot create the output folder 'twprofile-out'" in refused.err, refused
    profiled = launcher.run("run", AT_ONCE, "-o", folder, "--", *echo(launcher, 5), folder=read_only)
    assert (profiled.code, profiled.err) == (5, ""), profiled
    assert len(results(folder)) == 1 and os.listdir(folder / "logs")


def test_a_checkout_that_is_not_built(launcher, folder):
    root = launcher.checkout("unbuilt")
    (root / "lib").unlink()
    for words in (["run", "--", "true"], ["list"], ["report", "."]):
        refused = launcher.run(*words, folder=folder, root=root)
        assert refused.code == 1 and "unpack or install the release again" in refused.err, refused
    (root / "CMakeLists.txt").touch()
    for words in (["run", "--", "true"], ["list"], ["report", "."]):
        refused = launcher.run(*words, folder=folder, root=root)
        assert refused.code == 1 and "build it: cmake" in refused.err, refused
