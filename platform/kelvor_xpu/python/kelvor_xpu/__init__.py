"""The ``xpu`` device of PyTorch on the CPU.

Where the package is installed, ``import torch`` loads it; else, importing it is enough. Afterwards
``device="xpu"`` works wherever PyTorch takes a device, and so do ``torch.xpu`` and ``torch.accelerator``.
"""

from __future__ import annotations

import os
from typing import Any, NamedTuple

import _kelvor_xpu_autoload

_kelvor_xpu_autoload.check()  # before anything that another torch would break

import torch  # noqa: E402
from torch.xpu import (  # noqa: E402
    empty_cache,
    is_available,
    max_memory_allocated,
    memory_allocated,
    memory_reserved,
    reset_peak_memory_stats,
)

from . import _C, _default_backend, _torch_xpu  # noqa: E402

__all__ = [
    "Submission",
    "clear_submissions",
    "device_name",
    "empty_cache",
    "is_available",
    "max_memory_allocated",
    "memory_allocated",
    "memory_reserved",
    "reset_peak_memory_stats",
    "submission_count",
    "submissions",
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


def device_name(device: Any = None) -> str:
    """The name that the device gives itself; ``KELVOR_XPU_DEVICE_NAME`` changes it."""
    return torch.xpu.get_device_name(device)


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


def target() -> str:
    """The instruction set whose kernels run: "scalar", "avx2" or "avx512".

    The widest that the CPU has, or what the environment variable KELVOR_XPU_TARGET names.
    """
    return _C.target()


def _run_serially() -> None:
    """The threads that run the CPU's operators do not survive a fork, and a child would wait for them for ever."""
    torch.set_num_threads(1)


def _install() -> None:
    if not _C.registered():  # another xpu backend was there before
        return
    if not _C.hooks_seen():
        raise ImportError(
            "kelvor_xpu was imported too late: PyTorch looks for an xpu device once, and has done so already. "
            "Import kelvor_xpu directly after torch, or install it, so that `import torch` does."
        )
    _torch_xpu.install()
    _default_backend.install()
    os.register_at_fork(after_in_child=_run_serially)


_install()
