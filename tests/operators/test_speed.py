"""That kernels are vectorised: each family is several times as fast as on the scalar target, on the same small sizes.

As a script it prints the least time of each call: test_speed.py.
"""

from __future__ import annotations

import json
import time
from typing import Any, Callable

import kelvor_xpu
import pytest
import tolvane

from kv_cases import Attention
from linear_cases import Product
from mlp_cases import Mlp
from norm_cases import Norm
from packed import FORMATS, FUSED
from qkv_cases import Qkv
from rwkv_cases import Version4
from super_block_cases import SuperBlocks
from super_block_reference import QTYPE

# Calls that take a fraction of a millisecond where they are vectorised.
CASES = [
    case
    for t in ("float32", "float16", "bfloat16")
    for case in (
        *(Product(form, t, 1, 1024, 256) for form in FORMATS),
        *(SuperBlocks(form, t, 1024, 256) for form in QTYPE),
        *(Mlp(form, t, 1024, 256) for form in FUSED),
        *(Qkv(form, t, 1024, (2, 1), 128, 0, 0, 1, 2) for form in FUSED),
        Norm("fused_layer_norm", t, 2, 1024, True, True),
        Attention(t, 1, 8, 8, 512),
        Version4(t, t, (1, 16, 1024)),
    )
]


def least_times() -> dict[str, float]:
    """By operator and case. Ten times each: the operators are replaced by what repeats and times them."""
    times: dict[str, float] = {}

    def timed(operator: str, function: Callable[..., Any]) -> Callable[..., Any]:
        def call(*arguments: Any) -> Any:
            for _ in range(10):
                start = time.perf_counter()
                result = function(*arguments)
                took, name = time.perf_counter() - start, f"{operator} {case.name}"
                times[name] = min(took, times.get(name, took))
            return result

        return call

    for operator in [name for name in dir(tolvane) if not name.startswith("__")]:
        setattr(tolvane, operator, timed(operator, getattr(tolvane, operator)))
    for case in CASES:
        case.run()
    return times


def test_vectors_pay(in_python):
    """Measured once more where something else may have kept the CPU."""
    if kelvor_xpu.target() == "scalar":
        pytest.skip("nothing to compare with")
    for _ in range(2):
        ours, scalar = (
            json.loads(in_python(__file__, KELVOR_XPU_THREADS="1", KELVOR_XPU_TARGET=target).stdout)
            for target in (kelvor_xpu.target(), "scalar")
        )
        slow = {name: scalar[name] / ours[name] for name in ours if scalar[name] < 4 * ours[name]}
        if not slow:
            return
    pytest.fail(f"times as fast as the scalar target: {slow}")


if __name__ == "__main__":
    print(json.dumps(least_times()))
