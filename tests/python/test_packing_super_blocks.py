"""How well q2_k and iq2_xxs are packed, with and without an importance of columns."""

from __future__ import annotations

import numpy as np
import pytest
import torch

import quarn
from reference import decode
from super_block_reference import BLOCK_BYTES, GRID, SIGNS


def packed_and_decoded(
    weight: np.ndarray, name: str, importance: np.ndarray | None = None
) -> tuple[np.ndarray, np.ndarray]:
    """The records, [blocks, bytes], and what they stand for."""
    factors = None if importance is None else torch.from_numpy(importance)
    raw = quarn.pack(torch.from_numpy(weight), name, factors).numpy()
    return raw.reshape(-1, BLOCK_BYTES[name]), decode(raw.tobytes(), name, weight.shape[1])


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


@pytest.mark.parametrize(
    ("name", "normal", "shares"),
    [
        ("q2_k", 0.068, (0.075, 0.06, 0.012, 0.0035, 0.026, 0.067)),
        ("iq2_xxs", 0.109, (0.115, 0.31, 0.09, 0.1, 0.41, 0.13)),
    ],
)
def test_error_next_to_the_weights(name: str, normal: float, shares: tuple[float, ...]) -> None:
    """Of many normal weights, and of a row of each kind: well below that of rounding to even steps."""
    many = np.random.default_rng(0).normal(size=(96, 1024)).astype(np.float32)
    for weight, bound in ((many.reshape(1, -1), normal), (samples(2), shares)):
        _, decoded = packed_and_decoded(weight, name)
        assert (((decoded - weight) ** 2).sum(1) <= bound * (weight**2).sum(1)).all()


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
