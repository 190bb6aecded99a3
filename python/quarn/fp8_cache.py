"""A key and value cache of one byte per element, and decoding attention against it."""

from __future__ import annotations

from functools import lru_cache

import torch
import tolvane
from torch import Tensor

HEAD_DIM = 128
ATTENTION_TYPES = (torch.float32, torch.float16, torch.bfloat16)
_LARGEST = 0x7B
_NAN = 0x7F


def decode_fp8(code: Tensor) -> Tensor:
    """The halves that cache bytes stand for: (byte << 8) | 0x80. No byte stands for 0."""
    bits = code.to(torch.int32) << 8 | 0x80
    return torch.where(bits < 0x8000, bits, bits - 0x10000).to(torch.int16).view(torch.float16)


@lru_cache(maxsize=None)
def _boundaries(dtype: torch.dtype, device: torch.device) -> Tensor:
    """Between which magnitudes the nearest byte changes; float32 holds them exactly."""
    magnitudes = decode_fp8(torch.arange(_LARGEST + 1)).to(dtype)
    return ((magnitudes[1:] + magnitudes[:-1]) / 2).to(device)


def encode_fp8(x: Tensor) -> Tensor:
    """The bytes (torch.uint8) whose decoded values are nearest; halfway cases go towards 0.

    Magnitudes above the largest value, 61440, become that; NaN becomes a NaN. Zeros keep their
    sign and become the smallest magnitude, 2^-17.
    """
    wide = x.double() if x.dtype == torch.float64 else x.float()
    magnitude = wide.abs().contiguous()
    code = torch.bucketize(magnitude, _boundaries(wide.dtype, wide.device))
    code = torch.where(torch.isnan(wide), _NAN, code)
    return (code | torch.signbit(wide).int() << 7).to(torch.uint8)


class FP8Cache:
    """Keys and values of one layer as tolvane's attention operators read them.

    keys: [batch, kv_heads, capacity, 128]; values, transposed: [batch, kv_heads, 128, capacity].
    `length` positions are filled.
    """

    def __init__(self, batch: int, kv_heads: int, capacity: int, device: torch.device | str = "xpu") -> None:
        def empty(*shape: int) -> Tensor:
            return torch.empty(shape, dtype=torch.uint8, device=device)

        self.keys = empty(batch, kv_heads, capacity, HEAD_DIM)
        self.values = empty(batch, kv_heads, HEAD_DIM, capacity)
        self.length = 0

    @property
    def capacity(self) -> int:
        return self.keys.shape[2]

    def append(self, keys: Tensor, values: Tensor) -> None:
        """Rounds and stores new positions: keys and values [batch, kv_heads, positions, 128].

        TypeError where they hold no floating-point numbers, ValueError where their shape does not
        fit, or the cache is full.
        """
        batch, kv_heads = self.keys.shape[:2]
        for name, x in (("keys", keys), ("values", values)):
            if not x.dtype.is_floating_point:
                raise TypeError(f"{name} must hold floating-point numbers, but hold {x.dtype}")
            fits = x.dim() == 4 and (*x.shape[:2], x.shape[3]) == (batch, kv_heads, HEAD_DIM)
            if not fits or x.shape != keys.shape:
                raise ValueError(
                    f"{name} must have shape [{batch}, {kv_heads}, positions, {HEAD_DIM}], but have {list(x.shape)}"
                )
        end = self.length + keys.shape[2]
        if end > self.capacity:
            raise ValueError(f"the cache holds {self.capacity} positions, but {end} are needed")
        self.keys[:, :, self.length : end] = encode_fp8(keys)
        self.values[:, :, :, self.length : end] = encode_fp8(values).transpose(2, 3)
        self.length = end

    def attend(self, query: Tensor, scale: float = HEAD_DIM**-0.5) -> Tensor:
        """Attention of one new token to all stored positions.

        query: [batch, heads, 1, 128] of float, half or bfloat16, else TypeError; kv_heads divides
        heads. Returns the same shape and type. The softmax is made in float.
        """
        if query.dtype not in ATTENTION_TYPES:
            raise TypeError(f"query must be of float, half or bfloat16, but is of {query.dtype}")
        scores = tolvane.query_key_fp8_matmul(query * scale, self.keys[:, :, : self.length])
        weights = torch.softmax(scores, -1, dtype=torch.float32).to(query.dtype)
        return tolvane.attn_value_fp8_matmul(weights, self.values[..., : self.length])
