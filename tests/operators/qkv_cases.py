"""The calls of forward_qkv that are compared everywhere, and what they must give."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import torch
import tolvane
from numpy.testing import assert_array_equal

from cases import TYPES, Results, SummingCase, on_xpu
from matvec_reference import dot_rows
from packed import FUSED, Weight, random_weight
from rope_cases import check_turned, turns_at

UNTOUCHED = 7.0


@dataclass(frozen=True)
class Qkv(SummingCase):
    """The caches show `rows` rows of a buffer of `capacity`, in which the heads of a row stand side by side where it is
    `transposed`."""

    format: str
    type: str
    state: int
    heads: tuple[int, int]  # of queries; of keys and values
    head_dim: int
    position: int
    kv_length: int
    rows: int
    capacity: int
    transposed: bool = False

    def weights(self) -> dict[str, Weight]:
        heads = dict(zip(("query", "keys", "values"), (self.heads[0], *self.heads[1:] * 2)))
        return {
            name: random_weight(FUSED[self.format], count * self.head_dim, self.state, seed)
            for seed, (name, count) in enumerate(heads.items())
        }

    def cache(self) -> torch.Tensor:
        shape = (1, self.heads[1], self.capacity, self.head_dim)
        if self.transposed:
            shape = (1, self.capacity, self.heads[1], self.head_dim)
        cache = torch.full(shape, UNTOUCHED, device="xpu", dtype=self.dtype)
        return cache.transpose(1, 2) if self.transposed else cache

    def run(self) -> dict[str, torch.Tensor]:
        x = on_xpu(self.activations(1, self.state), self.type)
        packed = [on_xpu(w.bytes) for w in self.weights().values()]
        position = torch.tensor([[self.position, 5]]).to("xpu")  # only the first is read
        keys, values = self.cache(), self.cache()
        seen = [cache[:, :, : self.rows] for cache in (keys, values)]
        last = FUSED[self.format].qtype, self.kv_length, self.head_dim
        query, *grown = tolvane.forward_qkv(x, *packed, position, *seen, *last)
        assert query.shape == (1, self.heads[0], 1, self.head_dim) and query.dtype == x.dtype
        for view, cache in zip(grown, (keys, values)):
            assert view.data_ptr() == cache.data_ptr() and view.stride() == cache.stride()
            assert view.shape == (1, self.heads[1], self.rows + 1, self.head_dim)
        return {"query": query, "keys": keys, "values": values}

    def check(self, results: Results, group: int = 32) -> None:
        x = self.activations(1, self.state)[0].astype(np.float64)
        for name, weight in self.weights().items():
            sums = dot_rows(x, weight, self.t, group).astype(np.float64)
            actual, error = results[name], np.zeros_like(sums)
            if self.any_order:
                elements = weight.elements()[0]
                sums = elements @ x
                error = 2 * (self.state + 8) * self.t.unit * (np.abs(elements) @ np.abs(x))
            if name != "query":
                assert_array_equal(np.delete(actual, self.kv_length, axis=2), UNTOUCHED)
                actual = actual[:, :, [self.kv_length]]
            sums, error = (a.reshape(actual.shape) for a in (sums, error))
            if name == "values" or self.position == 0 and not self.any_order:
                assert np.all(np.abs(actual - sums) <= error)
            else:
                turns = turns_at(np.array([[self.position]]), self.head_dim)
                check_turned(actual, sums, *turns[:2], self.type, turns[2], error)


CASES = [
    Qkv(form, dtype, *sizes)
    for form in FUSED
    for dtype in TYPES
    for sizes in (
        (64, (2, 2), 64, 0, 0, 0, 1),  # the first token, in a buffer that it fills
        (192, (4, 1), 64, 3, 6, 6, 7),
        (576, (2, 1), 128, 131072, 4, 9, 12, True),  # amid the rows
        (1088, (1, 3), 6, 77, 11, 5, 12),  # behind the rows that are seen
    )
]
