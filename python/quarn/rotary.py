"""Rotary embedding of queries and keys by tables."""

from __future__ import annotations

import torch
from torch import Tensor


def rotate(x: Tensor, sines: Tensor, cosines: Tensor) -> Tensor:
    """Turns each pair (x[i], x[i + head_dim / 2]) by its angle. x: [..., positions, head_dim]."""
    low, high = x.chunk(2, dim=-1)
    return x * cosines + torch.cat([-high, low], dim=-1) * sines


def rotate_into(
    queries: Tensor, keys: Tensor, tables: tuple[Tensor, Tensor], turned_queries: Tensor, turned_keys: Tensor
) -> None:
    """`rotate` of both, [1, heads, positions, head_dim], into the last two; by the operator on `xpu`.

    tables: sines and cosines, [1, 1, positions, head_dim].
    """
    if queries.device.type == "xpu":
        import tolvane  # only where there is an xpu device, which tolvane itself registers

        tolvane.apply_rotary_embedding_half_q_and_k_cache_freq(queries, keys, *tables, turned_queries, turned_keys)
    else:
        turned_queries.copy_(rotate(queries, *tables))
        turned_keys.copy_(rotate(keys, *tables))
