"""Attention against an FP8 cache: the operators to the bit in half and bfloat16, the cache, and the refusals."""

from __future__ import annotations

import os
import subprocess
import sys

import numpy as np
import pytest
import torch

tolvane = pytest.importorskip("tolvane")
kelvor_xpu = pytest.importorskip("kelvor_xpu")

import arithmetic  # noqa: E402
from device_names import DEVICE_NAMES  # noqa: E402
from kv_cases import CASES, Case, data, run  # noqa: E402
from quarn.fp8_cache import FP8Cache, decode_fp8, encode_fp8  # noqa: E402


def decoded(code: np.ndarray) -> np.ndarray:
    return (code.astype(np.uint16) << 8 | 0x80).view(np.float16)


def lane_sums(products: np.ndarray, t: arithmetic.Arithmetic) -> np.ndarray:
    """32 work-items add up every 32nd of the last dimension, then the first adds up theirs; each sum rounds."""
    count = products.shape[-1]
    steps = -(-count // 32)
    padded = np.zeros((*products.shape[:-1], steps * 32), products.dtype)
    padded[..., :count] = products
    padded = padded.reshape(*products.shape[:-1], steps, 32)
    part = np.zeros((*products.shape[:-1], 32), products.dtype)
    for step in range(steps):
        part = t.add(part, padded[..., step, :])
    total = np.zeros_like(part[..., 0])
    for lane in range(32):
        total = t.add(total, part[..., lane])
    return total


@np.errstate(over="ignore", invalid="ignore")
def check(case: Case, results: dict[str, np.ndarray]) -> None:
    t = arithmetic.ALL[case.type]
    query, attn, key, value = data(case)
    used, of_kv = slice(case.length), np.arange(case.heads) // (case.heads // case.kv_heads)
    key, value = (decoded(x)[: case.batch, of_kv] for x in (key, value))
    pairs = {
        "scores": (query[: case.batch, : case.heads], key[:, :, used]),
        "mixed": (attn[: case.batch, : case.heads, :, used], value[..., used]),
    }
    for name, (x, w) in pairs.items():
        if name == "scores" and case.head_dim != 128:
            continue
        actual = results[f"{case.name} {name}"][:, :, 0]
        if case.type == "float32":
            exact = np.float64(x) * np.float64(w)
            bound = (case.length / 32 + 40) * t.unit * np.abs(exact).sum(-1)
            difference = np.abs(actual - exact.sum(-1))
            np.testing.assert_array_equal(np.isnan(actual), np.isnan(difference), err_msg=case.name)
            assert np.all((difference <= bound) | np.isnan(actual)), case.name
        else:  # products are exact in float, so that they round once
            products = t.to(np.float32(x) * np.float32(w))
            np.testing.assert_array_equal(actual, lane_sums(products, t).astype(np.float32), err_msg=case.name)


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.name)
def test_against_the_stated_order(case):
    check(case, run(case))


@pytest.mark.parametrize("name", DEVICE_NAMES)
def test_device_classes_and_guard_pages(in_process, name):
    results = in_process("kv_cases.py", KELVOR_XPU_DEVICE_NAME=name, KELVOR_XPU_GUARD_PAGES="1")
    for case in CASES:
        check(case, results)


def test_one_lane_reading_is_the_same(in_process):
    gangs, scalar = in_process("kv_cases.py"), in_process("kv_cases.py", one_lane=True)
    assert gangs.keys() == scalar.keys()
    for name, values in gangs.items():
        np.testing.assert_array_equal(values, scalar[name], err_msg=name)


def test_bytes_of_the_cache():
    every = torch.arange(256, dtype=torch.uint8)
    values = decode_fp8(every)
    by_hand = {0x00: 2.0**-17, 0x80: -(2.0**-17), 0x01: 2.288818359375e-05, 0x3C: 1.125, 0x7B: 61440.0}
    assert {code: values[code].item() for code in by_hand} == by_hand
    nan = (every & 0x7C) == 0x7C
    assert torch.equal(values.isnan(), nan)
    assert torch.equal(encode_fp8(values)[~nan], every[~nan])
    assert torch.all(decode_fp8(encode_fp8(values[nan])).isnan())


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.bfloat16, torch.float64])
def test_rounds_to_the_nearest_byte(dtype):
    x = torch.randn(20000, dtype=torch.float64) * 10.0 ** torch.empty(20000).uniform_(-7, 5.5).double()
    x = torch.cat([x.clamp(-65504, 65504), torch.tensor([0.0, -0.0, 1.0, 2.03, 61440.0, -65504.0])]).to(dtype)
    finite = decode_fp8(torch.tensor([c for c in range(256) if c & 0x7C != 0x7C], dtype=torch.uint8)).double()
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
    with pytest.raises(ValueError, match=r"values must have shape \[2, 2, positions, 128\], but have \[2, 1, 1, 128\]"):
        cache.append(torch.zeros(2, 2, 1, 128), torch.zeros(2, 1, 1, 128))


def zeros(*shape, dtype=torch.float32):
    return torch.zeros(shape, dtype=dtype, device="xpu")


def cache_bytes(*shape):
    return zeros(*shape, dtype=torch.uint8)


SCORES = {
    "batch": (zeros(2, 4, 1, 128), cache_bytes(1, 2, 5, 128), r"query.size\(0\) == key.size\(0\).*2 and 1"),
    "reduced": (zeros(1, 4, 1, 64), cache_bytes(1, 2, 5, 128), r"query.size\(3\) == key.size\(3\).*64 and 128"),
    "heads": (zeros(1, 4, 1, 128), cache_bytes(1, 3, 5, 128), r"num_heads % num_kv_heads == 0.*4 and num_kv_heads 3"),
    "no key head": (zeros(1, 4, 1, 128), cache_bytes(1, 0, 5, 128), r"num_heads % num_kv_heads == 0"),
    "two rows": (zeros(1, 4, 2, 128), cache_bytes(1, 2, 5, 128), "input_size == 1.*got 2"),
    "head size": (zeros(1, 4, 1, 64), cache_bytes(1, 2, 5, 64), "head_dim == 128.*got 64"),
    "first of two": (zeros(2, 4, 2, 128), cache_bytes(1, 3, 5, 128), r"query.size\(0\) == key.size\(0\)"),
    "dimensions": (zeros(4, 1, 128), cache_bytes(1, 2, 5, 128), "query must have 4 dimensions, but has 3"),
    "not bytes": (zeros(1, 4, 1, 128), zeros(1, 2, 5, 128), "key must hold cache bytes .torch.uint8., but holds Float"),
    "device": (zeros(1, 4, 1, 128), cache_bytes(1, 2, 5, 128).cpu(), "key must be a XPU tensor, but is on device cpu"),
    "stride": (zeros(1, 4, 128, 1).transpose(2, 3), cache_bytes(1, 2, 5, 128), None),
    "spread": (zeros(1, 4, 1, 256)[..., ::2], cache_bytes(1, 2, 5, 128), "last dimension of query must have stride 1"),
    "rows on each other": (
        zeros(1, 4, 1, 128),
        cache_bytes(1, 2, 1, 128).expand(1, 2, 9, 128),
        "rows of key must lie 128 bytes apart",
    ),
}
VALUES = {
    "batch": (zeros(2, 4, 1, 5), cache_bytes(1, 2, 8, 5), r"attn.size\(0\) == value.size\(0\)"),
    "positions": (zeros(1, 4, 1, 5), cache_bytes(1, 2, 8, 6), r"attn.size\(3\) == value.size\(3\).*5 and 6"),
    "heads": (zeros(1, 4, 1, 5), cache_bytes(1, 3, 8, 5), r"num_heads % num_kv_heads == 0"),
    "two rows": (zeros(1, 4, 2, 5), cache_bytes(1, 2, 8, 5), "input_size == 1"),
    "head size": (zeros(1, 4, 1, 5), cache_bytes(1, 2, 6, 5), "head_dim % RS == 0.*got 6"),
}


@pytest.mark.parametrize(
    "operator, arguments",
    [("query_key_fp8_matmul", x) for x in SCORES.values()] + [("attn_value_fp8_matmul", x) for x in VALUES.values()],
)
def test_refuses_and_submits_nothing(operator, arguments):
    first, cache, message = arguments
    count, bytes_before = kelvor_xpu.submission_count(), kelvor_xpu.memory_allocated()
    if message is None:
        assert getattr(tolvane, operator)(first, cache).shape == (1, 4, 1, 5)
        return
    with pytest.raises(RuntimeError, match=message):
        getattr(tolvane, operator)(first, cache)
    assert kelvor_xpu.submission_count() == count and kelvor_xpu.memory_allocated() == bytes_before


@pytest.mark.parametrize("operator", ["query_key_fp8_matmul", "attn_value_fp8_matmul"])
@pytest.mark.parametrize("dtype", ["float64", "int32"])
def test_other_types_end_the_process(operator, dtype):
    code = f"""
import torch, tolvane
x = torch.zeros(1, 1, 1, 128, device="xpu").to(torch.{dtype})
tolvane.{operator}(x, torch.zeros(1, 1, 4, 128, dtype=torch.uint8, device="xpu"))
"""
    environment = {**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)}
    done = subprocess.run([sys.executable, "-c", code], env=environment, capture_output=True, text=True)
    assert done.returncode == 2 and done.stderr == "unsupported dtype\n"


def test_launch_shapes_and_zero_caches():
    kelvor_xpu.clear_submissions()
    query = torch.ones(2, 4, 1, 128, device="xpu")
    scores = tolvane.query_key_fp8_matmul(query, cache_bytes(2, 2, 33, 128))
    assert torch.all(scores == 128 * 2.0**-17)  # a byte of zeros is not zero
    tolvane.attn_value_fp8_matmul(scores, cache_bytes(2, 2, 12, 33))
    first, second = kelvor_xpu.submissions()
    assert tuple(first.global_size) == (2, 4, 64) and tuple(second.global_size) == (2, 4, 96)
    for record in (first, second):
        assert tuple(record.local_size) == (1, 1, 32)
        assert record.label == "devq_kernel" and not record.waited
