"""What `twprofile run` prints at the end of a command that started no JVM with the agent."""

import os
import signal
import subprocess
import time
from pathlib import Path

import pytest

from harness import OUTPUT, results, wait_for

NOTHING = "twprofile: run: no JVM has started with the agent: there are no results in '"


def idle(launcher):
    return f"java -cp '{launcher.programs}' example.Idle"


def watchers(pid):
    """The processes that watch over this one."""
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            words = (process / "cmdline").read_bytes().split(b"\0")
        except OSError:
            continue
        if words[0].endswith(b"twwatch") and words[1] == str(pid).encode():
            found.append(int(process.name))
    return found


def test_a_command_without_java_keeps_its_exit_code_and_output(launcher, folder):
    done = launcher.run("run", "--", "sh", "-c", "echo out; echo err >&2; exit 7", folder=folder)
    assert (done.code, done.out) == (7, "out\n"), done
    told = done.err.removeprefix("err\n")
    assert told.startswith(NOTHING + f"{folder / OUTPUT}'.\n"), done
    for cause in ("starts no Java", "JAVA_TOOL_OPTIONS", "sudo twprofile run", "another user"):
        assert cause in told, done


def test_a_jvm_with_the_agent_is_listed_and_nothing_is_printed(launcher, folder):
    done = launcher.run("run", "--", "sh", "-c", "java -version; java -version", folder=folder)
    assert "twprofile" not in done.err.replace(OUTPUT, "").replace(str(launcher.root), ""), done
    (listed,) = (folder / OUTPUT).glob("settings-*.jvms")
    assert listed.stat().st_mode & 0o777 == 0o600
    lines = dict(line.split() for line in listed.read_text().splitlines())  # the last one counts
    runs = {str(one.run["pid"]): one.folder.name for one in results(folder / OUTPUT)}
    assert len(lines) == 2 and all(name in ("-", runs.get(pid)) for pid, name in lines.items()), lines


def test_the_command_that_loses_the_environment_is_named_with_a_remedy(launcher, folder):
    tools = folder.parent / "tools"
    tools.mkdir()
    (tools / "sudo").write_text('#!/bin/sh\nexec env -i "$@"\n')
    (tools / "sudo").chmod(0o755)
    path = f"{tools}:{launcher.environment['PATH']}"
    done = launcher.run("run", "--", "sudo", launcher.java, "-version", folder=folder, PATH=path)
    assert done.code == 0 and NOTHING in done.err, done
    assert "sudo does not pass on the environment" in done.err, done
    assert "      sudo twprofile run -o DIR -- COMMAND\n" in done.err, done


def test_jvms_without_the_agent_are_named_with_the_reason(launcher, folder):
    one = f"env -u JAVA_TOOL_OPTIONS {idle(launcher)} >/dev/null & first=$!;"
    other = f"JAVA_TOOL_OPTIONS=-Dx=y {idle(launcher)} >/dev/null & second=$!;"
    text = f"java -version >/dev/null; {one} {other} echo $first $second; read line; kill $first $second"
    with launcher.started("run", "--", "sh", "-c", text, folder=folder) as process:
        first, second = process.stdout.readline().split()
        time.sleep(3.5)
        process.stdin.write("\n")
        process.stdin.close()
        told = process.stderr.read()
        assert process.wait(30) == 0
    assert "not all JVMs of the command were profiled" in told
    reasons = {line.split()[0]: told.splitlines()[at + 1].strip()
               for at, line in enumerate(told.splitlines()) if "example.Idle" in line}
    assert reasons == {
        first: "its environment lacks JAVA_TOOL_OPTIONS",
        second: "its environment has another JAVA_TOOL_OPTIONS",
    }, told


def test_a_jvm_that_is_left_behind_is_waited_for(launcher, folder):
    text = f"{idle(launcher)} >/dev/null 2>&1 & echo $!"
    done = launcher.run("run", "--", "sh", "-c", text, folder=folder)
    try:
        # On a loaded machine it may take longer than is waited for: then it is not denied either.
        assert "started with the agent" not in done.err, done
        wait_for(lambda: any((folder / OUTPUT).glob("run-*/run.json")), "run folder")
        (listed,) = (folder / OUTPUT).glob("settings-*.jvms")
        assert listed.read_text().split()[0] == done.out.strip()
    finally:
        os.kill(int(done.out), signal.SIGKILL)


@pytest.mark.parametrize("options", ((), ("--idle",)))
def test_a_jvm_that_is_killed_before_its_companion_comes_has_started(launcher, folder, options):
    text = f"{idle(launcher)} | while read line; do kill -9 ${{line#pid }}; done"
    done = launcher.run("run", *options, "--", "bash", "-c", text, folder=folder)
    assert "no JVM has started" not in done.err and not results(folder / OUTPUT), done
    shown = launcher.run("report", folder=folder)
    assert "twprofile: report: 1 JVM of the last command left no results: it ended" in shown.err, shown


def test_what_is_left_behind_without_java_is_named(launcher, folder):
    text = "sleep 60 >/dev/null 2>&1 & echo $!"
    done = launcher.run("run", "--", "sh", "-c", text, folder=folder)
    os.kill(int(done.out), signal.SIGKILL)
    assert "no JVM has started so far" in done.err and f"  {done.out.strip()}  sleep 60\n" in done.err, done


def test_the_command_has_no_child_and_no_descriptor_that_it_did_not_make(launcher, folder):
    program = """if True:
        import os
        try:
            os.waitpid(-1, 0)
        except ChildProcessError:
            print("no child")
        """
    done = launcher.run("run", "--", "/usr/bin/python3", "-c", program, folder=folder)
    assert done.out == "no child\n", done
    seen = [launcher.plain(*words, "ls", "/proc/self/fd", folder=folder).out
            for words in ([], launcher.command("run", "--"))]
    assert seen[0] == seen[1]


def test_the_watcher_holds_no_stream_but_standard_error(launcher, folder):
    with launcher.started("run", "--", "sh", "-c", "exec >&- <&-; sleep 60", folder=folder) as process:
        assert process.stdout.read() == ""  # at once, though the command goes on
        assert process.poll() is None
        (watcher,) = wait_for(lambda: watchers(process.pid), "watcher")
        assert os.readlink(f"/proc/{watcher}/cwd") == "/"
        process.kill()


def test_interrupt_and_kill(launcher, folder):
    for number in (signal.SIGINT, signal.SIGKILL):
        with subprocess.Popen(
            launcher.command("run", "--", "sleep", "60"), cwd=folder, env=launcher.environment,
            stderr=subprocess.PIPE, text=True, start_new_session=True,
        ) as process:
            (watcher,) = wait_for(lambda: watchers(process.pid), "watcher")
            wait_for(lambda: b"sleep" in Path(f"/proc/{process.pid}/cmdline").read_bytes(), "sleep")
            if number == signal.SIGINT:
                os.killpg(process.pid, number)  # as a terminal does it
            else:
                process.kill()
            assert process.wait(30) == -number
            assert process.stderr.read().startswith(NOTHING)
            wait_for(lambda: not watchers(process.pid), "end of the watcher")
            assert not Path(f"/proc/{watcher}/fd").exists() or not os.listdir(f"/proc/{watcher}/fd")


def test_old_lists_of_jvms_are_deleted_with_their_results(launcher, folder):
    output = folder / OUTPUT
    (output / "run-1").mkdir(parents=True)
    for name, text in (("kept", "1 run-1\n"), ("over", "1 run-0\n2 -\n")):
        file = output / f"settings-{name}.jvms"
        file.write_text(text)
        os.utime(file, (0, 0))
    launcher.run("run", "--", "true", folder=folder)
    assert (output / "settings-kept.jvms").exists() and not (output / "settings-over.jvms").exists()
