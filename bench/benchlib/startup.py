"""What the agent costs a JVM from its start to its end, beside what the program does."""

import dataclasses
import os
import subprocess
import time

from . import build, tables
from .build import BenchError

NAME = "startup"
_RUNS = 4  # in a turn: one JVM of each kind after the other
_LIMIT_SECONDS = 60

LEGEND = """
Start-up: processor time and time of a JVM from its start to its end, and beside them what it is more
than without an agent (median of the differences between JVMs that were started one after the other,
± half of what their middle half covers). Classes that the JVM has loaded.
"""


@dataclasses.dataclass(frozen=True)
class Workload:
    name: str
    title: str
    millis: int
    least_jdk: int = 0


@dataclasses.dataclass(frozen=True)
class Subject:
    name: str
    title: str
    options: str = ""  # of the library; none without it
    settings: tuple = ()  # of the companion
    is_java_agent: bool = False  # the companion comes with -javaagent


WORKLOADS = (
    Workload("at-once", "a program that ends at once", 0),
    Workload("for-seconds", "a program that ends after 4 seconds", 4000),
)
NONE, RUN = "none", "run"
_PROFILES = "contention=1,allocations=1,features=contention"
SUBJECTS = (
    Subject(NONE, "no agent"),
    Subject("library", "library, nothing switched on", "features=contention"),
    Subject("profiles", "library, both profiles, no companion", _PROFILES),
    Subject(RUN, "twprofile run", f"{_PROFILES},late", ("contention=true", "allocations=true")),
    Subject("idle", "twprofile run --idle", "features=mutexprofiling_memoryprofiling"
            "_exceptionprofiling,exceptionCapture=made,idle=1,late"),
    Subject("locks", "twprofile run --locks", "features=mutexprofiling,early", ("locks=true",)),
    Subject("java-agent", "the profiles of twprofile run, companion by -javaagent", _PROFILES,
            ("contention=true", "allocations=true"), is_java_agent=True),
)


def _processor(measured):
    return measured["processorMillis"]


def _wall(measured):
    return measured["millis"]


def _more(rounds, name, of):
    """What a JVM takes more than one without an agent that ran just before or after it."""
    pairs = [pair for each in rounds for pair in zip(each.get(name, ()), each.get(NONE, ()))]
    return tables.Spread.of([of(one) - of(other) for one, other in pairs])


_GOALS = (
    tables.Goal(
        "twprofile run: at most 60 ms of processor time for a JVM that ends at once",
        lambda rounds: _more(rounds, RUN, _processor),
        {"at-once": 60},
        is_upper_limit=True,
    ),
    tables.Goal(
        "twprofile run: at most 60 ms for a JVM that ends at once",
        lambda rounds: _more(rounds, RUN, _wall),
        {"at-once": 60},
        is_upper_limit=True,
    ),
)


def workloads(scope):
    return WORKLOADS[:1] if scope == "quick" else WORKLOADS


def subjects(scope):
    return list(SUBJECTS)


def measure(jdk, workload, compared, library, plan):
    """Gives one round: for each subject's name, its measurements in the order of the turns."""
    measured = {subject.name: [] for subject in compared}
    runs = plan.turns * (_RUNS if workload.millis == 0 else 1)
    for number in range(runs + 1):
        for subject in compared:
            folder = build.OUT / "startup" / f"jdk-{jdk.version}" / workload.name / subject.name
            folder.mkdir(parents=True, exist_ok=True)
            run = _run(_command(jdk, workload, subject, library, folder), folder)
            if number > 0:  # The first one fills caches.
                measured[subject.name].append(run)
    for subject in compared:
        folder = build.OUT / "startup" / f"jdk-{jdk.version}" / workload.name / subject.name
        command = _command(jdk, workload, subject, library, folder)
        classes = _classes(command, folder) if jdk.major > 8 else 0
        for each in measured[subject.name]:
            each["classes"] = classes
    return measured


def _command(jdk, workload, subject, library, folder):
    (folder / "logs").mkdir(exist_ok=True)
    agents = []
    if subject.options:
        settings = folder / "settings.properties"
        settings.write_text("\n".join((f"output={folder}", *subject.settings)) + "\n")
        companion = f"companion={settings},quiet=1"
        options = subject.options.replace("late", f"{companion},companionLate=1")
        options = options.replace("early", companion)
        agents.append(f"-agentpath:{library}=twHome={folder},{options}")
        if subject.is_java_agent:
            jar = library.parent / "javanativeagent.jar"
            agents.append(f"-javaagent:{jar}=config={settings}")
    return [jdk.program("java"), *agents, "-cp", build.CLASSES, "StartBench", str(workload.millis)]


def _run(command, folder):
    with open(folder / "jvm.log", "w") as log:
        begin = time.monotonic()
        process = subprocess.Popen(
            command, cwd=folder, stdin=subprocess.DEVNULL, stdout=log, stderr=log
        )
        _, status, used = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise BenchError(f"a JVM ended with {process.returncode}; its output: {folder / 'jvm.log'}")
    return {
        "processorMillis": 1000 * (used.ru_utime + used.ru_stime),
        "millis": 1000 * (time.monotonic() - begin),
    }


def _classes(command, folder):
    log = folder / "classes.log"
    _run([command[0], f"-Xlog:class+load:file={log}:none", *command[1:]], folder)
    with open(log) as lines:
        return sum(1 for _ in lines)


def report(results, out):
    """Writes a table for each workload and JDK, and the goals."""
    out.text(LEGEND)
    headings = ("", "Processor ms", "More", "Time ms", "More", "Classes")
    for (jdk, workload), rounds in results.items():
        rows = [
            [
                subject.title,
                tables.spread(rounds, subject.name, _processor),
                _more(rounds, subject.name, _processor),
                tables.spread(rounds, subject.name, _wall),
                _more(rounds, subject.name, _wall),
                rounds[0][subject.name][0]["classes"],
            ]
            for subject in SUBJECTS
            if subject.name in rounds[0]
        ]
        out.table(headings, rows, f"JDK {jdk.major}, {workload.title}")
    labelled = [
        (f"JDK {jdk.major} {workload.name}", workload.name, rounds)
        for (jdk, workload), rounds in results.items()
    ]
    out.goals(_GOALS, labelled)
