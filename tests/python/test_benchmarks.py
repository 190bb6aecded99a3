"""The benchmark harness, with operators whose time is known."""

from __future__ import annotations

import itertools
import time
from typing import Callable

import pytest

import harness


def test_measure_takes_turns_and_counts_calls() -> None:
    calls: list[tuple[str, int]] = []

    def sleeper(name: str, seconds: float) -> Callable[[int], None]:
        def run(number: int) -> None:
            calls.append((name, number))
            time.sleep(seconds)

        return run

    ours, peer = sleeper("ours", 0.004), sleeper("peer", 0.012)
    case = harness.Case("op", "1 x 1", "float", "q4_0", 8_000_000, ours, {"peer": peer})
    result = harness.measure(case, 0.0, bandwidth=4.0)
    assert calls[:2] == [("ours", 0), ("peer", 0)]  # not measured
    turns = [list(turn) for _, turn in itertools.groupby(calls[2:], key=lambda call: call[0])]
    assert [turn[0][0] for turn in turns] == ["ours", "peer"] * 3
    assert all(len(turn) >= 3 for turn in turns)
    for name in ("ours", "peer"):
        numbers = [number for called, number in calls if called == name]
        assert numbers == list(range(len(numbers)))
    # Reading 8 MB at 4 GB/s takes 2 ms; sleeping takes a little longer than asked.
    assert result.microseconds == pytest.approx(4000, rel=0.5)
    assert result.read_microseconds == pytest.approx(2000)
    assert result.bandwidth_share == pytest.approx(0.5, rel=0.5)
    assert result.peers[0].speed_up == pytest.approx(3, rel=0.5)
    header, row = harness.HEADER, harness.line(result)
    assert row[: header.index("  peers")].split()[-2] == "2000.0" and row.split()[:2] == ["op", "1"]
    assert row[header.index("peers") :].startswith("peer 1")


def test_spread_and_rotation() -> None:
    assert harness.spread([1, 2, 3, 4, 5, 6, 7]) == pytest.approx((6 - 2) / 4)
    for size in (100, 48_000_000, 360_000_000):
        count = harness.copies_needed(size)
        assert count * size >= 100_000_000 and (count == 1 or (count - 1) * size < 128_000_000)
