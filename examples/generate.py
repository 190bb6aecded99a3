"""Text generation with a key-value cache."""

from __future__ import annotations

from typing import Iterator

import torch
from torch import Tensor

from model import Decoder


def sample(logits: Tensor, temperature: float, generator: torch.Generator) -> int:
    """A byte drawn from softmax(logits / temperature); the likeliest one at temperature 0."""
    logits = logits.float().cpu()
    if temperature == 0:
        return int(logits.argmax())
    chances = torch.softmax(logits / temperature, dim=-1)
    return int(torch.multinomial(chances, 1, generator=generator))


def check_request(model: Decoder, prompt: bytes, count: int) -> None:
    """Raises ValueError where `generate` could not continue `prompt` by `count` bytes."""
    if not prompt:
        raise ValueError("the prompt must not be empty")
    if count < 1:
        raise ValueError(f"at least 1 byte must be asked for, not {count}")
    if len(prompt) + count > model.config.context:
        raise ValueError(
            f"prompt and text must fit the context of {model.config.context} bytes, but the "
            f"prompt has {len(prompt)} and {count} more are asked for"
        )


@torch.no_grad()
def generate(model: Decoder, prompt: bytes, count: int, temperature: float = 0.6, seed: int = 0) -> Iterator[int]:
    """Yields `count` bytes that continue `prompt`, each as soon as it is known."""
    check_request(model, prompt, count)
    device = model.embedding.weight.device
    generator = torch.Generator().manual_seed(seed)
    caches = model.new_cache()
    tokens = list(prompt)
    for _ in range(count):
        logits = model(torch.tensor([tokens]).to(device), caches)[0, -1]
        tokens = [sample(logits, temperature, generator)]
        yield tokens[0]
