"""What twreport exports, read by the formats' own readers and compared with the report."""

import csv
import io
import json
import os
import pathlib
import subprocess

import jsonschema
import pytest
from prometheus_client.parser import text_string_to_metric_families

HERE = pathlib.Path(__file__).parent
DATA = HERE.parent.parent / "data"
TWREPORT = os.environ["TWREPORT"]

HOSTILE = 'a,"b"; c\\\n\x1b[2J<script>\u00e9\U0001f600'


def export(folder, *options):
    done = subprocess.run(
        [TWREPORT, "export", str(folder), *options], capture_output=True, timeout=60, check=True)
    assert done.stderr == b""
    return done.stdout.decode("utf-8")


def lock_report(folder):
    (file,) = [one for one in folder.iterdir() if one.name.startswith("lock") and
               one.suffix == ".json"]
    return json.loads(file.read_text("utf-8"))


@pytest.fixture(params=["recorded", "hostile"])
def folder(request, tmp_path):
    if request.param == "recorded":
        return DATA / "shop-run"
    thread = {"name": HOSTILE, "count": 7, "totalBlockTime": 3, "totalWaitTime": 1,
              "stacktracebean": {"11": {"count": 5, "hashcode": "11"}}}
    lock = {"id": "", "count": 9, "graph": [9], "totalBlockTime": 3, "totalWaitTime": 1,
            "threadbean": {HOSTILE: thread}}
    owner = {"name": HOSTILE, "blockingCount": 1, "blockCount": 2, "totalBlockingTime": 3,
             "stacktracebean": {}}
    (tmp_path / "locks.json").write_text(json.dumps({
        "sessionname": HOSTILE, "sessionid": 1, "lockmap": {HOSTILE + "@1": lock},
        "stacktracemap": {"11": ""}, "blockingThreads": {HOSTILE: owner}}), "utf-8")
    (tmp_path / "stacks").write_text("11=[at a.B;c d.<init>(),at x(),at y()]\n", "utf-8")
    return tmp_path


def entries(folder):
    return sum(lock["count"] for lock in lock_report(folder)["lockmap"].values())


def test_collapsed_stacks_add_up_to_the_entries(folder):
    total = 0
    for line in export(folder, "--format", "collapsed").splitlines():
        stack, count = line.rsplit(" ", 1)
        assert len(stack.split(";")) >= 3
        assert not any(ord(c) < 32 for c in stack)
        total += int(count)
    assert total == entries(folder)


def test_speedscope_is_of_its_schema_and_adds_up(folder):
    document = json.loads(export(folder, "--format", "speedscope"))
    jsonschema.validate(document, json.loads((HERE / "speedscope-schema.json").read_text()))
    (profile,) = document["profiles"]
    assert sum(profile["weights"]) == profile["endValue"] == entries(folder)
    assert len(profile["samples"]) == len(profile["weights"])
    used = {frame for sample in profile["samples"] for frame in sample}
    assert used == set(range(len(document["shared"]["frames"])))


@pytest.mark.parametrize("table", ["locks", "threads", "stacks", "blockers", "exceptions",
                                   "classes"])
def test_csv_has_rows_of_the_same_length(folder, table):
    text = export(folder, "--format", "csv", "--table", table)
    assert text.count("\n") == text.count("\r\n")
    heading, *rows = csv.reader(io.StringIO(text, newline=""), strict=True)
    assert all(len(row) == len(heading) for row in rows)
    if table in ("locks", "stacks"):
        assert sum(int(row[heading.index("entries")]) for row in rows) == entries(folder)


def test_csv_keeps_quotes_and_commas(tmp_path):
    name = 'a,"b" c'
    (tmp_path / "m.json").write_text(json.dumps({
        "sessionname": "", "sessionid": 1, "topNMemoryleakClass": {name: {
            "gcsurvived": [{"GCCounter": 1, "count": 2, "size": "3"}],
            "totalCount": 2, "totalSize": "3"}}}))
    text = export(tmp_path, "--format", "csv", "--table", "classes")
    assert list(csv.reader(io.StringIO(text, newline="")))[1] == ["1", name, "1", "2", "3"]


def test_prometheus_reads_every_sample_once(folder):
    text = export(folder, "--format", "prometheus")
    families = {one.name: one for one in text_string_to_metric_families(text)}
    seen = [(s.name, tuple(sorted(s.labels.items()))) for f in families.values()
            for s in f.samples]
    assert len(seen) == len(set(seen))
    assert all(family.type == "gauge" for family in families.values())
    locks = families["javanativeagent_lock_entries"].samples
    assert sum(sample.value for sample in locks) == entries(folder)


def test_prometheus_keeps_names(tmp_path):
    name = 'a\\b"c\u00e9'
    (tmp_path / "m.json").write_text(json.dumps({
        "sessionname": "", "sessionid": 1, "topNMemoryleakClass": {name: {
            "gcsurvived": [{"GCCounter": 4, "count": 2, "size": "3"}],
            "totalCount": 2, "totalSize": "3"}}}))
    families = {one.name: one for one in text_string_to_metric_families(
        export(tmp_path, "--format", "prometheus"))}
    (sample,) = families["javanativeagent_surviving_objects"].samples
    assert sample.labels == {"session": "1", "class": name, "generation": "4"}
    assert sample.value == 2


@pytest.fixture(params=["recorded", "hostile"])
def contention(request, tmp_path):
    """A folder with a contention report, and the report."""
    report = json.loads((DATA / "contention-run" / "contention-1.json").read_text("utf-8"))
    if request.param == "hostile":
        for lock in report["locks"]:
            lock["class"] += HOSTILE
            for pair in lock["pairs"]:
                pair["waiterThread"] = HOSTILE
        for stack in report["stacks"]:
            stack["frames"][0] += HOSTILE
    (tmp_path / "contention-1.json").write_text(json.dumps(report), "utf-8")
    return tmp_path, report


def blocked_nanos(report):
    return sum(lock["blockedNanos"] + lock.get("stillBlockedNanos", 0)
               for lock in report["locks"] + report["otherLocks"]
               if lock["kind"] in ("monitor", "lock"))


def test_contention_in_collapsed_and_speedscope_adds_up_to_the_blocked_time(contention):
    folder, report = contention
    lines = export(folder, "--format", "collapsed").splitlines()
    assert sum(int(line.rsplit(" ", 1)[1]) for line in lines) == blocked_nanos(report)
    document = json.loads(export(folder, "--format", "speedscope"))
    jsonschema.validate(document, json.loads((HERE / "speedscope-schema.json").read_text()))
    (profile,) = document["profiles"]
    assert profile["unit"] == "nanoseconds"
    assert sum(profile["weights"]) == profile["endValue"] == blocked_nanos(report)


@pytest.mark.parametrize("table", ["contention", "pairs"])
def test_contention_in_csv_has_rows_of_the_same_length(contention, table):
    folder, report = contention
    heading, *rows = csv.reader(io.StringIO(
        export(folder, "--format", "csv", "--table", table), newline=""), strict=True)
    assert all(len(row) == len(heading) for row in rows)
    locks = report["locks"] + report["otherLocks"]
    expected = len(locks) if table == "contention" else sum(len(one["pairs"]) for one in locks)
    assert len(rows) == expected


def test_contention_in_prometheus_adds_up_to_the_blocked_time(contention):
    folder, report = contention
    families = {one.name: one for one in text_string_to_metric_families(
        export(folder, "--format", "prometheus"))}
    samples = families["javanativeagent_contention_blocked_nanoseconds"].samples
    assert sum(sample.value for sample in samples) == blocked_nanos(report)
