"""Keys and values of the tokens so far, for one sequence."""

from __future__ import annotations

import torch


class LayerCache:
    """One layer's, in the model's type: [1, kv_heads, capacity, head_dim]. `keys` and `values` are the filled rows."""

    def __init__(
        self, kv_heads: int, capacity: int, head_dim: int, device: torch.device, dtype: torch.dtype
    ) -> None:
        shape = (1, kv_heads, capacity, head_dim)
        self.all_keys = torch.empty(shape, device=device, dtype=dtype)
        self.all_values = torch.empty(shape, device=device, dtype=dtype)
        self.cut(0)

    def cut(self, length: int) -> None:
        self.keys = self.all_keys[:, :, :length]
        self.values = self.all_values[:, :, :length]


class Cache:
    """All layers' keys and values. `length` positions are filled, of `capacity`."""

    def __init__(self, layers: list[LayerCache], capacity: int) -> None:
        self.layers, self.capacity, self.length = layers, capacity, 0

    def check_room(self, count: int) -> None:
        """ValueError where `count` more positions do not fit."""
        if self.length + count > self.capacity:
            raise ValueError(
                f"the cache holds {self.capacity} positions, but {self.length + count} are needed"
            )

    def cut(self, length: int) -> None:
        """Forgets all positions from `length` on."""
        if not 0 <= length <= self.length:
            raise ValueError(f"the cache has {self.length} positions, not {length}")
        self.length = length
        for layer in self.layers:
            layer.cut(length)
