"""Allocation reports on the command line: what is exported, compared, and held against limits."""

import json
import os
import pathlib
import subprocess
import sys

import jsonschema
import pytest

HERE = pathlib.Path(__file__).parent
sys.path.insert(0, str(HERE.parent.parent / "page"))

import reports  # noqa: E402

TWREPORT = os.environ["TWREPORT"]


def run(*arguments):
    return subprocess.run([TWREPORT, *map(str, arguments)], capture_output=True, timeout=60,
                          encoding="utf-8")


@pytest.fixture
def folder(tmp_path):
    return reports.shop_allocations().write(tmp_path / "run-1")


def test_exports_weigh_stacks_by_bytes(folder):
    lines = run("export", folder, "--format=collapsed").stdout.splitlines()
    alive = 256 * 524_288
    assert sum(int(line.rsplit(" ", 1)[1]) for line in lines) == alive
    scope = json.loads(run("export", folder, "--format=speedscope").stdout)
    jsonschema.validate(scope, json.loads((HERE / "speedscope-schema.json").read_text()))
    (profile,) = scope["profiles"]
    assert profile["unit"] == "bytes" and sum(profile["weights"]) == profile["endValue"] == alive


def test_collapsed_stacks_have_one_unit(folder):
    session = reports.LockSession()
    session.lock("a.B@1")
    session.enter("a.B@1", "worker", ["a.B.c"], 3)
    session.write(folder)
    done = run("export", folder, "--format=collapsed")
    assert done.stdout == "a.B@1;worker;a.B.c 3\n" and "only lock reports" in done.stderr
    chosen = run("export", folder, "--format=collapsed", "--table=allocations")
    assert chosen.stdout.startswith("com.example.shop.Session;") and chosen.stderr == ""


def test_limits_decide_the_exit_code(folder):
    kept = run("check", folder, "--max-alive=*=200m", "--max-growth=*=20m/min")
    assert (kept.returncode, kept.stdout) == (0, "")
    broken = run("check", folder, "--max-growth=com.example.*=1m/min")
    assert broken.returncode == 1
    assert "com.example.shop.Session: grows by 4.0 MiB/min (64 samples" in broken.stdout
    for wrong in ("--max-growth=com.example.*=1m", "--max-alive=1m", "--max-alive=a.B=many"):
        done = run("check", folder, wrong)
        assert done.returncode == 2 and wrong.split("=", 1)[1] in done.stderr


def test_limits_are_not_kept_by_what_was_not_seen(tmp_path):
    folder = reports.shop_allocations(collections=0).write(tmp_path)
    done = run("check", folder, "--max-growth=*=100m/min")
    assert done.returncode == 1 and "no collection ran" in done.stdout
    (tmp_path / "allocations-1.json").write_text("{\"report\": \"allocations\"")
    done = run("check", folder, "--max-alive=*=100m")
    assert done.returncode == 1 and "allocations-1.json" in done.stderr


def test_runs_are_compared_by_class_and_site(folder, tmp_path):
    more = reports.shop_allocations()
    more.site("com.example.shop.Order", ["com.example.shop.Shop.order(Shop.java:50)"], 40)
    tables = json.loads(run("diff", "--json", folder, more.write(tmp_path / "run-2")).stdout)[
        "tables"]
    assert [table["name"] for table in tables] == ["growth", "allocations", "allocation sites"]
    changed = [[row["name"] for row in table["rows"] if row["change"] == "came"] for table in tables]
    assert changed == [["com.example.shop.Order"], ["com.example.shop.Order"],
                       ["com.example.shop.Shop.order"]]


def test_damaged_files_are_named(folder):
    for name in ("growth", "paths"):
        (folder / f"allocations-1.{name}").write_text("nothing")
    done = run(folder)
    assert done.returncode == 1 and "com.example.shop.Session" in done.stdout
    assert "allocations-1.growth" in done.stderr and "allocations-1.paths" in done.stderr
