"""Exceptions that are captured where they are made, in the constructors of Throwable."""

import json
import re

import pytest

from features import CDS_LOG, EXCEPTIONS_IN_RECORDINGS, REFLECTION_OUTSIDE_SUN, VIRTUAL_THREADS
from harness import HOME

BASE = f"logLevel=1,twHome={HOME},captureObjType=7,captureObjDepth=2,captureSTDepth=20"
MADE = BASE + ",exceptionCapture=made"

# Of the corpus, situations whose number of records differs from that of the event: what the first
# throw has made is thrown again, or the VM has made it beforehand.
AGAIN = {"format", "sleep", "synchronizedBlock", "finallyBlock", "suppressed", "sameTwice"}
BEFOREHAND = {"tooLarge", "stackOverflow"}
# The event names a class loader as the thrower, which is filtered; the VM makes it for the program.
OTHER_THROWER = {"missingClass"}
# Situations in which one method makes the exception and another one throws it, on one JDK or another.
HELPED = {"listGet", "parseInt", "pattern", "substring", "arrayCopy", "handleType", "handleThrower",
          "handleMissing", "future", "missingClass", "optional", "iterator", "charAt", "bigDecimal",
          "ownLoader", "proxy", "format", "sublist", "modified", "forName", "immutable", "await",
          "interrupted", "unmodifiable", "objectInput", "notANumber"}
# The method where the object that is thrown is made does not end there, or not at once.
OTHER_VALUES = {"wrapped"}

RUNS = {
    "plain": (),
    "checked": ("-Xcheck:jni",),
    "verified": ("-Xverify:all",),  # of java.lang.Throwable, too
}


def plain(text):
    """Without what differs from run to run."""
    text = re.sub(r"(\$\$Lambda|LambdaForm\$\w+|GeneratedMethodAccessor)[^( ,]*", r"\1", text)
    return re.sub(r"@[0-9a-f]+|0x[0-9a-f]+", "", text)


def records(run):
    """By situation and number: the facts of a record."""
    found = {}
    for key, value in run.facts.items():
        name, _, rest = key.partition(".")
        number, _, rest = rest.partition(".")
        # Class loaders and reflection have times, and numbers that depend on what was before. Classes
        # count how often they were redefined, as Throwable is where exceptions are made.
        changing = re.match(
            r"thread|.*reflectionData|.*\.(t0|t1|slot|tid|classRedefinedCount|baseCount)$", rest)
        if number.isdigit() and not changing:
            found.setdefault((name, number), {})[plain(rest)] = plain(value)
    return found


@pytest.fixture(scope="module")
def thrown(jvm):
    return jvm.run("ExceptionCorpus", options=BASE)


@pytest.fixture(scope="module", params=RUNS.values(), ids=RUNS)
def made(request, jvm):
    if not jvm.supports(*request.param):
        pytest.skip("this Java does not know the options")
    verified = request.param == RUNS["verified"]
    return jvm.run("ExceptionCorpus", options=MADE, vm=request.param, quiet=not verified)


def test_the_corpus_gives_the_same_exceptions(thrown, made):
    def told(run):
        return {k: v for k, v in run.facts.items() if re.fullmatch(r"\w+", k)}

    assert told(made).keys() == told(thrown).keys()
    differing = {k for k, v in told(made).items() if v != told(thrown)[k]}
    assert differing <= AGAIN | BEFOREHAND | OTHER_THROWER
    assert {"sameTwice", "tooLarge", "finallyBlock"} <= differing
    for situation in AGAIN & differing:
        assert "0" not in told(made)[situation], "each was seen when it was made"


def test_the_top_frame_is_where_the_exception_was_made(made):
    checked = 0
    for (name, _), record in records(made).items():
        trace = record.get("trace", "")
        if not trace or name == "hostileNames":
            continue  # without a stack trace; with names that the trace writes in another way
        place = re.sub(r":-?\d+\)$", ":-1)", trace)
        top = record["0"]
        # Frames that Java hides are in the record alone.
        hidden = "Lambda" in top or "java.lang.invoke" in top
        same = top in (trace, place) or top.replace("(NA:", "(null:") in (trace, place)
        assert same or hidden, name
        checked += 1
    assert checked > 60


def test_records_are_those_of_the_event(thrown, made):
    events, same, other = records(thrown), 0, set()
    for key, record in records(made).items():
        event = events.get(key, {})
        if record.get("0") == event.get("0"):
            differing = {k for k in record.keys() | event.keys() if record.get(k) != event.get(k)}
            assert not differing or key[0] in OTHER_VALUES | AGAIN, (key, sorted(differing)[:5])
            same += 1
        else:
            other.add(key[0])
    assert same > 50
    assert other <= HELPED | AGAIN, other


@pytest.fixture(scope="module", params=[*RUNS.values(), ("-Xint",), ("-Xcomp",)],
                ids=[*RUNS, "interpreted", "compiled"])
def ways(request, jvm):
    if not jvm.supports(*request.param):
        pytest.skip("this Java does not know the options")
    quiet = request.param != RUNS["verified"]
    return jvm.run("ExceptionMade", options=MADE, vm=request.param, quiet=quiet)


def test_each_way_to_make_one(ways):
    here = "ExceptionMade.lambda$"
    made_here = {
        "thrown": "IllegalStateException", "neverThrown": "Throwable",
        "error": "StackOverflowError", "stackless": "Stackless", "layered": "Layered",
        "byTheVm": "NullPointerException", "enabledAgain": "IllegalStateException",
    }
    for situation, name in made_here.items():
        assert ways.facts[situation].startswith(f"{name} {here}"), situation
        assert ways.fact(situation + ".count") == 1, situation
    for situation in ("thrownAgain", "outOfMemory", "disabled"):
        assert ways.fact(situation + ".count") == 0, situation
    assert ways.facts["helper"] == "IllegalStateException ExceptionMade.helper"
    assert ways.facts["inAConstructor"] == "Deepest ExceptionMade$Deepest.check"
    assert ways.facts["missing"].startswith("ClassNotFoundException ")
    failing = ways.facts["failingConstructor"].split(", ")
    assert failing[0].startswith("Failing " + here)
    assert failing[1:] == ["IllegalStateException ExceptionMade$Failing.<init>"]
    assert ways.fact("subclass.count") == 2


def test_a_stack_overflow_stays_one(ways):
    assert ways.facts["overflow"] == "true"


def test_each_one_is_counted_however_many_there_are(ways):
    assert ways.fact("many.seen") == 20_000
    assert ways.fact("many.count") == 5


def test_no_sink_of_the_program_gets_one_that_is_being_made(ways):
    assert ways.facts["sinkOfTheProgram"] == "null true"


def test_a_flight_recording_of_exceptions_may_begin_later(jvm):
    jvm.need(EXCEPTIONS_IN_RECORDINGS)
    folder = jvm.new_folder("recorded")
    settings = folder / "exceptions.jfc"
    settings.write_text(
        '<?xml version="1.0" encoding="UTF-8"?><configuration version="2.0">'
        '<event name="jdk.JavaExceptionThrow"><setting name="enabled">true</setting></event>'
        "</configuration>"
    )
    run = jvm.run("ExceptionMade", "record", options=MADE, folder=folder, quiet=False,
                  vm=[f"-Drecording={settings}"])
    # Threads of the recorder make some of their own.
    for situation in ("recording", "enabledAgain"):
        assert "IllegalStateException ExceptionMade.lambda$" in run.facts[situation]


def shared_classes(jvm, options):
    run = jvm.run("ExceptionMade", options=options,
                  vm=["-Xshare:auto", "-Xlog:class+load:file=classes.txt"])
    lines = (run.folder / "classes.txt").read_text().splitlines()
    return sum("source: shared objects file" in line for line in lines)


def test_class_data_sharing_stays_in_use(jvm):
    jvm.need(CDS_LOG)
    if not jvm.supports("-Xshare:on"):
        pytest.skip("this Java came without an archive of classes")
    without = shared_classes(jvm, BASE)
    assert without > 300
    assert shared_classes(jvm, MADE) >= 0.98 * without


@pytest.mark.parametrize("program", ["ExceptionThreads", "VirtualExceptions"])
def test_threads_make_them_at_once(jvm, program):
    if program == "VirtualExceptions":
        jvm.need(VIRTUAL_THREADS)
    run = jvm.run(program, options=MADE)
    assert run.facts["delivered"] == run.facts["thrown"]


# --- With the companion


@pytest.fixture
def start(jvm):
    (jar,) = [p for p in jvm.class_path.split(":") if p.endswith("javanativeagent.jar")]

    def run(program, *given, options=MADE, **others):
        companion = ",".join(("output=results", "exceptions=true", "exceptions.rate=0", *given))
        return jvm.run(program, options=options, vm=[f"-javaagent:{jar}={companion}"], **others)

    return run


def lines(run):
    (file,) = run.folder.glob("results/run-*/exceptions.jsonl")
    read = [json.loads(line) for line in file.read_text("utf-8").splitlines()]
    return read[:-1], read[-1]


def test_messages_are_read_once_the_constructors_have_ended(start):
    run = start("Messages", "exceptions.mode=made")
    records, end = lines(run)
    messages = {r["class"]: r["message"] for r in records}
    assert messages["java.lang.IllegalStateException"] == "given"
    assert messages["Messages$Inherited"] == "given"
    assert messages["java.nio.file.NoSuchFileException"] == "a file: why"
    assert messages["Messages$Talking"] is None
    assert run.facts["asked"] == "0"
    assert end["mode"] == "made" and "thrown again" in end["unseen"]


def test_no_class_is_loaded_for_one_that_is_being_made(start, jvm):
    run = start("ForeignLoader")
    assert run.facts["revealed"] == "false"
    assert run.facts["thrower"] == run.facts["loading"] == "TERMINATED"
    records, end = lines(run)
    assert end["dropped"] == 0
    ours = [r for r in records if r["class"] == "ForeignLoader$Thrown"]
    if not jvm.has(REFLECTION_OUTSIDE_SUN):
        assert not ours, "what classes of sun. make has no record"
        return
    (thrown,) = ours
    assert thrown["message"] == "told" and thrown["thread"] == "main"  # where it is made


@pytest.mark.parametrize("asked, settled", [("made", "thrown"), ("thrown", "made")])
def test_another_mode_than_the_jvm_was_started_with_is_refused(start, asked, settled):
    options = f"{BASE},exceptionCapture={settled}"
    run = start("Messages", f"exceptions.mode={asked}", options=options, quiet=False)
    assert (
        f"exceptions.mode is '{asked}': expected '{settled}', which the JVM was started with"
        in run.err
    )
    assert not list(run.folder.glob("results/run-*/exceptions.jsonl"))


def test_an_unknown_mode_is_ignored_with_a_line(start):
    run = start("Messages", "exceptions.mode=both", quiet=False)
    assert "exceptions.mode=both': expected thrown or made" in run.err
    assert lines(run)[1]["mode"] == "made"
