"""The ``xpu`` device of PyTorch on the CPU.

Importing the package is enough: afterwards ``device="xpu"`` works wherever PyTorch takes a device.
The functions below are also there as ``torch.xpu``, unless PyTorch has a module of that name.
"""

from __future__ import annotations

import sys
from typing import Any, NamedTuple

import torch

from . import _C, _storage
from ._streams import (
    Event,
    Stream,
    StreamContext,
    current_stream,
    default_stream,
    set_stream,
    stream,
    synchronize,
)

__all__ = [
    "Event",
    "Stream",
    "StreamContext",
    "Submission",
    "clear_submissions",
    "current_device",
    "current_stream",
    "default_stream",
    "device",
    "device_count",
    "device_name",
    "empty_cache",
    "get_device_name",
    "is_available",
    "is_initialized",
    "manual_seed",
    "manual_seed_all",
    "max_memory_allocated",
    "memory_allocated",
    "memory_reserved",
    "reset_peak_memory_stats",
    "set_device",
    "set_stream",
    "stream",
    "submission_count",
    "submissions",
    "synchronize",
    "wait_count",
]


class Submission(NamedTuple):
    """One kernel submitted to the device's queue by a module with kernels of its own."""

    id: int
    kernel: str
    """The kernel's C++ type."""
    global_size: tuple[int, ...]
    local_size: tuple[int, ...]
    waited: bool
    """Whether the host waited for this submission."""
    label: str
    """The label of its profiler record, empty if there was none."""


def is_available() -> bool:
    """Whether there is an xpu device. Importing this package on a CPU that cannot be one fails."""
    return device_count() > 0


def is_initialized() -> bool:
    """Always true: the device needs no preparation."""
    return True


def device_count() -> int:
    """The number of xpu devices: 1."""
    return _C.device_count()


def _check(device: Any) -> None:
    if device is None:
        return
    wanted = torch.device("xpu", device) if isinstance(device, int) else torch.device(device)
    if wanted.type != "xpu" or (wanted.index or 0) >= device_count():
        raise ValueError(f"expected the one xpu device, xpu:0, but got {wanted}")


def device_name(device: Any = None) -> str:
    """The name that the device gives itself; ``KELVOR_XPU_DEVICE_NAME`` changes it."""
    _check(device)
    return _C.device_name()


get_device_name = device_name


def current_device() -> int:
    """The index of the current device: 0."""
    return 0


def set_device(device: Any) -> None:
    """Makes ``device`` current. There is one only, so this checks its argument."""
    _check(device)


class device:  # noqa: N801 - the name that PyTorch's other device modules use
    """Context manager: inside, ``device`` is current."""

    def __init__(self, device: Any) -> None:
        _check(device)

    def __enter__(self) -> None:
        pass

    def __exit__(self, *error: object) -> None:
        pass


def memory_allocated(device: Any = None) -> int:
    """Bytes held by tensors that exist now."""
    _check(device)
    return _C.memory_allocated()


def max_memory_allocated(device: Any = None) -> int:
    """The highest :func:`memory_allocated` so far, or since :func:`reset_peak_memory_stats`."""
    _check(device)
    return _C.max_memory_allocated()


def memory_reserved(device: Any = None) -> int:
    """Bytes held by tensors, and free ones that are kept for reuse."""
    _check(device)
    return _C.memory_allocated() + _C.memory_cached()


def reset_peak_memory_stats(device: Any = None) -> None:
    """Starts :func:`max_memory_allocated` again from the present value."""
    _check(device)
    _C.reset_peak_memory_stats()


def empty_cache() -> None:
    """Gives free memory that is kept for reuse back to the system."""
    _C.empty_cache()


def manual_seed(seed: int) -> None:
    """Seeds the device's random numbers. They come from the CPU's generator, which this seeds."""
    torch.default_generator.manual_seed(seed)


manual_seed_all = manual_seed


def submissions() -> list[Submission]:
    """The newest kernel submissions since :func:`clear_submissions`, oldest first, at most 1024.

    PyTorch's own operators run on the CPU's kernels and submit nothing.
    """
    return [Submission(*entry) for entry in _C.submissions()]


def clear_submissions() -> None:
    """Empties the list that :func:`submissions` returns. The counts go on."""
    _C.clear_submissions()


def submission_count() -> int:
    """Kernel submissions since the process began."""
    return _C.submission_count()


def wait_count() -> int:
    """How often the host waited for a submission since the process began."""
    return _C.wait_count()


def _install() -> None:
    """Makes PyTorch know this module and save, load and pickle the device's tensors."""
    _storage.install()
    if not hasattr(torch, "xpu"):
        torch.xpu = sys.modules[__name__]
        sys.modules["torch.xpu"] = sys.modules[__name__]
    if not hasattr(torch.Tensor, "is_xpu"):
        torch.Tensor.is_xpu = property(lambda self: self.device.type == "xpu")


_install()
