"""PyTorch's own table of operators, with sample arguments for each, and what tests do with them."""

from __future__ import annotations

import sys
import types
import unittest
from typing import Any, Callable

import torch
from torch.utils._pytree import tree_flatten, tree_map

# The table's module wants this package for tests of its own, of which none is used here.
sys.modules.setdefault("expecttest", types.SimpleNamespace(TestCase=unittest.TestCase, ACCEPT=False))  # type: ignore[arg-type]

from torch.testing._internal import common_methods_invocations  # noqa: E402
from torch.testing._internal.common_utils import set_rng_seed  # noqa: E402

OPERATORS = common_methods_invocations.op_db
Arguments = tuple[list[Any], dict[str, Any]]


REDUCED = (torch.half, torch.bfloat16)


def samples(op: Any, dtype: torch.dtype, count: int | None) -> list[Arguments]:
    """Up to ``count`` CPU samples, or all. Where an entry does not list a reduced type, they are made from float."""
    listed = dtype if dtype in op.dtypes else torch.float32
    if listed is not dtype and dtype not in REDUCED or listed not in op.dtypes:
        return []
    set_rng_seed(0)
    found = []
    # Not op.sample_inputs: to know which test asks, that reads the source of every frame on the stack.
    for sample in op.sample_inputs_func(op, torch.device("cpu"), listed, False):
        arguments = ([sample.input, *sample.args], sample.kwargs)
        found.append(map_tensors(arguments, lambda t: t.to(dtype) if t.dtype is listed else t))
        if len(found) == count:
            break
    return found


def map_tensors(tree: Any, change: Callable[[torch.Tensor], Any]) -> Any:
    return tree_map(lambda x: change(x.detach()) if isinstance(x, torch.Tensor) else x, tree)


def to_device(tree: Any, device: str) -> Any:
    """A copy of ``tree`` on ``device``; device arguments change too."""

    def change(x: Any) -> Any:
        if isinstance(x, torch.Tensor):
            return x.detach().to(device) if device != "cpu" else x.detach().clone()
        if isinstance(x, torch.device) or x == "cpu":
            return device
        return x

    return tree_map(change, tree)


def strided(tensor: torch.Tensor) -> torch.Tensor:
    """The same values, at every second place of a larger tensor."""
    if tensor.dim() == 0:
        return tensor
    return tensor.repeat_interleave(2, dim=-1)[..., ::2]


def call(op: Any, arguments: Arguments) -> Any:
    args, kwargs = arguments
    torch.manual_seed(1)
    return op.op(*args, **kwargs)


def tensors(tree: Any) -> list[torch.Tensor]:
    return [leaf for leaf in tree_flatten(tree)[0] if isinstance(leaf, torch.Tensor)]
