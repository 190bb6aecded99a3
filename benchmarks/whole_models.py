"""Speed and memory of a whole decoder: tokens per second for its prompt and for single tokens, and peak memory.

usage: whole_models.py [--folder FOLDER] [--layers N] [--variants NAME …] [--tokens N] [--prompt N] [--json FILE]

The model has random weights in the shape of a 1.1-billion-parameter Llama. Each variant runs in a process of its own:
ours (packed, in float with keys and values in half, on `xpu`), the code of transformers in bfloat16 on the CPU
("dense"), and that with every linear layer by PyTorch's product with 4-bit weights ("int4"). Caches are filled with random numbers before single tokens are timed.
"""

from __future__ import annotations

import argparse
import json
import resource
import statistics
import subprocess
import sys
import time
from pathlib import Path
from typing import Any, Callable

import torch
from torch import Tensor, nn

from dense_peers import four_bit_product, four_bit_weight

CONFIG: dict[str, Any] = {
    "model_type": "llama",
    "architectures": ["LlamaForCausalLM"],
    "vocab_size": 32000,
    "hidden_size": 2048,
    "intermediate_size": 5632,
    "num_attention_heads": 32,
    "num_key_value_heads": 4,
    "head_dim": 64,
    "max_position_embeddings": 4096,
    "rms_norm_eps": 1e-5,
    "tie_word_embeddings": False,
}
PASTS = (128, 2048)
OURS = ("q4_0", "q8_0", "nf4")
PEERS = ("dense", "int4")


def write_checkpoint(folder: Path, layers: int) -> None:
    """A dense checkpoint in bfloat16 with random weights."""
    from quarn.llama import Llama
    from quarn.tensor_files import Written, write_tensors

    folder.mkdir(parents=True, exist_ok=True)
    config = CONFIG | {"num_hidden_layers": layers}
    (folder / "config.json").write_text(json.dumps(config))
    torch.manual_seed(0)

    def made(shape: torch.Size) -> Tensor:
        values = torch.randn(shape) * 0.02 if len(shape) > 1 else torch.ones(shape)
        return values.bfloat16()

    parameters = Llama.from_config(config).named_parameters()
    written = [
        Written(name, torch.bfloat16, p.shape, lambda shape=p.shape: made(shape))  # type: ignore[misc]
        for name, p in parameters
    ]
    write_tensors(folder / "model.safetensors", written, {"format": "pt"})


class Int4Linear(nn.Module):
    """A linear layer by PyTorch's product of bfloat16 with 4-bit weights, whose values do not matter here."""

    def __init__(self, rows: int, columns: int) -> None:
        super().__init__()
        self.rows, self.weight = rows, four_bit_weight(rows, columns, torch.bfloat16)

    def forward(self, x: Tensor) -> Tensor:
        flat = x.reshape(-1, x.shape[-1])
        return four_bit_product(flat, self.weight).view(*x.shape[:-1], self.rows)


def seconds_per_token(step: Callable[[], object], tokens: int) -> list[float]:
    step()
    times = []
    for _ in range(tokens):
        start = time.perf_counter()
        step()
        times.append(time.perf_counter() - start)
    return times


def memory() -> float:
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss / 1e3


def run_ours(folder: Path, tokens: int, prompt: int) -> dict[str, Any]:
    import quarn

    start = time.perf_counter()
    model = quarn.from_pretrained(folder, progress=False)
    result: dict[str, Any] = {"load": time.perf_counter() - start}
    if prompt:
        ids = torch.arange(prompt) % CONFIG["vocab_size"]
        start = time.perf_counter()
        model(ids, model.new_cache(prompt, "half"), last=True).argmax()
        result["prompt"] = time.perf_counter() - start
        result["memory with prompt"] = memory()
    token = torch.tensor([5])
    for past in PASTS:
        cache = None  # before there is a longer one
        cache = model.new_cache(past + tokens + 1, "half")
        for layer in cache.layers:
            layer.stored.all_keys.normal_()
            layer.stored.all_values.normal_()
            layer.cut(past)
        cache.length = past
        result[str(past)] = seconds_per_token(lambda: model(token, cache).argmax(), tokens)
    return result


@torch.inference_mode()
def run_peer(folder: Path, variant: str, tokens: int, prompt: int) -> dict[str, Any]:
    from transformers import DynamicCache, LlamaForCausalLM

    start = time.perf_counter()
    model = LlamaForCausalLM.from_pretrained(folder, dtype=torch.bfloat16).eval()
    if variant == "int4":
        for name, module in list(model.named_modules()):
            if isinstance(module, nn.Linear):
                model.set_submodule(name, Int4Linear(module.out_features, module.in_features))
    result: dict[str, Any] = {"load": time.perf_counter() - start}
    config = model.config
    if prompt:
        ids = torch.arange(prompt)[None] % CONFIG["vocab_size"]
        start = time.perf_counter()
        model(ids, use_cache=True, logits_to_keep=1).logits.argmax()
        result["prompt"] = time.perf_counter() - start
        result["memory with prompt"] = memory()
    token = torch.tensor([[5]])
    for past in PASTS:
        cache = DynamicCache(config=config)
        for layer in range(config.num_hidden_layers):
            shape = (1, config.num_key_value_heads, past, config.head_dim)
            cache.update(*torch.randn(2, *shape).bfloat16(), layer)
        step = lambda: model(token, past_key_values=cache, use_cache=True).logits.argmax()
        result[str(past)] = seconds_per_token(step, tokens)
    return result


def prepared(folder: Path, variants: list[str], layers: int) -> None:
    """The checkpoint, dense and packed, where it is not there yet."""
    if not (folder / "dense" / "model.safetensors").exists():
        write_checkpoint(folder / "dense", layers)
    for variant in variants:
        if variant in OURS and not (folder / variant / "model.safetensors").exists():
            command = ["pack", str(folder / "dense"), str(folder / variant), "--format", variant]
            subprocess.run([sys.executable, "-m", "quarn", *command], check=True)


def line(name: str, result: dict[str, Any], prompt: int) -> str:
    speeds = []
    for past in PASTS:
        times = result[str(past)]
        speeds.append(f"{1 / statistics.median(times):8.1f} ({1 / min(times):5.1f})")
    speed = f"{prompt / result['prompt']:8.1f}" if "prompt" in result else "       -"
    memory = f"{result.get('memory with prompt', 0):8.0f}  {result['memory']:8.0f}"
    return f"{name:8} {'  '.join(speeds)}  {speed}  {result['load']:7.1f}  {memory}"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--folder", type=Path, default=Path("build/whole_models"))
    parser.add_argument("--layers", type=int, default=22)
    parser.add_argument("--variants", nargs="+", choices=OURS + PEERS, default=["q4_0", *PEERS])
    parser.add_argument("--tokens", type=int, default=16, help="that are timed (%(default)s)")
    parser.add_argument("--prompt", type=int, default=512, help="its length; 0: none")
    parser.add_argument("--json", type=Path, help="also write the results to this file")
    parser.add_argument("--child", choices=OURS + PEERS, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.child:
        if options.child in OURS:
            result = run_ours(options.folder / options.child, options.tokens, options.prompt)
        else:
            result = run_peer(options.folder / "dense", options.child, options.tokens, options.prompt)
        print(json.dumps(result | {"memory": memory()}))
        return
    folder = options.folder / f"{options.layers}-layers"
    prepared(folder, options.variants, options.layers)
    print(f"{options.layers} layers; {torch.get_num_threads()} threads; torch {torch.__version__}")
    print("tokens/s: median (highest) of single tokens; MB at most, after the prompt and at the end")
    after = "  ".join(f"after {past:<9}" for past in PASTS)
    print(f"{'':8} {after}  {f'of {options.prompt}':>8}  load, s        MB        MB")
    results = {}
    for variant in options.variants:
        command = [sys.executable, __file__, "--child", variant, "--folder", str(folder)]
        command += ["--tokens", str(options.tokens), "--prompt", str(options.prompt)]
        child = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True)
        results[variant] = json.loads(child.stdout.splitlines()[-1])
        print(line(variant, results[variant], options.prompt), flush=True)
    if options.json:
        options.json.write_text(json.dumps(results))


if __name__ == "__main__":
    main()
