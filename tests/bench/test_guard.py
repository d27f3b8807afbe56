"""What the guard of the costs of events complains of."""

import pytest

from guard import complaints

EXPECTED = {"enter": {"instructions": 1000, "allocations": 0.0}}


def test_the_same_is_no_complaint():
    assert complaints(EXPECTED, EXPECTED) == []


@pytest.mark.parametrize("instructions, allocations", [(1050, 0.0), (10, 0.01)])
def test_little_growth_is_no_complaint(instructions, allocations):
    counted = {"enter": {"instructions": instructions, "allocations": allocations}}
    assert complaints(EXPECTED, counted) == []


@pytest.mark.parametrize(
    "instructions, allocations, what",
    [(1051, 0.0, "1051 instructions"), (1000, 0.02, "0.02 allocations")],
)
def test_growth_is_a_complaint(instructions, allocations, what):
    counted = {"enter": {"instructions": instructions, "allocations": allocations}}
    (complaint,) = complaints(EXPECTED, counted)
    assert complaint.startswith(f"enter: {what}")


def test_benchmarks_on_one_side_only_are_complaints():
    counted = {"wait": {"instructions": 1, "allocations": 0.0}}
    assert complaints(EXPECTED, counted) == ["enter: did not run", "wait: not in expected.json"]
