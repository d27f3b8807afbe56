"""Writes what the agent and the companion write, from Python values."""

import json
import re
from hashlib import blake2b


def modified_utf8(text):
    """The text as the VM writes it: a character outside the basic plane as two surrogates."""
    def surrogates(match):
        offset = ord(match[0]) - 0x10000
        return chr(0xD800 + (offset >> 10)) + chr(0xDC00 + (offset & 0x3FF))

    return re.sub("[\U00010000-\U0010ffff]", surrogates, text).encode("utf-8", "surrogatepass")


def write_json(file, *documents):
    file.parent.mkdir(parents=True, exist_ok=True)
    file.write_bytes(b"".join(
        modified_utf8(json.dumps(document, ensure_ascii=False)) + b"\n" for document in documents))


class LockSession:
    """A lock report and its stack file in the making."""

    def __init__(self, name="checkout", session=1):
        self.name = name
        self.session = session
        self.locks = {}
        self.owners = {}
        self.lookups = None
        self.stacks = {}

    def lock(self, name, graph=(), blocked=0, waited=0):
        self.locks[name] = {
            "id": name, "count": 0, "graph": list(graph), "totalBlockTime": blocked,
            "totalWaitTime": waited, "threadbean": {},
        }

    def stack(self, frames):
        """The hash of a stack, whose contended frame comes first."""
        text = ",".join(f"at {frame}()" for frame in frames)
        # The agent's hash is another one, but the viewer only compares them.
        digest = blake2b(modified_utf8(text), digest_size=8).digest()
        value = str(int.from_bytes(digest, "big"))
        self.stacks[value] = text
        return value

    def enter(self, lock, thread, frames, count, blocked=0):
        """The thread came to the lock `count` times with this stack."""
        self.locks[lock]["count"] += count
        bean = self.locks[lock]["threadbean"].setdefault(thread, {
            "name": thread, "count": 0, "totalBlockTime": 0, "totalWaitTime": 0,
            "stacktracebean": {}})
        bean["count"] += count
        bean["totalBlockTime"] += blocked
        add_stack(bean, self.stack(frames), count)

    def own(self, thread, times, periods=0, seconds=0, stacks=()):
        self.owners[thread] = {
            "name": thread, "blockingCount": times, "blockCount": periods,
            "totalBlockingTime": seconds, "stacktracebean": {}}
        for frames, count in stacks:
            add_stack(self.owners[thread], self.stack(frames), count)

    def limit_lookups(self, per_second, made, left_out):
        """The agent made `made` owner lookups and skipped `left_out`."""
        self.lookups = {"perSecond": per_second, "made": made, "leftOut": left_out}

    def write(self, folder):
        report = {
            "sessionname": self.name, "sessionid": self.session, "lockmap": self.locks,
            "stacktracemap": {value: "" for value in self.stacks},
            "blockingThreads": self.owners,
        }
        if self.lookups is not None:
            report["ownerLookups"] = self.lookups
        name = f"locks-{self.session}"
        write_json(folder / f"{name}.json", report)
        (folder / f"{name}.stacks").write_bytes(modified_utf8(
            "".join(f"{value}=[{text}]\n" for value, text in self.stacks.items())))
        return folder


def add_stack(bean, value, count):
    use = bean["stacktracebean"].setdefault(value, {"count": 0, "hashcode": "0"})
    use["count"] += count
    if use["count"] > 1:
        use["hashcode"] = value


def write_memory(folder, classes, session=1):
    """`classes` has for each name its generations as {generation: (objects, bytes)}."""
    report = {"sessionname": "memoryLeak", "sessionid": session, "topNMemoryleakClass": {
        name: {
            "gcsurvived": [
                {"GCCounter": generation, "count": objects, "size": str(size)}
                for generation, (objects, size) in generations.items()],
            "totalCount": sum(objects for objects, _ in generations.values()),
            "totalSize": str(sum(size for _, size in generations.values())),
        } for name, generations in classes.items()}}
    write_json(folder / f"memory-{session}.json", report)


def value(name, kind, text):
    return {"name": name, "type": kind, "value": text}


def frame(method, file=None, line=-1, **values):
    kinds = ("fields", "arguments", "locals", "threadLocals")
    return {"method": method, "file": file, "line": line,
            **{kind: values.get(kind, []) for kind in kinds}}


def record(name, frames, message=None, time="2026-11-21T14:35:15.123Z", thread="main",
           caught=True, ambiguous=()):
    return {"time": time, "thread": thread, "class": name, "message": message, "caught": caught,
            "frames": frames, "ambiguous": list(ambiguous), "raw": "text of the agent"}


def counts(**members):
    """What the agent counted; with nothing lost unless named."""
    failed = {reason: members.pop(reason, 0) for reason in ("stack", "callback", "memory", "vm")}
    names = ("seen", "filtered", "blackListed", "overRate", "delivered", "cut", "rethrown")
    return {**{name: members.pop(name, 0) for name in names}, "failed": failed}


def write_exceptions(folder, records, dropped=0, agent=None):
    end = {"recorded": len(records), "dropped": dropped}
    write_json(folder / "exceptions.jsonl", *records, {**end, **({"agent": agent} if agent else {})})


def counted(name, method, file, line, thrown, caught=0, rethrown=0):
    """What the agent counted of a class at a site."""
    return {"class": name, "method": method, "file": file, "line": line, "thrown": thrown,
            "caught": caught, "uncaught": thrown - caught, "recorded": 0, "rethrown": rethrown,
            "filtered": 0, "blackListed": 0, "overRate": 0, "failed": 0, "cut": 0,
            "first": "2026-11-21T14:35:00.000Z", "last": "2026-11-21T14:40:00.000Z"}


def write_counts(folder, sites, mode="thrown", other=0):
    names = ("thrown", "caught", "uncaught", "recorded", "rethrown", "filtered", "blackListed",
             "overRate", "failed", "cut")

    def total(name):
        known = [site[name] for site in sites]
        return None if None in known else sum(known) + (other if name == "thrown" else 0)

    write_json(folder / "exception-counts.json", {
        "kind": "exceptionCounts", "version": 1, "mode": mode, "begin": "2026-11-21T14:00:00.000Z",
        "end": "2026-11-21T15:00:00.000Z", "maxSites": 1000,
        "total": {name: total(name) for name in names}, "sites": sites, "classes": [],
        "other": {**{name: 0 for name in names}, "thrown": other,
                  **({"caught": None, "uncaught": None} if mode == "made" else {})}})


def write_run(folder, **members):
    run = {"pid": 4711, "started": "2026-11-21T14:35:10", "java": "17.0.15",
           "vm": "OpenJDK 64-Bit Server VM", "command": "com.example.shop.Shop", "options": {}}
    write_json(folder / "run.json", {**run, **members})
