"""How far each tool's numbers are from contention that the program itself has made and counted."""

import dataclasses
import json
import re

from . import build, tables
from .build import BenchError
from .jvm import run_to_end

NAME = "truth"
_MONITOR = "TruthBench$Contended"
_ROUNDS_OF_CONTENTION = 100  # More than 50 s of blocking: a second cut off matters little.


@dataclasses.dataclass(frozen=True)
class Workload:
    name: str
    title: str
    is_virtual: bool
    least_jdk: int = 0


@dataclasses.dataclass(frozen=True)
class Tool:
    """Who counted how many contended enters, and for how many seconds, by its own word."""

    name: str
    count: int
    seconds: float


WORKLOADS = (
    Workload("platform-threads", "64 platform threads on 1 monitor", False),
    Workload("virtual-threads", "64 virtual threads on 1 monitor", True, 24),
)
SUBJECTS = ()  # Always all.

LEGEND = """
Truth: in each round one thread holds a monitor until it has seen 64 others blocked, so that the
program knows how often and how long they were. Count and time as shares of that; the library
reports whole seconds, cut off.
"""

_LIBRARY = "library, detail session"


def _error(member):
    """How far the library is from the truth, as a share of that."""
    return lambda rounds: abs(_share(rounds, _LIBRARY, member).median - 1)


def _share(rounds, name, member):
    return tables.Spread.of(
        [each["tools"][name][member] / each["truths"][name][member] for each in rounds]
    )


_NAMES = {workload.name for workload in WORKLOADS}
_GOALS = (
    tables.Goal("library: the true count", _error("count"), dict.fromkeys(_NAMES, 0.0), True),
    tables.Goal(
        "library: the true time within 0.02", _error("seconds"), dict.fromkeys(_NAMES, 0.02), True
    ),
)


def workloads(_):
    return WORKLOADS


def subjects(_):
    return []


def measure(jdk, workload, _, library, __):
    """Gives one round: for each tool what it counted, and the truth of the run it watched."""
    folder = build.OUT / "sessions" / f"jdk-{jdk.version}" / workload.name
    (folder / "logs").mkdir(parents=True, exist_ok=True)
    # Two recordings at once would share the lower of their thresholds: hence two runs.
    agent = f"-agentpath:{library}=twHome={folder},logLevel=1,features=mutexprofiling"
    truth = _run(jdk, workload, folder, build.recorder_settings("recorder"), agent)
    tools = [
        _library_report(folder / "lock-report.json"),
        _recording(jdk, "flight recorder, threshold 0", folder / "recording.jfr"),
        Tool("ThreadMXBean monitoring", truth["monitoredCount"], truth["monitoredSeconds"]),
    ]
    truths = {tool.name: truth for tool in tools}
    usual = "flight recorder, as it comes"
    truths[usual] = _run(jdk, workload, folder, "default")
    tools.append(_recording(jdk, usual, folder / "recording.jfr"))
    return {"tools": {tool.name: vars(tool) for tool in tools}, "truths": truths}


def _run(jdk, workload, folder, recorder, agent=None):
    """Runs the program in the folder; gives the true count and seconds."""
    command = [
        *(jdk.program("java"), "-Xmx256m", "-cp", build.CLASSES),
        *([agent] if agent else []),
        *("TruthBench", f"--rounds={_ROUNDS_OF_CONTENTION}", f"--recorder={recorder}"),
        *(f"--virtual={_java(workload.is_virtual)}", f"--agent={_java(agent is not None)}"),
    ]
    output = run_to_end(command, folder)
    return json.loads(next(line for line in output.splitlines() if line.startswith("{")))


def _java(flag):
    return "true" if flag else "false"


def _library_report(path):
    locks = json.loads(path.read_text(errors="replace"))["lockmap"]
    watched = [lock for name, lock in locks.items() if name.startswith(_MONITOR + "@")]
    return Tool(
        _LIBRARY,
        sum(lock["count"] for lock in watched),
        sum(lock["totalBlockTime"] for lock in watched),
    )


def _recording(jdk, name, path):
    command = [jdk.program("jfr"), "print", "--json", "--stack-depth", "0"]
    command += ["--events", "jdk.JavaMonitorEnter", str(path)]
    events = json.loads(run_to_end(command, path.parent))["recording"]["events"]
    watched = [
        event["values"]
        for event in events
        if (event["values"]["monitorClass"] or {}).get("name") == _MONITOR
    ]
    return Tool(name, len(watched), sum(_duration(values["duration"]) for values in watched))


def _duration(text):
    """The seconds of a duration such as "PT1M2.5S"."""
    match = re.fullmatch(r"PT(?:(\d+)M)?(?:([\d.]+)S)?", text)
    if match is None:
        raise BenchError(f"expected a duration as PT1M2.5S: {text}")
    return 60 * int(match[1] or 0) + float(match[2] or 0)


def report(results, out):
    """Writes one table, and the goals. `results` has (JDK, workload) and the rounds measured."""
    out.text(LEGEND)
    rows = []
    for (jdk, workload), rounds in results.items():
        label = f"JDK {jdk.major}, {workload.title}"
        for name in rounds[0]["tools"]:
            counted = sum(each["tools"][name]["count"] for each in rounds)
            true = sum(each["truths"][name]["count"] for each in rounds)
            shares = [_share(rounds, name, member) for member in ("count", "seconds")]
            rows.append([label, name, true, counted, *shares])
            label = ""
    headings = ("", "Tool", "True enters", "Counted", "Share", "Share of the time")
    out.table(headings, rows, left_columns=2)
    labelled = [
        (f"JDK {jdk.major} {workload.name}", workload.name, rounds)
        for (jdk, workload), rounds in results.items()
    ]
    out.goals(_GOALS, labelled)
