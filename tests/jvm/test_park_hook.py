"""Threads that park in java.util.concurrent are seen, whatever else happens to its classes."""

import zipfile
from pathlib import Path

import pytest

from features import EXACT_PARKS, MODULES, PARKS_OF_STAMPED_LOCKS, PARKS_OF_TASKS, VIRTUAL_THREADS
from harness import Jvm

LOCKS = ("unfair", "fair", "read", "write", "stampedRead", "stampedWrite", "semaphore", "latch")
WAITS = ("pool", "future")  # nothing is acquired
NOT_THERE = (  # in the classes of older JDKs
    "LockSupport.setCurrentBlocker", "AbstractQueuedSynchronizer.acquire",
    "AbstractQueuedLongSynchronizer.acquire", "StampedLock.acquireWrite", "StampedLock.acquireRead")
KINDS = (*LOCKS, "condition", *WAITS)


@pytest.fixture(scope="module")
def hook(jvm):
    """The Java under test with an agent that is nothing but the hook."""
    agent = Path(jvm.class_path.split(":")[0]).parent / "libparkHookAgent.so"
    return Jvm(jvm.java, agent, jvm.class_path, jvm.make_folder)


def parks(hook, *steps, program="Parks", vm=()):
    return hook.run(program, *steps, options=None, vm=vm)


def counts(run, step):
    """Of each kind how many acquisitions and parks began, and how many parks ended."""
    return {
        kind: tuple(run.fact(f"{step}.{kind}.{what}") for what in ("begins", "parks", "ends"))
        for kind in KINDS
    }


def are_parks_of(hook, kind):
    """Whether threads park there where the hook is."""
    if kind.startswith("stamped"):
        return hook.has(PARKS_OF_STAMPED_LOCKS)
    return kind != "pool" or hook.has(PARKS_OF_TASKS)


def assert_seen(hook, run, step):
    for kind, (begins, begun, ended) in counts(run, step).items():
        assert begun == ended and (begun > 0) == are_parks_of(hook, kind), kind
        assert begins == (1 if kind not in WAITS and hook.has(EXACT_PARKS) else 0), kind


def assert_unseen(run, step):
    assert set(counts(run, step).values()) == {(0, 0, 0)}


VM = {
    "plain": (),
    "verified": ("-Xverify:all",),
    "checked": ("-Xcheck:jni",),
    "shared": ("-Xshare:on",),
    "unshared": ("-Xshare:off",),
    "interpreted": ("-Xint",),
}


@pytest.mark.parametrize("vm", VM.values(), ids=VM)
def test_each_kind_is_seen(hook, vm):
    if not hook.supports(*vm):
        pytest.skip(f"this Java does not start with {vm[0]}")
    run = hook.run("Parks", "install", "kinds", options=None, vm=vm, quiet=vm != VM["verified"])
    assert run.facts["0.install"] == (
        "exact " if hook.has(EXACT_PARKS) else "parks not hooked: " + ", ".join(NOT_THERE))
    assert_seen(hook, run, 1)


@pytest.mark.parametrize("vm", [(), ("-Xcheck:jni",)], ids=["plain", "checked"])
def test_each_kind_is_seen_on_virtual_threads(hook, vm):
    hook.need(VIRTUAL_THREADS)
    assert_seen(hook, parks(hook, "install", "kinds", program="VirtualParks", vm=vm), 1)


@pytest.mark.parametrize("program", ["Parks", "VirtualParks"])
def test_every_park_is_seen_in_compiled_code(hook, program):
    if program == "VirtualParks":
        hook.need(VIRTUAL_THREADS)
    run = parks(hook, "install", "pingPong", program=program)
    assert run.fact("1.parks") == run.fact("1.ends") == run.fact("1.parked") > 1000


def test_nothing_is_seen_once_it_is_removed(hook):
    run = parks(hook, "kinds", "install", "remove", "deliver", "kinds", "install", "kinds")
    assert_unseen(run, 0)
    assert run.facts["2.remove"] == ""
    assert_unseen(run, 4)
    assert_seen(hook, run, 6)


def test_another_agent_may_retransform_the_classes(hook):
    folder = hook.new_folder()
    with zipfile.ZipFile(folder / "other.jar", "w") as jar:
        jar.writestr(
            "META-INF/MANIFEST.MF",
            "Premain-Class: Retransformer\nCan-Retransform-Classes: true\n",
        )
    other = f"-javaagent:{folder / 'other.jar'}"
    run = parks(hook, "retransform", "install", "kinds", "retransform", "kinds", "remove",
                "deliver", "kinds", "retransform", "kinds", vm=[other])
    assert run.fact("0.retransform") == 4
    assert_seen(hook, run, 2)
    assert run.fact("3.retransform") == 8
    assert_seen(hook, run, 4)
    assert_unseen(run, 7)
    assert run.fact("8.retransform") == 12
    assert_unseen(run, 9)


def test_a_flight_recording_may_start_later(hook):
    run = parks(hook, "install", "record", "kinds", "remove", "deliver", "kinds")
    assert_seen(hook, run, 2)
    assert_unseen(run, 5)


def test_javac_runs_with_a_call_in_each_of_its_methods(hook):
    folder = hook.new_folder()
    source = folder / "Sum.java"
    source.write_text(
        "import java.util.*;\n"
        "class Sum<T extends Number> {\n"
        "  int of(List<? extends T> list) {\n"
        "    try { return list.stream().mapToInt(n -> n.intValue()).sum(); }\n"
        "    finally { switch (list.size()) { case 0: case 7: list = null; } }\n"
        "  }\n"
        "}\n"
    )
    tools = [] if hook.has(MODULES) else [f"-Xbootclasspath/a:{hook.home()}/../lib/tools.jar"]
    run = hook.run("com.sun.tools.javac.Main", "-d", folder, source, options="every",
                   vm=["-Xverify:all", *tools], folder=folder, quiet=False)
    assert (folder / "Sum.class").exists()
    assert run.fact("refused") == 0
    assert run.fact("methods") > 1000
    assert run.fact("calls") > 10_000
