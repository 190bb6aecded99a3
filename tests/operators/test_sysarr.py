"""The matrix engine's route, on both classes of device that have it."""

from __future__ import annotations

import pytest

from cases import DEVICE_NAMES
from sysarr_cases import CASES, MANY_ROWS
from test_catalogue import TARGETS, assert_same, of

SUMMIT, VELA_A = DEVICE_NAMES[:2]


def environment(name: str, target: str) -> dict[str, str]:
    return {"KELVOR_XPU_DEVICE_NAME": name, "KELVOR_XPU_TARGET": target, "KELVOR_XPU_GUARD_PAGES": "1"}


@pytest.mark.parametrize("target", TARGETS)
def test_against_numpy_beside_unmapped_pages(results, target):
    """With columns in groups of 16 and of 8; all the same to the bit, and on all targets."""
    subjects = {SUMMIT: ("engine",), VELA_A: ("engine", "engine of many rows")}
    ours, widest = (
        {name: results(*subjects[name], **environment(name, own)) for name in subjects} for own in (target, TARGETS[-1])
    )
    for case in CASES:
        case.check(of(case, ours[SUMMIT]))
        assert_same(case, of(case, ours[SUMMIT]), of(case, ours[VELA_A]))
        assert_same(case, of(case, ours[SUMMIT]), of(case, widest[SUMMIT]))
    for case in MANY_ROWS:
        case.check(of(case, ours[VELA_A]))


def test_preconditions_and_other_types(in_python):
    """A state_size that no weight can have is refused before anything is submitted; an element type that the engine
    lacks ends the process."""
    code = """
import kelvor_xpu, torch, tolvane
weight = torch.zeros(850, dtype=torch.uint8, device="xpu")
try:
    tolvane.forward_new(torch.ones(2, 100, device="xpu"), weight, 2, 0)
except RuntimeError as error:
    print(error, kelvor_xpu.submission_count())
tolvane.forward_new(torch.ones(2, 64, device="xpu").double(), weight[: 16 * 34], 2, 0)
"""
    for name in (SUMMIT, VELA_A):
        done = in_python(code, KELVOR_XPU_DEVICE_NAME=name)
        assert done.stdout == ("forward_new: state_size % QK == 0 is needed, but got state_size 100 and QK 64 0\n")
        assert (done.returncode, done.stderr) == (2, "unsupported dtype\n")
