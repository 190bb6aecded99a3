"""Prints the table of benchmarks.

usage: run.py [--entry NAME] [--filter TEXT] [--quick] [--json FILE] [--plot FILE]
"""

from __future__ import annotations

import argparse
import importlib.util
import os
from pathlib import Path

import torch

import harness

CPU_FEATURES = ("avx2", "fma", "f16c", "avx512f", "avx512bw", "avx512_bf16", "avx512_fp16")


def machine_facts(bandwidth: float) -> dict[str, object]:
    """What the numbers depend on."""
    flags = Path("/proc/cpuinfo").read_text().split()
    return {
        "cores": os.cpu_count(),
        "features": [feature for feature in CPU_FEATURES if feature in flags],
        "read_gigabytes_per_second": bandwidth,
        "torch": torch.__version__,
        "torch_threads": torch.get_num_threads(),
    }


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--entry", default="", help="one of the functions that yield lines")
    parser.add_argument("--filter", default="", help="words that a line must all contain")
    parser.add_argument("--quick", action="store_true", help="fewer sizes and shorter runs")
    parser.add_argument("--json", type=Path, help="also write the results to this file")
    parser.add_argument("--plot", type=Path, help="also draw the results into this file")
    arguments = parser.parse_args()
    if arguments.plot and importlib.util.find_spec("matplotlib") is None:
        parser.error("--plot needs matplotlib, which is not installed")
    try:
        from entries import ENTRIES
    except ModuleNotFoundError as error:
        parser.exit(1, f"{error}; build first, with build/python and python on PYTHONPATH\n")

    torch.manual_seed(0)
    bandwidth = harness.read_bandwidth()
    facts = machine_facts(bandwidth)
    for name, fact in facts.items():
        print(f"{name}: {fact:.1f}" if isinstance(fact, float) else f"{name}: {fact}")
    print(f"\n{harness.HEADER}")
    results = []
    for entry in ENTRIES:
        if arguments.entry not in ("", entry.__name__):
            continue
        for case in entry(arguments.quick):
            label = f"{case.operator} {case.shape} {case.dtype} {case.format}"
            if not all(word in label.split() for word in arguments.filter.split()):
                continue
            seconds = 0.5 if arguments.quick else 2.0
            results.append(harness.measure(case, seconds, bandwidth))
            print(harness.line(results[-1]), flush=True)
    if not results:
        names = ", ".join(dict.fromkeys(entry.__name__ for entry in ENTRIES))
        parser.error(f"no benchmark matches; the entries are {names}")
    if arguments.json:
        harness.write_json(arguments.json, facts, results)
    if arguments.plot:
        harness.write_plot(arguments.plot, results)


if __name__ == "__main__":
    main()
