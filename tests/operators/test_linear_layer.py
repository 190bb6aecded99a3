"""forward_new and dequant against plain references, over formats, types, routes, device classes and both readings."""

from __future__ import annotations

import numpy as np
import pytest
import torch

tolvane = pytest.importorskip("tolvane")
kelvor_xpu = pytest.importorskip("kelvor_xpu")

import arithmetic  # noqa: E402
from device_names import DEVICE_NAMES  # noqa: E402
from linear_cases import BATCH_LIMIT, Case, activations, cases, forward, tensors, weight  # noqa: E402
from linear_routes import BLOCK_BYTES, CALLS, DENSE, FEW, ONE  # noqa: E402
from matvec_reference import dense, dot_rows  # noqa: E402
from packed import FORMATS, Weight, random_weight  # noqa: E402



def exact_elements(w: Weight) -> tuple[np.ndarray, np.ndarray]:
    """The weight without any rounding, and the sum of the magnitudes that make each element."""
    if not w.format.reads_scale:
        return w.decoded(), np.abs(w.decoded())
    product = w.decoded() * w.per_element(0)
    if w.format.qtype in (3, 7):
        return product + w.per_element(1), np.abs(product) + np.abs(w.per_element(1))
    return product, np.abs(product)


@np.errstate(over="ignore", invalid="ignore")
def check(case: Case, result: np.ndarray, group: int = 32) -> None:
    """Half and bfloat16 to the bit, with every multiply and the add behind it contracted; float and double within the
    error of any order of summation. Without contraction each product rounds once more: both ways lie within
    gamma(n) * sum |x w| of the exact sum, n being the longest chain of roundings."""
    t = arithmetic.ALL[case.type]
    which = np.arange(case.output)
    if case.output > 200:
        which = np.unique(np.concatenate([[0, 1, case.output - 1], np.arange(7, case.output, 97)]))
    w = weight(case.format, case.state, case.output).rows(which)
    elements, magnitudes = exact_elements(w)
    for x, row in zip(activations(case), result[:, which]):
        n = 2 * 16 + case.state // group + 12
        bound = 2 * n * t.unit * (magnitudes @ np.abs(x.astype(np.float64)))
        if case.type in ("float16", "bfloat16"):
            np.testing.assert_array_equal(row, dot_rows(x, w, t, group, by_byte=case.rows > 1), err_msg=case.name)
            separate = dot_rows(x, w, t, group, contract=False, by_byte=case.rows > 1)
            assert np.all(np.abs(row - separate) <= bound), case.name
        else:
            assert np.all(np.abs(row - elements @ x) <= bound), case.name


@pytest.mark.parametrize("name", DEVICE_NAMES)
def test_one_and_few_rows_on_every_device_class(in_process, name):
    results = in_process("linear_cases.py", "one", "few", KELVOR_XPU_DEVICE_NAME=name, QUARN_LLM_SYSARR_DISABLED="1")
    for case in cases("one") + cases("few"):
        if case.format == "q4_0" and case.rows > 1 and "Summit" in name:
            continue  # the dense route there
        check(case, results[case.name], group=64 if "Summit" in name else 32)


@pytest.mark.parametrize("form", FORMATS)
def test_long_rows_and_many(form):
    for case in cases("large"):
        if case.format == form:
            check(case, forward(case))


def test_one_lane_reading_is_the_same_to_the_bit(in_process):
    gangs = in_process("linear_cases.py", "one", "few")
    scalar = in_process("linear_cases.py", "one", "few", one_lane=True)
    for name, values in gangs.items():
        if "float16" in name:  # and bfloat16
            np.testing.assert_array_equal(values, scalar[name], err_msg=name)
        else:
            np.testing.assert_allclose(values, scalar[name], rtol=1e-4, atol=1e-5, err_msg=name)


def test_nothing_is_touched_outside_the_tensors(in_process):
    for name in ("Rack GPU Summit", "other", "IGX"):
        plain = in_process("linear_cases.py", "one", "few", KELVOR_XPU_DEVICE_NAME=name, QUARN_LLM_SYSARR_DISABLED="1")
        guarded = in_process(
            "linear_cases.py", "one", "few",
            KELVOR_XPU_DEVICE_NAME=name, QUARN_LLM_SYSARR_DISABLED="1", KELVOR_XPU_GUARD_PAGES="1",
        )  # fmt: skip
        for case, values in plain.items():
            np.testing.assert_array_equal(values, guarded[case], err_msg=case)


@pytest.mark.parametrize("name", DEVICE_NAMES)
def test_routes_shapes_and_forms(in_process, name):
    device_class = DEVICE_NAMES.index(name)
    results = in_process("linear_routes.py", KELVOR_XPU_DEVICE_NAME=name)
    group, rows = (64 if device_class == 0 else 32), (8 if device_class == 5 else 2)
    for i, (call, routes) in enumerate(CALLS):
        qtype, batch, output, _, environment = call
        route, shapes = str(results[f"route{i}"]), results[f"shapes{i}"]
        assert route == routes[device_class], call
        if route == ONE:
            per_group = 1 if qtype in (6, 7) else rows if qtype == 2 else 2
            assert shapes.tolist() == [[-(-output // per_group), group, 0]], call
        elif route == FEW:
            assert shapes.tolist() == [[-(-output // 2), group, 0]], call
        elif route == DENSE:
            # Rows of 64 elements: a work-item takes 4 or 2 elements of a four-bit format, 2 or 1 of a byte-wide one.
            if qtype in (6, 7, 11):
                size, groups = 256, -(-output * 64 // (4 if qtype == 11 else 2) // 256)
            else:
                size, groups = (32 if qtype in (8, 15, 19) else 16) * (1 if device_class == 0 else 2), output
            waits = qtype != 7 and not (qtype == 2 and device_class == 0)
            assert shapes.tolist() == [[groups, size, int(waits)]], call
        elif route == "tiled":
            step = int(environment.get("TILE_SIZE", 4096))
            assert [s[0] for s in shapes] == [min(step, output - start) for start in range(0, output, step)], call


@pytest.mark.parametrize("dtype", ["float16", "float32", "float64", "bfloat16"])
@pytest.mark.parametrize("form", FORMATS)
def test_expansion_bit_for_bit(form, dtype):
    """dequant where it takes the format; else the dense route, times the identity, which adds nothing but zeros."""
    t = arithmetic.ALL[dtype]
    for state, output in ((64, 1), (64, 9), (576, 5), (1088, 3), (4160, 3)):
        w = random_weight(FORMATS[form], output, state, 7)
        packed = torch.from_numpy(w.bytes).to("xpu")
        like = torch.empty(0, state, dtype=getattr(torch, dtype), device="xpu")
        if FORMATS[form].qtype in (2, 8, 10, 15, 16, 19):
            result = tolvane.dequant(like, packed, FORMATS[form].qtype)
        else:
            identity = torch.eye(state).to(dtype=like.dtype).to("xpu")
            result = tolvane.forward_new(identity, packed, FORMATS[form].qtype, 0).t()
        assert result.shape == (output, state) and result.dtype == like.dtype
        np.testing.assert_array_equal(result.cpu().double().numpy(), dense(w, t).astype(np.float64))


@pytest.mark.parametrize("rows", [21, 64])
@pytest.mark.parametrize("form", FORMATS)
def test_many_rows_multiply_the_dense_weight(form, rows):
    for dtype in ("float32", "float16"):
        case = Case(form, dtype, rows, 576, 33)
        w = weight(form, 576, 33)
        expected = activations(case).astype(np.float64) @ dense(w, arithmetic.ALL[dtype]).astype(np.float64).T
        tolerance = 2e-6 if dtype == "float32" else 2e-3
        np.testing.assert_allclose(forward(case), expected, atol=tolerance * np.abs(expected).max())


def test_tiles_give_what_the_whole_expansion_gives(in_process):
    # The tiled route exists on one class only, so in a process of its own.
    for size in ("40", "1000", "101"):
        results = in_process("tiled_case.py", KELVOR_XPU_DEVICE_NAME="Vela(TM)", TILE_THRESHOLD="100", TILE_SIZE=size)
        # The same elements, which the BLAS may sum in another order for another shape.
        np.testing.assert_allclose(results["tiled"], results["dense"], atol=1e-12)
        assert results["peak"] <= results["allowed"], size


def test_one_row_allocates_its_output_only():
    x, packed, qtype = tensors(Case("q4_0", "float32", 1, 64, 9))
    before = kelvor_xpu.memory_allocated()
    out = tolvane.forward_new(x, packed, qtype, 0)
    assert kelvor_xpu.memory_allocated() - before == out.numel() * 4


def x_of(rows, state, **options):
    return torch.ones(rows, state, device="xpu", **options)


def bytes_of(count):
    return torch.zeros(count, dtype=torch.uint8, device="xpu")


REFUSED = {
    "input elsewhere": (lambda: (x_of(1, 64).cpu(), bytes_of(68)[::2], 2, 0), "^input must be a XPU tensor"),
    "input strided": (lambda: (x_of(64, 2).t(), bytes_of(34), 2, 0), "^input must be contiguous"),
    "weights elsewhere": (lambda: (x_of(1, 64), bytes_of(34).cpu(), 2, 0), "^weights must be a XPU tensor"),
    "weights strided": (lambda: (x_of(1, 64), bytes_of(68)[::2], 2, 0), "^weights must be contiguous"),
    "vector": (lambda: (x_of(1, 64)[0], bytes_of(34), 2, 0), "input must have 2 dimensions"),
    "no format": (lambda: (x_of(1, 64), bytes_of(340), 4, 0), "no function for qtype 4"),
    "activation block": (lambda: (x_of(1, 64), bytes_of(360), 9, 0), "no function for qtype 9"),
    "nameless format": (lambda: (x_of(1, 256), bytes_of(740), 22, 0), "no function for qtype 22"),
    "negative format": (lambda: (x_of(1, 64), bytes_of(340), -2, 0), "no function for qtype -2"),
    "large format": (lambda: (x_of(1, 64), bytes_of(340), 1 << 20, 0), "no function for qtype"),
    "no row": (lambda: (x_of(1, 128), bytes_of(67), 2, 0), "hold no row of 128 elements"),
    "no columns": (lambda: (x_of(1, 0), bytes_of(34), 2, 0), "state_size must be positive"),
    "weight of floats": (lambda: (x_of(1, 64), x_of(1, 64)[0], 2, 0), "flat tensor of packed bytes"),
    "part of a tile": (lambda: (x_of(1, 100), bytes_of(340), 2, 0), "^100 must be a multiple of 16"),
    "part of a byte tile": (lambda: (x_of(1, 100), bytes_of(680), 8, 0), "^100 must be a multiple of 8"),
    "part of a block": (lambda: (x_of(1, 48), bytes_of(340), 2, 0), "positive multiple of 64"),
    "part of a record": (lambda: (x_of(1, 96), bytes_of(440), 6, 0), "positive multiple of 64"),
    "part of a block, dense": (lambda: (x_of(30, 100), bytes_of(680), 16, 0), "^100 must be a multiple of 64"),
    "integers": (lambda: (x_of(1, 64).int(), bytes_of(34), 2, 0), "\"qlinear_forward_xpu\" not implemented for 'Int'"),
}


@pytest.mark.parametrize("name", REFUSED)
def test_refuses_and_submits_nothing(name):
    make, message = REFUSED[name]
    arguments = make()
    before = kelvor_xpu.submission_count()
    with pytest.raises(RuntimeError, match=message):
        tolvane.forward_new(*arguments)
    assert kelvor_xpu.submission_count() == before


def test_dequant_refuses_in_its_own_words():
    for arguments, message in (
        ((x_of(1, 64), bytes_of(34).cpu(), 2), "^weight must be a XPU tensor"),
        ((x_of(1, 64), bytes_of(68)[::2], 2), "^weight must be contiguous"),
        ((x_of(1, 64), bytes_of(360), 3), "qtype must be 2, 8, 10, 15, 16, 19 or 21, but got 3"),
        ((x_of(1, 256), bytes_of(840), 23), "qtype must be .* but got 23"),
        ((x_of(1, 100), bytes_of(340), 2), "^100 must be a multiple of 64"),
    ):
        with pytest.raises(RuntimeError, match=message):
            tolvane.dequant(*arguments)


def test_a_spare_byte_and_no_rows():
    assert tolvane.forward_new(x_of(1, 4096), bytes_of(69632 + 1), 2, 0).shape == (1, 32)
    for qtype in BLOCK_BYTES:
        assert tolvane.forward_new(x_of(0, 64), bytes_of(10 * BLOCK_BYTES[qtype]), qtype, 0).shape == (0, 10)


def test_profiler_scopes():
    with torch.autograd.profiler.profile(record_shapes=True) as profile:
        tolvane.forward_new(x_of(1, 64), bytes_of(34), 2, 0)
        tolvane.dequant(x_of(3, 64), bytes_of(34), 2)
        tolvane.dequantize_rows(torch.zeros(2, 1, dtype=torch.int64, device="xpu"), bytes_of(84), 23, 256)
        with pytest.raises(RuntimeError):
            tolvane.forward_new(x_of(1, 64).cpu(), bytes_of(34), 2, 0)
    events = [e for e in profile.function_events if e.name.startswith("quarn")]
    assert [(e.name, e.input_shapes) for e in events] == [
        ("quarn_qlinear_forward", [[1, 64]]),
        ("quarn_xpu_dequant", [[3, 64]]),
        ("quarn_dequantize_rows", [[2, 1]]),
    ]
