"""What twprofile run shows at the end, in a terminal and with --open; the command stays itself."""

import os
import pty
import re
import select
import signal
import subprocess
import time

import pytest

from harness import OUTPUT, wait_for


class Terminal:
    """A terminal with a process in it, whose controlling terminal it is."""

    def __init__(self, command, folder, environment):
        self.pid, self.side = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            os.execvpe(command[0], command, environment)
        self.text = ""

    def read(self, until=None, limit=60):
        """Reads to the end, or until this text was printed; gives all that was read."""
        end = time.monotonic() + limit
        while until is None or until not in self.text:
            assert time.monotonic() < end, self.text
            if not select.select([self.side], [], [], 1)[0]:
                continue
            try:
                piece = os.read(self.side, 65536)
            except OSError:  # all of the other side is closed
                piece = b""
            if not piece:
                break
            self.text += piece.decode(errors="replace").replace("\r\n", "\n")
        return self.text

    def type(self, text):
        os.write(self.side, text)

    def end(self):
        """The exit code, or less than 0 for a signal."""
        self.read()
        os.close(self.side)
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])


@pytest.fixture
def terminal(launcher, folder):
    started = []

    def start(*words, **environment):
        values = {**launcher.environment, "TERM": "dumb", **environment}
        started.append(Terminal(launcher.command(*words), folder, values))
        return started[-1]

    yield start
    for one in started:
        try:
            os.kill(one.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def shop(launcher, *words):
    return ["java", "-cp", launcher.programs, *words]


def test_the_first_run_in_a_terminal_ends_with_findings_and_the_page(launcher, folder, terminal):
    command = shop(launcher, "example.Deadlocked")
    first = terminal("run", "--contention", "--exceptions", "--", *command)
    first.type(b"\n")
    code = first.end()
    shown = first.text
    page = folder / OUTPUT / "report.html"
    assert "What holds it up: " in shown and "What fails: " in shown and "What leaks: " in shown
    assert f"file://{page}" in shown and page.stat().st_mode & 0o777 == 0o600
    second = terminal("run", "--contention", "--exceptions", "--", *command)
    second.type(b"\n")
    assert second.end() == code
    assert "What holds it up" not in second.text


def test_the_exit_code_is_the_commands(launcher, terminal):
    assert terminal("run", "--", "sh", "-c", "exit 7").end() == 7
    gone = terminal("run", "--open", "--", "sh", "-c", "kill -KILL $$")
    assert gone.end() == -signal.SIGKILL


@pytest.mark.parametrize("how", ["key", "term"])
def test_signals_reach_the_command(launcher, folder, terminal, how):
    program = terminal("run", "--contention", "--open", "--", *shop(launcher, "example.Idle"))
    program.read(until="pid ")
    if how == "key":
        program.type(b"\x03")
    else:
        os.kill(program.pid, signal.SIGTERM)
    assert program.end() == (130 if how == "key" else 143)
    assert "What holds it up: " in program.text


def test_open_hands_the_page_to_the_desktop(launcher, folder):
    tools = folder / "tools"
    tools.mkdir()
    opener = tools / "xdg-open"
    opener.write_text('#!/bin/sh\necho "$1" > opened\n')
    opener.chmod(0o755)
    path = f"{tools}:{launcher.environment['PATH']}"
    command = shop(launcher, "example.Deadlocked")
    run = launcher.run("run", "--exceptions", "--open", "--", *command,
                       folder=folder, PATH=path, DISPLAY=":0")
    assert (folder / "opened").read_text() == f"{folder / OUTPUT}/report.html\n", run
    assert "What holds it up: " in run.err and "What holds it up" not in run.out
    (folder / "opened").unlink()
    again = launcher.run("report", "--open", folder=folder, PATH=path, DISPLAY=":0")
    assert again.code == 0 and (folder / "opened").exists(), again


def test_without_a_desktop_the_page_is_named(launcher, folder):
    command = shop(launcher, "example.Deadlocked")
    run = launcher.run("run", "--exceptions", "--open", "--", *command,
                       folder=folder, DISPLAY=None, WAYLAND_DISPLAY=None)
    assert "cannot open the page: no desktop is running" in run.err, run
    assert re.search(r"file://\S+/report\.html$", run.err, re.M)


@pytest.mark.parametrize("text, told", (
    ("exec sleep 30\n", ""), ("exit 3\n", "twprofile: xdg-open cannot open the page")))
def test_the_desktop_is_not_waited_for(launcher, folder, text, told):
    tools = folder / "tools"
    tools.mkdir()
    (tools / "xdg-open").write_text("#!/bin/sh\n" + text)
    (tools / "xdg-open").chmod(0o755)
    launcher.run("run", "--exceptions", "--", *shop(launcher, "example.Deadlocked"), folder=folder)
    begin = time.monotonic()
    path = f"{tools}:{launcher.environment['PATH']}"
    shown = launcher.run("report", "--open", folder=folder, PATH=path, DISPLAY=":0")
    assert shown.code == 0 and time.monotonic() - begin < 25 and told in shown.err, shown
    assert bool(told) == bool(shown.err), shown


def test_a_job_in_the_background_keeps_its_process(launcher, folder):
    words = launcher.command("run", "--exceptions", "--", *shop(launcher, "example.Deadlocked"))
    job = Terminal(["bash", "-c", 'set -m; "$@" </dev/null & wait $!', "bash", *words],
                   folder, launcher.environment)
    assert job.end() == 0 and "What holds it up" not in job.text, job.text


def test_the_command_does_not_outlive_its_parent(launcher, terminal):
    program = terminal("run", "--contention", "--open", "--", *shop(launcher, "example.Idle"))
    program.read(until="\n", limit=60)
    number = int(re.search(r"pid (\d+)", program.read(until="\n"))[1])
    assert number != program.pid
    os.kill(program.pid, signal.SIGKILL)
    wait_for(lambda: not os.path.exists(f"/proc/{number}"), "end of the command")


def test_without_a_terminal_nothing_is_added(launcher, folder):
    command = shop(launcher, "example.Deadlocked")
    run = launcher.run("run", "--exceptions", "--", *command, folder=folder)
    assert run.err == "" and not (folder / OUTPUT / "report.html").exists(), run


def test_where_nothing_was_recorded_the_reason_is_shown(launcher, folder):
    run = launcher.run("run", "--open", "--", "java", "-version", folder=folder)
    assert run.code == 0 and "left no results" in run.err, run


def test_the_five_commands_that_people_need(launcher, folder):
    run = launcher.run(folder=folder)
    assert run.code == 2 and run.out == ""
    assert re.findall(r"^  twprofile (\w+)", run.err, re.M) == [
        "run", "attach", "status", "report", "doctor"]
    everything = launcher.run("help", folder=folder)
    assert everything.code == 0 and "detach" in everything.out and everything.err == ""
