"""The operators as PyTorch's dispatcher knows them: schemas, shapes without data, tracing, subclasses."""

from __future__ import annotations

import copy
from typing import Any

import pytest
import torch
from sample_calls import Call, sample_calls
from torch.utils._python_dispatch import TorchDispatchMode

import quarn

tolvane = pytest.importorskip("tolvane")
NAMES = list(sample_calls())
CHECKS = ["test_schema", "test_autograd_registration"]
CHECKS += ["test_faketensor", "test_aot_dispatch_dynamic"]


def copied(call: Call) -> list[Any]:
    """With the whole storage of views."""
    return [copy.deepcopy(x) for x in call.arguments]


@pytest.mark.parametrize("name", NAMES)
def test_operator_does_what_its_schema_says(name: str) -> None:
    """Mutations, aliases, shapes of fake tensors and functionalization, by PyTorch's own checker; and the same values
    by the operator, by the function, and by the function under a mode that watches operators."""
    call = sample_calls()[name]
    operator = getattr(torch.ops.tolvane, name)
    torch.library.opcheck(operator.default, tuple(call.arguments), test_utils=CHECKS)

    class Watch(TorchDispatchMode):
        seen: list[Any] = []

        def __torch_dispatch__(self, function, types, args=(), kwargs=None):  # type: ignore[no-untyped-def]
            self.seen.append(function)
            return function(*args, **(kwargs or {}))

    plain, registered, watched = copied(call), copied(call), copied(call)
    expected = getattr(tolvane, name)(*plain)
    result = operator(*registered)
    with Watch() as watch:
        seen = getattr(tolvane, name)(*watched)
    assert [seen for seen in watch.seen if seen.namespace == "tolvane"] == [operator.default]
    if name == "bmm":
        assert result is None and seen is watched[2]
    else:
        same = expected[0] if name == "forward_qkv" else expected
        torch.testing.assert_close(result, same, rtol=0, atol=0)
    torch.testing.assert_close(seen, expected, rtol=0, atol=0)
    for place in call.written:
        assert torch.equal(plain[place], registered[place])
        assert torch.equal(plain[place], watched[place])


class Model(torch.nn.Module):
    """Packed layers in a row, with and without bias, and an MLP; a norm of the module's own."""

    def __init__(self) -> None:
        super().__init__()
        torch.manual_seed(2)
        names = sorted(name for name in quarn.FORMATS if name != "fp8_e5m2_linear")
        self.layers = torch.nn.ModuleList(
            quarn.QuantLinear.from_float(torch.nn.Linear(256, 256, bias=i % 2 == 0), name)
            for i, name in enumerate(names)
        )
        mlp = torch.nn.Module()
        mlp.gate, mlp.up = (torch.nn.Linear(256, 128, bias=False) for _ in range(2))
        mlp.down = torch.nn.Linear(128, 256)
        self.mlp = quarn.QuantMLP.from_float(mlp, "q4_0")
        self.weight = torch.nn.Parameter(torch.rand(256))

    def forward(self, x: torch.Tensor) -> torch.Tensor:
        for layer in self.layers:
            x = x + layer(tolvane.fused_rms_norm(x, (256,), self.weight, None, 1e-6))
        return x + self.mlp(x[:1])


@pytest.fixture(scope="module")
def model() -> Model:
    return Model().to("xpu").eval()


def test_export_of_packed_layers(model: Model) -> None:
    """One operator per layer in the graph, and the eager module's values, also with another number of rows."""
    x = torch.randn(3, 256, device="xpu")
    rows = torch.export.Dim("rows", min=2, max=64)
    with torch.no_grad():
        exported = torch.export.export(model, (x,), dynamic_shapes=({0: rows},))
    targets = [node.target for node in exported.graph.nodes]
    assert targets.count(torch.ops.tolvane.forward_new.default) == len(model.layers)
    assert targets.count(torch.ops.tolvane.fused_rms_norm.default) == len(model.layers)
    assert torch.ops.tolvane.mlp_forward_xpu.default in targets
    for count in (3, 17):
        x = torch.randn(count, 256, device="xpu")
        with torch.no_grad():
            assert torch.equal(exported.module()(x), model(x))


@pytest.mark.parametrize("backend", ["eager", "aot_eager"])
def test_compiled_packed_layers(model: Model, backend: str) -> None:
    """In one graph, with the eager values and gradients."""
    torch._dynamo.reset()
    whole = torch.compile(model, backend=backend, fullgraph=True)
    with torch.no_grad():
        x = torch.randn(3, 256, device="xpu")
        assert torch.equal(whole(x), model(x))
    layer = model.layers[0]
    traced = torch.compile(layer, backend=backend, fullgraph=True)
    gradients = []
    for module in (layer, traced):
        x = torch.linspace(-1, 1, 512, device="xpu").view(2, 256).requires_grad_()
        module(x).sin().sum().backward()
        gradients.append(x.grad)
    assert gradients[0].abs().max() > 0
    torch.testing.assert_close(gradients[1], gradients[0], rtol=1e-6, atol=1e-7)


@pytest.mark.parametrize("backend", ["eager", "aot_eager"])
def test_compiled_functions_that_write(backend: str) -> None:
    """What an operator writes is written by the compiled function too, and bmm returns what it wrote."""
    torch._dynamo.reset()
    rope = sample_calls()["apply_rotary_embedding_half_q_and_k"]
    product, qkv = sample_calls()["bmm"], sample_calls()["forward_qkv"]
    # Copies of the caches, as aot_eager makes them, end with their views.
    projected = tolvane.forward_qkv if backend == "eager" else torch.ops.tolvane.forward_qkv

    def all_three(q: Any, k: Any, ids: Any, q_out: Any, k_out: Any, a: Any, b: Any, c: Any, *x: Any):  # type: ignore[no-untyped-def]
        tolvane.apply_rotary_embedding_half_q_and_k(q, k, ids, q_out, k_out)
        return q_out + k_out.sum(), *projected(*x), tolvane.bmm(a, b, c)

    results = []
    for function in (all_three, torch.compile(all_three, backend=backend, fullgraph=True)):
        arguments = [*copied(rope), *copied(product), *copied(qkv)]
        results.append([*function(*arguments), *arguments])
    torch.testing.assert_close(results[1], results[0], rtol=0, atol=0)
    assert all(x.abs().max() > 0 for x in results[0][:3])


def test_subclasses_and_vmap() -> None:
    """A subclass sees the operator; vmap gives the values of a loop."""

    class Logged(torch.Tensor):
        seen: list[Any] = []

        @classmethod
        def __torch_function__(cls, function, types, args=(), kwargs=None):  # type: ignore[no-untyped-def]
            cls.seen.append(function)
            return super().__torch_function__(function, types, args, kwargs or {})

    arguments = sample_calls()["fused_rms_norm"].arguments
    expected = tolvane.fused_rms_norm(*arguments)
    logged = tolvane.fused_rms_norm(arguments[0].as_subclass(Logged), *arguments[1:])
    assert torch.ops.tolvane.fused_rms_norm in Logged.seen
    assert torch.equal(logged.as_subclass(torch.Tensor), expected)

    x = torch.rand(4, 2, 64, device="xpu")
    mapped = torch.vmap(lambda part: tolvane.fused_rms_norm(part, *arguments[1:]))(x)
    looped = [tolvane.fused_rms_norm(part, *arguments[1:]) for part in x]
    assert torch.equal(mapped, torch.stack(looped))
