"""fused_rms_norm and fused_layer_norm against their definitions in double, over types, sizes, layouts and devices."""

from __future__ import annotations

import numpy as np
import pytest
import torch

tolvane = pytest.importorskip("tolvane")
kelvor_xpu = pytest.importorskip("kelvor_xpu")

import arithmetic  # noqa: E402
from device_names import DEVICE_NAMES  # noqa: E402
from norm_cases import TYPES, Case, cases, run  # noqa: E402
from norm_reference import eps_in_kernel, norm  # noqa: E402

ITEM_ELEMENTS = {"float16": 16, "bfloat16": 16, "float32": 8, "float64": 4}
OPERATORS = ("fused_rms_norm", "fused_layer_norm")


def numbers(tensor: torch.Tensor | None) -> np.ndarray | None:
    return None if tensor is None else tensor.cpu().double().numpy()


def check(case: Case, result: np.ndarray, eps: float = 1e-5) -> None:
    x, weight, bias = map(numbers, case.tensors())
    expected = norm(x, weight, bias, eps, case.rms, arithmetic.ALL[case.type])
    distance = np.abs(result - expected.value)
    assert np.all(distance <= expected.bound), (case.name, np.max(distance - expected.bound))


def xpu(values, dtype: str = "float32") -> torch.Tensor:
    return torch.as_tensor(np.asarray(values, np.float64)).to(getattr(torch, dtype)).to("xpu")


@pytest.mark.parametrize("type", TYPES)
def test_all_lengths_to_the_limit_and_one_past_it(type):
    limit = 1024 * ITEM_ELEMENTS[type]
    sizes = (*range(1, 40), 64, 255, 1024, 1026, 2047, 2048, 2050, 4096, limit - 2, limit - 1, limit)
    for case in cases(tuple(n for n in sizes if n <= limit), rows=(3,)):
        if case.type == type:
            check(case, numbers(run(case)))
    for operator in OPERATORS:
        before = kelvor_xpu.submission_count()
        refused = run(Case(operator, type, 2, limit + 1, False, False))
        assert refused.shape == (0,) and refused.dtype == torch.float32 and refused.device.type == "cpu"
        assert kelvor_xpu.submission_count() == before


@pytest.mark.parametrize("operator", OPERATORS)
def test_rows_from_none_to_many(operator):
    for weight, bias in ((False, False), (True, False), (False, True), (True, True)):
        for rows in (0, 1, 1000):
            case = Case(operator, "float16", rows, 96, weight, bias)
            result = run(case)
            assert result.shape == (rows, 96) and result.device.type == "xpu"
            if rows:
                check(case, numbers(result))


@pytest.mark.parametrize("largest", [256, 1000, 64])
def test_other_work_group_sizes(in_process, largest):
    results = in_process("norm_cases.py", KELVOR_XPU_MAX_WORK_GROUP_SIZE=str(largest))
    for case in cases():
        if case.n <= largest * ITEM_ELEMENTS[case.type]:
            check(case, results[case.name])
        else:
            assert results[case.name].size == 0, case.name


def test_one_lane_reading_guard_pages_and_device_classes_give_the_same(in_process):
    plain = in_process("norm_cases.py")
    scalar = in_process("norm_cases.py", one_lane=True)
    others = [
        in_process("norm_cases.py", KELVOR_XPU_GUARD_PAGES="1"),
        *(in_process("norm_cases.py", KELVOR_XPU_DEVICE_NAME=name) for name in DEVICE_NAMES),
    ]
    for name, values in plain.items():
        for other in (scalar, *others):
            np.testing.assert_array_equal(values, other[name], err_msg=name)


def test_geometry_of_rows():
    # length: (vector width, work-items) with work-groups of up to 1024
    halves = {
        32: (1, 32),
        33: (1, 64),
        512: (1, 512),
        1000: (1, 1024),
        1024: (1, 1024),
        2048: (2, 1024),
        4096: (4, 1024),
        4104: (8, 1024),
        16384: (8, 1024),
        4097: (1, 1024),  # no vector divides it
        4098: (2, 1024),
    }
    for n, (vec, items) in halves.items():
        kelvor_xpu.clear_submissions()
        run(Case("fused_rms_norm", "float16", 2, n, False, False))
        (record,) = kelvor_xpu.submissions()
        assert "fused_norm_kernel1" in record.kernel and f", {vec}, true>" in record.kernel, n
        assert record.global_size[0] == 2 * items and record.local_size[0] == items, n
        assert record.label == "devq_kernel" and not record.waited


@pytest.mark.parametrize("type", TYPES)
def test_strided_and_misaligned_tensors(type):
    random = np.random.default_rng(0)
    n = 2056
    storage = xpu(random.standard_normal(4 * n + 40), type)
    weight, bias = storage[1 : n + 1], storage[3 : n + 3]
    inputs = {
        "off by one element": storage[1 : 2 * n + 1].view(2, n),
        "every second": storage[: 4 * n : 2].view(2, n),
        "transposed": storage[: 2 * n].view(n, 2).t(),
        "broadcast": storage[:n].expand(3, n),
        "three dimensions": storage[: 4 * n].view(2, n, 2).transpose(1, 2),
    }
    for operator in OPERATORS:
        for name, x in inputs.items():
            result = getattr(tolvane, operator)(x, (n,), weight, bias, 1e-5)
            expected = norm(
                numbers(x).reshape(-1, n), numbers(weight), numbers(bias), 1e-5, "rms" in operator, arithmetic.ALL[type]
            )
            assert result.shape == x.shape and result.is_contiguous(), name
            assert np.all(np.abs(numbers(result).reshape(-1, n) - expected.value) <= expected.bound), (operator, name)


def test_normalized_shape_gives_the_number_of_sizes_only():
    x = xpu(np.random.default_rng(1).standard_normal((2, 3, 5)))
    x64 = numbers(x)
    for length, axes in ((1, (2,)), (2, (1, 2)), (3, (0, 1, 2))):
        result = numbers(tolvane.fused_rms_norm(x, (7,) * length, None, None, 0.0))
        np.testing.assert_allclose(result, x64 / np.sqrt(np.square(x64).mean(axes, keepdims=True)), rtol=1e-6)
    np.testing.assert_allclose(numbers(tolvane.fused_rms_norm(x, (), None, None, 0.0)), np.sign(x64), rtol=1e-6)
    assert tolvane.fused_layer_norm(x, (), None, None, 1e-5).abs().max() == 0
    assert tolvane.fused_rms_norm(x[:, :0], (5,), None, None, 1e-5).shape == (2, 0, 5)


@pytest.mark.parametrize("type", TYPES)
def test_rows_of_special_values(type):
    n = 160
    bias = np.arange(n) % 7
    ones, zeros = np.ones(n), np.zeros(n)
    for operator in OPERATORS:
        call = getattr(tolvane, operator)
        for weight in (None, xpu(ones, type)):
            np.testing.assert_array_equal(numbers(call(xpu(zeros, type), (n,), weight, None, 1e-5)), zeros)
            np.testing.assert_array_equal(numbers(call(xpu(zeros, type), (n,), weight, xpu(bias, type), 1e-5)), bias)
        bad = np.random.default_rng(2).standard_normal((4, n))
        bad[0, 3], bad[1, 7], bad[2, 9] = np.nan, np.inf, -np.inf
        result = numbers(call(xpu(bad, type), (n,), None, None, 1e-5))
        assert np.isnan(result[0]).all() and np.isfinite(result[3]).all()
        if operator == "fused_layer_norm":
            assert np.isnan(result[1:3]).all()
        else:  # 1 / infinity is 0, and 0 times infinity NaN
            assert np.isnan(result[1, 7]) and np.isnan(result[2, 9])
            assert (np.delete(result[1], 7) == 0).all() and (np.delete(result[2], 9) == 0).all()
        # An unscaled row of equal values: its variance is exactly 0 where the sums are exact.
    np.testing.assert_array_equal(numbers(tolvane.fused_layer_norm(xpu(ones * 2, type), (n,), None, None, 1e-5)), zeros)


@np.errstate(all="ignore")
def test_variance_is_one_pass_and_a_negative_one_drops_eps():
    """Three equal values in float, one per work-item: every operation's result is known, and some variances are
    negative."""
    three, eps, negative = np.float32(3), np.float32(1e-5), 0
    for x in (1 + np.arange(1, 200) * 2.0**-12).astype(np.float32):
        total, squares = (x + x) + x, (x * x + x * x) + x * x
        mean, variance = total / three, (squares - total * total / three) / three
        root = np.sqrt(np.float32(0) if variance < 0 else variance + eps)
        expected = (x - mean) * (np.float32(1) / root)
        result = numbers(tolvane.fused_layer_norm(xpu([[x] * 3]), (3,), None, None, 1e-5))
        np.testing.assert_allclose(result[0], [expected] * 3, rtol=1e-6, equal_nan=True, err_msg=str(x))
        negative += variance < 0
    assert negative > 0


@pytest.mark.parametrize("type", TYPES)
def test_eps_goes_through_the_element_type(type):
    t = arithmetic.ALL[type]
    for eps in (1e-6, 1e-8, 1e-3, 0.1234567):
        result = numbers(tolvane.fused_rms_norm(xpu(np.full((1, 64), 2.0**-10), type), (64,), None, None, eps))
        exact = 2.0**-10 / np.sqrt(2.0**-20 + eps_in_kernel(eps, t))
        np.testing.assert_allclose(result, exact, rtol=2 * t.unit + 2.0**-22 * (type != "float64"))


REFUSED = {
    "integers": ({"input": torch.ones(2, 8).int()}, "\"LayerNormKernelImpl\" not implemented for 'Int'"),
    "weight of another type": ({"weight": torch.ones(8).half()}, "expected scalar type Float but found Half"),
    "bias of another type": ({"bias": torch.ones(8).double()}, "expected scalar type Float but found Double"),
    "short weight": ({"weight": torch.ones(7)}, "weight must have 8 elements, but has 7"),
    "long bias": ({"bias": torch.ones(9)}, "bias must have 8 elements, but has 9"),
    "normalized_shape": ({"shape": (1, 1, 1)}, "normalized_shape may have 2 sizes, as the input has, but has 3"),
}


@pytest.mark.parametrize("operator", OPERATORS)
def test_refuses_and_submits_nothing(operator):
    before, live = kelvor_xpu.submission_count(), kelvor_xpu.memory_allocated()
    for changed, message in REFUSED.values():
        arguments = {"input": torch.ones(2, 8), "shape": (8,), "weight": None, "bias": None, "eps": 1e-5, **changed}
        on_xpu = [v.to("xpu") if isinstance(v, torch.Tensor) else v for v in arguments.values()]
        with pytest.raises(RuntimeError, match=message):
            getattr(tolvane, operator)(*on_xpu)
    with pytest.raises(RuntimeError, match="must be a XPU tensor, but is on device cpu"):
        getattr(tolvane, operator)(torch.ones(2, 8), (8,), None, None, 1e-5)
    with pytest.raises(RuntimeError, match="weight must be on xpu:0, as the input is, but is on cpu"):
        getattr(tolvane, operator)(torch.ones(2, 8, device="xpu"), (8,), torch.ones(8), None, 1e-5)
    del on_xpu
    assert kelvor_xpu.submission_count() == before and kelvor_xpu.memory_allocated() == live


@pytest.mark.parametrize("operator", OPERATORS)
def test_profiler_scope(operator):
    label = {"fused_layer_norm": "fast_layer_norm"}.get(operator, operator)
    with torch.autograd.profiler.profile(record_shapes=True) as profile:
        run(Case(operator, "float32", 3, 8, False, False))
    (event,) = [event for event in profile.function_events if event.name == label]
    assert event.input_shapes == [[3, 8]]


def test_only_the_output_stays_allocated():
    x = torch.ones(4, 64, device="xpu").half()
    weight = torch.ones(64, device="xpu").half()
    before = kelvor_xpu.memory_allocated()
    out = tolvane.fused_rms_norm(x.t().contiguous().t(), (64,), weight, weight, 1e-5)
    assert kelvor_xpu.memory_allocated() - before == out.numel() * out.element_size()
    assert (x == 1).all() and (weight == 1).all()
