"""Profiles in the pprof form, decoded by its schema and by Go's pprof, and compared with the rest
of what twreport gives."""

import collections
import json
import os
import pathlib
import re
import subprocess
import sys

import pytest

HERE = pathlib.Path(__file__).parent
sys.path[:0] = [str(HERE), str(HERE.parent.parent / "page")]

import pprofs  # noqa: E402
import reports  # noqa: E402

TWREPORT = os.environ["TWREPORT"]
DATA = HERE.parent.parent / "data"
CONTENTION = DATA / "contention-run"
SHOP = DATA / "shop-run"


def run(*arguments):
    return subprocess.run([TWREPORT, *map(str, arguments)], capture_output=True, timeout=60)


def exported(folder, *options):
    done = run("export", folder, "--format=pprof", *options)
    assert done.returncode == 0, done.stderr
    return pprofs.Profile(done.stdout)


def json_of(folder):
    return json.loads(run("--json", folder).stdout)


def collapsed(folder, table):
    """The weights by stack, from the bottom up, without what stands below it."""
    lines = run("export", folder, "--format=collapsed", f"--table={table}").stdout.decode()
    below = 1 if table == "allocations" else 2
    sums = collections.Counter()
    for line in lines.splitlines():
        stack, weight = line.rsplit(" ", 1)
        sums[";".join(re.sub(r"\((Native Method|Unknown Source)\)", "", frame)
                      for frame in stack.split(";")[below:])] += int(weight)
    return +sums


def stack_of(sample):
    return ";".join(pprofs.text_of(frame) for frame in reversed(sample.frames))


@pytest.fixture
def allocations(tmp_path):
    return reports.shop_allocations().write(tmp_path / "run-1")


def test_contention_has_the_sums_of_each_lock_and_stack():
    profile = exported(CONTENTION)
    (report,) = json_of(CONTENTION)["contention"]
    assert profile.types == [("contentions", "count"), ("delay", "nanoseconds")]
    assert profile.total("contentions") == report["totals"]["entries"]
    assert profile.total("delay") == report["totals"]["totalNanos"]
    locks = {lock["name"]: lock for lock in report["locks"] if lock["kind"] in ("monitor", "lock")}
    of_lock = profile.by("contentions", lambda sample: sample.labels["lock"])
    assert all(of_lock[name] == lock["entries"] for name, lock in locks.items())
    assert profile.by("delay", stack_of) == collapsed(CONTENTION, "contention")


def test_contention_has_time_period_mapping_and_labels():
    profile = exported(CONTENTION)
    (report,) = json_of(CONTENTION)["contention"]
    assert profile.raw.time_nanos == report["started"] * 1_000_000
    assert profile.raw.duration_nanos == (report["written"] - report["started"]) * 1_000_000
    assert profile.raw.period == 1
    (mapping,) = profile.raw.mapping
    assert mapping.has_functions and mapping.has_filenames and mapping.has_line_numbers
    for name in ("lock", "class", "kind", "thread", "owner"):
        assert any(name in sample.labels for sample in profile.samples), name
    assert any("estimated" in comment for comment in profile.comments)


def test_locks_have_their_entries_by_stack():
    profile = exported(SHOP, "--table=locks")
    (session,) = json_of(SHOP)["locks"]
    assert profile.types == [("contentions", "count")]
    assert profile.total("contentions") == session["totals"]["entries"]
    assert profile.by("contentions", stack_of) == collapsed(SHOP, "locks")


def test_allocations_have_bytes_allocated_and_alive(allocations):
    profile = exported(allocations)
    (session,) = json_of(allocations)["allocations"]
    assert profile.total("alloc_space") == session["allocated"]["bytes"]
    assert profile.total("inuse_space") == session["alive"]["bytes"]
    assert profile.total("inuse_objects") == session["alive"]["objects"]
    assert profile.by("inuse_space", stack_of) == collapsed(allocations, "allocations")
    assert profile.raw.period == session["interval"]


def test_exceptions_are_counted_by_class_and_site(tmp_path):
    none = dict.fromkeys(("rethrown", "filtered", "blackListed", "overRate", "failed", "cut"), 0)

    def counts(thrown):
        return {"thrown": thrown, "caught": thrown, "uncaught": 0, "recorded": thrown, **none}

    times = {"first": "2026-01-31T12:00:01.000Z", "last": "2026-01-31T12:04:00.000Z"}
    document = {
        "kind": "exceptionCounts", "version": 1, "mode": "thrown",
        "begin": "2026-01-31T12:00:00.000Z", "end": "2026-01-31T12:05:00.000Z", "maxSites": 1000,
        "total": counts(12),
        "sites": [{"class": "a.SoldOut", "method": "a.Shop.sell", "file": "Shop.java", "line": 42,
                   **counts(9), **times}],
        "classes": [{"class": "a.Late", **counts(3), **times}], "other": counts(0)}
    (tmp_path / "exception-counts.json").write_text(json.dumps(document))
    profile = exported(tmp_path)
    assert profile.types == [("exceptions", "count")]
    assert profile.by("exceptions", lambda one: (one.labels["exception"], stack_of(one))) == {
        ("a.SoldOut", "a.Shop.sell(Shop.java:42)"): 9, ("a.Late", "(further sites)"): 3}
    assert profile.raw.time_nanos == 1_769_860_800 * 10**9
    assert profile.raw.duration_nanos == 300 * 10**9


def test_a_profile_is_of_one_kind_of_report():
    done = run("export", SHOP, "--format=pprof")
    assert b"only reports of one kind are in this output" in done.stderr
    refused = run("export", SHOP, "--format=pprof", "--table=threads")
    assert refused.returncode == 2
    assert b"expected contention, locks, allocations or exceptions" in refused.stderr


def test_names_of_any_character_can_be_decoded(tmp_path):
    document = json.loads((CONTENTION / "contention-1.json").read_text())
    document["locks"][0]["class"] = "a\x00\U0001f600"
    (tmp_path / "contention-1.json").write_text(json.dumps(document))
    profile = exported(tmp_path)
    assert any("\U0001f600" in sample.labels["lock"] for sample in profile.samples)


@pytest.mark.skipif(pprofs.GO is None, reason="Debian's golang-go is not installed")
@pytest.mark.parametrize("table", ["contention", "locks", "allocations", "exceptions"])
def test_the_pprof_of_go_has_the_same_tops(table, tmp_path, allocations):
    folder = {"contention": CONTENTION, "allocations": allocations}.get(table, SHOP)
    file = tmp_path / "profile.pb"
    file.write_bytes(run("export", folder, "--format=pprof", f"--table={table}").stdout)
    profile = pprofs.Profile(file.read_bytes())
    name = profile.types[-1][0]
    unit = {"nanoseconds": "ns", "bytes": "B"}.get(profile.types[-1][1], "count")
    top = subprocess.run(
        [pprofs.GO, "tool", "pprof", "-top", "-nodecount=1000", "-nodefraction=0",
         f"-sample_index={name}", f"-unit={unit}", file],
        capture_output=True, timeout=60, encoding="utf-8", check=True,
        env={**os.environ, "PPROF_TMPDIR": str(tmp_path), "HOME": str(tmp_path)}).stdout
    rows = re.findall(r"^ *([0-9.]+)(?:ns|B)? +\S+ +\S+ +\S+ +\S+ +(.*)$", top, re.M)
    flat = {function: int(value) for value, function in rows if value != "0"}
    assert flat == profile.by(name, lambda sample: sample.frames[0][0])


@pytest.mark.skipif(pprofs.GO is None, reason="Debian's golang-go is not installed")
def test_without_the_frames_of_locks_the_tops_are_the_sites_of_the_report(tmp_path):
    file = tmp_path / "profile.pb"
    file.write_bytes(run("export", CONTENTION, "--format=pprof").stdout)
    top = subprocess.run(
        [pprofs.GO, "tool", "pprof", "-top", "-sample_index=delay", "-unit=ms",
         r"-hide=^(java\.util\.concurrent|jdk\.internal)\.", file],
        capture_output=True, timeout=60, encoding="utf-8", check=True,
        env={**os.environ, "PPROF_TMPDIR": str(tmp_path), "HOME": str(tmp_path)}).stdout
    rows = re.findall(r"^ *([0-9.]+)ms +\S+ +\S+ +\S+ +\S+ +(com\.\S*)$", top, re.M)
    sites = collections.Counter()
    (report,) = json_of(CONTENTION)["contention"]
    for lock in report["locks"] + report["otherLocks"]:
        for pair in lock["pairs"] if lock["kind"] in ("monitor", "lock") else []:
            site = (pair["waiterSite"] or "").split("(")[0]
            if site.startswith("com."):
                sites[site] += pair["nanos"] // 1_000_000
    assert {name: float(value) for value, name in rows if float(value) > 0} == sites
