"""How many exceptions were thrown where: the counts of the agent are those of the program."""

import json
import re
from collections import Counter
from pathlib import Path

import pytest

from features import MODULES, VIRTUAL_THREADS
from harness import Jvm
from test_companion import OUTPUT, SAY, lines, run_folder

FATES = ("recorded", "rethrown", "filtered", "blackListed", "overRate", "failed")
COUNTS = ("thrown", "caught", "uncaught", *FATES, "cut")
TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"
CHECKED = pytest.mark.parametrize("vm", [(), ("-Xcheck:jni",)], ids=["plain", "checked"])


@pytest.fixture
def start(jvm):
    def run(program, *arguments, given="", vm=(), jvm=jvm, **others):
        (jar,) = [p for p in jvm.class_path.split(":") if p.endswith("javanativeagent.jar")]
        given = f"output={OUTPUT},exceptions=true{given}"
        return jvm.run(program, *arguments, vm=[f"-javaagent:{jar}={given}", *vm], **others)

    return run


def counts_of(run):
    """The report, after what must hold for each."""
    report = json.loads((run_folder(run) / "exception-counts.json").read_text())
    assert report["kind"] == "exceptionCounts" and report["version"] == 1
    assert report["mode"] == "thrown" and report["maxSites"] == 1000
    assert re.fullmatch(TIME, report["begin"]) and report["begin"] <= report["end"]
    rows = report["sites"] + report["classes"] + [report["other"]]
    for row in rows + [report["total"]]:
        assert row["thrown"] == row["caught"] + row["uncaught"]
        assert row["thrown"] == sum(row[fate] for fate in FATES), row
    for key in COUNTS:
        assert report["total"][key] == sum(row[key] for row in rows), key
    for row in rows[:-1]:
        assert re.fullmatch(TIME, row["first"]) and re.fullmatch(TIME, row["last"])
        assert report["begin"] <= row["first"] <= row["last"] <= report["end"]
    assert len(report["sites"]) <= 1000 and len(report["classes"]) <= 1000
    return report


def thrown_by(report, prefix, key):
    """A count by class, method and line, of classes whose names begin so."""
    found = Counter()
    for row in report["sites"]:
        if row["class"].startswith(prefix) and row[key] > 0:
            found[f"{row['class']} {row['method']} {row['line']}"] += row[key]
    return found


def facts_of(run, kind):
    return {key[len(kind) + 1:]: int(value) for key, value in run.facts.items()
            if key.startswith(kind + " ")}


@CHECKED
def test_counts_are_those_of_the_program(start, vm):
    run = start("ThrowingSites", vm=vm)
    report = counts_of(run)
    caught, uncaught = facts_of(run, "caught"), facts_of(run, "uncaught")
    assert len(caught) == 10 and set(caught.values()) == {8 * 200}
    assert len(uncaught) == 1 and set(uncaught.values()) == {8}
    assert thrown_by(report, "ThrowingSites$", "caught") == caught
    assert thrown_by(report, "ThrowingSites$", "uncaught") == uncaught
    assert {row["file"] for row in report["sites"] if row["class"].startswith("ThrowingSites$")} == {
        "ThrowingSites.java"}


def test_records_are_counted_where_they_are_made(start):
    run = start("ThrowingSites", given=",exceptions.exclude=ThrowingSites$Fifth")
    report = counts_of(run)
    records, summary = lines(run_folder(run) / "exceptions.jsonl")
    assert report["total"]["recorded"] == len(records) + summary["own"]
    of_records = Counter(
        (r["class"], r["frames"][0]["method"], r["frames"][0]["line"]) for r in records)
    of_counts = Counter()
    for row in report["sites"]:
        line = row.get("lineInRecord", row["line"])
        of_counts[row["class"], row["method"], line] += row["recorded"]
    assert {key: count for key, count in of_counts.items()
            if key[0].startswith("ThrowingSites$") and count > 0} == {
                key: count for key, count in of_records.items()
                if key[0].startswith("ThrowingSites$")}
    fifth = [row for row in report["sites"] if row["class"] == "ThrowingSites$Fifth"]
    assert sum(row["recorded"] for row in fifth) == 0
    assert sum(row["blackListed"] for row in fifth) >= 1
    for name in ("Second", "Third", "Fourth"):
        rows = [row for row in report["sites"] if row["class"] == f"ThrowingSites${name}"]
        assert all(row["recorded"] > 0 for row in rows), "each site has one"
        assert 5 <= sum(row["recorded"] for row in rows) <= 10, "the rate is spread"


@pytest.mark.parametrize("exclude", ["java.lang.ClassNotFoundException", "none"])
def test_what_is_excluded_is_counted(start, exclude):
    run = start("MissingClass", given=f",exceptions.exclude={exclude},exceptions.rate=0")
    rows = [row for row in counts_of(run)["sites"]
            if row["class"] == "java.lang.ClassNotFoundException" and row["recorded"] +
            row["blackListed"] > 0]
    records, _ = lines(run_folder(run) / "exceptions.jsonl")
    assert any("no.such.Type" == r["message"] for r in records) == (exclude == "none")
    assert all((row["recorded"] > 0) == (exclude == "none") for row in rows) and rows


def test_lookups_of_the_loader_of_java_8_have_no_record(start, jvm):
    run = start("MissingClass")
    records, _ = lines(run_folder(run) / "exceptions.jsonl")
    found = [r for r in records if r["class"] == "java.lang.ClassNotFoundException"]
    assert bool(found) == jvm.has(MODULES)
    assert [row for row in counts_of(run)["sites"]
            if row["class"] == "java.lang.ClassNotFoundException"], "they are counted"


def test_counts_of_virtual_threads(start, jvm):
    jvm.need(VIRTUAL_THREADS)
    run = start("VirtualThrowingSites")
    caught = facts_of(run, "caught")
    assert len(caught) == 10
    assert thrown_by(counts_of(run), "ThrowingSites$", "thrown") == caught


def test_sites_beyond_the_bound_are_counted_by_class(start):
    run = start("ManySites", 1100, 1)
    report = counts_of(run)
    assert run.fact("thrown") == 1100
    assert len(report["sites"]) == 1000
    rows = report["sites"] + report["classes"]
    assert sum(row["thrown"] for row in rows
               if row["class"] == "java.lang.IllegalStateException") == 1100
    (rest,) = [row for row in report["classes"] if row["class"] == "java.lang.IllegalStateException"]
    assert 100 <= rest["thrown"] < 200
    assert report["other"]["thrown"] == 0


def test_classes_that_are_loaded_anew_are_the_same_sites(start):
    run = start("ManySites", 50, 10, vm=("-Xmx64m",))
    report = counts_of(run)
    own = [row for row in report["sites"] if row["method"].startswith("many.C")]
    assert len(own) == 50 and {row["thrown"] for row in own} == {10}
    assert run.fact("thrown") == 500


def test_counts_are_written_meanwhile(start):
    run = start("StillCounting", OUTPUT, given=",exceptions.interval=1s")
    assert run.facts["seen"] == "true"
    (row,) = [row for row in counts_of(run)["sites"] if row["class"] == "StillCounting$Thrown"]
    assert (row["thrown"], row["recorded"], row["rethrown"]) == (3, 1, 2), "one object, one record"
    records, _ = lines(run_folder(run) / "exceptions.jsonl")
    assert len([r for r in records if r["class"] == "StillCounting$Thrown"]) == 1


def test_an_older_library(start, jvm, tmp_path):
    """A library without these natives: it records all the same, and one line is printed."""
    older = tmp_path / "libjavanativeagent.so"
    older.write_bytes(Path(jvm.agent).read_bytes().replace(b"_AgentExceptions_", b"_AgentExceptionz_"))
    run = start("ThrowingSites", quiet=False,
                jvm=Jvm(jvm.java, str(older), jvm.class_path, jvm.make_folder))
    assert run.err == (
        SAY + "exceptions are not counted by site: the agent is older than the companion\n")
    records, _ = lines(run_folder(run) / "exceptions.jsonl")
    assert len(records) >= 50
    assert not (run_folder(run) / "exception-counts.json").exists()
