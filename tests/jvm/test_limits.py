"""Limits of a session: how many locks, threads, owners, stack traces and minutes it keeps."""

import pytest

from harness import stack_hash

P = 10000  # plenty
ALPHA = {"one": 2, "two": 1}
BETA = {"one": 1}
OWNERS = {"ann": 3, "bob": 1}

# name: (duration, top locks, locks, threads per lock, owners, stacks, stacks per thread),
#       alpha's threads, beta's threads, owners, length of the graph
SETS = {
    "plenty": ((120, P, P, P, P, P, P), ALPHA, BETA, OWNERS, 2),
    "noStacks": ((120, P, P, P, P, 0, 0), ALPHA, BETA, OWNERS, 2),
    "negativeStacks": ((120, P, P, P, P, -1, -1), ALPHA, BETA, OWNERS, 2),
    "allLocks": ((120, -1, P, P, P, P, P), ALPHA, BETA, OWNERS, 2),
    "noTop": ((120, 0, P, P, P, P, P), None, None, {}, 2),
    "noLock": ((120, P, 0, P, P, P, P), None, None, {}, 2),
    "negativeLock": ((120, P, -5, P, P, P, P), None, None, {}, 2),
    "oneLock": ((120, P, 1, P, P, P, P), ALPHA, None, {"ann": 2, "bob": 1}, 2),
    "noThread": ((120, P, P, 0, P, P, P), None, None, OWNERS, 2),
    "negativeThread": ((120, P, P, -2147483648, P, P, P), None, None, OWNERS, 2),
    "oneThread": ((120, P, P, 1, P, P, P), {"one": 2}, BETA, OWNERS, 2),
    "noOwner": ((120, P, P, P, 0, P, P), ALPHA, BETA, {}, 2),
    "negativeOwner": ((120, P, P, P, -1, P, P), ALPHA, BETA, {}, 2),
    "oneOwner": ((120, P, P, P, 1, P, P), ALPHA, BETA, {"ann": 2}, 2),
    "twoOwners": ((120, P, P, P, 2, P, P), ALPHA, BETA, {"ann": 2, "bob": 1}, 2),
    "zeroSeconds": ((0, P, P, P, P, P, P), ALPHA, BETA, OWNERS, 0),
    "underAMinute": ((59, P, P, P, P, P, P), ALPHA, BETA, OWNERS, 0),
    "hour": ((3600, P, P, P, P, P, P), ALPHA, BETA, OWNERS, 60),
    "longer": ((18120, P, P, P, P, P, P), ALPHA, BETA, OWNERS, 302),
    "negativeSeconds": ((-61, P, P, P, P, P, P), ALPHA, BETA, OWNERS, 0),
    "lowBits": ((4294967296 + 125, P, P, P, P, P, P), ALPHA, BETA, OWNERS, 2),
}


@pytest.fixture(scope="module")
def limits(jvm):
    sets = [":".join(map(str, (name, *row[0]))) for name, row in SETS.items()]
    return jvm.run("Limits", ".", *sets)


@pytest.mark.parametrize("name", SETS)
def test_limit(limits, name):
    _, alpha, beta, owners, minutes = SETS[name]
    report = limits.report(f"{name}.json")
    assert limits.facts[f"{name}.results"] == "1 1"
    for lock, threads in (("alpha", alpha), ("beta", beta)):
        lock_name = limits.facts[f"{name}.{lock}"]
        if threads is None:
            assert lock_name not in report.locks
            continue
        assert report.thread_counts(lock_name) == threads
        count = sum(threads.values())
        assert report.locks[lock_name]["count"] == count
        assert report.locks[lock_name]["graph"] == ([count] + [0] * (minutes - 1))[:minutes]
    if alpha is None:
        assert report.locks == {}
    assert report.owner_counts() == owners
    assert [int(h) for h in report.stacks] == [h for h, _ in limits.stacks(f"{name}.stacks")]
    assert stack_hash("at Entrant.enter(),at Entrant.run()") in map(int, report.stacks)


@pytest.mark.parametrize(
    "top, expected", [(3, [0, 1, 2]), (2, [1, 2]), (1, [2]), (-1, [0, 1, 2]), (0, [])]
)
def test_ranking_keeps_the_longest_and_reports_them_in_ascending_order(jvm, top, expected):
    run = jvm.run("Ranking", top, "report", "report.json", "stacks.txt")
    own = [run.facts[f"lock.{i}"] for i in range(3)]
    assert [name for name in run.report().locks if name in own] == [own[i] for i in expected]


def test_two_rankings_report_a_lock_twice(jvm):
    run = jvm.run("Ranking", -1, "rankAgain", "report.json", "stacks.txt")
    locks = dict(run.report(members=list).root)["lockmap"]
    own = [run.facts[f"lock.{i}"] for i in range(3)]
    found = {name: [dict(v) for n, v in locks if n == name] for name in own}
    assert [len(members) for members in found.values()] == [2, 2, 2]
    assert all(one == other for one, other in found.values())
    # Ranking resets what the locks counted, not what their threads did.
    assert [found[name][0]["count"] for name in own] == [2, 0, 0]
    threads = [
        {thread: dict(bean)["count"] for thread, bean in found[name][0]["threadbean"]}
        for name in own
    ]
    assert threads == [{"one": 2, "two": 1}, {"one": 1}, {"one": 1}]


def test_a_lock_that_only_the_second_ranking_selects_gets_its_owners(jvm):
    run = jvm.run("Ranking", 1, "rankOther", "report.json", "stacks.txt")
    # Of the first detail phase only the lock counts that was selected in it.
    assert run.report().owner_counts() == {"owner": 1, "second owner": 2}


def test_a_new_session_drops_what_was_ranked(jvm):
    run = jvm.run("Ranking", -1, "startAgain", "report.json", "stacks.txt")
    assert run.facts["stop"] == "1"
    report = run.report()
    assert (report.root["sessionname"], report.root["sessionid"]) == ("again", 10)
    assert report.locks == report.stacks == {}


@pytest.mark.parametrize(
    "budget, frames, written",
    [
        (1000, 99, False),
        (1000, 100, True),
        (1000, 150, True),
        (1, 100, True),
        (0, 150, False),
        (-1, 150, False),
    ],
)
def test_a_cut_stack_writes_the_stack_file_at_once(jvm, budget, frames, written):
    run = jvm.run("DeepStacks", budget, "report.json", "stacks.txt", frames)
    assert run.facts[f"file.after.{frames}"] == str(written).lower()
    deep = dict(run.stacks())[deep_hash(frames)]
    assert deep.count("at ") == min(frames, 100)


def deep_trace(frames):
    text = ["at DeepStacks$Deep.enter()"]
    text += ["at DeepStacks$Deep.down()"] * (frames - 2)
    text += ["at DeepStacks$Deep.run()"]
    return ",".join(text[:100])


def deep_hash(frames):
    return stack_hash(deep_trace(frames))


def test_stacks_are_cut_at_100_frames(jvm):
    run = jvm.run("DeepStacks", 1, "report.json", "stacks.txt", 20, 100, 150, 300)
    # The budget went with the first, so all of them came with the report.
    assert run.facts["file.after.300"] == "false"
    report = run.report()
    stacks = dict(run.stacks())
    threads = report.locks[run.facts["lock"]]["threadbean"]
    for frames in (20, 100, 150, 300):
        key = deep_hash(frames)
        assert stacks[key] == deep_trace(frames)
        assert list(threads[f"deep-{frames}"]["stacktracebean"]) == [str(key)]
    assert deep_hash(150) == deep_hash(300)
    assert len({deep_hash(frames) for frames in (20, 100, 150)}) == 3
