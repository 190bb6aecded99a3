"""The FP8 cache: its bytes, its rounding, attention through it, and views that the operators take."""

from __future__ import annotations

import pytest
import tolvane
import torch

from quarn.fp8_cache import FP8Cache, decode_fp8, encode_fp8
from sample_calls import sample_calls


def test_bytes_of_the_cache():
    every = torch.arange(256, dtype=torch.uint8)
    values = decode_fp8(every)
    by_hand = [2.0**-17, -(2.0**-17), 2.288818359375e-05, 1.125, 61440.0]
    assert values[[0x00, 0x80, 0x01, 0x3C, 0x7B]].tolist() == by_hand
    nan = (every & 0x7C) == 0x7C
    assert torch.equal(values.isnan(), nan)
    assert torch.equal(encode_fp8(values)[~nan], every[~nan])
    assert torch.all(decode_fp8(encode_fp8(values[nan])).isnan())


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.bfloat16, torch.float64])
def test_rounds_to_the_nearest_byte(dtype):
    x = torch.randn(20000) * 10.0 ** torch.empty(20000).uniform_(-7, 5.5)
    special = torch.tensor([0.0, -0.0, 1.0, 2.03, 61440.0, -65504.0])
    x = torch.cat([x.clamp(-65504, 65504), special]).to(dtype)
    finite = decode_fp8(torch.arange(256, dtype=torch.uint8)).double()
    finite = finite[finite.isfinite()]
    nearest = (x.double()[:, None] - finite).abs().min(dim=1).values
    assert torch.equal((decode_fp8(encode_fp8(x)).double() - x.double()).abs(), nearest)
    extreme = encode_fp8(torch.tensor([torch.inf, -torch.inf, torch.nan], dtype=dtype))
    assert extreme.tolist() == [0x7B, 0xFB, 0x7F]


@pytest.mark.parametrize("dtype, tolerance", [(torch.float32, 1e-5), (torch.float16, 2e-2), (torch.bfloat16, 8e-2)])
def test_attention_through_the_cache(dtype, tolerance):
    """Filled in three parts and attended to after each, against plain attention on the rounded keys and values."""
    torch.manual_seed(2)
    cache = FP8Cache(2, 2, 50)
    stored: list[tuple[torch.Tensor, torch.Tensor]] = []
    for positions in (33, 1, 16):
        keys, values = torch.randn(2, 2, 2, positions, 128).unbind()
        cache.append(keys.to("xpu", dtype), values.to("xpu", dtype))
        stored.append(tuple(decode_fp8(encode_fp8(x.to(dtype))).float() for x in (keys, values)))
        query = torch.randn(2, 6, 1, 128).to(dtype)
        k, v = (torch.cat(x, 2).repeat_interleave(3, 1) for x in zip(*stored))
        expected = torch.softmax(query.float() @ k.transpose(2, 3) / 128**0.5, -1) @ v
        actual = cache.attend(query.to("xpu"))
        assert actual.dtype == dtype
        torch.testing.assert_close(actual.cpu().float(), expected, rtol=tolerance, atol=tolerance)
    with pytest.raises(ValueError, match="holds 50 positions, but 51 are needed"):
        cache.append(torch.zeros(2, 2, 1, 128), torch.zeros(2, 2, 1, 128))
    said = r"values must have shape \[2, 2, positions, 128\], but have \[2, 1, 1, 128\]"
    with pytest.raises(ValueError, match=said):
        cache.append(torch.zeros(2, 2, 1, 128), torch.zeros(2, 1, 1, 128))


def test_the_cache_refuses_types_that_would_end_the_process():
    cache = FP8Cache(1, 1, 8)
    x = torch.ones(1, 1, 3, 128)
    cache.append(x.double().to("xpu"), x.half().to("xpu"))
    for name, call in (
        ("keys", lambda: cache.append(x.int(), x)),
        ("values", lambda: cache.append(x, x.to(torch.complex64))),
        ("query", lambda: cache.attend(x[:, :, :1].double().to("xpu"))),
        ("query", lambda: cache.attend(x[:, :, :1].int().to("xpu"))),
    ):
        with pytest.raises(TypeError, match=f"^{name} "):
            call()
    assert cache.length == 3


def test_views_of_the_cache_and_bytes_of_zeros():
    query, key = sample_calls()["query_key_fp8_matmul"].arguments
    scores = tolvane.query_key_fp8_matmul
    expected = scores(query, key)
    wider, longer = torch.cat([key, key], 3), torch.cat([key, key], 2)
    assert torch.equal(scores(query, wider[:, :, :1, :128]), expected[..., :1])
    assert torch.equal(scores(query, longer[:, :, :33]), expected)
    column = query.transpose(2, 3).contiguous().transpose(2, 3)  # its last stride is 1 all the same
    assert torch.equal(scores(column, key), expected)
    zeros = scores(torch.ones_like(query), torch.zeros_like(key))
    assert torch.all(zeros == 128 * 2.0**-17)  # a byte of zeros is not zero
