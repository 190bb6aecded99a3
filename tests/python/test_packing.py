"""Packing: where the bytes stand, how good the rounding is, and what is refused."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from hypothesis import given, settings
from hypothesis import strategies as st

import quarn
from quarn.byte_wide import round_to_e5m2
from reference import decode, e5m2_values, naive_error, nearest_even_e5m2

NAMES = sorted(quarn.FORMATS)


def as_bytes(packed: torch.Tensor) -> bytes:
    return packed.numpy().tobytes()


def test_q4_0_bytes_by_hand() -> None:
    """Two rows of two blocks; one block has weights -8 * 0.5, 7 * 0.5 and 3 * 0.5."""
    weight = torch.zeros(2, 128)
    weight[0, 64 + 0] = -4.0  # block 1: code 0 in the low nibble of byte 0
    weight[0, 64 + 32] = 3.5  # code 15 in the high nibble of byte 0
    weight[0, 64 + 33] = 1.5  # code 11 in the high nibble of byte 1
    packed = as_bytes(quarn.pack(weight, "q4_0"))
    block = bytes([0xF0, 0xB8] + [0x88] * 30)
    assert packed[:128] == b"\x88" * 32 + block + b"\x88" * 64
    assert packed[128:] == b"\0\0" + b"\x00\x38" + b"\0\0" * 2  # 0.5 as a half is 0x3800


def test_fp8_e5m2_bytes_by_hand() -> None:
    """The second of three rows holds powers of two and a subnormal relative to its largest."""
    weight = torch.zeros(3, 64)
    weight[1, :5] = torch.tensor([8.0, -12.0, 0.5, 8 * 2.0**-16, -10.0])
    packed = as_bytes(quarn.pack(weight, "fp8_e5m2"))
    block = packed[64:128]
    scale = np.frombuffer(packed[192:], np.float32)
    assert packed[:64] + packed[128:192] == bytes(128)
    assert scale[0] == scale[2] == 0
    # Under scale 8 the codes are 1, -1.5, 2^-4, 2^-16 and -1.25.
    assert block == bytes([0x3C, 0xBE, 0x2C, 0x01, 0xBD]) + bytes(59)
    assert scale[1] == 8


@pytest.mark.parametrize("name", NAMES)
def test_unpack_agrees_with_reference_on_any_bytes(name: str) -> None:
    generator = np.random.default_rng(1)
    entry = quarn.FORMATS[name]
    values = generator.integers(0, 256, 12 * entry.value_bytes, dtype=np.uint8)
    if name == "fp8_e5m2":
        values &= 0xFB  # keep the exponent below that of infinities
    kind = np.float16 if name == "q4_0" else np.float32
    raw = values.tobytes() + generator.uniform(-1, 1, 12).astype(kind).tobytes()
    packed = torch.frombuffer(bytearray(raw), dtype=torch.uint8)
    expected = decode(raw, name, 192).astype(np.float32)
    np.testing.assert_array_equal(quarn.unpack(packed, name, 192).numpy(), expected)
    halves = quarn.unpack(packed, name, 192, torch.float16)
    np.testing.assert_array_equal(halves.numpy(), expected.astype(np.float16))


@pytest.mark.parametrize("name", NAMES)
@settings(deadline=None, max_examples=60)
@given(
    st.integers(0, 2**32 - 1),
    st.floats(1e-3, 1e3),
    st.sampled_from(["normal", "heavy", "one-sided", "sparse", "flat"]),
)
def test_error_is_never_above_naive_rounding(name: str, seed: int, size: float, shape: str) -> None:
    generator = np.random.default_rng(seed)
    blocks = generator.normal(size=(32, 64))
    blocks = {
        "normal": blocks,
        "heavy": blocks**3,
        "one-sided": -np.abs(blocks) - 0.1,
        "sparse": np.where(generator.random(blocks.shape) < 0.9, 0, blocks),
        "flat": np.sign(blocks),
    }[shape]
    weight = (size * blocks).astype(np.float32)
    packed = quarn.pack(torch.from_numpy(weight), name)
    error = ((decode(as_bytes(packed), name, 64) - weight) ** 2).sum(1)
    energy = (weight.astype(np.float64) ** 2).sum(1)
    assert np.isfinite(error).all()
    assert (error <= naive_error(weight, name) + 1e-6 * energy).all()


def test_search_gains_on_normal_weights() -> None:
    """The search must be worth its time: a tenth of the squared error on normal weights."""
    weight = np.random.default_rng(3).normal(size=(64, 1024)).astype(np.float32)
    for name in NAMES:
        decoded = decode(as_bytes(quarn.pack(torch.from_numpy(weight), name)), name, 1024)
        assert ((decoded - weight) ** 2).sum() < 0.91 * naive_error(weight, name).sum()


@pytest.mark.parametrize("peak", [-8, -7, -5, -1, 1, 3, 6, 7])
def test_q4_0_keeps_representable_weights(peak: int) -> None:
    """Blocks whose largest code is anything, not only the end of the code range."""
    generator = np.random.default_rng(abs(peak))
    codes = generator.integers(-abs(peak) + 1, abs(peak), (8, 64))
    codes[:, 5] = peak
    scales = generator.uniform(1e-3, 2, (8, 1)).astype(np.float16).astype(np.float32)
    weight = torch.from_numpy((codes * scales).astype(np.float32))
    assert torch.equal(quarn.unpack(quarn.pack(weight, "q4_0"), "q4_0", 64), weight)


def test_fp8_e5m2_keeps_representable_weights() -> None:
    finite = e5m2_values()[np.arange(256) % 128 < 0x7C]
    finite = finite[(np.abs(finite) < 2) & (np.abs(finite) >= 2.0**-14)]
    weight = np.random.default_rng(0).choice(finite, (16, 128)).astype(np.float32)
    weight *= np.float32([[0.75]])
    packed = quarn.pack(torch.from_numpy(weight), "fp8_e5m2")
    np.testing.assert_allclose(quarn.unpack(packed, "fp8_e5m2", 128), weight, rtol=3e-7)


def test_e5m2_rounding_at_values_and_ties() -> None:
    values = e5m2_values()[:0x7C]
    middles = (values[1:] + values[:-1]) / 2
    near = np.nextafter(middles.astype(np.float32), np.float32([[0], [np.inf]])).ravel()
    x = np.concatenate([values, middles, near]).astype(np.float32)
    x = np.concatenate([x, -x])
    np.testing.assert_array_equal(round_to_e5m2(torch.from_numpy(x)), nearest_even_e5m2(x))


@pytest.mark.parametrize("name", NAMES)
def test_extreme_weights(name: str) -> None:
    """Zeros, tiny weights and a wide range in one block give finite bytes of small error."""
    weight = torch.zeros(4, 64)
    weight[1] = 1e-30
    weight[2, 3] = 1e-6
    weight[3] = torch.logspace(-20, 4, 64)
    decoded = quarn.unpack(quarn.pack(weight, name), name, 64)
    assert torch.equal(decoded[0], weight[0])
    largest = weight.abs().amax(1)
    assert ((decoded - weight).abs().amax(1) <= 0.1 * largest + 2.0**-25).all()


@pytest.mark.parametrize("name", NAMES)
def test_other_types_pack_like_float(name: str) -> None:
    weight = torch.randn(3, 128, generator=torch.Generator().manual_seed(0)).bfloat16()
    expected = quarn.pack(weight.float(), name)
    assert torch.equal(quarn.pack(weight, name), expected)
    assert torch.equal(quarn.pack(weight.double(), name), expected)
    strided = torch.cat([weight, weight], dim=0).float()[::2][:1]
    assert torch.equal(quarn.pack(strided, name), quarn.pack(strided.contiguous(), name))
    assert torch.equal(quarn.pack(weight.t().float().t(), name), expected)


def test_refused_input() -> None:
    weight = torch.ones(2, 64)
    with pytest.raises(ValueError, match="unknown format 'q9'; known are q4_0, fp8_e5m2"):
        quarn.pack(weight, "q9")
    with pytest.raises(ValueError, match="multiple of 64 for q4_0, but is 65"):
        quarn.pack(torch.ones(2, 65), "q4_0")
    with pytest.raises(ValueError, match=r"shape \[2, 1, 64\]"):
        quarn.pack(torch.ones(2, 1, 64), "q4_0")
    with pytest.raises(TypeError, match="torch.int32"):
        quarn.pack(weight.int(), "q4_0")
    for bad in (float("nan"), float("inf"), 1e300):
        weight = torch.ones(2, 64, dtype=torch.float64)
        weight[1, 63] = bad
        with pytest.raises(ValueError, match="finite"):
            quarn.pack(weight, "fp8_e5m2")
    assert quarn.pack(torch.full((1, 64), 524032.0), "q4_0")[-1] < 0xFC  # -65504, not infinite
    with pytest.raises(ValueError, match="up to 524032"):
        quarn.pack(torch.full((1, 64), 524100.0), "q4_0")
    packed = quarn.pack(torch.ones(2, 128), "q4_0")
    with pytest.raises(ValueError, match="68 bytes, and 135 bytes"):
        quarn.unpack(packed[1:], "q4_0", 128)
    with pytest.raises(TypeError, match="torch.uint8"):
        quarn.unpack(packed.float(), "q4_0", 128)
    with pytest.raises(ValueError, match="flat"):
        quarn.unpack(packed.view(2, -1), "q4_0", 128)


@pytest.mark.parametrize("name", NAMES)
def test_synthetic_weight_is_whole_and_plausible(name: str) -> None:
    torch.manual_seed(0)
    dense = decode(as_bytes(quarn.synthetic(name, 96, 4096, 0.5)), name, 4096)
    assert dense.shape == (96, 4096)
    assert abs(dense.std() - 0.5) < 0.01 and abs(dense.mean()) < 0.01
