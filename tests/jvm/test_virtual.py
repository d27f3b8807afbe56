"""Virtual threads count like platform threads, as contenders and as owners (version 21 and up)."""

import pytest

from features import VIRTUAL_OWNERS, VIRTUAL_THREADS
from harness import stack_hash

VIRTUAL = ("virtual-1", "virtual-2", "")
PLATFORM = ("platform-1", "platform-2")


# Before version 24 a blocked virtual thread keeps its carrier: there must be enough of them.
@pytest.fixture(
    scope="module", params=[(), ("-Xcheck:jni",)], ids=["plain", "checked"]
)
def virtual(request, jvm):
    jvm.need(VIRTUAL_THREADS)
    carriers = "-Djdk.virtualThreadScheduler.parallelism=16"
    return jvm.run("VirtualSession", "report.json", "stacks.txt", vm=[carriers, *request.param])


def test_counts(virtual):
    report, lock = virtual.report(), virtual.facts["lock"]
    assert report.locks[lock]["count"] == 8 * 5
    assert report.locks[lock]["graph"] == [8 * 5, 0]
    assert report.thread_counts(lock) == {name: 8 for name in VIRTUAL + PLATFORM}


def test_block_times(virtual):
    lock = virtual.report().locks[virtual.facts["lock"]]
    assert lock["totalBlockTime"] in virtual.whole_seconds("blocked")
    for name in VIRTUAL + PLATFORM:
        expected = virtual.whole_seconds(f"blocked.{name}")
        assert expected[0] >= 4
        assert lock["threadbean"][name]["totalBlockTime"] in expected


def test_platform_owners_are_known(virtual, jvm):
    owners = virtual.report().owner_counts()
    assert owners.pop("owner") == 6 * 5
    if jvm.has(VIRTUAL_OWNERS):
        assert owners == {"virtual owner": 2 * 5}
    else:
        # On a machine with much to do its carrier was seen in its place once.
        assert all(name.startswith("ForkJoinPool-") for name in owners), owners
        assert sum(owners.values()) <= 2, owners
        errors = virtual.messages("Error")
        assert errors.count("monitor usage owner not found") == 2 * 5 - sum(owners.values())


def test_stacks(virtual):
    threads = virtual.report().locks[virtual.facts["lock"]]["threadbean"]
    stacks = dict(virtual.stacks())
    for name in VIRTUAL + PLATFORM:
        traces = threads[name]["stacktracebean"]
        assert sum(trace["count"] for trace in traces.values()) == 8
        for key in traces:
            text = stacks[int(key)]
            assert stack_hash(text) == int(key)
            assert text.startswith(
                "at VirtualSession$Member.enter(),at VirtualSession$Member.run(),at java.lang."
            )
