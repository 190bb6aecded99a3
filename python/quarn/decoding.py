"""One token through a decoder's layers, on the operators of tolvane: what Python does for it is made once."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Callable

from torch import Tensor, nn
from torch.nn import functional as F

from .kv_cache import AnyLayerCache, LayerCache
from .modules import QuantLinear

if TYPE_CHECKING:
    from .llama import Llama

Tables = tuple[Tensor, Tensor]
Step = Callable[[Tensor, Tensor, int, "Tables | None", AnyLayerCache], Tensor]
Rows = Callable[[Tensor], Tensor]
FUSED = "q4_0"
"""What the fused operators compute with and a prompt can be multiplied by, too."""


def decoding_steps(model: Llama) -> list[Step]:
    """A function for each layer: (x [1, width], the position as a tensor and as a number, its tables, the layer's cache)
    to the layer's result. It takes the token into the cache."""
    return [_layer_step(layer, model) for layer in model.model.layers]


def _layer_step(layer: Any, model: Llama) -> Step:
    first = _norm(layer.input_layernorm)
    second = _norm(layer.post_attention_layernorm)
    attention = _attention(layer.self_attn, model.config.plain_rotary)
    output, mlp = _linear(layer.self_attn.o_proj), _mlp(layer.mlp)

    def step(x: Tensor, at: Tensor, position: int, tables: Tables | None, cache: AnyLayerCache) -> Tensor:
        x = output(attention(first(x), at, position, tables, cache)).add_(x)
        return mlp(second(x)).add_(x)

    return step


def _norm(norm: Any) -> Rows:
    import tolvane

    operator, shape, weight = tolvane.fused_rms_norm, tuple(norm.weight.shape), norm.weight
    epsilon = norm.epsilon
    return lambda x: operator(x, shape, weight, None, epsilon)


def _linear(layer: nn.Module) -> Rows:
    """The layer for one row that is contiguous."""
    if not isinstance(layer, QuantLinear) or layer.bias is not None:
        return layer
    import tolvane

    operator, packed, qtype = tolvane.forward_new, layer.packed, layer.format.qtype
    return lambda x: operator(x, packed, qtype, 0)


def _are_fused(*layers: Any) -> bool:
    return all(isinstance(layer, QuantLinear) and layer.format.name == FUSED and layer.bias is None for layer in layers)


def _mlp(mlp: Any) -> Rows:
    gate, up, down = mlp.gate_proj, mlp.up_proj, _linear(mlp.down_proj)
    if not _are_fused(gate, up) or gate.output_size % 2:
        gate, up = _linear(gate), _linear(up)
        return lambda x: down(F.silu(gate(x), inplace=True).mul_(up(x)))
    import tolvane

    operator, weights = tolvane.mlp_forward_xpu, (gate.packed, up.packed)
    sizes = (1, gate.state_size, gate.output_size, gate.format.qtype)
    return lambda x: down(operator(x, *weights, *sizes))


def _attention(
    attention: Any, plain_rotary: bool
) -> Callable[[Tensor, Tensor, int, Tables | None, AnyLayerCache], Tensor]:
    heads, kv_heads, head_dim = attention.heads, attention.kv_heads, attention.head_dim
    width = heads * head_dim
    layers = attention.q_proj, attention.k_proj, attention.v_proj

    import tolvane

    if _are_fused(*layers) and plain_rotary:
        operator, weights = tolvane.forward_qkv, tuple(layer.packed for layer in layers)
        qtype = layers[0].format.qtype

        def fused(x: Tensor, at: Tensor, position: int, tables: Tables | None, cache: AnyLayerCache) -> Tensor:
            if isinstance(cache, LayerCache):
                query, cache.keys, cache.values = operator(
                    x, *weights, at, cache.keys, cache.values, qtype, position, head_dim
                )
            else:
                query = operator(x, *weights, at, *cache.begin(1), qtype, 0, head_dim)[0]
            return cache.attend(query).view(1, width)

        return fused

    turn, turn_plain = (
        tolvane.apply_rotary_embedding_half_q_and_k_cache_freq,
        tolvane.apply_rotary_embedding_half_q_and_k,
    )
    q_proj, k_proj, v_proj = (_linear(layer) for layer in layers)

    def apart(x: Tensor, at: Tensor, position: int, tables: Tables | None, cache: AnyLayerCache) -> Tensor:
        query = q_proj(x).view(1, heads, 1, head_dim)
        key, value = cache.begin(1)
        new_key = k_proj(x).view(1, kv_heads, 1, head_dim)
        if tables is None:
            turn_plain(query, new_key, at[None], query, key)
        else:
            turn(query, new_key, *tables, query, key)
        value.copy_(v_proj(x).view(1, kv_heads, 1, head_dim))
        return cache.attend(query).view(1, width)

    return apart
