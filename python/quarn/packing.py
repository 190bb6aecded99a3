"""Packing dense weights into the block formats, and back."""

from __future__ import annotations

import torch
from torch import Tensor

from .formats import Format, format_named

# Small enough that a chunk and its scratch stay in a core's cache while scales are searched.
CHUNK_ELEMENTS = 1 << 16


def pack(weight: Tensor, format: str) -> Tensor:
    """Packs a dense weight with the rounding that gives the least squared error found.

    weight: [output_size, state_size] on the CPU, of a floating-point type, with finite values;
    state_size is a multiple of the format's block. Returns a flat uint8 tensor.
    Raises TypeError or ValueError where one of this does not hold.
    """
    entry = format_named(format)
    _check_weight(weight, entry)
    blocks = weight.detach().reshape(-1, entry.block_elements)
    packed = torch.empty(len(blocks) * entry.block_bytes, dtype=torch.uint8)
    values, scales = zones(packed, entry)
    step = CHUNK_ELEMENTS // entry.block_elements
    for start in range(0, len(blocks), step):
        chunk = blocks[start : start + step].float()
        if not chunk.isfinite().all():
            raise ValueError("weight must be finite in float, but has NaN or infinite elements")
        values[start : start + step], scales[start : start + step] = entry.encode(chunk)
    return packed


def unpack(
    packed: Tensor, format: str, state_size: int, dtype: torch.dtype = torch.float32
) -> Tensor:
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
        raise ValueError(
            f"weight must be [output_size, state_size], but has shape {list(weight.shape)}"
        )
    if weight.device.type != "cpu":
        raise ValueError(f"weight must be on the CPU, but is on {weight.device}")
    _check_state_size(weight.shape[1], entry)


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
            f"state_size must be a positive multiple of {entry.block_elements} for {entry.name}, "
            f"but is {state_size}"
        )
