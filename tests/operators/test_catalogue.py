"""Every call of the catalogue against plain numpy; on every target, device class and beside unmapped pages the same."""

from __future__ import annotations

import signal
from pathlib import Path

import numpy as np
import pytest
import kelvor_xpu
import tolvane
from numpy.testing import assert_array_equal

from catalogue import CASES
from cases import DEVICE_NAMES
from linear_cases import LONG, products
from mlp_cases import LARGE
from norm_cases import OPERATORS, Norm, cases as norms
from rope_cases import Rotary
from rwkv_cases import PAIRS, TimeShift
from super_block_cases import SuperBlockExpansion, SuperBlocks

SUMMIT = DEVICE_NAMES[0]
TARGETS = ("scalar", "avx2", "avx512")
TARGETS = TARGETS[: TARGETS.index(kelvor_xpu.target()) + 1]
BUILT = [path.stem for path in Path(tolvane.__file__).parent.glob("libtolvane-*.so")]
TARGETS = tuple(name for name in TARGETS if f"libtolvane-{name}" in BUILT)
# Sizes of real models, more rows than caches hold, all lengths of rows: on this target only.
ITEM_ELEMENTS = {"float16": 16, "bfloat16": 16, "float32": 8, "float64": 4}
LENGTHS = {*range(1, 40), 64, 255, 1024, 1026, 2047, 2048, 2050, 4096}
LARGE_CASES = [
    *products(LONG),
    *LARGE,
    *(Norm(operator, "float16", rows, 96, True) for operator in OPERATORS for rows in (0, 1000)),
    *(TimeShift(*pair, (17, 1, 256, 2048)) for pair in PAIRS),
    *(
        case
        for limit in (4096, 8192, 16384)
        for case in norms(sorted(LENGTHS | {limit - 2, limit - 1, limit}), (3,))
        if limit == 1024 * ITEM_ELEMENTS[case.type]
    ),
]


def of(case, results: dict[str, np.ndarray]) -> dict[str, np.ndarray]:
    """A case's part of a process's results."""
    found = {name[len(case.name) + 1 :]: x for name, x in results.items() if name.startswith(case.name + " ")}
    assert found or isinstance(case, SuperBlockExpansion)
    return found


def assert_same(case, ours: dict[str, np.ndarray], theirs: dict[str, np.ndarray]) -> None:
    for part, values in ours.items():
        assert_array_equal(values, theirs[part], err_msg=f"{case.name} {part}")


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.name)
def test_against_numpy(results, case):
    case.check(of(case, results()))


@pytest.mark.parametrize("case", LARGE_CASES, ids=lambda case: case.name)
def test_large_sizes_against_numpy(case):
    case.check(case.arrays())


@pytest.mark.parametrize("name", DEVICE_NAMES)
def test_device_classes_beside_unmapped_pages(results, name):
    """The groups of Summit are of 64, which shows in sums."""
    guarded = results(KELVOR_XPU_DEVICE_NAME=name, KELVOR_XPU_GUARD_PAGES="1")
    for case in CASES:
        if name == SUMMIT:
            case.check(of(case, guarded), group=64)
        elif name == "IGX" and isinstance(case, (SuperBlocks, SuperBlockExpansion)):
            assert "dense" not in of(case, guarded)  # it has no such kernels
        else:
            assert_same(case, of(case, results()), of(case, guarded))


@pytest.mark.parametrize("name", ["other", SUMMIT])
@pytest.mark.parametrize("target", TARGETS[:-1])
def test_targets_agree(results, target, name):
    """With the widest, to the bit, where sums are not made in any order."""
    narrow = results(KELVOR_XPU_TARGET=target, KELVOR_XPU_DEVICE_NAME=name)
    wide = results(KELVOR_XPU_DEVICE_NAME=name, KELVOR_XPU_GUARD_PAGES="1")
    for case in CASES:
        if case.any_order:
            case.check(of(case, narrow), group=64 if name == SUMMIT else 32)
        else:
            assert_same(case, of(case, wide), of(case, narrow))


@pytest.mark.parametrize("largest", [64, 256, 1000])
def test_smaller_work_groups(results, largest):
    small = results("norm", "rope", KELVOR_XPU_MAX_WORK_GROUP_SIZE=str(largest))
    for case in CASES:
        if isinstance(case, Norm):
            if case.n <= largest * ITEM_ELEMENTS[case.type]:
                case.check(of(case, small))
            else:
                assert of(case, small)["out"].size == 0, case.name
        elif isinstance(case, Rotary):
            assert_same(case, of(case, results()), of(case, small))


def test_guard_pages_catch_a_byte_read_too_far(in_python):
    read = """
import ctypes, torch, tolvane
x = torch.ones(9, dtype=torch.uint8, device="xpu")
assert ctypes.string_at(x.data_ptr(), 9) == bytes([1] * 9)
ctypes.string_at(x.data_ptr() + 9, 1)
"""
    assert in_python(read, KELVOR_XPU_GUARD_PAGES="1").returncode == -signal.SIGSEGV
