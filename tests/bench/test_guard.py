"""What the guard of the costs of events reports."""

import pytest

from guard import problems

EXPECTED = {"enter": {"instructions": 1000, "allocations": 0.0}}


def test_the_same_is_no_problem():
    assert problems(EXPECTED, EXPECTED) == []


@pytest.mark.parametrize("instructions, allocations", [(1050, 0.0), (10, 0.01)])
def test_little_growth_is_no_problem(instructions, allocations):
    counted = {"enter": {"instructions": instructions, "allocations": allocations}}
    assert problems(EXPECTED, counted) == []


@pytest.mark.parametrize(
    "instructions, allocations, what",
    [(1051, 0.0, "1051 instructions"), (1000, 0.02, "0.02 allocations")],
)
def test_growth_is_a_problem(instructions, allocations, what):
    counted = {"enter": {"instructions": instructions, "allocations": allocations}}
    (problem,) = problems(EXPECTED, counted)
    assert problem.startswith(f"enter: {what}")


def test_benchmarks_on_one_side_only_are_problems():
    counted = {"wait": {"instructions": 1, "allocations": 0.0}}
    assert problems(EXPECTED, counted) == ["enter: did not run", "wait: not in expected.json"]
