"""mlp_forward_xpu against a plain reference, over formats, types, sizes, device classes and both readings."""

from __future__ import annotations

import os
import signal
import subprocess
import sys

import numpy as np
import pytest
import torch

tolvane = pytest.importorskip("tolvane")
kelvor_xpu = pytest.importorskip("kelvor_xpu")

import arithmetic  # noqa: E402
from device_names import DEVICE_NAMES  # noqa: E402
from matvec_reference import dot_rows  # noqa: E402
from mlp_cases import Case, activations, cases, run, weights  # noqa: E402
from mlp_reference import gated  # noqa: E402



def sampled_rows(case: Case) -> np.ndarray:
    """All rows of a small output; the ends and some between of a large one."""
    if case.output <= 200:
        return np.arange(case.output)
    chosen = np.random.default_rng(4).choice(case.output, 60, replace=False)
    return np.unique(np.concatenate([[0, 1, case.output - 2, case.output - 1], chosen]))


def ulps(a: np.ndarray, b: np.ndarray, t: arithmetic.Arithmetic) -> np.ndarray:
    """Distance in units of the last place of T; 0 where both are the same infinity or both NaN."""
    same = (a == b) | (np.isnan(a) & np.isnan(b))
    spacing = np.maximum(np.abs(b), 2.0**-14) * 2 * t.unit
    with np.errstate(invalid="ignore"):
        distance = np.abs(a - b) / spacing
    return np.where(same, 0, np.where(np.isfinite(distance), distance, np.inf))


@np.errstate(over="ignore", invalid="ignore")
def check(case: Case, result: np.ndarray, group: int = 32) -> None:
    t = arithmetic.ALL[case.type]
    which = sampled_rows(case)
    x = activations(case).astype(np.float64)
    gate, up = (w.rows(which) for w in weights(case.format, case.state, case.output, case.kind))
    actual = result[which]

    if case.type in ("float16", "bfloat16"):
        # With every multiply and the add behind it contracted the sums are the same to the bit, and what is left is
        # the exponential: a few units of float, which at most moves the final rounding to the neighbour.
        expected = gated(*(dot_rows(x, w, t, group, True) for w in (gate, up)), t).astype(np.float64)
        distance = ulps(actual, expected, t)
        assert distance.max() <= 1.01, case.name
        assert np.mean(distance == 0) > 0.95 or np.sum(distance > 0) <= 2, case.name
    if case.kind in ("ends", "huge scales") and case.format == "fp8_e5m2":
        return  # infinities and NaNs have no error bound; above they were compared as they are

    # Without contraction each product rounds once more. Both ways lie within gamma(n) * sum |x w| of the exact sum, n
    # being the longest chain of roundings, so that they differ by twice that at most; float and double are compared
    # with the exact sum, as they may be summed in any order.
    exact, bound = [], []
    n = 2 * gate.format.order.shape[1] + case.state // gate.format.order.shape[1] // group + 10
    for w in (gate, up):
        scaled = w.decoded() * w.per_element(0)
        exact.append(scaled @ x)
        bound.append(2 * n * t.unit * (np.abs(scaled) @ np.abs(x)))
    if case.type in ("float16", "bfloat16"):
        exact = [dot_rows(x, w, t, group, False).astype(np.float64) for w in (gate, up)]
    (g, u), (dg, du) = exact, bound
    silu = g / (1 + np.exp(-g))
    # |silu'| < 1.1; the last steps add a few roundings of float, or of T where that is coarser.
    tolerance = 1.1 * dg * np.abs(u) + (np.abs(silu) + 1.1 * dg) * du + 8 * max(t.unit, 2.0**-24) * np.abs(silu * u)
    finite = np.isfinite(tolerance) & np.isfinite(actual)
    assert finite.all() or case.kind == "huge scales"
    assert np.all(np.abs(actual - silu * u)[finite] <= tolerance[finite] + 2.0**-24), case.name


@pytest.mark.parametrize("name", DEVICE_NAMES)
def test_every_instance_on_every_device_class(in_process, name):
    results = in_process("mlp_cases.py", KELVOR_XPU_DEVICE_NAME=name)
    for case in cases("small"):
        check(case, results[case.name], group=64 if "Summit" in name else 32)


@pytest.mark.parametrize("case", cases("large"), ids=lambda case: case.name)
def test_sizes_of_real_models(case):
    check(case, run(case))


def test_one_lane_reading_is_the_same_to_the_bit(in_process):
    for environment in ({}, {"KELVOR_XPU_DEVICE_NAME": "Rack GPU Summit"}):
        gangs = in_process("mlp_cases.py", **environment)
        scalar = in_process("mlp_cases.py", one_lane=True, **environment)
        assert gangs.keys() == scalar.keys()
        for name, values in gangs.items():
            if "float16" in name:  # and bfloat16
                np.testing.assert_array_equal(values, scalar[name], err_msg=name)
            else:
                np.testing.assert_allclose(values, scalar[name], rtol=1e-3, err_msg=name)


def test_nothing_is_touched_outside_the_tensors(in_process):
    plain = in_process("mlp_cases.py")
    for name in ("Rack GPU Summit", "other"):
        guarded = in_process("mlp_cases.py", KELVOR_XPU_GUARD_PAGES="1", KELVOR_XPU_DEVICE_NAME=name)
        if name == "other":
            for case, values in plain.items():
                np.testing.assert_array_equal(values, guarded[case], err_msg=case)


def test_guard_pages_catch_a_byte_read_too_far():
    read = """
import ctypes, torch, tolvane
x = torch.ones(9, dtype=torch.uint8, device="xpu")
assert ctypes.string_at(x.data_ptr(), 9) == bytes([1] * 9)
ctypes.string_at(x.data_ptr() + 9, 1)
"""
    environment = {**os.environ, "KELVOR_XPU_GUARD_PAGES": "1", "PYTHONPATH": os.pathsep.join(sys.path)}
    done = subprocess.run([sys.executable, "-c", read], env=environment, capture_output=True)
    assert done.returncode == -signal.SIGSEGV


def small_call(**changed):
    """A valid call of state 64 and output 4, with some arguments replaced."""
    weight = torch.zeros(4 * 34, dtype=torch.uint8, device="xpu")
    arguments = {
        "input": torch.ones(1, 64, device="xpu"),
        "weight_gate": weight,
        "weight_up": weight,
        "batch_size": 1,
        "state_size": 64,
        "output_size": 4,
        "qtype": 2,
    }
    return list({**arguments, **changed}.values())


def bytes_on(device, count):
    return torch.zeros(count, dtype=torch.uint8, device=device)


REFUSED = {
    "batch": ({"batch_size": 2}, r"batch_size == 1"),
    "qtype without a kernel": ({"qtype": 3}, r"qtype must be 2 \(q4_0\) or 19 \(fp8_e5m2\), but got 3"),
    "negative qtype": ({"qtype": -1}, "qtype must be 2"),
    "qtype past the table": ({"qtype": 1000}, "qtype must be 2"),
    "odd output": ({"output_size": 3}, "output_size must be even"),
    "zero output": ({"output_size": 0}, "sizes must be positive"),
    "state below a tile": ({"state_size": 8}, "^8 must be a multiple of 16"),
    "state below a block": ({"state_size": 48}, "multiple of 64"),
    "index range": ({"state_size": 1 << 20, "output_size": 1 << 11}, "must be below 2147483648"),
    "overflowing product": ({"state_size": 1 << 40, "output_size": 1 << 40}, "must be below 2147483648"),
    "short gate": ({"weight_gate": bytes_on("cpu", 135)}, "weight_gate must hold 4 rows of 64 elements, 136 bytes"),
    "short up": ({"weight_up": bytes_on("cpu", 0)}, "weight_up must hold"),
    "matrix of bytes": ({"weight_up": bytes_on("cpu", 136).reshape(4, 34)}, "flat tensor of packed bytes"),
    "weight not of bytes": ({"weight_gate": torch.zeros(200)}, "flat tensor of packed bytes"),
    "input of another size": ({"input": torch.ones(1, 128)}, "input must have 64 elements, but has 128"),
    "input not contiguous": ({"input": torch.ones(1, 128)[:, ::2]}, "input must be contiguous"),
    "integer input": ({"input": torch.ones(1, 64).int()}, "\"mlp_forward_q4_0_xpu_t\" not implemented for 'Int'"),
}


@pytest.mark.parametrize("name", REFUSED)
def test_refuses_and_submits_nothing(name):
    changed, message = REFUSED[name]
    on_xpu = {k: v.to("xpu") if isinstance(v, torch.Tensor) else v for k, v in changed.items()}
    if name == "input not contiguous":
        on_xpu["input"] = torch.ones(1, 128, device="xpu")[:, ::2]
    before = kelvor_xpu.submission_count()
    with pytest.raises(RuntimeError, match=message):
        tolvane.mlp_forward_xpu(*small_call(**on_xpu))
    assert kelvor_xpu.submission_count() == before
    tolvane.mlp_forward_xpu(*small_call())
    assert kelvor_xpu.submission_count() == before + 1


@pytest.mark.parametrize("name", ["input", "weight_gate", "weight_up"])
def test_refuses_tensors_of_another_device(name):
    arguments = dict(zip(("input", "weight_gate", "weight_up"), small_call()))
    before = kelvor_xpu.submission_count()
    with pytest.raises(RuntimeError, match=f"{name} must be a XPU tensor, but is on device cpu"):
        tolvane.mlp_forward_xpu(*small_call(**{name: arguments[name].cpu()}))
    assert kelvor_xpu.submission_count() == before


def test_fp8_label_names_its_launcher():
    weight = bytes_on("xpu", 4 * 68)
    with pytest.raises(RuntimeError, match="\"mlp_forward_fp8_e5m2_xpu_t\" not implemented for 'Long'"):
        x = torch.ones(1, 64, device="xpu").long()
        tolvane.mlp_forward_xpu(*small_call(input=x, weight_gate=weight, weight_up=weight, qtype=19))


def test_launch_shape_form_and_label():
    kelvor_xpu.clear_submissions()
    tolvane.mlp_forward_xpu(*small_call())
    (record,) = kelvor_xpu.submissions()
    assert "mlp_forward_kernel" in record.kernel and "q4_0" in record.kernel
    assert record.global_size[0] == 2 * 32 and record.local_size[0] == 32
    assert record.label == "devq_kernel" and not record.waited


def test_profiler_scope_records_one_input():
    with torch.autograd.profiler.profile(record_shapes=True) as profile:
        tolvane.mlp_forward_xpu(*small_call())
    (event,) = [event for event in profile.function_events if event.name == "mlp_forward"]
    assert event.input_shapes == [[1, 64]]


def test_one_row_allocates_its_output_only():
    arguments = small_call()
    before = kelvor_xpu.memory_allocated()
    out = tolvane.mlp_forward_xpu(*arguments)
    assert kelvor_xpu.memory_allocated() - before == out.numel() * out.element_size()
    del out
    assert kelvor_xpu.memory_allocated() == before
