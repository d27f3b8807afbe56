"""What the allocation profile costs a program that allocates."""

import dataclasses
import json

from . import build, tables
from .build import BenchError
from .jvm import Jvm, measure_in_turns, run_to_end

NAME = "allocations"
SETS = 2  # of JVMs: where their code and their heaps lie differs


@dataclasses.dataclass(frozen=True)
class Workload:
    """Requests that allocate some 1100 bytes and compute so many steps."""

    name: str
    title: str
    work: int
    least_jdk = 0


@dataclasses.dataclass(frozen=True)
class Heap:
    """How long the program stops, with so many megabytes alive."""

    megabytes: int
    least_jdk = 0

    @property
    def name(self):
        return f"heap-{self.megabytes}"

    @property
    def title(self):
        return f"collections with {self.megabytes} MB alive"


@dataclasses.dataclass(frozen=True)
class Subject:
    """One of the JVMs compared."""

    name: str
    title: str
    options: str | None = None  # of the library; None: without it
    recording: str = ""  # settings of a recording of the flight recorder


_PACED = Workload("500-megabytes", "requests that allocate some 500 MB a second", 900)
_FASTEST = Workload("only-allocating", "requests that do nothing but allocate", 0)
WORKLOADS = (_PACED, _FASTEST, Heap(250), Heap(1000))

NONE, SAMPLES, CLOSE, PATHS = "none", "samples", "close", "paths"
SUBJECTS = (
    Subject(NONE, "no agent"),
    Subject("off", "library, nothing switched on", ""),
    Subject(SAMPLES, "allocation profile", "allocations=1"),
    Subject(CLOSE, "allocation profile, 64 kB", "allocations=1,allocationsInterval=65536"),
    Subject(PATHS, "allocation profile, with paths to roots", "allocations=1", "objects"),
    Subject("objects", "flight recorder, old objects with their paths", None, "objects"),
)

LEGEND = """
Allocations: megabytes that the program allocates a second, and the processor time of a request,
with no agent as 1 (median of the turns, ± half of what their middle half covers). A point of growth is a histogram of the live objects, and a report with paths to roots a dump of the flight
recorder: both stop the program, and are compared with a collection by System.gc().
"""


def rate(measured):
    """Requests for each second of processor time."""
    return measured["operations"] / measured["processorNanos"] * 1e9


def _cost(name):
    """Of a request, in processor time; no agent is 1."""
    return lambda rounds: tables.ratio(rounds, NONE, name, rate)


def _stop(what):
    return lambda rounds: tables.Spread.of(
        [each[what] / each["collectionNanos"] for measured in rounds for each in measured["stops"]]
    )


_HEAPS = {each.name: each for each in WORKLOADS if isinstance(each, Heap)}
_GOALS = (
    tables.Goal(
        "allocation profile: within 1.03 of no agent at 500 MB a second",
        _cost(SAMPLES),
        {_PACED.name: 1.03},
        is_upper_limit=True,
    ),
    tables.Goal(
        "a point of growth: within twice a collection",
        _stop("histogramNanos"),
        dict.fromkeys(_HEAPS, 2),
        is_upper_limit=True,
    ),
    tables.Goal(
        "a report with paths to roots: within twice a collection",
        _stop("pathsNanos"),
        dict.fromkeys(_HEAPS, 2),
        is_upper_limit=True,
    ),
)


def workloads(scope):
    """The workloads measured by default, with --quick and with --full."""
    return {"quick": WORKLOADS[:1], "default": WORKLOADS[:3], "full": WORKLOADS}[scope]


def subjects(scope):
    """The JVMs compared by default, with --quick and with --full."""
    return [each for each in SUBJECTS if scope != "quick" or each.name in (NONE, SAMPLES)]


def measure(jdk, workload, compared, library, plan):
    """Gives one round: for each subject's name, its measurements in the order of the turns; of a
    heap the rounds of its program, under "stops"."""
    top = build.OUT / "sessions" / f"jdk-{jdk.version}" / workload.name
    if isinstance(workload, Heap):
        return {"stops": _stops(jdk, workload, plan, top)}
    by_name = {subject.name: subject for subject in compared}

    def start(name):
        folder = top / name
        arguments = java_arguments(workload, by_name[name], library, plan, folder)
        return Jvm(jdk.program("java"), arguments, folder)

    return measure_in_turns(list(by_name), start, plan)


def java_arguments(workload, subject, library, plan, folder):
    options = []
    if subject.options is not None:
        further = f",{subject.options}" if subject.options else ""
        options += [f"-agentpath:{library}=twHome={folder},logLevel=1,features=none{further}"]
    if subject.recording:
        options += build.recorder_options(subject.recording)
    return [
        *("-Xms256m", "-Xmx256m", "-cp", build.CLASSES),
        *options,
        *("AllocationBench", f"--work={workload.work}", f"--warmup={plan.warmup}"),
    ]


def _stops(jdk, workload, plan, folder):
    folder.mkdir(parents=True, exist_ok=True)
    command = [
        *(jdk.program("java"), f"-Xmx{2 * workload.megabytes}m", "-cp", build.CLASSES),
        *("CollectionBench", workload.megabytes, plan.turns // 2 + 1),
        build.recorder_settings("objects"),
    ]
    lines = run_to_end(list(map(str, command)), folder).splitlines()
    stops = [json.loads(each) for each in lines if each.startswith("{")]
    if not stops:
        raise BenchError(f"CollectionBench measured nothing; see {folder}")
    return stops


def report(results, out):
    """Writes a table for each workload and JDK, and the goals.

    `results` has (JDK, workload) and the rounds measured.
    """
    out.text(LEGEND)
    for (jdk, workload), rounds in results.items():
        title = f"JDK {jdk.major}, {workload.title}"
        if isinstance(workload, Heap):
            out.table(*_stops_table(rounds), title)
        else:
            out.table(*_cost_table(rounds), title)
    labelled = [
        (f"JDK {jdk.major} {workload.name}", workload.name, rounds)
        for (jdk, workload), rounds in results.items()
    ]
    out.goals(_GOALS, labelled)


def _cost_table(rounds):
    def megabytes(measured):
        return measured["allocated"] / (measured["to"] - measured["from"]) * 1e3

    rows = [
        [
            subject.title,
            tables.spread(rounds, subject.name, megabytes).median,
            _cost(subject.name)(rounds),
        ]
        for subject in SUBJECTS
        if subject.name in rounds[0]
    ]
    return ("", "MB/s", "Processor time, no agent 1"), rows


def _stops_table(rounds):
    def millis(what):
        stops = [each[what] / 1e6 for measured in rounds for each in measured["stops"]]
        return tables.Spread.of(stops).median

    kinds = (
        ("a collection", "collectionNanos"),
        ("a point of growth", "histogramNanos"),
        ("a report with paths to roots", "pathsNanos"),
    )
    rows = [[title, millis(what), _stop(what)(rounds)] for title, what in kinds]
    return ("", "ms", "A collection 1"), rows
