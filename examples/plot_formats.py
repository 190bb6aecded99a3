"""Plots perplexity over bits per weight, with every linear layer packed, for each format.

usage: plot_formats.py [--dtype T] [--output FILE]
"""

from __future__ import annotations

import argparse
from pathlib import Path
from typing import Sequence

import tolvane  # noqa: F401  registers the xpu device
from all_formats import Row, measure
from packed_models import DTYPES
from train import load

OUTPUT = Path(__file__).resolve().parents[1] / "docs" / "perplexity.png"
# Where labels stand, in points from theirs, so that formats of the same size stay readable.
SHIFTS = {"fp4": (-26, 4), "nf4": (-26, -6), "q4_0": (-30, -6), "q8_0": (-30, -2)}
SHIFTS |= {"fp8_e4m3": (6, -14), "q5_1": (6, -10)}
SHIFTS |= {"q2_k": (6, -10), "iq2_xxs": (6, -10), "nf3": (6, -12)}


def plot(rows: Sequence[Row], path: Path) -> None:
    """A point for each format, and a line at the dense model's perplexity."""
    import matplotlib

    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, axes = pyplot.subplots(figsize=(7, 4.2), dpi=120)
    for row in rows:
        if row.format == "dense":
            axes.axhline(row.perplexity, color="grey", linestyle="--", linewidth=1)
            axes.text(6.2, row.perplexity, "dense, 32 bits", color="grey", va="bottom")
            continue
        bits = 8 * row.bytes_per_weight
        weighted = row.format.endswith(" by importance")
        axes.plot(bits, row.perplexity, "o", color="tab:orange" if weighted else "tab:blue")
        shift = SHIFTS.get(row.format, (6, 3))
        axes.annotate(row.format, (bits, row.perplexity), shift, textcoords="offset points")
    axes.set_xlim(1.8, 9.6)
    axes.set_xlabel("bits per weight, scales included")
    axes.set_ylabel("perplexity per byte, held-out text")
    axes.set_title("The example decoder with every linear layer packed")
    axes.grid(alpha=0.3)
    figure.tight_layout()
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--dtype", choices=DTYPES, default="float", help="type of the layers")
    parser.add_argument("--output", type=Path, default=OUTPUT, help="the image to write")
    arguments = parser.parse_args()
    try:
        import matplotlib  # noqa: F401
    except ModuleNotFoundError:
        parser.exit(1, "the plot needs matplotlib: apt-get install python3-matplotlib\n")
    try:
        every = measure(load(), DTYPES[arguments.dtype], "Anna was", 8)
        rows = [row for row in every if row.packed != "gate, up"]
    except FileNotFoundError as error:
        parser.exit(1, f"{error}\n")
    plot(rows, arguments.output)
    print(f"wrote {arguments.output}")


if __name__ == "__main__":
    main()
