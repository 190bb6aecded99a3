"""RWKV of version 4, for inference on `xpu`, one sequence at a time. The modules have the names of checkpoints' tensors."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import torch
from torch import Tensor, nn

from .kv_cache import CacheKind
from .unloaded import Embedding, Linear, parameter

PROMPT_ROWS = 512
"""Tokens of a prompt that are taken at a time: enough to pay for expanding the weights."""
NO_LIMIT = 1 << 30


@dataclass(frozen=True)
class RwkvConfig:
    """Sizes of the model; `context` is no limit of it."""

    vocabulary: int
    width: int
    attention: int
    hidden: int
    layers: int
    norm_epsilon: float
    context: int = NO_LIMIT

    @classmethod
    def from_dict(cls, config: dict[str, Any]) -> RwkvConfig:
        """From the content of a config.json; ValueError for sizes that the operators do not take."""
        width = config["hidden_size"]
        attention = config.get("attention_hidden_size") or width
        if width % 64 or attention % 32:
            raise ValueError(f"RWKV needs widths of whole 64 channels, but has {width}, {attention}")
        return cls(
            vocabulary=config["vocab_size"],
            width=width,
            attention=attention,
            hidden=config.get("intermediate_size") or 4 * width,
            layers=config["num_hidden_layers"],
            norm_epsilon=config.get("layer_norm_epsilon", 1e-5),
        )


class RwkvState:
    """What a model remembers of a sequence. Of each layer: the last inputs of both halves, [1, width], and the
    attention's numerator, denominator and exponent, [1, attention]."""

    def __init__(self, config: RwkvConfig, device: torch.device, dtype: torch.dtype) -> None:
        def zeros(size: int) -> Tensor:
            return torch.zeros(1, size, device=device, dtype=dtype)

        layers, least = range(config.layers), torch.finfo(dtype).min / 4
        self.attention_inputs = [zeros(config.width) for _ in layers]
        self.feed_forward_inputs = [zeros(config.width) for _ in layers]
        self.numerators = [zeros(config.attention) for _ in layers]
        self.denominators = [zeros(config.attention) for _ in layers]
        self.exponents = [zeros(config.attention).fill_(max(least, -1e38)) for _ in layers]
        self.length = 0


class LayerNorm(nn.Module):
    """Layer norm by the operator."""

    def __init__(self, width: int, epsilon: float = 1e-5) -> None:
        super().__init__()
        self.weight, self.bias = parameter(width), parameter(width)
        self.epsilon = epsilon

    def forward(self, x: Tensor) -> Tensor:
        import tolvane  # only where there is an xpu device, which tolvane itself registers

        return tolvane.fused_layer_norm(x, self.weight.shape, self.weight, self.bias, self.epsilon)


def _mixed(x: Tensor, last: Tensor, mixes: Tensor) -> Tensor:
    """Mixes of each token's input with the one before it, [mixes, 1, tokens, width]; `last` becomes the newest."""
    import tolvane

    shifted = last[:, None]
    if x.shape[1] > 1:
        shifted = torch.cat([shifted, x[:, :-1]], dim=1)
    mixed = tolvane.rwkv_time_shift(x, shifted, mixes)
    last.copy_(x[:, -1])
    return mixed


class Attention(nn.Module):
    """The recurrent attention."""

    def __init__(self, config: RwkvConfig) -> None:
        super().__init__()
        width, attention = config.width, config.attention
        self.time_decay, self.time_first = parameter(attention), parameter(attention)
        self.time_mix_key = parameter(1, 1, width)
        self.time_mix_value = parameter(1, 1, width)
        self.time_mix_receptance = parameter(1, 1, width)
        self.key, self.value = Linear(width, attention), Linear(width, attention)
        self.receptance, self.output = Linear(width, attention), Linear(attention, width)
        self._prepared: tuple[Tensor, Tensor] | None = None

    def forward(self, x: Tensor, state: RwkvState, layer: int) -> Tensor:
        import tolvane

        if self._prepared is None:  # decays as the operator takes them
            mixes = torch.cat([self.time_mix_key, self.time_mix_value, self.time_mix_receptance])
            self._prepared = mixes, (-self.time_decay.float().exp()).to(x.dtype)
        mixes, decay = self._prepared
        key, value, receptance = _mixed(x, state.attention_inputs[layer], mixes)
        states = state.numerators[layer], state.denominators[layer], state.exponents[layer]
        attended = tolvane.rwkv_linear_attention_v4(decay, self.time_first, self.key(key), self.value(value), *states)
        return self.output(self.receptance(receptance).sigmoid_().mul_(attended))


class FeedForward(nn.Module):
    """value(relu(key)^2), gated."""

    def __init__(self, config: RwkvConfig) -> None:
        super().__init__()
        width, hidden = config.width, config.hidden
        self.time_mix_key = parameter(1, 1, width)
        self.time_mix_receptance = parameter(1, 1, width)
        self.key, self.value = Linear(width, hidden), Linear(hidden, width)
        self.receptance = Linear(width, width)
        self._mixes: Tensor | None = None

    def forward(self, x: Tensor, state: RwkvState, layer: int) -> Tensor:
        if self._mixes is None:
            self._mixes = torch.cat([self.time_mix_key, self.time_mix_receptance])
        key, receptance = _mixed(x, state.feed_forward_inputs[layer], self._mixes)
        values = self.value(self.key(key).relu_().square_())
        return self.receptance(receptance).sigmoid_().mul_(values)


class Block(nn.Module):
    """Attention and feed-forward step, each after a norm and added to its input."""

    def __init__(self, config: RwkvConfig, is_first: bool) -> None:
        super().__init__()
        if is_first:
            self.pre_ln = LayerNorm(config.width, config.norm_epsilon)
        self.ln1 = LayerNorm(config.width, config.norm_epsilon)
        self.ln2 = LayerNorm(config.width, config.norm_epsilon)
        self.attention, self.feed_forward = Attention(config), FeedForward(config)

    def forward(self, x: Tensor, state: RwkvState, layer: int) -> Tensor:
        if layer == 0:
            x = self.pre_ln(x)
        x = x + self.attention(self.ln1(x), state, layer)
        return x + self.feed_forward(self.ln2(x), state, layer)


class Body(nn.Module):
    """All but the head."""

    def __init__(self, config: RwkvConfig) -> None:
        super().__init__()
        self.embeddings = Embedding(config.vocabulary, config.width)
        self.blocks = nn.ModuleList(Block(config, i == 0) for i in range(config.layers))
        self.ln_out = LayerNorm(config.width)


class Rwkv(nn.Module):
    """A model whose linear layers may be packed. The embedding may stay on the CPU, in a type of its own."""

    on_host = ("rwkv.embeddings.weight",)
    """Tensors that stay on the CPU, of which little is read."""

    def __init__(self, config: RwkvConfig, tied_head: bool) -> None:
        super().__init__()
        self.config, self._tied_head = config, tied_head
        self.rwkv = Body(config)
        self.head = Linear(config.width, config.vocabulary)

    @classmethod
    def from_config(cls, config: dict[str, Any]) -> Rwkv:
        """Without weights, on the device "meta"."""
        return cls(RwkvConfig.from_dict(config), bool(config.get("tie_word_embeddings", False)))

    @property
    def tied(self) -> dict[str, str]:
        """Names of tensors that a checkpoint may leave out, and whose place another one takes."""
        return {"head.weight": self.on_host[0]} if self._tied_head else {}

    def finish_loading(self) -> None:
        """RuntimeError where the model is not on the device that has its operators."""
        if self.rwkv.ln_out.weight.device.type != "xpu":
            raise RuntimeError("RWKV runs on xpu only")

    def new_cache(self, capacity: int | None = None, kind: CacheKind = "model") -> RwkvState:
        """The state before the first token; it takes in any number of them, and has no keys and values of any kind."""
        weight = self.rwkv.ln_out.weight
        return RwkvState(self.config, weight.device, weight.dtype)

    @torch.inference_mode()
    def forward(self, tokens: Tensor, state: RwkvState, last: bool = False) -> Tensor:
        """Logits of the tokens behind those that the state has taken in: [rows, vocabulary], or of the last one only.

        tokens: [rows] of int64 on the CPU, at least one.
        """
        if tokens.dim() != 1 or not len(tokens):
            raise ValueError(f"tokens must be [rows], but have shape {list(tokens.shape)}")
        results = [self._part(part, state, last) for part in tokens.split(PROMPT_ROWS)]
        return results[-1] if last else torch.cat(results)

    def _part(self, tokens: Tensor, state: RwkvState, last: bool) -> Tensor:
        weight = self.rwkv.ln_out.weight
        x = self.embed(tokens)[None].to(weight.device, weight.dtype)
        for layer, block in enumerate(self.rwkv.blocks):
            x = block(x, state, layer)
        state.length += len(tokens)
        return self.head(self.rwkv.ln_out(x[0, -1:] if last else x[0]))

    def embed(self, tokens: Tensor) -> Tensor:
        embedding = self.rwkv.embeddings
        table = embedding.weight if isinstance(embedding, nn.Embedding) else embedding.packed
        return embedding(tokens.to(table.device))
