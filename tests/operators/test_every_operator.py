"""What holds for all operators, on one good call of each: what an observer sees, and which tensors they take."""

from __future__ import annotations

import ast
import inspect
from pathlib import Path

import pytest
import kelvor_xpu
import tolvane
import torch
from torch._subclasses.fake_tensor import FakeTensorMode

from sample_calls import Call, sample_calls

HERE = Path(__file__).resolve().parent
CALLS = sample_calls()
STUB = ast.parse((HERE.parents[1] / "kernels" / "tolvane.pyi").read_text())
FUNCTIONS = {node.name: node for node in STUB.body if isinstance(node, ast.FunctionDef)}
# The docstrings, in the order of registration.
OPERATORS = {
    "forward_new": "Linear forward (XPU) new format",
    "forward_qkv": "Linear forward (XPU) qkv format",
    "dequant": "Dequantize weight (XPU)",
    "apply_rotary_embedding_half_q_and_k": "Apply rotary embedding to qk (XPU)",
    "apply_rotary_embedding_half_q_or_k": "Apply rotary embedding to q/k (XPU)",
    "apply_rotary_embedding_half_q_and_k_cache_freq": "Apply rotary embedding to qk (XPU) using cached sin/cos",
    "bmm": "SYCL-based batch matrix multiplication",
    "fused_rms_norm": "fused rms norm",
    "fused_layer_norm": "fused layer norm",
    "mlp_forward_xpu": "fused mlp",
    "query_key_fp8_matmul": "query key matmul",
    "attn_value_fp8_matmul": "attn value matmul",
    "rwkv_linear_attention_v4": "rwkv v4 attention",
    "rwkv_linear_attention_v5": "rwkv v5 attention",
    "rwkv_time_shift": "rwkv time shift",
    "dequantize_rows": "Dequantize rows of weight",
}
each_operator = pytest.mark.parametrize("name", CALLS)


def run(name: str, arguments: list) -> torch.Tensor | None:
    """Of several results the first; the others are views of what is written."""
    result = getattr(tolvane, name.split()[0])(*arguments)
    return result[0] if isinstance(result, list) else result


def outcomes(name: str, call: Call, arguments: list) -> list[torch.Tensor]:
    """The result and what stands in the written tensors afterwards."""
    result = run(name, arguments)
    written = [arguments[place].clone() for place in call.written]
    return written if result is None else [result, *written]


def test_publishes_the_operators_and_nothing_else():
    assert [name for name in dir(tolvane) if not name.startswith("__")] == sorted(OPERATORS)
    assert tolvane.__doc__ is None and list(FUNCTIONS) == list(OPERATORS) == list(
        dict.fromkeys(name.split()[0] for name in CALLS)
    )


@pytest.mark.parametrize("name", OPERATORS)
def test_signatures_agree_in_stub_help_and_document(name):
    function = FUNCTIONS[name]
    assert ast.get_docstring(function) and not function.args.args and not function.args.kwonlyargs
    names = [argument.arg for argument in function.args.posonlyargs]
    types = [ast.unparse(argument.annotation) for argument in function.args.posonlyargs]
    returned = ast.unparse(function.returns)
    listed = ", ".join(f"{name}: {type_}" for name, type_ in zip(names, types))
    shown = inspect.getdoc(getattr(tolvane, name))
    signature = shown.splitlines()[0].replace("torch.Tensor", "Tensor")
    assert signature == f"{name}({listed}, /) -> {returned}"
    assert shown.endswith(OPERATORS[name])
    document = (HERE.parents[1] / "docs" / "operators.md").read_text()
    assert f"    {name}({', '.join(names)}, /) -> {returned}\n" in document
    with pytest.raises(TypeError, match="incompatible function arguments"):
        getattr(tolvane, name)(input=1)


@each_operator
def test_one_submission_one_scope_and_nothing_left_but_the_result(name):
    call = sample_calls()[name]
    before = [torch.clone(call.arguments[place]) for place in call.read()]
    allocated = kelvor_xpu.memory_allocated()
    kelvor_xpu.clear_submissions()
    waits = kelvor_xpu.wait_count()
    with torch.autograd.profiler.profile(record_shapes=True) as profile:
        result = run(name, call.arguments)
    (record,) = kelvor_xpu.submissions()
    assert kelvor_xpu.wait_count() == waits + call.waits
    assert record.label == ("" if name == "bmm" else "devq_kernel") and record.waited == call.waits
    for seen, expected in zip((record.global_size, record.local_size), call.launch):
        assert expected is None or tuple(seen) == expected + (1,) * (len(seen) - len(expected))
    scopes = [(e.name, e.input_shapes) for e in profile.function_events if e.name == call.scope]
    assert scopes == ([(call.scope, [list(call.arguments[0].shape)])] if call.scope else [])
    written = [call.arguments[place] for place in call.written]
    is_new = result is not None and not any(result is x for x in written)
    assert kelvor_xpu.memory_allocated() - allocated == (result.nbytes if is_new else 0)
    assert all(torch.equal(x, call.arguments[place]) for x, place in zip(before, call.read()))


@each_operator
def test_tensors_elsewhere_are_refused_by_name(name):
    call = sample_calls()[name]
    names = [argument.arg for argument in FUNCTIONS[name.split()[0]].args.posonlyargs]
    if "norm" in name:
        names[0] = "the tensor to normalize"
    before, allocated = kelvor_xpu.submission_count(), kelvor_xpu.memory_allocated()
    for place in call.read() + list(call.written):
        with pytest.raises(RuntimeError, match=rf"{names[place]} must be (a XPU tensor|on xpu:0)"):
            run(name, call.with_argument(place, call.arguments[place].cpu()))
    assert kelvor_xpu.submission_count() == before and kelvor_xpu.memory_allocated() == allocated


class Wrapper(torch.Tensor):
    """A tensor in name only."""

    @staticmethod
    def __new__(cls, x):
        like = {"strides": x.stride(), "dtype": x.dtype, "device": x.device}
        return torch.Tensor._make_wrapper_subclass(cls, x.size(), **like)

    @classmethod
    def __torch_dispatch__(cls, function, types, arguments=(), options=None):
        raise AssertionError("an operator of PyTorch was called")


def fake(x: torch.Tensor) -> torch.Tensor:
    with FakeTensorMode():
        return torch.empty_strided(x.shape, x.stride(), dtype=x.dtype, device=x.device)


def zeros(x: torch.Tensor) -> torch.Tensor:
    return torch._efficientzerotensor(x.shape, dtype=x.dtype, device=x.device)


@each_operator
def test_tensors_without_memory_are_refused(name):
    call = sample_calls()[name]
    for place in call.read() + list(call.written):
        for make in (Wrapper, fake, zeros):
            arguments = call.with_argument(place, make(call.arguments[place]))
            # As if the subclass had passed itself on: what it is shown else is an operator of the dispatcher.
            with (
                torch._C._DisableTorchDispatch(),
                pytest.raises(RuntimeError, match="has no memory|out of bounds for storage"),
            ):
                run(name, arguments)


@each_operator
def test_lazy_signs(name):
    call = sample_calls()[name]
    expected = outcomes(name, call, call.arguments)
    for place in call.read():
        call = sample_calls()[name]
        view = torch._neg_view(-call.arguments[place])
        assert view.is_neg()
        for actual, x in zip(outcomes(name, call, call.with_argument(place, view)), expected):
            assert torch.equal(actual, x), place
    for place in call.written:
        before = kelvor_xpu.submission_count()
        with pytest.raises(RuntimeError, match="must not be a view with a lazy sign"):
            run(name, call.with_argument(place, torch._neg_view(call.arguments[place])))
        assert kelvor_xpu.submission_count() == before


@each_operator
def test_tracing_raises(name):
    call = sample_calls()[name]

    def traced(x: torch.Tensor) -> torch.Tensor:
        run(name, call.with_argument(0, x))
        return x + 1

    with pytest.raises(RuntimeError, match=f"^{name.split()[0]} cannot be traced"):
        torch.jit.trace(traced, call.arguments[0], check_trace=False)


@each_operator
def test_gradients_and_versions(name):
    """The linear layer's result requires a gradient; written tensors are marked as changed, and no others."""
    call = sample_calls()[name]
    versions = [call.arguments[place]._version for place in call.read()]
    for place in call.written:
        leaf = torch.ones_like(call.arguments[place], requires_grad=True)
        product = leaf * call.arguments[place]
        run(name, call.arguments)
        with pytest.raises(RuntimeError, match="modified by an inplace operation"):
            product.sum().backward()
    assert versions == [call.arguments[place]._version for place in call.read()]

    arguments = list(call.arguments)
    for place in call.read():
        if arguments[place].is_floating_point():
            arguments[place] = arguments[place].clone().requires_grad_()
    result = run(name, arguments)
    assert result is None or result.requires_grad == name.startswith("forward_new")
    assert not any(arguments[place].requires_grad for place in call.written)
    with torch.inference_mode():
        made = sample_calls()[name]
    run(name, made.arguments)  # these have no version, and are written as before
