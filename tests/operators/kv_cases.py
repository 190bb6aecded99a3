"""The calls of the FP8 attention operators that tests make, and a script that makes them: kv_cases.py OUT."""

from __future__ import annotations

import sys
from dataclasses import dataclass

import numpy as np

TYPES = ("float32", "float16", "bfloat16")


@dataclass(frozen=True)
class Case:
    """`spare` positions and one spare head and batch entry lie behind those that are used: strides are not shapes'."""

    type: str
    batch: int
    heads: int
    kv_heads: int
    length: int
    head_dim: int = 128
    spare: int = 0
    nans: bool = False

    @property
    def name(self) -> str:
        return "-".join(str(value) for value in vars(self).values())


CASES = [
    Case(dtype, *sizes, **more)
    for dtype in TYPES
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


def data(case: Case) -> tuple[np.ndarray, np.ndarray, np.ndarray, np.ndarray]:
    """query, attn, key bytes, value bytes, with spare room; values that every element type can hold."""
    random = np.random.default_rng(case.length + case.heads)
    b, h, kv = case.batch + 1, case.heads + 1, case.kv_heads + 1
    query = np.round(random.standard_normal((b, h, 1, 128)) * 16) / 16
    attn = np.round(random.random((b, h, 1, case.length + case.spare)) * 128) / 128

    def cache(*shape: int) -> np.ndarray:
        magnitude = random.integers(0, 0x60, shape, dtype=np.uint8)
        if case.nans:
            magnitude[..., 5::17] = 0x7C
        return magnitude | random.integers(0, 2, shape, dtype=np.uint8) << 7

    key = cache(b, kv, case.length + case.spare, 128)
    value = cache(b, kv, case.head_dim, case.length + case.spare)
    return query.astype(np.float32), attn.astype(np.float32), key, value


def run(case: Case) -> dict[str, np.ndarray]:
    import torch
    import tolvane

    def on_xpu(x: np.ndarray, heads: int, positions: slice, dimension: int) -> torch.Tensor:
        tensor = torch.from_numpy(x)
        tensor = (tensor if x.dtype == np.uint8 else tensor.to(getattr(torch, case.type))).to("xpu")
        part = [slice(case.batch), slice(heads), slice(None), slice(None)]
        part[dimension] = positions
        return tensor[tuple(part)]

    query, attn, key, value = data(case)
    used = slice(case.length)
    results = {}
    if case.head_dim == 128:
        results["scores"] = tolvane.query_key_fp8_matmul(
            on_xpu(query, case.heads, slice(None), 2), on_xpu(key, case.kv_heads, used, 2)
        )
        assert results["scores"].shape == (case.batch, case.heads, 1, case.length)
    results["mixed"] = tolvane.attn_value_fp8_matmul(
        on_xpu(attn, case.heads, used, 3), on_xpu(value, case.kv_heads, used, 3)
    )
    assert results["mixed"].shape == (case.batch, case.heads, 1, case.head_dim)
    assert all(x.dtype == getattr(torch, case.type) and x.device.type == "xpu" for x in results.values())
    return {f"{case.name} {key}": x.cpu().float().numpy() for key, x in results.items()}


if __name__ == "__main__":
    saved: dict[str, np.ndarray] = {}
    for case in CASES:
        saved.update(run(case))
    np.savez(sys.argv[1], **saved)
