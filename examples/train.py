"""Trains the example decoder on the generated corpus and writes its checkpoint.

usage: train.py [--minutes M] [--threads N] [--output FILE]
"""

from __future__ import annotations

import argparse
import dataclasses
import math
import time
from pathlib import Path

import torch
from torch import Tensor, nn
from torch.nn import functional as F

import corpus
from model import Config, Decoder

CHECKPOINT = Path(__file__).with_name("checkpoint.pt")


def as_tokens(text: bytes) -> Tensor:
    """The bytes of `text` as int64 tokens."""
    return torch.frombuffer(bytearray(text), dtype=torch.uint8).long()


def sample_batch(tokens: Tensor, batch: int, positions: int) -> tuple[Tensor, Tensor]:
    """Random stretches of the text, and the same stretches one byte later."""
    starts = torch.randint(len(tokens) - positions, (batch, 1))
    stretches = tokens[starts + torch.arange(positions + 1)]
    return stretches[:, :-1], stretches[:, 1:]


def loss_of(model: nn.Module, inputs: Tensor, targets: Tensor) -> Tensor:
    """Mean cross-entropy in nats per byte."""
    return F.cross_entropy(model(inputs).flatten(0, 1), targets.flatten())


@torch.no_grad()
def perplexity(model: nn.Module, tokens: Tensor, positions: int) -> float:
    """exp of the mean cross-entropy over consecutive stretches of `positions` bytes."""
    count = (len(tokens) - 1) // positions
    losses = [
        loss_of(model, tokens[None, i : i + positions], tokens[None, i + 1 : i + positions + 1])
        for i in range(0, count * positions, positions)
    ]
    return math.exp(torch.stack(losses).mean().item())


def learning_rate(progress: float, peak: float) -> float:
    """A short linear rise, then a cosine down to a twentieth of the peak."""
    if progress < 0.03:
        return peak * (progress + 0.001) / 0.031
    return peak * (0.05 + 0.95 * 0.5 * (1 + math.cos(math.pi * progress)))


def train(model: Decoder, tokens: Tensor, minutes: float, batch: int, peak: float) -> None:
    """Takes as many AdamW steps as fit into `minutes`."""
    matrices = [p for p in model.parameters() if p.dim() == 2]
    vectors = [p for p in model.parameters() if p.dim() != 2]
    groups = [{"params": matrices, "weight_decay": 0.1}, {"params": vectors, "weight_decay": 0.0}]
    optimizer = torch.optim.AdamW(groups, betas=(0.9, 0.95))
    start, step, progress = time.monotonic(), 0, 0.0
    while progress < 1.0:
        for group in optimizer.param_groups:
            group["lr"] = learning_rate(progress, peak)
        loss = loss_of(model, *sample_batch(tokens, batch, model.config.context))
        optimizer.zero_grad(set_to_none=True)
        loss.backward()
        nn.utils.clip_grad_norm_(model.parameters(), 1.0)
        optimizer.step()
        step += 1
        seconds = time.monotonic() - start
        progress = seconds / (60 * minutes)
        if step % 20 == 0 or progress >= 1.0:
            print(f"step {step:5d}  {seconds:6.0f} s  loss {loss.item():.4f}", flush=True)


def save(model: Decoder, path: Path) -> None:
    """Writes the sizes and the weights in half."""
    state = {name: value.half() for name, value in model.state_dict().items()}
    torch.save({"config": dataclasses.asdict(model.config), "state": state}, path)


def load(path: Path = CHECKPOINT) -> Decoder:
    """The decoder of a checkpoint, in float on the CPU."""
    if not path.exists():
        raise FileNotFoundError(f"{path} is missing; write it with: scripts/python {__file__}")
    checkpoint = torch.load(path, map_location="cpu")
    model = Decoder(Config(**checkpoint["config"]))
    model.load_state_dict({name: value.float() for name, value in checkpoint["state"].items()})
    return model.eval()


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=10.0, help="how long to train")
    parser.add_argument("--threads", type=int, default=1, help="threads of PyTorch")
    parser.add_argument("--batch", type=int, default=4, help="stretches per step")
    parser.add_argument("--rate", type=float, default=2e-3, help="peak learning rate")
    parser.add_argument("--output", type=Path, default=CHECKPOINT, help="the checkpoint to write")
    arguments = parser.parse_args()

    torch.set_num_threads(arguments.threads)
    torch.manual_seed(0)
    model = Decoder(Config())
    print(f"{sum(p.numel() for p in model.parameters()):,} parameters", flush=True)
    train(model, as_tokens(corpus.train_text()), arguments.minutes, arguments.batch, arguments.rate)
    save(model, arguments.output)
    held_out = as_tokens(corpus.held_out_text(16384))
    print(f"held-out perplexity {perplexity(load(arguments.output), held_out, 256):.3f}")


if __name__ == "__main__":
    main()
