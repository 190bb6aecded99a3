"""One activation row times packed rows, in the stated order of operations, in plain numpy."""

from __future__ import annotations

import numpy as np

from arithmetic import Arithmetic
from packed import Weight


def _sum_tile(inputs: np.ndarray, t: Arithmetic, by_byte: bool) -> np.ndarray:
    """The activations of each tile added up: in order, or the two of a byte first."""
    total = np.zeros(len(inputs), inputs.dtype)
    for k in range(0, inputs.shape[1], 2):
        if by_byte:
            total = t.add(total, t.add(inputs[:, k], inputs[:, k + 1]))
        else:
            total = t.add(t.add(total, inputs[:, k]), inputs[:, k + 1])
    return total


def dot_rows(x: np.ndarray, weight: Weight, t: Arithmetic, group: int, by_byte: bool = False) -> np.ndarray:
    """The rows of `weight` times x as a work-group of `group` work-items sums them: each takes every group-th tile,
    adds up a tile's products in order, scales that sum into its accumulator; then the tree. A multiply and the add
    after it round once."""
    form = weight.format
    if form.order is None:
        return _dot_five_bit_rows(x, weight, t, group)
    tiles_per_block, tile = form.order.shape
    rows, tiles = len(weight.values), weight.state // tile
    columns = (np.arange(0, weight.state, 64)[:, None, None] + form.order).reshape(tiles, tile)
    values = t.to(weight.decoded())[:, columns]  # [rows, tiles, tile]
    block = np.arange(tiles) // tiles_per_block
    inputs = t.to(x)[columns]

    total = t.mul(inputs[:, 0], values[:, :, 0])
    for k in range(1, tile):
        total = t.mad(inputs[:, k], values[:, :, k], total)
    d = t.to(weight.scales[:, block, 0])
    if form.minimum:
        m = t.to(weight.scales[:, block, 1])
        total = t.mad(total, d, t.mul(_sum_tile(inputs, t, by_byte), m))
    entries = np.zeros((rows, group), total.dtype)
    for first in range(0, tiles, group):
        part = slice(first, min(first + group, tiles))
        own = entries[:, : part.stop - first]
        scaled = form.reads_scale and not form.minimum
        own[:] = t.mad(total[:, part], d[:, part], own) if scaled else t.add(own, total[:, part])
    return t.tree(entries)


def _dot_five_bit_rows(x: np.ndarray, weight: Weight, t: Arithmetic, group: int) -> np.ndarray:
    """Work-item l keeps to byte l % 32 of blocks l // 32, l // 32 + group // 32, …: its two products are added first."""
    rows, blocks = len(weight.values), weight.state // 64
    code = weight.decoded().reshape(rows, blocks, 2, 32)
    d, m = (t.to(weight.scales[:, :, i])[:, :, None, None] for i in (0, 1))
    elements = t.mul(d, t.to(code))
    if weight.format.minimum:
        elements = t.add(elements, m)  # rounds twice even where the sums contract
    inputs = t.to(x).reshape(blocks, 2, 32)
    both = t.mad(elements[:, :, 1], inputs[:, 1], t.mul(elements[:, :, 0], inputs[:, 0]))
    entries = np.zeros((rows, group), both.dtype)
    for first in range(0, blocks, group // 32):
        part = both[:, first : first + group // 32].reshape(rows, -1)
        entries[:, : part.shape[1]] = t.add(entries[:, : part.shape[1]], part)
    return t.tree(entries)


def dense(weight: Weight, t: Arithmetic) -> np.ndarray:
    """The elements as a dense matrix holds them, [rows, state]."""
    value, d = weight.decoded(), weight.per_element(0)
    m = weight.per_element(weight.format.scales - 1)
    qtype = weight.format.qtype
    if not weight.format.reads_scale:
        return t.to(value)
    if qtype == 3:
        return t.add(t.mul(t.to(d), t.to(value)), t.to(m))
    if qtype == 7:  # contracted in float: the product is exact in double
        return t.to(np.float32(value * d + m))
    if qtype in (6, 11):  # in float, then once to T
        return t.to(np.float32(value) * np.float32(d))
    return t.mul(t.to(value), t.to(d))
