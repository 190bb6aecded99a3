"""Draws the time per row of a packed layer over the number of rows, on every class of device that has routes of its
own, beside that of a dense layer on the same device.

usage: rows.py [--quick] [--json FILE] [--plot FILE]
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import time
from collections import defaultdict
from pathlib import Path
from typing import Callable

import torch
from torch.nn import functional as F

from harness import TYPES, copies_needed

CLASSES = {"Rack GPU Summit": "summit", "Vela(TM) A": "vela a", "other": "others"}
FORMATS = ("q4_0", "q8_0", "fp8_e4m3", "fp8_e5m2_linear", "nf4")
ROWS = (1, 2, 4, 8, 16, 32, 64, 256)
SIZE = 4096
Times = dict[str, dict[str, dict[int, float]]]
"""Milliseconds by type, format and rows: the lowest of the calls."""


def lowest(runs: dict[str, Callable[[int], object]], seconds: float) -> dict[str, float]:
    """The lowest time of each, called in turns with pauses in which the BLAS's threads go to sleep."""
    best = dict.fromkeys(runs, float("inf"))
    for run in runs.values():
        run(0)
    end, number = time.perf_counter() + seconds, 0
    while number < 3 or time.perf_counter() < end:
        number += 1
        for name, run in runs.items():
            time.sleep(0.02)
            for call in range(3):
                start = time.perf_counter()
                run(3 * number + call)
                best[name] = min(best[name], 1e3 * (time.perf_counter() - start))
    return best


def dense_call(x: torch.Tensor, copies: list[torch.Tensor]) -> Callable[[int], object]:
    return lambda number: F.linear(x, copies[number % len(copies)])


def packed_call(x: torch.Tensor, copies: list[torch.Tensor], qtype: int) -> Callable[[int], object]:
    import tolvane

    return lambda number: tolvane.forward_new(x, copies[number % len(copies)], qtype, 0)


def measure(quick: bool) -> Times:
    """All formats, types and rows on this process's device; weights come from memory."""
    import quarn

    times: Times = defaultdict(lambda: defaultdict(dict))
    packed = {}
    for name in FORMATS:
        sample = quarn.synthetic(name, SIZE, SIZE).to("xpu")
        copies = [sample.clone() for _ in range(copies_needed(sample.numel()))]
        packed[name] = copies, quarn.FORMATS[name].qtype
    for kind, dtype in TYPES.items():
        weight = torch.randn(SIZE, SIZE).to(dtype).to("xpu")
        dense = [weight.clone() for _ in range(copies_needed(weight.numel() * weight.element_size()))]
        for rows in (1, 8) if quick else ROWS:
            x = torch.randn(rows, SIZE).to(dtype).to("xpu")
            runs = {"dense": dense_call(x, dense)}
            for name, (copies, qtype) in packed.items():
                runs[name] = packed_call(x, copies, qtype)
            for name, best in lowest(runs, 0.1 if quick else 0.5).items():
                times[kind][name][rows] = best
    return times


def draw(path: Path, by_class: dict[str, Times]) -> None:
    """A row of plots for each class, a column for each type."""
    from matplotlib import pyplot, ticker

    shape = len(by_class), len(TYPES)
    figure, plots = pyplot.subplots(*shape, figsize=(13, 3.4 * len(by_class)), sharex=True, sharey=True, squeeze=False)
    for line, (title, times) in zip(plots, by_class.items()):
        for axes, (kind, formats) in zip(line, times.items()):
            for name, points in formats.items():
                rows = [int(r) for r in points]
                style = "k--" if name == "dense" else "o-"
                axes.loglog(rows, [best / r for r, best in zip(rows, points.values())], style, label=name, markersize=3)
            axes.set_title(f"{title}, {kind}")
            axes.set_xticks(ROWS, [str(r) for r in ROWS], minor=False)
            axes.set_yticks((0.2, 0.3, 0.5, 1, 2, 3), minor=False)
            axes.yaxis.set_major_formatter(ticker.ScalarFormatter())
            axes.yaxis.set_minor_formatter(ticker.NullFormatter())
            axes.grid(alpha=0.3)
    plots[0][0].legend(fontsize=8)
    figure.supxlabel("rows")
    figure.supylabel(f"milliseconds per row, {SIZE} x {SIZE}")
    figure.tight_layout()
    figure.savefig(path, dpi=80)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="few rows and short runs")
    parser.add_argument("--json", type=Path, help="also write the times to this file")
    parser.add_argument("--plot", type=Path, help="also draw them into this file")
    parser.add_argument("--here", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    if arguments.here:
        print(json.dumps(measure(arguments.quick)))
        return
    by_class = {}
    for device, title in CLASSES.items():
        command = [sys.executable, __file__, "--here", *(["--quick"] if arguments.quick else [])]
        done = subprocess.run(
            command, env={**os.environ, "KELVOR_XPU_DEVICE_NAME": device}, stdout=subprocess.PIPE, text=True, check=True
        )
        by_class[title] = json.loads(done.stdout)
        for kind, formats in by_class[title].items():
            for name, points in formats.items():
                cells = "  ".join(f"{rows}: {best:.2f}" for rows, best in points.items())
                print(f"{title:<8} {kind:<9} {name:<16} {cells}", flush=True)
    if arguments.json:
        arguments.json.write_text(json.dumps(by_class, indent=1) + "\n")
    if arguments.plot:
        draw(arguments.plot, by_class)


if __name__ == "__main__":
    main()
