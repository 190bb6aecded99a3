"""The fused MLP in the stated order of operations, in plain numpy."""

from __future__ import annotations

import numpy as np

from arithmetic import Arithmetic
from packed import Weight


def dot_rows(x: np.ndarray, weight: Weight, t: Arithmetic, group: int, contract: bool) -> np.ndarray:
    """The rows of `weight` times x as a work-group of `group` work-items sums them: each takes every group-th tile,
    adds up a tile's products in order, scales that sum into its accumulator; a tree then adds entry l + stride to l.
    `contract` rounds a multiply and the add after it once."""
    form = weight.format
    tiles_per_block, tile = form.order.shape
    rows, tiles = len(weight.values), weight.state // tile
    columns = (np.arange(0, weight.state, 64)[:, None, None] + form.order).reshape(tiles, tile)
    values = t.to(weight.decoded())[:, columns]  # [rows, tiles, tile]
    scales = t.to(weight.scales)[:, np.arange(tiles) // tiles_per_block]
    inputs = t.to(x)[columns]
    add_product = (
        t.mad if contract else (lambda a, b, c: t.add(t.mul(a, b), c))
    )

    total = t.mul(inputs[:, 0], values[:, :, 0])
    for k in range(1, tile):
        total = add_product(inputs[:, k], values[:, :, k], total)
    entries = np.zeros((rows, group), total.dtype)
    for first in range(0, tiles, group):
        part = slice(first, min(first + group, tiles))
        n = part.stop - part.start
        entries[:, :n] = add_product(total[:, part], scales[:, part], entries[:, :n])
    stride = group // 2
    while stride:
        entries[:, :stride] = t.add(entries[:, :stride], entries[:, stride : 2 * stride])
        stride //= 2
    return entries[:, 0]


def gated(gate: np.ndarray, up: np.ndarray, t: Arithmetic) -> np.ndarray:
    """silu(gate) * up: in float and then to T; for double the sigmoid's quotient in float, the product in double."""
    g = gate.astype(np.float32)
    divisor = np.float32(1) + np.exp(-g)
    if t.name == "float64":
        return up * (g / divisor).astype(np.float64)
    return t.to(g * up.astype(np.float32) / divisor)
