"""An embedding whose table is packed."""

from __future__ import annotations

from typing import Callable

import torch
from torch import Tensor, nn

from .formats import format_named
from .packing import pack, unpack


class QuantEmbedding(nn.Module):
    """Rows of a packed table [num_embeddings, embedding_dim] in q2_k, picked by their indices.

    The table is the flat uint8 buffer `packed`. On an `xpu` device the operator
    `tolvane.dequantize_rows` decodes the rows that are picked; elsewhere PyTorch does. The rows
    have the type of `to`, `half` and the like, at first `dtype`.
    """

    packed: Tensor
    like: Tensor

    def __init__(
        self, packed: Tensor, num_embeddings: int, embedding_dim: int, dtype: torch.dtype = torch.float32
    ) -> None:
        """packed: flat uint8, as `pack` returns; embedding_dim: a multiple of 256."""
        super().__init__()
        self.num_embeddings, self.embedding_dim = num_embeddings, embedding_dim
        self.format = format_named("q2_k")
        needed = self.format.packed_bytes(num_embeddings, embedding_dim)
        if embedding_dim % self.format.block_elements:
            raise ValueError(f"embedding_dim must be a multiple of 256, but is {embedding_dim}")
        if packed.dtype != torch.uint8 or packed.shape != (needed,):
            raise ValueError(
                f"packed must be {needed} bytes, {num_embeddings} rows of {embedding_dim} in "
                f"q2_k, but is {list(packed.shape)} of {packed.dtype}"
            )
        self.register_buffer("packed", packed)
        self.register_buffer("like", torch.empty(0, dtype=dtype), persistent=False)

    @classmethod
    def from_float(
        cls, embedding: nn.Embedding, importance: Tensor | None = None, progress: Callable[[int], None] | None = None
    ) -> QuantEmbedding:
        """Packs a dense embedding on the CPU, as `pack` does; it must not renormalize its rows."""
        if embedding.max_norm is not None:
            raise ValueError("an embedding with max_norm cannot be packed")
        packed = pack(embedding.weight, "q2_k", importance, progress)
        sizes = embedding.num_embeddings, embedding.embedding_dim
        return cls(packed, *sizes, embedding.weight.dtype)

    def forward(self, indices: Tensor) -> Tensor:
        """indices: of any shape, int64 or int32; returns [*indices.shape, embedding_dim]."""
        if indices.dtype not in (torch.int64, torch.int32):
            raise TypeError(f"indices must be torch.int64 or torch.int32, but are {indices.dtype}")
        flat = indices.reshape(1, -1).long()
        if indices.device.type == "xpu":
            import tolvane  # only where there is an xpu device, which tolvane itself registers

            rows = tolvane.dequantize_rows(flat.contiguous(), self.packed, self.format.qtype, self.embedding_dim)
        else:
            outside = flat[(flat < 0) | (flat >= self.num_embeddings)]
            if outside.numel():
                raise IndexError(f"index {outside[0]} is not in 0 to {self.num_embeddings - 1}")
            table = self.packed.view(self.num_embeddings, -1)
            rows = unpack(table[flat[0]].flatten(), "q2_k", self.embedding_dim)
        return rows.to(self.like.dtype).view(*indices.shape, self.embedding_dim)

    def extra_repr(self) -> str:
        return f"{self.num_embeddings}, {self.embedding_dim}, format=q2_k"
