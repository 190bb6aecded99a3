"""How much each column of a model's weights matters, measured on sample inputs."""

from __future__ import annotations

from typing import Any, Callable, Iterable

import torch
from torch import Tensor, nn


def collect_importance(
    model: nn.Module,
    samples: Iterable[Any],
    run: Callable[[nn.Module, Any], Any] | None = None,
    kinds: type[nn.Module] | tuple[type[nn.Module], ...] = nn.Linear,
) -> dict[str, Tensor]:
    """The mean square of every input column of a model's linear layers, by the layers' names.

    samples: what the model is called with, one after the other, without gradients; `run(model,
    sample)` makes the call where it is more than `model(sample)`. kinds: the modules that are
    watched; their first argument is [..., columns]. Returns float tensors [columns] on the CPU,
    for `pack` and `quantize_`. Layers that the samples never reach are left out.
    """
    sums: dict[str, Tensor] = {}
    counts: dict[str, int] = {}

    def watch(name: str) -> Callable[[nn.Module, tuple[Any, ...]], None]:
        def hook(module: nn.Module, inputs: tuple[Any, ...]) -> None:
            rows = inputs[0].detach().flatten(0, -2)
            squares = rows.float().square().sum(0, dtype=torch.float64).cpu()
            sums[name] = sums[name] + squares if name in sums else squares
            counts[name] = counts.get(name, 0) + len(rows)

        return hook

    hooks = [
        module.register_forward_pre_hook(watch(name))
        for name, module in model.named_modules()
        if isinstance(module, kinds)
    ]
    try:
        with torch.no_grad():
            for sample in samples:
                run(model, sample) if run else model(sample)
    finally:
        for hook in hooks:
            hook.remove()
    return {name: (total / counts[name]).float() for name, total in sums.items() if counts[name]}
