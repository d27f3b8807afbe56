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


START = 1_795_348_800_000  # 2026-11-22 12:00:00 UTC


def amount(samples, size=524_288, chance=0.1):
    """What so many samples stand for, one for every `size` bytes, of objects that are drawn so
    seldom."""
    return {"samples": samples, "bytes": samples * size, "objects": round(samples / chance)}


def allocated(samples, size=524_288):
    return {"samples": samples, "bytes": samples * size}


def spread(samples, parts=range(8), size=524_288):
    """Bytes by the eighth in which they were allocated: as many samples as there are, one after the
    other to each of the parts."""
    born = [0] * 8
    for number in range(samples):
        born[list(parts)[number * len(parts) // samples]] += size
    return born


class AllocationSession:
    """An allocation report in the making, with histograms and paths if there are any."""

    def __init__(self, minutes=8, points=8, **members):
        self.millis = minutes * 60_000
        self.points = points
        self.members = members
        self.sites = []
        self.stacks = []
        self.growth = None
        self.paths = None

    def site(self, name, frames, alive, born=None, course=None, made=None, **members):
        """`alive` samples of a class with this stack, whose innermost frame comes first."""
        number = len(self.sites) + 1
        stack = None
        if frames is not None:
            stack = len(self.stacks) + 1
            self.stacks.append({"id": stack, "frames": list(frames), "isCut": False})
        born = spread(alive) if born is None else born
        if course is None:
            course = [sum(born[:part + 1]) for part in range(8)][:self.points]
        self.sites.append({
            "id": number, "class": name, "stack": stack,
            "allocated": allocated(made or alive * 3), "alive": amount(alive), "young": amount(0),
            "afterHooks": None, "ages": [alive], "seconds": [0, alive], "born": born,
            "courseFrom": 0, "course": course, "threads": [{"name": "worker-1", "samples": alive}],
            **members})
        return self

    def histograms(self, classes, points=5, **members):
        """`classes` has for each name its bytes in each histogram."""
        self.growth = {
            "report": "growth", "version": 1, "writtenAt": START + self.millis,
            "intervalMillis": 60_000, "askedMillis": 60_000, "maxHeap": 2**30, "problem": None,
            "points": [{"at": START + point * 60_000, "liveBytes": 2**20 * (10 + point),
                        "liveObjects": 1000, "tookMillis": 12} for point in range(points)],
            "heap": {"bytesPerMinute": 2**20, "fit": 0.98, "fullAt": None},
            "classes": [{"class": name, "bytes": sizes, "objects": [size // 16 for size in sizes],
                         "bytesPerMinute": None, "fit": None} for name, sizes in classes.items()],
            "otherClasses": 0, **members}
        return self

    def path(self, name, chain, root, stack=(), **members):
        """`chain` has pairs of class and field, or class and index; `root` kind and text."""
        if self.paths is None:
            self.paths = {
                "report": "paths", "version": 1, "writtenAt": START + self.millis,
                "source": "jdk.OldObjectSample", "problem": None, "tookMillis": 40, "samples": 250,
                "withRoot": 200, "own": 0, "paths": [], "otherPaths": 0}
        links = [{"class": holder, "field": at if isinstance(at, str) else None,
                  "index": at if isinstance(at, int) else None, "skipped": 0}
                 for holder, at in chain]
        self.paths["paths"].append({
            "class": name, "samples": 3, "bytes": 4096, "chain": links,
            "root": {"kind": root[0], "text": root[1], "thread": None}, "stack": list(stack),
            "allocatedAt": START, **members})
        return self

    def report(self):
        def total(member):
            names = ("samples", "bytes", "objects")[:2 if member == "allocated" else 3]
            return {name: sum(site[member][name] for site in self.sites) for name in names}

        return {
            "report": "allocations", "version": 1, "startedAt": START,
            "writtenAt": START + self.millis, "endedAt": START + self.millis, "shutdownAt": None,
            "settings": {"intervalBytes": 524_288, "liveSamples": 50_000},
            "intervalBytes": 524_288, "collections": 40, "afterCollection": True,
            "allocated": total("allocated"), "alive": total("alive"), "young": total("young"),
            "afterHooks": None,
            "points": [{"at": START + (point + 1) * self.millis // self.points,
                        "collections": 5 * (point + 1),
                        "alive": sum(site["course"][point] for site in self.sites
                                     if point < len(site["course"]))}
                       for point in range(self.points)],
            "sites": self.sites,
            "otherSites": {"sites": 0, "allocated": allocated(0), "alive": amount(0),
                           "young": amount(0)},
            "stacks": self.stacks,
            "cost": {"processorNanos": 9_000_000, "handlerNanos": 4_000_000, "samples": 1200},
            "omitted": {"lost": 0, "lostBytes": 0, "failed": 0, "sites": 0, "stacks": 0,
                        "classes": 0, "names": 0, "thinned": 0}, **self.members}

    def write(self, folder, session=1):
        write_json(folder / f"allocations-{session}.json", self.report())
        if self.growth is not None:
            write_json(folder / f"allocations-{session}.growth", self.growth)
        if self.paths is not None:
            write_json(folder / f"allocations-{session}.paths", self.paths)
        return folder


def shop_allocations(**members):
    """A shop that leaks sessions, among others that do not grow."""
    login = ["com.example.shop.Shop.login(Shop.java:31)", "com.example.shop.Shop.run(Shop.java:12)"]
    put = ["java.util.HashMap.newNode(HashMap.java:1901)", "java.util.HashMap.put(HashMap.java:610)",
           *login]
    session = AllocationSession(**members)
    session.site("com.example.shop.Session", login, 64)
    session.site("java.util.HashMap$Node", put, 9)
    session.site("byte[]", ["com.example.shop.Prices.load(Prices.java:9)"], 120,
                 born=spread(120, [0]))
    session.site("com.example.shop.Page", ["com.example.shop.Pages.get(Pages.java:20)"], 60,
                 born=spread(60, [6, 7]), course=[60 * 524_288] * 8)
    session.site("com.example.shop.Listener",
                 ["com.example.shop.Bus.add(Bus.java:5)"], 3, born=spread(3, [1, 4, 6]))
    session.histograms({
        "com.example.shop.Session": [2**20 * (5 + 4 * point) for point in range(5)],
        "byte[]": [2**26] * 5})
    session.path("com.example.shop.Session",
                 [("java.util.HashMap$Node", "value"), ("java.util.HashMap$Node[]", 12),
                  ("java.util.HashMap", "table")],
                 ("static field", "com.example.shop.Shop.sessions"), login)
    return session
