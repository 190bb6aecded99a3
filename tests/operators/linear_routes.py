"""The route that each of some calls takes, as an observer sees it, and what must be seen on each device class."""

from __future__ import annotations

import os
from unittest import mock

import numpy as np
import kelvor_xpu
import torch
import tolvane

from cases import on_xpu
from packed import BLOCK_BYTES, FORMATS, random_weight

ONE, FEW, DENSE, ENGINE, TILED = "1", "few", "dense", "engine", "tiled"
LETTERS = {route[0]: route for route in (ONE, FEW, DENSE, ENGINE, TILED)}
NO_ENGINE, EMPTY = {"QUARN_LLM_SYSARR_DISABLED": "1"}, {"QUARN_LLM_SYSARR_DISABLED": ""}
# (qtype, rows, output_size, size_hint, environment), and the routes' first letters on the device classes 0 to 5:
# Summit, Vela A, Ridge, others, Vela, IGX.
CALLS = [
    ((2, 1, 4096, 0, {}), "111111"),
    ((2, 2, 4096, 0, {}), "eeffff"),
    ((2, 8, 4096, 0, NO_ENGINE), "dfffff"),
    ((2, 8, 4104, 0, {}), "dfffff"),
    ((2, 16, 64, 0, {}), "eeffff"),
    ((2, 17, 64, 0, {}), "deffff"),
    ((2, 20, 64, 0, NO_ENGINE), "dfffff"),
    ((2, 21, 64, 0, NO_ENGINE), "dddddd"),
    ((2, 64, 64, 0, {}), "dedddd"),
    ((2, 64, 64, 0, EMPTY), "dedddd"),
    ((2, 65, 64, 0, {}), "dddddd"),
    ((2, 100, 50000, 4096, {}), "dddddd"),
    ((2, 100, 50001, 128, {}), "dddddd"),
    ((2, 100, 50001, 129, {}), "ddddtd"),
    ((2, 21, 101, 129, {"TILE_THRESHOLD": "100", "TILE_SIZE": "40"}), "ddddtd"),
    ((2, 21, 101, 129, {"TILE_THRESHOLD": "101"}), "dddddd"),
    ((2, 21, 101, 129, {"TILE_THRESHOLD": "-5 rows", "TILE_SIZE": "60"}), "ddddtd"),
    ((2, 20, 101, 129, {"TILE_THRESHOLD": "100"}), "dfffff"),
    *(((3, rows, 64, 0, {}), "ffffff") for rows in (8, 20)),
    ((3, 21, 64, 0, {}), "dddddd"),
    ((10, 14, 64, 0, {}), "ffffff"),
    ((10, 15, 64, 0, {}), "dddddd"),
    *(((qtype, 1, 64, 0, {}), "111111") for qtype in (3, 6, 7, 8, 10, 11, 15, 16, 19)),
    *(((qtype, 2, 64, 0, {}), "dddddd") for qtype in (6, 7, 11, 16)),
]
for qtype in (8, 15, 19):
    CALLS += [((qtype, rows, 64, 0, {}), "eedddd") for rows in (2, 16)]
    CALLS += [((qtype, 17, 64, 0, {}), "dedddd")]
    CALLS += [((qtype, *sizes, 0, {}), "dddddd") for sizes in ((2, 63), (65, 64))]
ROWS, OUTPUT, STATE = 30, 101, 128
TILE_SIZES = ("40", "1000", "101", "40-rows", "0", "-0", " -40")


def observed(qtype: int, rows: int, output: int, hint: int) -> tuple[str, list[list[int]]]:
    """The route, and of every submission the groups, the group's size and whether the host waited for it."""
    x = torch.ones(rows, 64, device="xpu")
    weight = torch.zeros(output * BLOCK_BYTES[qtype], dtype=torch.uint8, device="xpu")
    kelvor_xpu.clear_submissions()
    tolvane.forward_new(x, weight, qtype, hint)
    log = [s for s in kelvor_xpu.submissions() if s.label == "devq_kernel"]
    shapes = [[s.global_size[0] // s.local_size[0], s.local_size[0], int(s.waited)] for s in log]
    if "sysarr_kernel" in log[0].kernel:
        return ENGINE, shapes
    if "batch_kernel" in log[0].kernel:
        return FEW, shapes
    if "dequantize_kernel" in log[0].kernel:
        return DENSE, shapes
    return ONE, shapes


def sliced(x: torch.Tensor, weight: torch.Tensor) -> tuple[np.ndarray, int] | tuple[str, int]:
    """The result with slices, where the class makes them, or the error; and the peak of memory beyond what was there."""
    kelvor_xpu.reset_peak_memory_stats()
    before = kelvor_xpu.memory_allocated()
    try:
        result = tolvane.forward_new(x, weight, 2, 4096).cpu().numpy()
    except RuntimeError as error:
        result = str(error)
    return result, kelvor_xpu.max_memory_allocated() - before


def observations() -> dict[str, np.ndarray]:
    """Of every call the route and the shapes; of one layer the dense result, and for every TILE_SIZE the sliced one."""
    results = {}
    for i, (call, _) in enumerate(CALLS):
        with mock.patch.dict(os.environ, call[4]):
            route, shapes = observed(*call[:4])
        results[f"route{i}"], results[f"shapes{i}"] = (np.array(route), np.array(shapes).reshape(-1, 3))
    weight = on_xpu(random_weight(FORMATS["q4_0"], OUTPUT, STATE, 1).bytes)
    x = on_xpu(np.random.default_rng(2).standard_normal((ROWS, STATE)))
    for size in TILE_SIZES:
        with mock.patch.dict(os.environ, TILE_THRESHOLD="100", TILE_SIZE=size):
            tolvane.forward_new(x[:1], weight, 2, 4096)  # makes no slices, and so takes any size
            results["dense"] = tolvane.forward_new(x, weight, 2, 0).cpu().numpy()
            result, peak = sliced(x, weight)
        results[f"tiled{size}"], results[f"peak{size}"] = np.array(result), np.array(peak)
    return results
