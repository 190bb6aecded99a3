"""``torch.xpu.Stream`` and ``torch.xpu.Event``: PyTorch's general classes, made for this device.

PyTorch's own functions want objects of exactly those. Work is complete when its call returns: nothing ever waits.
"""

from __future__ import annotations

from typing import Any

import torch


class _Streams(type):
    def __instancecheck__(cls, instance: object) -> bool:
        return isinstance(instance, torch.Stream) and instance.device.type == "xpu"


class _Events(type):
    def __instancecheck__(cls, instance: object) -> bool:
        return isinstance(instance, torch.Event) and torch.device(instance.device).type == "xpu"


class Stream(metaclass=_Streams):
    """A stream of the xpu device: ``Stream()`` is one of a pool of 32."""

    def __new__(cls, device: Any = None, priority: int = 0, **identity: int) -> torch.Stream:  # type: ignore[misc]
        if identity:
            return torch.Stream(**identity)
        return torch.Stream(device="xpu" if device is None else device, priority=priority)


class Event(metaclass=_Events):
    """A point in a stream's work; with ``enable_timing``, also the time at which it was reached."""

    def __new__(cls, enable_timing: bool = False) -> torch.Event:  # type: ignore[misc]
        return torch.Event("xpu", enable_timing=enable_timing)
