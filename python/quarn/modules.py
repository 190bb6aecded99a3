"""Modules whose weights are packed and whose forward calls the operators of tolvane."""

from __future__ import annotations

import torch
from torch import Tensor, nn
from torch.nn import functional as F

from .formats import format_named
from .packing import pack, unpack


class QuantMLP(nn.Module):
    """A gated MLP, down(silu(gate(x)) * up(x)), with packed gate and up and a dense down.

    gate and up are flat uint8 buffers of `format`, each a weight [hidden_size, state_size].
    On an `xpu` device the operator `tolvane.mlp_forward_xpu` computes silu(gate) * up row by
    row; elsewhere PyTorch does, from weights unpacked for the call.
    """

    gate: Tensor
    up: Tensor

    def __init__(self, gate: Tensor, up: Tensor, down: nn.Linear, format: str) -> None:
        """down: [state_size, hidden_size]; it gives the sizes that gate and up must have."""
        super().__init__()
        self.format = format_named(format)
        self.state_size, self.hidden_size = down.out_features, down.in_features
        if self.hidden_size % 2:
            raise ValueError(f"the hidden size must be even, but is {self.hidden_size}")
        for name, packed in (("gate", gate), ("up", up)):
            needed = self.format.packed_bytes(self.hidden_size, self.state_size)
            if packed.dtype != torch.uint8 or packed.shape != (needed,):
                raise ValueError(
                    f"{name} must be {needed} bytes, {self.hidden_size} rows of "
                    f"{self.state_size} in {format}, but is {list(packed.shape)} of {packed.dtype}"
                )
            self.register_buffer(name, packed)
        self.down = down

    @classmethod
    def from_float(cls, mlp: nn.Module, format: str) -> QuantMLP:
        """Packs a dense MLP with linear layers `gate`, `up` and `down`, the first two unbiased.

        The linear layer `down` is shared with the dense MLP.
        """
        gate, up, down = (_linear(mlp, name) for name in ("gate", "up", "down"))
        for name, layer in (("gate", gate), ("up", up)):
            if layer.bias is not None:
                raise ValueError(f"{name} must have no bias, because the operator adds none")
        return cls(pack(gate.weight, format), pack(up.weight, format), down, format)

    def forward(self, x: Tensor) -> Tensor:
        """x: [..., state_size], of the type of down; returns the same shape."""
        if x.device.type != "xpu":
            gate, up = (
                unpack(packed, self.format.name, self.state_size, x.dtype)
                for packed in (self.gate, self.up)
            )
            return self.down(F.silu(F.linear(x, gate)) * F.linear(x, up))
        rows = x.reshape(-1, self.state_size)
        hidden = [self._operator(row) for row in rows.split(1)]
        return self.down(torch.cat(hidden)).view(x.shape)

    def _operator(self, row: Tensor) -> Tensor:
        import tolvane  # only where there is an xpu device, which tolvane itself registers

        sizes = (1, self.state_size, self.hidden_size)
        return tolvane.mlp_forward_xpu(row, self.gate, self.up, *sizes, self.format.qtype)

    def extra_repr(self) -> str:
        sizes = f"state_size={self.state_size}, hidden_size={self.hidden_size}"
        return f"{sizes}, format={self.format.name}"


def _linear(mlp: nn.Module, name: str) -> nn.Linear:
    layer = getattr(mlp, name, None)
    if not isinstance(layer, nn.Linear):
        raise TypeError(f"{type(mlp).__name__} must have a linear layer {name!r}")
    return layer
