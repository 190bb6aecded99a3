"""What the norms and rotary embedding are measured on."""

from __future__ import annotations

from typing import Callable, Iterator

import torch
from torch import Tensor
from torch.nn import functional as F

import tolvane
from harness import TYPES_AND_DOUBLE, Case

Call = Callable[[int], object]


def norm(quick: bool) -> Iterator[Case]:
    """Both norms, against PyTorch's in the same type."""
    for rows, n in ((1, 4096), (64, 4096)) if quick else ((1, 4096), (64, 1024), (64, 4096)):
        for kind, dtype in TYPES_AND_DOUBLE.items():
            x, weight, bias = torch.randn(rows, n), torch.randn(n), torch.randn(n)
            here = [t.to(dtype) for t in (x, weight, bias)]
            x, weight, bias = (t.to("xpu") for t in here)
            size = x.numel() * x.element_size()
            dense_layer: Call = lambda _, here=here: F.layer_norm(here[0], (n,), here[1], here[2])
            dense_rms: Call = lambda _, here=here: F.rms_norm(here[0], (n,), here[1], 1e-5)
            layer: Call = lambda _, x=x, weight=weight, bias=bias: tolvane.fused_layer_norm(
                x, weight.shape, weight, bias, 1e-5
            )
            rms: Call = lambda _, x=x, weight=weight: tolvane.fused_rms_norm(x, weight.shape, weight, None, 1e-5)
            yield Case("layer norm", f"{rows} x {n}", kind, "dense", size, layer, {"cpu": dense_layer})
            yield Case("rms norm", f"{rows} x {n}", kind, "dense", size, rms, {"cpu": dense_rms})


def composed_rotary(x: Tensor, sines: Tensor, cosines: Tensor) -> Tensor:
    """What models do without an operator of their own."""
    low, high = x.chunk(2, dim=-1)
    return x * cosines + torch.cat([-high, low], dim=-1) * sines


def rotary(quick: bool) -> Iterator[Case]:
    """q and k of 32 heads of 128, by position and by tables, against PyTorch's operators on tables."""
    for tokens in (128,) if quick else (1, 128):
        positions = torch.arange(tokens)[None]
        angles = positions[0, :, None] * 10000.0 ** (-torch.arange(64) / 64)
        angles = torch.cat([angles, angles], dim=-1)[None, None]
        for kind, dtype in TYPES_AND_DOUBLE.items():
            q, k = torch.randn(2, 1, 32, tokens, 128).to(dtype).unbind()
            tables = angles.sin().to(dtype), angles.cos().to(dtype)
            xq, xk, xp = q.to("xpu"), k.to("xpu"), positions.to("xpu")
            out = torch.empty_like(xq), torch.empty_like(xk)
            on_xpu = [table.to("xpu") for table in tables]
            size = 2 * q.numel() * q.element_size()
            peer: Call = lambda _, q=q, k=k, tables=tables: (composed_rotary(q, *tables), composed_rotary(k, *tables))
            ours: Call = lambda _, a=(xq, xk, xp, *out): tolvane.apply_rotary_embedding_half_q_and_k(*a)
            cached: Call = lambda _, a=(xq, xk, *on_xpu, *out): tolvane.apply_rotary_embedding_half_q_and_k_cache_freq(
                *a
            )
            yield Case("rotary", f"{tokens} x 128", kind, "positions", size, ours, {"cpu": peer})
            yield Case("rotary", f"{tokens} x 128", kind, "tables", size, cached, {"cpu": peer})


ENTRIES = [norm, rotary]
