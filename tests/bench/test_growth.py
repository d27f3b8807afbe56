"""What the guard of growing costs reports."""

from growth import ALL, HEAP, REPORTS, problems

FLAT = {name: (1000.0, 1000.0) for name in ALL}


def test_flat_costs_are_no_problem():
    assert problems(FLAT, {name: dict.fromkeys(HEAP, 0.0) for name in REPORTS}) == []


def test_costs_at_the_limit_are_no_problem():
    found = {name: (1000.0, 1000.0 * most) for name, (_, _, most) in ALL.items()}
    assert problems(found, {name: HEAP for name in REPORTS}) == []


def test_each_cost_that_grows_is_a_problem():
    for name, (_, many, most) in ALL.items():
        (problem,) = problems({**FLAT, name: (1000.0, 1000.0 * most + 1)}, {})
        assert problem.startswith(f"{name}: ") and f" with {many}," in problem


def test_heap_beyond_the_limit_is_a_problem():
    for what, most in HEAP.items():
        heap = {"reportOfManyLocks": {**HEAP, what: most + 1}}
        (problem,) = problems(FLAT, heap)
        assert problem.startswith(f"reportOfManyLocks: {what} is ")
