"""The sizes of decoders of the Llama family, and the angles of their positions."""

from __future__ import annotations

import math
from dataclasses import dataclass, field
from typing import Any

import torch
from torch import Tensor


@dataclass(frozen=True)
class LlamaConfig:
    """`rotary` holds what config.json says of rotary embedding: "rope_type" and its numbers."""

    vocabulary: int
    width: int
    hidden: int
    layers: int
    heads: int
    kv_heads: int
    head_dim: int
    context: int
    norm_epsilon: float
    tied_head: bool
    qkv_bias: bool
    output_bias: bool
    mlp_bias: bool
    rotary_base: float = 10000.0
    rotary: dict[str, Any] = field(default_factory=dict)

    @classmethod
    def from_dict(cls, config: dict[str, Any]) -> LlamaConfig:
        """From the content of a config.json, of older forms too; ValueError for what is not supported."""
        kind = config["model_type"]
        activation = config.get("hidden_act", "silu")
        if activation != "silu":
            raise ValueError(f"the gated MLP's activation must be silu, but is {activation}")
        if config.get("use_sliding_window", kind == "mistral") and config.get("sliding_window"):
            if config["sliding_window"] < config["max_position_embeddings"]:
                raise ValueError("attention over a sliding window is not supported")
        rotary = dict(config.get("rope_parameters") or config.get("rope_scaling") or {})
        rotary.setdefault("rope_type", rotary.pop("type", "default"))
        base = rotary.pop("rope_theta", config.get("rope_theta", 10000.0))
        if rotary["rope_type"] not in _FREQUENCIES:
            known = ", ".join(_FREQUENCIES)
            raise ValueError(f"rotary embedding must be {known}, but is {rotary['rope_type']}")
        heads = config["num_attention_heads"]
        bias = bool(config.get("attention_bias", False))
        return cls(
            vocabulary=config["vocab_size"],
            width=config["hidden_size"],
            hidden=config["intermediate_size"],
            layers=config["num_hidden_layers"],
            heads=heads,
            kv_heads=config.get("num_key_value_heads") or heads,
            head_dim=config.get("head_dim") or config["hidden_size"] // heads,
            context=config.get("max_position_embeddings", 2048),
            norm_epsilon=config.get("rms_norm_eps", 1e-6),
            tied_head=bool(config.get("tie_word_embeddings", False)),
            qkv_bias=bias or kind == "qwen2",
            output_bias=bias,
            mlp_bias=bool(config.get("mlp_bias", False)),
            rotary_base=float(base),
            rotary=rotary,
        )

    @property
    def plain_rotary(self) -> bool:
        """Whether the operators' own angles are the model's."""
        return self.rotary_base == 10000.0 and self.rotary.get("rope_type", "default") == "default"

    def frequencies(self) -> Tensor:
        """The angle of each pair of a head for a step of one position, [head_dim / 2], float."""
        exponents = torch.arange(0, self.head_dim, 2, dtype=torch.float) / self.head_dim
        plain = 1.0 / self.rotary_base**exponents
        return _FREQUENCIES[self.rotary.get("rope_type", "default")](plain, self.rotary)

    def rotary_tables(self, positions: int) -> tuple[Tensor, Tensor]:
        """Sines and cosines of the positions' angles, [positions, head_dim], float; both halves of a row are the same."""
        angles = torch.arange(positions, dtype=torch.float)[:, None] * self.frequencies()
        angles = torch.cat([angles, angles], dim=-1)
        return angles.sin(), angles.cos()


def _linear(frequencies: Tensor, rotary: dict[str, Any]) -> Tensor:
    return frequencies / rotary["factor"]


def _llama3(frequencies: Tensor, rotary: dict[str, Any]) -> Tensor:
    """Long waves are slowed down by the factor, short ones are kept, those between go from one to the other."""
    factor, original = rotary["factor"], rotary["original_max_position_embeddings"]
    low, high = rotary["low_freq_factor"], rotary["high_freq_factor"]
    turns = original * frequencies / (2 * math.pi)  # in the context of the training
    kept = ((turns - low) / (high - low)).clamp(0, 1)
    return frequencies * (kept + (1 - kept) / factor)


_FREQUENCIES = {"default": lambda frequencies, rotary: frequencies, "linear": _linear, "llama3": _llama3}
