"""``torch.compile`` with its default backend, which writes code for GPUs. This device runs the graphs as they are."""

from __future__ import annotations

import warnings
from typing import Any

import torch


def _is_on_xpu(value: Any) -> bool:
    return isinstance(value, torch.Tensor) and value.device.type == "xpu"


def _works_on_xpu(graph: torch.fx.GraphModule, inputs: Any) -> bool:
    nodes = (node.meta.get("example_value") for node in graph.graph.nodes)
    return any(map(_is_on_xpu, inputs)) or any(map(_is_on_xpu, nodes))


def install() -> None:
    """Makes graphs with xpu tensors run by PyTorch's operators; others go to the backend as before."""
    wrapper = torch._TorchCompileInductorWrapper
    compile_graph = wrapper.__call__

    def call(self: Any, model_: torch.fx.GraphModule, inputs_: Any, **options: Any) -> Any:
        if not _works_on_xpu(model_, inputs_):
            return compile_graph(self, model_, inputs_, **options)
        warnings.warn(
            "torch.compile's default backend writes code for GPUs: on this xpu device the graph runs "
            'as backend="eager" would run it',
            stacklevel=2,
        )
        return model_.forward

    wrapper.__call__ = call
