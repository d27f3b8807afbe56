"""JVMs that run a load, and the taking of turns between them.

A load's program prints "ready" and then answers each number of seconds with one line of JSON: see
programs/Load.java.
"""

import dataclasses
import json
import signal
import subprocess
import threading
import time

from . import safepoints
from .build import BenchError

SETTLE_SECONDS = 0.03  # From the moment a JVM goes on to the start of its measurement.
ANSWER_SECONDS = 120  # After which a JVM that gives no answer counts as hung.
END_SECONDS = 1800  # After which a program that is to end by itself does.


@dataclasses.dataclass(frozen=True)
class Plan:
    """How much is measured: sets of fresh JVMs, turns in each, seconds in a turn."""

    rounds: int
    turns: int
    seconds: float
    warmup: float


def processor_nanos(pid):
    """The processor time of a process, which Java has to a hundredth of a second only."""
    return time.clock_gettime_ns(~pid << 3 | 2)  # The clock that clock_getcpuclockid gives.


class Jvm:
    """A JVM that runs a load, stopped except while it starts, is measured or ends."""

    def __init__(self, java, arguments, folder):
        folder.mkdir(parents=True, exist_ok=True)
        (folder / "logs").mkdir(exist_ok=True)
        self._log_path = folder / "jvm.log"
        self._log = open(self._log_path, "w")
        safepoint_log = folder / "safepoints.log"
        safepoint_log.unlink(missing_ok=True)
        self._safepoints = safepoints.SafepointLog(safepoint_log)
        self._process = subprocess.Popen(
            [java, safepoints.option(safepoint_log), *arguments],
            cwd=folder,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=self._log,
            text=True,
            bufsize=1,
        )

    def wait_until_ready(self):
        self._answer(lambda line: line == "ready")
        self._process.send_signal(signal.SIGSTOP)

    def measure(self, seconds):
        """Gives the program's answer, with what it does not know added to it: "processorNanos",
        "safepoints" and "safepointNanos"."""
        self._process.send_signal(signal.SIGCONT)
        time.sleep(SETTLE_SECONDS)
        before = self._clocks()
        try:
            self._process.stdin.write(f"{seconds}\n")
        except BrokenPipeError as error:
            raise self._failure("ended before it was measured") from error
        line = self._answer(lambda text: text.startswith("{"))
        after = self._clocks()
        self._process.send_signal(signal.SIGSTOP)
        measured = json.loads(line)
        # The program's time is a little shorter than that between these two readings.
        passed, processor = (late - early for late, early in zip(after, before))
        measured["processorNanos"] = processor * (measured["to"] - measured["from"]) / passed
        found = self._safepoints.between(measured["from"], measured["to"])
        measured["safepoints"] = len(found)
        measured["safepointNanos"] = sum(each.nanos for each in found)
        return measured

    def _clocks(self):
        return time.monotonic_ns(), processor_nanos(self._process.pid)

    def close(self):
        """Ends the load and waits for the end of the program."""
        self._process.send_signal(signal.SIGCONT)
        self._process.stdin.close()
        with self._watchdog():
            self._log.writelines(self._process.stdout)
            self._process.wait()
        if self._process.returncode != 0:
            raise self._failure(f"ended with status {self._process.returncode}")
        self._log.close()

    def kill(self):
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait()
        self._log.close()

    def _answer(self, is_answer):
        with self._watchdog():
            for line in self._process.stdout:
                if is_answer(line.strip()):
                    return line
                self._log.write(line)
        raise self._failure("ended or hung before it answered")

    def _watchdog(self):
        return _Watchdog(ANSWER_SECONDS, self._process)

    def _failure(self, what):
        self._log.flush()
        return BenchError(f"a measured JVM {what}; its output: {self._log_path}")


class _Watchdog:
    """Kills a process that has not finished what is done within a `with` block."""

    def __init__(self, seconds, process):
        self._timer = threading.Timer(seconds, process.kill)

    def __enter__(self):
        self._timer.start()

    def __exit__(self, *_):
        self._timer.cancel()


def measure_in_turns(names, start, plan):
    """Gives, for each name, its JVM's measurements in the order of the turns.

    `start(name)` starts the JVM of that name. All are started first; then one at a time goes on and
    is measured while the others are stopped.
    """
    jvms = {}
    measured = {name: [] for name in names}
    try:
        for name in names:
            jvms[name] = start(name)
            jvms[name].wait_until_ready()
        for jvm in jvms.values():
            jvm.measure(plan.seconds)  # Not kept: the first moments are not typical.
        for turn in range(plan.turns):
            for i in range(len(names)):
                name = names[(turn + i) % len(names)]
                measured[name].append(jvms[name].measure(plan.seconds))
        for name in names:
            jvms[name].close()
    finally:
        for jvm in jvms.values():
            jvm.kill()
    return measured


def run_to_end(command, folder):
    """Runs a program that ends by itself in a folder; gives what it prints."""
    log = folder / "jvm.log"
    with open(log, "w") as errors:
        try:
            done = subprocess.run(
                command,
                cwd=folder,
                stdout=subprocess.PIPE,
                stderr=errors,
                text=True,
                timeout=END_SECONDS,
            )
        except subprocess.TimeoutExpired as error:
            raise BenchError(f"{command[0]} hung; its errors: {log}") from error
    if done.returncode != 0:
        raise BenchError(f"{command[0]} ended with status {done.returncode}; its errors: {log}")
    return done.stdout
