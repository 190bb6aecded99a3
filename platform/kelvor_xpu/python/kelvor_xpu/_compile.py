"""Functions of extension modules that torch.compile sees as operators of PyTorch's dispatcher.

torch.compile is told when it is first used, since it takes longer to import than all else.
"""

from __future__ import annotations

import importlib.abc
import importlib.util
import sys
from importlib.machinery import ModuleSpec
from types import ModuleType
from typing import Any, Callable, Sequence

import torch

_COMPILER = "torch._dynamo"
_waiting: list[tuple[Callable[..., Any], Callable[..., Any]]] = []


def show_as_operator(
    function: Callable[..., Any], operator: str, result: int | tuple[int, ...] | None
) -> Callable[..., Any]:
    """torch.compile is to see ``operator`` ("library::name") where ``function`` is called.

    Both take the same arguments. result: the place of the argument that the function returns where the operator
    returns nothing; or the places of those of which it returns, behind the operator's result, views with one row more
    in dimension 2. Returns the function in terms of the operator.
    """
    observed = _in_terms_of(operator, result)
    _waiting.append((function, observed))
    if _COMPILER in sys.modules:
        _tell_compiler()
    elif not any(isinstance(finder, _CompilerWatch) for finder in sys.meta_path):
        sys.meta_path.insert(0, _CompilerWatch())
    return observed


def _tell_compiler() -> None:
    while _waiting:
        function, observed = _waiting.pop()
        torch.compiler.substitute_in_graph(function, skip_signature_check=True)(observed)


def _in_terms_of(operator: str, result: int | tuple[int, ...] | None) -> Callable[..., Any]:
    library, name = operator.split("::")
    packet = getattr(getattr(torch.ops, library), name)

    def observed(*arguments: Any) -> Any:
        if isinstance(result, tuple):
            views = [_grown(arguments[place]) for place in result]
            return [packet(*arguments), *views]
        returned = packet(*arguments)
        return returned if result is None else arguments[result]

    return observed


def _grown(x: torch.Tensor) -> torch.Tensor:
    batch, heads, rows, size = x.shape
    return x.detach().as_strided((batch, heads, rows + 1, size), x.stride())


class _CompilerWatch(importlib.abc.MetaPathFinder):
    """Lets the compiler be imported as ever, and then tells it."""

    def find_spec(
        self, fullname: str, path: Sequence[str] | None, target: ModuleType | None = None
    ) -> ModuleSpec | None:
        if fullname != _COMPILER:
            return None
        sys.meta_path.remove(self)
        found = importlib.util.find_spec(fullname)
        if found is None or found.loader is None:
            return found
        load = found.loader.exec_module

        def load_and_tell(module: ModuleType) -> None:
            load(module)
            _tell_compiler()

        found.loader.exec_module = load_and_tell  # type: ignore[method-assign]
        return found
