"""Generates text with packed weights on the `xpu` device, and compares with the dense model.

usage: demo.py [--prompt TEXT] [--tokens N] [--format F] [--dtype T] [--skip-speed]
"""

from __future__ import annotations

import argparse
import copy
import sys
import tempfile
from pathlib import Path
from typing import Sequence

import torch

import all_formats
from all_formats import HELD_OUT_BYTES
from convert import convert
from generate import check_request, generate
from mlp_speed import HIDDEN, STATE, measure
from model import Decoder
from packed_models import DTYPES
from quarn import command
from train import load


def show_text(title: str, model: Decoder, prompt: str, count: int) -> None:
    """Generates on `xpu`: byte by byte on a terminal, otherwise at once."""
    print(f"{title}\n")
    live = sys.stdout.isatty()
    text = bytearray(prompt.encode())
    if live:
        print(prompt, end="", flush=True)
    for byte in generate(model.to("xpu"), bytes(text), count):
        text.append(byte)
        if live:
            print(chr(byte), end="", flush=True)
    print("\n" if live else text.decode("utf-8", errors="replace") + "\n")


def show_packed_text(dense: Decoder, arguments: argparse.Namespace) -> None:
    """Packs the decoder's checkpoint, and generates as any packed checkpoint does: by the command `quarn`."""
    with tempfile.TemporaryDirectory() as folder:
        source, packed = Path(folder, "checkpoint"), Path(folder, "packed")
        convert(dense, source)
        print(f"quarn pack CHECKPOINT PACKED --format {arguments.format} --format lm_head=none\n")
        formats = ["--format", arguments.format, "--format", "lm_head=none"]
        failed = command.main(["pack", str(source), str(packed), *formats])
        print(f"\nquarn generate PACKED {arguments.prompt!r}, computed in {arguments.dtype}\n")
        how = ["--count", str(arguments.tokens), "--temperature", "0.6", "--dtype", arguments.dtype]
        failed = failed or command.main(["generate", str(packed), arguments.prompt, *how])
        if failed:
            raise ValueError("the packed checkpoint could not be used")
        print()


def print_table(header: Sequence[str], rows: Sequence[Sequence[str]]) -> None:
    """Columns wide enough for their content, the first two to the left and the others to the right."""
    widths = [max(map(len, column)) for column in zip(header, *rows)]
    for row in (header, ["-" * width for width in widths], *rows):
        cells = [cell.ljust(width) for cell, width in zip(row[:2], widths[:2])]
        cells += [cell.rjust(width) for cell, width in zip(row[2:], widths[2:])]
        print("  ".join(cells))


def compare_models(arguments: argparse.Namespace) -> None:
    """Generates with packed and with dense weights, and prints the table of all formats."""
    dense = load()
    prompt, count = arguments.prompt, arguments.tokens
    check_request(dense, prompt.encode(), count)
    dtype = DTYPES[arguments.dtype]
    show_packed_text(dense, arguments)
    show_text("Dense, in float:", copy.deepcopy(dense), prompt, count)
    print(f"Perplexity is per byte, over {HELD_OUT_BYTES - 1} bytes held out from training.")
    rows = []
    for row in all_formats.measure(dense, dtype, prompt, count):
        rows.append(row.cells())
        print(f"\rmeasured {len(rows)} models" if sys.stdout.isatty() else "", end="", flush=True)
    print("\n")
    print_table(all_formats.HEADER, rows)


def compare_speed() -> None:
    """Prints the table of one large MLP."""
    print(
        f"\nOne gated MLP, {STATE} to {HIDDEN}, one row: the operator on packed weights, and "
        f"PyTorch's dense\nsilu(linear(x, g)) * linear(x, u) in float on the CPU "
        f"({torch.get_num_threads()} threads).\n"
    )
    print_table(["format", "type", "packed MB", "ours ms", "dense ms", "speed-up"], measure())


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--prompt", default="In Green Hollow there lived a", help="text to go on")
    parser.add_argument("--tokens", type=int, default=200, help="bytes to generate")
    parser.add_argument("--format", choices=all_formats.FORMATS, default="q4_0", help="whose text is shown")
    parser.add_argument("--dtype", choices=DTYPES, default="float", help="element type of the packed layers")
    parser.add_argument("--skip-speed", action="store_true", help="leave the large MLP out")
    arguments = parser.parse_args()
    try:
        import tolvane  # noqa: F401  registers the xpu device
    except ModuleNotFoundError:
        parser.exit(1, "tolvane is not built, or build/python is not on PYTHONPATH\n")
    try:
        compare_models(arguments)
    except (FileNotFoundError, ValueError) as error:
        parser.exit(1, f"{error}\n")
    if not arguments.skip_speed:
        compare_speed()


if __name__ == "__main__":
    main()
