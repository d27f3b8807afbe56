"""twprofile on JVMs that run already: attach and detach, in containers and of other users."""

import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
from contextlib import contextmanager
from pathlib import Path

import pytest

from harness import OUTPUT, results, wait_for, without_agent

NOBODY = 65534
AS_ROOT = pytest.mark.skipif(os.geteuid() != 0, reason="needs root")


@contextmanager
def jvm(launcher, folder, *flags, before=()):
    """Idle without twprofile, after the words of another command; gives its process id from here."""
    command = [*before, launcher.java, *flags, "-cp", launcher.programs, "example.Idle"]
    with subprocess.Popen(
        command, cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
    ) as process:
        try:
            while not process.stdout.readline().startswith("pid "):
                assert process.poll() is None, process.stderr.read()
            yield process
        finally:
            process.kill()


def done(launcher, *words, folder):
    run = launcher.run(*words, folder=folder)
    assert run.code == 0 and run.err == "", run
    return run.out


def refused(launcher, *words, folder):
    """The one line that names why it cannot be done."""
    run = launcher.run(*words, folder=folder)
    assert run.code == 1 and run.out == "" and run.err.count("\n") == 1, run
    return run.err


def test_attach_detach_and_attach_again(launcher, folder):
    with jvm(launcher, folder, "-XX:+IgnoreUnrecognizedVMOptions",
             "-XX:+EnableDynamicAgentLoading") as process:
        def verb(name, *words):
            return done(launcher, name, process.pid, *words, folder=folder)

        told = verb("attach", "--contention=samples=100", "--exceptions=rate=0")
        assert told.startswith("contention: running\nexceptions: on\n"), told
        assert "not in an attached JVM: " in told
        assert told.endswith(f"results: {folder / OUTPUT}\n")
        assert re.search(rf"^{process.pid} ", done(launcher, "list", folder=folder), re.M)
        assert "has the agent already" in refused(launcher, "attach", process.pid, folder=folder)

        assert verb("start", "--locks=summary=200ms,detail=1h,top=-1") == "locks: summary\n"
        shown = verb("status")
        assert re.search(r"^memory +off; 0 sessions$", shown, re.M), shown
        wait_for(lambda: re.search(r"exceptions +on; [1-9]", verb("status")), "exceptions")
        wait_for(lambda: re.search(r"locks +detail", verb("status")), "detail phase")
        assert re.fullmatch(r"contention: .*/contention-1\.json\n", verb("stop", "--contention"))
        told = verb("detach")
        assert re.search(r"^locks: .*/locks-1\.json$", told, re.M), told
        assert re.search(r"^exceptions: .*/exceptions\.jsonl$", told, re.M), told
        (found,) = results(folder / OUTPUT)
        assert "example.Idle$Jam" in {e["class"] for e in found.exceptions()}
        report = found.json("contention-1.json")
        assert report["settings"]["samplesPerSecond"] == 100 and report["endedAt"] is not None

        for words in (("status",), ("stop",), ("start", "--locks"), ("detach",)):
            name, *rest = words
            assert "is detached; attach to it again with" in refused(
                launcher, name, process.pid, *rest, folder=folder)
        assert verb("attach", "--memory=track=example.Idle$Ticket").startswith(
            "memory: running\n")
        wait_for(lambda: re.search(r" [1-9]\d* objects tracked", verb("status")), "sweep")
        verb("detach")
        assert len(results(folder / OUTPUT)) == 2
        # Nothing of the agent's but its results is left, and the program has not noticed.
        assert sorted(os.listdir(folder)) == [OUTPUT]
        assert list((folder / OUTPUT / "logs").glob("tw_NativeAgent_*")), "the agent's log"
        process.terminate()
        assert without_agent(process.communicate(timeout=60)[1]) == ""


def test_a_jvm_that_was_started_with_the_agent_is_not_detached(launcher, folder):
    command = ["java", "-cp", launcher.programs, "example.Idle"]
    with launcher.started("run", "--idle", "--", *command, folder=folder) as process:
        wait_for(lambda: process.stdout.readline().startswith("pid "), "line")
        assert "was started with the agent" in refused(
            launcher, "detach", process.pid, folder=folder)
        assert "has the agent already" in refused(launcher, "attach", process.pid, folder=folder)


def test_an_attach_that_stopped_halfway_is_completed_by_the_next(launcher, folder):
    """The agent is there then, and the companion is not."""
    broken = folder / "broken.jar"
    broken.write_text("no jar")
    options = "quiet=1,exceptionCapture=made,features=mutexprofiling"
    with jvm(launcher, folder) as process:
        lib = launcher.root / "lib"
        half = subprocess.run(
            [lib / "twcontrol", "attach", str(process.pid), lib / "libjavanativeagent.so", broken,
             "", options, "contention"],
            cwd=folder, input="contention=true\n", capture_output=True, text=True, timeout=60)
        assert half.returncode == 1 and "cannot read" in half.stderr, half
        assert f"but not the companion; attach to it with: twprofile attach {process.pid}\n" in (
            refused(launcher, "status", process.pid, folder=folder))
        assert "contention: running\n" in done(
            launcher, "attach", process.pid, "--contention", folder=folder)
        assert "contention: " in done(launcher, "detach", process.pid, folder=folder)


def test_a_jvm_whose_companion_had_no_agent(launcher, folder):
    """It has given up then, and begins again."""
    with jvm(launcher, folder, f"-javaagent:{launcher.root}/lib/javanativeagent.jar") as process:
        assert "contention: running\n" in done(
            launcher, "attach", process.pid, "--contention", folder=folder)
        done(launcher, "detach", process.pid, folder=folder)


def test_an_attach_that_can_start_no_profiler_fails(launcher, folder):
    """The description of the run is too long for the files that the JVM may write."""
    limited = ["bash", "-c", 'ulimit -f 2 && exec "$@"', "bash"]
    long = "--locks=name=" + 5000 * "x"
    with jvm(launcher, folder, "-XX:-UsePerfData", before=limited) as process:
        run = launcher.run("attach", process.pid, "--contention", long, folder=folder)
        assert run.code == 1 and "contention: off\nlocks: off\n" in run.out, run
        assert run.err.startswith("twprofile: attach: "), run


@pytest.mark.parametrize(
    "flag, told",
    (
        ("-XX:+DisableAttachMechanism", "was started with -XX:+DisableAttachMechanism"),
        ("-XX:-EnableDynamicAgentLoading", "was started with -XX:-EnableDynamicAgentLoading"),
    ),
)
def test_jvms_that_take_no_agent(launcher, folder, flag, told):
    with jvm(launcher, folder, flag) as process:
        assert told in refused(launcher, "attach", process.pid, folder=folder)
        assert process.poll() is None
        process.kill()
        assert process.communicate(timeout=60) == ("", ""), "it has not noticed"


def test_a_jvm_without_signal_handlers(launcher, folder):
    """It listens from its start on: no signal is sent, which would end it."""
    with jvm(launcher, folder, "-Xrs") as process:
        assert "contention: running" in done(launcher, "attach", process.pid, folder=folder)
        done(launcher, "detach", process.pid, folder=folder)
        assert process.poll() is None


def test_a_stopped_jvm(launcher, folder):
    with jvm(launcher, folder) as process:
        process.send_signal(signal.SIGSTOP)
        wait_for(lambda: "T (stopped)" in Path(f"/proc/{process.pid}/status").read_text(), "stop")
        told = refused(launcher, "attach", process.pid, folder=folder)
        assert f"it is stopped; resume it with: kill -CONT {process.pid}" in told


@pytest.fixture
def open_folder():
    """A working directory that every user may enter; pytest closes its own again and again."""
    with tempfile.TemporaryDirectory(prefix="twprofile-test-") as name:
        os.chmod(name, 0o755)
        yield Path(name)


@AS_ROOT
def test_a_jvm_of_another_user(launcher, open_folder):
    folder = open_folder
    home = folder / "home"
    home.mkdir()
    shutil.chown(home, NOBODY, NOBODY)
    switch = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
    with jvm(launcher, home, before=switch) as process:
        # A process of root that was killed may have had the same number.
        Path(f"/tmp/.java_pid{process.pid}").unlink(missing_ok=True)
        told = done(launcher, "attach", process.pid, "--contention", folder=folder)
        place = Path(re.search(r"^results: (\S+)$", told, re.M)[1])
        assert place == folder / OUTPUT and place.stat().st_uid == NOBODY
        assert re.search(rf"^{process.pid} .*\(user nobody\)$", done(launcher, "list", folder=folder), re.M)
        assert "contention: " in done(launcher, "stop", process.pid, folder=folder)
        other = [*switch, *launcher.command("status", process.pid)]
        own = subprocess.run(other, capture_output=True, text=True, timeout=60)
        assert own.returncode == 0 or "Permission denied" in own.stderr, own
        done(launcher, "detach", process.pid, folder=folder)
        maps = Path(f"/proc/{process.pid}/maps").read_text()
    for copies in set(re.findall(r"/tmp/twprofile-\w+(?=/libjavanativeagent)", maps)):
        shutil.rmtree(copies)


@AS_ROOT
def test_a_socket_that_a_process_of_root_left(launcher, open_folder):
    """The JVM's user may not replace it."""
    switch = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
    with jvm(launcher, open_folder, before=switch) as process:
        left = Path(f"/tmp/.java_pid{process.pid}")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(left))
            left.chmod(0o600)
        try:
            told = refused(launcher, "attach", process.pid, folder=open_folder)
            assert f"'{left}' is not its socket, but was created by user 0; delete it\n" in told
        finally:
            left.unlink()


@AS_ROOT
def test_a_jvm_in_a_container(launcher, folder):
    """With process ids and a /tmp of its own, in which the agent's files are not."""
    script = 'mount -t tmpfs none /tmp && exec "$@"'
    box = ["unshare", "--mount", "--pid", "--fork", "--mount-proc", "--kill-child",
           "sh", "-c", script, "sh"]
    assert str(launcher.root).startswith("/tmp/"), "hidden from the JVM"
    with jvm(launcher, "/", before=box) as process:
        pid = int(Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()[0])
        try:
            told = done(launcher, "attach", pid, "--contention", folder=folder)
            outside = Path(f"/proc/{pid}/root/tmp/{OUTPUT}")
            assert f"results: {outside}, which the JVM sees as /tmp/{OUTPUT}\n" in told
            assert re.search(rf"^{pid} .*\(in a container\)$", done(launcher, "list", folder=folder), re.M)
            shown = done(launcher, "status", pid, folder=folder)
            assert re.search("^contention +running", shown, re.M), shown
            assert re.search(f"^results +{outside}/run-\\S+, which the JVM sees as /tmp/", shown, re.M), shown
            told = done(launcher, "detach", pid, folder=folder)
            assert told.startswith(f"contention: {outside}/run-"), told
            (found,) = results(outside)
            assert found.json("contention-1.json")["report"] == "contention"
            told = done(launcher, "attach", pid, "--contention", folder=folder)
            assert told.startswith("contention: running\n"), told
        finally:
            os.kill(pid, signal.SIGKILL)


@pytest.mark.parametrize(
    "words, told",
    (
        (("attach",), "expected a process id"),
        (("attach", "1", "x"), "unexpected argument 'x'"),
        (("attach", "1", "--lock"), "unknown option '--lock'; did you mean '--locks'?"),
        (("attach", "1", "-o"), "-o: expected a folder after it"),
        (("attach", "1", "--exceptions=mode=thrown"), "expected made"),
        (("detach", "1", "2"), "unexpected argument '2'"),
    ),
)
def test_wrong_use(launcher, folder, words, told):
    wrong = launcher.run(*words, folder=folder)
    assert wrong.code == 2 and wrong.out == "" and told in wrong.err, wrong


def test_a_process_that_is_none_of_these(launcher, folder):
    assert "is not a JVM" in refused(launcher, "attach", os.getpid(), folder=folder)
    assert "no such process: 999999999" in refused(launcher, "attach", 999999999, folder=folder)
