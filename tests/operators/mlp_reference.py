"""The last step of the fused MLP in plain numpy."""

from __future__ import annotations

import numpy as np

from arithmetic import Arithmetic


def gated(gate: np.ndarray, up: np.ndarray, t: Arithmetic) -> np.ndarray:
    """silu(gate) * up: in float and then to T; for double the sigmoid's quotient in float, the product in double."""
    g = gate.astype(np.float32)
    divisor = np.float32(1) + np.exp(-g)
    if t.name == "float64":
        return up * (g / divisor).astype(np.float64)
    return t.to(g * up.astype(np.float32) / divisor)
