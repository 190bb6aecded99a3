"""torch.nn.functional.scaled_dot_product_attention on the xpu device against the CPU's, and under what PyTorch wraps around."""

from __future__ import annotations

from typing import Any

import pytest
import torch
from torch.nn.functional import scaled_dot_product_attention as attention

import kelvor_xpu  # noqa: F401

TYPES = [torch.float32, torch.half, torch.bfloat16, torch.float64]
OPTIONS: dict[str, dict[str, Any]] = {
    "plain": {},
    "causal": {"is_causal": True},
    "scaled": {"scale": 0.3},
    "dropout": {"dropout_p": 0.4},
}
MASKS = {
    "bool": lambda: torch.rand(2, 1, 5, 7) > 0.3,
    "bool of two dimensions": lambda: torch.rand(5, 7) > 0.3,
    "float": lambda: torch.randn(2, 1, 5, 7),
    "float with gradient": lambda: torch.randn(2, 4, 5, 7, requires_grad=True),
}


def forward_and_gradients(device: str, dtype: torch.dtype, grouped: bool, **options: Any) -> list[torch.Tensor]:
    torch.manual_seed(3)
    query = torch.randn(2, 4, 5, 8)
    key, value = torch.randn(2, 2, 2 if grouped else 4, 7, 8).unbind()
    inputs = [x.to(device, dtype).requires_grad_() for x in (query, key, value)]
    if "attn_mask" in options:
        mask = options["attn_mask"]()
        there = mask.detach().to(device, dtype if mask.is_floating_point() else None)
        options["attn_mask"] = there.requires_grad_(mask.requires_grad)
        inputs += [there] if mask.requires_grad else []
    out = attention(*inputs[:3], enable_gqa=grouped, **options)
    return [out, *torch.autograd.grad((out * out.detach().cos()).sum(), inputs)]


@pytest.mark.parametrize("grouped", [False, True], ids=["heads", "grouped heads"])
@pytest.mark.parametrize("dtype", TYPES, ids=str)
@pytest.mark.parametrize("case", [*OPTIONS, *MASKS])
def test_values_and_gradients_are_the_cpus(case: str, dtype: torch.dtype, grouped: bool) -> None:
    options = OPTIONS.get(case) or ({"attn_mask": MASKS[case]} if case in MASKS else {})
    expected = forward_and_gradients("cpu", dtype, grouped, **options)
    actual = forward_and_gradients("xpu", dtype, grouped, **options)
    for got, want in zip(actual, expected, strict=True):
        assert got.device.type == "xpu"
        torch.testing.assert_close(got.cpu(), want)


@pytest.mark.parametrize("dtype", TYPES, ids=str)
@pytest.mark.parametrize(
    "sizes",  # batch, heads, heads of keys, query rows, keys, sizes of keys and values
    [(1, 32, 4, 1, 600, 64, 64), (2, 6, 2, 3, 7, 8, 8), (1, 4, 4, 8, 257, 20, 12)]
    + [(2, 2, 1, 16, 512, 96, 33), (1, 2, 1, 1, 1, 128, 128), (1, 33, 1, 1, 9, 8, 8)],
    ids=str,
)
def test_few_rows_see_all_keys(sizes: tuple[int, ...], dtype: torch.dtype) -> None:
    """As one token does, with caches of any strides; against the definition in double."""
    torch.manual_seed(4)
    batch, heads, key_heads, rows, count, depth, value_depth = sizes
    query = torch.randn(batch, heads, rows, depth).to(dtype)
    keys = torch.randn(batch, key_heads, count + 5, depth).to(dtype)
    values = torch.randn(batch, count, key_heads, value_depth).to(dtype)
    queries, cache, transposed = (x.to("xpu") for x in (query, keys, values))
    with torch.no_grad():
        got = attention(queries, cache[:, :, 3:-2], transposed.transpose(1, 2), enable_gqa=True)
    shared = [x.double().repeat_interleave(heads // key_heads, 1) for x in (keys[:, :, 3:-2], values.transpose(1, 2))]
    weights = (query.double() @ shared[0].transpose(2, 3) * depth**-0.5).softmax(-1)
    expected = (weights @ shared[1]).to(dtype)
    tolerances = {} if dtype.itemsize > 2 else {"atol": 8e-3, "rtol": 8e-3}
    torch.testing.assert_close(got.cpu(), expected, **tolerances)
    assert got.is_contiguous()
    if dtype != torch.float64:  # the CPU's kernel does without a NaN there
        cache[:, :, 3, 0] = float("nan")
        got = attention(queries, cache[:, :, 3:-2], transposed.transpose(1, 2), enable_gqa=True)
        assert got.isnan().all()


def test_rows_without_any_key_are_the_cpus() -> None:
    mask = torch.tensor([[True, False], [False, False]])
    query = torch.randn(1, 1, 2, 4)
    expected = attention(query, query, query, attn_mask=mask)
    got = attention(*[query.xpu()] * 3, attn_mask=mask.xpu())
    torch.testing.assert_close(got.cpu(), expected, equal_nan=True)


@pytest.mark.filterwarnings("ignore:There is a performance drop")
def test_transforms_give_what_they_give_without() -> None:
    query, key = torch.randn(3, 2, 4, 5, 8), torch.randn(2, 4, 5, 8)
    masks = torch.rand(3, 5, 5) > 0.2

    def one(query: torch.Tensor, key: torch.Tensor, mask: torch.Tensor) -> torch.Tensor:
        return attention(query, key, key, attn_mask=mask).sin()

    def total(query: torch.Tensor, key: torch.Tensor, mask: torch.Tensor) -> torch.Tensor:
        return one(query, key, mask).sum()

    expected = torch.stack([one(q, key, m) for q, m in zip(query, masks)])
    for device in ("xpu", "cpu"):  # the device's kernel is asked about both
        arguments = [x.to(device) for x in (query, key, masks)]
        got = torch.vmap(one, in_dims=(0, None, 0))(*arguments)
        assert got.device.type == device
        torch.testing.assert_close(got.cpu(), expected)
        gradients = torch.vmap(torch.func.grad(total), in_dims=(0, None, 0))(*arguments)
        pairs = zip(arguments[0], arguments[2])
        one_by_one = [torch.func.grad(total)(q, arguments[1], mask) for q, mask in pairs]
        torch.testing.assert_close(gradients, torch.stack(one_by_one))
    query, key, mask = query[0].xpu(), key.xpu(), masks[0].xpu()
    ones = torch.ones_like(query)
    along_ones = torch.func.jvp(lambda q: total(q, key, mask), (query,), (ones,))[1]
    slope = torch.func.grad(total)(query.cpu(), key.cpu(), masks[0]).sum()
    torch.testing.assert_close(along_ones.cpu(), slope, rtol=1e-4, atol=1e-5)


def test_fake_tensors_have_shapes_and_the_device() -> None:
    from torch._subclasses.fake_tensor import FakeTensorMode

    with FakeTensorMode():
        query = torch.randn(2, 4, 5, 8, device="xpu", requires_grad=True)
        out = attention(query, query[:, :2], query[:, :2], is_causal=True, enable_gqa=True)
        out.sum().backward()
        assert out.shape == query.shape == query.grad.shape and out.device.type == "xpu"
        layer = torch.nn.LSTM(8, 3, device="xpu")
        assert layer(query[0])[0].shape == (4, 5, 3)
