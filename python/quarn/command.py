"""The command `quarn`: packs checkpoints, generates text, measures perplexity."""

from __future__ import annotations

import argparse
import json
import resource
import sys
import time
from pathlib import Path
from typing import Any, Sequence, get_args

import torch

from .choice import Choice
from .formats import FORMATS
from .generation import generate, perplexity
from .kv_cache import CacheKind
from .pretrained import from_pretrained, pack_pretrained
from .progress import ProgressBar

DTYPES = {"float": torch.float32, "half": torch.float16, "bfloat16": torch.bfloat16, "double": torch.float64}


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs the command; 1 with a message where its input is at fault."""
    options = _parser().parse_args(arguments)
    try:
        options.run(options)
    except (OSError, ValueError, KeyError, ImportError) as error:
        text = error.args[0] if isinstance(error, KeyError) else error
        print(f"quarn: {text}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    return 0


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="quarn", description=__doc__)
    commands = parser.add_subparsers(required=True, metavar="COMMAND")
    formats = ", ".join(name for name in FORMATS if name != "fp8_e5m2_linear")

    pack = commands.add_parser("pack", help="pack a checkpoint's linear layers")
    pack.add_argument("checkpoint", type=Path, help="folder with config.json and safetensors")
    pack.add_argument("out", type=Path, help="folder for the packed checkpoint")
    _add_format(pack, f"{formats}; NAME=FORMAT for layers of that name", ["q4_0"])
    pack.set_defaults(run=_pack)

    text = commands.add_parser("generate", help="continue a text")
    text.add_argument("model", type=Path, help="folder of a checkpoint, packed or dense")
    text.add_argument("prompt")
    text.add_argument("--count", type=int, default=128, help="tokens at most (%(default)s)")
    text.add_argument("--temperature", type=float, default=0.0, help="0: the likeliest token")
    text.add_argument("--top-p", type=float, default=1.0)
    text.add_argument("--seed", type=int, default=0)
    text.add_argument(
        "--cache", choices=get_args(CacheKind), default="half", help="type of keys and values (%(default)s)"
    )
    text.set_defaults(run=_generate)

    measured = commands.add_parser("perplexity", help="measure a model on a text")
    measured.add_argument("model", type=Path, help="folder of a checkpoint, packed or dense")
    measured.add_argument("file", type=Path, help="text in UTF-8")
    measured.add_argument("--window", type=int, default=512, help="tokens (%(default)s)")
    measured.set_defaults(run=_perplexity)

    for parser_ in (text, measured):
        _add_format(parser_, "pack a dense checkpoint's layers while it is loaded", None)
        parser_.add_argument("--dtype", choices=DTYPES, default="float", help="of activations")
        parser_.add_argument("--device", default="xpu")
    return parser


def _add_format(parser: argparse.ArgumentParser, text: str, default: list[str] | None) -> None:
    parser.add_argument("--format", action="append", metavar="[NAME=]FORMAT", help=text)
    parser.add_argument("--embeddings", action="store_true", help="pack embeddings too, in q2_k")
    parser.set_defaults(default_format=default)


def _choice(options: argparse.Namespace) -> Choice | None:
    """--format q4_0 --format down=q8_0: by names, the one without a name for all others. "none" stays dense."""
    given = options.format or options.default_format
    if not given:
        return None
    choice: dict[str, str | None] = {}
    for text in given:
        name, _, format = text.rpartition("=")
        if format not in FORMATS and format != "none":
            raise ValueError(f"unknown format {format!r}; known are {', '.join(FORMATS)}")
        choice[name or "default"] = None if format == "none" else format
    return choice


def _bytes_of(folder: Path) -> int:
    return sum(path.stat().st_size for path in folder.glob("*.safetensors"))


def _pack(options: argparse.Namespace) -> None:
    choice = _choice(options)
    assert choice is not None
    start = time.monotonic()
    pack_pretrained(options.checkpoint, options.out, choice, options.embeddings)
    before, after = (_bytes_of(folder) / 1e6 for folder in (options.checkpoint, options.out))
    seconds = time.monotonic() - start
    print(f"{before:.1f} MB -> {after:.1f} MB ({after / before:.0%}) in {seconds:.1f} s")


def _loaded(options: argparse.Namespace) -> tuple[Any, Any]:
    """The model and its tokenizer."""
    from tokenizers import Tokenizer  # of transformers' family, and nothing else here needs it

    path = options.model / "tokenizer.json"
    if not path.exists():
        raise FileNotFoundError(f"{options.model} has no tokenizer.json")
    start = time.monotonic()
    model = from_pretrained(options.model, _choice(options), options.embeddings, options.device, DTYPES[options.dtype])
    print(f"loaded in {time.monotonic() - start:.1f} s", file=sys.stderr)
    return model, Tokenizer.from_file(str(path))


def _stop_tokens(folder: Path) -> set[int]:
    """The tokens that end a text, by the checkpoint's configuration."""
    found: set[int] = set()
    for name in ("config.json", "generation_config.json"):
        path = folder / name
        ids = json.loads(path.read_text()).get("eos_token_id") if path.exists() else None
        found |= set(ids if isinstance(ids, list) else [] if ids is None else [ids])
    return found


def _generate(options: argparse.Namespace) -> None:
    model, tokenizer = _loaded(options)
    prompt = tokenizer.encode(options.prompt).ids
    print(options.prompt, end="", flush=True)
    tokens: list[int] = []
    shown = ""
    times = [time.monotonic()]
    for token in generate(
        model,
        prompt,
        options.count,
        options.temperature,
        options.top_p,
        options.seed,
        _stop_tokens(options.model),
        options.cache,
    ):
        times.append(time.monotonic())
        tokens.append(token)
        # Whole characters only: a token may hold a part of one, and its text may hang on those before it.
        text = tokenizer.decode(prompt[-1:] + tokens)[len(tokenizer.decode(prompt[-1:])) :]
        if not text.endswith("\ufffd"):
            print(text[len(shown) :], end="", flush=True)
            shown = text
    print()
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1e3
    if len(times) > 2:
        first, rest = times[1] - times[0], times[-1] - times[1]
        print(
            f"prompt: {len(prompt)} tokens, {len(prompt) / first:.1f} tokens/s; text: {len(tokens)} tokens, "
            f"{(len(tokens) - 1) / rest:.1f} tokens/s; memory at most {peak:.0f} MB",
            file=sys.stderr,
        )


def _perplexity(options: argparse.Namespace) -> None:
    model, tokenizer = _loaded(options)
    tokens = tokenizer.encode(options.file.read_text(encoding="utf-8")).ids
    window = min(options.window, model.config.context)
    bar = ProgressBar(len(tokens), True, "tokens", in_millions=False)
    result = perplexity(model, tokens, window, bar.advance)
    bar.finish()
    print(f"perplexity {result:.4f} over {len(tokens)} tokens, windows of {window}")
