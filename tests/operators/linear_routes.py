"""Prints the route that each of some calls takes, as an observer sees it: linear_routes.py OUT.

A call is (qtype, rows, output_size, size_hint, environment); the arrays saved are keyed by its position.
"""

from __future__ import annotations

import os
import sys

import numpy as np

BLOCK_BYTES = {2: 34, 3: 36, 6: 44, 7: 44, 8: 68, 10: 34, 11: 26, 15: 68, 16: 34, 19: 68}
NO_ENGINE = {"QUARN_LLM_SYSARR_DISABLED": "1"}

# Routes by device class 0 to 5: summit, vela_a, ridge, other, vela, igx.
ONE, FEW, DENSE, ENGINE, TILED = "one", "few", "dense", "engine", "tiled"
CALLS = [
    ((2, 1, 4096, 0, {}), [ONE] * 6),
    ((2, 2, 4096, 0, {}), [ENGINE, ENGINE, FEW, FEW, FEW, FEW]),
    ((2, 8, 4096, 0, NO_ENGINE), [DENSE, FEW, FEW, FEW, FEW, FEW]),
    ((2, 8, 4104, 0, {}), [DENSE, FEW, FEW, FEW, FEW, FEW]),
    ((2, 16, 64, 0, {}), [ENGINE, ENGINE, FEW, FEW, FEW, FEW]),
    ((2, 17, 64, 0, {}), [DENSE, ENGINE, FEW, FEW, FEW, FEW]),
    ((2, 20, 64, 0, NO_ENGINE), [DENSE, FEW, FEW, FEW, FEW, FEW]),
    ((2, 21, 64, 0, NO_ENGINE), [DENSE] * 6),
    ((2, 64, 64, 0, {}), [DENSE, ENGINE, DENSE, DENSE, DENSE, DENSE]),
    ((2, 65, 64, 0, {}), [DENSE] * 6),
    ((2, 100, 50000, 4096, {}), [DENSE] * 6),
    ((2, 100, 50001, 128, {}), [DENSE] * 6),
    ((2, 100, 50001, 129, {}), [DENSE, DENSE, DENSE, DENSE, TILED, DENSE]),
    ((2, 21, 101, 129, {"TILE_THRESHOLD": "100", "TILE_SIZE": "40"}), [DENSE, DENSE, DENSE, DENSE, TILED, DENSE]),
    ((2, 21, 101, 129, {"TILE_THRESHOLD": "101"}), [DENSE] * 6),
    ((2, 21, 101, 129, {"TILE_THRESHOLD": "-5 rows", "TILE_SIZE": "60"}), [DENSE] * 4 + [TILED, DENSE]),
    ((2, 20, 101, 129, {"TILE_THRESHOLD": "100"}), [DENSE, FEW, FEW, FEW, FEW, FEW]),
    ((3, 8, 64, 0, {}), [FEW] * 6),
    ((3, 20, 64, 0, {}), [FEW] * 6),
    ((3, 21, 64, 0, {}), [DENSE] * 6),
    ((10, 14, 64, 0, {}), [FEW] * 6),
    ((10, 15, 64, 0, {}), [DENSE] * 6),
    *[((qtype, 1, 64, 0, {}), [ONE] * 6) for qtype in (3, 6, 7, 8, 10, 11, 15, 16, 19)],
    *[((qtype, 2, 64, 0, {}), [DENSE] * 6) for qtype in (6, 7, 11, 16)],
    *[((qtype, 2, 64, 0, {}), [ENGINE, ENGINE, DENSE, DENSE, DENSE, DENSE]) for qtype in (8, 15, 19)],
    *[((qtype, 2, 63, 0, {}), [DENSE] * 6) for qtype in (8, 15, 19)],
    *[((qtype, 16, 64, 0, {}), [ENGINE, ENGINE, DENSE, DENSE, DENSE, DENSE]) for qtype in (8, 15, 19)],
    *[((qtype, 17, 64, 0, {}), [DENSE, ENGINE, DENSE, DENSE, DENSE, DENSE]) for qtype in (8, 15, 19)],
    *[((qtype, 65, 64, 0, {}), [DENSE] * 6) for qtype in (8, 15, 19)],
    ((2, 64, 64, 0, {"QUARN_LLM_SYSARR_DISABLED": ""}), [DENSE, ENGINE, DENSE, DENSE, DENSE, DENSE]),
]


def observed(qtype: int, rows: int, output: int, hint: int, environment: dict) -> tuple[str, list]:
    """The route, and of every submission the groups, the group's size and whether the host waited for it."""
    import kelvor_xpu
    import torch
    import tolvane

    os.environ.update(environment)
    x = torch.ones(rows, 64, device="xpu")
    weight = torch.zeros(output * BLOCK_BYTES[qtype], dtype=torch.uint8, device="xpu")
    kelvor_xpu.clear_submissions()
    try:
        tolvane.forward_new(x, weight, qtype, hint)
    except RuntimeError as error:
        assert "go to the matrix engine" in str(error) and not kelvor_xpu.submissions()
        return ENGINE, []
    finally:
        for name in environment:
            del os.environ[name]
    log = [s for s in kelvor_xpu.submissions() if s.label == "devq_kernel"]
    shapes = [[s.global_size[0] // s.local_size[0], s.local_size[0], int(s.waited)] for s in log]
    kernel = log[0].kernel
    if "batch_kernel" in kernel:
        return FEW, shapes
    if "dequantize_kernel" in kernel:
        return (TILED if len(log) > 1 else DENSE), shapes
    return ONE, shapes


if __name__ == "__main__":
    results = {}
    for i, (call, _) in enumerate(CALLS):
        route, shapes = observed(*call)
        results[f"route{i}"] = np.array(route)
        results[f"shapes{i}"] = np.array(shapes).reshape(-1, 3)
    np.savez(sys.argv[1], **results)
