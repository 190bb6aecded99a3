"""Packing dense weights into the block formats, and back."""

from __future__ import annotations

import math
from typing import Callable

import torch
from torch import Tensor

from . import native
from .formats import FORMATS, Format, format_named

# What is packed at a time: enough to make starting the threads cheap, and seldom seconds of work.
PACKED_ELEMENTS = 1 << 20
# Small enough that a chunk and its scratch stay in a core's cache while it is decoded.
CHUNK_ELEMENTS = 1 << 16
# Columns count at least this much of the mean importance, so that those which the sample text never
# used are not rounded at will.
LEAST_IMPORTANCE = 1e-6


def pack(
    weight: Tensor, format: str, importance: Tensor | None = None, progress: Callable[[int], None] | None = None
) -> Tensor:
    """Packs a dense weight with the rounding that gives the least squared error found.

    weight: [output_size, state_size] on the CPU, of a floating-point type, with finite values;
    state_size is a multiple of the format's block. Returns a flat uint8 tensor.
    importance: [state_size], finite and not negative: how much the squared errors of each column
    count, best the mean square of its activations (`collect_importance`). For iq2_xxs and q2_k.
    `progress` is called with the number of weights packed since its last call.
    Raises TypeError or ValueError where one of this does not hold. Uses every CPU of the process.
    """
    entry = format_named(format)
    _check_weight(weight, entry)
    factors = None if importance is None else _factors(importance, weight.shape[1], entry)
    rows, state_size = weight.shape
    packed = torch.empty(entry.packed_bytes(rows, state_size), dtype=torch.uint8)
    values, scales = zones(packed, entry)
    row_blocks = state_size // entry.block_elements
    step = max(1, PACKED_ELEMENTS // state_size)
    for start in range(0, rows, step):
        part = weight.detach()[start : start + step].float().contiguous()
        _check_elements(native.largest(part), entry)
        blocks = slice(start * row_blocks, (start + len(part)) * row_blocks)
        native.encode(format, part, entry.block_elements, factors, values[blocks], scales[blocks])
        if progress is not None:
            progress(part.numel())
    return packed


def unpack(packed: Tensor, format: str, state_size: int, dtype: torch.dtype = torch.float32) -> Tensor:
    """The dense weight [output_size, state_size] that a packed tensor stands for.

    packed: flat uint8 tensor of a whole number of rows, as `pack` returns. The values are
    computed in float and then converted to `dtype`.
    """
    entry = format_named(format)
    _check_packed(packed, entry, state_size)
    values, scales = zones(packed.cpu().contiguous(), entry)
    weight = torch.empty(len(values), entry.block_elements, dtype=dtype)
    step = CHUNK_ELEMENTS // entry.block_elements
    for start in range(0, len(values), step):
        part = slice(start, start + step)
        weight[part] = entry.decode(values[part], scales[part].clone())
    return weight.view(-1, state_size).to(packed.device)


def zones(packed: Tensor, entry: Format) -> tuple[Tensor, Tensor]:
    """Views of the value zone and the scale zone, one row per block."""
    blocks = packed.numel() // entry.block_bytes
    values, scales = packed.split([blocks * entry.value_bytes, blocks * entry.scale_bytes])
    return values.view(blocks, entry.value_bytes), scales.view(blocks, entry.scale_bytes)


def _check_weight(weight: Tensor, entry: Format) -> None:
    if not weight.is_floating_point():
        raise TypeError(f"weight must have a floating-point type, but has {weight.dtype}")
    if weight.dim() != 2:
        raise ValueError(f"weight must be [output_size, state_size], but has shape {list(weight.shape)}")
    if weight.device.type != "cpu":
        raise ValueError(f"weight must be on the CPU, but is on {weight.device}")
    _check_state_size(weight.shape[1], entry)


def _check_elements(largest: float, entry: Format) -> None:
    if not math.isfinite(largest):
        raise ValueError("weight must be finite in float, but has NaN or infinite elements")
    if largest > entry.limit:
        raise ValueError(
            f"{entry.name} holds weights up to {entry.limit:.0f}, because {entry.limited_by}, but "
            f"the weight has {largest:g}; scale the weight down"
        )


def _factors(importance: Tensor, state_size: int, entry: Format) -> Tensor:
    """The importance relative to its mean; all 1 where it is all 0."""
    if not entry.weighted:
        known = ", ".join(name for name, each in FORMATS.items() if each.weighted)
        raise ValueError(f"{entry.name} takes no importance; {known} do")
    if importance.shape != (state_size,):
        raise ValueError(
            f"importance must have shape [{state_size}], one number per column, but has {list(importance.shape)}"
        )
    wide = importance.detach().cpu().double()
    if not wide.isfinite().all() or (wide < 0).any():
        raise ValueError("importance must be finite and not negative")
    mean = wide.mean()
    if mean == 0:
        return torch.ones(state_size)
    return (wide / mean).clamp_(min=LEAST_IMPORTANCE).float()


def _check_packed(packed: Tensor, entry: Format, state_size: int) -> None:
    if packed.dtype != torch.uint8:
        raise TypeError(f"a packed weight must have type torch.uint8, but has {packed.dtype}")
    if packed.dim() != 1:
        raise ValueError(f"a packed weight must be flat, but has shape {list(packed.shape)}")
    _check_state_size(state_size, entry)
    row_bytes = entry.packed_bytes(1, state_size)
    if packed.numel() % row_bytes:
        raise ValueError(
            f"a row of {state_size} elements of {entry.name} takes {row_bytes} bytes, and "
            f"{packed.numel()} bytes are not a whole number of rows"
        )


def _check_state_size(state_size: int, entry: Format) -> None:
    if state_size <= 0 or state_size % entry.block_elements:
        raise ValueError(
            f"state_size must be a positive multiple of {entry.block_elements} for {entry.name}, but is {state_size}"
        )
