"""Measures operators against a peer in the same process, with weights that come from memory."""

from __future__ import annotations

import json
import itertools
import math
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict, dataclass
from pathlib import Path
from statistics import median, quantiles
from typing import Callable, Sequence

import numpy as np
import torch

TYPES = {"float": torch.float32, "half": torch.float16, "bfloat16": torch.bfloat16}
TYPES_AND_DOUBLE = {**TYPES, "double": torch.float64}
ROTATION_BYTES = 128_000_000
BANDWIDTH_BYTES = 256_000_000


@dataclass(frozen=True)
class Case:
    """One line of the table.

    `ours` and `peer` take the number of the call, and use it to pick one of several copies of
    the weights (`copies_needed`). `packed_bytes` is what one call of `ours` reads.
    """

    operator: str
    shape: str
    dtype: str
    format: str
    packed_bytes: int
    ours: Callable[[int], object]
    peer: Callable[[int], object]


@dataclass(frozen=True)
class Result:
    """Medians in microseconds; spreads are the quartile distance over the median."""

    operator: str
    shape: str
    dtype: str
    format: str
    microseconds: float
    spread: float
    gigabytes_per_second: float
    bandwidth_share: float
    peer_microseconds: float
    peer_spread: float
    speed_up: float


def copies_needed(size: int) -> int:
    """How many copies of `size` bytes are more than caches hold."""
    return max(1, math.ceil(ROTATION_BYTES / size))


def read_bandwidth(threads: int = 2, rounds: int = 7) -> float:
    """GB/s at which `threads` Python threads together read (xor) memory: the best round."""
    parts = [np.ones(BANDWIDTH_BYTES // threads // 8, dtype=np.int64) for _ in range(threads)]
    size = sum(part.nbytes for part in parts)
    with ThreadPoolExecutor(threads) as pool:
        times = []
        for _ in range(rounds):
            start = time.perf_counter()
            list(pool.map(np.bitwise_xor.reduce, parts))
            times.append(time.perf_counter() - start)
    return size / min(times) / 1e9


PAUSE_SECONDS = 0.1
TURN_SECONDS = 0.02


def measure(case: Case, seconds: float, bandwidth: float) -> Result:
    """Calls ours and the peer in turns for about `seconds`, at least 3 turns of 3 calls each.

    Before each turn there is a pause: after a call, the BLAS's threads keep a core busy for a while in case there is
    another one, which would be charged to whoever comes next.
    """
    ours: list[float] = []
    peer: list[float] = []
    case.ours(0), case.peer(0)
    end = time.perf_counter() + seconds
    turns = 0
    while turns < 3 or time.perf_counter() < end:
        turns += 1
        for run, times in ((case.ours, ours), (case.peer, peer)):
            time.sleep(PAUSE_SECONDS)
            turn_end = time.perf_counter() + TURN_SECONDS
            for calls in itertools.count():
                start = time.perf_counter()
                if calls >= 3 and start >= turn_end:
                    break
                run(len(times) + 1)
                times.append(1e6 * (time.perf_counter() - start))
    rate = case.packed_bytes / median(ours) / 1e3
    return Result(
        case.operator,
        case.shape,
        case.dtype,
        case.format,
        median(ours),
        spread(ours),
        rate,
        rate / bandwidth,
        median(peer),
        spread(peer),
        median(peer) / median(ours),
    )


def spread(times: Sequence[float]) -> float:
    """The distance of the quartiles over the median."""
    low, middle, high = quantiles(times, n=4)
    return (high - low) / middle


HEADER = (
    f"{'operator':<10} {'shape':<14} {'type':<9} {'format':<9} {'time us':>10} {'spread':>7} "
    f"{'GB/s':>7} {'share':>6} {'peer us':>10} {'spread':>7} {'speed-up':>8}"
)


def line(result: Result) -> str:
    """A line of the table under `HEADER`."""
    return (
        f"{result.operator:<10} {result.shape:<14} {result.dtype:<9} {result.format:<9} "
        f"{result.microseconds:>10.1f} {result.spread:>7.1%} "
        f"{result.gigabytes_per_second:>7.2f} {result.bandwidth_share:>6.1%} "
        f"{result.peer_microseconds:>10.1f} {result.peer_spread:>7.1%} {result.speed_up:>8.2f}"
    )


def write_json(path: Path, machine: dict[str, object], results: Sequence[Result]) -> None:
    """The machine's facts and all results."""
    content = {"machine": machine, "results": [asdict(result) for result in results]}
    path.write_text(json.dumps(content, indent=2) + "\n")


def write_plot(path: Path, results: Sequence[Result]) -> None:
    """A bar per result: the share of the read bandwidth, with the speed-up as its label."""
    from matplotlib import pyplot

    names = [f"{r.operator} {r.shape} {r.dtype} {r.format}" for r in results]
    figure, axes = pyplot.subplots(figsize=(9, 1 + 0.3 * len(results)))
    bars = axes.barh(names, [100 * r.bandwidth_share for r in results])
    axes.bar_label(bars, [f"{r.speed_up:.2f} x peer" for r in results], padding=3)
    axes.set_xlabel("share of the measured read bandwidth, %")
    axes.invert_yaxis()
    figure.savefig(path, bbox_inches="tight")
