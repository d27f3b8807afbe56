"""The rows of `export --format jsonl` in a database: the queries of docs/queries.md give what
`twreport merge` does."""

import json
import os
import pathlib
import re
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent.parent
sys.path[:0] = [str(ROOT / "tests" / "page"), str(ROOT / "bench")]

from benchlib import fleet  # noqa: E402

import database  # noqa: E402

TWREPORT = os.environ["TWREPORT"]
DOCUMENT = (ROOT / "docs" / "queries.md").read_text()
QUERIES = re.findall(r"```sql\n(.*?)```", DOCUMENT, re.DOTALL)
TABLES = ["contention", "contention sites", "exceptions", "allocation sites"]


@pytest.fixture(scope="module")
def exported(tmp_path_factory):
    """A thousand runs of a hundred hosts, and their rows."""
    folder = tmp_path_factory.mktemp("runs")
    fleet.write_runs(folder, 1000, 4, 100)
    rows = folder.parent / "rows.jsonl"
    with rows.open("w") as out:
        subprocess.run([TWREPORT, "export", "--format=jsonl", folder], stdout=out, check=True,
                       timeout=60)
    return folder, rows


@pytest.fixture(scope="module")
def answers(exported):
    """What each query of the document after the first, which makes the table, gives."""
    folder, rows = exported
    try:
        duckdb = database.Database()
    except database.Missing as reason:
        pytest.skip(str(reason))
    duckdb.run(QUERIES[0].replace("rows.jsonl", str(rows)))
    return [duckdb.run(query) for query in QUERIES[1:]]


def test_queries_give_what_merge_does(exported, answers):
    done = subprocess.run([TWREPORT, "merge", "--json", exported[0]], capture_output=True,
                          check=True, timeout=60)
    merged = json.loads(done.stdout)
    assert merged["runs"]["read"] == 1000 and merged["hosts"] == 100
    for name, answer in zip(TABLES, answers):
        (table,) = [one for one in merged["tables"] if one["name"] == name]
        expected = [[row["name"], *([row["site"]] if row["site"] else []), *(
            str(row[member]) for member in ("sum", "median", "worst")), row["worstHost"],
            str(row["hosts"])] for row in table["rows"]]
        assert not table["others"] and len(expected) > 20
        assert sorted(answer) == sorted(expected), name


def test_the_worst_windows_are_those_of_the_reports(exported, answers):
    windows = {}
    for file in exported[0].glob("*/contention-1.json"):
        report = json.loads(file.read_text())
        contended = {lock["id"] for lock in report["locks"] if lock["kind"] in ("monitor", "lock")}
        for window in report["windows"]:
            time = sum(lock["blockedNanos"] for lock in window["locks"] if lock["id"] in contended)
            start = window["startedAt"]
            windows[start] = windows.get(start, 0) + time
    assert {int(start): int(nanos) for start, nanos, hosts in answers[4]} == windows


def test_every_column_is_described(exported):
    found = set()
    for line in exported[1].read_text().splitlines():
        found.update(json.loads(line))
    described = set(re.findall(r"`(\w+)`", DOCUMENT))
    assert found <= described and len(QUERIES) == 6
    columns = set(re.findall(r"(\w+): '", QUERIES[0]))
    assert found <= columns, "of the table that the first query makes"
