"""What is the norms' own, beyond the catalogue: geometry, layouts, special values, the one-pass variance."""

from __future__ import annotations

import numpy as np
import pytest
import kelvor_xpu
import tolvane
import torch
from numpy.testing import assert_allclose, assert_array_equal

import arithmetic
from cases import TYPES, numbers, on_xpu
from norm_cases import OPERATORS, Norm, check_norm, eps_in_kernel


@pytest.mark.parametrize("operator", OPERATORS)
def test_a_row_past_the_limit(operator):
    for type, limit in zip(TYPES, (16384, 8192, 4096, 16384), strict=True):
        before = kelvor_xpu.submission_count()
        refused = Norm(operator, type, 2, limit + 1).run()["out"]
        assert (refused.shape, refused.dtype, str(refused.device)) == ((0,), torch.float, "cpu")
        assert kelvor_xpu.submission_count() == before


def test_geometry_of_rows():
    # Vectors and work-items of rows of halves, with work-groups of up to 1024; no vector divides 4097.
    lengths = (32, 33, 512, 1000, 1024, 2048, 4096, 4104, 16384, 4097, 4098)
    vectors = (1, 1, 1, 1, 1, 2, 4, 8, 8, 1, 2)
    for n, vec, items in zip(lengths, vectors, (32, 64, 512, *[1024] * 8), strict=True):
        kelvor_xpu.clear_submissions()
        Norm("fused_rms_norm", "float16", 2, n).run()
        (record,) = kelvor_xpu.submissions()
        assert "fused_norm_kernel1" in record.kernel and f", {vec}, true>" in record.kernel, n
        assert record.global_size[0] == 2 * items and record.local_size[0] == items, n


@pytest.mark.parametrize("type", TYPES)
@pytest.mark.parametrize("operator", OPERATORS)
def test_strided_and_misaligned_tensors(operator, type):
    n = 2056
    storage = on_xpu(np.random.default_rng(0).standard_normal(4 * n + 40), type)
    weight, bias = storage[1 : n + 1], storage[3 : n + 3]
    for x in (
        storage[1 : 2 * n + 1].view(2, n),
        storage[: 4 * n : 2].view(2, n),
        storage[: 2 * n].view(n, 2).t(),
        storage[:n].expand(3, n),
        storage[: 4 * n].view(2, n, 2).transpose(1, 2),
    ):
        result = getattr(tolvane, operator)(x, (n,), weight, bias, 1e-5)
        assert result.shape == x.shape and result.is_contiguous()
        rows = (numbers(t).reshape(-1, n) for t in (result, x))
        check_norm(*rows, numbers(weight), numbers(bias), "rms" in operator, type)


def test_normalized_shape_gives_the_number_of_sizes_only():
    x = on_xpu(np.random.default_rng(1).standard_normal((2, 3, 5)), "float32")
    x64 = numbers(x)
    for length, axes in ((1, (2,)), (2, (1, 2)), (3, (0, 1, 2))):
        result = numbers(tolvane.fused_rms_norm(x, (7,) * length, None, None, 0.0))
        expected = x64 / np.sqrt(np.square(x64).mean(axes, keepdims=True))
        assert_allclose(result, expected, rtol=1e-6)
    signs = numbers(tolvane.fused_rms_norm(x, (), None, None, 0.0))
    assert_allclose(signs, np.sign(x64), rtol=1e-6)
    assert tolvane.fused_layer_norm(x, (), None, None, 1e-5).abs().max() == 0
    assert tolvane.fused_rms_norm(x[:, :0], (5,), None, None, 1e-5).shape == (2, 0, 5)


@pytest.mark.parametrize("type", TYPES)
@pytest.mark.parametrize("operator", OPERATORS)
def test_rows_of_special_values(operator, type):
    n, call = 160, getattr(tolvane, operator)
    zeros, bias = np.zeros(n), np.arange(n) % 7
    for weight in (None, on_xpu(np.ones(n), type)):
        for b, expected in ((None, zeros), (on_xpu(bias, type), bias)):
            assert_array_equal(numbers(call(on_xpu(zeros, type), (n,), weight, b, 1e-5)), expected)
    bad = np.random.default_rng(2).standard_normal((4, n))
    bad[0, 3], bad[1, 7], bad[2, 9] = np.nan, np.inf, -np.inf
    result = numbers(call(on_xpu(bad, type), (n,), None, None, 1e-5))
    assert np.isnan(result[0]).all() and np.isfinite(result[3]).all()
    if operator == "fused_rms_norm":  # 1 / infinity is 0, and 0 times infinity NaN
        assert np.isnan(result[1, 7]) and np.isnan(result[2, 9])
        assert (np.delete(result[1], 7) == 0).all() and (np.delete(result[2], 9) == 0).all()
    else:
        assert np.isnan(result[1:3]).all()
        # An unscaled row of equal values: its variance is exactly 0 where the sums are exact.
        assert call(on_xpu(zeros + 2, type), (n,), None, None, 1e-5).abs().max() == 0


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
        result = numbers(tolvane.fused_layer_norm(on_xpu([[x] * 3]), (3,), None, None, 1e-5))
        assert_allclose(result[0], [expected] * 3, rtol=1e-6, equal_nan=True, err_msg=str(x))
        negative += variance < 0
    assert negative > 0


@pytest.mark.parametrize("type", TYPES)
def test_eps_goes_through_the_element_type(type):
    t = arithmetic.ALL[type]
    for eps in (1e-6, 1e-8, 1e-3, 0.1234567):
        x = on_xpu(np.full((1, 64), 2.0**-10), type)
        result = numbers(tolvane.fused_rms_norm(x, (64,), None, None, eps))
        exact = 2.0**-10 / np.sqrt(2.0**-20 + eps_in_kernel(eps, t))
        assert_allclose(result, exact, rtol=2 * t.unit + 2.0**-22 * (type != "float64"))
