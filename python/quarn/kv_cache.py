"""Keys and values of the tokens so far, for one sequence."""

from __future__ import annotations

from typing import Literal, Sequence, Union

import torch
from torch import Tensor
from torch.nn import functional as F

CacheKind = Literal["model", "half", "fp8"]
"""What keys and values are stored as: in the model's type, in half where that is float, or in bytes."""


class LayerCache:
    """One layer's, in the model's type: [1, kv_heads, capacity, head_dim]. `keys` and `values` are the filled rows."""

    def __init__(self, kv_heads: int, capacity: int, head_dim: int, device: torch.device, dtype: torch.dtype) -> None:
        shape = (1, kv_heads, capacity, head_dim)
        self.all_keys = torch.empty(shape, device=device, dtype=dtype)
        self.all_values = torch.empty(shape, device=device, dtype=dtype)
        self.cut(0)

    def cut(self, length: int) -> None:
        self.keys = self.all_keys[:, :, :length]
        self.values = self.all_values[:, :, :length]

    def begin(self, count: int) -> tuple[Tensor, Tensor]:
        """Where the keys and values of `count` more tokens are to be written, before `finish` or `attend`."""
        past = self.keys.shape[2]
        self.cut(past + count)
        return self.keys[:, :, past:], self.values[:, :, past:]

    def finish(self) -> tuple[Tensor, Tensor]:
        """All keys and values, the new ones too."""
        return self.keys, self.values

    def attend(self, query: Tensor) -> Tensor:
        """Attention of one token, [1, heads, 1, head_dim], to itself and all before it."""
        # The heads of a group are rows of one product: nothing is masked, and keys are read once.
        rows = query.view(1, self.keys.shape[1], -1, query.shape[-1])
        return F.scaled_dot_product_attention(rows, self.keys, self.values)


class _RoundingCache:
    """One layer's, that takes keys and values in the model's type and stores them in a smaller one."""

    def __init__(self, kv_heads: int, head_dim: int, device: torch.device, dtype: torch.dtype) -> None:
        # forward_qkv returns views of a row more than it writes.
        row = torch.empty(2, 1, kv_heads, 2, head_dim, device=device, dtype=dtype)
        self._row = row[0, :, :, :1], row[1, :, :, :1]
        self._new = self._row

    def begin(self, count: int) -> tuple[Tensor, Tensor]:
        """As of LayerCache."""
        keys, values = self._row
        if count > 1:
            shape = (1, keys.shape[1], count, keys.shape[3])
            keys, values = keys.new_empty(shape), keys.new_empty(shape)
        self._new = keys, values
        return self._new


class HalfLayerCache(_RoundingCache):
    """One layer's in half, for a model in another type."""

    def __init__(self, kv_heads: int, capacity: int, head_dim: int, device: torch.device, dtype: torch.dtype) -> None:
        super().__init__(kv_heads, head_dim, device, dtype)
        self.stored = LayerCache(kv_heads, capacity, head_dim, device, torch.float16)

    def cut(self, length: int) -> None:
        self.stored.cut(length)

    def _append(self) -> None:
        for stored, new in zip(self.stored.begin(self._new[0].shape[2]), self._new):
            stored.copy_(new)

    def finish(self) -> tuple[Tensor, Tensor]:
        """All keys and values in the model's type, the new ones too, rounded."""
        self._append()
        keys, values = self.stored.finish()
        return keys.to(self._row[0].dtype), values.to(self._row[0].dtype)

    def attend(self, query: Tensor) -> Tensor:
        """As of LayerCache."""
        self._append()
        return self.stored.attend(query.half()).to(query.dtype)


class Fp8LayerCache(_RoundingCache):
    """One layer's in bytes, for heads of 128 elements, on `xpu`."""

    def __init__(self, kv_heads: int, capacity: int, device: torch.device, dtype: torch.dtype) -> None:
        from .fp8_cache import HEAD_DIM, FP8Cache  # with tolvane, which needs the device

        super().__init__(kv_heads, HEAD_DIM, device, dtype)
        self._bytes = FP8Cache(1, kv_heads, capacity, device)

    def cut(self, length: int) -> None:
        self._bytes.length = length

    def finish(self) -> tuple[Tensor, Tensor]:
        """As of HalfLayerCache."""
        from .fp8_cache import decode_fp8

        cache, dtype = self._bytes, self._row[0].dtype
        cache.append(*self._new)
        keys, values = cache.keys[:, :, : cache.length], cache.values[..., : cache.length]
        return decode_fp8(keys).to(dtype), decode_fp8(values).to(dtype).transpose(2, 3)

    def attend(self, query: Tensor) -> Tensor:
        """As of LayerCache."""
        self._bytes.append(*self._new)
        return self._bytes.attend(query)


AnyLayerCache = Union[LayerCache, HalfLayerCache, Fp8LayerCache]


class Cache:
    """All layers' keys and values. `length` positions are filled, of `capacity`."""

    def __init__(self, layers: Sequence[AnyLayerCache], capacity: int) -> None:
        self.layers, self.capacity, self.length = layers, capacity, 0

    def check_room(self, count: int) -> None:
        """ValueError where `count` more positions do not fit."""
        if self.length + count > self.capacity:
            raise ValueError(f"the cache holds {self.capacity} positions, but {self.length + count} are needed")

    def cut(self, length: int) -> None:
        """Forgets all positions from `length` on."""
        if not 0 <= length <= self.length:
            raise ValueError(f"the cache has {self.length} positions, not {length}")
        self.length = length
        for layer in self.layers:
            layer.cut(length)
