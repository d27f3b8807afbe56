"""How far each tool's numbers are from contention that the program itself has made and counted."""

import dataclasses
import json
import re

from . import build, tables
from .build import BenchError
from .jvm import run_to_end

NAME = "truth"
_MONITOR = "TruthBench$Contended"
_ROUNDS = 80
_BLOCKED_MILLIS = 640  # Of all threads in a round: 51 s in all, of which a cut second is little.


@dataclasses.dataclass(frozen=True)
class Workload:
    threads: int
    monitors: int
    is_virtual: bool = False
    waits: bool = False  # wait and notify; else contended enters
    is_short: bool = False  # no longer than it takes to see all threads blocked

    @property
    def least_jdk(self):
        return 24 if self.is_virtual else 0  # Before, one that blocks holds its carrier.

    @property
    def name(self):
        virtual, short = "virtual-" * self.is_virtual, "short-" * self.is_short
        kind = "wait" if self.waits else "enter"
        return f"{virtual}{short}{kind}-{self.threads}-on-{self.monitors}"

    @property
    def title(self):
        monitors = "1 monitor" if self.monitors == 1 else f"{self.monitors} monitors"
        kind = ", wait/notify" * self.waits + ", short" * self.is_short
        return f"{self.threads} {'virtual ' * self.is_virtual}threads on {monitors}{kind}"

    @property
    def hold_millis(self):
        return 0 if self.is_short else _BLOCKED_MILLIS // self.threads

    @property
    def event(self):
        return "jdk.JavaMonitorWait" if self.waits else "jdk.JavaMonitorEnter"


def _kinds(threads, monitors):
    for is_virtual in (False, True):
        yield Workload(threads, monitors, is_virtual)
        yield Workload(threads, monitors, is_virtual, is_short=True)
        yield Workload(threads, monitors, is_virtual, waits=True)


WORKLOADS = tuple(
    workload
    for threads, monitors in ((64, 1), (64, 16), (16, 1), (16, 16), (4, 1))
    for workload in _kinds(threads, monitors)
)
_QUICK_WORKLOADS = (Workload(64, 1), Workload(64, 1, is_virtual=True))
_MAIN_WORKLOADS = tuple(
    each
    for each in WORKLOADS
    if (each.threads, each.monitors) == (64, 1) or each == Workload(64, 16)
)
SUBJECTS = ()  # Always all.

LEGEND = """
Truth: in each round one thread holds all monitors until it has seen all others blocked ("short": no
longer), or notifies them when it knows all to wait; so the program knows how often and how long
they were. Count and time as shares of that. The library's detail session reports whole seconds for
each monitor, cut off: its share of the time is between those two. It does not count waits. The
contention profile runs in rounds of its own.
"""

_LIBRARY = "library, detail session"
_PROFILE = "library, contention profile"


@dataclasses.dataclass(frozen=True)
class Range:
    """Between what two limits a value is that was cut off."""

    low: float
    high: float

    def __str__(self):
        low, high = tables.significant(self.low), tables.significant(self.high)
        return low if low == high else f"{low} to {high}"

    def distance(self, value):
        """How far the value is outside."""
        return max(self.low - value, value - self.high, 0.0)


def _shares(rounds, name):
    """Of the true count and of the true time; a count that the tool does not make is None."""
    tools = [each["tools"][name] for each in rounds]
    truths = [each["truths"][name] for each in rounds]
    seconds = sum(truth["seconds"] for truth in truths)
    low = sum(tool["seconds"] for tool in tools) / seconds
    high = low + sum(tool["cut"] for tool in tools) / seconds
    if tools[0]["count"] is None:
        return None, Range(low, high)
    count = sum(tool["count"] for tool in tools) / sum(truth["count"] for truth in truths)
    return count, Range(low, high)


def _count_error(rounds, tool=_LIBRARY):
    share, _ = _shares(rounds, tool)
    return None if share is None else abs(share - 1)


def _time_error(rounds, tool=_LIBRARY):
    """None where whole seconds are too coarse to tell."""
    _, share = _shares(rounds, tool)
    return share.distance(1) if share.high - share.low < 0.05 else None


def _profile_count_error(rounds):
    return _count_error(rounds, _PROFILE)


def _profile_time_error(rounds):
    return _time_error(rounds, _PROFILE)


_NAMES = {workload.name for workload in WORKLOADS}
_LONG = {workload.name for workload in WORKLOADS if not workload.is_short}
_GOALS = (
    tables.Goal("library: the true count", _count_error, dict.fromkeys(_NAMES, 0.0), True),
    tables.Goal(
        "library: the true time within 0.02", _time_error, dict.fromkeys(_NAMES, 0.02), True
    ),
    tables.Goal(
        "contention profile: the true count",
        _profile_count_error,
        dict.fromkeys(_NAMES, 0.0),
        True,
    ),
    tables.Goal(
        "contention profile: the true time within 0.02",
        _profile_time_error,
        dict.fromkeys(_LONG, 0.02),
        True,
    ),
)


def workloads(scope):
    """The workloads measured by default, with --quick and with --full."""
    return {"quick": _QUICK_WORKLOADS, "default": _MAIN_WORKLOADS, "full": WORKLOADS}[scope]


def subjects(_):
    return []


def measure(jdk, workload, _, library, __):
    """Gives one round: for each tool what it counted, and the truth of the time it watched."""
    folder = build.OUT / "sessions" / f"jdk-{jdk.version}" / f"truth-{workload.name}"
    (folder / "logs").mkdir(parents=True, exist_ok=True)
    truth, usual_truth = _run(jdk, workload, folder, library)
    tools = {
        _LIBRARY: _library_report(workload, folder / "lock-report.json"),
        "flight recorder, threshold 0": _recording(jdk, workload, folder / "recording.jfr"),
    }
    if not workload.waits:  # It counts all waits of a thread, whatever for.
        tools["ThreadMXBean monitoring"] = _counted(
            truth["monitoredCount"], truth["monitoredSeconds"]
        )
    truths = dict.fromkeys(tools, truth)
    usual = "flight recorder, as it comes"
    later = {
        _PROFILE: _profile_report(workload, folder / "contention-report.json"),
        usual: _recording(jdk, workload, folder / "usual.jfr"),
    }
    truths |= dict.fromkeys(later, usual_truth)
    return {"tools": {**tools, **later}, "truths": truths}


def _counted(count, seconds, cut=0):
    """What a tool says; `cut` seconds may be missing as it gives whole ones."""
    return {"count": count, "seconds": seconds, "cut": cut}


def _run(jdk, workload, folder, library):
    """Runs the program in the folder; gives the truth for each of its recordings."""
    command = [
        *(jdk.program("java"), "-Xmx256m", "-cp", build.CLASSES),
        f"-agentpath:{library}=twHome={folder},logLevel=1,features=mutexprofiling",
        *("TruthBench", f"--rounds={_ROUNDS}", f"--hold={workload.hold_millis}"),
        *(f"--threads={workload.threads}", f"--monitors={workload.monitors}"),
        *(f"--virtual={_java(workload.is_virtual)}", f"--waits={_java(workload.waits)}"),
        f"--recorder={build.recorder_settings('recorder')}",
    ]
    output = run_to_end(command, folder)
    return [json.loads(line) for line in output.splitlines() if line.startswith("{")]


def _java(flag):
    return "true" if flag else "false"


def _library_report(workload, path):
    locks = json.loads(path.read_text(errors="replace"))["lockmap"]
    watched = [lock for name, lock in locks.items() if name.startswith(_MONITOR + "@")]
    time = "totalWaitTime" if workload.waits else "totalBlockTime"
    return _counted(
        None if workload.waits else sum(lock["count"] for lock in watched),
        sum(lock[time] for lock in watched),
        len(watched),
    )


def _profile_report(workload, path):
    report = json.loads(path.read_text("utf-8"))
    kind = "wait" if workload.waits else "monitor"
    watched = [
        lock
        for lock in report["locks"] + report["otherLocks"]
        if (lock["class"], lock["kind"]) == (_MONITOR, kind)
    ]
    nanos = sum(lock["blockedNanos"] for lock in watched)
    return _counted(sum(lock["entries"] for lock in watched), nanos / 1e9)


def _recording(jdk, workload, path):
    command = [jdk.program("jfr"), "print", "--json", "--stack-depth", "0"]
    command += ["--events", workload.event, str(path)]
    events = json.loads(run_to_end(command, path.parent))["recording"]["events"]
    watched = [
        event["values"]
        for event in events
        if (event["values"]["monitorClass"] or {}).get("name") == _MONITOR
    ]
    return _counted(len(watched), sum(_duration(values["duration"]) for values in watched))


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
        for name, tool in rounds[0]["tools"].items():
            true = sum(each["truths"][name]["count"] for each in rounds)
            counted = None
            if tool["count"] is not None:
                counted = sum(each["tools"][name]["count"] for each in rounds)
            rows.append([label, name, true, counted, *_shares(rounds, name)])
            label = ""
    headings = ("", "Tool", "True count", "Counted", "Share", "Share of the time")
    out.table(headings, rows, left_columns=2)
    labelled = [
        (f"JDK {jdk.major} {workload.name}", workload.name, rounds)
        for (jdk, workload), rounds in results.items()
    ]
    out.goals(_GOALS, labelled)
