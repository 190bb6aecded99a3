"""Files of tensors in the format of safetensors, memory-mapped or written tensor by tensor."""

from __future__ import annotations

import json
import mmap
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Callable, Iterator, Mapping, Sequence

import torch
from torch import Tensor

DTYPES = {
    "F64": torch.float64,
    "F32": torch.float32,
    "F16": torch.float16,
    "BF16": torch.bfloat16,
    "I64": torch.int64,
    "I32": torch.int32,
    "I16": torch.int16,
    "I8": torch.int8,
    "U8": torch.uint8,
    "BOOL": torch.bool,
}
_NAMES = {dtype: name for name, dtype in DTYPES.items()}
_ALIGNMENT = 64


@dataclass(frozen=True)
class _Place:
    map: mmap.mmap
    dtype: torch.dtype
    shape: tuple[int, ...]
    offset: int
    bytes: int


class TensorFiles:
    """The tensors of a folder's safetensors files, by name; read when they are used.

    Raises FileNotFoundError where the folder has no such file, ValueError where one is damaged.
    """

    def __init__(self, folder: Path) -> None:
        self.metadata: dict[str, str] = {}
        self._places: dict[str, _Place] = {}
        index = folder / "model.safetensors.index.json"
        if index.exists():
            shards = sorted(set(json.loads(index.read_text())["weight_map"].values()))
            files = [folder / shard for shard in shards]
        else:
            files = sorted(folder.glob("*.safetensors"))
        if not files:
            raise FileNotFoundError(f"{folder} has no *.safetensors file")
        for file in files:
            self._add(file)

    def _add(self, path: Path) -> None:
        with path.open("rb") as file:
            # Private, so that PyTorch, which knows no tensors that are read only, has nothing to warn of.
            map = mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_COPY)
        begin = 8 + int.from_bytes(map[:8], "little")
        if begin > len(map):
            raise ValueError(f"{path} is no safetensors file, or is cut off")
        header: dict[str, Any] = json.loads(map[8:begin])
        self.metadata.update(header.pop("__metadata__", {}))
        for name, entry in header.items():
            start, end = (begin + offset for offset in entry["data_offsets"])
            if entry["dtype"] not in DTYPES:
                raise ValueError(f"{path}: {name} has the unknown type {entry['dtype']}")
            dtype, shape = DTYPES[entry["dtype"]], tuple(entry["shape"])
            size = torch.Size(shape).numel() * dtype.itemsize
            if end - start != size or end > len(map):
                raise ValueError(f"{path}: {name} does not fit the file, which may be cut off")
            self._places[name] = _Place(map, dtype, shape, start, size)

    def __iter__(self) -> Iterator[str]:
        return iter(self._places)

    def __contains__(self, name: str) -> bool:
        return name in self._places

    def shape(self, name: str) -> tuple[int, ...]:
        return self._places[name].shape

    def dtype(self, name: str) -> torch.dtype:
        return self._places[name].dtype

    def __getitem__(self, name: str) -> Tensor:
        """The tensor on the CPU, in the file's memory: nothing is read yet."""
        place = self._places[name]
        if place.bytes == 0:
            return torch.empty(place.shape, dtype=place.dtype)
        data = torch.frombuffer(place.map, dtype=torch.uint8, count=place.bytes, offset=place.offset)
        if place.offset % place.dtype.itemsize:
            data = data.clone()
        return data.view(place.dtype).view(place.shape)

    def release(self, name: str) -> None:
        """Lets the system take back the memory that a tensor was read into; it is read again where it is used."""
        place = self._places[name]
        start = -(-place.offset // mmap.PAGESIZE) * mmap.PAGESIZE
        length = (place.offset + place.bytes - start) // mmap.PAGESIZE * mmap.PAGESIZE
        if length > 0:
            place.map.madvise(mmap.MADV_DONTNEED, start, length)


@dataclass(frozen=True)
class Written:
    """A tensor to be written: made when its turn comes."""

    name: str
    dtype: torch.dtype
    shape: Sequence[int]
    make: Callable[[], Tensor]


def write_tensors(path: Path, tensors: Sequence[Written], metadata: Mapping[str, str]) -> None:
    """Writes a safetensors file, which appears under its name when it is complete."""
    # Wide types first, so that each tensor is aligned to its type.
    ordered = sorted(tensors, key=lambda tensor: -tensor.dtype.itemsize)
    header: dict[str, Any] = {"__metadata__": dict(metadata)}
    offset = 0
    for tensor in ordered:
        end = offset + torch.Size(tensor.shape).numel() * tensor.dtype.itemsize
        header[tensor.name] = {
            "dtype": _NAMES[tensor.dtype],
            "shape": list(tensor.shape),
            "data_offsets": [offset, end],
        }
        offset = end
    text = json.dumps(header).encode()
    text += b" " * (-(8 + len(text)) % _ALIGNMENT)
    unfinished = path.with_name(path.name + ".part")
    with unfinished.open("wb") as file:
        file.write(len(text).to_bytes(8, "little") + text)
        for tensor in ordered:
            value = tensor.make().detach().cpu().contiguous()
            if value.dtype != tensor.dtype or value.shape != torch.Size(tensor.shape):
                raise ValueError(f"{tensor.name} is not what was announced")
            file.write(value.view(-1).view(torch.uint8).numpy().data)
    unfinished.replace(path)
