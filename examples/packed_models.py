"""Copies of the example decoder with packed weights."""

from __future__ import annotations

import copy
from typing import Callable

import torch
from torch import Tensor, nn

import quarn
from model import Decoder

DTYPES = {
    "float": torch.float32,
    "half": torch.float16,
    "bfloat16": torch.bfloat16,
    "double": torch.float64,
}


class InType(nn.Module):
    """Runs a module in its own element type, between tensors of another."""

    def __init__(self, module: nn.Module, dtype: torch.dtype) -> None:
        super().__init__()
        self.module = module.to(dtype)
        self.dtype = dtype

    def forward(self, x: Tensor) -> Tensor:
        return self.module(x.to(self.dtype)).to(x.dtype)


def with_packed_mlps(model: Decoder, format: str, dtype: torch.dtype) -> Decoder:
    """A copy whose MLPs have packed gate and up and compute in `dtype`."""
    model = copy.deepcopy(model)
    for layer in model.layers:
        layer.mlp = InType(quarn.QuantMLP.from_float(layer.mlp, format), dtype)
    return model


def with_packed_linears(model: Decoder, format: str, dtype: torch.dtype) -> Decoder:
    """A copy whose linear layers all have packed weights and compute in `dtype`.

    The head is the embedding's weight and stays dense.
    """
    model = copy.deepcopy(model)
    for parent in list(model.modules()):
        for name, child in list(parent.named_children()):
            if isinstance(child, nn.Linear):
                packed = quarn.QuantLinear.from_float(child, format)
                setattr(parent, name, InType(packed, dtype))
    return model


def bytes_of(module: nn.Module, counts: Callable[[str], bool] = lambda name: True) -> int:
    """Bytes of the parameters and saved buffers whose name `counts`."""
    return sum(
        value.numel() * value.element_size()
        for name, value in module.state_dict().items()
        if isinstance(value, Tensor) and counts(name)
    )
