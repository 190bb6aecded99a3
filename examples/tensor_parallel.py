"""A packed decoder in several processes: each has a share of the heads and of the MLP's columns, and they add up what
their shares give.

usage: torchrun --nproc-per-node 2 tensor_parallel.py CHECKPOINT [--format F] [--tokens N] [--check]

CHECKPOINT is a dense one of the Llama family, in the form of transformers. Tokens are printed as their numbers.
"""

from __future__ import annotations

import argparse
import dataclasses
import os
from pathlib import Path
from typing import Any

import torch
import torch.distributed as dist
from torch import Tensor, nn

import quarn
from quarn.checkpoint import Source, load_model, read_config
from quarn.llama import Llama
from quarn.llama_config import LlamaConfig
from quarn.tensor_files import TensorFiles

SPLIT_ROWS = ("q_proj", "k_proj", "v_proj", "gate_proj", "up_proj")
SPLIT_COLUMNS = ("o_proj", "down_proj")


class Share(TensorFiles):
    """The part of each tensor that belongs to one process."""

    def __init__(self, folder: Path, rank: int, count: int) -> None:
        super().__init__(folder)
        self.rank, self.count = rank, count

    def __getitem__(self, name: str) -> Tensor:
        tensor = super().__getitem__(name)
        layer = name.split(".")[-2]
        if layer in SPLIT_ROWS:
            return tensor.chunk(self.count, dim=0)[self.rank]
        if layer in SPLIT_COLUMNS:
            return tensor.chunk(self.count, dim=1)[self.rank]
        return tensor


class Summed(nn.Module):
    """A layer whose results are shares of the whole: adds up those of all processes."""

    def __init__(self, layer: nn.Module) -> None:
        super().__init__()
        self.layer = layer

    def forward(self, x: Tensor) -> Tensor:
        share = self.layer(x).cpu()  # gloo knows no other device
        dist.all_reduce(share)
        return share.to(x.device)


def load_share(folder: Path, format: str, rank: int, count: int) -> Llama:
    """The model of one process. ValueError where the sizes cannot be shared out."""
    whole = LlamaConfig.from_dict(read_config(folder))
    if whole.heads % count or whole.kv_heads % count or whole.hidden % (64 * count):
        raise ValueError(
            f"{whole.heads} heads over {whole.kv_heads} and {whole.hidden} columns cannot be shared by {count}"
        )
    if whole.output_bias or whole.mlp_bias:
        raise ValueError("biases of the layers that are summed would count once per process")
    own = dataclasses.replace(
        whole, heads=whole.heads // count, kv_heads=whole.kv_heads // count, hidden=whole.hidden // count
    )
    model = Llama(own)
    source = Source(Share(folder, rank, count), model.tied)

    def place(name: str, value: Tensor) -> Tensor:
        if name in model.on_host:
            return value
        return value.to("xpu", torch.float32 if value.is_floating_point() else value.dtype)

    load_model(model, source, format, False, place, progress=False)
    model.finish_loading()
    layers: Any = model.model.layers
    for layer in layers:
        layer.self_attn.o_proj = Summed(layer.self_attn.o_proj)
        layer.mlp.down_proj = Summed(layer.mlp.down_proj)
    return model


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("checkpoint", type=Path)
    parser.add_argument("--format", default="q4_0")
    parser.add_argument("--tokens", type=int, default=16, help="to generate (%(default)s)")
    parser.add_argument("--check", action="store_true", help="compare with the whole model")
    arguments = parser.parse_args()
    if "RANK" not in os.environ:
        parser.error("run it by torchrun --nproc-per-node N")
    dist.init_process_group("gloo")
    rank, count = dist.get_rank(), dist.get_world_size()
    model = load_share(arguments.checkpoint, arguments.format, rank, count)
    prompt = [1, 2, 3, 4, 5]
    tokens = list(quarn.generate(model, prompt, arguments.tokens))
    if rank == 0:
        print(f"{count} processes: {tokens}")
    if arguments.check:
        everything = torch.tensor(prompt + tokens)
        shared = model(everything, model.new_cache(len(everything)))
        if rank == 0:
            whole = quarn.from_pretrained(arguments.checkpoint, arguments.format, progress=False)
            alone = whole(everything, whole.new_cache(len(everything)))
            same = list(quarn.generate(whole, prompt, arguments.tokens)) == tokens
            difference = float((shared - alone).abs().max() / alone.abs().max())
            print(f"one process: {'the same' if same else 'OTHER'} tokens, logits off by {difference:.1e}")
    dist.barrier()
    dist.destroy_process_group()


if __name__ == "__main__":
    main()
