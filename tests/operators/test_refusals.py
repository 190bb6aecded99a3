"""What every operator refuses, in which words; nothing is submitted and nothing stays allocated."""

from __future__ import annotations

import inspect
import re
from typing import Any

import pytest
import kelvor_xpu
import tolvane
import torch

from sample_calls import sample_calls
from super_block_reference import BLOCK_BYTES as SUPER_BLOCKS
from super_block_reference import QTYPE


def z(*shape: int, dtype: torch.dtype = torch.float32, device: str = "xpu") -> torch.Tensor:
    return torch.zeros(shape, dtype=dtype, device=device)


def b(*shape: int, device: str = "xpu") -> torch.Tensor:
    return z(*shape, dtype=torch.uint8, device=device)


# By operator: arguments in place of the sample call's, a function of all of its tensors, or the name of one that is
# strided; and the words.
REFUSED: dict[str, list[tuple[Any, str]]] = {}
BLOCKS = "positive multiple of 64"
REFUSED["forward_new"] = [
    ({"input": z(1, 64, device="cpu"), "weights": b(68)[::2]}, "^input must be a XPU tensor"),
    ({"input": z(64)}, "input must have 2 dimensions"),
    ({"qtype": 4}, "no function for qtype 4"),
    ({"qtype": 22, "input": z(1, 256)}, "no function for qtype 22"),
    ({"qtype": -2}, "no function for qtype -2"),
    ({"qtype": 1 << 20}, "no function for qtype"),
    ({"input": z(1, 0)}, "state_size must be positive"),
    ({"weights": z(64)}, "flat tensor of packed bytes"),
    ({"input": z(1, 100), "weights": b(680), "qtype": 8}, "^100 must be a multiple of 8"),
    ({"input": z(1, 48), "weights": b(340)}, BLOCKS),
    ({"input": z(1, 96), "weights": b(440), "qtype": 6}, BLOCKS),
    ({"input": z(1, 64).int()}, "\"qlinear_forward_xpu\" not implemented for 'Int'"),
]
for form, size in SUPER_BLOCKS.items():
    super_block = {"qtype": QTYPE[form], "weights": b(10 * size)}
    REFUSED["forward_new"] += [
        (super_block | {"input": z(1, 320)}, "positive multiple of 256"),
        (super_block | {"input": z(2, 320)}, "positive multiple of 256"),
        (super_block | {"input": z(1, 100)}, "positive multiple of 256"),
        (super_block | {"input": z(2, 100)}, "^100 must be a multiple of 64"),
        (super_block | {"input": z(1, 256).int()}, "not implemented for 'Int'"),
    ]
IDS = z(1, 2).long()
REFUSED["dequantize_rows"] = [
    ({"input": IDS[0]}, "input must have 2 dimensions"),
    ({"input": IDS.int()}, "torch.int64"),
    ({"weight": z(3 * 84)}, "flat tensor of packed bytes"),
    ({"state_size": 100}, "^100 must be a multiple of 64"),
    ({"state_size": 192}, "positive multiple of 256"),
    ({"state_size": 0}, "positive multiple of 256"),
    ({"weight": b(0)}, "has 0 rows"),
]
REFUSED["dequant"] = [
    ({"weight": b(360), "qtype": 3}, "qtype must be 2, 8, 10, 15, 16, 19 or 21, but got 3"),
    ({"input": z(1, 256), "weight": b(840), "qtype": 23}, "qtype must be .* but got 23"),
    ({"input": z(1, 100), "weight": b(340)}, "^100 must be a multiple of 64"),
]
FUSED_TYPES = [({"qtype": i}, rf"qtype must be 2 \(q4_0\) or 19 \(fp8_e5m2\), but got {i}$") for i in (3, -1, 1000)]
FLAT = "flat tensor of packed bytes"
LONG = {"input": z(1, 64).long(), "weight_gate": b(4 * 68), "weight_up": b(4 * 68), "qtype": 19}
REFUSED["mlp_forward_xpu"] = [
    ({"batch_size": 2}, "batch_size == 1"),
    *FUSED_TYPES,
    ({"output_size": 3}, "output_size must be even"),
    ({"output_size": 0}, "sizes must be positive"),
    ({"state_size": 8}, "^8 must be a multiple of 16"),
    ({"state_size": 48}, "multiple of 64"),
    ({"state_size": 1 << 20, "output_size": 1 << 11}, "must be below 2147483648"),
    ({"state_size": 1 << 40, "output_size": 1 << 40}, "must be below 2147483648"),
    ({"weight_gate": b(135)}, "weight_gate must hold 4 rows of 64 elements, 136 bytes"),
    ({"weight_up": b(0)}, "weight_up must hold"),
    ({"weight_up": b(4, 34)}, FLAT),
    ({"weight_gate": z(200)}, FLAT),
    ({"input": z(1, 128)}, "input must have 64 elements, but has 128"),
    ({"input": z(1, 64).int()}, "\"mlp_forward_q4_0_xpu_t\" not implemented for 'Int'"),
    (LONG, "\"mlp_forward_fp8_e5m2_xpu_t\" not implemented for 'Long'"),
]
QKV_LONG = {"input": z(1, 64).long(), "qtype": 19}
FAR_ROWS = {"key_cache": z(2).as_strided((1, 1, 1, 2), (2, 2, 1 << 62, 1)), "kv_length": 4}
SHARED_HEADS = {"weight_v": b(4 * 34), "value_cache": z(1, 1, 4, 2).expand(1, 2, 4, 2)}
CACHE = r"key_cache must be \[1, 1, rows, 2\] with a last stride of 1"
REFUSED["forward_qkv"] = [
    ({"input": z(1, 64, device="cpu"), "weight_q": b(68)[::2]}, "^input must be a XPU tensor"),
    ({"input": z(64)}, "input must have 2 dimensions"),
    ({"input": z(2, 64)}, "batch_size == 1"),
    ({"input": z(1, 8)}, "^8 must be a multiple of 16"),
    ({"input": z(1, 48)}, BLOCKS),
    ({"input": z(1, 64).int()}, "\"qlinear_xpu_kernel_q4_0_2x16_qkv\" not implemented for 'Int'"),
    (QKV_LONG, "\"qlinear_xpu_kernel_fp8_e5m2_2x8_qkv\" not implemented for 'Long'"),
    *FUSED_TYPES,
    ({"head_dim": 3}, "head_dim must be positive and even, but got 3"),
    ({"head_dim": 0}, "head_dim must be positive"),
    ({"kv_length": -1}, "kv_length must not be negative"),
    ({"kv_length": 1 << 40}, "below 2147483648"),
    ({"kv_length": 4}, "key_cache must have storage for row 4, which ends after element 10 of it"),
    (FAR_ROWS, "key_cache must have storage for row 4"),
    ({"weight_q": z(136)}, FLAT),
    ({"weight_q": b(0)}, "sizes must be positive"),
    ({"weight_k": b(3 * 34)}, "weight_k must hold whole heads of 2 rows, but .* are 3 rows"),
    ({"weight_v": b(2 * 34 + 5)}, "weight_v must hold whole heads .* 64 elements and 5 bytes"),
    ({"weight_k": b(4 * 34)}, r"key_cache must be \[1, 2, rows, 2\]"),
    ({"position_ids": z(0).long()}, "position_ids must hold the token's position as int64"),
    ({"position_ids": z(1).int()}, "position_ids must hold .* 1 elements of Int"),
    ({"key_cache": z(1, 1, 4, 2).half()}, "key_cache must have input's type, Float, but has Half"),
    ({"key_cache": z(2, 1, 4, 2)}, CACHE),
    ({"key_cache": z(1, 4, 2)}, CACHE),
    ({"key_cache": z(1, 1, 2, 4).transpose(2, 3)}, CACHE),
    ({"value_cache": z(1, 1, 3, 2)}, "value_cache must have storage for row 3"),
    (SHARED_HEADS, "its heads must not overlap"),
]
REFUSED["fused_rms_norm"] = [
    ({"input": z(3, 64).int()}, "\"LayerNormKernelImpl\" not implemented for 'Int'"),
    ({"weight": z(64).half()}, "expected scalar type Float but found Half"),
    ({"bias": z(64).double()}, "expected scalar type Float but found Double"),
    ({"weight": z(63)}, "weight must have 64 elements, but has 63"),
    ({"bias": z(65)}, "bias must have 64 elements, but has 65"),
    ({"normalized_shape": (1,) * 3}, "normalized_shape may have 2 sizes, .* but has 3"),
]
REFUSED["fused_layer_norm"] = REFUSED["fused_rms_norm"]
BATCHES = "^Input tensors dimensions do not match for batch multiplication"
REFUSED["bmm"] = [
    ({"A": z(3, 4)}, "^Input tensors must have 3 dimensions"),
    ({"A": z(1, 2, 3, 4)}, "^Input tensors must have 3 dimensions"),
    ({"B": z(1, 4, 5)}, BATCHES),
    ({"B": z(2, 3, 5)}, BATCHES),
    ({"A": z(2, 3, 4).half()}, "expected scalar type Float but found Half"),
    ({"C": z(2, 3, 5).double()}, "expected scalar type Float but found Double"),
    ({"C": z(2, 3, 4)}, r"C must have at least 2 \* 3 \* 5 elements, but has 24"),
]
RANK = "^The dimensions of all tensor should be 4"
ODD = "^The problem size should be divisible by 2"
X_OUT = r"_out must have the sizes of ., \[1, 2, 2, 8\], but has \[1, 2, 2, 6\]"
FLAT_IDS = {"position_ids": z(2).long()}
MANY_IDS = {"position_ids": z(1, 3).long()}
REFUSED["apply_rotary_embedding_half_q_or_k"] = [
    ({"x": z(3, 2, 8)}, RANK),
    (FLAT_IDS, "^The dimensions of position_ids should be 2"),
    (MANY_IDS, r"position_ids must be \[1, 2\] or \[1, 2\] for x"),
    ({"x": z(1, 2, 2, 7), "x_out": z(1, 2, 2, 7)}, ODD),
    ({"x_out": z(1, 2, 2, 6)}, "x" + X_OUT),
]
REFUSED["apply_rotary_embedding_half_q_and_k"] = [
    ({"q": z(3, 2, 8)}, RANK),
    ({"k_out": z(8)}, RANK),
    (FLAT_IDS, "^The dimensions of position_ids should be 2"),
    (MANY_IDS, r"position_ids must be \[1, 2\] or \[1, 2\] for q"),
    ({"q": z(1, 2, 2, 7), "q_out": z(1, 2, 2, 7)}, ODD),
    ({"k": z(1, 1, 2, 7), "k_out": z(1, 1, 2, 7)}, ODD),
    ({"k": z(1, 1, 2, 6), "k_out": z(1, 1, 2, 6)}, "one head size, but have 8 and 6"),
    ({"q_out": z(1, 2, 2, 6)}, "q" + X_OUT),
    ({"q": z(1, 2, 2, 8).int()}, "\"apply_rotary_embedding\" not implemented for 'Int'"),
    ({"position_ids": z(1, 2).int()}, "position_ids must be of Long, but is of Int"),
    ({"k_out": z(1, 1, 2, 8).half()}, "k_out must be of Float, as q is, but is of Half"),
    ({"q_out": z(1, 2, 1, 8).expand(1, 2, 2, 8)}, "more than one element of the written-to tensor"),
]
TABLE_SIZE = "^The problem size of all tensor should be equal"
REFUSED["apply_rotary_embedding_half_q_and_k_cache_freq"] = [
    ({"sin": z(2, 8)}, "^The dimensions of all tensor should be equal"),
    ({"cos": z(1, 1, 2, 4)}, TABLE_SIZE),
    ({"k_out": z(1, 1, 2, 4)}, TABLE_SIZE),
    (lambda x: x[..., :7], ODD),
    ({"sin": z(1, 1, 3, 8)}, r"sin must broadcast to the sizes of q, \[1, 2, 2, 8\], but has"),
    ({"cos": z(1, 2, 2, 8)}, r"cos must broadcast to the sizes of k, \[1, 1, 2, 8\], but has"),
]
HEADS = r"num_heads % num_kv_heads == 0"
APART = "rows of key must lie 128 bytes apart, but key.stride\\(2\\) is "
REFUSED["query_key_fp8_matmul"] = [
    ({"query": z(2, 2, 1, 128)}, r"query.size\(0\) == key.size\(0\).*2 and 1"),
    ({"query": z(1, 2, 1, 64)}, r"query.size\(3\) == key.size\(3\).*64 and 128"),
    ({"query": z(1, 4, 1, 128), "key": b(1, 3, 33, 128)}, HEADS + ".*4 and num_kv_heads 3"),
    ({"key": b(1, 0, 33, 128)}, HEADS),
    ({"query": z(1, 2, 2, 128)}, "input_size == 1.*got 2"),
    ({"query": z(1, 2, 1, 64), "key": b(1, 1, 33, 64)}, "head_dim == 128.*got 64"),
    ({"query": z(1, 2, 1, 64).double(), "key": b(1, 1, 33, 64)}, "head_dim == 128"),
    ({"query": z(2, 4, 2, 128), "key": b(1, 3, 5, 128)}, r"query.size\(0\) == key.size\(0\)"),
    ({"query": z(2, 1, 128)}, "query must have 4 dimensions, but has 3"),
    ({"key": z(1, 1, 33, 128)}, "key must hold cache bytes .torch.uint8., but holds Float"),
    ({"query": z(1, 2, 1, 256)[..., ::2]}, "last dimension of query must have stride 1"),
    ({"key": b(1, 1, 33, 256)[..., 128:]}, APART + "256$"),
    ({"key": b(1, 1, 66, 128)[:, :, ::2]}, APART + "256$"),
    ({"key": b(1, 1, 1, 128).expand(1, 1, 9, 128)}, APART + "0$"),
]
REFUSED["attn_value_fp8_matmul"] = [
    ({"attn": z(2, 2, 1, 5)}, r"attn.size\(0\) == value.size\(0\)"),
    ({"value": b(1, 1, 12, 6)}, r"attn.size\(3\) == value.size\(3\).*5 and 6"),
    ({"value": b(1, 3, 12, 5)}, HEADS),
    ({"attn": z(1, 2, 2, 5)}, "input_size == 1"),
    ({"value": b(1, 1, 6, 5)}, "head_dim % RS == 0.*got 6"),
]
HALVES = {"time_decay": z(32).half(), "time_first": z(32).half()}
REFUSED["rwkv_linear_attention_v4"] = [
    ({"time_decay": z(1, 32)}, r"time_decay.dim\(\) == 1 && time_first.dim\(\) == 1"),
    ({"value": z(1, 32)}, r"key.dim\(\) == 3 && value.dim\(\) == 3"),
    ({"den_state": z(32)}, r"num_state.dim\(\) == 2 && den_state.dim\(\) == 2 && max_state.dim"),
    (lambda x: x[..., :16].clone(), "hidden_size % GS == 0 is needed, .* of 32, but got 16"),
    (HALVES, "^unsupported dtype$"),
    ({"value": z(1, 4, 32)}, r"value must have shape \[1, 3, 32\], but has \[1, 4, 32\]"),
    ({"max_state": z(1, 32).half()}, "max_state must have the element type of key, Float, but has"),
]
REFUSED["rwkv_linear_attention_v5"] = [
    ({"time_first": z(128)}, r"time_decay.dim\(\) == 2 && time_first.dim\(\) == 2"),
    ({"state": z(2, 64, 64)}, r"state.dim\(\) == 4"),
    ({"state": z(1, 2, 64, 64).transpose(2, 3)}, r"state.is_contiguous\(\)"),
    (lambda x: x[..., :32].clone(), "head_dim == 64 is needed, but got 32"),
    ({"receptance": z(1, 3, 2, 64).transpose(1, 2)}, "receptance must have the sizes and strides"),
    ({"time_decay": z(2, 64).half()}, "expected scalar type Float but found Half"),
]
REFUSED["rwkv_time_shift"] = [
    ({"mix": z(3, 64)}, r"hidden.dim\(\) == 3 && shifted.dim\(\) == 3 && mix.dim\(\) == 3"),
    ({"mix": z(3, 1, 32)}, r"hidden.size\(2\) == shifted.size\(2\)"),
    ({"shifted": z(1, 2, 128)[..., ::2]}, r"shifted.is_contiguous\(\)"),
    (lambda x: x[..., :32].clone(), "hidden_size % GS == 0 is needed, .* of 64, but got 32"),
    ({"mix": z(3, 1, 64).half()}, "^unsupported dtype$"),
    ({"shifted": z(1, 2, 64).half()}, "shifted must have the element type of hidden, Float"),
    (lambda x: x.double(), "^unsupported dtype$"),
    ({"shifted": z(1, 1, 64)}, r"rwkv_time_shift: shifted must have shape \[1, 2, 64\]"),
    ({"shifted": z(0, 2, 64)}, "rwkv_time_shift: shifted must have shape"),
    ({"mix": z(3, 0, 64)}, "rwkv_time_shift: mix must have shape"),
]
CONTIGUOUS = {
    "forward_new": ("input", "weights"),
    "forward_qkv": ("input", "weight_q", "weight_k", "weight_v"),
    "mlp_forward_xpu": ("input", "weight_gate", "weight_up"),
    "dequant": ("weight",),
    "dequantize_rows": ("input", "weight"),
    "bmm": ("A", "B", "C"),
}


def strided(x: torch.Tensor) -> torch.Tensor:
    """The same values, each followed by another."""
    return torch.stack([x, x], -1)[..., 0]


@pytest.mark.parametrize(
    "operator, changed, message",
    [(operator, *refusal) for operator, refusals in REFUSED.items() for refusal in refusals]
    + [(operator, name, f"{name} must be contiguous") for operator, names in CONTIGUOUS.items() for name in names],
)
def test_refuses_and_submits_nothing(operator, changed, message):
    call = getattr(tolvane, operator)
    names = re.findall(r"(\w+): ", inspect.getdoc(call).splitlines()[0])
    sample = sample_calls()[operator].arguments
    arguments = dict(zip(names, sample, strict=True))
    if isinstance(changed, str):
        changed = {changed: strided(arguments[changed])}
    elif callable(changed):
        tensors = {name: x for name, x in arguments.items() if isinstance(x, torch.Tensor)}
        changed = {name: changed(x) for name, x in tensors.items()}
    assert changed.keys() <= arguments.keys()
    count, allocated = kelvor_xpu.submission_count(), kelvor_xpu.memory_allocated()
    with pytest.raises(RuntimeError, match=message) as caught:
        call(*(arguments | changed).values())
    assert caught.type is RuntimeError and "frame #" not in str(caught.value)
    del caught
    assert kelvor_xpu.submission_count() == count and kelvor_xpu.memory_allocated() == allocated
    call(*sample)
    assert kelvor_xpu.submission_count() == count + 1


@pytest.mark.parametrize(
    "operator, tensors",
    [
        ("query_key_fp8_matmul", "((1, 1, 1, 128), torch.double), ((1, 1, 4, 128), torch.uint8)"),
        ("query_key_fp8_matmul", "((1, 2, 1, 128), torch.double), ((1, 1, 5, 128), torch.float)"),
        ("attn_value_fp8_matmul", "((1, 1, 1, 128), torch.int32), ((1, 1, 4, 128), torch.uint8)"),
        ("attn_value_fp8_matmul", "((1, 2, 1, 5), torch.double), ((1, 1, 6, 5), torch.uint8)"),
    ],
)
def test_other_types_of_attention_end_the_process(in_python, operator, tensors):
    """After the conditions that come first, and before those on the sizes and bytes of the cache."""
    done = in_python(
        f"import torch, tolvane\ntolvane.{operator}(*(torch.zeros(s, device='xpu').to(t) for s, t in ({tensors})))"
    )
    assert (done.returncode, done.stderr) == (2, "unsupported dtype\n")
