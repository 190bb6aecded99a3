"""Packing of whole models, and the progress that it shows."""

from __future__ import annotations

import sys
import time
from typing import Callable, Mapping

from torch import Tensor, nn

from .embedding import QuantEmbedding
from .formats import format_named
from .modules import QuantLinear

BAR_WIDTH = 30
REDRAW_SECONDS = 0.1


class ProgressBar:
    """A line on stderr that is redrawn as the work goes on; elsewhere than on a terminal, its end only."""

    def __init__(self, total: int, shown: bool) -> None:
        self.total, self.done, self.label = total, 0, ""
        self.start, self.drawn = time.monotonic(), 0.0
        self.shown, self.live = shown, shown and sys.stderr.isatty()

    def advance(self, weights: int) -> None:
        self.done += weights
        if self.live and time.monotonic() - self.drawn >= REDRAW_SECONDS:
            self.drawn = time.monotonic()
            print(f"\r{self.line()}", end="", file=sys.stderr, flush=True)

    def line(self) -> str:
        share = self.done / self.total if self.total else 1.0
        rate = self.done / max(time.monotonic() - self.start, 1e-9)
        bar = ("#" * int(share * BAR_WIDTH)).ljust(BAR_WIDTH)
        counts = f"{self.done / 1e6:.1f} of {self.total / 1e6:.1f} M weights"
        return f"[{bar}] {share:4.0%}  {counts}, {rate / 1e6:.1f} M/s  {self.label:<40.40}"

    def finish(self) -> None:
        if not self.shown:
            return
        self.label = ""
        print(("\r" if self.live else "") + self.line().rstrip(), file=sys.stderr, flush=True)


def pack_model(
    model: nn.Module,
    format: str | Callable[[str, nn.Module], str | None],
    importance: Mapping[str, Tensor] | None = None,
    embeddings: bool = False,
    progress: bool = True,
) -> nn.Module:
    """Replaces the linear layers of a model on the CPU by packed ones, in place; returns the model.

    format: the format of all layers, or a function of a layer's name and module that returns its
    format, or None where the layer stays dense. importance: what `collect_importance` returns;
    layers whose format takes none ignore theirs. embeddings: whether embeddings become
    `QuantEmbedding`s, in q2_k; one whose weight a linear layer shares is packed by itself.
    progress: whether a bar on stderr shows how far it is. A layer that cannot be packed raises
    ValueError with its name; the model then has the layers before it packed.
    """
    chosen: dict[str, tuple[nn.Linear | nn.Embedding, str]] = {}
    for name, module in model.named_modules():
        if isinstance(module, nn.Linear):
            own = format(name, module) if callable(format) else format
            if own is not None:
                chosen[name] = module, own
        elif embeddings and isinstance(module, nn.Embedding):
            chosen[name] = module, "q2_k"
    bar = ProgressBar(sum(module.weight.numel() for module, _ in chosen.values()), progress)
    for name in list(chosen):
        module, own = chosen.pop(name)  # so that a dense weight goes once it is packed
        bar.label = name
        factors = importance.get(name) if importance and format_named(own).weighted else None
        try:
            if isinstance(module, nn.Embedding):
                packed: nn.Module = QuantEmbedding.from_float(module, factors, bar.advance)
            else:
                packed = QuantLinear.from_float(module, own, factors, bar.advance)
        except (TypeError, ValueError) as error:
            raise type(error)(f"{name or type(module).__name__}: {error}") from error
        packed.train(module.training)
        if module is model:
            model = packed
        for parent in list(model.modules()):
            for key, child in list(parent._modules.items()):
                if child is module:
                    setattr(parent, key, packed)
    bar.finish()
    return model
