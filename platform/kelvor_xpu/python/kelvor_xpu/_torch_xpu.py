"""Completes ``torch.xpu``, whose functions call into a part of PyTorch that a build for the CPU does not have."""

from __future__ import annotations

import os
from dataclasses import dataclass

import torch

from . import _C
from ._streams import Event, Stream


@dataclass(frozen=True)
class DeviceProperties:
    """What ``torch.xpu.get_device_properties`` gives; the names are PyTorch's."""

    name: str
    total_memory: int
    max_compute_units: int
    max_work_group_size: int
    platform_name: str = "kelvor-xpu"
    vendor: str = ""
    driver_version: str = ""
    type: str = "cpu"
    has_fp16: bool = True
    has_fp64: bool = True
    has_atomic64: bool = True
    has_bfloat16_conversions: bool = True
    has_subgroup_matrix_multiply_accumulate: bool = False
    has_subgroup_matrix_multiply_accumulate_tensor_float32: bool = False
    has_subgroup_2d_block_io: bool = False
    is_integrated_gpu: bool = False


def _get_device_properties(index: int | None = None) -> DeviceProperties:
    torch._C._accelerator_setDeviceIndex(index or 0)  # refuses others than 0
    return DeviceProperties(
        name=_C.device_name(),
        total_memory=torch._C._accelerator_getMemoryInfo(0)[1],
        max_compute_units=len(os.sched_getaffinity(0)),
        max_work_group_size=_C.max_work_group_size(),
    )


def _device_count() -> int:
    return 1


def _get_current_stream(index: int | None = None) -> tuple[int, int, int]:
    stream = torch._C._accelerator_getStream(index or 0)
    return stream.stream_id, stream.device_index, stream.device_type


def _set_stream(**identity: int) -> None:
    torch._C._accelerator_setStream(torch.Stream(**identity))


def _can_device_access_peer(device: int, peer: int) -> bool:
    return False


def _is_capturing() -> bool:
    return False


_memory_fraction = 1.0


def _get_memory_fraction(index: int) -> float:
    return _memory_fraction


def _set_memory_fraction(fraction: float, index: int) -> None:
    global _memory_fraction
    _C.limit_memory(fraction)
    _memory_fraction = fraction


_ACCELERATOR = {
    "_xpu_getDevice": "getDeviceIndex",
    "_xpu_setDevice": "setDeviceIndex",
    "_xpu_exchangeDevice": "exchangeDevice",
    "_xpu_maybeExchangeDevice": "maybeExchangeDevice",
    "_xpu_synchronize": "synchronizeDevice",
    "_xpu_emptyCache": "emptyCache",
    "_xpu_memoryStats": "getDeviceStats",
    "_xpu_resetPeakMemoryStats": "resetPeakStats",
    "_xpu_resetAccumulatedMemoryStats": "resetAccumulatedStats",
    "_xpu_getMemoryInfo": "getMemoryInfo",
}
"""The missing functions, and those of ``torch.accelerator`` that do the same."""


def install() -> None:
    """Makes every function of ``torch.xpu`` that has a meaning here work.

    ``_is_compiled`` stays false: torch.compile takes it to mean that there is a compiler for the device.
    """
    for name, general in _ACCELERATOR.items():
        setattr(torch._C, name, getattr(torch._C, f"_accelerator_{general}"))
    torch._C._xpu_getCurrentStream = _get_current_stream
    torch._C._xpu_setStream = _set_stream
    torch._C._xpu_canDeviceAccessPeer = _can_device_access_peer
    torch._C._xpu_getMemoryFraction = _get_memory_fraction
    torch._C._xpu_setMemoryFraction = _set_memory_fraction
    torch.xpu.graphs._xpu_isCurrentStreamCapturing = _is_capturing
    torch.xpu.device_count = _device_count
    torch.xpu.random.device_count = _device_count
    torch.xpu._exchange_device = torch._C._xpu_exchangeDevice
    torch.xpu._maybe_exchange_device = torch._C._xpu_maybeExchangeDevice
    torch.xpu._get_device_properties = _get_device_properties
    torch.xpu.default_generators = (_C.default_generator(),)
    for module in (torch.xpu, torch.xpu.streams):
        module.Stream, module.Event = Stream, Event
    torch.xpu._initialized = True
