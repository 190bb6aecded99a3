"""Recurrent attention of RWKV layers over a short sequence: at once, and in two calls that pass on
the state.

usage: rwkv_steps.py [--tokens N] [--cut N]
"""

from __future__ import annotations

import argparse

import torch
import tolvane
from torch import Tensor

CHANNELS, HEADS, HEAD_SIZE = 128, 2, 64


def shift_tokens(hidden: Tensor, last: Tensor) -> Tensor:
    """Each token's predecessor; the first one's is `last`, the end of what came before."""
    return torch.cat([last[:, None], hidden[:, :-1]], dim=1)


class Version4:
    """A channel's numerator, denominator and running exponent."""

    def __init__(self, decay: Tensor, first: Tensor) -> None:
        self.parameters = (decay, first)
        self.state = torch.zeros(3, 1, CHANNELS, device="xpu")
        self.state[2] = -1e30

    def run(self, mixes: Tensor) -> Tensor:
        """mixes: [3, 1, tokens, CHANNELS]; the first is not used. Returns [1, tokens, CHANNELS]."""
        _, key, value = mixes
        return tolvane.rwkv_linear_attention_v4(*self.parameters, key, value, *self.state)


class Version5:
    """A matrix per head."""

    def __init__(self, decay: Tensor, first: Tensor) -> None:
        self.parameters = (decay.exp().view(HEADS, HEAD_SIZE), first.view(HEADS, HEAD_SIZE))
        self.state = torch.zeros(1, HEADS, HEAD_SIZE, HEAD_SIZE, device="xpu")

    def run(self, mixes: Tensor) -> Tensor:
        """mixes: [3, 1, tokens, CHANNELS]. Returns [1, tokens, CHANNELS]."""
        heads = mixes.view(3, 1, -1, HEADS, HEAD_SIZE).transpose(2, 3)
        return tolvane.rwkv_linear_attention_v5(*self.parameters, *heads, self.state).flatten(2)


def outputs(layer: Version4 | Version5, hidden: Tensor, mix: Tensor, parts: list[int]) -> Tensor:
    """The layer's outputs for a sequence that comes in parts of these lengths."""
    last = torch.zeros(1, CHANNELS, device="xpu")
    results = []
    for part in hidden.split(parts, dim=1):
        part = part.contiguous()
        results.append(layer.run(tolvane.rwkv_time_shift(part, shift_tokens(part, last), mix)))
        last = part[:, -1]
    return torch.cat(results, dim=1)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--tokens", type=int, default=24, help="length of the sequence")
    parser.add_argument("--cut", type=int, default=10, help="tokens of the first call")
    arguments = parser.parse_args()
    if not 0 < arguments.cut < arguments.tokens:
        parser.error("--cut must lie between 0 and --tokens")
    torch.manual_seed(0)
    hidden = torch.randn(1, arguments.tokens, CHANNELS).to("xpu")
    mix = torch.rand(3, 1, CHANNELS).to("xpu")
    decay, first = -torch.rand(CHANNELS).to("xpu"), torch.randn(CHANNELS).to("xpu")
    parts = [arguments.cut, arguments.tokens - arguments.cut]
    for version in (Version4, Version5):
        whole, split = version(decay, first), version(decay, first)
        at_once = outputs(whole, hidden, mix, [arguments.tokens])
        in_parts = outputs(split, hidden, mix, parts)
        same = torch.equal(at_once, in_parts) and torch.equal(whole.state, split.state)
        print(
            f"{version.__name__}: {arguments.tokens} tokens at once and as {parts[0]} + {parts[1]}:"
            f" outputs and states are {'equal' if same else 'DIFFERENT'};"
            f" last output {at_once[0, -1].norm():.4f}"
        )


if __name__ == "__main__":
    main()
