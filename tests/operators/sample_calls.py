"""One good call of every operator, for what holds for all of them."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import torch


@dataclass(frozen=True)
class Call:
    """`written`: the places of the tensors that the operator writes; `unread`: of those that give it sizes only."""

    arguments: list[Any]
    written: tuple[int, ...] = ()
    unread: tuple[int, ...] = ()

    def tensors(self) -> list[int]:
        return [i for i, x in enumerate(self.arguments) if isinstance(x, torch.Tensor)]

    def read(self) -> list[int]:
        return [i for i in self.tensors() if i not in self.written + self.unread]

    def with_argument(self, place: int, value: Any) -> list[Any]:
        return [*self.arguments[:place], value, *self.arguments[place + 1 :]]


def sample_calls() -> dict[str, Call]:
    """By operator, with new tensors each time: the same numbers, which are small and not zero."""
    random = torch.Generator().manual_seed(4)

    def numbers(*shape: int, dtype: torch.dtype = torch.float32) -> torch.Tensor:
        return (torch.randint(1, 17, shape, generator=random) / 16).to(dtype).to("xpu")

    def code(*shape: int) -> torch.Tensor:
        return torch.randint(1, 40, shape, generator=random).to(torch.uint8).to("xpu")

    q4_0 = code(4 * 34)
    positions = torch.tensor([[3, 5]]).to("xpu")
    q, k = numbers(1, 2, 2, 8), numbers(1, 1, 2, 8)
    table = numbers(1, 1, 2, 8)
    q_out, k_out = torch.zeros_like(q), torch.zeros_like(k)
    row = numbers(64)
    return {
        "forward_new": Call([numbers(1, 64), q4_0, 2, 0]),
        "dequant": Call([numbers(1, 64), q4_0, 2], unread=(0,)),
        "apply_rotary_embedding_half_q_and_k": Call([q, k, positions, q_out, k_out], written=(3, 4)),
        "apply_rotary_embedding_half_q_or_k": Call([q, positions, q_out, False], written=(2,)),
        "apply_rotary_embedding_half_q_and_k_cache_freq": Call([q, k, table, table + 1, q_out, k_out], written=(4, 5)),
        "bmm": Call([numbers(2, 3, 4), numbers(2, 4, 5), torch.zeros(2, 3, 5).to("xpu")], written=(2,)),
        "fused_rms_norm": Call([numbers(3, 64), (64,), row, row + 1, 1e-5]),
        "fused_layer_norm": Call([numbers(3, 64), (64,), row, row + 1, 1e-5]),
        "mlp_forward_xpu": Call([numbers(1, 64), q4_0, q4_0.flip(0), 1, 64, 4, 2]),
        "query_key_fp8_matmul": Call([numbers(1, 2, 1, 128), code(1, 1, 5, 128)]),
        "attn_value_fp8_matmul": Call([numbers(1, 2, 1, 5), code(1, 1, 8, 5)]),
        "rwkv_linear_attention_v4": Call(
            [numbers(32), numbers(32), numbers(1, 3, 32), numbers(1, 3, 32), *(numbers(1, 32) for _ in range(3))],
            written=(4, 5, 6),
        ),
        "rwkv_linear_attention_v5": Call(
            [numbers(2, 64), numbers(2, 64), *(numbers(1, 2, 3, 64) for _ in range(3)), numbers(1, 2, 64, 64)],
            written=(5,),
        ),
        "rwkv_time_shift": Call([numbers(1, 2, 64), numbers(1, 2, 64), numbers(3, 1, 64)]),
        "dequantize_rows": Call([torch.tensor([[2, 0]]).to("xpu"), code(3 * 84), 23, 256]),
    }
