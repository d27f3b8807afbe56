"""The agent in a JVM that runs already: what it counts, what it answers, and what it leaves."""

import json
import subprocess

import pytest

from features import (JCMD_LOADS_AGENTS, SAMPLED_ALLOCATIONS, USED_REFERENCES_ARE_COUNTED, VIRTUAL_THREADS,
                      VIRTUAL_THREADS_LEAVE)

SELF = ("-Djdk.attach.allowAttachSelf=true",)
DYNAMIC = "-XX:+EnableDynamicAgentLoading"  # no warning of the JVM on standard error


@pytest.fixture(scope="module")
def run(jvm):
    """Runs a program without the agent, which it then attaches to itself."""
    vm = SELF + ((DYNAMIC,) if jvm.supports(DYNAMIC) else ())

    def started(program, *arguments, options="", flags=(), **keywords):
        folder = jvm.new_folder(program)
        (folder / "home" / "logs").rmdir()
        options = f"twHome={folder}/home,logLevel=3{options}"
        return jvm.run(program, jvm.agent, options, *arguments, options=None, vm=vm + flags, folder=folder,
                       loads_agent=False, **keywords)

    return started


def locks_of(run, kind, cls):
    report = json.loads((run.folder / "contention.json").read_text())
    entries = [each["entries"] for each in report["locks"]
               if each["kind"] == kind and each["class"] == cls]
    return max(entries), report["omitted"]["startsNotSeen"]


@pytest.mark.parametrize("kind, threads", [("platform", 8), ("virtual", 8), ("virtual", 1000)])
def test_contended_entries_are_counted_exactly(jvm, run, kind, threads):
    flags = ()
    if kind == "virtual":
        jvm.need(VIRTUAL_THREADS)
        if not jvm.has(VIRTUAL_THREADS_LEAVE):  # each holds a carrier
            threads = 8
            flags = (f"-Djdk.virtualThreadScheduler.parallelism={2 * threads}",)
    rounds = 5
    done = run("AttachedLocks", threads, rounds, kind, options=",contention=1", flags=flags)
    assert done.facts["attached"] == "0" and done.facts["detached"] == "null"
    assert done.facts["isAttached"] == "true"
    # Two rounds were before the detail session. Threads that were blocked by the monitor when the
    # agent came have no entry there.
    assert done.report().locks[done.facts["monitor"]]["count"] == threads * rounds
    monitor, not_seen = locks_of(done, "monitor", "AttachedLocks$Monitor")
    assert monitor == threads * (rounds + 2)
    lock, _ = locks_of(done, "lock", "java.util.concurrent.locks.ReentrantLock")
    assert lock == threads * (rounds + 3)
    assert not_seen >= threads
    for name in ("can_generate_exception_events", "can_access_local_variables",
                 "can_get_owned_monitor_stack_depth_info"):
        assert f"{name}: " in done.facts["missing"]
        assert any(name in message for message in done.messages("warn"))


def test_answers(run):
    done = run("AttachAnswers", quiet=False)
    answers = {key: value for key, value in done.facts.items() if key != "detached.why"}
    assert answers == {
        "badOption": "1",
        "commandWithOptions": "1",
        "commandBefore": "5",
        "first": "0",
        "second": "2",
        "command": "0",  # the companion took it, and tells its client of what is wrong with it
        "detached": "null",
        "detachedTwice": "the agent is not set up in this JVM",
        "commandAfter": "5",
        "again": "0",
        "leftover": "",
    }
    assert "not attached: an option cannot be read" in done.err
    assert "Starting Java Native Agent" not in done.out
    assert [each for each in done.messages("Error") if "cannot be read" in each]


def test_nothing_grows_over_rounds(jvm, run):
    allocations = ",allocations=1,allocationsInterval=65536" if jvm.has(SAMPLED_ALLOCATIONS) else ""
    is_exact = jvm.has(USED_REFERENCES_ARE_COUNTED)
    rounds = 10 if is_exact else 40  # of which a fourth comes first
    done = run("AttachRounds", rounds, options=",contention=1" + allocations)
    assert done.fact("records") >= 50
    for each in ("threads", "files"):
        assert done.fact(f"last.{each}") == done.fact(f"first.{each}"), each
    grown = done.fact("last.globals") - done.fact("first.globals")
    assert grown == 0 if is_exact else grown < 15, "much less than one in a round"
    assert done.fact("last.weaks") <= done.fact("first.weaks") + 40  # of the JDK's own classes


def test_the_program_ends_while_it_is_attached(run):
    for at in (0, 3, 10):
        # What is refused because the VM ends may be on standard error.
        run("AttachEnding", at, options=",contention=1,allocations=1", limit=30, quiet=False)


def test_another_copy_of_the_library_is_refused(jvm, run, tmp_path):
    copy = tmp_path / "copy.so"
    copy.write_bytes(open(jvm.agent, "rb").read())
    done = run("AttachCopies", copy, quiet=False)
    assert done.facts == {"first": "0", "copy": "1", "again": "2"}
    assert f"uses another copy of the library, {jvm.agent}" in done.err


def test_jcmd_attaches(jvm):
    jvm.need(JCMD_LOADS_AGENTS)
    folder = jvm.new_folder("jcmd")
    home = str(jvm.java).rsplit("/bin/", 1)[0]
    command = [jvm.java, "-cp", jvm.class_path, "AttachWaiting"]
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, cwd=folder,
                          stderr=subprocess.DEVNULL, text=True) as program:
        try:
            assert program.stdout.readline() == "ready\n"
            load = [f"{home}/bin/jcmd", str(program.pid), "JVMTI.agent_load", str(jvm.agent)]
            for expected in (0, 2):
                told = subprocess.run([*load, f'"twHome={folder}/home"'], capture_output=True,
                                      text=True, timeout=60)
                assert f"return code: {expected}" in told.stdout, told
            program.stdin.write("go\n")
            program.stdin.close()
            assert program.stdout.read() == "attached: true\n"
            assert program.wait(20) == 0
        finally:
            program.kill()
