"""Folders of many runs, as JVMs on many hosts write them: the shape of the recorded runs in
tests/data and of the reports that the tests make, with varied names and numbers.

A run is made from the text of its service, in which the digits of numbers and names that differ from
run to run are bytes of their own: one translation of bytes makes a run, so that thousands are made
as fast as they are written.
"""

import copy
import json
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "tests" / "page"))

import reports  # noqa: E402

SERVICES = 20
RECORDED = ROOT / "tests" / "data" / "contention-run" / "contention-1.json"
# Stands for the number of the run, with four digits.
NUMBER = "\ue00b\ue00c\ue00e\ue00f"


def _varied(number):
    """The number, with digits that differ from run to run."""
    return "@" + str(number).replace("0", "5")


def _encode(document):
    """The text of a document, in which the bytes 1 to 9 stand for digits that are varied, and 14 to
    17 for those of the run's number."""
    text = json.dumps(document, ensure_ascii=False).encode()
    pieces = text.split(b'"@')
    for i, piece in enumerate(pieces[1:], 1):
        digits, rest = piece.split(b'"', 1)
        pieces[i] = bytes(digit - ord("0") for digit in digits) + rest
    text = b"".join(pieces)
    for place, mark in enumerate(NUMBER):
        text = text.replace(mark.encode(), bytes([14 + place]))
    return text + b"\n"


def _stacks(service, count):
    return [{"id": i + 1, "isCut": False, "frames": [
        f"com.example.service{service}.part{(i + depth) % 97}.Step{(i * 7 + depth) % 211}.run"
        f"(Step{(i * 7 + depth) % 211}.java:{20 + (i + depth) % 300})" for depth in range(24)]}
        for i in range(count)]


def _contention(service, scale):
    """A report with as many locks as `scale`, each shaped like one of the recorded report."""
    recorded = json.loads(RECORDED.read_text())
    report = {**recorded, "agent": "javanativeagent 1.0.0", "stuck": [], "deadlocks": [],
              "otherLocks": [], "stacks": _stacks(service, max(4, scale // 2))}
    report["locks"] = []
    for i in range(scale):
        lock = copy.deepcopy(recorded["locks"][i % len(recorded["locks"])])
        name = f"com.example.service{service}.Lock{i}"
        if i % 50 == 7:
            name = f"com.example.service{service}.Once{NUMBER}${i}"
        lock.update(id=i + 1, field=None, identity=f"{i:x}", entries=_varied(12345 + i),
                    blockedNanos=_varied(987654321 + i * 977), maxNanos=_varied(7654321 + i))
        lock["class"] = name
        for number, pair in enumerate(lock["pairs"]):
            pair.update(waiterStack=(i + number) % len(report["stacks"]) + 1,
                        ownerStack=(i * 3 + number) % len(report["stacks"]) + 1,
                        holdingFrame=None, ownerWaitsFor=None,
                        nanos=_varied(87654321 + i + number), samples=_varied(4321))
        report["locks"].append(lock)
    start = report["startedAt"]
    report["windows"] = [
        {"startedAt": start + i * 10_000, "endedAt": start + (i + 1) * 10_000,
         "blockedNanos": _varied(87654321), "entries": _varied(4321), "waitNanos": 0, "waits": 0,
         "locks": [{"id": (i + k) % scale + 1, "blockedNanos": _varied(7654321 + k),
                    "entries": _varied(321)} for k in range(min(32, scale))]}
        for i in range(min(360, max(2, scale // 3)))]
    return report


def _allocations(service, scale):
    session = reports.AllocationSession(points=20)
    stacks = _stacks(service, scale)
    for i in range(scale):
        session.site(f"com.example.service{service}.Data{i % (scale // 2 + 1)}", stacks[i]["frames"],
                     8 + i % 40)
    report = session.report()
    report["agent"] = "javanativeagent 1.0.0"
    for site in report["sites"]:
        site["alive"].update(bytes=_varied(7654321), objects=_varied(54321))
    return report


def _counts(service, scale):
    sites = [reports.counted(f"com.example.service{service}.Failure{i % 31}",
                             f"com.example.service{service}.Part{i}.check", f"Part{i}.java", 20 + i,
                             1) for i in range(scale)]
    for site in sites:
        site.update(thrown=_varied(54321), caught=None, uncaught=None)
    names = ("thrown", "caught", "uncaught", "recorded", "rethrown", "filtered", "blackListed",
             "overRate", "failed", "cut")
    nothing = {name: None if name in ("caught", "uncaught") else 0 for name in names}
    return {"kind": "exceptionCounts", "version": 1, "mode": "made",
            "begin": "2026-11-21T14:00:00.000Z", "end": "2026-11-21T15:00:00.000Z",
            "maxSites": 1000, "total": nothing, "sites": sites, "classes": [], "other": nothing}


def _records(service, count):
    values = [reports.value(f"value{i}", "java.lang.String", "x" * 40) for i in range(8)]
    return [reports.record(f"com.example.service{service}.Failure{i % 31}", [
        reports.frame(f"com.example.service{service}.Part{(i + depth) % 400}.check", "Part.java",
                      20 + depth, locals=values) for depth in range(12)]) for i in range(count)]


class Service:
    """The texts of a service's runs. With `scale` 1000 a run has about 5 MB."""

    def __init__(self, number, scale):
        self.files = {
            "contention-1.json": _encode(_contention(number, scale * 3 // 2)),
            "allocations-1.json": _encode(_allocations(number, scale * 2 // 5 + 1)),
            "exception-counts.json": _encode(_counts(number, scale // 2 + 1)),
            "exceptions.jsonl": b"".join(map(_encode, _records(number, scale // 10))),
        }

    def write(self, folder, run, host):
        """Writes the run with this number."""
        folder.mkdir(parents=True)
        reports.write_run(folder, pid=run + 1, host=host)
        table = bytearray(range(256))
        for i in range(9):
            table[1 + i] = ord("1") + (i + run) % 9
        for i, digit in enumerate(f"{run:04}"):
            table[14 + i] = ord(digit)
        for name, text in self.files.items():
            (folder / name).write_bytes(text.translate(bytes(table)))


def write_runs(folder, runs, scale, hosts=None):
    """As many runs as told, of all services, on as many hosts (one for each run when not told)."""
    services = [Service(number, scale) for number in range(min(SERVICES, runs))]
    for run in range(runs):
        host = run % hosts if hosts else run
        services[run % len(services)].write(folder / f"run-{run:05}", run, f"host-{host:05}")
