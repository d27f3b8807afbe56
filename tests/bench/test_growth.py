"""What the guard of growing costs complains of."""

from growth import ALL, HEAP, REPORTS, complaints

FLAT = {name: (1000.0, 1000.0) for name in ALL}


def test_flat_costs_are_no_complaint():
    assert complaints(FLAT, {name: dict.fromkeys(HEAP, 0.0) for name in REPORTS}) == []


def test_costs_at_the_limit_are_no_complaint():
    found = {name: (1000.0, 1000.0 * most) for name, (_, _, most) in ALL.items()}
    assert complaints(found, {name: HEAP for name in REPORTS}) == []


def test_each_cost_that_grows_is_a_complaint():
    for name, (_, many, most) in ALL.items():
        (complaint,) = complaints({**FLAT, name: (1000.0, 1000.0 * most + 1)}, {})
        assert complaint.startswith(f"{name}: ") and f" with {many}," in complaint


def test_heap_beyond_the_limit_is_a_complaint():
    for what, most in HEAP.items():
        heap = {"reportOfManyLocks": {**HEAP, what: most + 1}}
        (complaint,) = complaints(FLAT, heap)
        assert complaint.startswith(f"reportOfManyLocks: {what} is ")
