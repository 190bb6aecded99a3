"""Text from a model: choosing tokens, generating, perplexity."""

from __future__ import annotations

from typing import Any, Callable, Collection, Iterator, Sequence

import torch
from torch import Tensor
from torch.nn import functional as F

from .kv_cache import CacheKind


def choose_token(logits: Tensor, temperature: float, top_p: float, generator: torch.Generator) -> int:
    """A token drawn from softmax(logits / temperature), from the likeliest ones that have top_p of the chances together;
    the likeliest one at temperature 0."""
    logits = logits.float().cpu()
    if temperature == 0:
        return int(logits.argmax())
    chances = torch.softmax(logits / temperature, dim=-1)
    if top_p < 1:
        ordered, order = chances.sort(descending=True)
        spare = ordered.cumsum(0) - ordered >= top_p
        chances = chances.index_fill(0, order[spare], 0.0)
    return int(torch.multinomial(chances, 1, generator=generator))


def generate(
    model: Any,
    prompt: Sequence[int],
    count: int,
    temperature: float = 0.0,
    top_p: float = 1.0,
    seed: int = 0,
    stop: Collection[int] = (),
    cache: CacheKind = "model",
) -> Iterator[int]:
    """Yields up to `count` tokens that continue the prompt, each as soon as it is known; ends before one of `stop`.

    model: of `from_pretrained`. cache: what keys and values are stored as. ValueError for an empty prompt, a count below
    1, or more tokens than the model was made for.
    """
    if not prompt:
        raise ValueError("the prompt must not be empty")
    if count < 1:
        raise ValueError(f"at least 1 token must be asked for, not {count}")
    needed = len(prompt) + count
    if needed > model.config.context:
        raise ValueError(f"prompt and text must fit the context of {model.config.context} tokens, but are {needed}")
    generator = torch.Generator().manual_seed(seed)
    past = model.new_cache(needed, cache)
    tokens = torch.tensor(prompt)
    for _ in range(count):
        logits = model(tokens, past, last=True)[0]
        token = choose_token(logits, temperature, top_p, generator)
        if token in stop:
            return
        yield token
        tokens = torch.tensor([token])


def perplexity(model: Any, tokens: Sequence[int], window: int, done: Callable[[int], None] = lambda n: None) -> float:
    """exp of the mean negative log likelihood of each token after those before it in its window of `window` tokens.

    `done` is called with the number of tokens that were read since its last call.
    """
    if len(tokens) < 2 or window < 2:
        raise ValueError("perplexity needs at least 2 tokens, and windows of at least 2")
    total, counted = 0.0, 0
    for start in range(0, len(tokens) - 1, window):
        part = torch.tensor(tokens[start : start + window])
        if len(part) > 1:
            logits = model(part[:-1], model.new_cache(len(part))).float().cpu()
            total += float(F.cross_entropy(logits, part[1:], reduction="sum"))
            counted += len(part) - 1
        done(len(part))
    return float(torch.tensor(total / counted, dtype=torch.float64).exp())
