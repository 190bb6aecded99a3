"""The example decoder with keys and values kept in one byte each.

usage: fp8_attention.py [--prompt TEXT] [--tokens N]
"""

from __future__ import annotations

import argparse
from pathlib import Path

from torch import Tensor

from generate import generate
from model import Attention, Cache, Config, Decoder
from quarn.fp8_cache import FP8Cache
from quarn.rotary import rotate
from train import load


class FP8Attention(Attention):
    """Several new positions attend to each other in plain PyTorch; one attends to the cache."""

    def forward(self, x: Tensor, cosines: Tensor, sines: Tensor, cache: Cache | FP8Cache | None) -> Tensor:
        if not isinstance(cache, FP8Cache):
            return super().forward(x, cosines, sines, cache)
        batch, positions, width = x.shape
        if positions > 1 and cache.length > 0:
            raise ValueError("several positions can only come first, into an empty cache")
        heads = self.qkv(x).view(batch, positions, 3, self.heads, -1).permute(2, 0, 3, 1, 4)
        cache.append(rotate(heads[1], sines, cosines), heads[2])
        if positions > 1:
            return super().forward(x, cosines, sines, None)
        mixed = cache.attend(rotate(heads[0], sines, cosines))
        return self.out(mixed.transpose(1, 2).reshape(batch, positions, width))


class FP8Decoder(Decoder):
    """A decoder whose caches hold bytes. The size of a head must be 128."""

    def __init__(self, config: Config) -> None:
        super().__init__(config)
        for layer in self.layers:
            layer.attention = FP8Attention(config)

    def new_cache(self, batch: int = 1) -> list[FP8Cache]:  # type: ignore[override]
        """An empty cache for each layer, on the model's device."""
        config, device = self.config, self.embedding.weight.device
        return [FP8Cache(batch, config.heads, config.context, device) for _ in range(config.layers)]


def with_fp8_cache(model: Decoder) -> FP8Decoder:
    """A copy of a dense model on `xpu`."""
    copied = FP8Decoder(model.config)
    copied.load_state_dict(model.state_dict())
    return copied.eval().to("xpu")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--prompt", default="In Green Hollow there lived a")
    parser.add_argument("--tokens", type=int, default=120)
    arguments = parser.parse_args()
    dense = load(Path(__file__).with_name("checkpoint.pt")).eval().to("xpu")
    for name, model in (("dense cache", dense), ("FP8 cache", with_fp8_cache(dense))):
        try:
            text = bytes(generate(model, arguments.prompt.encode(), arguments.tokens))
        except ValueError as error:
            parser.error(str(error))
        cache = model.new_cache()[0]
        size = sum(x.numel() * x.element_size() for x in (cache.keys, cache.values))
        print(f"{name}, {size * model.config.layers} bytes:\n{text.decode(errors='replace')}\n")


if __name__ == "__main__":
    main()
