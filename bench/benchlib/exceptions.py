"""What the exception profiler costs a program that throws."""

import dataclasses

from . import build, tables
from .build import BenchError
from .jvm import Jvm, measure_in_turns

NAME = "exceptions"
SETS = 2  # of JVMs: which of their frames are compiled when a record is made differs


@dataclasses.dataclass(frozen=True)
class Workload:
    depth: int
    threads: int
    has_stack: bool = False

    @property
    def name(self):
        stack = "-with-stack" if self.has_stack else ""
        return f"{self.depth}-frames-{self.threads}-threads{stack}"

    @property
    def title(self):
        threads = "1 thread" if self.threads == 1 else f"{self.threads} threads"
        stack = ", new exceptions with their stack traces" if self.has_stack else ""
        return f"{threads} throwing through {self.depth} compiled frames{stack}"

    least_jdk = 0


@dataclasses.dataclass(frozen=True)
class Subject:
    """One of the JVMs compared: which agent it has and what that is told to record."""

    name: str
    title: str
    agent: str = ""  # a reference agent, or "library"
    capture: str = "none"
    records: bool = False  # each exception
    mode: str = "thrown"  # where the library captures


_STACKLESS = tuple(Workload(depth, threads) for threads in (1, 8) for depth in (10, 40))
# As most programs throw: the stack trace is a good part of what a throw costs.
_WITH_STACK = tuple(Workload(depth, 1, has_stack=True) for depth in (10, 40))
_MAIN_WORKLOADS = tuple(each for each in _STACKLESS + _WITH_STACK if each.depth == 10)

WORKLOADS = _STACKLESS + _WITH_STACK

NONE, EMPTY, FLOOR, LITERAL, LIBRARY = "none", "empty", "floor", "literal", "library"
MADE_OFF, MADE_SPENT = "made-off", "made-spent"
SUBJECTS = (
    Subject(NONE, "no agent"),
    Subject("recorder", "flight recorder"),
    Subject(EMPTY, "empty handler", "emptyExceptionAgent"),
    Subject("off", "library, capture off", "library"),
    Subject("spent", "library, rate spent", "library", "spent"),
    Subject("filtered", "library, thrower filtered", "library", "filtered"),
    Subject("blacklisted", "library, on the black list", "library", "blacklisted"),
    Subject(MADE_OFF, "library, made: switched off", "library", "switchedOff", mode="made"),
    Subject(MADE_SPENT, "library, made: rate spent", "library", "spent", mode="made"),
    Subject(FLOOR, "recorded: floor agent", "floorExceptionAgent", records=True),
    Subject(LITERAL, "recorded: literal agent", "literalExceptionAgent", records=True),
    Subject(LIBRARY, "recorded: library", "library", "all", records=True),
    Subject("made", "recorded: library, made", "library", "all", records=True, mode="made"),
)
_LEFT_OUT = {
    "quick": ("recorder", "off", "spent", "blacklisted"),
    "default": ("blacklisted",),
    "full": (),
}

LEGEND = """
Exceptions: throws a second; throws for each second of processor time, with those of no agent and of
the empty handler as 1 (median of the turns, ± half of what their middle half covers); for those that
record each exception, with as many frames as are thrown through, the processor time of a record with
that of the floor agent as 1, records a second with those of the literal agent as 1, and global
safepoints and the time in them for each record.
"""


def rate(measured):
    """Throws for each second of processor time: what a throw costs, however busy the machine is."""
    return measured["operations"] / measured["processorNanos"] * 1e9


def _records(measured):
    return measured["records"] / (measured["to"] - measured["from"]) * 1e9


def _beside_literal(name):
    return lambda rounds: tables.ratio(rounds, name, LITERAL, _records)


def _cost_beside_floor(name):
    """Of a throw, each of which makes a record; in processor time."""
    return lambda rounds: tables.ratio(rounds, FLOOR, name, rate)


def _not_recorded(rounds):
    """The slowest of the ways not to record an exception while capture is on."""
    names = ("spent", "filtered", "blacklisted")
    ratios = [tables.ratio(rounds, name, EMPTY, rate) for name in names]
    return min(filter(None, ratios), key=lambda each: each.median, default=None)


def _cost_beside_none(name):
    """Of a throw, in processor time."""
    return lambda rounds: tables.ratio(rounds, NONE, name, rate)


_GOALS = (
    tables.Goal(
        "captured where they are made, rate spent: within 1.3 of no agent",
        _cost_beside_none(MADE_SPENT),
        {workload.name: 1.3 for workload in _WITH_STACK},
        is_upper_limit=True,
    ),
    tables.Goal(
        "captured where they are made, switched off: within 1.05 of no agent",
        _cost_beside_none(MADE_OFF),
        {workload.name: 1.05 for workload in _WITH_STACK},
        is_upper_limit=True,
    ),
    tables.Goal(
        "rate spent, filtered or on the black list: at least 0.95 of the empty handler's throws",
        _not_recorded,
        {workload.name: 0.95 for workload in _STACKLESS},
    ),
    tables.Goal(
        "recorded: within 1.1 of the floor agent's processor time",
        _cost_beside_floor(LIBRARY),
        {workload.name: 1.1 for workload in _STACKLESS},
        is_upper_limit=True,
    ),
    tables.Goal(
        "recorded by 8 threads: at least 1.3 times the literal agent's records",
        _beside_literal(LIBRARY),
        {workload.name: 1.3 for workload in _STACKLESS if workload.threads == 8},
    ),
)


def workloads(scope):
    """The workloads measured by default, with --quick and with --full."""
    return {"quick": WORKLOADS[:1], "default": _MAIN_WORKLOADS, "full": WORKLOADS}[scope]


def subjects(scope):
    """The JVMs compared by default, with --quick and with --full."""
    return [each for each in SUBJECTS if each.name not in _LEFT_OUT[scope]]


def measure(jdk, workload, compared, library, plan):
    """Gives one round: for each subject's name, its measurements in the order of the turns."""
    by_name = {subject.name: subject for subject in compared}

    def start(name):
        folder = build.OUT / "sessions" / f"jdk-{jdk.version}" / workload.name / name
        arguments = java_arguments(workload, by_name[name], library, plan, folder)
        return Jvm(jdk.program("java"), arguments, folder)

    measured = measure_in_turns(list(by_name), start, plan)
    for subject in compared:
        _require_records(workload, subject, measured[subject.name])
    return measured


def java_arguments(workload, subject, library, plan, folder):
    options = []
    if subject.agent == "library":
        features = "features=exceptionprofiling"
        mode = f"exceptionCapture={subject.mode}"
        options = [f"-agentpath:{library}=twHome={folder},logLevel=1,{features},{mode}"]
    elif subject.name == "recorder":
        options = build.recorder_options()
    elif subject.agent:
        options = [f"-agentpath:{build.agent_path(subject.agent)}=frames={workload.depth}"]
    return [
        *("-Xms128m", "-Xmx128m", "-cp", build.CLASSES),
        *("-XX:CompileCommand=quiet", "-XX:CompileCommand=dontinline,ThrowBench*::buy"),
        *options,
        *("ThrowBench", f"--depth={workload.depth}", f"--threads={workload.threads}"),
        *(f"--capture={subject.capture}", f"--warmup={plan.warmup}"),
        f"--stack={'yes' if workload.has_stack else 'no'}",
    ]


def _require_records(workload, subject, measurements):
    """Each exception is to be recorded or none.

    The two counters are read one after the other, and the reader may have to wait in between.
    """
    for each in measurements:
        expected = each["operations"] if subject.records else 0
        if abs(each["records"] - expected) > workload.threads + expected / 10:
            raise BenchError(
                f"{subject.title}: {each['records']} records of {each['operations']} exceptions"
            )


def report(results, out):
    """Writes a table for each workload and JDK, and the goals.

    `results` has (JDK, workload) and the rounds measured.
    """
    out.text(LEGEND)
    headings = ("", "Throws/s", "No agent 1", "Empty 1", "Cost, floor 1", "Records, literal 1",
                "Safepoints", "ms in them")
    for (jdk, workload), rounds in results.items():
        title = f"JDK {jdk.major}, {workload.title}"
        measured = [each for each in SUBJECTS if each.name in rounds[0]]
        out.table(headings, [_row(subject, rounds) for subject in measured], title)
    labelled = [
        (f"JDK {jdk.major} {workload.name}", workload.name, rounds)
        for (jdk, workload), rounds in results.items()
    ]
    out.goals(_GOALS, labelled)


def _row(subject, rounds):
    name = subject.name
    row = [
        subject.title,
        tables.spread(rounds, name).median,
        tables.ratio(rounds, name, NONE, rate),
        tables.ratio(rounds, name, EMPTY, rate),
    ]
    if not subject.records:
        return row + [None] * 4
    records = tables.total(rounds, name, lambda each: each["records"])
    return row + [
        _cost_beside_floor(name)(rounds),
        _beside_literal(name)(rounds),
        tables.total(rounds, name, lambda each: each["safepoints"]) / records,
        tables.total(rounds, name, lambda each: each["safepointNanos"]) / records / 1e6,
    ]
