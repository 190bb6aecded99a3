"""Storages of the xpu device in ``torch.save``, ``torch.load`` and ``pickle``."""

from __future__ import annotations

from typing import Any

import torch


def _tag(storage: Any) -> str | None:
    return "xpu" if storage.device.type == "xpu" else None


def _restore(storage: Any, location: str) -> Any:
    if location != "xpu" and not location.startswith("xpu:"):
        return None
    if location not in ("xpu", "xpu:0"):
        raise RuntimeError(f"cannot load a storage to {location}: the one xpu device is xpu:0")
    return _to_xpu(storage)


def _to_xpu(storage: torch.UntypedStorage) -> torch.UntypedStorage:
    data = torch.empty(0, dtype=torch.uint8).set_(storage)
    return data.to("xpu").storage().untyped()


def _rebuild_typed(storage: Any) -> Any:
    return torch.storage.TypedStorage(wrap_storage=_to_xpu(storage.untyped()), dtype=storage.dtype)


def install() -> None:
    """Registers the location ``xpu`` with ``torch.serialization``; pickling goes by the CPU."""
    torch.serialization.register_package(23, _tag, _restore)
    original = torch.storage.TypedStorage.__reduce__

    def reduce(self: Any) -> Any:
        if self.device.type == "xpu":
            return _rebuild_typed, (self.cpu(),)
        return original(self)

    torch.storage.TypedStorage.__reduce__ = reduce
