"""One layer by the tiled and by the dense route, and the peak of memory: tiled_case.py OUT. TILE_SIZE is set outside."""

from __future__ import annotations

import os
import sys

import kelvor_xpu
import numpy as np
import torch
import tolvane

from packed import FORMATS, random_weight

STATE, OUTPUT, ROWS = 128, 101, 30
packed = torch.from_numpy(random_weight(FORMATS["q4_0"], OUTPUT, STATE, 1).bytes).to("xpu")
x = torch.from_numpy(np.random.default_rng(2).standard_normal((ROWS, STATE))).to("xpu")
dense = tolvane.forward_new(x, packed, 2, 0)  # the hint decides
kelvor_xpu.reset_peak_memory_stats()
before = kelvor_xpu.memory_allocated()
tiled = tolvane.forward_new(x, packed, 2, 4096)
peak = kelvor_xpu.max_memory_allocated() - before
# The output, one slice, and the slice's product with what the multiplication needs besides.
step = min(int(os.environ["TILE_SIZE"]), OUTPUT)
allowed = 8 * (ROWS * OUTPUT + step * STATE + 3 * ROWS * step)
np.savez(sys.argv[1], tiled=tiled.cpu().numpy(), dense=dense.cpu().numpy(), peak=peak, allowed=allowed)
