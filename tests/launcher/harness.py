"""Runs twprofile as from a checkout, with one JDK on the path, and reads what profiling leaves."""

import json
import os
import re
import signal
import subprocess
import time
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]
OUTPUT = "twprofile-out"
LIMIT = 120

# All that a profiled JVM adds to an output, on standard error: its own word on its environment.
TOLD = re.compile(r"^Picked up JAVA_TOOL_OPTIONS:.*\n", re.M)


@dataclass
class Run:
    """What a command left: exit code as a shell tells it, and its streams."""

    code: int
    out: str
    err: str

    def __str__(self):
        return f"exit {self.code}\n--- out\n{self.out}\n--- err\n{self.err}"


class Launcher:
    def __init__(self, java, lib, programs, make_folder):
        self.java = java
        self.programs = programs
        self._make_folder = make_folder
        self._lib = Path(lib).resolve()
        self.root = self.checkout("checkout")
        home = Path(java).resolve().parents[1]
        foreign = ("JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS", "CLASSPATH", "LC_ALL")
        self.environment = {k: v for k, v in os.environ.items() if k not in foreign}
        self.environment.update(
            JAVA_HOME=str(home), PATH=f"{home}/bin:{os.environ['PATH']}", LANG="C.UTF-8"
        )

    def checkout(self, name):
        """A checkout with the command and what was built, in a new folder with that name's start."""
        root = self._make_folder(name)
        (root / "bin").mkdir()
        command = root / "bin" / "twprofile"
        command.write_bytes((SOURCE / "bin" / "twprofile").read_bytes())
        command.chmod(0o755)
        (root / "VERSION").write_bytes((SOURCE / "VERSION").read_bytes())
        (root / "lib").symlink_to(self._lib)
        return root

    def command(self, *words, root=None):
        return [str((root or self.root) / "bin" / "twprofile"), *map(str, words)]

    def run(self, *words, folder, stdin="", root=None, **environment):
        """Runs `twprofile WORDS` in the folder to its end; None unsets a variable."""
        return execute(self.command(*words, root=root), folder, stdin, self._with(environment))

    def plain(self, *words, folder, stdin="", **environment):
        """Runs the words without twprofile."""
        return execute(list(map(str, words)), folder, stdin, self._with(environment))

    def _with(self, changes):
        return {k: v for k, v in {**self.environment, **changes}.items() if v is not None}

    @contextmanager
    def started(self, *words, folder, **environment):
        """Starts `twprofile WORDS`; gives the process, which is ended in any case."""
        with subprocess.Popen(
            self.command(*words),
            cwd=folder,
            env=self._with(environment),
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),  # a shell may ignore it
        ) as process:
            try:
                yield process
            finally:
                if process.poll() is None:
                    process.kill()


def execute(command, folder, stdin, environment):
    done = subprocess.run(
        command, cwd=folder, env=environment, input=stdin.encode(), capture_output=True, timeout=LIMIT
    )
    code = done.returncode if done.returncode >= 0 else 128 - done.returncode
    return Run(code, done.stdout.decode(), done.stderr.decode())


def without_agent(text):
    """An output without the line that the JVM adds to it."""
    return TOLD.sub("", text)


def wait_for(condition, what):
    """The first true value of the condition, which is asked again and again."""
    end = time.monotonic() + LIMIT
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.05)
    raise AssertionError(f"no {what} after {LIMIT} s")


class Results:
    """The run folder of one JVM."""

    def __init__(self, folder):
        self.folder = folder
        self.run = json.loads((folder / "run.json").read_text())

    @property
    def command(self):
        return self.run["command"]

    def json(self, name):
        return json.loads((self.folder / name).read_text())

    def locks(self):
        """Classes of the monitors in all lock reports."""
        names = set()
        for report in self.folder.glob("locks-*.json"):
            names.update(name.split("@")[0] for name in json.loads(report.read_text())["lockmap"])
        return names

    def exceptions(self):
        """All exception records, without the summary."""
        lines = []
        for file in self.folder.glob("exceptions*.jsonl"):
            lines += map(json.loads, file.read_text().splitlines())
        return [line for line in lines if "class" in line]

    def memory(self):
        """Classes in all memory reports."""
        names = set()
        for report in self.folder.glob("memory-*.json"):
            names.update(json.loads(report.read_text())["topNMemoryleakClass"])
        return names


def results(output):
    """The results of each JVM that wrote into the output folder, by start."""
    return [Results(described.parent) for described in sorted(Path(output).glob("run-*/run.json"))]


def let_threads_block():
    """Returns once the threads of Idle, which meet every 10 ms, have blocked many times."""
    time.sleep(1)
