"""Rotary calls that tests compare between processes, and a script that makes them: rope_cases.py OUT."""

from __future__ import annotations

import sys
from dataclasses import dataclass

import numpy as np
import torch

TYPES = ("float16", "float32", "float64", "bfloat16")
SIZES = (2, 6, 8, 40, 64, 66, 128, 256)


@dataclass(frozen=True)
class Case:
    type: str
    size: int
    batch: int = 2
    q_heads: int = 4
    k_heads: int = 1
    tokens: int = 3

    @property
    def name(self) -> str:
        return f"{self.type}-{self.size}"

    def tensors(self) -> tuple[torch.Tensor, torch.Tensor, torch.Tensor]:
        """q, k and position_ids, on the CPU."""
        random = np.random.default_rng(self.size)
        shapes = [(self.batch, heads, self.tokens, self.size) for heads in (self.q_heads, self.k_heads)]
        q, k = (torch.from_numpy(random.standard_normal(s)).to(getattr(torch, self.type)) for s in shapes)
        return q, k, torch.from_numpy(random.integers(0, 131072, (self.batch, self.tokens)))


CASES = [Case(dtype, size) for dtype in TYPES for size in SIZES]


def tables(case: Case) -> tuple[torch.Tensor, torch.Tensor]:
    """Sines and cosines [1, 1, tokens, size] of random angles; the second halves, which nothing reads, are others."""
    angle = torch.from_numpy(np.random.default_rng(5).uniform(-3, 3, (1, 1, case.tokens, case.size)))
    return angle.sin().to(getattr(torch, case.type)), angle.cos().to(getattr(torch, case.type))


def by_position(case: Case) -> tuple[torch.Tensor, torch.Tensor]:
    import tolvane

    q, k, positions = (tensor.to("xpu") for tensor in case.tensors())
    q_out, k_out = torch.full_like(q, 7), torch.full_like(k, 7)
    assert tolvane.apply_rotary_embedding_half_q_and_k(q, k, positions, q_out, k_out) is None
    return q_out, k_out


def by_tables(case: Case) -> tuple[torch.Tensor, torch.Tensor]:
    import tolvane

    q, k, _ = (tensor.to("xpu") for tensor in case.tensors())
    q_out, k_out = torch.full_like(q, 7), torch.full_like(k, 7)
    sine, cosine = (table.to("xpu") for table in tables(case))
    tolvane.apply_rotary_embedding_half_q_and_k_cache_freq(q, k, sine, cosine, q_out, k_out)
    return q_out, k_out


if __name__ == "__main__":
    results = {}
    for case in CASES:
        for kind, run in (("position", by_position), ("tables", by_tables)):
            for which, out in zip("qk", run(case)):
                results[f"{kind}-{which}-{case.name}"] = out.cpu().double().numpy()
    np.savez(sys.argv[1], **results)
