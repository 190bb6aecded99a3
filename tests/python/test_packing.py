"""Packing: where the bytes stand, how good the rounding is, and what is refused."""

from __future__ import annotations

import numpy as np
import pytest
import torch
from hypothesis import given, settings
from hypothesis import strategies as st

import quarn
from packed import PACKED, random_weight
from reference import codes_and_scales, decode, levels, naive_error, nearest
from super_block_reference import BLOCK_BYTES, random_records

EVERY_NAME = sorted(quarn.FORMATS)
NAMES = sorted(PACKED)


def as_bytes(packed: torch.Tensor) -> bytes:
    return packed.numpy().tobytes()


HALF_2, FLOAT_2 = "0040", "00000040"  # 2.0, in the order of memory
# Value bytes by their place in a block (the others are 0), the block's scales, and elements.
HAND_WORKED = [
    ("q4_0", {3: 0x1F}, HALF_2, {3: 14, 35: -14, 4: -16}),
    ("q4_1", {3: 0x1F}, HALF_2 + "003c", {3: 31, 35: 3, 4: 1}),  # m = 1
    ("q5_0", {1: 0x40, 3: 0x7C}, "", {0: -32, 31: -32, 32: -32, 63: -32}),  # m = inf, not read
    ("q5_0", {1: 0x40, 4: 0x01}, "", {0: 0, 1: -32, 32: -32}),
    ("q5_0", {1: 0x40, 8: 0x01, 12: 0x50}, "", {0: -32, 32: 10, 40: -32}),
    ("q5_1", {1: 0x40, 3: 0x3C, 11: 0x80, 43: 0x3F}, "", {31: 31, 63: 1 + 2 * 19, 62: 1}),
    ("q8_0", {0: 0x80, 1: 0x7F, 63: 0xFF}, FLOAT_2, {0: -256, 1: 254, 63: -2, 2: 0}),
    ("nf4", {0: 0x7F, 31: 0x0F}, HALF_2, {0: 0, 32: 2, 31: -2, 63: 2, 1: -2}),
    ("nf3", {9: 0b01101100}, HALF_2, {4: 2 * -0.4786292, 5: 2 * -0.2171418, 6: 0, 7: -2, 8: -2}),
    ("nf3", {0: 0x20, 9: 0b01101100}, HALF_2, {4: 2 * -0.4786292, 5: 2 * 0.5626170, 6: 0}),
    ("nf3", {7: 0x80, 23: 0b11}, HALF_2, {63: 2, 62: -2}),
    ("fp8_e4m3", {0: 1, 1: 8, 2: 0x38, 3: 0x7F, 63: 0xC4}, FLOAT_2, {0: 2**-8, 1: 2**-5, 2: 2}),
    ("fp8_e4m3", {3: 0x7F, 63: 0xC4, 5: 0x80}, FLOAT_2, {3: 960, 63: -6, 5: 0}),
    ("fp4", {0: 0xF7, 31: 0x8A}, HALF_2, {0: 12, 32: -12, 31: -2, 63: -0.0625, 1: 0.0625}),
    ("fp8_e5m2", {0: 0x3C, 1: 0x01, 63: 0xFB}, FLOAT_2, {0: 2, 1: 2**-15, 63: -114688, 2: 0}),
    ("fp8_e5m2_linear", {0: 0x3C, 1: 0xBC, 63: 0x7B}, FLOAT_2, {0: 1.125, 1: -1.125, 63: 61440}),
    ("fp8_e5m2_linear", {0: 0x3C}, "0000c07f", {0: 1.125, 1: 2**-17}),  # the scale is a NaN
    ("q2_k", {0: 0x21, 16: 3, 81: 0x3C, 83: 0x3C}, "", {0: 1, 1: -2, 16: 0, 32: 0}),
    ("q2_k", {0: 1, 2: 1, 4: 1, 6: 1, 16: 0xE4, 81: 0x3C}, "", {0: 0, 32: 1, 64: 2, 96: 3, 128: 0}),
    ("q2_k", {15: 0x4F, 79: 0xC0, 81: 0x3C, 83: 0xBC}, "", {255: 49, 254: 4, 239: 0}),  # dmin = -1
    ("iq2_xxs", {1: 0x3C}, "", {0: 1, 255: 1}),
    ("iq2_xxs", {1: 0x3C, 2: 1, 9: 0xF0}, "", {0: 166.625, 1: 31, 8: 31, 32: 1}),
    ("iq2_xxs", {1: 0x3C, 6: 1}, "", {0: -1, 1: 1, 7: -1, 8: 1}),
    ("iq2_xxs", {1: 0x3C, 6: 0x80, 7: 0x3F}, "", {7: 1, 8: -1, 14: -1, 15: -1, 16: 1}),
]


@pytest.mark.parametrize(("name", "values", "scales", "expected"), HAND_WORKED)
def test_bytes_by_hand(name: str, values: dict[int, int], scales: str, expected: dict[int, float]) -> None:
    """The second of three blocks; the others are bytes 0, and so is all that is not given."""
    entry = quarn.FORMATS[name]
    raw = bytearray(3 * entry.block_bytes)
    for place, byte in values.items():
        raw[entry.value_bytes + place] = byte
    zone = 3 * entry.value_bytes + entry.scale_bytes
    raw[zone : zone + entry.scale_bytes] = bytes.fromhex(scales)
    packed = torch.frombuffer(raw, dtype=torch.uint8)
    decoded = quarn.unpack(packed, name, entry.block_elements)[1]
    for element, value in expected.items():
        assert decoded[element].item() == pytest.approx(value, rel=1e-6, abs=0), element


def random_bytes(name: str, blocks: int, seed: int = 1) -> bytes:
    """Packed blocks of any codes that stand for finite values, and scales from 0.5 to 1."""
    generator = np.random.default_rng(seed)
    if name in BLOCK_BYTES:
        records = random_records(name, blocks, 256, seed)
        for place in (80, 82) if name == "q2_k" else (0,):
            halves = generator.uniform(0.5, 1, (blocks, 1)).astype(np.float16)
            records[..., place : place + 2] = halves[..., None].view(np.uint8)
        return records.tobytes()
    weight = random_weight(PACKED[name], blocks, 64, seed)
    weight.scales[:] = generator.uniform(0.5, 1, weight.scales.shape)
    values = weight.values[:, 0]
    if name.startswith("fp8_e5m2"):  # keep the exponent below that of infinities
        values[:] = generator.integers(0, 256, values.shape) & 0xFB
    if name in ("q4_1", "q5_1"):  # elements 0 and 32 get the two ends of the code range
        values[:, -32] = 0xF0
        if name == "q5_1":
            values[:, 0], values[:, 4] = values[:, 0] & 0xFE, values[:, 4] | 1
    return weight.bytes.tobytes()


@pytest.mark.parametrize("name", EVERY_NAME)
def test_unpack_agrees_with_reference_on_any_bytes(name: str) -> None:
    raw = random_bytes(name, 12)
    state = 3 * quarn.FORMATS[name].block_elements
    packed = torch.frombuffer(bytearray(raw), dtype=torch.uint8)
    expected = decode(raw, name, state).astype(np.float32)
    np.testing.assert_array_equal(quarn.unpack(packed, name, state).numpy(), expected)
    halves = quarn.unpack(packed, name, state, torch.float16)
    np.testing.assert_array_equal(halves.numpy(), expected.astype(np.float16))


@pytest.mark.parametrize("name", [name for name in NAMES if name != "fp8_e4m3"])
def test_representable_weights_survive(name: str) -> None:
    """Blocks that use the whole range of codes, in a second row of two."""
    raw = random_bytes(name, 8, seed=2)
    weight = decode(raw, name, 256)
    if name == "fp8_e5m2":  # the search scales to 1 or 2, and subnormals may not survive that
        weight = np.where(np.abs(weight) < 2.0**-13 * np.abs(weight).max(), 0, weight)
    decoded = decode(as_bytes(quarn.pack(torch.from_numpy(weight), name)), name, 256)
    np.testing.assert_allclose(decoded, weight, rtol=3e-7)


@pytest.mark.parametrize("name", NAMES)
@settings(deadline=None, max_examples=60)
@given(
    st.integers(0, 2**32 - 1), st.floats(1e-3, 1e2), st.sampled_from(["normal", "heavy", "one-sided", "sparse", "flat"])
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


@pytest.mark.parametrize(
    ("name", "share"),
    [("q4_0", 0.91), ("q4_1", 0.85), ("q5_0", 0.93), ("q5_1", 0.92), ("q8_0", 0.88)]
    + [("nf4", 0.83), ("nf3", 0.78), ("fp4", 0.84), ("fp8_e4m3", 0.7), ("fp8_e5m2", 0.65)],
)
def test_search_gains_on_normal_weights(name: str, share: float) -> None:
    """The search must be worth its time."""
    weight = np.random.default_rng(3).normal(size=(64, 1024)).astype(np.float32)
    decoded = decode(as_bytes(quarn.pack(torch.from_numpy(weight), name)), name, 1024)
    assert ((decoded - weight) ** 2).sum() < share * naive_error(weight, name).sum()


@pytest.mark.parametrize("name", NAMES)
def test_codes_are_nearest_under_the_stored_scale(name: str) -> None:
    """Of weights over many powers of two, and of a few equal ones, in a number of blocks that fills no register."""
    generator = np.random.default_rng(4)
    weight = np.exp2(generator.uniform(-22, 0, (37, 64))) * generator.choice([-1, 1], (37, 64))
    weight[30:] = generator.choice([-3, -1, 0, 0.25, 7], (7, 64))
    weight = weight.astype(np.float32)
    codes, scales = codes_and_scales(as_bytes(quarn.pack(torch.from_numpy(weight), name)), name)
    steps = weight.astype(np.float64)
    if name in ("q4_1", "q5_1"):
        steps -= scales[:, 1:]
    steps /= scales[:, :1]
    assert (scales[:, 0] != 0).all()
    slack = 1e-5 * (1 + np.abs(steps))
    off = np.abs(levels(name)[codes] - steps)
    assert (off <= np.abs(nearest(steps, name) - steps) + slack).all()


def test_fp8_e5m2_linear_takes_the_nearest_value() -> None:
    """1 lies nearer to 0.9375 than to 1.125, though its own upper byte means 1.125."""
    values = levels("fp8_e5m2_linear")[:0x7C]
    middles = ((values[1:] + values[:-1]) / 2).astype(np.float32)
    near = np.nextafter(middles, np.float32([[0], [np.inf]])).ravel()
    x = np.concatenate([[1, 0, 65536, 1e-30], values, near]).astype(np.float32)
    x = np.resize(np.concatenate([x, -x]), (12, 64))
    packed = as_bytes(quarn.pack(torch.from_numpy(x), "fp8_e5m2_linear"))
    assert packed[:3] == bytes([0x3B, 0x00, 0x7B])
    np.testing.assert_array_equal(np.frombuffer(packed[-48:], np.float32), 1)
    error = np.abs(decode(packed, "fp8_e5m2_linear", 64) - x)
    np.testing.assert_array_equal(error, np.abs(nearest(x, "fp8_e5m2_linear") - x))


@pytest.mark.parametrize("name", EVERY_NAME)
def test_extreme_weights(name: str) -> None:
    """Zeros, tiny weights and a wide range in one block give finite bytes of small error."""
    elements = quarn.FORMATS[name].block_elements
    weight = torch.zeros(4, elements)
    weight[1] = 1e-30
    weight[2, 3] = 1e-6
    weight[3] = torch.logspace(-20, 4, elements)
    decoded = quarn.unpack(quarn.pack(weight, name), name, elements)
    smallest = 2.0**-17 if name == "fp8_e5m2_linear" else 0
    assert (decoded[0] == smallest).all()
    largest = weight.abs().amax(1)
    if name in BLOCK_BYTES:
        coarse, tiny = 0.3, 2.0**-20
    else:
        coarse, tiny = 0.25 if name in ("nf3", "fp4", "nf4") else 0.1, 2.0**-25
    assert ((decoded - weight).abs().amax(1) <= coarse * largest + smallest + tiny).all()


@pytest.mark.parametrize("name", EVERY_NAME)
def test_other_types_pack_like_float(name: str) -> None:
    weight = torch.randn(3, 256, generator=torch.Generator().manual_seed(0)).bfloat16()
    expected = quarn.pack(weight.float(), name)
    assert torch.equal(quarn.pack(weight, name), expected)
    assert torch.equal(quarn.pack(weight.double(), name), expected)
    strided = torch.cat([weight, weight], dim=0).float()[::2][:1]
    assert torch.equal(quarn.pack(strided, name), quarn.pack(strided.contiguous(), name))
    assert torch.equal(quarn.pack(weight.t().float().t(), name), expected)


@pytest.mark.parametrize("name", ["q4_0", "q2_k"])
def test_large_weights_pack_like_their_rows(name: str) -> None:
    """With an importance, where the format takes one, of which each block reads its own columns."""
    weight = torch.randn(300, 4096, generator=torch.Generator().manual_seed(0))
    importance = torch.rand(4096) if quarn.FORMATS[name].weighted else None
    packed: list[int] = []
    whole = quarn.unpack(quarn.pack(weight, name, importance, packed.append), name, 4096)
    parts = [quarn.pack(part, name, importance) for part in weight.split([150, 1, 149])]
    assert torch.equal(whole, torch.cat([quarn.unpack(part, name, 4096) for part in parts]))
    assert len(packed) > 1 and sum(packed) == weight.numel()


def test_refused_input() -> None:
    importance = torch.ones(256)
    for error, message, *arguments in (
        (ValueError, "unknown format 'q9'; known are q4_0, q4_1,", torch.ones(2, 64), "q9"),
        (ValueError, "multiple of 64 for q4_0, but is 65", torch.ones(2, 65), "q4_0"),
        (ValueError, r"shape \[2, 1, 64\]", torch.ones(2, 1, 64), "q4_0"),
        (TypeError, "torch.int32", torch.ones(2, 64).int(), "q4_0"),
        (ValueError, "multiple of 256 for q2_k, but is 320", torch.ones(2, 320), "q2_k"),
        (ValueError, "importance; iq2_xxs, q2_k do", torch.ones(2, 256), "q4_0", importance),
        (ValueError, r"shape \[512\], .* \[256\]", torch.ones(2, 512), "q2_k", importance),
    ):
        with pytest.raises(error, match=message):
            quarn.pack(*arguments)
    for bad in (float("nan"), float("inf"), 1e300):
        weight = torch.ones(2, 64, dtype=torch.float64)
        weight[1, 63] = bad
        with pytest.raises(ValueError, match="finite"):
            quarn.pack(weight, "fp8_e5m2")
    for bad in (float("nan"), -1.0):
        importance[7] = bad
        with pytest.raises(ValueError, match="finite and not negative"):
            quarn.pack(torch.ones(2, 256), "iq2_xxs", importance)
    packed = quarn.pack(torch.ones(2, 128), "q4_0")
    with pytest.raises(ValueError, match="68 bytes, and 135 bytes"):
        quarn.unpack(packed[1:], "q4_0", 128)
    with pytest.raises(TypeError, match="torch.uint8"):
        quarn.unpack(packed.float(), "q4_0", 128)
    with pytest.raises(ValueError, match="flat"):
        quarn.unpack(packed.view(2, -1), "q4_0", 128)


LIMITS = {
    **{"q4_0": 524032, "q4_1": 65504, "q5_0": 1048064, "q5_1": 65504, "nf4": 65504, "nf3": 65504},
    **{"fp4": 393024, "fp8_e5m2_linear": 65536, "q2_k": 982560},
}


@pytest.mark.parametrize("name", LIMITS)
def test_weights_that_a_format_cannot_hold_are_refused(name: str) -> None:
    elements = quarn.FORMATS[name].block_elements
    weight = torch.zeros(2, elements)
    weight[1, 5] = -LIMITS[name]
    decoded = decode(as_bytes(quarn.pack(weight, name)), name, elements)
    assert abs(decoded[1, 5] + LIMITS[name]) <= 0.07 * LIMITS[name]
    weight[1, 5] *= 1.001
    with pytest.raises(ValueError, match=f"{name} holds weights up to {LIMITS[name]}"):
        quarn.pack(weight, name)


@pytest.mark.parametrize("name", EVERY_NAME)
def test_synthetic_weight_is_whole_and_plausible(name: str) -> None:
    torch.manual_seed(0)
    dense = decode(as_bytes(quarn.synthetic(name, 96, 4096, 0.5)), name, 4096)
    assert dense.shape == (96, 4096)
    slack = 0.03 if name in BLOCK_BYTES else 0.01  # two bits lose some of the deviation
    assert abs(dense.std() - 0.5) < slack and abs(dense.mean()) < 0.01
