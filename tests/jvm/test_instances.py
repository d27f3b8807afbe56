"""tagInstances on real heaps: which objects it marks, and what it leaves as it was."""

import pytest

CHECKED = ("-Xcheck:jni",)


@pytest.mark.parametrize("collector", [None, "Serial", "Parallel", "G1", "Z"],
                         ids=lambda name: name or "checked")
def test_instances_of_exactly_these_classes(jvm, collector):
    vm = [f"-XX:+Use{collector}GC"] if collector else list(CHECKED)
    if not jvm.supports(*vm):
        pytest.skip(f"this Java has no {collector} collector")
    count = 100_000 if collector else 2_000  # checks of references take their time
    run = jvm.run("Instances", "report.json", count, vm=vm)
    assert run.facts["noSession"] == "0", "no generation to tag with"
    assert run.facts["generation0"] == "0"
    assert run.fact("first") == count, "subclasses are other classes"
    assert run.fact("again") == 0
    assert run.fact("new") == 7, "a class that is named twice counts once"
    assert run.fact("sub") == 30
    assert [run.fact(key) for key in ("arrays", "interfaces", "none", "null")] == [0, 0, 0, 0]
    assert run.fact("followedClass") == 1
    assert run.facts["manyAtLeast"] == "true"
    assert run.fact("classesAgain") == 0
    assert run.fact("stop") == 1

    classes = run.report().root["topNMemoryleakClass"]
    tracked = classes["com.example.tracked.Tracked"]
    assert tracked["totalCount"] == count + 7
    counts = [each["count"] for each in tracked["gcsurvived"]]
    assert counts == [count, 7], "the later sweep left the tags of the earlier one"
    assert classes["com.example.tracked.Tracked$Sub"]["totalCount"] == 31


def test_tagging_while_others_walk(jvm):
    run = jvm.run("InstanceRaces", "report.json", 30, vm=jvm.checks())
    assert run.fact("stop") == 1
    classes = run.report().root["topNMemoryleakClass"]
    found = [classes[f"com.example.tracked.{name}"]["totalCount"] for name in ("Tracked", "Tracked$Sub")]
    assert found == [500, 500]
    generations = [each["GCCounter"] for each in classes["java.lang.Class"]["gcsurvived"]]
    assert max(generations) < 100, "no class is left with a tag that was only borrowed"
