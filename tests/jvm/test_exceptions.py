"""Exceptions of every kind are delivered, with the values that were on the stack."""

import re
from pathlib import Path

import pytest

from features import THREAD_STOP, VIRTUAL_THREADS
from harness import HOME

VALUES = f"logLevel=1,twHome={HOME},captureObjType=7,captureObjDepth=2,captureSTDepth=20"
CHECKED = pytest.mark.parametrize("vm", [(), ("-Xcheck:jni",)], ids=["plain", "checked"])

# What each situation throws, outermost first, and how often each of them is delivered: once, and
# once more wherever it is thrown again (by a finally clause, say). "+" is at least once, where that
# depends on how the library is written; "*" is any number.
THROWN = {
    "implicitNull": "NullPointerException 1",
    "divide": "ArithmeticException 1",
    "arrayIndex": "ArrayIndexOutOfBoundsException 1",
    "negativeSize": "NegativeArraySizeException 1",
    "wrongCast": "ClassCastException 1",
    "arrayStore": "ArrayStoreException 1",
    "unboxing": "NullPointerException 1",
    "monitorNotHeld": "IllegalMonitorStateException 1",
    "throwNull": "NullPointerException 1",
    "arrayCopy": "ArrayStoreException 1",
    "compiled": "IllegalStateException 1",
    "parseInt": "NumberFormatException +",
    "listGet": "IndexOutOfBoundsException +",
    "emptyIterator": "NoSuchElementException +",
    "modified": "ConcurrentModificationException +",
    "unmodifiable": "UnsupportedOperationException +",
    "optional": "NoSuchElementException +",
    "decimal": "ArithmeticException +",
    "pattern": "PatternSyntaxException +",
    "format": "UnknownFormatConversionException +",
    "substring": "StringIndexOutOfBoundsException +",
    "stream": "StreamCorruptedException +",
    "future": "ExecutionException +, ArithmeticException +",
    "sleep": "InterruptedException +",
    "string": "IllegalStateException 1",
    "synchronizedMethod": "IllegalStateException 1",
    "synchronizedBlock": "IllegalStateException 2",
    "finallyBlock": "IllegalStateException 2",
    "wrapped": "IllegalStateException 1, UnsupportedOperationException 1",
    "generic": "IllegalArgumentException 1",
    "bridge": "IllegalArgumentException 1",
    "bridgeCast": "ClassCastException 1",
    "varargs": "ArrayIndexOutOfBoundsException 1",
    "defaultMethod": "IllegalStateException 1",
    "staticInterfaceMethod": "IllegalStateException 1",
    "enumConstant": "IllegalStateException 1",
    "lambda": "IllegalStateException 1",
    "inStream": "ArithmeticException 1",
    "inSort": "IllegalStateException 1",
    "methodReference": "IllegalStateException 1",
    "deep": "IllegalStateException 1",
    "suppressed": "IllegalStateException 2, IOException 1",
    "sameTwice": "IllegalStateException 2",
    "withoutStack": "Bare 1",
    "innerClass": "IllegalStateException 1",
    "assertion": "AssertionError 1",
    "constructor": "IllegalArgumentException 1",
    "superConstructor": "IllegalArgumentException 1",
    "uninitialized": "ArithmeticException 1",
    "staticInitializer": "ExceptionInInitializerError +, IllegalStateException 1",
    # The VM makes the cause, nobody throws it.
    "afterStaticInitializer": "NoClassDefFoundError 1, ExceptionInInitializerError 0",
    "outOfScope": "IllegalStateException 1",
    "notYetInScope": "IllegalStateException 1",
    "slotOfTheSameType": "IllegalStateException 1",
    "slotOfAnotherType": "IllegalStateException 1",
    "slotOfAnObject": "IllegalStateException 1",
    "reflection": "InvocationTargetException +, ArithmeticException 1",
    "reflectionArgument": "IllegalArgumentException +",
    "reflectionOften": "InvocationTargetException +, ArithmeticException 1",
    "reflectionConstructor": "InvocationTargetException +, IllegalArgumentException 1",
    "handle": "ArithmeticException 1",
    "handleBound": "ArithmeticException 1",
    "handleType": "WrongMethodTypeException +",
    "handleThrower": "IllegalStateException +",
    "handleMissing": "NoSuchMethodException +, NoSuchMethodError +",
    "proxy": "UndeclaredThrowableException +, IOException 1",
    "ownLoader": "ClassNotFoundException 1",
    "forName": "ClassNotFoundException +",
    "missingMethod": "NoSuchMethodError 1",
    # The cause comes from java.lang.ClassLoader, which is filtered; of the error itself the VM
    # raises no event.
    "missingClass": "NoClassDefFoundError *, ClassNotFoundException 0",
    "notAClass": "ClassFormatError 0",  # from java.lang.ClassLoader
    "plainNames": "IllegalStateException 1",
    "linesOnly": "IllegalStateException 1",
    "noDebug": "IllegalStateException 1",
    "oddNames": "IllegalStateException 1",
    "hostileNames": "IllegalStateException 1",
    "mislabelled": "IllegalStateException 1",
    "numbers": "IllegalArgumentException 1",
    "texts": "IllegalStateException 1",
    "objects": "IllegalStateException 1",
    "fields": "UnsupportedOperationException 1",
    "threadLocals": "InvocationTargetException 1, ArithmeticException 1",
    "noThreadLocals": "InvocationTargetException 1, ArithmeticException 1",
    "stackOverflow": "StackOverflowError *",  # no stack is left to call Java on
    "tooLarge": "OutOfMemoryError 1",
    "afterThem": "ArithmeticException 1",
    # These have sinks of their own.
    "throwingSink": "ArithmeticException 0",
    "overflowingSink": "ArithmeticException 0",
    "nestedSink": "ArithmeticException 0",
    "afterSinks": "ArithmeticException 1",
    # What classes of these names throw is not recorded.
    "ofClass": "ClassCastException 0",
    "ofTheAgent": "IllegalStateException 0",
    "ofTheMaker": "IllegalStateException 0",
    "ofSun": "IllegalStateException 0",
    "framesOfComSun": "IllegalStateException 1",
    "disabled": "ArithmeticException 0",
}


@pytest.fixture(scope="module", params=[(), ("-Xcheck:jni",)], ids=["plain", "checked"])
def corpus(request, jvm):
    return jvm.run("ExceptionCorpus", options=VALUES, vm=request.param)


class Frame:
    """One frame of a record that the program told: its text, and the values of its sections."""

    def __init__(self, facts, key):
        self.text = facts[key]
        self.this, self.arguments, self.locals = (
            self.section(facts, f"{key}.{name}.") for name in ("this", "arguments", "locals")
        )

    @staticmethod
    def section(facts, start):
        """By path, as in cart.owner.name."""
        return {k[len(start):]: v for k, v in facts.items() if k.startswith(start)}


def top(run, record):
    return Frame(run.facts, record + ".0")


def frame_of(run, record, method):
    for n in range(4):
        if run.facts.get(f"{record}.{n}", "").startswith(method + "("):
            return Frame(run.facts, f"{record}.{n}")
    raise AssertionError(f"no {method} in the first frames of {record}")


def deliveries(thrown):
    return [tuple(each.rsplit(" ", 1)) for each in thrown.split(", ")]


def test_every_exception_is_delivered(corpus):
    assert (corpus.facts["enable"], corpus.facts["disable"]) == ("1", "1")
    told = {k: v for k, v in corpus.facts.items() if re.fullmatch(r"\w+( \d+)?", k)}
    situations = {k: v for k, v in told.items() if k not in ("enable", "disable")}
    assert set(situations) == set(THROWN)
    for situation, thrown in situations.items():
        actual, expected = deliveries(thrown), deliveries(THROWN[situation])
        assert [name for name, _ in actual] == [name for name, _ in expected], situation
        for (_, count), (_, wanted) in zip(actual, expected):
            assert wanted == "*" or (int(count) >= 1 if wanted == "+" else count == wanted), (
                f"{situation}: {thrown}"
            )


def test_records_are_certain_but_for_hostile_texts(corpus):
    doubts = {k.split(".")[0]: v for k, v in corpus.facts.items() if k.endswith(".doubts")}
    assert len(doubts) >= 75
    assert {k for k, v in doubts.items() if v != "[]"} == {"texts", "hostileNames"}


@pytest.mark.parametrize(
    "situation",
    """implicitNull divide compiled synchronizedMethod generic bridge bridgeCast varargs
    defaultMethod staticInterfaceMethod enumConstant lambda inStream inSort methodReference deep
    innerClass constructor superConstructor uninitialized outOfScope slotOfAnObject plainNames
    linesOnly oddNames numbers fields monitorNotHeld modified""".split(),
)
def test_top_frame_is_where_the_exception_was_made(corpus, situation):
    frame, trace = corpus.facts[situation + ".0.0"], corpus.facts[situation + ".0.trace"]
    # In the last range of a method's lines no line is told.
    assert frame in (trace, re.sub(r":-?\d+\)$", ":-1)", trace))


def test_lines(corpus):
    lines = {k.split(".")[0] for k, v in corpus.facts.items()
             if k.endswith(".0.0") and not v.endswith(":-1)")}
    assert {"constructor", "compiled", "deep", "varargs"} <= lines
    assert corpus.facts["monitorNotHeld.0.0"] == "java.lang.Object.notify(Object.java:-1)"
    assert corpus.facts["noDebug.0.0"] == "OddlyNamed.methodName(NA:-1)"


def test_primitive_values(corpus):
    frame = top(corpus, "numbers.0")
    assert frame.arguments == {
        "yes": "boolean = true",
        "letter": "char = 97 'a'",
        "small": "byte = -128",
        "medium": "short = 32767",
        "whole": "int = -2147483648",
        "wide": "long = 9223372036854775807",
        "thin": "float = 1.500000",
        "fat": f"double = {-1.7976931348623157e308:f}",
    }
    assert {k: v.replace("-nan", "nan") for k, v in frame.locals.items()} == {
        "no": "boolean = false",
        "next": "char = 98 'b'",
        "sum": "long = -9223372034707292161",
        "none": "double = nan",
        "most": "float = inf",
    }


def test_text_values(corpus):
    frame = top(corpus, "texts.0")
    assert frame.arguments["given"] == 'String = "given"'
    assert frame.arguments["built"] == 'StringBuilder = "built"'
    assert frame.arguments["buffer"] == "object"
    assert frame.arguments["missing"] == "object = null"
    assert frame.locals["nobody"] == "object = null"
    digits = "0123456789" * 30
    assert frame.locals["cut"] == f'String = "{digits[:256]}"'
    assert frame.locals["pair"] == f'String = "{digits[:255]}"'  # no half of a pair
    assert frame.locals["odd"] == 'String = "a\\u0000b\xe9\ud83d\ude00\ud800"'
    assert frame.locals["separators"] == 'String = "a%2Cb%3A4%7C!%23"'


def test_object_values(corpus):
    frame = top(corpus, "objects.0")
    assert frame.arguments["plain"] == "object"
    assert frame.arguments["nothing"] == "object = null"
    assert frame.arguments["numbers.length"] == "int = 4"
    assert frame.arguments["table.length"] == "int = 2"
    assert frame.arguments["list.a.length"] == "int = 1"
    chain = {k: v for k, v in frame.locals.items() if k.startswith("chain")}
    assert chain == {
        "chain": "object",
        "chain.id": "int = 1",
        "chain.next": "object",
        "chain.next.id": "int = 2",
        "chain.next.next": "object",
        "chain.next.next.id": "int = 3",
        "chain.next.next.next": "object = null",  # that deep, and no deeper
    }
    assert frame.locals["circle.next.next.id"] == "int = 5"
    assert frame.locals["none.length"] == "int = 0"


def test_fields_of_this(corpus):
    frame = top(corpus, "fields.0")
    assert frame.this == {
        "count": "int = 12",
        "label": 'String = "shared"',
        "object": "object",
        "object.id": "int = 9",
        "object.next": "object = null",
        "yes": "boolean = true",
        "letter": "char = 120 'x'",
        "small": "byte = -8",
        "medium": "short = -16",
        "whole": "int = 32",
        "wide": "long = 64",
        "thin": "float = 0.500000",
        "fat": "double = 0.250000",
        "text": 'String = "pen"',
        "missing": "object = null",
        "builder": 'StringBuilder = "built"',
        "node": "object",
        "node.id": "int = 8",
        "node.next": "object",
        "node.next.id": "int = 7",
        "node.next.next": "object = null",
        "array": "object",
        "array.length": "int = 3",
        "nothing": "object = null",
    }
    assert frame.arguments == {"argument": "int = 3"}
    assert frame.locals == {"local": "int = 4"}


def test_unfinished_objects(corpus):
    assert top(corpus, "constructor.0").this == {"first": "int = 2", "second": 'String = "set"'}
    assert top(corpus, "superConstructor.0").this == {"third": "int = 0"}
    assert top(corpus, "superConstructor.0").arguments == {"first": "int = 2"}
    frame = top(corpus, "uninitialized.0")
    assert "$BuiltTooEarly.<init>(" in frame.text
    assert frame.arguments == {"zero": "int = 0"}
    assert frame.this in ({}, {"never": "int = 0"})
    initial = frame_of(corpus, "staticInitializer.0", "Throwers$Unloadable.initial")
    assert initial.arguments == {"given": "int = 3"}
    assert "Throwers$Unloadable.<clinit>(" in corpus.facts["staticInitializer.0.1"]


@pytest.mark.parametrize(
    "situation, locals_",
    [
        ("outOfScope", {}),
        ("notYetInScope", {}),
        ("slotOfTheSameType", {"second": "int = 12"}),
        ("slotOfAnotherType", {"real": "double = 10.500000"}),
        ("slotOfAnObject", {"text": 'String = "text10"'}),
    ],
)
def test_only_variables_in_scope(corpus, situation, locals_):
    frame = top(corpus, situation + ".0")
    assert frame.locals == locals_
    assert frame.arguments == {"kept": "int = 10"}


def test_values_in_frames_of_every_kind(corpus):
    def arguments(record, method):
        return frame_of(corpus, record, method).arguments

    assert arguments("parseInt.0", "java.lang.Integer.parseInt") == {
        "s": 'String = "x"',
        "radix": "int = 10",
    }
    assert arguments("listGet.0", "java.util.ArrayList.get") == {"index": "int = 7"}
    assert arguments("divide.0", "Throwers.divide") == {"number": "int = 21", "by": "int = 0"}
    compiled = top(corpus, "compiled.0")
    assert compiled.arguments == {"number": "int = -4", "text": 'String = "hot"'}
    assert compiled.locals == {"doubled": "int = -8", "longer": 'String = "hot-8"'}
    for situation in ("reflection", "reflectionOften", "handle", "handleBound"):
        assert arguments(situation + ".0", "Throwers.divide") == {
            "number": "int = 1",
            "by": "int = 0",
        }
    assert arguments("synchronizedMethod.0", "Throwers.synchronizedMethod") == {"held": "int = 6"}
    block = top(corpus, "synchronizedBlock.0")
    assert block.arguments["monitor.kept"] == 'String = "kept"'
    assert block.locals == {"inside": "int = 5"}
    assert arguments("varargs.0", "Throwers.varargs") == {
        "first": 'String = "one"',
        "rest": "object",
        "rest.length": "int = 3",
    }
    default = top(corpus, "defaultMethod.0")
    assert "Throwers$Named.byDefault(" in default.text
    assert default.arguments == {"name": 'String = "default"'}
    assert "Throwers$Kind$1.act(" in top(corpus, "enumConstant.0").text
    lambda_ = top(corpus, "lambda.0")
    assert lambda_.text.startswith("Throwers.lambda$")
    assert lambda_.arguments == {"captured": "int = 41"}
    assert lambda_.locals == {"local": "int = 42"}
    assert top(corpus, "inStream.0").arguments == {"n": "int = 3"}
    inner = top(corpus, "innerClass.0")
    assert inner.this["own"] == "int = 18"
    assert inner.this["val$captured"] == "int = 17"
    assert corpus.fact("deep.0.frames") == 30
    assert [top(corpus, "deep.0").arguments, Frame(corpus.facts, "deep.0.3").arguments] == [
        {"left": "int = 0"},
        {"left": "int = 3"},
    ]


def test_classes_without_debug_information(corpus):
    plain = top(corpus, "plainNames.0")
    assert plain.arguments == {
        "variableName": "int = 7",
        "otherName": 'String = "argument value"',
    }
    assert plain.locals == {"localName": 'String = "argument value711"'}
    for situation in ("linesOnly", "noDebug"):
        frame = top(corpus, situation + ".0")
        assert (frame.arguments, frame.locals) == ({}, {})
        assert frame.this == plain.this == {"fieldName": 'String = "field value"'}


def test_odd_names(corpus):
    frame = top(corpus, "oddNames.0")
    assert frame.text.startswith(
        "odd.Cards and-\xe9 'more'.refuses a card, 5% of them(Cards and more.kt:"
    )
    assert frame.this == {"field-name": 'String = "field value"'}
    assert frame.arguments == {
        "variable name": "int = 7",
        "other!": 'String = "argument value"',
    }
    assert frame.locals == {"$local 50%": 'String = "argument value711"'}


def test_frames_without_values_keep_their_fields(corpus):
    frame = top(corpus, "framesOfComSun.0")
    assert frame.text.startswith("com.sun.x.A.methodName(")
    assert (frame.arguments, frame.locals) == ({}, {})
    assert frame.this == {"fieldName": 'String = "field value"'}


def test_thread_locals(corpus):
    def record_of(situation):
        (key,) = [k for k in (f"{situation}.{n}" for n in range(2))
                  if corpus.facts[k + ".exception"] == "java.lang.ArithmeticException"]
        return Frame.section(corpus.facts, key + ".thread.")

    values = record_of("threadLocals")
    assert all(re.match(r"ThreadLocals\d+(\.|$)", name) for name in values)
    own = {re.sub(r"^ThreadLocals\d+\.", "", k): v for k, v in values.items()}
    assert own["value.kept"] == 'String = "for this thread"'
    assert own["value.value"] == "int = 4711"
    assert "for this thread" not in str(record_of("noThreadLocals"))


def test_what_a_sink_throws_is_not_captured(corpus):
    assert corpus.facts["nestedSink.caught"] == "10"
    assert corpus.facts["throwingSink.given"] == corpus.facts["overflowingSink.given"] == "1"


def test_a_variable_table_that_lies_is_not_believed(corpus):
    fail = frame_of(corpus, "mislabelled.0", "Mislabelled.fail")
    assert set(fail.locals) == {"sum"}


@CHECKED
def test_settings_choose_what_is_delivered_and_captured(jvm, vm):
    run = jvm.run("ExceptionFilters", options=VALUES, vm=vm)
    counts = {k: v for k, v in run.facts.items() if re.match("(rate|black|disabled)", k)}
    assert counts == {
        "rate": "3",
        "rate.raised": "1",
        "black": "0",
        "black.prefix": "1",
        "black.empty": "2",
        "black.null": "1",
        "disabled": "0",
    }
    for kind in range(16):
        frame = top(run, f"flags.{kind}")
        assert frame.text.startswith("Throwers$Fields.fail(")
        assert bool(frame.this) == bool(kind & 1)
        assert frame.arguments == ({"argument": "int = 3"} if kind & 2 else {})
        assert frame.locals == ({"local": "int = 4"} if kind & 4 else {})
        values = Frame.section(run.facts, f"flags.{kind}.thread.")
        assert ("kept" in str(values)) == bool(kind & 8)
    frames = {k: v for k, v in run.facts.items() if re.fullmatch(r"depth\..*\.frames", k)}
    assert frames == {
        "depth.1.frames": "1",
        "depth.3.frames": "3",
        "depth.100.frames": "100",
        "depth.500.frames": "100",
    }


def test_without_the_feature_nothing_is_delivered(jvm):
    run = jvm.run("ExceptionCorpus", options=VALUES + ",features=mutexprofiling_memoryprofiling")
    assert run.facts["enable"] == run.facts["disable"] == "0"
    assert not [k for k in run.facts if k.endswith(".exception")]


@CHECKED
def test_threads_that_throw_at_once(jvm, vm):
    check_threads(jvm.run("ExceptionThreads", options=VALUES, vm=vm))


@CHECKED
def test_virtual_threads_that_throw_at_once(jvm, vm):
    folders = [Path(path) for path in jvm.class_path.split(":")]
    jvm.need(VIRTUAL_THREADS)
    if not any((f / "VirtualExceptions.class").exists() for f in folders):
        pytest.skip("nothing to compile virtual threads with")
    check_threads(jvm.run("VirtualExceptions", options=VALUES, vm=vm))


def check_threads(run):
    assert run.fact("thrown") == 640
    assert {run.fact(k) for k in ("delivered", "numbers", "right")} == {640}


@CHECKED
def test_class_whose_initializer_is_running(jvm, vm):
    run = jvm.run("ExceptionInitializer", options=VALUES, vm=vm, limit=60)
    assert run.facts["during"] == run.facts["behind"] == "1"
    values = top(run, "during.0").arguments
    assert values["slow.name"] == 'String = "early"'
    assert (values["slow.before"], values["slow.after"]) == ("int = 4", "int = 0")
    assert top(run, "behind.0").arguments["slow.after"] == "int = 5"
    assert run.facts["thread"] == "1"


@CHECKED
def test_classes_that_throw_are_unloaded(jvm, vm):
    run = jvm.run("ExceptionUnloading", options=VALUES, vm=vm)
    assert run.facts["failure"] == "null"
    assert run.fact("delivered") == run.fact("thrown") == 600


@CHECKED
def test_switching_while_16_threads_throw(jvm, vm):
    run = jvm.run("ExceptionSwitching", 100, options=VALUES, vm=vm)
    assert run.facts["ones"] == run.facts["expected"]
    assert run.facts["delivered"] == "true"
    assert run.facts["delivered.disabled"] == "0"
    assert run.facts["torn"] == "0"


@CHECKED
def test_callback_that_blocks_and_calls_back(jvm, vm):
    run = jvm.run("ExceptionControl", "stacks", "report", options=VALUES, vm=vm)
    assert (run.facts["disable"], run.facts["enable"]) == ("1", "1")
    assert run.facts["others"] == run.facts["others.disabled"] == "1"
    assert run.facts["others.again"] == "2"
    assert run.facts["calls"] == run.facts["calls.disabled"] == "4"
    assert run.facts["after"] == "1"


@CHECKED
def test_full_heap(jvm, vm):
    run = jvm.run("ExceptionLowMemory", options=VALUES, vm=["-Xmx48m", *vm])
    assert run.fact("errors") > 5
    assert run.facts["after"] == "1"


# --- What a record may hold, and what becomes of those that are lost ---

MEBIBYTE = 1 << 20
SMALL_HEAP = ("-Xmx128m", "-XX:+UseSerialGC", "-XX:+ExitOnOutOfMemoryError")


@CHECKED
@pytest.mark.parametrize("what", ["string", "builder", "enum"])
def test_a_record_has_a_bound(jvm, what, vm):
    options = f"logLevel=1,twHome={HOME},captureObjDepth=5"
    run = jvm.run("ExceptionBudget", what, options=options, vm=(*SMALL_HEAP, *vm))
    if what == "builder":
        assert "builder%3A8%3A" + 256 * "x" in run.facts["begin"].split("%2C")[2]
        assert run.fact("cut") == 0
        assert run.facts["counted"] == "5 5 0"
        return
    assert MEBIBYTE - 100 < run.fact("length") <= MEBIBYTE
    assert run.facts["end"].endswith("%42%43%44")
    assert run.fact("cut") == 5
    assert run.facts["counted"] == "5 5 5"
    cut = [m for m in run.messages("Error") if "is cut" in m]
    assert len(cut) == 5 and "java.lang.IllegalStateException" in cut[0]


@pytest.mark.parametrize("depth", [1, 2, 3, 4, 5])
def test_no_throw_takes_long(jvm, depth):
    options = f"logLevel=1,twHome={HOME},captureObjDepth={depth},features=exceptionprofiling"
    assert jvm.run("ExceptionBudget", "enum", options=options).fact("millis") < 20


def test_the_budget_is_an_option(jvm):
    run = jvm.run("ExceptionBudget", "string", options=f"logLevel=1,twHome={HOME},recordBytes=5000")
    assert 4900 < run.fact("length") <= 5000


@CHECKED
def test_records_that_are_lost_are_counted_and_said(jvm, vm):
    run = jvm.run("ExceptionLoss", options=f"logLevel=1,twHome={HOME},captureObjType=1", vm=vm)
    lost = [int(n) for n in run.facts["overflow.failed"].split()]
    assert lost[0] + run.fact("overflow.delivered") >= 5 and lost[0] >= 1 and lost[1:] == [0, 0, 0]
    after = [int(n) for n in run.facts["sink.failed"].split()]
    assert after[1] >= 3 and after[0] == lost[0] and after[2:] == [0, 0]
    assert run.facts["overflow.rest"] == run.facts["sink.rest"] == "0"
    said = [m for m in run.messages("warn") if m.startswith("The record of a thrown ")]
    assert len(said) == 2, "once a class and a reason"
    assert "StackOverflowError is lost: there is no stack" in said[0]
    assert "the callback threw java.lang.NoClassDefFoundError" in said[1]


# --- The places of a record's separators ---


@pytest.mark.parametrize("depth", [0, 1, 3])
def test_values_that_hold_separators(jvm, depth):
    options = f"captureObjType=7,captureObjDepth={depth},captureSTDepth=4,recordBytes=1048576"
    run = jvm.run("NastyValues", str(depth), options=options)
    assert run.facts["wrong"] == "[]"
    assert run.fact("decoded") > 80 and run.fact("cut") == 0
    assert run.facts["isCaught"] == "true" and run.facts["isUncaught"] == "false"
    assert run.facts["limits"] == f"{depth} 7 4"
    assert run.facts["isMade"] == run.facts["isVirtual"] == "false"


@pytest.mark.parametrize("size", [4096, 5000, 8191, 20_000, 65_536])
def test_values_that_hold_separators_in_records_that_are_cut(jvm, size):
    options = f"captureObjType=7,captureObjDepth=3,captureSTDepth=4,recordBytes={size}"
    run = jvm.run("NastyValues", "3", options=options)
    assert run.facts["wrong"] == "[]"
    assert run.fact("cut") >= 12


# Nothing but the exception that is sent can end these threads.
@pytest.mark.parametrize("way", ["stop", "send"])
def test_a_thread_can_be_stopped_while_it_throws(jvm, way):
    if way == "stop":
        jvm.need(THREAD_STOP)
    sender = Path(jvm.class_path.split(":")[0]).parent / "libstopThread.so"
    run = jvm.run("ExceptionStop", way, options=VALUES, vm=[f"-agentpath:{sender}"], quiet=False)
    if way == "stop":
        assert run.fact("ended") == run.fact("threads")
    else:
        # One that comes while the sink itself runs is taken for the sink's own: of 20, that happens
        # to one in two runs of five.
        assert run.fact("byIt") >= run.fact("threads") - 4


@pytest.mark.parametrize("what", ["elsewhere", "before", "deep"])
def test_nothing_that_a_sink_throws_reaches_the_program(jvm, what):
    run = jvm.run("SinkRethrows", what, options=VALUES, vm=["-XX:MaxJavaStackTraceDepth=10"])
    assert run.fact("caught") == 5
    assert run.fact("failed") >= 5


@pytest.mark.parametrize("way, exit_code", [("exit", 7), ("halt", 9), ("return", 0)])
def test_end_while_16_threads_throw(jvm, way, exit_code):
    for _ in range(5):
        run = jvm.run("ExceptionEnding", way, options=VALUES, exit_code=exit_code, limit=60)
        assert run.out.endswith("ending\n")


def test_end_with_every_line_logged(jvm):
    options = VALUES.replace("logLevel=1", "logLevel=4")
    jvm.run("ExceptionEnding", "exit", options=options, exit_code=7, limit=60)


@pytest.mark.parametrize("collector", ["Serial", "Parallel", "G1", "Z"])
def test_under_every_collector(jvm, collector):
    vm = [f"-XX:+Use{collector}GC"]
    if not jvm.supports(*vm):
        pytest.skip(f"this Java has no {collector} collector")
    check_threads(jvm.run("ExceptionThreads", options=VALUES, vm=vm))
