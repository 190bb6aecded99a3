"""What attention, the batch product and the RWKV operators are measured on."""

from __future__ import annotations

import ctypes
from pathlib import Path
from typing import Callable, Iterator

import torch
from torch import Tensor

import tolvane
from harness import TYPES, Case

Call = Callable[[int], object]


def size_of(*tensors: Tensor) -> int:
    return sum(x.numel() * x.element_size() for x in tensors)


def attention(quick: bool) -> Iterator[Case]:
    """Both products of a decoding step, against matmul on a dense float cache per query head."""
    heads, kv_heads = 32, 8
    for length in (4096,) if quick else (512, 4096):
        key = torch.randint(0, 0x60, (1, kv_heads, length, 128), dtype=torch.uint8, device="xpu")
        value = key.transpose(2, 3).contiguous()
        query, attn = torch.randn(1, heads, 1, 128), torch.rand(1, heads, 1, length)
        keys, values = torch.randn(2, 1, heads, length, 128).unbind()
        shape = f"{length}, {heads}/{kv_heads}"
        for kind, dtype in TYPES.items():
            q, a = query.to("xpu", dtype), attn.to("xpu", dtype)
            scores: Call = lambda _, q=q: tolvane.query_key_fp8_matmul(q, key)
            sums: Call = lambda _, a=a: tolvane.attn_value_fp8_matmul(a, value)
            dense_scores: Call = lambda _: query @ keys.transpose(2, 3)
            dense_sums: Call = lambda _: attn @ values
            yield Case("scores", shape, kind, "fp8", size_of(key), scores, {"float": dense_scores})
            yield Case("values", shape, kind, "fp8", size_of(value), sums, {"float": dense_sums})


def bmm(quick: bool) -> Iterator[Case]:
    """The plain batch product against PyTorch's on the CPU."""
    a, b = torch.randn(2, 8, 256, 256).unbind()
    on_xpu = [x.to("xpu") for x in (a, b, torch.empty_like(a))]
    size = size_of(a, b)
    ours, peer = lambda _: tolvane.bmm(*on_xpu), lambda _: torch.bmm(a, b)
    yield Case("bmm", "8 x 256^3", "float", "dense", size, ours, {"cpu": peer})


def plain_call(name: str, tensors: list[Tensor], sizes: tuple[int, ...]) -> Call:
    """A loop of plain_rwkv.cpp on the tensors' memory."""
    library = Path(tolvane.__file__).parents[1] / "benchmarks" / "libplain_rwkv.so"
    function = getattr(ctypes.CDLL(str(library)), name)
    pointers = [ctypes.c_void_p(x.data_ptr()) for x in tensors]
    numbers = [ctypes.c_size_t(size) for size in sizes]

    def run(_: int, keep: list[Tensor] = tensors) -> None:
        function(*pointers, *numbers)

    return run


def rwkv(quick: bool) -> Iterator[Case]:
    """64 tokens of versions 4 and 5, against plain loops on one thread."""
    tokens, channels, heads = 64, 2048, 32
    w, u = -torch.rand(channels), torch.randn(channels)
    inputs = [w, u, *torch.randn(2, 1, tokens, channels).unbind()]
    inputs += torch.rand(3, 1, channels).unbind()
    out = torch.empty(1, tokens, channels)
    peer = plain_call("plain_rwkv_v4", [*inputs, out], (1, tokens, channels))
    for kind, dtype in TYPES.items():
        x = [tensor.to("xpu", dtype) for tensor in inputs]
        ours: Call = lambda _, x=x: tolvane.rwkv_linear_attention_v4(*x)
        yield Case("rwkv v4", f"{tokens} x {channels}", kind, "dense", size_of(*x), ours, {"loops": peer})

    inputs = [torch.rand(heads, 64), torch.randn(heads, 64)]
    inputs += torch.randn(3, 1, heads, tokens, 64).unbind()
    inputs.append(torch.zeros(1, heads, 64, 64))
    y = [tensor.to("xpu") for tensor in inputs]
    for order in ("columns", "rows"):
        peer = plain_call(f"plain_rwkv_v5_{order}", [*inputs, out], (1, heads, tokens))
        ours = lambda _: tolvane.rwkv_linear_attention_v5(*y)
        yield Case("rwkv v5", f"{tokens} x {heads}", "float", order, size_of(*y), ours, {"loops": peer})


def time_shift(quick: bool) -> Iterator[Case]:
    """Five mixes, against a copy that moves as many bytes on the CPU."""
    tokens, channels, mixes = 2048, 2048, 5
    hidden, shifted = torch.randn(2, 1, tokens, channels).unbind()
    mix = torch.rand(mixes, 1, channels)
    for kind, dtype in TYPES.items():
        x = [tensor.to("xpu", dtype) for tensor in (hidden, shifted, mix)]
        moved = torch.randn(hidden.numel() * (mixes + 2) // 2).to(dtype)
        target = torch.empty_like(moved)
        size, shape = 2 * size_of(moved), f"{mixes}, {tokens}^2"
        ours: Call = lambda _, x=x: tolvane.rwkv_time_shift(*x)
        peer: Call = lambda _, a=target, b=moved: a.copy_(b)
        yield Case("shift", shape, kind, "dense", size, ours, {"copy": peer})


ENTRIES = [attention, bmm, rwkv, time_shift]
