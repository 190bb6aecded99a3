"""What is the rotary embedding's own, beyond the catalogue: layouts, in place, broadcasts, many rows and dimensions."""

from __future__ import annotations

import numpy as np
import pytest
import kelvor_xpu
import tolvane
import torch
from numpy.testing import assert_allclose

import arithmetic
from cases import TYPES, numbers, on_xpu
from rope_cases import Rotary, check_positions, check_turned

both = tolvane.apply_rotary_embedding_half_q_and_k
one = tolvane.apply_rotary_embedding_half_q_or_k
cached = tolvane.apply_rotary_embedding_half_q_and_k_cache_freq


@pytest.mark.parametrize("type", TYPES)
def test_one_tensor_forward_and_back(type):
    x, _, positions = Rotary(type, 64).tensors()
    forward, back = torch.empty_like(x), torch.empty_like(x)
    one(x, positions, forward, False)
    check_positions(forward, x, positions, type)
    one(forward, positions, back, True)
    check_positions(back, forward, positions, type, backward=True)
    atol = 12 * max(arithmetic.ALL[type].unit, 2.0**-24)
    assert_allclose(numbers(back), numbers(x), atol=atol)
    one(back, torch.zeros_like(positions), forward, False)
    assert torch.equal(forward, back)
    one(x, positions[:1], forward, False)  # one row of positions serves all batches
    check_positions(forward, x, positions[:1], type)


def layouts(x: torch.Tensor) -> list[torch.Tensor]:
    """x with other strides: contiguous, tokens before heads, columns outermost, every second column, part of a longer
    row, heads apart."""
    heads, size = x.shape[1], x.shape[3]

    def zeros(*shape: int) -> torch.Tensor:
        return torch.zeros(shape, dtype=x.dtype, device="xpu")

    views = [zeros(*x.shape), zeros(*x.transpose(1, 2).shape).transpose(1, 2)]
    views += [zeros(*x.shape[::-1]).permute(3, 2, 1, 0)]
    views += [zeros(*x.shape[:3], 2 * size + 2)[..., 1 : 2 * size + 1 : 2]]
    views += [zeros(*x.shape[:3], 2 * size + 2)[..., 1 : size + 1]]
    views += [zeros(x.shape[0], 2 * heads, *x.shape[2:])[:, ::2]]
    return [view.copy_(x) for view in views]


@pytest.mark.parametrize("type", ["float16", "float32"])
@pytest.mark.parametrize("size", [6, 64])
@pytest.mark.parametrize("source", range(6))
def test_every_layout_of_inputs_and_outputs_and_in_place(type, size, source):
    case = Rotary(type, size, batch=2, q_heads=3, tokens=4)
    q, k, positions = case.tensors()
    sine, cosine = case.tables()
    table = [numbers(t)[..., : size // 2] for t in (sine, cosine)]
    spread = torch.stack([positions, positions], -1)[..., 0]
    x = layouts(q)[source]
    for out in layouts(q):
        k_out = torch.empty_like(k)
        both(x, k, spread, out, k_out)
        check_positions(out, q, positions, type)
        check_positions(k_out, k, positions, type)
        cached(x, k, sine, cosine, out, k_out)
        check_turned(numbers(out), numbers(q), *table, type)
    one(x, spread, x, False)
    check_positions(x, q, positions, type)
    x = layouts(q)[source]
    cached(x, k, sine, cosine, x, k.clone())
    check_turned(numbers(x), numbers(q), *table, type)


@pytest.mark.parametrize(
    "shape", [(1, 1, 4, 8), (2, 1, 4, 8), (1, 3, 1, 8), (2, 3, 4, 8), (1, 1, 8), (1, 8), (1, 1, 1, 8)]
)
def test_tables_of_all_broadcasts_and_ranks(shape):
    random = np.random.default_rng(3)
    x = on_xpu(random.standard_normal((2, 3, 4, 8)[-len(shape) :]), "float32")
    angle = on_xpu(random.uniform(-3, 3, shape), "float32")
    q_out, k_out = torch.empty_like(x), torch.empty_like(x)
    cached(x, x, angle.sin(), angle.cos(), q_out, k_out)
    for out in (q_out, k_out):
        tables = (numbers(t)[..., :4] for t in (angle.sin(), angle.cos()))
        check_turned(numbers(out), numbers(x), *tables, "float32")


@pytest.mark.parametrize("tokens", [40000, 3000])
def test_more_rows_than_groups_and_more_positions_than_a_table_holds(tokens):
    values = np.random.default_rng(1).standard_normal((1, 1, tokens, 16), np.float32)
    x = on_xpu(values)
    positions = torch.arange(tokens)[None].to("xpu")
    out, k_out = torch.empty_like(x), torch.empty_like(x)
    kelvor_xpu.clear_submissions()
    both(x, x, positions, out, k_out)
    (record,) = kelvor_xpu.submissions()
    assert list(record.global_size)[:2] == [1, min(2 * tokens, 32768) * 16]
    assert record.local_size[1] == 16
    assert "apply_rotary_embedding_half_kernel_q_and_k" in record.kernel
    check_positions(out, x, positions, "float32")
    assert torch.equal(out, k_out)


@pytest.mark.parametrize("dims", [12, 13])
def test_up_to_twelve_dimensions_that_do_not_join(dims):
    """A tensor whose dimensions lie in memory in reverse."""
    x = torch.linspace(0, 1, 2**dims).view([2] * dims).permute(*reversed(range(dims)))
    out, k_out = torch.zeros(2, *[2] * dims, device="xpu")
    there = x.to("xpu")
    if dims > 12:
        with pytest.raises(RuntimeError, match=r"^tensor has too many \(>12\) dims"):
            cached(there, there, there.sin(), there.cos(), out, k_out)
        return
    cached(there, there, there.sin(), there.cos(), out, k_out)
    (low, high), sines, cosines = x.unbind(-1), x.sin()[..., 0], x.cos()[..., 0]
    expected = torch.stack([cosines * low - sines * high, cosines * high + sines * low], dim=-1)
    torch.testing.assert_close(out.cpu(), expected)


def test_tensors_of_no_elements():
    def xpu(*sizes: int, dtype: torch.dtype = torch.float32) -> torch.Tensor:
        return torch.zeros(sizes, dtype=dtype, device="xpu")

    none, no_key, no_positions = xpu(0, 2, 2, 8), xpu(0, 1, 2, 8), xpu(0, 2, dtype=torch.int64)
    both(none, no_key, no_positions, torch.empty_like(none), torch.empty_like(no_key))
    k, out = torch.ones(2, 1, 1, 2, 8, device="xpu")
    both(xpu(1, 0, 2, 8), k, xpu(1, 2, dtype=torch.int64), xpu(1, 0, 2, 8), out.zero_())
    assert torch.equal(out, k)  # turned by nothing
