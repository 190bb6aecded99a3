"""Writes the trained decoder as a checkpoint in the form of transformers: configuration, safetensors, tokenizer.

usage: convert.py FOLDER
"""

from __future__ import annotations

import argparse
import json
from pathlib import Path
from typing import Any

import torch
from torch import Tensor

from model import Decoder
from quarn.tensor_files import Written, write_tensors
from train import load


def configuration(model: Decoder) -> dict[str, Any]:
    """config.json: a Llama whose head is not tied, because this decoder scales its embedding."""
    config = model.config
    return {
        "model_type": "llama",
        "architectures": ["LlamaForCausalLM"],
        "vocab_size": config.vocabulary,
        "hidden_size": config.width,
        "intermediate_size": config.hidden,
        "num_hidden_layers": config.layers,
        "num_attention_heads": config.heads,
        "num_key_value_heads": config.heads,
        "max_position_embeddings": config.context,
        "rms_norm_eps": config.norm_epsilon,
        "rope_parameters": {"rope_type": "default", "rope_theta": config.rotary_base},
        "tie_word_embeddings": False,
        "hidden_act": "silu",
        "bos_token_id": None,
        "eos_token_id": None,
    }


def tensors(model: Decoder) -> dict[str, Tensor]:
    """The weights under the names of that library."""
    embedding = model.embedding.weight
    found = {
        "model.embed_tokens.weight": embedding * model.config.width**0.5,
        "model.norm.weight": model.norm.weight,
        "lm_head.weight": embedding,
    }
    for number, layer in enumerate(model.layers):
        names = dict(layer.named_parameters())
        own: dict[str, Tensor] = {
            "input_layernorm.weight": names["attention_norm.weight"],
            "self_attn.o_proj.weight": names["attention.out.weight"],
            "post_attention_layernorm.weight": names["mlp_norm.weight"],
        }
        own |= {f"mlp.{part}_proj.weight": names[f"mlp.{part}.weight"] for part in ("gate", "up", "down")}
        projections = names["attention.qkv.weight"].chunk(3)
        own |= {f"self_attn.{part}_proj.weight": w for part, w in zip("qkv", projections)}
        found |= {f"model.layers.{number}.{name}": weight for name, weight in own.items()}
    return found


def tokenizer() -> dict[str, Any]:
    """tokenizer.json: each byte is a token of its own value."""
    plain = [*range(0x21, 0x7F), *range(0xA1, 0xAD), *range(0xAE, 0x100)]
    others = [byte for byte in range(256) if byte not in plain]
    letters = {byte: chr(byte) for byte in plain}  # as byte-level tokenizers write bytes
    letters |= {byte: chr(256 + place) for place, byte in enumerate(others)}
    level = {"type": "ByteLevel", "add_prefix_space": False, "trim_offsets": True, "use_regex": False}
    return {
        "version": "1.0",
        "added_tokens": [],
        "pre_tokenizer": level,
        "decoder": level,
        "model": {"type": "BPE", "vocab": {letters[byte]: byte for byte in range(256)}, "merges": []},
    }


def convert(model: Decoder, folder: Path) -> None:
    """Writes a decoder's checkpoint, in float."""
    folder.mkdir(parents=True, exist_ok=True)
    (folder / "config.json").write_text(json.dumps(configuration(model), indent=2))
    (folder / "tokenizer.json").write_text(json.dumps(tokenizer(), indent=1))
    written = [
        Written(name, torch.float32, value.shape, lambda value=value: value)  # type: ignore[misc]
        for name, value in tensors(model).items()
    ]
    write_tensors(folder / "model.safetensors", written, {"format": "pt"})


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=Path)
    convert(load(), parser.parse_args().folder)


if __name__ == "__main__":
    main()
