"""Starts Java programs with the agent and reads what it leaves: report, stack file, log.

The programs tell what really happened in lines "fact key=value"; the tests compare that with what
the agent wrote.
"""

import json
import os
import re
import resource
import signal
import subprocess
from dataclasses import dataclass, field
from functools import cache
from pathlib import Path

import pytest

from features import CHECKED_JDK

HOME = "{home}"  # in agent options: the agent home of the run
DEFAULT_OPTIONS = f"logLevel=3,twHome={HOME}"
NATIVE = "Java_com_korvane_twutils_nativeagent_TWNativeAgentProfiling_"
SECOND = 1_000_000_000

CRASH_MARKS = (
    "A fatal error has been detected",
    "WARNING in native method",
    "FATAL ERROR in native method",
    "exceeds capacity",  # local references, under -Xcheck:jni
    "Exception in thread",
)


def modified_utf8(text):
    """The text as the VM hands it to native code: each UTF-16 unit on its own, NUL as two bytes.

    The bytes come as characters of the same value, as `Report` reads them.
    """
    units = text.encode("utf-16-le", "surrogatepass")
    encoded = b""
    for i in range(0, len(units), 2):
        unit = units[i] | units[i + 1] << 8
        encoded += chr(unit).encode("utf-8", "surrogatepass") if unit else b"\xc0\x80"
    return encoded.decode("latin-1")


def fnv1a(text):
    """64-bit FNV-1a hash of the text's bytes."""
    value = 0xCBF29CE484222325
    for byte in text.encode("latin-1"):
        value = (value ^ byte) * 0x100000001B3 % 2**64
    return value


def stack_hash(stored):
    """The hash of a stack trace from its stored form: hashed with a line feed after each line."""
    return fnv1a(stored.replace(",", "\n") + "\n")


def unique_members(pairs):
    members = dict(pairs)
    assert len(members) == len(pairs), f"a member twice: {[key for key, _ in pairs]}"
    return members


class Report:
    """A lock report; texts hold one character for each byte of the file."""

    def __init__(self, path, members=unique_members):
        self.root = json.loads(
            path.read_bytes().decode("latin-1"), object_pairs_hook=members
        )

    @property
    def locks(self):
        return self.root["lockmap"]

    @property
    def owners(self):
        return self.root["blockingThreads"]

    @property
    def stacks(self):
        return self.root["stacktracemap"]

    def thread_counts(self, lock):
        return {
            name: bean["count"] for name, bean in self.locks[lock]["threadbean"].items()
        }

    def owner_counts(self):
        return {name: bean["blockingCount"] for name, bean in self.owners.items()}


def read_stacks(path):
    """The traces of a stack file in the order of its lines, as (hash, text)."""
    text = path.read_bytes().decode("latin-1")
    assert text.endswith("]\n")
    lines = [re.fullmatch(r"(\d+)=\[(.*)\]", line) for line in text[:-1].split("\n")]
    assert all(lines), text
    return [(int(line[1]), line[2]) for line in lines]


@dataclass
class Record:
    """One record of the agent log."""

    time: str
    run: str
    thread: str
    thread_id: int
    module: str
    source: str
    line: int
    function: str
    severity: str
    message: str


@dataclass
class Run:
    """What one JVM left behind."""

    folder: Path
    home: Path
    exit_code: int
    out: str
    err: str
    facts: dict = field(default_factory=dict)

    def report(self, name="report.json", **options):
        return Report(self.folder / name, **options)

    def stacks(self, name="stacks.txt"):
        return read_stacks(self.folder / name)

    def fact(self, key):
        return int(self.facts[key])

    def whole_seconds(self, key):
        """What the agent may say of a time that the program knows between two bounds."""
        low, high = self.fact(key + ".low"), self.fact(key + ".high")
        return range(low // SECOND, high // SECOND + 1)

    def log_text(self, home=None):
        files = list(((home or self.home) / "logs").iterdir())
        if not files:
            return ""
        (file,) = files
        assert re.fullmatch(r"tw_NativeAgent_\d{14}_\d+\.log_0", file.name)
        return file.read_bytes().decode("latin-1")

    def log(self, home=None):
        start = r"\n(?=\d\d/\d\d/\d\d \d\d:\d\d:\d\d\|\*{6}\|)"
        records = []
        for text in re.split(start, self.log_text(home))[1:]:
            parts = text.split("|", 9)
            parts[3], parts[6] = int(parts[3]), int(parts[6])
            records.append(Record(*parts))
        return records

    def messages(self, severity):
        return [r.message for r in self.log() if r.severity == severity]


def parse_facts(out):
    facts = {}
    for key, value in re.findall(r"^fact (.*?)=(.*)$", out, re.M):
        assert key not in facts, f"fact {key} twice"
        facts[key] = re.sub(
            r"\\u([0-9a-f]{4})", lambda match: chr(int(match[1], 16)), value
        )
    return facts


class Jvm:
    """One Java installation, and the agent to start it with."""

    def __init__(self, java, agent, class_path, make_folder):
        self.java = java
        self.agent = agent
        self.class_path = class_path
        self.make_folder = make_folder

    def supports(self, *vm):
        """Whether this Java knows the options."""
        command = [self.java, *vm, "-version"]
        return subprocess.run(command, capture_output=True).returncode == 0

    @cache
    def _properties(self):
        command = [self.java, "-XshowSettings:properties", "-version"]
        return subprocess.run(command, capture_output=True, text=True).stderr

    def version(self):
        """The feature version, as in 17."""
        return int(re.search(r"java\.version = (?:1\.)?(\d+)", self._properties())[1])

    def home(self):
        """As the VM itself knows it."""
        return re.search(r"java\.home = (.*)", self._properties())[1]

    def has(self, feature):
        """Whether this Java has the feature, as features.py tells."""
        return feature.first <= self.version() <= feature.last

    def need(self, feature):
        """Skips the test where the feature is not there."""
        if not self.has(feature):
            pytest.skip(f"not there: {feature.name}")

    def checks(self):
        """Options to check how native code uses the VM, where that of the JDK itself passes."""
        return ("-Xcheck:jni",) if self.has(CHECKED_JDK) else ()

    def new_folder(self, name="run"):
        """A folder of its own for a run: working directory and, below it, the agent home."""
        folder = self.make_folder(name)
        (folder / "home" / "logs").mkdir(parents=True)
        return folder

    def run(self, program, *arguments, options=DEFAULT_OPTIONS, vm=(), folder=None, exit_code=0,
            quiet=True, limit=120, environment=None,
            file_limit=resource.RLIM_INFINITY, loads_agent=True):
        """Runs the program to its end.

        Fails when it ends otherwise than with `exit_code`, takes more than `limit` seconds, shows
        any sign of a crash or misused native interface, or (`quiet`) writes to standard error.
        `options` None starts the agent without an option string; without `loads_agent` the program
        may attach it. `environment` is added to the one that every run gets. No file may get larger
        than `file_limit` bytes.
        """
        folder = folder or self.new_folder(program)
        home = folder / "home"
        agent = f"-agentpath:{self.agent}"
        if options is not None:
            agent += "=" + options.replace(HOME, str(home))
        command = [self.java, "-Xmx256m", *([agent] if loads_agent else []), *vm,
                   "-cp", self.class_path, program, *map(str, arguments)]
        exit_status = self._execute(command, folder, limit, environment or {}, file_limit)
        out, err = ((folder / name).read_bytes().decode("latin-1") for name in ("out", "err"))
        told = f"{' '.join(command)}\nin {folder}\n--- out\n{out}\n--- err\n{err}"
        assert not list(folder.glob("hs_err*")), told
        assert not any(mark in out + err for mark in CRASH_MARKS), told
        assert exit_status == exit_code, f"exit {exit_status}: {told}"
        assert not (quiet and err), told
        return Run(folder, home, exit_status, out, err, parse_facts(out))

    @staticmethod
    def _execute(command, folder, limit, added, file_limit):
        foreign = ("JAVA_TOOL_OPTIONS", "JDK_JAVA_OPTIONS", "_JAVA_OPTIONS", "LD_PRELOAD")
        environment = {k: v for k, v in os.environ.items() if k not in foreign}

        def set_limits():
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_FSIZE, (file_limit, resource.RLIM_INFINITY))

        with open(folder / "out", "wb") as out, open(folder / "err", "wb") as err:
            process = subprocess.Popen(
                command,
                cwd=folder,
                env={**environment, "LC_ALL": "C", **added},
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=err,
                preexec_fn=set_limits,
            )
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                Jvm._end_hanging(process)
                text = (folder / "out").read_text("latin-1")
                raise AssertionError(f"still running after {limit} s: {command}\n{text}") from None
            finally:
                if process.poll() is None:
                    process.kill()
                    process.wait()
        # A shell's way to say that a signal ended the program.
        return status if status >= 0 else 128 - status

    @staticmethod
    def _end_hanging(process):
        process.send_signal(signal.SIGQUIT)  # a thread dump, if it still can
        try:
            process.wait(3)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
