"""The decoder with packed weights in each format, next to the dense decoder, all on `xpu`."""

from __future__ import annotations

import time
from dataclasses import dataclass
from functools import partial
from typing import Callable, Iterator

import torch

import corpus
import quarn
from generate import generate
from model import Decoder
from packed_models import bytes_of, sample_importance, with_packed_linears, with_packed_mlps
from train import as_tokens, perplexity

HELD_OUT_BYTES = 4097
FORMATS = [name for name in quarn.FORMATS if name != "fp8_e5m2_linear"]  # QuantLinear's fp8_e5m2
HEADER = ["packed", "weights", "bits/weight", "linears, kB", "perplexity", "tokens/s"]


@dataclass
class Row:
    """What was measured of one model; `linear_bytes` are those of the linear layers' weights."""

    packed: str
    format: str
    bytes_per_weight: float
    linear_bytes: int
    perplexity: float
    tokens_per_second: float

    def cells(self) -> list[str]:
        return [
            self.packed,
            self.format,
            f"{8 * self.bytes_per_weight:.2f}",
            f"{self.linear_bytes / 1e3:,.0f}",
            f"{self.perplexity:.4f}",
            f"{self.tokens_per_second:.0f}",
        ]


def measure(dense: Decoder, dtype: torch.dtype, prompt: str, count: int) -> Iterator[Row]:
    """Rows for every format with all linear layers packed, for gate and up packed alone and multiplied by the fused
    operator, and for the dense model in float.

    A format that takes an importance has a second row, with that of a sample of the training text.
    Perplexity is over the held-out text, the speed that of generating `count` bytes. Packed layers compute in `dtype`.
    """
    weights = _linear_bytes(dense) // 4

    def row(packed: str, format: str, make: Callable[[], Decoder]) -> Row:
        model = make().to("xpu")
        start = time.perf_counter()
        for _ in generate(model, prompt.encode(), count):
            pass
        seconds = time.perf_counter() - start
        held_out = as_tokens(corpus.held_out_text(HELD_OUT_BYTES)).to("xpu")
        size = _linear_bytes(model)
        measured = perplexity(model, held_out, model.config.context)
        return Row(packed, format, size / weights, size, measured, count / seconds)

    importance = sample_importance(dense)
    for name in FORMATS:
        yield row("all", name, lambda: with_packed_linears(dense, name, dtype))
        if quarn.FORMATS[name].weighted:
            by_importance = partial(with_packed_linears, dense, name, dtype, importance)
            yield row("all", f"{name} by importance", by_importance)
    for name in quarn.MLP_FORMATS:
        yield row("gate, up", name, lambda: with_packed_mlps(dense, name, dtype))
    yield row("none", "dense", lambda: dense)


def _linear_bytes(model: Decoder) -> int:
    """Bytes of the weights of attention and MLP; norms and the embedding do not count."""
    return bytes_of(model, lambda name: ".attention." in name or ".mlp." in name)
