"""Generates text with packed weights on the `xpu` device, and compares with the dense model.

usage: demo.py [--prompt TEXT] [--tokens N] [--format F] [--dtype T] [--skip-speed]
       demo.py --all-formats [--prompt TEXT] [--tokens N] [--dtype T]
"""

from __future__ import annotations

import argparse
import sys
import time
from dataclasses import dataclass
from typing import Sequence

import torch

import all_formats
import corpus
import quarn
from all_formats import HELD_OUT_BYTES
from generate import check_request, generate
from mlp_speed import HIDDEN, STATE, measure
from model import Decoder
from packed_models import DTYPES, bytes_of, with_packed_mlps
from train import as_tokens, load, perplexity


@dataclass
class Result:
    """What the demo shows of one model."""

    name: str
    text: str
    tokens_per_second: float
    perplexity: float
    mlp_bytes: int
    all_bytes: int


def run(name: str, model: Decoder, prompt: str, count: int, show: bool) -> Result:
    """Generates on `xpu`, with a live display where `show`, and measures."""
    model = model.to("xpu")
    live = show and sys.stdout.isatty()
    if live:
        print(prompt, end="", flush=True)
    text = bytearray(prompt.encode())
    start = time.perf_counter()
    for byte in generate(model, bytes(text), count):
        text.append(byte)
        if live:
            print(chr(byte), end="", flush=True)
    seconds = time.perf_counter() - start
    decoded = text.decode("utf-8", errors="replace")
    if show:
        print("" if live else decoded)
    held_out = as_tokens(corpus.held_out_text(HELD_OUT_BYTES)).to("xpu")
    measured = perplexity(model, held_out, model.config.context)
    sizes = bytes_of(model, lambda name: "gate" in name or "up" in name), bytes_of(model)
    return Result(name, decoded, count / seconds, measured, *sizes)


def print_table(header: Sequence[str], rows: Sequence[Sequence[str]]) -> None:
    """Columns wide enough for their content, the first to the left and the others to the right."""
    widths = [max(map(len, column)) for column in zip(header, *rows)]
    for row in (header, ["-" * width for width in widths], *rows):
        cells = [row[0].ljust(widths[0])]
        cells += [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        print("  ".join(cells))


def compare_models(arguments: argparse.Namespace) -> None:
    """Generates with every model and prints the texts and the table."""
    dense = load()
    check_request(dense, arguments.prompt.encode(), arguments.tokens)
    dtype = DTYPES[arguments.dtype]
    others = [name for name in quarn.MLP_FORMATS if name != arguments.format]
    results = []
    for name in (arguments.format, *others):
        show = name == arguments.format
        if show:
            print(f"Text from {name} weights, computed in {arguments.dtype}:\n")
        model = with_packed_mlps(dense, name, dtype)
        results.append(run(name, model, arguments.prompt, arguments.tokens, show))
    print("\nText from the dense model, computed in float:\n")
    results.append(run("dense", dense, arguments.prompt, arguments.tokens, True))

    print(f"\nPerplexity is per byte, over {HELD_OUT_BYTES - 1} bytes held out from training.\n")
    header = ["weights", "perplexity", "gate and up, kB", "model, kB", "tokens/s"]
    print_table(
        header,
        [
            [
                result.name,
                f"{result.perplexity:.4f}",
                f"{result.mlp_bytes / 1e3:,.0f}",
                f"{result.all_bytes / 1e3:,.0f}",
                f"{result.tokens_per_second:.0f}",
            ]
            for result in results
        ],
    )


def compare_all_formats(arguments: argparse.Namespace) -> None:
    """Prints the table of the decoder with every linear layer packed."""
    place = all_formats.device()
    how = {
        "xpu": "the operator on packed weights, on xpu",
        "cpu": "PyTorch on weights unpacked for each call, because tolvane has no forward_new",
    }
    print(
        f"Every linear layer packed and computed in {arguments.dtype}: {how[place]}.\n"
        f"Perplexity is per byte, over {HELD_OUT_BYTES - 1} bytes held out from training.\n"
    )
    rows = all_formats.measure(DTYPES[arguments.dtype], place, arguments.prompt, arguments.tokens)
    print_table(all_formats.HEADER, [row.cells() for row in rows])


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
    parser.add_argument("--format", choices=quarn.MLP_FORMATS, default="q4_0", help="whose text")
    parser.add_argument(
        "--dtype", choices=DTYPES, default="float", help="element type of the packed layers"
    )
    parser.add_argument("--skip-speed", action="store_true", help="leave the large MLP out")
    parser.add_argument("--all-formats", action="store_true", help="only the table of all formats")
    arguments = parser.parse_args()
    try:
        import tolvane  # noqa: F401  registers the xpu device
    except ModuleNotFoundError:
        parser.exit(1, "tolvane is not built, or build/python is not on PYTHONPATH\n")
    try:
        if arguments.all_formats:
            compare_all_formats(arguments)
            return
        compare_models(arguments)
    except (FileNotFoundError, ValueError) as error:
        parser.exit(1, f"{error}\n")
    if not arguments.skip_speed:
        compare_speed()


if __name__ == "__main__":
    main()
