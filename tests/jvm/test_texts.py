"""Names, paths and disks that are not what one hopes for."""

import os

import pytest

from harness import modified_utf8

FILES = ("report.json", "stacks.txt")


@pytest.mark.parametrize("vm", [(), ("-Xcheck:jni",)], ids=["plain", "checked"])
def test_odd_names_reach_the_report(jvm, vm):
    run = jvm.run("Names", *FILES, vm=vm)
    report = run.report()
    lock = modified_utf8(run.facts["lock"])
    assert lock.startswith('[LOdd"\\\t\n\xc3\xa9\xed\xa0\xbd\xed\xb8\x80;@')
    assert report.root["sessionname"] == modified_utf8('name " \\ \t \xe9 \U0001f600')
    threads = [modified_utf8(run.facts[f"thread.{i}"]) for i in range(7)]
    assert "" in threads and "nul \xc0\x80 inside" in threads
    assert report.locks[lock]["id"] == lock
    assert report.locks[lock]["count"] == len(threads)
    assert report.thread_counts(lock) == {name: 1 for name in threads}
    assert report.owner_counts() == {name: 1 for name in threads}
    assert all(owner["name"] == name for name, owner in report.owners.items())
    written = (run.folder / "report.json").read_bytes()
    assert rb'"quote \" and \\ backslash"' in written
    assert rb'"line\nfeed\r\ttab"' in written
    assert rb'"control \u0001\u001f\u007f"' in written


def test_null_texts_are_empty_texts(jvm):
    run = jvm.run("Paths", "null", "report.json", "null")
    assert (run.facts["start"], run.facts["stop"]) == ("1", "1")
    report = run.report()
    assert report.root["sessionname"] == ""
    assert report.thread_counts(run.facts["lock"]) == {"one": 1}
    assert len(run.messages("Error")) == 1  # the stack file has no name


def test_texts_under_check(jvm):
    run = jvm.run("Paths", "null", "null", "null", vm=["-Xcheck:jni"])
    assert (run.facts["start"], run.facts["stop"]) == ("1", "0")


@pytest.mark.parametrize("path", ["null", ""])
def test_no_report_path(jvm, path):
    run = jvm.run("Paths", "paths", path, "stacks.txt")
    assert (run.facts["start"], run.facts["stop"]) == ("1", "0")
    assert len(run.messages("Error")) == 1


@pytest.mark.parametrize(
    "path, reason",
    [
        ("no/such/folder/file", "No such file or directory"),
        ("home", "Is a directory"),
        ("fifo", "a regular file or /dev/null is expected"),
        ("/dev/full", "a regular file or /dev/null is expected"),
    ],
)
def test_files_that_cannot_be_written(jvm, path, reason):
    def folder():
        made = jvm.new_folder()
        os.mkfifo(made / "fifo")  # nobody reads from it
        return made

    run = jvm.run("Paths", "paths", path, "stacks.txt", folder=folder())
    assert (run.facts["start"], run.facts["stop"]) == ("1", "1")
    (error,) = run.messages("Error")
    assert path in error and reason in error
    assert len(run.stacks()) > 0

    run = jvm.run("Paths", "paths", "report.json", path, folder=folder())
    assert (run.facts["start"], run.facts["stop"]) == ("1", "1")
    (error,) = run.messages("Error")
    assert path in error and reason in error
    assert run.report().thread_counts(run.facts["lock"]) == {"one": 1}


def test_nothing_is_written_to_the_null_device(jvm):
    run = jvm.run("Paths", "paths", "/dev/null", "/dev/null")
    assert (run.facts["start"], run.facts["stop"]) == ("1", "1")
    assert run.messages("Error") == []


@pytest.mark.parametrize("kind, reason", [("full", "File too large"), ("fifo", "regular file")])
def test_stack_file_that_cannot_be_written_during_an_event(jvm, kind, reason):
    limit = 2**20
    folder = jvm.new_folder()
    if kind == "fifo":
        os.mkfifo(folder / "stacks.txt")
    else:
        (folder / "stacks.txt").touch()
        os.truncate(folder / "stacks.txt", limit)
    run = jvm.run("DeepStacks", 1000, "report.json", "stacks.txt", 150, folder=folder,
                  file_limit=limit)
    assert any("stacks.txt" in m and reason in m for m in run.messages("Error"))
    assert run.report().thread_counts(run.facts["lock"]) == {"deep-150": 1}


def test_a_report_replaces_what_was_in_the_file(jvm):
    folder = jvm.new_folder()
    (folder / "report.json").write_text("x" * 100000)
    run = jvm.run("SummaryOnly", *FILES, folder=folder)
    assert run.report().root["sessionid"] == 4
