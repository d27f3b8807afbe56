"""The options of profilers: what the launcher takes, shows and completes."""

import re
from itertools import groupby

import pytest

from harness import OUTPUT, SOURCE
from test_verbs import completions, done


CHOICES = {}  # the words of options that are one of some


def table(file, cells):
    """The rows of a file whose cells stand between bars."""
    lines = (SOURCE / file).read_text("utf-8").splitlines()
    rows = [[cell.strip() for cell in line.replace("~", "\t").split("|")]
            for line in lines if line.count("|") == cells - 1 and not line.startswith("#")]
    assert rows
    return rows


def catalogue():
    """The rows of each profiler, by its name."""
    rows, profiler = {}, None
    for line in (SOURCE / "java" / "options.txt").read_text("utf-8").splitlines():
        if line.startswith("["):
            profiler = line[1:line.index("]")]
        elif line and not line.startswith("#"):
            key, kind, _, default, sample, _ = (cell.strip() for cell in line.split("|"))
            if kind == "word":
                CHOICES[key] = line.split("|")[2].split()
            rows.setdefault(profiler, []).append((key, kind, default, sample))
    return {name: rows[name] for name in ("locks", "contention", "allocations", "exceptions", "memory")}


NO_JVM = "twprofile: run: no JVM has started with the agent"  # for the command is none


# OptionsTest has the companion take and refuse the same.
@pytest.mark.parametrize("profiler, text, told", table("tests/options.txt", 3))
def test_values_and_keys(launcher, folder, profiler, text, told):
    run = launcher.run("run", f"--{profiler}={text}", "--", "true", folder=folder)
    if told:
        assert (run.code, run.out) == (2, "") and told in run.err, run
        assert run.err.startswith(f"twprofile: --{profiler}: ") and not list(folder.iterdir()), run
    else:
        assert run.code == 0 and run.err.startswith(NO_JVM) and (folder / OUTPUT).exists(), run


def test_names_that_no_option_is_like_are_answered_with_all(launcher, folder):
    for profiler, rows in catalogue().items():
        told = launcher.run("run", f"--{profiler}=xyzzyxyzzy=1", "--", "true", folder=folder).err
        keys = ", ".join(key for key, _, _, _ in rows)
        assert told == f"twprofile: --{profiler}: unknown option 'xyzzyxyzzy'; expected {keys}\n"


def test_each_sample_and_default_is_taken(launcher, folder):
    for profiler, rows in catalogue().items():
        samples = ",".join(f"{key}={sample}" for key, _, _, sample in rows)
        # Where a word has no default, it depends on something else.
        defaults = ",".join(f"{key}={default}" for key, kind, default, _ in rows
                            if default or kind not in ("word", "words", "globs"))
        for options in (samples, defaults):
            run = launcher.run("run", f"--{profiler}={options}", "--", "true", folder=folder)
            assert run.code == 0 and run.err.startswith(NO_JVM), run


@pytest.mark.parametrize("verb", ("run", "start"))
def test_help_shows_each_option_with_its_default(launcher, folder, verb):
    shown = done(launcher, "help", verb, folder=folder)
    parts = re.split(r"^  --(\w+)\[=KEY=VALUE,\.\.\.\] ", shown, flags=re.M)
    helps = dict(zip(parts[1::2], parts[2::2]))
    for profiler, rows in catalogue().items():
        for key, _, default, _ in rows:
            entry = f"{key}={default}" if default else key
            assert re.search(rf"^      {re.escape(entry)} +\S", helps[profiler], re.M), entry


def test_completion_of_keys_and_values():
    for profiler, rows in catalogue().items():
        assert completions(f"twprofile run --{profiler}=") == [f"{key}=" for key, _, _, _ in rows]
        for kind, of_kind in groupby(sorted(rows, key=lambda row: row[1]), lambda row: row[1]):
            expected = {"flag": ["true", "false"], "repeat": ["forever"], "top": ["-1"]}
            for key, _, _, _ in of_kind:
                shown = completions(f"twprofile start 12 --{profiler}={key}=")
                assert shown == (CHOICES[key] if kind == "word" else expected.get(kind, [])), key


def test_commas_and_backslashes_in_a_value(launcher, folder):
    launcher.run("run", r"--locks=name=a\,top=b\\,c\d", "--", "true", folder=folder)
    (settings,) = (folder / OUTPUT).glob("settings-*.properties")
    assert r"locks.name=a,top=b\\,c\\d" in settings.read_text("ascii").splitlines()


@pytest.mark.parametrize("given, told", [
    ("--push=ftp://a", "expected a URL with http or https and without a user"),
    ("--push=http://user:secret@a", "expected a URL with http or https and without a user"),
    ("--push=http://a/?x=y", "expected a URL with http or https"),
    ("--push=", "expected a URL"),
    ("--pushLabels=service", "expected key=value pairs separated by commas"),
    ("--pushLabels=a=b,c={d}", "expected key=value pairs separated by commas"),
    ("--pushForm=zipkin", "expected pyroscope or parca"),
    ("--pushInterval=1ms", "expected a duration from 1s to 1h"),
    ("--pushDisk=2g", "expected a size from 0 to 1024m"),
    ("--pushing=a", "unknown option '--pushing'"),
])
def test_where_to_send_is_checked(launcher, folder, given, told):
    for verb in (("run", given, "--", "true"), ("attach", "1", given)):
        run = launcher.run(*verb, folder=folder)
        assert run.code == 2 and told in run.err, run


def test_where_to_send_is_taken(launcher, folder):
    run = launcher.run(
        "run", "--push=https://[::1]:4040/a%20b", "--pushLabels=service=a b,env_1=c/d",
        "--pushForm=Parca", "--pushInterval=1m", "--pushToken=token", "--pushDisk=0", "--", "true",
        folder=folder)
    assert run.code == 0 and run.err.startswith(NO_JVM), run
