"""Copies of the example decoder with packed weights."""

from __future__ import annotations

import copy
from typing import Callable, Mapping

import torch
from torch import Tensor, nn

import corpus
import quarn
from model import Decoder, Layer

DTYPES = {"float": torch.float32, "half": torch.float16, "bfloat16": torch.bfloat16, "double": torch.float64}


SAMPLES = 64


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
        assert isinstance(layer, Layer)
        layer.mlp = InType(quarn.QuantMLP.from_float(layer.mlp, format), dtype)
    return model


def with_packed_linears(
    model: Decoder, format: str, dtype: torch.dtype, importance: Mapping[str, Tensor] | None = None
) -> Decoder:
    """A copy whose linear layers all have packed weights and compute in `dtype`.

    importance: what `sample_importance` returns, for the formats that take one. The head is the
    embedding's weight and stays dense.
    """
    model = copy.deepcopy(model)
    quarn.quantize_(model, format, importance, progress=False)
    for parent in list(model.modules()):
        for name, child in list(parent.named_children()):
            if isinstance(child, quarn.QuantLinear):
                setattr(parent, name, InType(child, dtype))
    return model


def sample_importance(model: Decoder) -> dict[str, Tensor]:
    """The mean square of each column of the linear layers' inputs, over text of the training's kind."""
    context = model.config.context
    text = torch.frombuffer(bytearray(corpus.train_text()[: SAMPLES * context]), dtype=torch.uint8)
    return quarn.collect_importance(model, text.long().view(SAMPLES, 1, context))


def bytes_of(module: nn.Module, counts: Callable[[str], bool] = lambda name: True) -> int:
    """Bytes of the parameters and saved buffers whose name `counts`."""
    return sum(
        value.numel() * value.element_size()
        for name, value in module.state_dict().items()
        if isinstance(value, Tensor) and counts(name)
    )
