"""What one exception record may cost: where there is far more to see than it holds."""

import dataclasses
import json

from . import build, tables
from .build import BenchError
from .jvm import run_to_end

NAME = "records"
_BUDGET = 1 << 20  # Bytes of a record, unless recordBytes says otherwise.
_JAVA_BYTES = 2  # Of a character, at most.
_KINDS = {
    "small": "an object with a short text",  # the first one, which has all classes loaded
    "constants": "40 constants of an enumeration",
    "jdk": "objects of the JDK",
    "string": "a String of 40 million characters",
    "builder": "a StringBuilder of as many",
}


@dataclasses.dataclass(frozen=True)
class Workload:
    depth: int
    least_jdk = 0

    @property
    def name(self):
        return f"record-depth-{self.depth}"

    @property
    def title(self):
        return f"records of captureObjDepth {self.depth}"


WORKLOADS = tuple(Workload(depth) for depth in range(1, 6))
SUBJECTS = ()

LEGEND = """
Records: throws with far more to see than a record holds. Characters of the longest record, the
processor time of the dearest throw, and the memory that a record takes at most, the String that
Java is given included: 1 is the budget of 1 MiB.
"""


def workloads(scope):
    """The workloads measured by default, with --quick and with --full."""
    return WORKLOADS if scope == "full" else WORKLOADS[::4]


def subjects(_):
    return []


def measure(jdk, workload, _, library, __):
    """Gives one round: for each kind of value what its throws took."""
    folder = build.OUT / "sessions" / f"jdk-{jdk.version}" / workload.name
    (folder / "logs").mkdir(parents=True, exist_ok=True)
    options = f"twHome={folder},logLevel=1,captureObjDepth={workload.depth}"
    command = [
        *(jdk.program("java"), "-Xms256m", "-Xmx256m", "-XX:+UseSerialGC", "-XX:+AlwaysPreTouch"),
        f"-agentpath:{library}={options},features=exceptionprofiling",
        *("-cp", build.CLASSES, "RecordBench"),
    ]
    lines = [each for each in run_to_end(command, folder).splitlines() if each.startswith("{")]
    measured = {each["kind"]: each for each in map(json.loads, lines)}
    if set(measured) != set(_KINDS) or not all(each["characters"] for each in measured.values()):
        raise BenchError(f"records were not delivered; see {folder}")
    return measured


def _millis(each):
    return each["processorNanos"] / 1e6


def _memory(each):
    return (max(each["growth"], 0) + _JAVA_BYTES * each["characters"]) / _BUDGET


def _most(of):
    return lambda rounds: max(of(each) for measured in rounds for each in measured.values())


_LIMITS = {workload.name: 20 for workload in WORKLOADS}
_GOALS = (
    tables.Goal("a throw: at most 20 ms of processor time", _most(_millis), _LIMITS, True),
    tables.Goal(
        "a record: at most 4 times its budget of memory",
        _most(_memory),
        dict.fromkeys(_LIMITS, 4),
        True,
    ),
)


def report(results, out):
    """Writes a table for each workload and JDK, and the goals.

    `results` has (JDK, workload) and the rounds measured.
    """
    out.text(LEGEND)
    headings = ("", "Characters", "Processor ms", "Memory, budget 1")
    for (jdk, workload), rounds in results.items():
        rows = []
        for kind, title in _KINDS.items():
            of_kind = [measured[kind] for measured in rounds]
            rows.append([title, *(max(of(each) for each in of_kind) for of in
                                  (lambda each: each["characters"], _millis, _memory))])
        out.table(headings, rows, f"JDK {jdk.major}, {workload.title}")
    labelled = [
        (f"JDK {jdk.major} {workload.name}", workload.name, rounds)
        for (jdk, workload), rounds in results.items()
    ]
    out.goals(_GOALS, labelled)
