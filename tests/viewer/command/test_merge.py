"""Many runs as one answer: folders, archives, and what cannot be read of them."""

import gzip
import io
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tarfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent.parent
sys.path[:0] = [str(ROOT / "tests" / "page"), str(ROOT / "bench")]

import reports  # noqa: E402
from benchlib import fleet  # noqa: E402
from test_large import peak_memory  # noqa: E402

TWREPORT = os.environ["TWREPORT"]


def run(*arguments):
    return subprocess.run([TWREPORT, *map(str, arguments)], capture_output=True, timeout=60,
                          encoding="utf-8")


def merged(*arguments):
    """The answer as JSON, when nothing is wrong with the inputs."""
    done = run("merge", "--json", *arguments)
    assert (done.returncode, done.stderr) == (0, "")
    return json.loads(done.stdout)


def table(answer, name):
    (found,) = [one for one in answer["tables"] if one["name"] == name]
    return found


def shop(folder, host, thrown, alive=3):
    """A run that throws at one site and keeps what it allocates at another."""
    reports.write_run(folder, host=host, agent="1.0.0")
    reports.write_counts(folder, [
        reports.counted("com.example.SoldOut", "com.example.Shop.sell", "Shop.java", 42, thrown)])
    reports.AllocationSession().site("com.example.Page", ["com.example.Pages.get(Pages.java:20)"],
                                     alive).write(folder)
    return folder


def pack(archive, *folders, style=tarfile.GNU_FORMAT, prefix=""):
    with tarfile.open(archive, "w:gz", format=style) as tar:
        for folder in folders:
            tar.add(folder, prefix + folder.name)
    return archive


@pytest.fixture(scope="module")
def runs(tmp_path_factory):
    """Six runs of three hosts."""
    folder = tmp_path_factory.mktemp("fleet") / "out"
    fleet.write_runs(folder, 6, 20, 3)
    return folder


def test_a_name_has_its_sum_and_its_spread_over_hosts(tmp_path):
    for number, (host, thrown) in enumerate([("a", 5), ("b", 7), ("a", 10), ("c", 1), ("d", 40)]):
        shop(tmp_path / f"run-{number}", host, thrown)
    answer = merged(tmp_path)
    assert answer["runs"] == {"found": 5, "read": 5, "inPart": 0, "withoutReport": 0, "notRead": 0}
    assert (answer["hosts"], answer["hostsNotKnown"]) == (4, 0)
    exceptions = table(answer, "exceptions")
    (row,) = exceptions["rows"]
    assert row == {"name": "com.example.SoldOut", "site": "com.example.Shop.sell(Shop.java:42)",
                   "sum": 63, "median": 7, "medianRounded": False, "worst": 40, "worstHost": "d",
                   "hosts": 4, "runs": 5}
    assert exceptions["estimated"] is False
    sites = table(answer, "allocation sites")
    assert sites["estimated"] is True and sites["measure"] == "bytes"
    assert [(one["name"], one["sum"]) for one in sites["rows"]] == [
        ("com.example.Pages.get", 5 * 3 * 524_288)]


def test_the_answer_is_shown_as_tables(tmp_path):
    for host, thrown in (("a", 5), ("b", 7000)):
        shop(tmp_path / f"run-{host}", host, thrown)
    text = run("merge", tmp_path).stdout
    assert text.startswith("2 runs of 2 hosts: 2 read.\n")
    assert "Exceptions by class and site, thrown (1)\n2 runs of 2 hosts have such reports.\n" in text
    lines = [line.split() for line in text.splitlines() if line.startswith("com.example.SoldOut")]
    assert lines == [["com.example.SoldOut", "com.example.Shop.sell(Shop.java:42)", "7,005", "5",
                      "7,000", "b", "2"]]
    assert "Objects alive by site, bytes, estimated from samples (1)" in text


def test_one_run_of_each_host_comes_to_what_the_run_says(runs):
    one = runs / "run-00000"
    report = json.loads((one / "contention-1.json").read_text())
    expected = {}
    for lock in report["locks"]:
        if lock["kind"] in ("monitor", "lock"):
            time = lock["blockedNanos"] + lock["stillBlockedNanos"]
            expected[lock["class"]] = expected.get(lock["class"], 0) + time
    rows = table(merged(one), "contention")["rows"]
    assert {row["name"]: row["sum"] for row in rows} == expected


def test_archives_patterns_and_folders_give_the_same(tmp_path, runs):
    expected = merged(runs)
    folders = sorted(runs.iterdir())
    assert merged(*folders, runs) == expected, "each run counts once"
    assert merged(f"{runs}/run-*") == expected, "a pattern that the shell did not expand"
    for name, style in (("ustar", tarfile.USTAR_FORMAT), ("gnu", tarfile.GNU_FORMAT),
                        ("pax", tarfile.PAX_FORMAT)):
        there = tmp_path / name
        there.mkdir()
        for folder in folders[1:]:
            pack(there / f"{folder.name}.tar.gz", folder, style=style, prefix="./")
        shutil.copytree(folders[0], there / folders[0].name)
        assert merged(there) == expected
        # A folder that ustar splits, and the others write in a header of its own.
        long = "l" * (120 if name == "ustar" else 200)
        assert merged(pack(tmp_path / f"{name}.tgz", runs, style=style, prefix=long + "/")) == expected


def test_lists_and_logs_beside_runs_in_an_archive_are_no_runs(tmp_path, runs):
    copy = tmp_path / "out"
    shutil.copytree(runs, copy)
    (copy / "settings-1.jvms").write_text("7 run-00000\n")
    (copy / "run-00000" / "notes.log").write_text("a note\n")
    assert merged(pack(tmp_path / "all.tar.gz", copy)) == merged(runs)


def test_a_run_that_does_not_tell_its_host_is_one(tmp_path):
    for name in ("one", "two"):
        shop(tmp_path / name / "run-1", None, 5)
    shop(tmp_path / "three" / "run-1", "a", 6)
    answer = merged(f"{tmp_path}/*/run-*")
    assert (answer["hosts"], answer["hostsNotKnown"]) == (3, 2)
    text = run("merge", f"{tmp_path}/*/run-*").stdout
    assert "Host not known: each of 2 runs counts as a host of its own" in text


def test_runs_that_differ_in_their_settings_are_named(tmp_path):
    shop(tmp_path / "run-1", "a", 5)
    shop(tmp_path / "run-2", "b", 5)
    reports.write_run(tmp_path / "run-2", host="b", agent="2.0.0")
    text = run("merge", tmp_path).stdout
    assert "Runs differ in this: version of the agent: 1.0.0 in 1 run, 2.0.0 in 1 run." in text
    settings = {one["name"]: one["runs"] for one in merged(tmp_path)["settings"]}
    assert settings["version of the agent"] == {"1.0.0": 1, "2.0.0": 1}
    assert settings["allocations, bytes for a sample at the end"] == {"524288": 2}


def test_what_reports_do_not_have_is_named(tmp_path):
    shop(tmp_path / "run-1", "a", 5)
    reports.AllocationSession(omitted={"lost": 4, "lostBytes": 9, "failed": 0, "sites": 0,
                                       "stacks": 0, "classes": 0, "names": 0, "thinned": 0},
                              endedAt=None).write(tmp_path / "run-1", 2)
    shop(tmp_path / "run-2", "b", 5)
    assert merged(tmp_path)["omitted"] == [
        {"what": "samples of allocations were lost", "runs": 1},
        {"what": "the allocation profile had not been stopped when its report was written",
         "runs": 1}]
    assert "In 1 run: samples of allocations were lost." in run("merge", tmp_path).stdout


def test_copies_of_a_run_are_named(tmp_path):
    shop(tmp_path / "run-1", "a", 5)
    shutil.copytree(tmp_path / "run-1", tmp_path / "run-2")
    shop(tmp_path / "run-3", "b", 5)
    what = "another run has the same host, process and start: copies count twice"
    assert merged(tmp_path)["omitted"] == [{"what": what, "runs": 1}]
    assert f"In 1 run: {what}." in run("merge", tmp_path).stdout
    # Given twice, it is the same run.
    assert merged(tmp_path / "run-1", tmp_path / "run-*")["runs"]["found"] == 3


def test_what_cannot_be_read_is_named_and_counted(tmp_path):
    for number in range(4):
        shop(tmp_path / f"run-{number}", f"host-{number}", 5)
    (tmp_path / "run-0" / "contention-1.json").write_text('{"report": "contention", "ver')
    (tmp_path / "run-1" / "allocations-2.json.part").write_text("{")
    shutil.rmtree(tmp_path / "run-2")
    (tmp_path / "run-2").mkdir()
    (tmp_path / "run-2" / "exception-counts.json").write_text("no report")
    (tmp_path / "run-4").mkdir()
    reports.write_run(tmp_path / "run-4")
    done = run("merge", "--json", tmp_path, tmp_path / "no-such-run")
    assert done.returncode == 1
    answer = json.loads(done.stdout)
    assert answer["runs"] == {"found": 6, "read": 2, "inPart": 1, "withoutReport": 1, "notRead": 2}
    for name in ("run-0/contention-1.json", "run-2/exception-counts.json", "no-such-run"):
        assert sum(name in line for line in answer["problems"]) == 1, answer["problems"]
        assert name in done.stderr
    (unfinished,) = answer["unfinished"]
    assert unfinished.endswith("run-1/allocations-2.json.part")
    assert table(answer, "exceptions")["rows"][0]["sum"] == 15
    text = run("merge", tmp_path, tmp_path / "no-such-run").stdout
    assert text.startswith("6 runs of 3 hosts: 2 read, 1 in part, 1 without a report, 2 not read.\n")


def test_names_beyond_the_limit_are_added_up(runs):
    every, some = merged(runs), merged(runs, "--names=3")
    for one in every["tables"]:
        limited = table(some, one["name"])
        assert len(limited["rows"]) == min(3, len(one["rows"]))
        others = limited["others"]["sum"] if limited["others"] else 0
        assert sum(row["sum"] for row in limited["rows"]) + others == sum(
            row["sum"] for row in one["rows"])
    assert "(other names)" in run("merge", runs, "--names=3").stdout
    assert some == merged(runs, "--names=3"), "whatever the threads do"


def test_the_median_of_many_hosts_is_near(tmp_path):
    values = [round(1.07 ** i) + i for i in range(300)]
    for number, value in enumerate(values):
        folder = tmp_path / f"run-{number}"
        reports.write_run(folder, host=f"host-{number}")
        reports.write_counts(folder, [reports.counted("a.X", "a.B.c", "B.java", 1, value)])
    (row,) = table(merged(tmp_path), "exceptions")["rows"]
    assert row["medianRounded"] and row["hosts"] == 300
    assert row["median"] == pytest.approx(statistics.median_low(values), rel=0.04)
    assert (row["sum"], row["worst"]) == (sum(values), max(values))
    assert "~: within 4 %" in run("merge", tmp_path).stdout


def header(name, size, kind=b"0"):
    info = tarfile.TarInfo(name)
    info.size, info.type = size, kind
    return bytearray(info.tobuf(tarfile.GNU_FORMAT))


def archive(file, content):
    file.write_bytes(gzip.compress(bytes(content)))
    return file


END = bytes(1024)


@pytest.mark.parametrize("content, problem", [
    (b"text", "cut off"),
    (b"x" * 1024, "a header is damaged"),
    (header("run-1/run.json", 600) + b"{}", "cut off"),
    (header("run-1/run.json", 2**33) + END, "files of at most 256 MiB, found one of 8.0 GiB"),
    (header("long", 2**20, b"L") + END, "names of at most 4096 bytes"),
    (header("pax", 10, b"x") + b"99 path=x\n".ljust(512, b"\0") + END, "pax header"),
    (header("run-1/run.json", 0), "cut off"),
])
def test_damaged_archives_are_named(tmp_path, content, problem):
    file = archive(tmp_path / "a.tar.gz", content)
    done = run("merge", file)
    assert done.returncode == 1 and str(file) in done.stderr and problem in done.stderr
    assert done.stdout.startswith("1 run of 0 hosts: 0 read, 1 not read.\n")


def test_an_archive_that_is_no_gzip_or_ends_early_is_named(tmp_path, runs):
    whole = pack(tmp_path / "a.tar.gz", runs).read_bytes()
    for content, problem in ((whole[:len(whole) // 2], "cut off"), (b"{}", "expected a gzip file"),
                             (whole[:-8] + bytes(8), "without damage")):
        (tmp_path / "a.tar.gz").write_bytes(content)
        done = run("merge", tmp_path / "a.tar.gz")
        assert done.returncode == 1 and problem in done.stderr


def test_an_archive_that_unpacks_to_far_more_is_refused(tmp_path):
    file = tmp_path / "bomb.tar.gz"
    with gzip.open(file, "wb", 9) as packed:
        size = 300 * 2**20
        packed.write(header("run-1/other.bin", size))
        for _ in range(300):
            packed.write(bytes(2**20))
        packed.write(END)
    done = run("merge", file)
    assert done.returncode == 1 and "at most 200 bytes for each byte of the archive" in done.stderr


def test_links_in_an_archive_are_not_followed(tmp_path):
    secret = tmp_path / "secret.json"
    shop(tmp_path / "run-1", "a", 5)
    secret.write_bytes((tmp_path / "run-1" / "exception-counts.json").read_bytes())
    with tarfile.open(tmp_path / "a.tar.gz", "w:gz") as tar:
        about = (tmp_path / "run-1" / "run.json").read_bytes()
        info = tarfile.TarInfo("run-1/run.json")
        info.size = len(about)
        tar.addfile(info, io.BytesIO(about))
        link = tarfile.TarInfo("run-1/exception-counts.json")
        link.type, link.linkname = tarfile.SYMTYPE, str(secret)
        tar.addfile(link)
    answer = merged(tmp_path / "a.tar.gz")
    assert answer["runs"]["withoutReport"] == 1 and answer["tables"] == []


def test_memory_does_not_grow_with_the_runs(tmp_path):
    fleet.write_runs(tmp_path, 50, 200)
    some = peak_memory("merge", *(tmp_path / f"run-{run:05}" for run in range(20)))
    every = peak_memory("merge", tmp_path)
    size = sum(file.stat().st_size for file in tmp_path.glob("*/*"))
    assert size > 40_000_000
    assert every < 1.25 * some, "20 runs have the names of all services"
    assert every < size


def test_a_wrong_command_line_is_refused(tmp_path):
    for arguments in (["merge"], ["merge", tmp_path, "--names=0"], ["merge", tmp_path, "--all"]):
        assert run(*arguments).returncode == 2
    done = run("merge", tmp_path)
    assert done.returncode == 1 and "expected runs in the folder (run-* or *.tar.gz)" in done.stderr
