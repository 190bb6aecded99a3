"""A small decoder of the Llama family over bytes: RMSNorm, rotary positions, gated MLP."""

from __future__ import annotations

from dataclasses import dataclass

import torch
from torch import Tensor, nn
from torch.nn import functional as F

from quarn.rotary import rotate, rotate_into


@dataclass(frozen=True)
class Config:
    """The sizes of a decoder."""

    vocabulary: int = 256
    width: int = 256
    heads: int = 2
    layers: int = 4
    hidden: int = 768
    context: int = 256
    rotary_base: float = 10000.0
    norm_epsilon: float = 1e-5

    @property
    def head_dim(self) -> int:
        return self.width // self.heads


def by_operators(x: Tensor) -> bool:
    """Whether tolvane's operators take the place of PyTorch's: on `xpu`, where no gradient is asked for."""
    return x.device.type == "xpu" and not torch.is_grad_enabled()


class RMSNorm(nn.Module):
    """x / sqrt(mean(x^2) + epsilon) * weight, over the last dimension."""

    def __init__(self, width: int, epsilon: float) -> None:
        super().__init__()
        self.weight = nn.Parameter(torch.ones(width))
        self.epsilon = epsilon

    def forward(self, x: Tensor) -> Tensor:
        if by_operators(x):
            import tolvane

            return tolvane.fused_rms_norm(x, self.weight.shape, self.weight, None, self.epsilon)
        scale = torch.rsqrt(x.float().square().mean(-1, keepdim=True) + self.epsilon)
        return x * scale.to(x.dtype) * self.weight


class MLP(nn.Module):
    """down(silu(gate(x)) * up(x)), without biases."""

    def __init__(self, width: int, hidden: int) -> None:
        super().__init__()
        self.gate = nn.Linear(width, hidden, bias=False)
        self.up = nn.Linear(width, hidden, bias=False)
        self.down = nn.Linear(hidden, width, bias=False)

    def forward(self, x: Tensor) -> Tensor:
        return self.down(F.silu(self.gate(x)) * self.up(x))


@dataclass
class Cache:
    """Keys and values of one layer, [batch, heads, context, head_dim]; `length` are filled."""

    keys: Tensor
    values: Tensor
    length: int = 0

    def append(self, keys: Tensor, values: Tensor) -> tuple[Tensor, Tensor]:
        """Stores the new positions and returns all stored so far."""
        end = self.length + keys.shape[2]
        if end > self.keys.shape[2]:
            raise ValueError(f"the cache holds {self.keys.shape[2]} positions, but {end} are needed")
        self.keys[:, :, self.length : end] = keys
        self.values[:, :, self.length : end] = values
        self.length = end
        return self.keys[:, :, :end], self.values[:, :, :end]


def rotary_tables(config: Config) -> tuple[Tensor, Tensor]:
    """Cosines and sines, [context, head_dim]; both halves of a head turn by the same angles."""
    half = config.head_dim // 2
    frequencies = config.rotary_base ** (-torch.arange(half).float() / half)
    angles = torch.arange(config.context).float()[:, None] * frequencies
    angles = torch.cat([angles, angles], dim=-1)
    return angles.cos(), angles.sin()


def rotate_both(queries: Tensor, keys: Tensor, cosines: Tensor, sines: Tensor) -> tuple[Tensor, Tensor]:
    """Both turned by their positions' angles, [batch, heads, positions, head_dim]."""
    if not by_operators(queries):
        return rotate(queries, sines, cosines), rotate(keys, sines, cosines)
    turned = torch.empty_like(queries), torch.empty_like(keys)
    rotate_into(queries, keys, (sines[None, None], cosines[None, None]), *turned)
    return turned


class Attention(nn.Module):
    """Causal self-attention with rotary positions."""

    def __init__(self, config: Config) -> None:
        super().__init__()
        self.heads = config.heads
        self.qkv = nn.Linear(config.width, 3 * config.width, bias=False)
        self.out = nn.Linear(config.width, config.width, bias=False)

    def forward(self, x: Tensor, cosines: Tensor, sines: Tensor, cache: Cache | None) -> Tensor:
        batch, positions, width = x.shape
        heads = self.qkv(x).view(batch, positions, 3, self.heads, -1).permute(2, 0, 3, 1, 4)
        queries, keys = rotate_both(heads[0], heads[1], cosines, sines)
        values = heads[2]
        if cache is not None:
            keys, values = cache.append(keys, values)
        scores = queries @ keys.transpose(-1, -2) * queries.shape[-1] ** -0.5
        if positions > 1:
            past = keys.shape[2] - positions
            future = torch.ones(positions, keys.shape[2], dtype=torch.bool, device=x.device)
            scores = scores.masked_fill(future.triu(past + 1), float("-inf"))
        mixed = torch.softmax(scores, dim=-1) @ values
        return self.out(mixed.transpose(1, 2).reshape(batch, positions, width))


class Layer(nn.Module):
    """Attention and MLP, each after a norm and added to its input."""

    def __init__(self, config: Config) -> None:
        super().__init__()
        self.attention_norm = RMSNorm(config.width, config.norm_epsilon)
        self.attention = Attention(config)
        self.mlp_norm = RMSNorm(config.width, config.norm_epsilon)
        self.mlp: nn.Module = MLP(config.width, config.hidden)

    def forward(self, x: Tensor, cosines: Tensor, sines: Tensor, cache: Cache | None) -> Tensor:
        x = x + self.attention(self.attention_norm(x), cosines, sines, cache)
        return x + self.mlp(self.mlp_norm(x))


class Decoder(nn.Module):
    """Bytes in, logits of the next byte out.

    The head shares the embedding's weight; the embedding is scaled by sqrt(width) on its way in,
    so that the residual stream starts at the size that the norms expect.
    """

    def __init__(self, config: Config) -> None:
        super().__init__()
        self.config = config
        self.embedding = nn.Embedding(config.vocabulary, config.width)
        layers = [Layer(config) for _ in range(config.layers)]
        self.layers = nn.ModuleList(layers)
        self.norm = RMSNorm(config.width, config.norm_epsilon)
        cosines, sines = rotary_tables(config)
        self.cosines: Tensor
        self.sines: Tensor
        self.register_buffer("cosines", cosines, persistent=False)
        self.register_buffer("sines", sines, persistent=False)
        for parameter in self.parameters():
            if parameter.dim() == 2:
                nn.init.normal_(parameter, std=parameter.shape[1] ** -0.5)
        with torch.no_grad():  # what the layers add together should not outweigh the embedding
            for layer in layers:
                for linear in (layer.attention.out, layer.mlp.get_submodule("down")):
                    linear.weight /= (2 * config.layers) ** 0.5

    def new_cache(self, batch: int = 1) -> list[Cache]:
        """An empty cache for each layer, of the model's element type and on its device."""
        config, weight = self.config, self.embedding.weight
        shape = (batch, config.heads, config.context, config.head_dim)
        return [Cache(weight.new_zeros(shape), weight.new_zeros(shape)) for _ in range(config.layers)]

    def forward(self, tokens: Tensor, caches: list[Cache] | None = None) -> Tensor:
        """tokens: [batch, positions] of int64; returns [batch, positions, vocabulary].

        With caches, the tokens follow those that the caches already hold.
        """
        start = caches[0].length if caches else 0
        end = start + tokens.shape[1]
        if end > self.config.context:
            raise ValueError(f"{end} positions exceed the context of {self.config.context}")
        cosines, sines = self.cosines[start:end], self.sines[start:end]
        x = self.embedding(tokens) * self.config.width**0.5
        for index, layer in enumerate(self.layers):
            x = layer(x, cosines, sines, caches[index] if caches else None)
        return F.linear(self.norm(x), self.embedding.weight)
