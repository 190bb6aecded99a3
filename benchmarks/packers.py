"""Prints how many million weights a second each packer packs, and what it loses.

usage: packers.py [--filter TEXT] [--quick] [--json FILE]
"""

from __future__ import annotations

import argparse
import json
import time
from dataclasses import asdict, dataclass
from pathlib import Path
from statistics import median

import torch

import quarn
from quarn import native

STATE_SIZE = 4096
HEADER = (
    f"{'format':<16} {'importance':<10} {'bits/weight':>11} {'M weights/s':>11} {'best':>7} "
    f"{'error':>9} {'weighted':>9}"
)


@dataclass(frozen=True)
class Result:
    """Rates in million weights a second, the median and the best of several runs.

    Errors are mean squares relative to the weights', plain and weighted by the importance.
    """

    format: str
    importance: bool
    bits_per_weight: float
    rate: float
    best_rate: float
    error: float
    weighted_error: float


def measure(format: str, rows: int, weighted: bool, seconds: float) -> Result:
    """Packs rows of normal weights for about `seconds`, at least three times."""
    torch.manual_seed(0)
    weight = torch.randn(rows, STATE_SIZE)
    importance = torch.randn(STATE_SIZE).mul(1.5).exp()  # uneven, as activations are
    factors = importance if weighted else None
    packed = quarn.pack(weight, format, factors)
    times: list[float] = []
    while len(times) < 3 or sum(times) < seconds:
        start = time.perf_counter()
        quarn.pack(weight, format, factors)
        times.append(time.perf_counter() - start)
    squares = (quarn.unpack(packed, format, STATE_SIZE) - weight).square_()
    return Result(
        format,
        weighted,
        quarn.FORMATS[format].bits_per_weight,
        weight.numel() / median(times) / 1e6,
        weight.numel() / min(times) / 1e6,
        (squares.mean() / weight.square().mean()).item(),
        ((squares * importance).mean() / (weight.square() * importance).mean()).item(),
    )


def line(result: Result) -> str:
    """A line of the table under `HEADER`."""
    return (
        f"{result.format:<16} {'with' if result.importance else 'without':<10} "
        f"{result.bits_per_weight:>11.4f} {result.rate:>11.1f} {result.best_rate:>7.1f} "
        f"{result.error:>9.6f} {result.weighted_error:>9.6f}"
    )


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--filter", default="", help="words that a format's name must all contain")
    parser.add_argument("--quick", action="store_true", help="fewer weights and shorter runs")
    parser.add_argument("--json", type=Path, help="also write the results to this file")
    arguments = parser.parse_args()
    print(f"threads: {native.threads()}\n\n{HEADER}")
    results = []
    for name, entry in quarn.FORMATS.items():
        if not all(word in name for word in arguments.filter.split()):
            continue
        rows = 256 if arguments.quick or entry.block_elements == 256 else 2048
        for weighted in (False, True) if entry.weighted else (False,):
            results.append(measure(name, rows, weighted, 0.3 if arguments.quick else 2.0))
            print(line(results[-1]), flush=True)
    if not results:
        parser.error(f"no format matches {arguments.filter!r}")
    if arguments.json:
        content = {"threads": native.threads(), "results": [asdict(each) for each in results]}
        arguments.json.write_text(json.dumps(content, indent=2) + "\n")


if __name__ == "__main__":
    main()
