"""`twreport check` as the gate of a build: what twprofile recorded of real JVMs, whole and not."""

import re
import signal

from harness import OUTPUT, execute, let_threads_block, results, wait_for


def check(launcher, folder, *limits):
    command = [str(launcher.root / "lib" / "twreport"), "check", *limits, OUTPUT]
    return execute(command, folder, "", launcher.environment)


def profiled(launcher, folder, *options, until, number=signal.SIGTERM):
    """Idle under `twprofile run`, until its run folder is as wanted; ended by the signal."""
    command = ["java", "-cp", launcher.programs, "example.Idle"]
    with launcher.started("run", *options, "--", *command, folder=folder) as process:
        assert any(line.startswith("pid ") for line in iter(process.stdout.readline, ""))
        wait_for(lambda: any(until(run) for run in results(folder / OUTPUT)), "what is waited for")
        process.send_signal(number)
        process.wait(60)


def in_detail(launcher, folder):
    def asked(run):
        shown = launcher.run("status", run.run["pid"], folder=folder).out
        return "\nlocks" in shown and "detail;" in shown

    return asked


def test_a_lock_session(launcher, folder):
    def contended(run):
        if not in_detail(launcher, folder)(run):
            return False
        let_threads_block()
        return True

    profiled(launcher, folder, "--locks=summary=1s,detail=1h,top=-1", until=contended)
    done = check(launcher, folder, "--max-blocked-seconds", "*=100000")
    assert (done.code, done.out, done.err) == (0, "", ""), done


def test_a_lock_session_that_ended_in_its_summary(launcher, folder):
    profiled(launcher, folder, "--locks=summary=1h", until=lambda run: run.folder.exists())
    done = check(launcher, folder, "--max-blocked-seconds", "*=100000")
    assert done.code == 1 and "no lock was recorded in session 1: it ended before its detail" in done.out


def test_jvms_that_were_killed(launcher, folder):
    def recorded(run):
        return any(run.folder.glob("exceptions.jsonl")) and len(run.exceptions()) > 0

    options = ("--locks=summary=1h", "--memory=track=example.Idle$Ticket", "--exceptions")
    profiled(launcher, folder, *options, until=recorded, number=signal.SIGKILL)
    limits = ("--max-blocked-seconds", "*=9", "--max-survivors", "example.Idle$Ticket=9@1",
              "--no-exception", "a.b.C")
    done = check(launcher, folder, *limits)
    out = re.sub(r"counts end at [\d:.TZ-]+, and ", "", done.out)
    assert done.code == 1 and out.splitlines() == [
        "*=9: a lock session did not end: the JVM was killed or is still running (locks-1.json.part)",
        "example.Idle$Ticket=9@1: a memory session did not end: the JVM was killed or is still running "
        "(memory-1.json.part)",
        "a.b.C: there is no end line: the JVM was killed or is still running",
        *[line for line in out.splitlines() if line.startswith("note: ")],
    ], done


def test_the_killed_one_of_two_jvms(launcher, folder):
    options = ("--locks=summary=500ms,detail=1h",)
    profiled(launcher, folder, *options, until=in_detail(launcher, folder), number=signal.SIGKILL)
    (killed,) = results(folder / OUTPUT)

    def second(run):
        return run.folder != killed.folder and in_detail(launcher, folder)(run)

    profiled(launcher, folder, *options, until=second)
    done = check(launcher, folder, "--max-blocked-seconds", "*=100000")
    assert done.code == 1, done
    assert f"{killed.folder.name}: *=100000: a lock session did not end" in done.out, done


def test_classes_that_nothing_tracked(launcher, folder):
    def swept(run):
        sweeps = run.folder / "memory-1.sweeps"
        return sweeps.exists() and '"classes":1' in sweeps.read_text()

    profiled(launcher, folder, "--memory=track=example.Idle$Ticket,interval=100ms", until=swept)
    tracked = check(launcher, folder, "--max-survivors", "example.Idle$Ticket=100000000@1")
    assert tracked.code == 0, tracked
    misspelt = check(launcher, folder, "--max-survivors", "example.Idle$Tiket=0@1")
    assert misspelt.code == 1, misspelt
    assert "not all matching classes were tracked: memory.track=example.Idle$Ticket" in misspelt.out


def test_classes_that_memory_track_misspells(launcher, folder):
    def swept(run):
        return (run.folder / "memory-1.sweeps").exists()

    profiled(launcher, folder, "--memory=track=example.Idle$Tiket,interval=100ms", until=swept)
    done = check(launcher, folder, "--max-survivors", "example.Idle$Tiket=0@1")
    assert done.code == 1 and "at most 0 of the classes of memory.track=" in done.out, done


def test_a_run_without_the_profiler(launcher, folder):
    command = ["java", "-cp", launcher.programs, "Echo", "0"]
    assert launcher.run("run", "--locks", "--", *command, folder=folder).code == 0
    done = check(launcher, folder, "--no-exception", "a.b.C")
    assert done.code == 1 and "the run was started without exceptions=true" in done.out, done
