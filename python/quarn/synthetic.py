"""Packed weights of random content, for measurements that need a size and not a meaning."""

from __future__ import annotations

import torch
from torch import Tensor

from .formats import format_named
from .packing import pack, zones

SAMPLE_BLOCKS = 4096


def synthetic(format: str, output_size: int, state_size: int, deviation: float = 0.02) -> Tensor:
    """A packed weight [output_size, state_size] whose blocks repeat a few thousand random ones.

    The dense values are normal with the given deviation. Packing a whole weight would take
    seconds at the size of a large model's layer. Draws from PyTorch's default generator.
    """
    entry = format_named(format)
    count = entry.packed_bytes(output_size, state_size) // entry.block_bytes
    sample = pack(torch.randn(SAMPLE_BLOCKS, entry.block_elements) * deviation, format)
    chosen = torch.arange(count) % SAMPLE_BLOCKS
    return torch.cat([zone[chosen].flatten() for zone in zones(sample, entry)])
