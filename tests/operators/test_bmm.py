"""bmm against numpy in double, at sizes where a gang of work-items fits into a row and where it does not."""

from __future__ import annotations

import sys

import numpy as np
import pytest
import torch

tolvane = pytest.importorskip("tolvane")
kelvor_xpu = pytest.importorskip("kelvor_xpu")

# batch, M, N, P
SHAPES = [
    *((1, 1, 1, 1), (2, 3, 5, 1), (3, 1, 7, 33), (2, 4, 3, 32), (2, 5, 64, 31), (1, 2, 300, 100), (4, 64, 32, 64)),
    *((2, 3, 0, 4), (0, 3, 4, 5), (2, 0, 4, 5), (2, 3, 4, 0)),
]


def factors(batch: int, m: int, n: int, p: int) -> tuple[np.ndarray, np.ndarray]:
    random = np.random.default_rng(m + n)
    return tuple(random.standard_normal(s).astype(np.float32) for s in ((batch, m, n), (batch, n, p)))


def products() -> dict[str, np.ndarray]:
    results = {}
    for batch, m, n, p in SHAPES:
        a, b = (torch.from_numpy(x).to("xpu") for x in factors(batch, m, n, p))
        c = torch.full((batch, m, p), torch.nan, device="xpu")
        out = tolvane.bmm(a, b, c)
        assert out.data_ptr() == c.data_ptr() and out.shape == c.shape
        results[f"{batch} {m} {n} {p}"] = c.cpu().numpy()
    return results


def check(results: dict[str, np.ndarray]) -> None:
    for shape in SHAPES:
        a, b = (x.astype(np.float64) for x in factors(*shape))
        bound = shape[2] * 2.0**-23 * (np.abs(a) @ np.abs(b)) + 1e-30
        assert np.all(np.abs(results[" ".join(map(str, shape))] - a @ b) <= bound), shape


def test_against_double():
    check(products())


@pytest.mark.parametrize("one_lane", [False, True])
def test_readings_and_guard_pages(in_process, one_lane):
    results = in_process("test_bmm.py", one_lane=one_lane, KELVOR_XPU_GUARD_PAGES="1")
    check(results)
    for name, values in products().items():
        np.testing.assert_array_equal(values, results[name], err_msg=name)


def zeros(*shape, **options):
    return torch.zeros(shape, **{"device": "xpu", **options})


GOOD = (zeros(2, 3, 4), zeros(2, 4, 5), zeros(2, 3, 5))
REFUSED = {
    "device of A": (0, zeros(2, 3, 4, device="cpu"), "A must be a XPU tensor"),
    "strides of B": (1, zeros(2, 5, 4).transpose(1, 2), "B must be contiguous"),
    "strides of C": (2, zeros(2, 5, 3).transpose(1, 2), "C must be contiguous"),
    "dimensions": (0, zeros(3, 4), "Input tensors must have 3 dimensions"),
    "batch": (1, zeros(1, 4, 5), "dimensions do not match for batch multiplication"),
    "inner size": (1, zeros(2, 3, 5), "dimensions do not match for batch multiplication"),
    "type of A": (0, zeros(2, 3, 4, dtype=torch.half), "expected scalar type Float but found Half"),
    "type of C": (2, zeros(2, 3, 5, dtype=torch.double), "expected scalar type Float but found Double"),
    "size of C": (2, zeros(2, 3, 4), r"C must have at least 2 \* 3 \* 5 elements, but has 24"),
}


@pytest.mark.parametrize("name", REFUSED)
def test_refuses_and_submits_nothing(name):
    place, tensor, message = REFUSED[name]
    arguments = [*GOOD[:place], tensor, *GOOD[place + 1 :]]
    count = kelvor_xpu.submission_count()
    with pytest.raises(RuntimeError, match=message):
        tolvane.bmm(*arguments)
    assert kelvor_xpu.submission_count() == count


def test_submission_is_not_labelled_and_scope_is():
    kelvor_xpu.clear_submissions()
    with torch.autograd.profiler.profile(record_shapes=True) as profile:
        tolvane.bmm(*GOOD)
    (record,) = kelvor_xpu.submissions()
    assert tuple(record.global_size) == (2, 3, 5) and record.label == "" and not record.waited
    (event,) = [event for event in profile.function_events if event.name == "quarn_bmm"]
    assert event.input_shapes == [[2, 3, 4]]


if __name__ == "__main__":
    np.savez(sys.argv[1], **products())
