"""Layers that have no weights yet, on the device "meta"."""

from __future__ import annotations

import torch
from torch import nn


class Linear(nn.Linear):
    """A linear layer that a checkpoint is to fill."""

    def __init__(self, columns: int, rows: int, bias: bool = False) -> None:
        super().__init__(columns, rows, bias, device="meta")

    def reset_parameters(self) -> None:
        """Nothing: initialising weights that do not exist would load half of PyTorch's compiler."""


class Embedding(nn.Embedding):
    """An embedding that a checkpoint is to fill."""

    def __init__(self, rows: int, columns: int) -> None:
        super().__init__(rows, columns, device="meta")

    def reset_parameters(self) -> None:
        """Nothing, for the same reason."""


def parameter(*sizes: int) -> nn.Parameter:
    """A parameter that a checkpoint is to fill."""
    return nn.Parameter(torch.empty(sizes, device="meta"), requires_grad=False)
