"""Models in folders, in the ecosystem's form: config.json, safetensors, tokenizer.json.

A packed weight is a flat tensor of bytes under the name of the dense one; the metadata of its file tells format and shape.
"""

from __future__ import annotations

import json
import shutil
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable

import torch
from torch import Tensor, nn

from .choice import Choice, chosen_format
from .embedding import QuantEmbedding
from .formats import format_named, linear_form
from .modules import QuantLinear
from .packing import pack
from .progress import ProgressBar
from .tensor_files import TensorFiles, Written, write_tensors

METADATA = "quarn"
UNREAD = ("rotary_emb.inv_freq", "attention.bias", "attention.masked_bias")
"""Ends of names of tensors that older checkpoints have and that follow from the configuration."""
COPIED = ("config.json", "generation_config.json", "special_tokens_map.json", "chat_template.jinja")


@dataclass(frozen=True)
class PackedWeight:
    """What a file's metadata tells of a packed weight."""

    format: str
    rows: int
    columns: int


def packed_weights(files: TensorFiles) -> dict[str, PackedWeight]:
    """By tensor; none where nothing is packed."""
    listed = json.loads(files.metadata.get(METADATA, "{}"))
    return {name: PackedWeight(e["format"], *e["shape"]) for name, e in listed.items()}


def metadata_of(packed: dict[str, PackedWeight]) -> dict[str, str]:
    """The file's metadata for these weights."""
    listed = {name: {"format": p.format, "shape": [p.rows, p.columns]} for name, p in packed.items()}
    return {"format": "pt", METADATA: json.dumps(listed)}


class Source:
    """The tensors of a checkpoint as the modules of a model ask for them."""

    def __init__(self, files: TensorFiles, tied: dict[str, str]) -> None:
        """tied: names of tensors that a checkpoint may leave out, and whose place another one takes."""
        self.files, self.packed = files, packed_weights(files)
        self._tied = tied
        self.unread = {name for name in files if not name.endswith(UNREAD)}

    def name(self, name: str) -> str:
        """The name in the files; KeyError where they have no such tensor."""
        found = name if name in self.files else self._tied.get(name, "")
        if found not in self.files:
            raise KeyError(f"the checkpoint has no tensor {name}")
        self.unread.discard(found)
        return found

    def check_all_read(self) -> None:
        if self.unread:
            names = ", ".join(sorted(self.unread)[:5])
            raise ValueError(f"the model has no place for {len(self.unread)} tensors: {names}, …")


def _is_packable(module: nn.Module) -> bool:
    return isinstance(module, (nn.Linear, nn.Embedding))


def load_model(
    model: nn.Module,
    source: Source,
    format: Choice | None,
    embeddings: bool,
    place: Callable[[str, Tensor], Tensor],
    progress: bool,
) -> None:
    """Gives a model on the device "meta" its weights.

    Linear layers that are packed in the checkpoint stay so; the others are packed where `format` chooses one, embeddings
    in q2_k where `embeddings` asks for it. place(name, tensor): where a tensor is to be, and in which type.
    """
    dense = [(name, m) for name, m in model.named_modules() if _is_packable(m)]
    total = sum(m.weight.numel() for _, m in dense)
    bar = ProgressBar(total, progress)
    for name, module in dense:
        key = f"{name}.weight"
        found, bar.label = source.name(key), name
        made = _packed_module(name, module, source, found, format, embeddings, bar)
        if made is None:
            module.weight = _parameter(place(key, source.files[found]))
            bar.advance(module.weight.numel())
        else:
            made.packed = place(key, made.packed)
            if isinstance(made, QuantLinear) and isinstance(module, nn.Linear):
                if module.bias is not None:
                    bias = place(f"{name}.bias", source.files[source.name(f"{name}.bias")])
                    made.bias = _parameter(bias)
            model.set_submodule(name, made)
        source.files.release(found)
    for name, module in model.named_modules():
        for key, parameter in list(module._parameters.items()):
            if parameter is not None and parameter.is_meta:
                full = f"{name}.{key}" if name else key
                value = place(full, source.files[source.name(full)])
                module._parameters[key] = _parameter(value)
    bar.finish()
    source.check_all_read()


def _parameter(value: Tensor) -> nn.Parameter:
    return nn.Parameter(value, requires_grad=False)


def _packed_module(
    name: str,
    module: nn.Linear | nn.Embedding,
    source: Source,
    found: str,
    format: Choice | None,
    embeddings: bool,
    bar: ProgressBar,
) -> QuantLinear | QuantEmbedding | None:
    """The packed form of a layer, without its bias; None where it stays dense."""
    if found in source.packed:
        entry = source.packed[found]
        packed, chosen = source.files[found], entry.format
        bar.advance(entry.rows * entry.columns)
    else:
        own = _chosen(format, embeddings, name, module)
        if own is None:
            return None
        chosen = own
        packed = _pack(name, source.files[found], chosen, bar)
    rows, columns = module.weight.shape
    if isinstance(module, nn.Embedding):
        return QuantEmbedding(packed, rows, columns)
    return QuantLinear(packed, rows, columns, chosen, None)


def _chosen(format: Choice | None, embeddings: bool, name: str, module: nn.Linear | nn.Embedding) -> str | None:
    """The full name of the format that a layer is to be packed in."""
    if isinstance(module, nn.Embedding):
        return "q2_k" if embeddings else None
    own = None if format is None else chosen_format(format, name, module)
    return None if own is None else linear_form(own).name


def _pack(name: str, weight: Tensor, format: str, bar: ProgressBar) -> Tensor:
    try:
        return pack(weight, format, None, bar.advance)
    except (TypeError, ValueError) as error:
        raise type(error)(f"{name}: {error}") from error


def pack_checkpoint(
    model: nn.Module, source: Source, format: Choice, embeddings: bool, path: Path, progress: bool
) -> None:
    """Packs a checkpoint into the file `path`, weight by weight, without ever holding the model.

    model: on the device "meta"; it tells which tensors there are and which are weights of layers.
    """
    written: list[Written] = []
    packed: dict[str, PackedWeight] = {}
    named = dict(model.named_modules())
    bar = ProgressBar(0, progress)
    for key, parameter in model.named_parameters():
        found = source.name(key)
        owner = key.rpartition(".")[0]
        module, dtype, shape = named[owner], source.files.dtype(found), parameter.shape
        if found in source.packed:
            packed[key] = source.packed[found]
            shape = torch.Size(source.files.shape(found))
        elif key.endswith(".weight") and isinstance(module, (nn.Linear, nn.Embedding)):
            own = _chosen(format, embeddings, owner, module)
            if own is not None:
                rows, columns = parameter.shape
                packed[key] = PackedWeight(own, rows, columns)
                entry = format_named(own)
                if columns % entry.block_elements:
                    raise ValueError(
                        f"{owner}: {columns} columns are no multiple of {entry.block_elements}, "
                        f"which {own} needs; choose another format for it, or None"
                    )
                size = entry.packed_bytes(rows, columns)
                bar.total += parameter.numel()
                make = _packer(owner, source, found, own, bar)
                written.append(Written(key, torch.uint8, [size], make))
                continue
        elif key != found:
            continue  # tied, and dense as the tensor whose place it takes
        written.append(Written(key, dtype, shape, lambda found=found: source.files[found]))  # type: ignore[misc]
    source.check_all_read()
    write_tensors(path, written, metadata_of(packed))
    bar.finish()


def _packer(name: str, source: Source, found: str, format: str, bar: ProgressBar) -> Callable[[], Tensor]:
    def make() -> Tensor:
        bar.label = name
        packed = _pack(name, source.files[found], format, bar)
        source.files.release(found)
        return packed

    return make


def save_model(model: nn.Module, path: Path) -> None:
    """Writes a model's parameters, packed ones as they are. A weight that several names share is written once."""
    written: list[Written] = []
    packed: dict[str, PackedWeight] = {}
    for name, module in model.named_modules():
        if isinstance(module, (QuantLinear, QuantEmbedding)):
            sizes = (
                (module.output_size, module.state_size)
                if isinstance(module, QuantLinear)
                else (module.num_embeddings, module.embedding_dim)
            )
            packed[f"{name}.weight"] = PackedWeight(module.format.name, *sizes)
            written.append(_written(f"{name}.weight", module.packed))
    written += [_written(name, parameter) for name, parameter in model.named_parameters()]
    write_tensors(path, written, metadata_of(packed))


def _written(name: str, value: Tensor) -> Written:
    return Written(name, value.dtype, value.shape, lambda: value)


def read_config(folder: Path) -> dict[str, Any]:
    """config.json; FileNotFoundError or ValueError where the folder is no checkpoint."""
    path = folder / "config.json"
    if not path.exists():
        raise FileNotFoundError(f"{folder} is no checkpoint: it has no config.json")
    config = json.loads(path.read_text())
    if "model_type" not in config:
        raise ValueError(f"{path} names no model_type")
    return config


def copy_beside(source: Path, target: Path) -> None:
    """Copies what a checkpoint has beside its tensors: configuration and tokenizer."""
    target.mkdir(parents=True, exist_ok=True)
    for path in sorted(source.iterdir()):
        if (path.name in COPIED or path.name.startswith("tokenizer")) and path.is_file():
            if path.resolve() != (target / path.name).resolve():
                shutil.copyfile(path, target / path.name)
