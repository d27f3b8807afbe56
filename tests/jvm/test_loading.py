"""The agent loads, reads its options, binds its natives and opens its log."""

import re

import pytest

from harness import HOME, NATIVE

COLLECTORS = ["Serial", "Parallel", "G1", "Z"]
HEADER = (
    "#TimeStamp|TestRun|Thread Name|Thread ID|Module Name|Src file name|Line number|Function"
    "|Severity|Message\n"
)


def natives(jvm, options, **more):
    return jvm.run("Natives", options=f"logLevel=3,twHome={HOME}{options}", **more)


def has_lock_profiler(run):
    assert run.facts["start"] in ("0", "1")
    return run.facts["start"] == "1"


@pytest.mark.parametrize("collector", [None, *COLLECTORS])
def test_loads_under_every_collector(jvm, collector):
    vm = [f"-XX:+Use{collector}GC"] if collector else []
    if not jvm.supports(*vm):
        pytest.skip(f"this Java has no {collector} collector")
    run = natives(jvm, "", vm=vm)
    assert run.out.startswith("Starting Java Native Agent \n")
    assert run.out.count("Starting Java Native Agent ") == 1
    assert run.facts["start"] == run.facts["stop"] == "1"


def test_natives_bind_by_themselves(jvm):
    run = natives(jvm, "")
    assert "WARNING" not in run.out
    assert run.facts["matrices"] == "0"
    assert run.facts["collected"] == "true"


def test_natives_bind_where_native_access_is_denied(jvm):
    denied = "--illegal-native-access=deny"
    if not jvm.supports(denied):
        pytest.skip("this Java does not restrict native access")
    run = natives(jvm, "", vm=[denied])
    assert "WARNING" not in run.out
    assert run.facts["start"] == "1"


def test_natives_under_check(jvm):
    natives(jvm, "", vm=["-Xcheck:jni"])


@pytest.mark.parametrize("options", [None, ""])
def test_no_options_mean_all_profilers_and_the_default_home(jvm, options):
    folder = jvm.new_folder()
    home = folder / "C:\\opt\\korvane\\tracewell"
    (home / "logs").mkdir(parents=True)
    run = jvm.run("Natives", options=options, folder=folder)
    assert has_lock_profiler(run)
    assert "Apr library initialized." in [r.message for r in run.log(home)]
    assert run.log_text() == ""


@pytest.mark.parametrize(
    "features, expected",
    [
        ("features=mutexprofiling", True),
        ("features=exceptionprofiling_mutexprofiling", True),
        ("features=foo_mutexprofiling_bar", True),
        ("features=ALL", True),
        ("features=ALL_memoryprofiling", True),
        ("captureSTDepth=10,captureObjDepth=6,captureObjType=0", True),
        ("FEATURES=foo", True),  # found as a key, but the default set looks for "features="
        ("features=memoryprofiling_exceptionprofiling", False),
        ("features=MUTEXPROFILING", False),
        ("features=all", False),
        ("features=", False),
        ("features=foo", False),
    ],
)
def test_features_choose_the_lock_profiler(jvm, features, expected):
    run = natives(jvm, "," + features)
    assert has_lock_profiler(run) == expected
    assert (run.folder / "report").exists() == expected


def test_without_profilers_every_native_gives_0(jvm):
    run = natives(jvm, ",features=foo")
    results = {k: v for k, v in run.facts.items() if k != "collected"}
    assert set(results.values()) == {"0"}
    assert run.facts["collected"] == "true"
    assert not (run.folder / "report").exists()
    assert not (run.folder / "memory").exists()


def test_control_calls_are_traced_with_or_without_their_profiler(jvm):
    for options in ("", ",features=foo"):
        traced = [
            (r.function, r.message)
            for r in natives(jvm, options).log()
            if r.severity == "Trace" and r.function.startswith(NATIVE)
        ]
        assert traced == [
            (NATIVE + function, message)
            for function, message in [
                ("startMutexLockProfilingSession", "Initializing Lock Profiling Session Id -> 20"),
                ("startMutexLockSummarySession", "Initializing Lock Summary Session Id -> 20"),
                ("startMutexLockDetailSession", "Initializing Lock Detail Session Id -> 20"),
                ("stopMutexLockSummarySession", "Stopping Lock Summary Session Id -> 20"),
                ("stopMutexLockDetailSession", "Stopping Lock Detail Session Id -> 20"),
                ("stopMutexLockProfilingSession", "Stopping Lock Profiling Session Id -> 20"),
                (
                    "startMemoryLeaksProfileSession",
                    "******Starting memory Profiling Session Id -> 20",
                ),
                (
                    "stopMemoryLeaksProfileSession",
                    "******Stopping memory Profiling Session Id -> 20",
                ),
            ]
        ]


@pytest.mark.parametrize(
    "item, reason",
    [
        ("logLevel=x", "invalid stoi argument"),
        ("logLevel=", "invalid stoi argument"),
        ("LOGLEVEL=-", "invalid stoi argument"),
        ("logLevel", ""),
        ("twHome", ""),
        ("captureObjDepth=deep", "invalid stoi argument"),
        ("captureObjDepth=99999999999", "stoi argument out of range"),
        ("captureObjType=-99999999999", "stoi argument out of range"),
        ("captureSTDepth=", "invalid stoi argument"),
        ("captureSTDepth", ""),
    ],
)
def test_bad_option_values_end_the_load(jvm, item, reason):
    options = f"twHome={HOME},{item},features=ALL"
    run = jvm.run("Natives", options=options, exit_code=134, quiet=False)
    assert item in run.err
    assert reason in run.err
    assert "fact" not in run.out


@pytest.mark.parametrize(
    "level, severities",
    [
        ("logLevel=0", set()),
        ("logLevel=-1", set()),
        ("logLevel=1", {"warn"}),
        ("logLevel=2", {"warn"}),
        ("logLevel=3", {"warn", "Trace"}),
        ("logLevel=4", {"warn", "Trace", "Debug", "Error"}),
        ("LOGLEVEL=4", {"warn", "Trace", "Debug", "Error"}),
        ("logLevel= +4x", {"warn", "Trace", "Debug", "Error"}),
        ("logLevel=123456789", {"warn", "Trace", "Debug", "Error"}),  # read as 12345678
    ],
)
def test_log_levels(jvm, level, severities):
    run = jvm.run("SummaryOnly", "report.json", "stacks.txt", options=f"{level},twHome={HOME}")
    assert {r.severity for r in run.log()} == severities
    assert run.facts["stop"] == "1"


def test_log_header_and_records(jvm):
    folder = jvm.new_folder()
    (folder / "home" / "etc").mkdir()
    version = "# version\n\nVersion=4.1\r\n\tBuild=6\nBuild=7\n"
    (folder / "home" / "etc" / "version").write_bytes(version.encode())
    run = natives(jvm, "", folder=folder)
    # A carriage return becomes a blank and the line feed after it stays.
    assert run.log_text().startswith(HEADER + "Version=4.1 \nBuild=7 \n")
    records = run.log()
    assert "Apr library initialized." == records[0].message
    assert "twAprLib::tw_apr_log_initialize" == records[0].function
    for record in records:
        assert re.fullmatch(r"\d\d/\d\d/\d\d \d\d:\d\d:\d\d", record.time)
        assert (record.run, record.thread, record.module) == ("******", "(null)", "NATIVE_AGENT")
        assert record.thread_id > 0
        assert "/" not in record.source
    # All of them were written on the one Java thread that drives the agent.
    assert len({r.thread_id for r in records if r.function.startswith(NATIVE)}) == 1


def test_log_without_a_version_file_has_an_empty_second_line(jvm):
    assert re.match(re.escape(HEADER) + r"\n\d\d/", natives(jvm, "").log_text())
