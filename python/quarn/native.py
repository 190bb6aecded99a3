"""The library of packers, quarn_native, called through ctypes."""

from __future__ import annotations

import ctypes
import importlib.util
import os
from functools import lru_cache

import numpy as np
import torch
from torch import Tensor


class Job(ctypes.Structure):
    """`quarn_job` of native/packers.h."""

    _fields_ = [
        ("weight", ctypes.c_void_p),
        ("blocks", ctypes.c_int64),
        ("importance", ctypes.c_void_p),
        ("blocks_per_row", ctypes.c_int64),
        ("values", ctypes.c_void_p),
        ("scales", ctypes.c_void_p),
    ]


@lru_cache(maxsize=None)
def library() -> ctypes.CDLL:
    """The library, found like a module on Python's path; ImportError where that fails."""
    found = importlib.util.find_spec("quarn_native") or importlib.util.find_spec("quarn.quarn_native")
    if found is None or found.origin is None:
        raise ImportError("quarn_native.so is not on Python's path; build first, with build/python on PYTHONPATH")
    loaded = ctypes.CDLL(found.origin)
    if not loaded.quarn_supported():
        raise ImportError("quarn packs on CPUs with AVX2, FMA and BMI2 (x86-64-v3) only")
    loaded.quarn_largest.restype = ctypes.c_float
    loaded.quarn_largest.argtypes = [ctypes.c_void_p, ctypes.c_int64, ctypes.c_int]
    loaded.quarn_iq2xxs_grid.restype = ctypes.POINTER(ctypes.c_uint8)
    return loaded


def threads() -> int:
    """One for each CPU that this process may use."""
    return len(os.sched_getaffinity(0))


def largest(weight: Tensor) -> float:
    """The magnitude of the largest element; infinite or NaN where an element is.

    weight: contiguous float on the CPU.
    """
    return float(library().quarn_largest(weight.data_ptr(), weight.numel(), threads()))


def encode(
    format: str, weight: Tensor, block_elements: int, importance: Tensor | None, values: Tensor, scales: Tensor
) -> None:
    """Packs rows of finite weights into views of the value zone and the scale zone.

    weight: [rows, state_size], contiguous float; importance: [state_size] of positive floats, read
    by formats of 256 elements only; values, scales: the rows' blocks, contiguous.
    """
    job = Job(
        weight.data_ptr(),
        weight.numel() // block_elements,
        None if importance is None else importance.data_ptr(),
        weight.shape[1] // block_elements,
        values.data_ptr(),
        scales.data_ptr(),
    )
    getattr(library(), f"quarn_encode_{format}")(ctypes.byref(job), ctypes.c_int(threads()))


@lru_cache(maxsize=None)
def iq2xxs_grid() -> Tensor:
    """The magnitudes of the grid of iq2_xxs, [256, 8] of float."""
    entries = np.ctypeslib.as_array(library().quarn_iq2xxs_grid(), (256, 8))
    return torch.from_numpy(entries.astype(np.float32))
