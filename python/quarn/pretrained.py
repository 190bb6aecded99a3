"""Loading, packing and saving of whole models."""

from __future__ import annotations

from pathlib import Path
from typing import Any

import torch
from torch import Tensor

from .checkpoint import Source, copy_beside, load_model, pack_checkpoint, read_config, save_model
from .choice import Choice
from .llama import Llama
from .rwkv import Rwkv
from .tensor_files import TensorFiles

MODELS: dict[str, Any] = {"llama": Llama, "mistral": Llama, "qwen2": Llama, "rwkv": Rwkv}
"""By the model_type of config.json."""
WEIGHTS = "model.safetensors"


def _opened(folder: str | Path) -> tuple[Any, Source]:
    """The model without weights, and where they are."""
    config = read_config(Path(folder))
    kind = config["model_type"]
    if kind not in MODELS:
        known = ", ".join(MODELS)
        raise ValueError(f"models of type {kind} are not among those that quarn runs: {known}")
    model = MODELS[kind].from_config(config)
    return model, Source(TensorFiles(Path(folder)), model.tied)


def from_pretrained(
    folder: str | Path,
    format: Choice | None = None,
    embeddings: bool = False,
    device: str | torch.device = "xpu",
    dtype: torch.dtype = torch.float32,
    progress: bool = True,
) -> Any:
    """The model of a checkpoint, ready to run.

    folder: with config.json and safetensors, dense or packed. Dense weights of linear layers are packed where `format`
    chooses one (see `quantize_`), embeddings in q2_k where `embeddings` asks for it. dtype: of activations and of dense
    weights. Raises FileNotFoundError, ValueError or KeyError where the folder holds no checkpoint of a known kind.
    """
    model, source = _opened(folder)

    def place(name: str, value: Tensor) -> Tensor:
        if name in model.on_host:
            return value
        return value.to(device, dtype if value.is_floating_point() else value.dtype)

    load_model(model, source, format, embeddings, place, progress and format is not None)
    model.finish_loading()
    model.source = Path(folder)
    return model.eval()


def save_pretrained(model: Any, folder: str | Path) -> None:
    """Writes a model that `from_pretrained` made, with its configuration and tokenizer; packed weights stay packed."""
    copy_beside(model.source, Path(folder))
    save_model(model, Path(folder) / WEIGHTS)


def pack_pretrained(
    folder: str | Path, target: str | Path, format: Choice, embeddings: bool = False, progress: bool = True
) -> None:
    """Packs a checkpoint into another folder, weight by weight: no more memory is taken than the largest one needs."""
    model, source = _opened(folder)
    copy_beside(Path(folder), Path(target))
    pack_checkpoint(model, source, format, embeddings, Path(target) / WEIGHTS, progress)
