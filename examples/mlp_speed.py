"""Time of one fused MLP of the size in a 7-billion-parameter model, next to dense PyTorch."""

from __future__ import annotations

import time
from statistics import median
from typing import Callable

import torch
from torch.nn import functional as F

import quarn

STATE, HIDDEN = 4096, 11008
TYPES = (torch.float32, torch.float16, torch.bfloat16, torch.float64)


def milliseconds(run: Callable[[], object]) -> float:
    """Wall-clock time of one call."""
    start = time.perf_counter()
    run()
    return 1e3 * (time.perf_counter() - start)


def alternate(ours: Callable[[], object], peer: Callable[[], object], rounds: int) -> list[float]:
    """Median milliseconds of both, called in turns after one unmeasured call of each."""
    ours(), peer()
    pairs = [(milliseconds(ours), milliseconds(peer)) for _ in range(rounds)]
    return [median(times) for times in zip(*pairs)]


def measure(rounds: int = 11) -> list[list[str]]:
    """Rows of a table: format, element type, packed MB, ms of the operator, ms dense, speed-up."""
    import tolvane

    torch.manual_seed(0)
    x = torch.randn(1, STATE)
    gate, up = torch.randn(HIDDEN, STATE), torch.randn(HIDDEN, STATE)
    rows = []
    for name in quarn.MLP_FORMATS:
        qtype = quarn.FORMATS[name].qtype
        packed = [quarn.synthetic(name, HIDDEN, STATE).to("xpu") for _ in range(2)]
        megabytes = sum(weight.numel() for weight in packed) / 1e6
        for dtype in TYPES:
            on_device = x.to(dtype).to("xpu")
            ours, dense = alternate(
                lambda: tolvane.mlp_forward_xpu(on_device, *packed, 1, STATE, HIDDEN, qtype),
                lambda: F.silu(F.linear(x, gate)) * F.linear(x, up),
                rounds,
            )
            kind = str(dtype).removeprefix("torch.")
            numbers = [f"{megabytes:.0f}", f"{ours:.2f}", f"{dense:.2f}", f"{dense / ours:.2f}"]
            rows.append([name, kind, *numbers])
    return rows
