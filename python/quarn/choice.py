"""Which format a layer is packed in."""

from __future__ import annotations

from typing import Callable, Mapping, Union

from torch import nn

Choice = Union[str, Mapping[str, Union[str, None]], Callable[[str, nn.Module], Union[str, None]]]
"""A format for all layers; formats by parts of layers' names, and "default"; or a function of a layer's name and module.
None leaves a layer dense."""


def chosen_format(choice: Choice, name: str, layer: nn.Module) -> str | None:
    """The format for the layer of this name.

    In a mapping the most particular key counts: the whole name, then its parts from the last to the first, each with or
    without "_proj", then "default". A layer that no key names stays dense.
    """
    if isinstance(choice, str):
        return choice
    if callable(choice):
        return choice(name, layer)
    if name in choice:
        return choice[name]
    for part in reversed(name.split(".")):
        for key in (part, part.removesuffix("_proj")):
            if key in choice and key != "default":
                return choice[key]
    return choice.get("default")
