"""What tagging objects and scanning the heap for them costs.

The library and the literal agent are both loaded into one JVM, have tagged the same objects and take
turns there: they see the same heap at nearly the same time.
"""

import dataclasses
import json

from . import build, safepoints, tables
from .jvm import run_to_end

NAME = "memory"


@dataclasses.dataclass(frozen=True)
class Workload:
    objects: int
    generations: int
    least_jdk = 0

    @property
    def name(self):
        return f"{self.objects}-in-{self.generations}"

    @property
    def title(self):
        return f"{self.objects:,} tagged objects in {self.generations} generations"

    @property
    def is_for_recorder(self):
        """Whether the flight recorder's samples stand beside it: its objects are larger."""
        return self.generations == 5 and self.objects <= 100_000

    def scans(self, turns):
        """More of short scans, which others on the machine disturb more; few that take seconds."""
        usual = 1_000_000  # objects visited
        visits = self.objects * (self.generations + 10)
        return min(max(2, turns * usual // visits), 5 * turns)


WORKLOADS = tuple(
    Workload(objects, generations)
    for objects in (10_000, 100_000, 1_000_000)
    for generations in (5, 100, 1000)
)
_MAIN_WORKLOADS = (Workload(10_000, 5), Workload(100_000, 100), Workload(1_000_000, 5))
_UNTYPICAL_TURNS = 2  # Of allocating: they come first and find nothing compiled or loaded.
SUBJECTS = ()  # Always both.

LEGEND = """
Memory: processor time of a scan by the literal agent, and the library's with that as 1 (median of
the scans, ± half of what their middle half covers), also with one query for all generations, and
that with the bare query as 1; the part of the literal agent's time that the VM's heap walk and
queries alone take, which no scan with one query for each generation can save; the longest safepoint
of a scan, and the longest query, during which the VM reaches no other one; processor time of GetTag
and SetTag for one object, and setObjectTag and SetTag with that as 1.
"""

RECORDER_LEGEND = """
What the library reports of objects that a program keeps, and what the flight recorder has as samples
of old objects; the processor time of that report (the recorder looks for what keeps an object alive)
and its longest safepoint; the processor time of allocating with the recorder on, without it being 1.
"""


def _value(kind, value):
    """A value for all lines of a kind: a Spread, or None for none."""
    return lambda rounds: tables.Spread.of(
        [value(line) for lines in rounds for line in lines if line["kind"] == kind]
    )


_SCAN = _value("scan", lambda line: line["library"]["processor"] / line["literal"]["processor"])
_VM_SHARE = _value(
    "scan", lambda line: (line["walk"] + line["queries"]) / line["literal"]["processor"]
)
_ONE_QUERY = _value(
    "oneQuery", lambda line: line["library"]["processor"] / line["literal"]["processor"]
)
_BESIDE_QUERY = _value("oneQuery", lambda line: line["library"]["processor"] / line["oneQuery"])
_TAG = _value("tag", lambda line: line["library"] / line["replace"])
_ALLOCATION = _value("allocate", lambda line: line["with"] / line["without"])

_GOALS = (
    tables.Goal(
        "scan: not slower than the literal agent by more than 0.05",
        _SCAN,
        {workload.name: 1.05 for workload in WORKLOADS},
        is_upper_limit=True,
    ),
    tables.Goal(
        "scan: half the literal agent's time for 1,000,000 objects in 5 generations",
        _SCAN,
        {Workload(1_000_000, 5).name: 0.5},
        is_upper_limit=True,
    ),
    tables.Goal(
        "one query: a tenth of the literal agent's time for 100,000 objects in 100 generations",
        _ONE_QUERY,
        {Workload(100_000, 100).name: 0.1},
        is_upper_limit=True,
    ),
    tables.Goal(
        "one query: within 1.3 of the bare query for 1,000,000 objects",
        _BESIDE_QUERY,
        {workload.name: 1.3 for workload in WORKLOADS if workload.objects == 1_000_000},
        is_upper_limit=True,
    ),
    tables.Goal(
        "setObjectTag: within 1.1 of GetTag and SetTag",
        _TAG,
        {workload.name: 1.1 for workload in WORKLOADS},
        is_upper_limit=True,
    ),
)


def workloads(scope):
    """The workloads measured by default, with --quick and with --full."""
    if scope == "quick":
        return WORKLOADS[:1]
    if scope == "full":
        return WORKLOADS
    return _MAIN_WORKLOADS


def subjects(_):
    return []


def measure(jdk, workload, _, library, plan):
    """Gives one round: the lines of MemoryBench, those of scans with their longest pauses.

    Those of a second JVM, whose scans are one query, have the kind "oneQuery". The lines of
    KeepBench follow.
    """
    count = workload.scans(plan.turns)
    scans, tags = _run(jdk, workload, library, "", count, plan.turns)
    in_one_query, _ = _run(jdk, workload, library, ",scanInOneQuery=1", count, 0)
    lines = scans + [{**scan, "kind": "oneQuery"} for scan in in_one_query] + tags
    return lines + (_keep(jdk, workload, library, plan) if workload.is_for_recorder else [])


def scan_beside_literal(jdk, workload, library, agent_options, plan):
    """The library's scans in a JVM of their own, with the literal agent's there as 1."""
    scans, _ = _run(jdk, workload, library, agent_options, workload.scans(plan.turns), 0)
    return _SCAN([scans])


def _run(jdk, workload, library, agent_options, scans, tags):
    """Gives the lines of MemoryBench in one JVM: of so many scans and rounds of tagging."""
    lines, log, _ = _run_program(
        *(jdk, workload, library, agent_options, "MemoryBench"),
        *(f"--scans={scans + 1}", f"--tags={tags + 1}"),
    )
    scans = [line for line in lines if line["kind"] == "scan"]
    for scan in sorted((each[name] for each in scans for name in ("library", "literal")),
                       key=lambda each: each["from"]):
        _add_longest_pause(scan, log)
    tags = [line for line in lines if line["kind"] == "tag"]
    return scans[1:], tags[1:]  # The first of each are not typical.


def _keep(jdk, workload, library, plan):
    """Gives the lines of KeepBench; those of the tools say how many objects they reported."""
    settings = build.recorder_settings("objects")
    lines, log, folder = _run_program(
        *(jdk, workload, library, "", "KeepBench"),
        *(f"--turns={_UNTYPICAL_TURNS + plan.turns}", f"--recorder={settings}"),
    )
    reported = {
        "library": _reported(folder / "report.json"),
        "recorder": _sampled(jdk, folder / "recording.jfr"),
    }
    for line in lines:
        if line["kind"] in reported:
            _add_longest_pause(line, log)
            line["objects"] = reported[line["kind"]]
    return lines[_UNTYPICAL_TURNS:]


def _reported(path):
    classes = json.loads(path.read_text(errors="replace"))["topNMemoryleakClass"]
    return sum(each["totalCount"] for each in classes.values())


def _sampled(jdk, path):
    """The samples of the objects that the program keeps, or of their arrays."""
    command = [jdk.program("jfr"), "print", "--json", "--events", "jdk.OldObjectSample", str(path)]
    events = json.loads(run_to_end(command, path.parent))["recording"]["events"]
    types = [event["values"]["object"]["type"]["name"] for event in events]
    return sum(name in ("java.util.concurrent.atomic.AtomicLongArray", "[J") for name in types)


def _run_program(jdk, workload, library, agent_options, *arguments):
    """Gives the lines that a program prints, the JVM's safepoints, and where it ran."""
    folder = build.OUT / "sessions" / f"jdk-{jdk.version}" / f"memory-{workload.name}"
    (folder / "logs").mkdir(parents=True, exist_ok=True)
    safepoint_log = folder / "safepoints.log"
    safepoint_log.unlink(missing_ok=True)
    agent = f"-agentpath:{library}=twHome={folder},logLevel=1,features=memoryprofiling"
    command = [
        jdk.program("java"),
        safepoints.option(safepoint_log),
        *("-XX:+UseSerialGC", "-Xms512m", "-Xmx512m", "-Xmn32m", "-cp", build.CLASSES),
        *(agent + agent_options, f"-agentpath:{build.agent_path('literalMemoryAgent')}"),
        *(*arguments, f"--report={folder}/report.json"),
        *(f"--objects={workload.objects}", f"--generations={workload.generations}"),
    ]
    output = run_to_end(command, folder).splitlines()
    lines = [json.loads(line) for line in output if line.startswith("{")]
    return lines, safepoints.SafepointLog(safepoint_log), folder


def _add_longest_pause(measured, log):
    pauses = log.between(measured["from"], measured["to"])
    measured["longestPause"] = max((each.nanos for each in pauses), default=0)


def report(results, out):
    """Writes a table for all workloads and JDKs, and the goals.

    `results` has (JDK, workload) and the rounds measured.
    """
    out.text(LEGEND)
    headings = ("", "Literal ms", "Library", "One query", "Query 1", "VM alone",
                "Pause ms, literal", "library", "Query ms", "Tagging ns", "Library", "SetTag")
    rows = [
        [f"JDK {jdk.major}, {workload.title}", *_cells(rounds)]
        for (jdk, workload), rounds in results.items()
    ]
    out.table(headings, rows)
    _report_recorder(results, out)
    labelled = [
        (f"JDK {jdk.major} {workload.name}", workload.name, rounds)
        for (jdk, workload), rounds in results.items()
    ]
    out.goals(_GOALS, labelled)


def _report_recorder(results, out):
    """What the flight recorder and the library report of objects that live long."""
    rows = []
    for (jdk, workload), rounds in results.items():
        if not workload.is_for_recorder:
            continue
        label = f"JDK {jdk.major}, {workload.objects:,} objects kept"
        for kind, title in (("library", "library"), ("recorder", "flight recorder")):
            rows.append([
                *(label, title, _value(kind, lambda line: line["objects"])(rounds).median),
                _value(kind, lambda line: line["processor"] / 1e6)(rounds).median,
                _value(kind, lambda line: line["longestPause"] / 1e6)(rounds).median,
                _ALLOCATION(rounds) if kind == "recorder" else None,
            ])
            label = ""
    if rows:
        out.text(RECORDER_LEGEND)
        headings = ("", "Tool", "Objects reported", "Processor ms", "Pause ms", "Allocation")
        out.table(headings, rows, left_columns=2)


def _cells(rounds):
    def median(kind, value):
        return _value(kind, value)(rounds).median

    return [
        median("scan", lambda line: line["literal"]["processor"] / 1e6),
        _SCAN(rounds),
        _ONE_QUERY(rounds),
        _BESIDE_QUERY(rounds),
        _VM_SHARE(rounds),
        median("scan", lambda line: line["literal"]["longestPause"] / 1e6),
        median("scan", lambda line: line["library"]["longestPause"] / 1e6),
        median("scan", lambda line: line["longestQuery"] / 1e6),
        median("tag", lambda line: line["replace"] / line["count"]),
        _TAG(rounds),
        _value("tag", lambda line: line["set"] / line["replace"])(rounds),
    ]
