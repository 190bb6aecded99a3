"""The decoder with every linear layer packed, in each format, next to the dense decoder."""

from __future__ import annotations

import time
from dataclasses import dataclass
from typing import Iterator

import torch

import corpus
import quarn
from generate import check_request, generate
from model import Decoder
from packed_models import bytes_of, with_packed_linears
from train import as_tokens, load, perplexity

HELD_OUT_BYTES = 4097
FORMATS = [name for name in quarn.FORMATS if name != "fp8_e5m2_linear"]  # QuantLinear's fp8_e5m2
HEADER = ["weights", "bits/weight", "bytes/weight", "linears, kB", "perplexity", "tokens/s"]


@dataclass
class Row:
    """What was measured of one model; `linear_bytes` are those of the linear layers' weights."""

    name: str
    bytes_per_weight: float
    linear_bytes: int
    perplexity: float
    tokens_per_second: float

    def cells(self) -> list[str]:
        return [
            self.name,
            f"{8 * self.bytes_per_weight:.2f}",
            f"{self.bytes_per_weight:.5f}",
            f"{self.linear_bytes / 1e3:,.0f}",
            f"{self.perplexity:.4f}",
            f"{self.tokens_per_second:.0f}",
        ]


def device() -> str:
    """xpu where tolvane is there and has the operator of QuantLinear; otherwise cpu."""
    try:
        import tolvane
    except ImportError:
        return "cpu"
    return "xpu" if hasattr(tolvane, "forward_new") else "cpu"


def measure(dtype: torch.dtype, place: str, prompt: str, count: int) -> Iterator[Row]:
    """A row for each format, and one for the dense model in float, all on the device `place`.

    Perplexity is over the held-out text, the speed that of generating `count` bytes.
    """
    dense = load()
    check_request(dense, prompt.encode(), count)
    weights = _linear_bytes(dense) // 4
    for name in FORMATS:
        yield _row(name, with_packed_linears(dense, name, dtype), weights, place, prompt, count)
    yield _row("dense", dense, weights, place, prompt, count)


def _row(name: str, model: Decoder, weights: int, place: str, prompt: str, count: int) -> Row:
    model = model.to(place)
    start = time.perf_counter()
    for _ in generate(model, prompt.encode(), count):
        pass
    seconds = time.perf_counter() - start
    held_out = as_tokens(corpus.held_out_text(HELD_OUT_BYTES)).to(place)
    measured = perplexity(model, held_out, model.config.context)
    size = _linear_bytes(model)
    return Row(name, size / weights, size, measured, count / seconds)


def _linear_bytes(model: Decoder) -> int:
    """Bytes of the weights of attention and MLP; norms and the embedding do not count."""
    return bytes_of(model, lambda name: ".attention." in name or ".mlp." in name)
