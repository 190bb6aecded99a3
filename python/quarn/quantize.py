"""Packing of any model's linear layers."""

from __future__ import annotations

from typing import Collection, Mapping

from torch import Tensor, nn

from .choice import Choice, chosen_format
from .embedding import QuantEmbedding
from .formats import format_named
from .modules import QuantLinear
from .progress import ProgressBar


def quantize_(
    model: nn.Module,
    format: Choice,
    importance: Mapping[str, Tensor] | None = None,
    skip: Collection[str] = (),
    embeddings: bool = False,
    progress: bool = True,
) -> nn.Module:
    """Replaces the linear layers of a model on the CPU by packed ones, in place; returns the model.

    format: the format of all layers, or formats by names of layers (`chosen_format`), or a function
    of a layer's name and module. importance: what `collect_importance` returns; layers whose format
    takes none ignore theirs. skip: layers that stay dense, by their names or parts of them.
    embeddings: whether embeddings become `QuantEmbedding`s, in q2_k; one whose weight a linear
    layer shares is packed by itself. progress: whether a bar on stderr shows how far it is. A layer
    that cannot be packed raises ValueError with its name; the model then has the layers before it
    packed.
    """
    chosen: dict[str, tuple[nn.Linear | nn.Embedding, str]] = {}
    for name, module in model.named_modules():
        if name in skip or not set(name.split(".")).isdisjoint(skip):
            continue
        if isinstance(module, nn.Linear):
            own = chosen_format(format, name, module)
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
