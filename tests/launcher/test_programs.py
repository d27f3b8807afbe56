"""Real programs, from Debian's packages: an SQL database under load, and a build.

For each: it shows and ends as without profiling, and the results name its own monitors,
exceptions and classes.
"""

import json
import re
import shutil
import subprocess
from collections import Counter
from pathlib import Path

import pytest

from harness import LIMIT, OUTPUT, SOURCE, results, without_agent

DATABASE = Path("/usr/share/java/h2.jar")  # libh2-java
BUILD = SOURCE / "tests" / "launcher" / "antproject"


def test_an_sql_database_under_load(launcher, folder):
    assert DATABASE.is_file(), "needs the package libh2-java"
    url = "jdbc:h2:mem:bank;DB_CLOSE_DELAY=-1;LOCK_TIMEOUT=60000"
    command = ["java", "-cp", f"{launcher.programs}:{DATABASE}", "SqlLoad", url, 8, 1000]
    plain = launcher.plain(*command, folder=folder)
    assert plain.code == 0 and plain.err == "" and "in 8000 bookings\nrefused 40\n" in plain.out

    options = (
        "--locks=summary=300ms,detail=300ms,repeat=forever,top=-1",
        "--exceptions=rate=0",
        "--memory=track=org.h2.engine.*,interval=500ms",
    )
    profiled = launcher.run("run", *options, "--", *command, folder=folder)
    assert profiled.code == 0, profiled
    assert (without_agent(profiled.out), without_agent(profiled.err)) == (plain.out, plain.err), profiled

    (found,) = results(folder / OUTPUT)
    assert "org.h2.engine.SessionLocal" in found.locks()
    records = found.exceptions()
    refused = [r for r in records if r["class"].endswith("JdbcSQLIntegrityConstraintViolationException")]
    # The retry of a row that another thread holds may find the key taken once more.
    assert len(refused) >= 40
    assert {r["thread"] for r in refused} == {f"teller-{i}" for i in range(8)}
    assert refused[0]["message"] is None, "the driver's own code would have to be run"
    assert any(frame["method"].startswith("org.h2.") for frame in refused[0]["frames"])
    assert any(name.startswith("org.h2.engine.") for name in found.memory())


EVENTS = ("jdk.JavaMonitorEnter", "jdk.ThreadPark")
SLACK_SECONDS = 0.05


CONCURRENT = "java.util.concurrent."


def public_class(name):
    """The class that a program uses, of what is inside those of java.util.concurrent."""
    if name.endswith("$ConditionObject"):
        return CONCURRENT + "locks.Condition"
    return name.split("$")[0] if name.startswith(CONCURRENT) else name


def settings_file(folder, names, **settings):
    """A file by which the flight recorder records these events."""
    each = "".join(f'<setting name="{name}">{value}</setting>'
                   for name, value in {"enabled": "true", **settings}.items())
    events = "".join(f'<event name="{name}">{each}</event>' for name in names)
    file = folder / "all.jfc"
    file.write_text(f'<configuration version="2.0">{events}</configuration>')
    return file


def recorded_events(launcher, recording, names):
    """The events of a flight recording that have these names."""
    jfr = Path(launcher.java).with_name("jfr")
    command = [jfr, "print", "--json", "--stack-depth", "0", "--events", ",".join(names), recording]
    done = subprocess.run(command, check=True, capture_output=True, timeout=LIMIT)
    return json.loads(done.stdout)["recording"]["events"]


def recorded_seconds(launcher, recording):
    """The time that a flight recording has, by the class of the lock."""
    seconds = {}
    for event in recorded_events(launcher, recording, EVENTS):
        values = event["values"]
        name = (values.get("monitorClass") or values.get("parkedClass") or {}).get("name") or ""
        minutes, rest = re.fullmatch(r"PT(?:(\d+)M)?([\d.E-]+)S", values["duration"]).groups()
        key = public_class(name.replace("/", "."))
        seconds[key] = seconds.get(key, 0) + 60 * int(minutes or 0) + float(rest)
    return seconds


def assert_seen_by_both(launcher, folder, prefixes, *command):
    """The profile has the blocked time of the flight recorder; that of classes with such names."""
    settings = settings_file(folder, EVENTS, threshold="0 ns")
    recording = folder / "recording.jfr"
    found = launcher.run(
        "run", "--contention", "--", "java",
        f"-XX:StartFlightRecording:settings={settings},filename={recording}", *command,
        folder=folder)
    assert found.code == 0, found
    recorded = {name: seconds for name, seconds in recorded_seconds(launcher, recording).items()
                if name.startswith(prefixes)}
    (result,) = results(folder / OUTPUT)
    profiled = dict.fromkeys(recorded, 0)
    for lock in result.json("contention-1.json")["locks"]:
        if lock["kind"] in ("monitor", "lock", "park") and lock["class"] in profiled:
            profiled[lock["class"]] += lock["blockedNanos"] / 1e9
    for name, seconds in recorded.items():
        assert profiled[name] == pytest.approx(seconds, rel=0.05, abs=SLACK_SECONDS), name
    return recorded


DATABASES = {  # the jar, the JDBC URL, and how names of its classes begin
    "h2": (DATABASE, "jdbc:h2:mem:bank;DB_CLOSE_DELAY=-1;LOCK_TIMEOUT=60000", "org.h2."),
    "derby": (Path("/usr/share/java/derby.jar"),  # libderby-java
              "jdbc:derby:memory:bank;create=true", "org.apache.derby."),
}


@pytest.mark.parametrize("jar, url, prefix", DATABASES.values(), ids=DATABASES)
def test_a_database_is_blocked_as_long_as_the_flight_recorder_sees(launcher, folder, jar, url,
                                                                  prefix):
    assert jar.is_file(), "needs the packages libh2-java and libderby-java"
    recorded = assert_seen_by_both(launcher, folder, prefix, "-cp", f"{launcher.programs}:{jar}",
                                   "SqlLoad", url, 8, 400)
    assert sum(recorded.values()) > 0.1


MADE = ("jdk.JavaExceptionThrow", "jdk.JavaErrorThrow")
CLIENTS, ROUNDS = 4, 200
OFTEN = 200  # times that the load makes an exception, at least; each of its own comes 800 times
# In mode `thrown`, objects that are thrown again are told from others where each has its record.
EACH_RECORDED = "rate=0,fields=false,arguments=false,locals=false,depth=1,queue=100000"
# The recorder counts objects that are made. These are not always thrown: one database makes one as
# the cause of what it drops, to parse a statement anew for the message; the other one keeps the
# arguments of some messages in them.
NOT_ALWAYS_THROWN = {
    "h2": {"org.h2.jdbc.JdbcSQLSyntaxErrorException"},
    "derby": {"org.apache.derby.iapi.error.StandardException"},
}
# Made once for each parser, and thrown thousands of times.
THROWN_READY_MADE = "org.apache.derby.impl.sql.compile.SQLParser$LookaheadSuccess"


def recorded_exceptions(launcher, recording):
    """How many exceptions a flight recording has of each class.

    The recorder has its event in the constructors of Throwable, and for an Error two more: in that
    of Error this one and its own.
    """
    counts = {name: Counter() for name in MADE}
    for event in recorded_events(launcher, recording, MADE):
        counts[event["type"]][event["values"]["thrownClass"]["name"].replace("/", ".")] += 1
    exceptions, errors = counts.values()
    return {**exceptions, **errors}


def counted(report):
    """The counts of a report of exceptions, by class."""
    counts = {}
    for row in report["sites"] + report["classes"]:
        of_class = counts.setdefault(row["class"], Counter())
        of_class.update({name: row[name] for name in ("thrown", "rethrown", "failed")})
    return counts


def often(counts):
    return {name: count for name, count in counts.items() if count >= OFTEN}


def near(count):
    return pytest.approx(count, rel=0.01)


@pytest.fixture(params=DATABASES)
def refused(request, launcher, folder):
    """Runs a database that refuses what it is asked; with a mode gives its name, what the program
    has counted, what the agent has, and what the flight recorder has."""
    jar, url, _ = DATABASES[request.param]
    assert jar.is_file(), "needs the packages libh2-java and libderby-java"
    settings = settings_file(folder, MADE, throttle="off")
    recording = folder / "recording.jfr"

    def run(mode):
        found = launcher.run(
            "run", f"--exceptions=mode={mode}", "--", "java",
            f"-XX:StartFlightRecording:settings={settings},filename={recording}",
            "-cp", f"{launcher.programs}:{jar}", "SqlErrors", url, CLIENTS, ROUNDS, folder=folder)
        assert found.code == 0, found
        told = {what: {} for what in ("made", "again", "caught")}
        for what, name, count in re.findall(r"^(made|again|caught) (\S+) (\d+)$", found.out, re.M):
            told[what][name] = int(count)
        assert sum(told["caught"].values()) == CLIENTS * ROUNDS * 6
        (result,) = results(folder / OUTPUT)
        report = result.json("exception-counts.json")
        return (request.param, told, counted(report), recorded_exceptions(launcher, recording))

    return run


def test_exceptions_made_are_counted_as_the_flight_recorder_and_constructors_do(refused):
    _, told, counts, recorded = refused("made")
    made = {name: count["thrown"] for name, count in counts.items()}
    assert {name: made[name] for name in told["made"]} == told["made"]
    assert often(made) == near(often(recorded))
    assert sum(often(made).values()) == near(sum(often(recorded).values()))


def test_exceptions_thrown_are_counted_as_the_flight_recorder_does(refused):
    database, told, counts, recorded = refused(f"thrown,{EACH_RECORDED}")
    assert not sum(count["failed"] for count in counts.values())
    objects = {name: count["thrown"] - count["rethrown"] for name, count in counts.items()}
    own = "SqlErrors$Refused"
    assert counts[own]["thrown"] == told["made"][own] + told["again"][own]
    assert {name: objects[name] for name in told["caught"]} == near(told["caught"])

    apart = NOT_ALWAYS_THROWN[database]
    for name in apart:
        assert OFTEN < objects.pop(name) < recorded.pop(name)
    assert recorded.pop("SqlErrors$NotThrown") == told["made"]["SqlErrors$NotThrown"]
    assert "SqlErrors$NotThrown" not in objects
    if database == "derby":
        assert counts[THROWN_READY_MADE]["thrown"] > 100 * recorded[THROWN_READY_MADE]
        objects.pop(THROWN_READY_MADE)  # some are forgotten between two throws, and count as new
    assert often(objects) == near(often(recorded))
    assert sum(often(objects).values()) == near(sum(often(recorded).values()))


TOMCAT = [Path("/usr/share/java") / f"tomcat10-{name}.jar"  # libtomcat10-embed-java, libtomcat10-java
          for name in ("embed-core", "embed-el", "annotations-api")]


def test_a_web_server_is_blocked_as_long_as_the_flight_recorder_sees(launcher, folder):
    assert all(jar.is_file() for jar in TOMCAT), "needs libtomcat10-embed-java and libtomcat10-java"
    jars = ":".join(map(str, TOMCAT))
    classes = folder / "classes"
    javac = Path(launcher.java).with_name("javac")
    source = Path(__file__).parent / "tomcat" / "WebLoad.java"
    subprocess.run([javac, "-nowarn", "-cp", jars, "-d", classes, source], check=True)
    recorded = assert_seen_by_both(
        launcher, folder, ("WebLoad", CONCURRENT + "locks.ReentrantLock"),
        "-cp", f"{classes}:{jars}", "WebLoad", 16, 20)
    assert recorded["WebLoad$Stock"] > 0.5
    assert recorded[CONCURRENT + "locks.ReentrantLock"] > 0.5


@pytest.fixture
def build(launcher, folder):
    """The command that builds a target into a folder."""
    assert shutil.which("ant"), "needs the package ant"
    ant = "ant"
    if launcher.plain(ant, "-version", folder=folder).code != 0:
        # Its start script asks for a security manager, which JDKs from 24 on refuse.
        ant = folder.parent / "ant.sh"
        ant.write_text('#!/bin/sh\nexec java -cp /usr/share/ant/lib/ant-launcher.jar '
                       'org.apache.tools.ant.launch.Launcher "$@"\n')
        ant.chmod(0o755)
    return lambda out, *words: [ant, "-f", BUILD / "build.xml", f"-Dout={folder / out}", *words]


def steady(text):
    """The output of a build without what differs between any two of them."""
    return re.sub(r"Total time: .*|" + re.escape(str(BUILD)) + r"|/\w+(?=/classes)", "", text)


@pytest.mark.parametrize("target, code", (("run", 0), ("broken", 3)))
def test_a_build_that_forks_its_jvms(launcher, folder, build, target, code):
    plain = launcher.plain(*build("plain", target), folder=folder)
    assert plain.code == code and "[java] ground 1188\n" in plain.out, plain

    options = (
        "--locks=summary=300ms,detail=300ms,repeat=forever,top=-1",
        "--exceptions=rate=0",
        "--memory=track=com.example.mill.*,interval=100ms",
    )
    profiled = launcher.run("run", *options, "--", *build("profiled", target), folder=folder)
    assert profiled.code == code, profiled
    assert steady(lines_of_build(profiled.out)) == steady(plain.out), profiled
    assert steady(lines_of_build(profiled.err)) == steady(plain.err), profiled

    found = {r.command.split()[0]: r for r in results(folder / OUTPUT)}
    assert len(found) == 3  # Ant, its compiler, the program
    mill = found["com.example.mill.Mill"]
    assert "com.example.mill.Mill$Stone" in mill.locks()
    sand = [r for r in mill.exceptions() if r["class"] == "com.example.mill.Mill$SandFound"]
    assert len(sand) == 12 and {r["message"] for r in sand} == {f"sand at turn {n}00" for n in (1, 2, 3)}
    assert sand[0]["frames"][0]["method"] == "com.example.mill.Mill.grind"
    assert "com.example.mill.Mill$Stone" in mill.memory()


def lines_of_build(text):
    """An output of Ant without what the JVMs that it started have added."""
    return without_agent(re.sub(r"^ +\[javac?\] (?=Picked up)", "", text, flags=re.M))
