"""What packing is measured against: a plain reading of the bytes, the nearest levels, and the usual rounding."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import numpy as np
import quarn
import torch
from torch import nn

from packed import PACKED, from_bytes
from super_block_reference import BLOCK_BYTES, decoded

# Of small models of the transformers library, whose weights begin larger than usual.
MODEL_SIZES: dict[str, Any] = {
    "vocab_size": 192,
    "hidden_size": 128,
    "intermediate_size": 192,
    "num_hidden_layers": 2,
    "num_attention_heads": 4,
    "initializer_range": 0.15,
    "tie_word_embeddings": False,
}


def decode(packed: bytes, format: str, state_size: int) -> np.ndarray:
    """[output_size, state_size] in double."""
    if format in BLOCK_BYTES:
        records = np.frombuffer(packed, np.uint8).reshape(-1, BLOCK_BYTES[format])
        return decoded(format, records).reshape(-1, state_size).astype(np.float64)
    return from_bytes(packed, PACKED[format], state_size).elements()[0]


def codes_and_scales(packed: bytes, format: str) -> tuple[np.ndarray, np.ndarray]:
    """The codes [blocks, 64], and each block's scales in double, 1 where they are not read."""
    form = PACKED[format]
    weight = from_bytes(packed, form, 64)
    scales = weight.scales[:, 0].astype(np.float64) if form.reads_scale else np.ones((len(weight.scales), 1))
    return form.codes(weight.values[:, 0]), scales


def levels(format: str) -> np.ndarray:
    """What each code of a format stands for, before the scale, in double."""
    return PACKED[format].levels


def nearest(x: np.ndarray, format: str) -> np.ndarray:
    """The nearest finite level; of two at the same distance, the one of even code."""
    table = levels(format)
    codes = np.flatnonzero(np.isfinite(table))
    codes = np.concatenate([codes[codes % 2 == 0], codes[codes % 2 == 1]])
    return table[codes[np.abs(x[..., None] - table[codes]).argmin(-1)]]


def naive_error(weight: np.ndarray, format: str) -> np.ndarray:
    """Squared error per block of the usual rounding: the largest weight gets the extreme code."""
    blocks, form = weight.reshape(-1, 64), PACKED[format]
    table, minimum = form.levels[np.isfinite(form.levels)], np.float16(0)
    if form.minimum:
        low, high = blocks.min(1, keepdims=True), blocks.max(1, keepdims=True)
        minimum = low.astype(np.float16)
        scale = (high - low) / np.float32(table.max())
    elif form.qtype == 19:
        scale = np.ones((len(blocks), 1), np.float32)
    else:
        largest = np.take_along_axis(blocks, np.abs(blocks).argmax(1)[:, None], axis=1)
        scale = largest / np.float32(table[np.abs(table).argmax()])
    scale, minimum = scale.astype(form.scale).astype(np.float64), minimum.astype(np.float64)
    wide = blocks.astype(np.float64)
    steps = np.divide(wide - minimum, scale, out=np.zeros_like(wide), where=scale != 0)
    decoded = nearest(steps, format) * scale + minimum
    return ((decoded - wide) ** 2).sum(1)


def take_packed_weights(dense: nn.Module, packed: nn.Module) -> None:
    """Gives the linear layers of a model what the packed layers of the same names stand for."""
    for name, layer in packed.named_modules():
        if isinstance(layer, quarn.QuantLinear):
            weight = quarn.unpack(layer.packed.cpu(), layer.format.name, layer.state_size)
            dense.get_submodule(name).weight = nn.Parameter(weight)


def prompt() -> torch.Tensor:
    return torch.randint(0, 192, (21,), generator=torch.Generator().manual_seed(3))


def result_of_the_library(folder: Path, model: nn.Module) -> tuple[torch.Tensor, Any]:
    """The prompt with 64 tokens that the model generates, which must be those that transformers' own chooses, in float
    and with what the packed weights stand for; and what that one gives for them."""
    import transformers

    own = transformers.AutoModelForCausalLM.from_pretrained(folder, dtype=torch.float32).eval()
    take_packed_weights(own, model)
    tokens = list(quarn.generate(model, prompt().tolist(), 64))
    everything = torch.cat([prompt(), torch.tensor(tokens)])
    with torch.no_grad():
        result = own(everything[None], use_cache=True)
    chosen = result.logits[0, len(prompt()) - 1 : -1].argmax(-1)
    assert tokens == chosen.tolist() and len(set(tokens)) > 3
    return everything, result
