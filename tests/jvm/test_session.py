"""What a lock session records in each phase, against what the program did."""

import stat
import time

import pytest

from features import NOTIFIED_STAND_IN_QUEUE, UNNOTIFIED_ARE_COUNTED
from harness import DEFAULT_OPTIONS, HOME, SECOND, stack_hash

ENTRY_STACK = "at Entrant.enter(),at Entrant.run()"
ENTRY_HASH = str(stack_hash(ENTRY_STACK))
FILES = ("report.json", "stacks.txt")


@pytest.fixture(scope="module", params=[(), ("-Xcheck:jni",)], ids=["plain", "checked"])
def full(request, jvm):
    return jvm.run("FullSession", *FILES, vm=request.param)


def seen(times):
    """A stack trace as an owner or a thread of a lock shows it: the hash is kept from the second
    sighting on."""
    return {ENTRY_HASH: {"count": times, "hashcode": ENTRY_HASH if times > 1 else "0"}}


def test_results(full):
    assert (full.facts["start"], full.facts["summary"], full.facts["detail"]) == ("1", "0", "0")
    assert (full.facts["stopDetail"], full.facts["stop"]) == ("0", "1")


def test_a_session_of_the_program_wakes_an_idle_agent(jvm):
    idle = jvm.run("FullSession", *FILES, options=f"{DEFAULT_OPTIONS},idle=1", vm=jvm.checks())
    assert (idle.facts["start"], idle.facts["stop"]) == ("1", "1")
    assert idle.report().locks[idle.facts["inventory"]]["count"] == 13
    assert "does not give an agent that was idle can_access_local_variables: " in idle.log_text()


def test_report_head(full):
    root = full.report().root
    assert list(root) == ["sessionname", "sessionid", "lockmap", "stacktracemap", "blockingThreads"]
    assert root["sessionname"] == "checkout"
    assert root["sessionid"] == 1  # 4294967297 in 32 bits


def test_counts_are_exact(full):
    report = full.report()
    inventory, shelf = full.facts["inventory"], full.facts["shelf"]
    assert report.locks[inventory]["count"] == 13
    assert report.locks[inventory]["graph"] == [13, 0, 0]
    assert report.thread_counts(inventory) == {"clerk-1": 4, "clerk-2": 4, "clerk-3": 5}
    assert report.locks[shelf]["count"] == 2
    assert report.locks[shelf]["graph"] == [2, 0, 0]
    assert report.thread_counts(shelf) == {"clerk-1": 1, "clerk-2": 1}


def test_lock_and_thread_objects(full):
    for name, lock in full.report().locks.items():
        assert list(lock) == [
            "id", "count", "graph", "totalBlockTime", "totalWaitTime", "threadbean"
        ]
        assert lock["id"] == name
        assert list(lock["threadbean"]) == sorted(lock["threadbean"])
        for thread, bean in lock["threadbean"].items():
            assert list(bean) == [
                "name", "count", "totalBlockTime", "totalWaitTime", "stacktracebean"
            ]
            assert bean["name"] == thread


def test_block_times(full):
    lock = full.report().locks[full.facts["inventory"]]
    assert lock["totalBlockTime"] in full.whole_seconds("blocked")
    for name in ("clerk-1", "clerk-2", "clerk-3"):
        expected = full.whole_seconds(f"blocked.{name}")
        assert expected[0] >= 2
        assert lock["threadbean"][name]["totalBlockTime"] in expected
    assert lock["totalWaitTime"] == 0


def test_waits(full):
    expected = full.whole_seconds("waited")
    assert expected[0] >= 2
    orders = full.report().locks[full.facts["orders"]]
    assert (orders["count"], orders["totalBlockTime"]) == (0, 0)
    assert orders["totalWaitTime"] in expected
    packer = orders["threadbean"].pop("packer")
    assert packer.pop("totalWaitTime") in expected
    assert packer == {"name": "packer", "count": 0, "totalBlockTime": 0, "stacktracebean": {}}
    assert orders["threadbean"] == {}


def test_owners(full):
    owners = full.report().owners
    empty = {"blockCount": 0, "totalBlockingTime": 0, "stacktracebean": {}}
    assert owners == {
        "manager": {"name": "manager", "blockingCount": 12, **empty},
        "deputy": {"name": "deputy", "blockingCount": 3, **empty},
    }
    assert all(
        list(o) == ["name", "blockingCount", "blockCount", "totalBlockingTime", "stacktracebean"]
        for o in owners.values()
    )


def test_stack_traces(full):
    report, stacks = full.report(), full.stacks()
    assert (int(ENTRY_HASH), ENTRY_STACK) in stacks
    assert [h for h, _ in stacks] == sorted(h for h, _ in stacks)
    assert all(stack_hash(text) == h for h, text in stacks)
    assert report.stacks == {str(h): "" for h, _ in stacks}
    threads = report.locks[full.facts["inventory"]]["threadbean"]
    assert threads["clerk-1"]["stacktracebean"] == seen(4)
    assert threads["clerk-3"]["stacktracebean"] == seen(5)
    shelf = report.locks[full.facts["shelf"]]["threadbean"]
    assert shelf["clerk-1"]["stacktracebean"] == seen(1)


def test_session_details_in_the_log(full):
    assert (
        "*********Session Details :\n\t\tSession Id : 4294967297\n\t\tSession Name : checkout"
        "\n\t\tDuration : 185\n\t\tMax Locks Count  : 1000\n\t\tTop Lock count to capture : 10"
        "\n\t\tMax Thread Per Lock Count : 100\n\t\tMax Thread Count : 101"
        "\n\t\tMax StackTrace Count : 102\n\t\tMax StackTrace Count Per Thread : 103"
        "\n\t\tSize of graph array : 3"
    ) in full.messages("Trace")
    assert "File Path to dump json : report.json" in full.messages("Trace")
    assert full.messages("Error") == full.messages("warn") == []


def test_only_the_owner_reads_the_log(full):
    (file,) = (full.home / "logs").iterdir()
    assert stat.S_IMODE(file.stat().st_mode) == 0o600


@pytest.mark.parametrize("vm", [(), ("-Xcheck:jni",)], ids=["plain", "checked"])
def test_owner_periods(jvm, vm):
    run = jvm.run("OwnerPeriods", *FILES, vm=vm)
    first, second, third = (run.facts[k] for k in ("first", "second", "third"))
    owners = run.report().owners
    expected = run.whole_seconds("period")
    assert expected[0] >= 2
    assert owners[first].pop("totalBlockingTime") in expected
    assert [o.pop("totalBlockingTime") for o in owners.values() if o["name"] != first] == [0, 0, 0]
    blocking_counts = {"bob": 2, "ann": 1, "dan": 1, "eve": 1}
    blocking_counts[first] += 1  # met by eve
    # The first found two others queued, the second one other, the third nobody.
    block_counts = {"bob": 0, first: 1, second: 1, third: 0}
    assert owners == {
        name: {
            "name": name,
            "blockingCount": blocking_counts[name],
            "blockCount": block_counts[name],
            "stacktracebean": {} if name == "bob" else seen(1),
        }
        for name in ("ann", "bob", "dan", "eve")
    }


def test_waiters_that_only_the_vm_can_tell_of(jvm):
    jvm.need(NOTIFIED_STAND_IN_QUEUE)
    run = jvm.run("UntoldWaiters", *FILES)
    owners = run.report().owners
    first, second = run.facts["first"], run.facts["second"]
    assert owners[first]["blockCount"] == 1  # the second was queued
    # Later VMs count those that were notified.
    told = jvm.has(UNNOTIFIED_ARE_COUNTED) or run.facts["waiterQueued"] == "true"
    assert owners[second]["blockCount"] == int(told)


def test_every_contended_entry_is_counted(jvm):
    run = jvm.run("FreeContention", *FILES)
    entries = {f"free-{i}": run.fact(f"entries.free-{i}") for i in range(8)}
    total = sum(entries.values())
    assert total > 0
    report, lock = run.report(), run.facts["lock"]
    assert report.thread_counts(lock) == {name: n for name, n in entries.items() if n}
    assert report.locks[lock]["count"] == total
    assert report.locks[lock]["graph"] == [total, 0]
    for bean in report.locks[lock]["threadbean"].values():
        assert sum(s["count"] for s in bean["stacktracebean"].values()) == bean["count"]


def test_owner_lookups_beyond_the_limit_are_reported(jvm):
    per_second = 10
    began = time.monotonic()
    options = f"{DEFAULT_OPTIONS},ownerLookupsPerSecond={per_second}"
    run = jvm.run("FreeContention", *FILES, options=options)
    seconds = time.monotonic() - began
    report, lock = run.report(), run.facts["lock"]
    assert list(report.root)[-1] == "ownerLookups"
    lookups = report.root["ownerLookups"]
    assert list(lookups) == ["perSecond", "made", "leftOut"] and lookups["perSecond"] == per_second
    assert 1 <= lookups["made"] <= per_second * (seconds + 1)
    assert lookups["leftOut"] > lookups["made"]
    # An entry and its end take one lookup each at most.
    assert lookups["made"] + lookups["leftOut"] <= 2 * report.locks[lock]["count"]
    assert any(f"left out : {lookups['leftOut']} ," in text for text in run.messages("Trace"))


def test_notified_waiters_are_no_entries(jvm):
    run = jvm.run("NotifiedWaiters", *FILES)
    bell = run.report().locks[run.facts["bell"]]
    assert bell["threadbean"]["waiter"]["count"] == 1, "the one whose time was over"


def test_summary_only(jvm):
    run = jvm.run("SummaryOnly", *FILES)
    assert (run.facts["stopSummary"], run.facts["stop"]) == ("0", "1")
    assert run.report().root == {
        "sessionname": "summary",
        "sessionid": 4,
        "lockmap": {},
        "stacktracemap": {},
        "blockingThreads": {},
    }
    end = "to report genuinely as no problem occurred"
    assert run.messages("warn") == [
        f"Agent was not able to find any lockBean data {end}",
        f"Agent was not able to find any blocking thread data {end}",
    ]
    assert not (run.folder / "stacks.txt").exists()


def test_nothing_is_counted_after_the_detail_phase(jvm):
    run = jvm.run("AfterDetail", *FILES)
    report, lock = run.report(), run.facts["lock"]
    assert run.facts["stop"] == "1"
    assert report.locks[lock]["count"] == 3
    assert report.locks[lock]["graph"] == [3, 0]
    assert report.thread_counts(lock) == {"one": 2, "two": 1}
    assert report.owner_counts() == {"owner": 3}


def test_a_stopped_summary_phase_goes_on_counting(jvm):
    run = jvm.run("AfterSummary", *FILES)
    report, early, late = run.report(), run.facts["early"], run.facts["late"]
    assert (run.facts["stopSummary"], run.facts["stop"]) == ("0", "1")
    assert report.locks[early]["count"] == 1
    assert report.thread_counts(early) == {"one": 1}
    # 2 in the detail phase, and 3 that are counted for the lock alone.
    assert report.locks[late]["count"] == 5
    assert report.locks[late]["graph"] == [2, 0]
    assert report.thread_counts(late) == {"one": 1, "two": 1}
    assert report.owner_counts() == {"owner": 3}


def test_switching_another_profiler_goes_back_to_counting_alone(jvm):
    run = jvm.run("OtherProfiler", *FILES)
    report, lock = run.report(), run.facts["lock"]
    assert run.facts["stop"] == "1"
    assert report.locks[lock]["count"] == 3 + 5
    assert report.locks[lock]["graph"] == [3, 0]
    assert report.thread_counts(lock) == {"one": 2, "two": 1}
    assert report.locks[lock]["totalWaitTime"] == 0
    assert report.owner_counts() == {"owner": 3}


def test_two_sessions_do_not_mix(jvm):
    run = jvm.run("TwoSessions", "first.json", "second.json", "stacks.txt")
    first, second = run.report("first.json"), run.report("second.json")
    for report, name, lock, contender in (
        (first, "first session", run.facts["first"], "one"),
        (second, "second session", run.facts["second"], "two"),
    ):
        assert report.root["sessionname"] == name
        assert report.thread_counts(lock) == {contender: 1}
        assert report.owner_counts() == {f"owner of {contender}": 1}
        assert report.stacks[ENTRY_HASH] == ""
    assert run.facts["second"] not in first.locks
    assert run.facts["first"] not in second.locks
    # The stack file is appended to: each session wrote the trace.
    assert run.stacks().count((int(ENTRY_HASH), ENTRY_STACK)) == 2


def test_blocks_and_waits_from_before_the_session_add_no_time(jvm):
    run = jvm.run("EarlyStarters", *FILES)
    report, lock, bell = run.report(), run.facts["lock"], run.facts["bell"]
    assert report.locks[lock]["count"] == 1
    assert report.thread_counts(lock) == {"last": 1}
    assert 0 <= report.locks[lock]["totalBlockTime"] <= run.fact("high") // 10**9
    assert report.locks[bell]["totalWaitTime"] == 0
    waiter = report.locks[bell]["threadbean"]["waiter"]
    assert (waiter["count"], waiter["totalWaitTime"]) == (0, 0)


def test_blocks_and_waits_from_between_sessions_add_no_time(jvm):
    run = jvm.run("BetweenSessions", "first.json", "second.json", "stacks.txt")
    report, lock, bell = run.report("second.json"), run.facts["lock"], run.facts["bell"]
    assert run.fact("high") < 3 * SECOND  # less than the time between the sessions
    assert report.thread_counts(lock) == {"last": 1}
    assert report.locks[lock]["totalBlockTime"] <= run.fact("high") // SECOND
    assert report.locks[bell]["totalWaitTime"] == 0
    waiter = report.locks[bell]["threadbean"]["waiter"]
    assert (waiter["count"], waiter["totalWaitTime"]) == (0, 0)


@pytest.mark.parametrize("refused", [False, True], ids=["without", "refused"])
def test_owners_are_those_of_their_own_session(jvm, refused):
    run = jvm.run("UnreportedSession", refused, *FILES)
    assert run.facts.get("stop.first") == ("0" if refused else None)
    assert run.facts["stop"] == "1"
    assert run.report().owner_counts() == {"second owner": 1}


def test_a_second_session_counts_from_its_start_on(jvm):
    run = jvm.run("BeforeSummary", "first.json", "second.json", "stacks.txt")
    assert run.report("first.json").locks == {}
    second, lock = run.report("second.json"), run.facts["lock.1"]
    assert second.thread_counts(lock) == {"one": 1, "two": 1}
    assert second.owner_counts() == {"owner": 2}


def test_debug_lines_name_thread_and_lock(jvm):
    run = jvm.run("AfterDetail", *FILES, options=f"logLevel=4,twHome={HOME}")
    message = f"Current Thread is : one , Curent lock name : {run.facts['lock']}"
    for handler in ("MonitorContendedEnter", "MonitorContendedEntered"):
        function = f"mutexLockProfiler::{handler}"
        lines = [r for r in run.log() if (r.function, r.message) == (function, message)]
        assert [r.severity for r in lines] == ["Debug"] * 3  # one in the summary phase
    assert "Going to reset count" in run.messages("Debug")
    assert f"Hashcode for current stackTrace : {ENTRY_HASH}" in run.messages("Debug")
