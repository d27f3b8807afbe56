"""The memory profiler: survivors by class and generation, with every collector."""

import os

import pytest

from harness import HOME

COLLECTORS = ("Serial", "Parallel", "G1", "Z")
CHECKED = ("-Xcheck:jni",)


def vm_for(jvm, collector):
    """The options for a collector, or for the checks of the native interface with None."""
    vm = [f"-XX:+Use{collector}GC"] if collector else list(CHECKED)
    if not jvm.supports(*vm):
        pytest.skip(f"this Java has no {collector} collector")
    return vm


@pytest.fixture(scope="module", params=[None, *COLLECTORS], ids=lambda p: p or "checked")
def collector(request):
    return request.param


class Memory:
    """A memory report: what survived, by class."""

    def __init__(self, run, name):
        self.root = run.report(name).root
        self.classes = self.root["topNMemoryleakClass"]

    def count(self, name):
        """How many objects of the class; checks that its generations add up and ascend."""
        found = self.classes[f"payload.Payload${name}"]
        survived = found["gcsurvived"]
        generations = [each["GCCounter"] for each in survived]
        assert generations == sorted(set(generations))
        assert sum(each["count"] for each in survived) == found["totalCount"]
        assert sum(int(each["size"]) for each in survived) == int(found["totalSize"])
        return found["totalCount"]

    def size(self, name):
        return int(self.classes[f"payload.Payload${name}"]["totalSize"])

    def generations(self, name):
        survived = self.classes[f"payload.Payload${name}"]["gcsurvived"]
        return {each["GCCounter"]: each["count"] for each in survived}

    def names(self):
        return [name.replace("payload.Payload$", "") for name in self.classes]


@pytest.fixture(scope="module")
def survivors(jvm, collector):
    run = jvm.run("Survivors", "memory.json", vm=vm_for(jvm, collector))
    assert (run.facts["start"], run.facts["stop"]) == ("1", "1")
    return Memory(run, "memory.json")


def test_every_survivor_is_counted_by_class(survivors):
    assert survivors.root["sessionname"] == "memoryLeak"
    assert survivors.root["sessionid"] == 30
    for group in range(6):
        assert survivors.count(f"Group{group}") == 10 * (group + 1)
    assert survivors.count("Plain") == 6 * 5
    assert survivors.count("Wide") == 6 * 3


def test_sizes_are_those_of_the_objects(survivors):
    assert survivors.size("Plain") == 6 * 5 * (survivors.size("Group0") // 10)
    plain, wide = survivors.size("Plain") // 30, survivors.size("Wide") // 18
    assert plain in (8, 16)  # a header
    assert wide == plain + 4 * 8


def test_arrays_are_named_by_their_signature(survivors):
    arrays = survivors.classes["[Lpayload.Payload$Plain;"]
    assert arrays["totalCount"] == 6 * 2
    assert int(arrays["totalSize"]) >= 12 * (10 * 4 + 12)
    assert "[I" not in survivors.classes


def test_the_dead_are_not_counted(survivors):
    assert "Dropped" not in survivors.names()


def test_the_queue_is_drained_from_the_smallest(survivors):
    sizes = [int(each["totalSize"]) for each in survivors.classes.values()]
    assert sizes == sorted(sizes)


def test_generations_follow_each_other(survivors):
    """Whatever collections the VM starts by itself, groups are tagged one after the other."""
    spans = [survivors.generations(f"Group{group}") for group in range(6)]
    for earlier, later in zip(spans, spans[1:]):
        assert max(earlier) < min(later)
    assert min(spans[0]) >= 1


def test_one_forced_collection_is_one_generation(survivors, collector):
    if collector == "Z":
        pytest.skip("several collection events for each forced collection")
    for group in range(6):
        assert survivors.generations(f"Group{group}") == {group + 1: 10 * (group + 1)}
    assert survivors.generations("Plain") == {i: 5 for i in range(1, 7)}
    assert survivors.generations("Wide") == {i: 3 for i in range(1, 7)}
    assert "Latest" not in survivors.names(), "tagged in the current generation"


def test_a_fifo_in_place_of_the_report_is_refused(jvm):
    folder = jvm.new_folder()
    os.mkfifo(folder / "fifo")  # nobody reads from it
    run = jvm.run("Survivors", "fifo", folder=folder)
    assert (run.facts["start"], run.facts["stop"]) == ("1", "0")
    (error,) = run.messages("Error")
    assert "fifo" in error and "a regular file or /dev/null is expected" in error


def test_one_query_reports_the_same_byte_for_byte(jvm):
    vm = vm_for(jvm, "Serial")
    options = f"logLevel=3,twHome={HOME}"
    walked = jvm.run("Survivors", "memory.json", vm=vm, options=options)
    asked = jvm.run("Survivors", "memory.json", vm=vm, options=f"{options},scanInOneQuery=1")
    assert Memory(asked, "memory.json").count("Plain") == 6 * 5
    reports = [(run.folder / "memory.json").read_bytes() for run in (asked, walked)]
    assert reports[0] == reports[1]


def test_tagging_again_keeps_the_last_generation(jvm, collector):
    objects, generations = (10000, 5) if collector is None else (5000, 25)
    run = jvm.run("Retagging", "memory.json", objects, generations, vm=vm_for(jvm, collector))
    memory = Memory(run, "memory.json")
    assert memory.names() == ["Plain"]
    assert memory.count("Plain") == objects
    if collector != "Z":
        assert memory.generations("Plain") == {generations: objects}


def test_threads_tag_during_collections(jvm, collector):
    objects = 300 if collector is None else 2000
    run = jvm.run("TaggingCrowd", "memory.json", objects, 10, vm=vm_for(jvm, collector))
    memory = Memory(run, "memory.json")
    assert run.fact("kept") == 6 * objects
    for group in range(6):
        assert memory.count(f"Group{group}") == objects


def test_classes_may_be_unloaded_before_the_scan(jvm, collector):
    run = jvm.run("DroppedTags", "memory.json", vm=vm_for(jvm, collector))
    memory = Memory(run, "memory.json")
    # One name for the classes of all loaders; those of the dropped ones are gone.
    assert memory.count("Dropped") == 20
    assert memory.count("Plain") == 1


@pytest.mark.parametrize("vm", [(), CHECKED], ids=["plain", "checked"])
def test_tagging_at_any_time(jvm, vm):
    names = ("first.json", "none/second.json", "third.json", "fourth.json")
    run = jvm.run("TaggingAnytime", *names, vm=vm)
    results = [run.facts[key] for key in ("first", "second", "empty", "null", "third", "fourth")]
    assert results == ["1", "0", "0", "0", "1", "1"]
    assert Memory(run, "first.json").names() == [], "no generation had ended"
    third = Memory(run, "third.json")
    assert third.root["sessionid"] == 34
    assert sorted(third.names()) == ["Group2", "Group3"]
    assert third.generations("Group2") == third.generations("Group3") == {1: 1}
    fourth = Memory(run, "fourth.json")
    assert fourth.names() == ["Group5"], "the largest class alone"
    errors = run.messages("Error")
    assert len(errors) == 3
    assert sum("none/second.json" in e and "No such file" in e for e in errors) == 1


def test_filters_choose_the_classes(jvm):
    memory = jvm.run("Filters").report("report.json").root["topNMemoryleakClass"]
    assert set(memory) == {"java.lang.Object", "java.io.ByteArrayOutputStream"}


def test_warnings_of_an_empty_session(jvm):
    run = jvm.run("TaggingAnytime", "a", "none/b", "c", "d", options=f"logLevel=1,twHome={HOME}")
    warnings = run.messages("warn")
    assert (
        "Agent was not able to find any tagged data for memory to report genuinely as no problem "
        "occurred" in warnings
    )


@pytest.mark.parametrize("vm", [(), CHECKED], ids=["plain", "checked"])
def test_all_profilers_at_once(jvm, vm):
    files = ("lock.json", "stacks.txt", "first.json", "second.json")
    run = jvm.run("AllProfilers", *files, options=f"logLevel=4,twHome={HOME}", vm=vm)
    assert [run.facts[k] for k in ("firstMemory", "lockReport", "secondMemory")] == ["1"] * 3

    lock = run.report("lock.json")
    assert lock.thread_counts(run.facts["lock"]) == {"one": 1, "two": 1, "three": 1}

    first, second = Memory(run, "first.json"), Memory(run, "second.json")
    assert {n: first.count(n) for n in first.names()} == {"Group0": 3, "Group1": 2}
    counts = {"Group0": 3, "Group1": 2, "Group2": 1}
    assert {n: second.count(n) for n in second.names()} == counts

    records = [m for m in run.messages("Debug") if m.startswith("Going to Dump 38 Record")]
    captured = [r for r in records if "AllProfilers.fail(" in r]
    assert len(captured) == run.fact("thrown") == 4
    assert not any("failUnseen" in r for r in records)
