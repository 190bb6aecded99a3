"""Measures operators against peers in the same process, with weights that come from memory."""

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

    `ours` and the peers, which have names, take the number of the call, and use it to pick one
    of several copies of the weights (`copies_needed`). `packed_bytes` is what one call of `ours`
    reads.
    """

    operator: str
    shape: str
    dtype: str
    format: str
    packed_bytes: int
    ours: Callable[[int], object]
    peers: dict[str, Callable[[int], object]]


@dataclass(frozen=True)
class Peer:
    """A peer's median in microseconds, and that over ours."""

    name: str
    microseconds: float
    spread: float
    speed_up: float


@dataclass(frozen=True)
class Result:
    """Medians in microseconds; spreads are the quartile distance over the median.

    `read_microseconds` is what reading the packed bytes takes at the memory's rate in this run,
    and `bandwidth_share` that over our time.
    """

    operator: str
    shape: str
    dtype: str
    format: str
    microseconds: float
    spread: float
    read_microseconds: float
    bandwidth_share: float
    peers: list[Peer]


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
LONG_TURN_SECONDS = 0.2


def measure(case: Case, seconds: float, bandwidth: float) -> Result:
    """Calls ours and the peers in turns for about `seconds`, at least 3 turns.

    A turn has 3 calls, or fewer long ones. Before it there is a pause: after a call, the BLAS's threads keep a core
    busy for a while in case there is another one, which would be charged to whoever comes next.
    """
    runs = {"": case.ours, **case.peers}
    times: dict[str, list[float]] = {name: [] for name in runs}
    for run in runs.values():
        run(0)
    end = time.perf_counter() + seconds
    turns = 0
    while turns < 3 or time.perf_counter() < end:
        turns += 1
        for name, run in runs.items():
            time.sleep(PAUSE_SECONDS)
            begin = time.perf_counter()
            for calls in itertools.count():
                start = time.perf_counter()
                if start - begin >= (TURN_SECONDS if calls >= 3 else LONG_TURN_SECONDS):
                    break
                run(len(times[name]) + 1)
                times[name].append(1e6 * (time.perf_counter() - start))
    ours = median(times[""])
    read = case.packed_bytes / bandwidth / 1e3
    return Result(
        case.operator,
        case.shape,
        case.dtype,
        case.format,
        ours,
        spread(times[""]),
        read,
        read / ours,
        [Peer(name, median(times[name]), spread(times[name]), median(times[name]) / ours) for name in case.peers],
    )


def spread(times: Sequence[float]) -> float:
    """The distance of the quartiles over the median."""
    low, middle, high = quantiles(times, n=4)
    return (high - low) / middle


HEADER = (
    f"{'operator':<10} {'shape':<14} {'type':<9} {'format':<9} {'time us':>10} {'spread':>7} "
    f"{'read us':>9} {'share':>6}  peers: time us (over ours)"
)


def line(result: Result) -> str:
    """A line of the table under `HEADER`."""
    peers = (f"{peer.name} {peer.microseconds:.1f} ({peer.speed_up:.2f})" for peer in result.peers)
    return (
        f"{result.operator:<10} {result.shape:<14} {result.dtype:<9} {result.format:<9} "
        f"{result.microseconds:>10.1f} {result.spread:>7.1%} "
        f"{result.read_microseconds:>9.1f} {result.bandwidth_share:>6.1%}  {', '.join(peers)}"
    )


def write_json(path: Path, machine: dict[str, object], results: Sequence[Result]) -> None:
    """The machine's facts and all results."""
    content = {"machine": machine, "results": [asdict(result) for result in results]}
    path.write_text(json.dumps(content, indent=2) + "\n")


def write_plot(path: Path, results: Sequence[Result]) -> None:
    """A bar per result: the share of the read bandwidth, with the speed-ups as its label."""
    from matplotlib import pyplot

    names = [f"{r.operator} {r.shape} {r.dtype} {r.format}" for r in results]
    labels = [", ".join(f"{p.speed_up:.2f} x {p.name}" for p in r.peers) for r in results]
    figure, axes = pyplot.subplots(figsize=(9, 1 + 0.3 * len(results)))
    bars = axes.barh(names, [100 * r.bandwidth_share for r in results])
    axes.bar_label(bars, labels, padding=3)
    axes.set_xlabel("share of the measured read bandwidth, %")
    axes.invert_yaxis()
    figure.savefig(path, bbox_inches="tight")
