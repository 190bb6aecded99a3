"""The device's own matrix products in half and bfloat16 against sums in double precision."""

from __future__ import annotations

import pytest
import torch
from torch.nn.functional import linear

import kelvor_xpu  # noqa: F401

RESOLUTION = {torch.half: 2.0**-11, torch.bfloat16: 2.0**-8}
"""Rows around the kernels' tiles, sizes around their vectors and blocks: (rows, depth, columns)."""
SHAPES = [
    *((rows, 40, 13) for rows in (1, 2, 3, 4, 5, 16, 17, 19, 64)),
    *((rows, depth, 25) for rows in (1, 6) for depth in (1, 7, 8, 255, 256, 263, 515)),
    *((rows, 96, columns) for rows in (2, 33) for columns in (1, 3, 11, 12, 24, 500)),
    (256, 64, 30),
    (257, 64, 30),  # left to the CPU
]


def assert_accurate(actual: torch.Tensor, exact: torch.Tensor, magnitude: torch.Tensor, dtype: torch.dtype) -> None:
    """Half a unit in the last place for the one rounding, and the sums' own error in float."""
    assert actual.dtype == dtype and actual.device.type == "xpu" and actual.shape == exact.shape
    tiny = 2.0**-25 if dtype is torch.half else 0.0
    bound = exact.abs() * RESOLUTION[dtype] * 1.01 + magnitude * 2.0**-19 + tiny
    assert ((actual.cpu().double() - exact).abs() <= bound).all()


@pytest.mark.parametrize("dtype", [torch.half, torch.bfloat16], ids=str)
@pytest.mark.parametrize("shape", SHAPES, ids=str)
def test_products_are_exact_sums_rounded_once(shape: tuple[int, int, int], dtype: torch.dtype) -> None:
    rows, depth, columns = shape
    torch.manual_seed(rows + depth + columns)
    x = torch.randn(rows, depth).to(dtype)
    weight = torch.randn(columns, depth).to(dtype)
    bias = torch.randn(columns).to(dtype)
    exact = x.double() @ weight.double().t()
    magnitude = x.double().abs() @ weight.double().abs().t() + bias.double().abs()
    there = x.to("xpu"), weight.to("xpu"), bias.to("xpu")

    assert_accurate(linear(*there[:2]), exact, magnitude, dtype)
    assert_accurate(linear(*there), exact + bias.double(), magnitude, dtype)
    scaled = torch.addmm(there[2], there[0], there[1].t(), beta=0.5, alpha=-2.0)
    assert_accurate(scaled, -2 * exact + 0.5 * bias.double(), 2 * magnitude, dtype)
    batches = torch.stack([there[0], there[0]])
    assert_accurate(linear(batches, *there[1:])[1], exact + bias.double(), magnitude, dtype)
    # The transposed layouts that gradients need.
    assert_accurate(there[0] @ there[1].t().contiguous(), exact, magnitude, dtype)
    assert_accurate(there[0].t().contiguous().t() @ there[1].t(), exact, magnitude, dtype)


@pytest.mark.parametrize("dtype", [torch.half, torch.bfloat16], ids=str)
def test_strides_special_values_and_outputs(dtype: torch.dtype) -> None:
    torch.manual_seed(3)
    wide = torch.randn(20, 64).to(dtype)
    x = torch.randn(5, 64).to(dtype)
    exact = x[:, 8:40].double() @ wide[::2, 8:40].double().t()
    magnitude = x[:, 8:40].double().abs() @ wide[::2, 8:40].double().abs().t()
    weight, rows = wide.to("xpu")[::2, 8:40], x.to("xpu")[:, 8:40]
    assert_accurate(rows @ weight.t(), exact, magnitude, dtype)

    target = torch.full((5, 30), 9.0, dtype=dtype, device="xpu")
    torch.mm(rows, weight.t(), out=target[:, 10:20])
    assert_accurate(target[:, 10:20], exact, magnitude, dtype)
    assert (target[:, :10] == 9).all() and (target[:, 20:] == 9).all()
    target[:, 10:20].addmm_(rows, weight.t())
    assert_accurate(target[:, 10:20], exact + exact.to(dtype).double(), 2 * magnitude, dtype)

    # A factor of zero hides what it multiplies; NaN and infinity come through otherwise.
    nothing = torch.full((10,), float("nan"), dtype=dtype, device="xpu")
    assert torch.addmm(nothing, rows, weight.t(), beta=0).isfinite().all()
    assert torch.addmm(nothing, rows, weight.t()).isnan().all()
    huge = torch.full((1, 32), 3e4, dtype=dtype, device="xpu")
    overflow = linear(huge, huge.expand(3, 32).contiguous())
    assert overflow.isinf().all() if dtype is torch.half else (overflow.float() > 2e10).all()
    smallest = torch.full((1, 8), 2.0**-14, dtype=dtype, device="xpu")
    denormal = torch.full((1, 8), 2.0**-13, dtype=dtype, device="xpu")
    assert linear(smallest, denormal).item() == 2.0**-24

    empty = torch.zeros(0, 32, dtype=dtype, device="xpu") @ weight.t()
    assert empty.shape == (0, 10)
    assert torch.equal((rows[:, :0] @ weight[:, :0].t()).cpu(), torch.zeros(5, 10, dtype=dtype))


def test_wrong_shapes_are_refused_as_on_the_cpu() -> None:
    x = torch.ones(2, 8, dtype=torch.half, device="xpu")
    weight = torch.ones(3, 9, dtype=torch.half, device="xpu")
    with pytest.raises(RuntimeError, match="shapes cannot be multiplied"):
        linear(x, weight)
    with pytest.raises(RuntimeError, match="same dtype, but got Half and Float"):
        linear(x, weight[:, :8].float())
