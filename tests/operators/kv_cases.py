"""The calls of the FP8 attention operators that are compared everywhere, and what they must give."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import torch
import tolvane
from numpy.testing import assert_array_equal

import arithmetic
from cases import Case, Results, on_xpu
from packed import FORMATS


def lane_sums(products: np.ndarray, t: arithmetic.Arithmetic) -> np.ndarray:
    """32 work-items add up every 32nd of the last dimension, then the first adds up theirs; each sum rounds."""
    spare = -products.shape[-1] % 32
    padded = np.pad(products, [(0, 0)] * (products.ndim - 1) + [(0, spare)])
    steps = padded.reshape(*products.shape[:-1], padded.shape[-1] // 32, 32)
    return t.total(np.moveaxis(t.total(np.moveaxis(steps, -2, 0)), -1, 0))


@dataclass(frozen=True)
class Attention(Case):
    """`spare` positions and one spare head and batch entry lie behind those that are used: strides are not shapes'."""

    type: str
    batch: int
    heads: int
    kv_heads: int
    length: int
    head_dim: int = 128
    spare: int = 0
    nans: bool = False

    def data(self) -> dict[str, tuple[np.ndarray, np.ndarray]]:
        """Of each product the activations and the cache bytes, with spare room behind; values that every element type
        can hold."""
        random = np.random.default_rng(self.length + self.heads)
        b, h, kv = self.batch + 1, self.heads + 1, self.kv_heads + 1
        length = self.length + self.spare
        query = np.round(random.standard_normal((b, h, 1, 128), np.float32) * 16) / 16
        attn = np.round(random.random((b, h, 1, length), np.float32) * 128) / 128

        def cache(*shape: int) -> np.ndarray:
            magnitude = random.integers(0, 0x60, shape, dtype=np.uint8)
            if self.nans:
                magnitude[..., 5::17] = 0x7C
            return magnitude | random.integers(0, 2, shape, dtype=np.uint8) << 7

        scores = {"scores": (query, cache(b, kv, length, 128))} if self.head_dim == 128 else {}
        return scores | {"mixed": (attn, cache(b, kv, self.head_dim, length))}

    def used(self, name: str, x, w) -> tuple:
        """What of the activations and the cache an operator gets."""
        used = slice(self.length)
        x, w = x[: self.batch, : self.heads], w[: self.batch, : self.kv_heads]
        return (x, w[:, :, used]) if name == "scores" else (x[..., used], w[..., used])

    def run(self) -> dict[str, torch.Tensor]:
        operators = {"scores": tolvane.query_key_fp8_matmul, "mixed": tolvane.attn_value_fp8_matmul}
        results = {}
        for name, (x, w) in self.data().items():
            x, w = on_xpu(x, self.type), on_xpu(w)
            results[name] = operators[name](*self.used(name, x, w))
            size = self.length if name == "scores" else self.head_dim
            assert results[name].shape == (self.batch, self.heads, 1, size)
            assert results[name].dtype == self.dtype
        return results

    @np.errstate(over="ignore", invalid="ignore")
    def check(self, results: Results, group: int = 32) -> None:
        t = self.t
        for name, pair in self.data().items():
            x, w = self.used(name, *pair)
            w = FORMATS["fp8_e5m2"].levels[np.repeat(w, self.heads // self.kv_heads, axis=1)]
            exact, actual = x * w, results[name][:, :, 0]
            if self.type == "float32":
                bound = (self.length / 32 + 40) * t.unit * np.abs(exact).sum(-1)
                difference = np.abs(actual - exact.sum(-1))
                assert_array_equal(np.isnan(actual), np.isnan(difference))
                assert np.all((difference <= bound) | np.isnan(actual))
            else:  # products are exact in float, so that they round once
                assert_array_equal(actual, lane_sums(t.to(exact.astype(np.float32)), t))


CASES = [
    Attention(dtype, *sizes, **more)
    for dtype in ("float32", "float16", "bfloat16")
    for sizes, more in (
        *(((1, 2, 2, length), {}) for length in (0, 1, 31, 32, 33, 1000)),
        ((1, 4, 2, 4096), {}),
        ((2, 8, 2, 70), {"spare": 3}),
        ((2, 3, 1, 40), {"spare": 24}),
        ((1, 2, 1, 33), {"nans": True}),
        ((0, 2, 1, 5), {}),
        ((1, 2, 1, 50), {"head_dim": 4}),
        ((2, 4, 2, 64), {"head_dim": 20, "spare": 1}),
    )
]
