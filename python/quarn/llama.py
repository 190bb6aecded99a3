"""Decoders of the Llama family, for inference, one sequence at a time.

The modules have the names that checkpoints give their tensors. A prompt goes through them; a single token on `xpu` goes
through the operators of tolvane directly (`decoding.py`).
"""

from __future__ import annotations

from typing import Any, get_args

import torch
from torch import Tensor, nn
from torch.nn import functional as F

from .decoding import Step, decoding_steps
from .kv_cache import AnyLayerCache, Cache, CacheKind, Fp8LayerCache, HalfLayerCache, LayerCache
from .llama_config import LlamaConfig
from .rotary import rotate_into
from .unloaded import Embedding, Linear, parameter

PROMPT_ROWS = 256
"""Tokens of a prompt that are taken at a time: enough to pay for expanding the weights, few enough for the memory that
the MLP takes."""


def give_back(device: torch.device) -> None:
    """Free memory, to the system: a new sequence has caches of its own sizes, and single tokens need little."""
    if device.type == "xpu":
        torch.xpu.empty_cache()


class Norm(nn.Module):
    """x / sqrt(mean(x^2) + epsilon) * weight, over the last dimension."""

    def __init__(self, width: int, epsilon: float) -> None:
        super().__init__()
        self.weight = parameter(width)
        self.epsilon = epsilon

    def forward(self, x: Tensor) -> Tensor:
        if x.device.type == "xpu":
            import tolvane  # only where there is an xpu device, which tolvane itself registers

            return tolvane.fused_rms_norm(x, self.weight.shape, self.weight, None, self.epsilon)
        scale = torch.rsqrt(x.float().square().mean(-1, keepdim=True) + self.epsilon)
        return (x.float() * scale).to(x.dtype) * self.weight


class Attention(nn.Module):
    """Causal attention with grouped heads."""

    def __init__(self, config: LlamaConfig) -> None:
        super().__init__()
        self.heads, self.kv_heads, self.head_dim = config.heads, config.kv_heads, config.head_dim
        size, kv_size = config.heads * config.head_dim, config.kv_heads * config.head_dim
        self.q_proj = Linear(config.width, size, bias=config.qkv_bias)
        self.k_proj = Linear(config.width, kv_size, bias=config.qkv_bias)
        self.v_proj = Linear(config.width, kv_size, bias=config.qkv_bias)
        self.o_proj = Linear(size, config.width, bias=config.output_bias)

    def forward(self, x: Tensor, tables: tuple[Tensor, Tensor], cache: AnyLayerCache) -> Tensor:
        """x: [rows, width], the tokens behind those in the cache, which takes them in."""

        def heads(layer: nn.Module, count: int) -> Tensor:
            return layer(x).view(1, len(x), count, self.head_dim).transpose(1, 2)

        queries, keys = heads(self.q_proj, self.heads), heads(self.k_proj, self.kv_heads)
        turned = torch.empty_like(queries)
        new_keys, new_values = cache.begin(len(x))
        rotate_into(queries, keys, tables, turned, new_keys)
        new_values.copy_(heads(self.v_proj, self.kv_heads))
        all_keys, all_values = cache.finish()
        # Row r sees the past and the rows up to r; without a past that is the mask that attention makes itself.
        past, mask = all_keys.shape[2] - len(x), None
        if past:
            mask = torch.ones(len(x), past + len(x), dtype=torch.bool, device=x.device).tril(past)
        mixed = F.scaled_dot_product_attention(turned, all_keys, all_values, mask, is_causal=not past, enable_gqa=True)
        return self.o_proj(mixed[0].transpose(0, 1).reshape(len(x), -1))


class MLP(nn.Module):
    """down(silu(gate(x)) * up(x))."""

    def __init__(self, config: LlamaConfig) -> None:
        super().__init__()
        self.gate_proj = Linear(config.width, config.hidden, bias=config.mlp_bias)
        self.up_proj = Linear(config.width, config.hidden, bias=config.mlp_bias)
        self.down_proj = Linear(config.hidden, config.width, bias=config.mlp_bias)

    def forward(self, x: Tensor) -> Tensor:
        return self.down_proj(F.silu(self.gate_proj(x), inplace=True).mul_(self.up_proj(x)))


class Layer(nn.Module):
    """Attention and MLP, each after a norm and added to its input."""

    def __init__(self, config: LlamaConfig) -> None:
        super().__init__()
        self.input_layernorm = Norm(config.width, config.norm_epsilon)
        self.self_attn = Attention(config)
        self.post_attention_layernorm = Norm(config.width, config.norm_epsilon)
        self.mlp = MLP(config)

    def forward(self, x: Tensor, tables: tuple[Tensor, Tensor], cache: AnyLayerCache) -> Tensor:
        x = x + self.self_attn(self.input_layernorm(x), tables, cache)
        give_back(x.device)  # what the projections were expanded to, before the larger weights of the MLP are
        return x + self.mlp(self.post_attention_layernorm(x))


class Body(nn.Module):
    """All but the head."""

    def __init__(self, config: LlamaConfig) -> None:
        super().__init__()
        self.embed_tokens = Embedding(config.vocabulary, config.width)
        self.layers = nn.ModuleList(Layer(config) for _ in range(config.layers))
        self.norm = Norm(config.width, config.norm_epsilon)


class Llama(nn.Module):
    """A decoder; its weights may be packed.

    The embedding may stay on the CPU, in a type of its own: only the rows of the tokens go to the device.
    """

    def __init__(self, config: LlamaConfig) -> None:
        super().__init__()
        self.config = config
        self.model = Body(config)
        self.lm_head = Linear(config.width, config.vocabulary)
        self._steps: list[Step] | None = None
        self._tables: tuple[Tensor, Tensor] | None = None

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> Llama:
        """Without weights, on the device "meta"."""
        return cls(LlamaConfig.from_dict(config))

    @property
    def tied(self) -> dict[str, str]:
        """Names of tensors that a checkpoint may leave out, and whose place another one takes."""
        if not self.config.tied_head:
            return {}
        return {"lm_head.weight": "model.embed_tokens.weight"}

    on_host = ("model.embed_tokens.weight",)
    """Tensors that stay on the CPU, of which little is read."""

    def finish_loading(self) -> None:
        """Shares a dense weight of head and embedding."""
        if self.config.tied_head and isinstance(self.lm_head, nn.Linear):
            embedding = self.model.embed_tokens
            if isinstance(embedding, nn.Embedding):
                embedding.weight = self.lm_head.weight

    @property
    def device(self) -> torch.device:
        return self.model.norm.weight.device

    @property
    def dtype(self) -> torch.dtype:
        return self.model.norm.weight.dtype

    def new_cache(self, capacity: int | None = None, kind: CacheKind = "model") -> Cache:
        """An empty cache of `capacity` positions, by default as many as the model was made for.

        kind: "fp8" is for `xpu` only; ValueError where heads have another size than the 128 that it takes.
        """
        config, like = self.config, (self.device, self.dtype)
        capacity = capacity or config.context
        if kind not in get_args(CacheKind):
            raise ValueError(f"a cache is one of {', '.join(get_args(CacheKind))}, not {kind!r}")
        if kind == "fp8" and config.head_dim != 128:
            raise ValueError(f"a cache of bytes takes heads of 128, not of {config.head_dim}")
        give_back(self.device)

        def layer() -> AnyLayerCache:
            if kind == "fp8":
                return Fp8LayerCache(config.kv_heads, capacity, *like)
            made = HalfLayerCache if kind == "half" and self.dtype == torch.float32 else LayerCache
            return made(config.kv_heads, capacity, config.head_dim, *like)

        return Cache([layer() for _ in range(config.layers)], capacity)

    @torch.inference_mode()
    def forward(self, tokens: Tensor, cache: Cache, last: bool = False) -> Tensor:
        """Logits of the tokens behind those in the cache, which takes them in: [rows, vocabulary], or of the last token
        only, [1, vocabulary].

        tokens: [rows] of int64 on the CPU, at least one.
        """
        if tokens.dim() != 1 or not len(tokens):
            raise ValueError(f"tokens must be [rows], but have shape {list(tokens.shape)}")
        cache.check_room(len(tokens))
        if len(tokens) == 1 and self.device.type == "xpu":
            return self._step(tokens, cache)
        results = []
        for part in tokens.split(PROMPT_ROWS):
            x = self.embed(part)
            tables = self.tables(cache.length, len(part), cache.capacity)
            for layer, own in zip(self.model.layers, cache.layers):
                x = layer(x, tables, own)
            cache.length += len(part)
            if not last:
                results.append(self.lm_head(self.model.norm(x)))
        if not last:
            return torch.cat(results)
        logits = self.lm_head(self.model.norm(x[-1:]))
        del x, tables
        give_back(self.device)
        return logits

    def embed(self, tokens: Tensor) -> Tensor:
        """The tokens' rows of the embedding, [rows, width], on the device and in the type of the model."""
        embedding = self.model.embed_tokens
        table = embedding.weight if isinstance(embedding, nn.Embedding) else embedding.packed
        return embedding(tokens.to(table.device)).to(self.device, self.dtype)

    def tables(self, start: int, count: int, capacity: int) -> tuple[Tensor, Tensor]:
        """Sines and cosines of positions from `start` on, [1, 1, count, head_dim]."""
        if self._tables is None or self._tables[0].shape[2] < capacity:
            made = self.config.rotary_tables(capacity)
            sines, cosines = (t.to(self.device, self.dtype)[None, None] for t in made)
            self._tables = sines, cosines
        sines, cosines = self._tables
        return sines[:, :, start : start + count], cosines[:, :, start : start + count]

    def _step(self, token: Tensor, cache: Cache) -> Tensor:
        if self._steps is None:
            self._steps = decoding_steps(self)
        position = cache.length
        x = self.embed(token)
        at = torch.tensor([position], device=self.device)
        tables = None if self.config.plain_rotary else self.tables(position, 1, cache.capacity)
        for step, own in zip(self._steps, cache.layers):
            x = step(x, at, position, tables, own)
        cache.length += 1
        return self.lm_head(self.model.norm(x))
