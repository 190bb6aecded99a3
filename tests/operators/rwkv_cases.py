"""The calls of the RWKV operators that tests make, and a script that makes them: rwkv_cases.py OUT."""

from __future__ import annotations

import sys

import numpy as np
import torch

import tolvane

# Types of the activations and of the parameters.
PAIRS = [("float32", "bfloat16"), ("float32", "float32"), ("bfloat16", "bfloat16"), ("float16", "float16")]
V4_SIZES = [(2, 0, 32), (1, 1, 32), (2, 64, 96)]  # B, T, C
V5_SIZES = [(1, 2, 0), (2, 1, 1), (1, 3, 64)]  # B, H, T
SHIFT_SIZES = [(0, 1, 2, 64), (1, 2, 1, 64), (5, 2, 3, 192), (3, 1, 0, 64)]  # M, B, T, C


def numbers(seed: int, *shape: int, scale: float = 1.0) -> np.ndarray:
    """Values that every element type can hold."""
    values = np.random.default_rng(seed).standard_normal(shape) * scale
    return (np.round(values * 32) / 32).astype(np.float32)


def v4_data(batch: int, tokens: int, channels: int) -> list[np.ndarray]:
    """time_decay, time_first, key, value, num, den, max; some running exponents are far below."""
    w = -np.abs(numbers(1, channels)) - np.float32(1 / 32)
    u = numbers(2, channels)
    k, v = (numbers(seed, batch, tokens, channels, scale=2) for seed in (3, 4))
    num, den, top = (numbers(seed, batch, channels) for seed in (5, 6, 7))
    top[:, ::3] = -4096
    return [w, u, k, v, num, np.abs(den), top]


def v5_data(batch: int, heads: int, tokens: int) -> list[np.ndarray]:
    """time_decay, time_first, receptance, key, value, state."""
    w = np.exp(-np.exp(numbers(1, heads, 64))).astype(np.float32)
    rkv = [numbers(seed, batch, heads, tokens, 64) for seed in (3, 4, 5)]
    return [w, numbers(2, heads, 64), *rkv, numbers(6, batch, heads, 64, 64)]


def shift_data(mixes: int, batch: int, tokens: int, channels: int) -> list[np.ndarray]:
    """hidden, shifted, mix, which begins with 0 and 1."""
    mix = np.round(np.random.default_rng(3).random((mixes, 1, channels)) * 128).astype(np.float32) / 128
    mix[:2] = np.arange(min(mixes, 2))[:, None, None]
    return [numbers(1, batch, tokens, channels), numbers(2, batch, tokens, channels), mix]


def on_xpu(x: np.ndarray, dtype: str) -> torch.Tensor:
    return torch.from_numpy(x).to("xpu", getattr(torch, dtype))


def results() -> dict[str, np.ndarray]:
    """Outputs and states of all cases, by "operator types sizes part"."""
    saved: dict[str, torch.Tensor] = {}
    for activations, parameters in PAIRS:
        for sizes in V4_SIZES:
            w, u, *rest = v4_data(*sizes)
            tensors = [on_xpu(x, activations) for x in rest]
            out = tolvane.rwkv_linear_attention_v4(on_xpu(w, parameters), on_xpu(u, parameters), *tensors)
            for part, x in zip(("out", "num", "den", "max"), (out, *tensors[2:])):
                saved[f"v4 {activations} {parameters} {sizes} {part}"] = x
        for sizes in SHIFT_SIZES:
            hidden, shifted, mix = shift_data(*sizes)
            saved[f"shift {activations} {parameters} {sizes}"] = tolvane.rwkv_time_shift(
                on_xpu(hidden, activations), on_xpu(shifted, activations), on_xpu(mix, parameters)
            )
    for sizes in V5_SIZES:
        tensors = [on_xpu(x, "float32") for x in v5_data(*sizes)]
        saved[f"v5 {sizes} out"] = tolvane.rwkv_linear_attention_v5(*tensors)
        saved[f"v5 {sizes} state"] = tensors[-1]
    return {name: x.cpu().float().numpy() for name, x in saved.items()}


if __name__ == "__main__":
    np.savez(sys.argv[1], **results())
