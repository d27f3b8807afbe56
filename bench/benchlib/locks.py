"""What the lock profiler costs a program whose threads contend for monitors."""

import dataclasses
import functools
import json

from . import build, tables
from .build import BenchError
from .jvm import Jvm, measure_in_turns

NAME = "locks"
rate = tables.rate


@dataclasses.dataclass(frozen=True)
class Workload:
    name: str
    title: str
    options: tuple
    least_jdk: int = 0


@dataclasses.dataclass(frozen=True)
class Subject:
    """One of the JVMs compared: which agent it has and which session covers the measurement."""

    name: str
    title: str
    agent: str = ""  # a reference agent, or "library"
    session: str = ""  # "", "summary" or "detail"; what mode a reference agent is in
    options: tuple = ()
    agent_options: str = ""  # of the library, beside the usual ones
    features: str = "mutexprofiling_memoryprofiling"  # of the library


_TURNS = "--turns=true"
_VIRTUAL = "--virtual=true"
_VIRTUAL_WARMUPS = 4  # What schedules virtual threads is Java code that has to be compiled, too.
_FIRST_WITH_VIRTUAL_MONITORS = 24  # Before, a virtual thread that blocks holds its carrier.


def _grid():
    """Threads and monitors, deep stacks and long sections, each beside the usual ones."""
    for threads in (4, 16, 64):
        for monitors in (1, 16, 1000):
            options = (f"--threads={threads}", f"--monitors={monitors}")
            title = f"{threads} threads on {monitors} monitor{'s' if monitors > 1 else ''}"
            turns = (_TURNS,) if threads > monitors else ()
            yield Workload(f"{threads}-on-{monitors}", title, options + turns)
    usual = ("--threads=8", "--monitors=1", _TURNS)
    for depth in (5, 30, 100):
        title = f"8 threads on 1 monitor, {depth} frames deep"
        yield Workload(f"depth-{depth}", title, (*usual, f"--depth={depth}"))
    for name, steps in (("short", 10), ("long", 100_000)):
        title = f"8 threads on 1 monitor, {name} sections"
        yield Workload(f"{name}-sections", title, (*usual, f"--inside={steps}"))


_MAIN_WORKLOADS = (
    Workload("8-on-1", "8 threads on 1 monitor", ("--threads=8", "--monitors=1", _TURNS)),
    Workload("64-on-16", "64 threads on 16 monitors", ("--threads=64", "--monitors=16", _TURNS)),
    Workload(
        "ping-pong", "wait/notify, 32 pairs of threads", ("--workload=pingpong", "--threads=64")
    ),
    Workload(
        "virtual-64-on-16",
        "64 virtual threads on 16 monitors",
        ("--threads=64", "--monitors=16", _TURNS, _VIRTUAL),
        _FIRST_WITH_VIRTUAL_MONITORS,
    ),
)
_FURTHER_WORKLOADS = (
    *(each for each in _grid() if each.name not in {main.name for main in _MAIN_WORKLOADS}),
    Workload(
        "virtual-ping-pong",
        "wait/notify, 32 pairs of virtual threads",
        ("--workload=pingpong", "--threads=64", _VIRTUAL),
        _FIRST_WITH_VIRTUAL_MONITORS,
    ),
)
WORKLOADS = _MAIN_WORKLOADS + _FURTHER_WORKLOADS

NONE, LOADED, EMPTY, IDLE = "none", "loaded", "empty", "idle"
COUNTS, CONTENTION = "contention-counts", "contention"
SUBJECTS = (
    Subject(NONE, "no agent"),
    Subject(LOADED, "library, nothing switched on", "library"),
    Subject(
        IDLE,
        "twprofile run --idle",
        "library",
        agent_options=",exceptionCapture=made,idle=1,quiet=1,companionLate=1,companion=idle.properties",
        features="mutexprofiling_memoryprofiling_exceptionprofiling",
    ),
    Subject(EMPTY, "empty handlers", "emptyAgent"),
    Subject("floor-summary", "summary: floor agent", "floorAgent", "summary"),
    Subject("literal-summary", "summary: literal agent", "literalAgent", "summary"),
    Subject("library-summary", "summary: library", "library", "summary"),
    Subject("floor-stacks", "detail: floor agent, no owner lookups", "floorAgent", "stacks"),
    Subject("floor-detail", "detail: floor agent", "floorAgent", "detail"),
    Subject("literal-detail", "detail: literal agent", "literalAgent", "detail"),
    Subject("library-detail", "detail: library", "library", "detail"),
    Subject(
        "bounded-detail",
        "detail: library, 100 owner lookups/s",
        "library",
        "detail",
        agent_options=",ownerLookupsPerSecond=100",
    ),
    Subject(
        COUNTS,
        "contention profile, counts only",
        "library",
        agent_options=",contention=1,contentionSamples=0",
        features="contention",
    ),
    Subject(
        CONTENTION,
        "contention profile",
        "library",
        agent_options=",contention=1",
        features="contention",
    ),
    Subject("recorder", "flight recorder"),
    Subject("sampler", "flight recorder, samples only"),
    Subject("monitoring", "ThreadMXBean monitoring", options=("--monitoring=true",)),
)
_LEFT_OUT = {
    "quick": ("floor-summary", "literal-summary", "floor-detail", "sampler", "monitoring"),
    "default": ("literal-summary", "floor-detail"),
    "full": (),
}

LEGEND = """
Locks: throughput, with that of no agent as 1 (median of the turns, ± half of what their middle half
covers); how long a thread takes to get a monitor, which half, 99 % and 99.9 % of the times do not
exceed, and the p99 with that of no agent as 1; the JVM's global safepoints and the share of the time
that they take.
"""


def _share_of_none(name, of=tables.rate):
    return lambda rounds: tables.ratio(rounds, name, NONE, of)


def _beside(above, below):
    return lambda rounds: tables.ratio(rounds, above, below)


def _p99(measured):
    return tables.percentile(measured["gets"], 0.99) or 0.0


_ALL = {workload.name for workload in WORKLOADS}
_LOCKS_ONLY = {name for name in _ALL if "ping-pong" not in name}
_GOALS = (
    tables.Goal(
        "library loaded: at least 0.99 of the throughput without an agent",
        _share_of_none(LOADED),
        dict.fromkeys(_ALL, 0.99),
    ),
    tables.Goal(
        "idle, with the companion: at least 0.99 of the throughput without an agent",
        _share_of_none(IDLE),
        dict.fromkeys(_ALL, 0.99),
    ),
    tables.Goal(
        "summary: at least 0.93 of the throughput without an agent",
        _share_of_none("library-summary"),
        dict.fromkeys(_ALL, 0.93),
    ),
    tables.Goal(
        "contention profile, counts only: at least 0.97 of the throughput with empty handlers",
        _beside(COUNTS, EMPTY),
        dict.fromkeys(_ALL, 0.97),
    ),
    tables.Goal(
        "contention profile: at least 0.93 of the throughput without an agent",
        _share_of_none(CONTENTION),
        dict.fromkeys(_ALL, 0.93),
    ),
    tables.Goal(
        "contention profile: samples take less than 2 %",
        _beside(CONTENTION, COUNTS),
        dict.fromkeys(_ALL, 0.98),
    ),
    tables.Goal(
        "summary: p99 of getting a monitor within 1.05 of that without an agent",
        _share_of_none("library-summary", _p99),
        dict.fromkeys(_ALL, 1.05),
        is_upper_limit=True,
    ),
    tables.Goal(
        "summary: not below the flight recorder by more than 0.03",
        _beside("library-summary", "recorder"),
        dict.fromkeys(_ALL, 0.97),
    ),
    tables.Goal(
        "summary: not below a sampling profiler by more than 0.03",
        _beside("library-summary", "sampler"),
        dict.fromkeys(_ALL, 0.97),
    ),
    tables.Goal(
        "detail: at least 2 times the literal agent, 3 times with 64 threads on 16 monitors",
        _beside("library-detail", "literal-detail"),
        {**dict.fromkeys(_LOCKS_ONLY, 2.0), "64-on-16": 3.0},
    ),
    tables.Goal(
        "detail with 100 owner lookups a second: at least 0.85 of the throughput without an agent",
        _share_of_none("bounded-detail"),
        dict.fromkeys(_ALL, 0.85),
    ),
    tables.Goal(
        "detail with 100 owner lookups a second: ahead of the flight recorder with stacks",
        _beside("bounded-detail", "recorder"),
        dict.fromkeys(_ALL, 1.0),
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
    folders = {
        name: build.OUT / "sessions" / f"jdk-{jdk.version}" / workload.name / name
        for name in by_name
    }

    def start(name):
        for old in ("lock-report.json", "lock-stacks.txt"):
            (folders[name] / old).unlink(missing_ok=True)
        if name == IDLE:
            folders[name].mkdir(parents=True, exist_ok=True)
            (folders[name] / "idle.properties").write_text(f"output={folders[name]}\n")
        arguments = java_arguments(workload, by_name[name], library, plan, folders[name])
        return Jvm(jdk.program("java"), arguments, folders[name])

    measured = measure_in_turns(list(by_name), start, plan)
    for subject in compared:
        if subject.agent == "library" and subject.session:
            _require_locks(folders[subject.name] / "lock-report.json")
    return measured


def java_arguments(workload, subject, library, plan, folder):
    agent_options = []
    session = "none"
    warmup = plan.warmup * (_VIRTUAL_WARMUPS if _VIRTUAL in workload.options else 1)
    if subject.agent == "library":
        features = f"features={subject.features}"
        options = f"twHome={folder},logLevel=1,{features}{subject.agent_options}"
        agent_options = [f"-agentpath:{library}={options}"]
        session = subject.session or "none"
    elif subject.name in ("recorder", "sampler"):
        agent_options = build.recorder_options(subject.name)
    elif subject.agent:
        mode = f"mode={subject.session}" if subject.session else ""
        agent_options = [f"-agentpath:{build.agent_path(subject.agent)}={mode}"]
    return [
        *("-Xms128m", "-Xmx128m", "-cp", build.CLASSES),
        *agent_options,
        *("LockBench", *workload.options, *subject.options),
        *(f"--session={session}", f"--warmup={warmup}", f"--folder={folder}"),
    ]


def _require_locks(report):
    """An empty report would mean that the session has measured nothing."""
    try:
        locks = json.loads(report.read_text(errors="replace"))["lockmap"]
    except (OSError, ValueError, KeyError) as error:
        raise BenchError(f"a session left no report: {error}") from error
    if not locks:
        raise BenchError(f"a session left a report without locks: {report}")


def report(results, out):
    """Writes a table for each workload and JDK, and the goals.

    `results` has (JDK, workload) and the rounds measured.
    """
    out.text(LEGEND)
    for (jdk, workload), rounds in results.items():
        title = f"JDK {jdk.major}, {workload.title}{_baseline(rounds)}"
        headings = ("", "Throughput", "p50 µs", "p99 µs", "p99.9 µs", "p99", "Safepoints/s", "Share")
        measured = [each for each in SUBJECTS if each.name in rounds[0]]
        out.table(headings, [_row(subject, rounds) for subject in measured], title)
    _report_loaded(results, out)
    labelled = [
        (f"JDK {jdk.major} {workload.name}", workload.name, rounds)
        for (jdk, workload), rounds in results.items()
    ]
    out.goals(_GOALS, labelled)


def _report_loaded(results, out):
    """All workloads with the library and nothing switched on, and with empty handlers."""
    rows = [
        [
            f"JDK {jdk.major}, {workload.title}",
            _share_of_none(LOADED)(rounds),
            _share_of_none(LOADED, _p99)(rounds),
            _share_of_none(EMPTY)(rounds),
        ]
        for (jdk, workload), rounds in results.items()
        if LOADED in rounds[0]
    ]
    if rows:
        headings = ("", "Throughput", "p99", "Empty handlers' throughput")
        out.table(headings, rows, "Library loaded, nothing switched on, with no agent as 1")


def _baseline(rounds):
    """Operations a second without an agent, and contended enters and waits for each of them."""
    rate = tables.spread(rounds, NONE)
    if rate is None:
        return ""
    text = f": {rate.median:,.0f} operations/s without an agent"
    # The VM counts a thread that comes back from a wait as blocked, too.
    events = tables.total(rounds, NONE, lambda each: max(each["blocked"], each["waited"]))
    operations = tables.total(rounds, NONE, lambda each: each["operations"])
    return f"{text}, {events / operations:.2f} blocks each" if events > 0 else text


def _row(subject, rounds):
    name = subject.name
    gets = functools.reduce(
        lambda sums, counts: [a + b for a, b in zip(sums, counts)],
        (measured["gets"] for each in rounds for measured in each[name]),
    )
    micros = [_micros(tables.percentile(gets, share)) for share in (0.5, 0.99, 0.999)]
    nanos = tables.total(rounds, name, lambda each: each["to"] - each["from"])
    safepoints = tables.total(rounds, name, lambda each: each["safepoints"])
    stopped = tables.total(rounds, name, lambda each: each["safepointNanos"])
    return [
        subject.title,
        _share_of_none(name)(rounds),
        *micros,
        _share_of_none(name, _p99)(rounds),
        float(f"{safepoints / nanos * 1e9:.3g}"),
        f"{100 * stopped / nanos:.1f} %",
    ]


def _micros(nanos):
    return None if nanos is None else nanos / 1000
