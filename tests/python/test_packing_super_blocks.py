"""How well q2_k and iq2_xxs are packed, with and without an importance of columns."""

from __future__ import annotations

import numpy as np
import pytest
import torch

import quarn
from reference import decode
from super_block_reference import BLOCK_BYTES, GRID, SIGNS

NAMES = sorted(BLOCK_BYTES)


def packed_and_decoded(
    weight: np.ndarray, name: str, importance: np.ndarray | None = None
) -> tuple[np.ndarray, np.ndarray]:
    """The records, [blocks, bytes], and what they stand for."""
    factors = None if importance is None else torch.from_numpy(importance)
    raw = quarn.pack(torch.from_numpy(weight), name, factors).numpy()
    return raw.reshape(-1, BLOCK_BYTES[name]), decode(raw.tobytes(), name, weight.shape[1])


@pytest.mark.parametrize(("name", "bound"), [("q2_k", 0.068), ("iq2_xxs", 0.109)])
def test_error_on_normal_weights(name: str, bound: float) -> None:
    weight = np.random.default_rng(0).normal(size=(96, 1024)).astype(np.float32)
    _, decoded = packed_and_decoded(weight, name)
    assert np.mean((decoded - weight) ** 2) <= bound * weight.var()


@pytest.mark.parametrize(("name", "share"), [("q2_k", 0.4), ("iq2_xxs", 0.4)])
def test_importance_lowers_the_weighted_error(name: str, share: float) -> None:
    """Its size does not matter, and columns without any keep their size."""
    generator = np.random.default_rng(1)
    weight = generator.normal(size=(32, 1024)).astype(np.float32)
    importance = np.exp(2 * generator.normal(size=1024)).astype(np.float32)
    importance[::50] = 0
    plain, weighted = (packed_and_decoded(weight, name, i)[1] for i in (None, importance))
    errors = [((decoded - weight) ** 2 * importance).sum() for decoded in (plain, weighted)]
    assert errors[1] < share * errors[0]
    assert np.mean((weighted - weight)[:, ::50] ** 2) < 2
    np.testing.assert_array_equal(packed_and_decoded(weight, name, 2**20 * importance)[1], weighted)
    even = np.full(1024, 3, np.float32)
    np.testing.assert_allclose(packed_and_decoded(weight, name, even)[1], plain, atol=1e-6)


def samples(seed: int) -> np.ndarray:
    """Rows of weights of several kinds."""
    generator = np.random.default_rng(seed)
    normal = generator.normal(size=(6, 512))
    normal[1] **= 3
    normal[2] = -np.abs(normal[2]) - 0.5
    normal[3] = np.abs(normal[3]) + 2
    normal[4] = np.where(generator.random(512) < 0.9, 0, normal[4])
    normal[5] *= np.repeat(np.exp2(np.arange(16) % 8), 32)
    return normal.astype(np.float32)


def test_q2_k_is_better_than_the_usual_rounding() -> None:
    """The lowest weight or 0 gets code 0 and the highest 3, with d and dmin from the largest of each."""
    weight = samples(2)
    _, decoded = packed_and_decoded(weight, "q2_k")
    parts = weight.reshape(-1, 16, 16)
    minimum = np.maximum(-parts.min(2), 0)
    scale = (np.maximum(parts.max(2), 0) + minimum) / 3
    d, dmin = (
        np.float16(x.max(1, keepdims=True) / 15).astype(np.float32) for x in (scale, minimum)
    )
    scale, minimum = (
        step * np.round(np.divide(x, step, out=np.zeros_like(x), where=step != 0)).clip(0, 15)
        for x, step in ((scale, d), (minimum, dmin))
    )
    safe = np.where(scale == 0, 1, scale)[..., None]
    codes = np.round((parts + minimum[..., None]) / safe).clip(0, 3)
    usual = (codes * scale[..., None] - minimum[..., None]).reshape(weight.shape)
    errors = [((x - weight) ** 2).reshape(-1, 256).sum(1) for x in (decoded, usual)]
    ratios = errors[0] / errors[1]
    assert (ratios <= 1).all() and ratios.mean() < 0.5
    assert (ratios[6:8] < 0.2).all()  # weights above 0, away from it


@pytest.mark.parametrize("weighted", [False, True])
def test_iq2_xxs_takes_the_best_grid_entry_and_signs(weighted: bool) -> None:
    """Of all entries and all patterns of signs, under the scale that the record has."""
    weight = samples(3)[:, :256].copy()
    generator = np.random.default_rng(4)
    importance = generator.uniform(0.1, 2, 256).astype(np.float32)
    records, decoded = packed_and_decoded(weight, "iq2_xxs", importance if weighted else None)
    factors = importance if weighted else np.ones(256)
    for row in range(len(weight)):
        d = records[row, :2].copy().view(np.float16)[0].astype(np.float64)
        for start in range(0, 256, 8):
            step = (records[row, 2 + start // 32 * 8 + 7] >> 4) + 0.5
            levels = step * d * 0.25 * GRID
            part = slice(start, start + 8)
            # sum w (x - s m)^2, for every entry and pattern
            x, w = weight[row, part].astype(np.float64), factors[part]
            errors = (w * x * x).sum() - 2 * levels @ (SIGNS * x * w).T + (levels**2 @ w)[:, None]
            chosen = (w * (decoded[row, part] - x) ** 2).sum()
            assert chosen <= errors.min() * (1 + 1e-6) + 1e-5 * (w * x * x).sum()


@pytest.mark.parametrize("name", NAMES)
def test_extreme_weights(name: str) -> None:
    """Zeros stay zeros, and what is too small for a half scale becomes nearly that."""
    weight = np.zeros((4, 256), np.float32)
    weight[1] = 1e-30
    weight[2, 3] = 1e-7
    weight[3] = np.logspace(-20, 4, 256)
    _, decoded = packed_and_decoded(weight, name)
    assert (decoded[0] == 0).all() and np.abs(decoded[1]).max() <= 1e-6
    assert np.abs(decoded[2]).max() <= 2e-6
    assert ((decoded[3] - weight[3]) ** 2).sum() < 0.2 * (weight[3] ** 2).sum()
