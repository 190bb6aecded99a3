"""Modules whose weights are packed and whose forward calls the operators of tolvane."""

from __future__ import annotations

from typing import Any, Callable

import torch
from torch import Tensor, nn
from torch.nn import functional as F

from .formats import MLP_FORMATS, Format, format_named, linear_form
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
        if format not in MLP_FORMATS:
            known = ", ".join(MLP_FORMATS)
            raise ValueError(f"the fused MLP computes with {known}, not with {format!r}")
        self.format = format_named(format)
        self.state_size, self.hidden_size = down.out_features, down.in_features
        if self.hidden_size % 2:
            raise ValueError(f"the hidden size must be even, but is {self.hidden_size}")
        for name, packed in (("gate", gate), ("up", up)):
            _check_packed(name, packed, self.hidden_size, self.state_size, self.format)
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
            gate, up = (unpack(packed, self.format.name, self.state_size, x.dtype) for packed in (self.gate, self.up))
            return self.down(F.silu(F.linear(x, gate)) * F.linear(x, up))
        rows = x.reshape(-1, self.state_size).contiguous()
        hidden = [self._operator(row) for row in rows.split(1)]
        return self.down(torch.cat(hidden)).view(x.shape)

    def _operator(self, row: Tensor) -> Tensor:
        import tolvane  # only where there is an xpu device, which tolvane itself registers

        sizes = (1, self.state_size, self.hidden_size)
        return tolvane.mlp_forward_xpu(row, self.gate, self.up, *sizes, self.format.qtype)

    def extra_repr(self) -> str:
        sizes = f"state_size={self.state_size}, hidden_size={self.hidden_size}"
        return f"{sizes}, format={self.format.name}"


class QuantLinear(nn.Module):
    """A linear layer, x @ weight.T + bias, with a packed weight [output_size, state_size].

    The weight is the flat uint8 buffer `packed` of `format`. On an `xpu` device the operator
    `tolvane.forward_new` multiplies; elsewhere PyTorch does, with the weight unpacked for the
    call. The format "fp8_e5m2" stands for its linear form here, which that operator reads.

    The state dict holds the packed bytes, the bias, and the format's name, so that a module of
    the same sizes takes over the format of the state that it loads.
    """

    packed: Tensor
    bias: Tensor | None

    def __init__(self, packed: Tensor, output_size: int, state_size: int, format: str, bias: Tensor | None) -> None:
        """packed: flat uint8, as `pack` returns; bias: [output_size] of the type of the input."""
        super().__init__()
        self.output_size, self.state_size = output_size, state_size
        self.format = linear_form(format)
        _check_packed("packed", packed, output_size, state_size, self.format)
        if bias is not None and bias.shape != (output_size,):
            raise ValueError(f"bias must have shape [{output_size}], but has {list(bias.shape)}")
        self.register_buffer("packed", packed)
        self.bias = None if bias is None else nn.Parameter(bias.detach())

    @classmethod
    def from_float(
        cls,
        linear: nn.Linear,
        format: str,
        importance: Tensor | None = None,
        progress: Callable[[int], None] | None = None,
    ) -> QuantLinear:
        """Packs the weight of a dense linear layer on the CPU, as `pack` does; its bias is copied."""
        bias = None if linear.bias is None else linear.bias.detach().clone()
        packed = pack(linear.weight, linear_form(format).name, importance, progress)
        return cls(packed, linear.out_features, linear.in_features, format, bias)

    def forward(self, x: Tensor) -> Tensor:
        """x: [..., state_size], of the type of the bias; returns [..., output_size]."""
        if not x.dim() or x.shape[-1] != self.state_size:
            raise ValueError(f"x must be [..., {self.state_size}], but has shape {list(x.shape)}")
        if x.device.type != "xpu":
            weight = unpack(self.packed, self.format.name, self.state_size, x.dtype)
            return F.linear(x, weight, self.bias)
        rows = x.reshape(-1, self.state_size).contiguous()
        result = _forward_new()(rows, self.packed, self.format.qtype, self.output_size)
        result = result.view(*x.shape[:-1], self.output_size)
        return result if self.bias is None else result + self.bias

    def get_extra_state(self) -> str:
        return self.format.name

    def set_extra_state(self, state: str) -> None:
        """Nothing: `_load_from_state_dict` has read the format before the bytes."""

    def _load_from_state_dict(self, state_dict: dict[str, Any], prefix: str, *rest: Any) -> None:
        name = state_dict.get(f"{prefix}_extra_state", self.format.name)
        if name != self.format.name:
            self.format = linear_form(name)
            needed = self.format.packed_bytes(self.output_size, self.state_size)
            self.packed = self.packed.new_empty(needed)
        super()._load_from_state_dict(state_dict, prefix, *rest)

    def extra_repr(self) -> str:
        sizes = f"output_size={self.output_size}, state_size={self.state_size}"
        kind = f"format={self.format.name}, bits_per_weight={self.format.bits_per_weight:g}"
        return f"{sizes}, {kind}, bias={self.bias is not None}"


def _forward_new() -> Callable[[Tensor, Tensor, int, int], Tensor]:
    """The operator of tolvane; RuntimeError where the installed build has none."""
    import tolvane  # only where there is an xpu device, which tolvane itself registers

    if not hasattr(tolvane, "forward_new"):
        raise RuntimeError(
            "QuantLinear needs tolvane.forward_new on an xpu device, which this build of tolvane "
            "lacks; rebuild tolvane, or move the module and its input to the CPU"
        )
    return tolvane.forward_new


def _check_packed(name: str, packed: Tensor, output_size: int, state_size: int, format: Format) -> None:
    needed = format.packed_bytes(output_size, state_size)
    if packed.dtype != torch.uint8 or packed.shape != (needed,):
        raise ValueError(
            f"{name} must be {needed} bytes, {output_size} rows of {state_size} in "
            f"{format.name}, but is {list(packed.shape)} of {packed.dtype}"
        )


def _linear(mlp: nn.Module, name: str) -> nn.Linear:
    layer = getattr(mlp, name, None)
    if not isinstance(layer, nn.Linear):
        raise TypeError(f"{type(mlp).__name__} must have a linear layer {name!r}")
    return layer
