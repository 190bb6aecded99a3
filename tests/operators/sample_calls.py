"""The catalogue of operators: one good call of each, and what an observer sees of it."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Optional

import torch

Range = tuple[int, ...]


@dataclass(frozen=True)
class Call:
    """`arguments`: positional. `scope`: the profiler's name for the call. `launch`: the index space and the work-group of
    its one submission, where they are asserted, and `waits` whether the host waits for it. `written`: the places of the
    tensors that the operator writes; `unread`: of those that give it sizes only."""

    arguments: list[Any]
    scope: str = ""
    launch: tuple[Optional[Range], Optional[Range]] = (None, None)
    written: tuple[int, ...] = ()
    unread: tuple[int, ...] = ()
    waits: bool = False

    def tensors(self) -> list[int]:
        return [i for i, x in enumerate(self.arguments) if isinstance(x, torch.Tensor)]

    def read(self) -> list[int]:
        return [i for i in self.tensors() if i not in self.written + self.unread]

    def with_argument(self, place: int, value: Any) -> list[Any]:
        return [*self.arguments[:place], value, *self.arguments[place + 1 :]]


def sample_calls() -> dict[str, Call]:
    """With new tensors each time: the same numbers, which are small and not zero. By operator; of two calls of one
    operator the second is named by more words ("forward_new q4_1")."""
    random = torch.Generator().manual_seed(4)

    def numbers(*shape: int) -> torch.Tensor:
        return (torch.randint(1, 17, shape, generator=random) / 16).to("xpu")

    def code(*shape: int) -> torch.Tensor:
        return torch.randint(1, 40, shape, generator=random).to(torch.uint8).to("xpu")

    q4_0, x, rows, row = code(4 * 34), numbers(1, 64), numbers(3, 64), numbers(64)
    q, k, table = numbers(1, 2, 2, 8), numbers(1, 1, 2, 8), numbers(1, 1, 2, 8)
    positions, out = torch.tensor([[3, 5]]).to("xpu"), torch.zeros_like
    caches = [numbers(1, 1, 4, 2)[:, :, :3] for _ in range(2)]
    product = torch.zeros(2, 3, 5).to("xpu")
    rotary, norm = "quarn_rope_forward", ((192,), (64,))
    return {
        "forward_new": Call([x, q4_0, 2, 0], "quarn_qlinear_forward", ((64,), (32,))),
        "forward_qkv": Call(
            [x, q4_0, *(code(2 * 34) for _ in range(2)), positions, *caches, 2, 1, 2],
            "quarn_qkv_forward",
            ((64, 3), (32, 1)),
            (5, 6),
        ),
        "dequant": Call([x, q4_0, 2], "quarn_xpu_dequant", ((128,), (32,)), unread=(0,), waits=True),
        "apply_rotary_embedding_half_q_and_k": Call([q, k, positions, out(q), out(k)], rotary, written=(3, 4)),
        "apply_rotary_embedding_half_q_or_k": Call([q, positions, out(q), False], rotary, written=(2,)),
        "apply_rotary_embedding_half_q_and_k_cache_freq": Call(
            [q, k, table, table + 1, out(q), out(k)], rotary, written=(4, 5)
        ),
        "bmm": Call([numbers(2, 3, 4), numbers(2, 4, 5), product], "quarn_bmm", ((2, 3, 5), None), (2,)),
        "fused_rms_norm": Call([rows, (64,), row, row + 1, 1e-5], "fused_rms_norm", norm),
        "fused_layer_norm": Call([rows, (64,), row, row + 1, 1e-5], "fast_layer_norm", norm),
        "mlp_forward_xpu": Call([x, q4_0, q4_0.flip(0), 1, 64, 4, 2], "mlp_forward", ((64,), (32,))),
        "query_key_fp8_matmul": Call([numbers(1, 2, 1, 128), code(1, 1, 33, 128)], launch=((1, 2, 64), (1, 1, 32))),
        "attn_value_fp8_matmul": Call([numbers(1, 2, 1, 5), code(1, 1, 12, 5)], launch=((1, 2, 96), (1, 1, 32))),
        "rwkv_linear_attention_v4": Call(
            [numbers(32), numbers(32), *numbers(2, 1, 3, 32), *(numbers(1, 32) for _ in range(3))],
            launch=((1, 32), (1, 32)),
            written=(4, 5, 6),
        ),
        "rwkv_linear_attention_v5": Call(
            [*numbers(2, 2, 64), *numbers(3, 1, 2, 3, 64), numbers(1, 2, 64, 64)],
            launch=((1, 2, 64), (1, 1, 32)),
            written=(5,),
        ),
        "rwkv_time_shift": Call([*numbers(2, 1, 2, 64), numbers(3, 1, 64)], launch=((1, 2, 64), (1, 1, 64))),
        "dequantize_rows": Call(
            [torch.tensor([[2, 0]]).to("xpu"), code(3 * 84), 23, 256],
            "quarn_dequantize_rows",
            ((128,), (64,)),
            waits=True,
        ),
    }
