"""Ratios of measurements, their tables, and the goals they are held against.

The measurements of a workload are its rounds: for each round, a list of measurements for each of the
JVMs compared, one for each turn.
"""

import dataclasses
import math
import statistics

BUCKETS_OF_DOUBLING = 32  # as programs/Histogram.java counts


@dataclasses.dataclass(frozen=True)
class Spread:
    """The middle of several values, and the quarters below and above it."""

    median: float
    low: float
    high: float

    @staticmethod
    def of(values):
        """None without values."""
        if not values:
            return None
        if len(values) == 1:
            return Spread(values[0], values[0], values[0])
        low, median, high = statistics.quantiles(values, n=4, method="inclusive")
        return Spread(median, low, high)

    def __str__(self):
        if not math.isfinite(self.high) or self.median == 0 or self.high == self.low:
            return significant(self.median)
        half = 100 * (self.high - self.low) / 2 / self.median
        return f"{significant(self.median)} ±{half:.0f}%"


def rate(measured):
    return measured["operationsPerSecond"]


def ratio(rounds, above, below, of=rate):
    """The ratio of two JVMs of one turn, over all turns; None when one was not measured."""
    pairs = [
        (of(one), of(other))
        for each in rounds
        for one, other in zip(each.get(above, ()), each.get(below, ()))
    ]
    return Spread.of([one / other if other > 0 else math.inf for one, other in pairs])


def spread(rounds, name, of=rate):
    """A value of one JVM over all turns; None when it was not measured."""
    return Spread.of([of(measured) for each in rounds for measured in each.get(name, ())])


def total(rounds, name, of):
    """The sum of a value of one JVM over all turns."""
    return sum(of(measured) for each in rounds for measured in each.get(name, ()))


def percentile(counts, share):
    """The duration in nanoseconds that this share of those counted do not exceed; None for none."""
    rank = share * sum(counts)
    if rank == 0:
        return None
    below = 0
    for index, count in enumerate(counts):
        if count > 0 and below + count >= rank:
            start, end = _bucket(index), _bucket(index + 1)
            return start + (end - start) * (rank - below) / count
        below += count
    raise AssertionError("a rank beyond all counts")


def _bucket(index):
    """The smallest duration that a bucket counts."""
    doubling, step = divmod(index, BUCKETS_OF_DOUBLING)
    if doubling == 0:
        return step
    return (BUCKETS_OF_DOUBLING + step) << (doubling - 1)


def significant(value):
    """Two decimals, and as many more as a small value needs for two digits."""
    if not math.isfinite(value) or value <= 0:
        return f"{value:.2f}"
    return f"{value:.{max(2, 1 - math.floor(math.log10(value)))}f}"


def cell(value):
    """The text of a table's cell; "-" for what was not measured."""
    if value is None:
        return "-"
    if isinstance(value, float):
        return f"{value:,.0f}" if abs(value) >= 100 else f"{value:.3g}"
    return f"{value:,}" if isinstance(value, int) else str(value)


@dataclasses.dataclass(frozen=True)
class Goal:
    """What is to be reached: a text, the value of a workload's rounds, and a limit for each.

    `value(rounds)` is a Spread or a number, None when it was not measured. `limits` has the names
    of the workloads that the goal is set for.
    """

    text: str
    value: object
    limits: dict
    is_upper_limit: bool = False

    def verdict(self, results):
        """`results` has (label, workload name, rounds); gives one line."""
        reached, missed = [], []
        for label, name, rounds in results:
            value = self.value(rounds) if name in self.limits else None
            if value is None:
                continue
            value = value.median if isinstance(value, Spread) else value
            limit = self.limits[name]
            good = value <= limit if self.is_upper_limit else value >= limit
            (reached if good else missed).append((value, label))
        if missed:
            others = f"reached in {len(reached)}, " if reached else ""
            listed = ", ".join(f"{label} ({value:.3f})" for value, label in missed)
            return f"{self.text}: {others}missed in {listed}"
        if reached:
            worst = max(reached) if self.is_upper_limit else min(reached)
            return f"{self.text}: reached, worst in {worst[1]} ({worst[0]:.3f})"
        return f"{self.text}: not measured"


class TextOutput:
    """Writes to the terminal, and cells below their headings."""

    def text(self, paragraph):
        print(f"\n{paragraph.strip()}")

    def table(self, headings, rows, title=None, left_columns=1):
        """All but the first columns to the right."""
        rows = [[cell(value) for value in row] for row in rows]
        widths = [max(map(len, column)) for column in zip(headings, *rows)]
        print(f"\n{title}" if title else "")
        for row in (headings, *rows):
            cells = [
                text.ljust(width) if i < left_columns else text.rjust(width)
                for i, (text, width) in enumerate(zip(row, widths))
            ]
            print("  ".join(cells).rstrip())

    def goals(self, goals, results):
        print("\nGoals")
        for goal in goals:
            print(f"  {goal.verdict(results)}")


class MarkdownOutput:
    """Writes the same to a file, as Markdown."""

    def __init__(self, file):
        self._file = file

    def _write(self, *lines):
        self._file.write("\n".join(lines) + "\n\n")

    def text(self, paragraph):
        self._write(paragraph.strip())

    def table(self, headings, rows, title=None, left_columns=1):
        if title:
            self._write(f"**{title}**")
        rules = ["---" if i < left_columns else "---:" for i in range(len(headings))]
        rows = [[cell(value) for value in row] for row in rows]
        self._write(*(f"| {' | '.join(row)} |" for row in (headings, rules, *rows)))

    def goals(self, goals, results):
        self._write(*(f"- {goal.verdict(results)}" for goal in goals))
