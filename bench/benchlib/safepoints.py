"""The safepoints of a JVM, read from its own log."""

import dataclasses
import re

_LINE = re.compile(r'\[(\d+)ns\] Safepoint "([^"]+)".* Total:\s+(\d+) ns')


@dataclasses.dataclass(frozen=True)
class Safepoint:
    end: int  # by System.nanoTime
    nanos: int  # from the request to the end
    cause: str


def option(path):
    """The option that makes a JVM write such a log."""
    return f"-Xlog:safepoint:file={path}:timenanos:filecount=0"


class SafepointLog:
    """Gives the safepoints of a log that grows, each asked for once and in the order of time."""

    def __init__(self, path):
        self._path = path
        self._offset = 0
        self._kept = []

    def between(self, start, end):
        """The safepoints that ended between two times; what lay before them is forgotten.

        A time that reaches back before `start` is cut there: the JVM may have been stopped.
        """
        self._read()
        found = [
            dataclasses.replace(each, nanos=min(each.nanos, each.end - start))
            for each in self._kept
            if start <= each.end <= end
        ]
        self._kept = [each for each in self._kept if each.end > end]
        return found

    def _read(self):
        with open(self._path, "rb") as file:
            file.seek(self._offset)
            whole_lines = file.read().rpartition(b"\n")[0]
        self._offset += len(whole_lines) + 1 if whole_lines else 0
        for line in whole_lines.decode(errors="replace").splitlines():
            match = _LINE.match(line)
            if match:
                self._kept.append(Safepoint(int(match[1]), int(match[3]), match[2]))
