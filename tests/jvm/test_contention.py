"""The contention profile has what the program under it knows to be true.

Counts are exact. The agent measures within what the program's stopwatch measures: its times are not
longer, and shorter by 2 % and a fixed time for each block at most. What puts a thread off for longer
inside its stopwatch is the machine: the times have three tries, the counts none.
"""

import json
import subprocess
import time
import zipfile
from pathlib import Path

import pytest

from features import AOT_CACHE, CDS_LOG, EXACT_PARKS, VIRTUAL_THREADS_LEAVE
from harness import DEFAULT_OPTIONS, Jvm

SLACK_NANOS = 1024  # of each block

JUC = "java.util.concurrent."
LOCKS = JUC + "locks."
KINDS = {  # how a report names them
    "monitor": ("monitor", "ContentionTruth$Contended"),
    "unfair": ("lock", LOCKS + "ReentrantLock"),
    "fair": ("lock", LOCKS + "ReentrantLock"),
    "read": ("lock", LOCKS + "ReentrantReadWriteLock"),
    "write": ("lock", LOCKS + "ReentrantReadWriteLock"),
    "stampedRead": ("lock", LOCKS + "StampedLock"),
    "stampedWrite": ("lock", LOCKS + "StampedLock"),
    "semaphore": ("lock", JUC + "Semaphore"),
}
WAITS = {
    "wait": ("wait", "ContentionTruth$Contended"),
    "condition": ("park", LOCKS + "Condition"),
    "latch": ("park", JUC + "CountDownLatch"),
    "queue": ("park", LOCKS + "Condition"),
    "future": ("park", JUC + "CompletableFuture"),
    "pool": ("park", JUC + "CountDownLatch"),
}
ALL_KINDS = {**KINDS, **WAITS}


def reported(run, name):
    report = json.loads((run.folder / f"{name}.json").read_text("utf-8"))
    assert report["report"] == "contention"
    assert report["parks"] in ("exact", "parks")
    return report


def rows(report, kind, cls):
    both = report["locks"] + report["otherLocks"]
    return [each for each in both if (each["kind"], each["class"]) == (kind, cls)]


def total(found, member):
    return sum(each[member] for each in found)


def assert_counts(run, name, kind, cls):
    report = reported(run, name)
    found = rows(report, kind, cls)
    entries = run.fact(f"{name}.entries")
    assert total(found, "entries") == entries, (name, report["omitted"])
    assert sum(sum(each["histogram"]) for each in found) == entries
    assert total(found, "stillBlocked") == 0
    # A thread is blocked from when it was seen to be, and within what its own stopwatch shows. Both
    # are near each other on a machine that lets the program run.
    blocked = total(found, "blockedNanos")
    assert blocked <= run.fact(f"{name}.nanos") + SLACK_NANOS * entries, name
    assert blocked >= run.fact(f"{name}.leastNanos") - SLACK_NANOS * entries, name


def exact_on(jvm, kinds):
    """The kinds that are counted exactly: of parks, each counts where their methods are not known."""
    parks = jvm.has(EXACT_PARKS)
    return {name: kind for name, kind in kinds.items() if parks or kind[0] in ("monitor", "wait")}


def measure(jvm, *arguments, kinds, program="ContentionTruth", vm=(), quiet=True):
    """Runs the program, and compares counts and times with its own."""
    run = jvm.run(program, *arguments, *kinds, vm=vm, quiet=quiet)
    for name in kinds:
        if name != "record":
            assert_counts(run, name, *ALL_KINDS[name])
    return run


def still_blocked(run, name, kind, cls):
    return total(rows(reported(run, f"{name}-blocked"), kind, cls), "stillBlocked")


@pytest.mark.parametrize("threads, rounds, millis", [(2, 10, 50), (16, 5, 60), (64, 3, 80)])
def test_locks_of_platform_threads(jvm, threads, rounds, millis):
    kinds = exact_on(jvm, KINDS)
    run = measure(jvm, threads, rounds, millis, kinds=kinds)
    for name, (kind, cls) in kinds.items():
        assert (reported(run, name)["parks"] == "exact") == jvm.has(EXACT_PARKS)
        assert still_blocked(run, name, kind, cls) == threads


@pytest.mark.parametrize("threads, rounds, millis", [(8, 3, 50)])
def test_waits_are_apart_from_contention(jvm, threads, rounds, millis):
    kinds = exact_on(jvm, WAITS)
    run = measure(jvm, threads, rounds, millis, kinds=kinds)
    for name, (kind, cls) in kinds.items():
        assert still_blocked(run, name, kind, cls) == threads
        report = reported(run, name)
        if name != "wait":  # those that are notified may meet at the monitor
            assert not [each for each in report["locks"]
                        if each["class"] == cls and each["kind"] in ("monitor", "lock")]
        assert "ForkJoinPool" not in json.dumps(report["locks"] + report["otherLocks"])


def test_notified_waiters_are_not_blocked(jvm):
    run = jvm.run("NotifiedWaiters", "report.json", "stacks.txt")
    report = reported(run, "notified")
    entries = total(rows(report, "monitor", "NotifiedWaiters$Bell"), "entries")
    assert entries == 1 + run.fact("own"), "the one whose time was over"
    assert total(rows(report, "wait", "NotifiedWaiters$Bell"), "entries") == 11
    assert report["omitted"]["startsNotSeen"] == 0


@pytest.mark.parametrize("threads, rounds, millis", [(64, 3, 80), (10_000, 1, 200)])
def test_locks_and_waits_of_virtual_threads(jvm, threads, rounds, millis):
    jvm.need(VIRTUAL_THREADS_LEAVE)
    measure(jvm, threads, rounds, millis, kinds=ALL_KINDS, program="VirtualContentionTruth")


def test_2000_platform_threads_at_once(jvm):
    run = measure(jvm, 2000, 1, 100, kinds=("monitor", "unfair"), vm=["-Xss256k"])
    for name in ("monitor", "unfair"):
        assert still_blocked(run, name, *KINDS[name]) == 2000


def test_the_native_interface_is_used_rightly(jvm):
    names = ("monitor", "unfair", "semaphore", "wait", "future")
    run = measure(jvm, 16, 2, 50, kinds=names, vm=["-Xcheck:jni"])
    assert "WARNING" not in run.out


def test_a_flight_recording_may_start_later(jvm):
    measure(jvm, 8, 2, 50, kinds=("monitor", "record", "unfair", "future"), quiet=False)


CLOSE_LOOK = DEFAULT_OPTIONS + ",contention=1,contentionSamples=500,contentionBudget=100"


def method(frame):
    return frame.split("(")[0]


@pytest.fixture(scope="module")
def owners(jvm):
    # A monitor's owner has its frame only with an agent that was there when the VM started.
    return jvm.run("ContentionOwners", options=CLOSE_LOOK)


def holders(report, row):
    """Of each pair of a lock: the method that held it, the one of the frame named, nanoseconds."""
    frames = {each["id"]: each["frames"] for each in report["stacks"]}
    for pair in row["pairs"]:
        if pair["ownerNote"] is not None:
            yield pair["ownerNote"], None, pair["nanos"]
            continue
        stack = [method(each) for each in frames[pair["ownerStack"]]]
        held = [each for each in stack if "ContentionOwners.hold" in each and each != HOLD]
        frame = pair["holdingFrame"]
        yield (held or ["other"])[0], None if frame is None else stack[frame], pair["nanos"]


HOLD = "ContentionOwners.hold"  # called by the two that hold a lock


@pytest.mark.parametrize("does", ["sleeps", "computes", "waits"])
@pytest.mark.parametrize("kind", ["monitor", "lock"])
def test_holders_have_the_shares_of_their_time(owners, kind, does):
    report = reported(owners, f"{kind}-{does}")
    cls = {"monitor": "ContentionOwners$Shared", "lock": LOCKS + "ReentrantLock"}[kind]
    row = max(rows(report, kind, cls), key=lambda each: each["blockedNanos"])
    nanos, right, wrong = {}, 0, 0
    for holder, framed, time in holders(report, row):
        nanos[holder] = nanos.get(holder, 0) + time
        right += time * (framed == holder)
        wrong += time * (framed not in (None, holder))
    held = HOLD + "Long", HOLD + "Short"
    named = {name: time for name, time in nanos.items() if name not in ("none", "changed")}
    assert max(named, key=named.get) == held[0], nanos
    true = [owners.fact(f"{kind}-{does}.{each}") for each in ("long", "short")]
    # On a busy machine the sampler is late, too, and more samples come when nobody holds the lock:
    # these name no holder, and no wrong one. A share by turns, not by time, would be a half.
    known = sum(nanos.get(each, 0) for each in held)
    assert known >= sum(true) / 3, nanos
    if kind == "monitor":
        assert right >= 9 * wrong and right >= 0.5 * known
    assert nanos[held[0]] / known == pytest.approx(true[0] / sum(true), abs=0.2), nanos
    waited = {pair["ownerWaitsFor"] for pair in row["pairs"]} - {None}
    if does == "waits":
        seconds = {each["id"] for each in rows(report, "monitor", "ContentionOwners$Second")}
        assert waited and waited <= seconds
    else:
        assert not waited


@pytest.fixture(scope="module")
def stuck(jvm):
    return jvm.run("ContentionStuck", options=CLOSE_LOOK + ",contentionStuck=1s")


def test_nobody_is_stuck_before_the_threshold(stuck):
    report = reported(stuck, "early")
    if not report["stuck"]:
        assert report["deadlocks"] == []
    for each in report["stuck"]:  # on a machine that is too busy to be early
        assert report["writtenAt"] - each["sinceAt"] >= report["settings"]["stuckMillis"]


def names_of(report):
    return {each["id"]: each["class"] for each in report["locks"]}


def test_deadlocks_are_named_after_the_threshold(stuck):
    assert 0 <= stuck.fact("namedMillis") < 10_000  # 1 s, looks once a second, and a busy machine
    for name in ("named", "stuck"):
        report = reported(stuck, name)
        names = names_of(report)
        circles = sorted(sorted((each["thread"], names[each["waitsFor"]]) for each in circle)
                         for circle in report["deadlocks"])
        prefix = "ContentionStuck$"
        assert circles == [[("four", prefix + "Gate"), ("three", LOCKS + "ReentrantLock")],
                           [("one", prefix + "Right"), ("two", prefix + "Left")]]
    logged = [each for each in stuck.messages("warn") if each.startswith("Deadlock: ")]
    assert len(logged) == 2, logged
    assert len([each for each in logged if "one waits for ContentionStuck$Right@" in each]) == 1
    assert len([each for each in logged if f"three waits for {LOCKS}ReentrantLock@" in each]) == 1


def test_who_is_stuck(stuck):
    report = reported(stuck, "stuck")
    names = names_of(report)
    found = {names[each["lock"]].split("$")[-1]: each for each in report["stuck"]}
    assert {name: each["waiters"][0]["thread"] for name, each in found.items()} == {
        "Left": "two", "Right": "one", "Gate": "four", LOCKS + "ReentrantLock": "three",
        "First": "a", "Last": "b"}
    assert {name: each["owner"]["thread"] for name, each in found.items()} == {
        "Left": "one", "Right": "two", "Gate": "three", LOCKS + "ReentrantLock": "four",
        "First": "b", "Last": "c"}
    assert all(each["waiterCount"] == 1 for each in found.values())
    frames = {each["id"]: each["frames"] for each in report["stacks"]}
    holder = found["First"]["owner"]
    assert method(frames[holder["stack"]][holder["holdingFrame"]]) == "ContentionStuck.keepFirst"
    logged = [each for each in stuck.messages("warn") if "has been blocked by" in each]
    assert len(logged) == 6, logged


def test_a_chain_of_owners(stuck):
    report = reported(stuck, "stuck")
    locks = {each["class"]: each for each in report["locks"] if each["kind"] == "monitor"}
    first, last = locks["ContentionStuck$First"], locks["ContentionStuck$Last"]
    assert {(p["waiterThread"], p["ownerThread"], p["ownerWaitsFor"]) for p in first["pairs"]} == {
        ("a", "b", last["id"])}
    assert {(p["waiterThread"], p["ownerThread"], p["ownerWaitsFor"]) for p in last["pairs"]} == {
        ("b", "c", None)}
    chain = {each["lock"]: each["owner"]["waitsFor"] for each in report["stuck"]}
    assert chain[first["id"]] == last["id"]
    assert chain[last["id"]] is None


def test_blocks_that_have_not_ended(stuck):
    report = reported(stuck, "named")
    for row in report["locks"]:
        if row["class"].startswith("ContentionStuck$"):
            assert (row["entries"], row["stillBlocked"]) == (0, 1)
            assert row["stillBlockedNanos"] >= stuck.fact("blockedMillis") * 1_000_000


def test_a_virtual_owner_of_a_monitor_is_not_told(jvm):
    jvm.need(VIRTUAL_THREADS_LEAVE)
    run = jvm.run("VirtualOwner", options=CLOSE_LOOK + ",contentionStuck=1s")
    report = reported(run, "stuck")
    names = names_of(report)
    stuck = {names[each["lock"]].split("$")[1]: each for each in report["stuck"]}
    # Without a virtual thread among those that wait, the agent cannot know what the owner is.
    for kind, note in (("ForPlatform", "none"), ("ForVirtual", "virtual")):
        assert stuck[kind]["owner"] is None
        assert stuck[kind]["ownerNote"] == note
        assert {each["thread"] for each in stuck[kind]["waiters"]} == {f"{kind}0", f"{kind}1"}
        (row,) = rows(report, "monitor", f"VirtualOwner${kind}")
        assert row["pairs"]
        nanos = {each: sum(p["nanos"] for p in row["pairs"] if p["ownerNote"] == each)
                 for each in {p["ownerNote"] for p in row["pairs"]}}
        assert max(nanos, key=nanos.get) == note, nanos


def test_more_locks_than_there_is_room_for(jvm):
    vm = ["-XX:+UseSerialGC", "-Xms256m", "-XX:+AlwaysPreTouch"]
    run = jvm.run("ContentionChurn", vm=vm)
    report = reported(run, "churn")
    assert len(report["locks"]) <= 64
    parks = rows(report, "park", "ContentionChurn$Blocker")
    assert total(parks, "entries") == run.fact("parks") == 100_000
    monitors = rows(report, "monitor", "ContentionChurn$Monitor")
    assert total(monitors, "entries") == run.fact("monitors")
    assert total(report["windows"], "entries") >= run.fact("monitors")
    assert run.fact("resident.1") - run.fact("resident.0") < 4096  # KiB


def test_snapshots_under_load_and_while_classes_are_unloaded(jvm):
    run = jvm.run("ContentionLoad", "snapshots")
    before = 0
    for name in [f"load-{i}" for i in range(20)] + ["load"]:
        report = reported(run, name)
        both = report["locks"] + report["otherLocks"]
        entries = total([each for each in both if each["kind"] in ("monitor", "lock")], "entries")
        assert entries >= before
        before = entries
        assert all(sum(each["histogram"]) == pytest.approx(each["entries"], abs=16) for each in both)
    assert before > 100
    # Those without a name were unloaded before they were given one.
    named = total(rows(report, "monitor", "DroppedClasses$Passing"), "entries")
    nameless = total(rows(report, "monitor", None), "entries")
    assert named <= 2 * run.fact("dropped") <= named + nameless + 2 * run.fact("dropped")
    assert named + nameless > 0


def test_switched_on_and_off_under_load(jvm):
    run = jvm.run("ContentionLoad", "switching")
    kinds = {name: KINDS[name] for name in ("monitor", "unfair", "semaphore")}
    for name, kind in kinds.items():
        if name in exact_on(jvm, kinds):
            assert_counts(run, name, *kind)
        else:  # each has parked once at least
            assert total(rows(reported(run, name), *kind), "entries") >= run.fact(f"{name}.entries")


@pytest.mark.parametrize("way", ["exit", "halt"])
def test_a_jvm_ends_as_fast_as_without(jvm, way):
    took = {}
    for options in (DEFAULT_OPTIONS, CLOSE_LOOK):
        run = jvm.run("ContentionLoad", way, options=options)
        took[options] = time.time() - run.fact("end") / 1000
    assert took[CLOSE_LOOK] < took[DEFAULT_OPTIONS] + 1


def shared_classes(jvm, vm, options):
    run = jvm.run("ContentionTruth", 2, 1, 10, "unfair", options=options,
                  vm=["-Xlog:class+load:file=classes.txt", *vm])
    lines = (run.folder / "classes.txt").read_text().splitlines()
    return run, sum("source: shared objects file" in line for line in lines)


def assert_all_from_the_start(run):
    """The profile has seen the round, too, that comes before the program's own session."""
    found = rows(reported(run, "unfair"), *KINDS["unfair"])
    own = run.fact("unfair.entries")
    assert own < total(found, "entries") <= 2 * own


def test_class_data_sharing_stays_in_use(jvm):
    jvm.need(CDS_LOG)
    if not jvm.supports("-Xshare:on"):
        pytest.skip("this Java came without an archive of classes")
    _, without = shared_classes(jvm, ["-Xshare:on"], DEFAULT_OPTIONS)
    run, shared = shared_classes(jvm, ["-Xshare:on"], CLOSE_LOOK)
    assert_all_from_the_start(run)
    assert without > 300
    assert shared >= 0.98 * without


def test_an_aot_cache_stays_in_use(jvm):
    jvm.need(AOT_CACHE)
    folder = jvm.new_folder("cache")
    cache = folder / "programs.aot"
    # A cache has classes of JAR files only.
    jar = folder / "programs.jar"
    programs, companion = jvm.class_path.split(":")[:2]
    with zipfile.ZipFile(jar, "w") as archive:
        for file in Path(programs).glob("*.class"):
            archive.write(file, file.name)
    java = Jvm(jvm.java, jvm.agent, f"{jar}:{companion}", jvm.make_folder)
    subprocess.run([java.java, "-Xmx256m", f"-XX:AOTCacheOutput={cache}", "-cp", java.class_path,
                    "ContentionPlain"], cwd=folder, check=True, capture_output=True, timeout=120)
    if not cache.exists():
        pytest.skip("this Java did not make the cache")
    vm = [f"-XX:AOTCache={cache}", "-XX:AOTMode=on"]
    _, without = shared_classes(java, vm, DEFAULT_OPTIONS)
    run, shared = shared_classes(java, vm, CLOSE_LOOK)
    assert_all_from_the_start(run)
    assert shared >= 0.98 * without > 300
