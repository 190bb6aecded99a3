"""Whole models on the xpu device: the same numbers as on the CPU, in training too."""

from __future__ import annotations

import contextlib
import copy
import threading
from typing import Callable

import pytest
import torch
import torch.utils.checkpoint
from torch import nn

import kelvor_xpu


def output(model: nn.Module, x: torch.Tensor) -> torch.Tensor:
    """Of recurrent layers without their states."""
    y = model(x)
    return y[0] if isinstance(y, tuple) else y


def convolutions() -> nn.Module:
    down = [nn.Conv1d(4, 6, 3, padding=1), nn.BatchNorm1d(6), nn.SiLU()]
    up = [nn.ConvTranspose1d(6, 4, 3, padding=1), nn.GroupNorm(2, 4), nn.MaxPool1d(2)]
    return nn.Sequential(*down, *up)


def perceptron() -> nn.Module:
    return nn.Sequential(nn.Linear(8, 16), nn.GELU(), nn.LayerNorm(16), nn.Linear(16, 8))


MODELS: dict[str, Callable[[], nn.Module]] = {
    "transformer": lambda: nn.TransformerEncoderLayer(8, 2, 16, dropout=0.0),
    "lstm": lambda: nn.LSTM(8, 8, num_layers=2, bidirectional=True),
    "gru": lambda: nn.GRU(8, 8, num_layers=2, bidirectional=True),
    "convolutions": convolutions,
    "perceptron": perceptron,
}
Optimiser = type[torch.optim.Optimizer]
OPTIMISERS: list[Optimiser] = [torch.optim.SGD, torch.optim.Adam, torch.optim.RMSprop]


def losses(model: nn.Module, optimiser: Optimiser, device: str, steps: int = 4) -> list[float]:
    model = copy.deepcopy(model).to(device)
    optimise = optimiser(model.parameters(), lr=0.01)
    torch.manual_seed(2)
    found = []
    for _ in range(steps):
        x = torch.randn(5, 4, 8).to(device)
        y = output(model, x)
        loss = nn.functional.mse_loss(y, torch.zeros_like(y))
        optimise.zero_grad()
        loss.backward()
        nn.utils.clip_grad_norm_(model.parameters(), 1.0)
        optimise.step()
        found.append(loss.item())
    return found


@pytest.mark.parametrize("optimiser", OPTIMISERS)
@pytest.mark.parametrize("make", MODELS.values(), ids=MODELS.keys())
def test_training_gives_the_cpus_losses(make: Callable[[], nn.Module], optimiser: Optimiser) -> None:
    torch.manual_seed(1)
    model = make()
    expected = losses(model, optimiser, "cpu")
    assert losses(model, optimiser, "xpu") == pytest.approx(expected, rel=1e-4)
    assert expected[0] != expected[-1]


@pytest.mark.parametrize("dtype", [torch.half, torch.bfloat16], ids=str)
@pytest.mark.parametrize("name", MODELS)
def test_reduced_models_stay_close_to_float(name: str, dtype: torch.dtype) -> None:
    torch.manual_seed(1)
    model = MODELS[name]().eval()
    reduced = copy.deepcopy(model).to("xpu", dtype)
    x = torch.randn(5, 4, 8)
    y = output(reduced, x.to("xpu", dtype))
    torch.testing.assert_close(y.float().cpu(), output(model, x), rtol=0.06, atol=0.06)
    y.float().square().mean().backward()
    for parameter in reduced.parameters():
        assert parameter.grad.dtype == dtype and parameter.grad.isfinite().all()


@pytest.mark.parametrize("kind", [nn.LSTM, nn.GRU, nn.RNN])
def test_recurrent_layers_give_the_cpus_states_and_gradients(kind: type[nn.RNNBase]) -> None:
    lengths = [5, 3]
    for options in ({"batch_first": True}, {"bidirectional": True}, {"num_layers": 2, "bias": False}):
        layer = kind(8, 6, **options)
        x = torch.randn(2, 5, 8)
        outputs = []
        for device in ("cpu", "xpu"):
            there = copy.deepcopy(layer).to(device)
            packed = nn.utils.rnn.pack_padded_sequence(x.to(device), lengths, batch_first=True)
            values = [there(x.to(device))[0], there(packed)[0].data]
            sum(value.square().sum() for value in values).backward()
            outputs.append([*values, *(parameter.grad for parameter in there.parameters())])
        for here, there in zip(*outputs, strict=True):
            torch.testing.assert_close(there.cpu(), here, rtol=1e-5, atol=1e-5)


@pytest.mark.parametrize("dtype", [torch.half, torch.bfloat16], ids=str)
def test_autocast_takes_the_types_that_it_takes_elsewhere(dtype: torch.dtype) -> None:
    layer, norm = nn.Linear(8, 8).to("xpu"), nn.LayerNorm(8).to("xpu")
    x = torch.randn(3, 8, device="xpu")
    with torch.autocast("xpu", dtype=dtype):
        assert torch.is_autocast_enabled("xpu") and torch.get_autocast_dtype("xpu") == dtype
        hidden = layer(x)
        assert hidden.dtype == dtype and norm(hidden).dtype == torch.float32
        assert torch.softmax(hidden, -1).dtype == torch.float32
        with torch.autocast("xpu", enabled=False):
            assert layer(x).dtype == torch.float32
    reduced = nn.functional.linear(x.to(dtype), layer.weight.to(dtype), layer.bias.to(dtype))
    assert torch.equal(hidden, reduced)


def test_gradient_scaling_skips_steps_that_overflow() -> None:
    layer = nn.Linear(4, 4).to("xpu")
    optimiser = torch.optim.SGD(layer.parameters(), lr=0.1)
    scaler = torch.amp.GradScaler("xpu", init_scale=8.0, growth_interval=1)
    for factor, scale, changes in ((1.0, 16.0, True), (float("inf"), 8.0, False)):
        before = layer.weight.detach().clone()
        optimiser.zero_grad()
        with torch.autocast("xpu", dtype=torch.half):
            loss = layer(torch.ones(3, 4, device="xpu")).float().square().mean() * factor
        scaler.scale(loss).backward()
        scaler.unscale_(optimiser)
        if changes:
            square = layer(torch.ones(3, 4, device="xpu")).square().mean()
            exact = torch.autograd.grad(square, layer.weight)[0]
            torch.testing.assert_close(layer.weight.grad, exact, rtol=2e-2, atol=2e-3)
        scaler.step(optimiser)
        scaler.update()
        assert scaler.get_scale() == scale and torch.equal(before, layer.weight) != changes


@pytest.mark.parametrize("reentrant", [False, True])
def test_checkpointing_repeats_the_same_random_numbers(reentrant: bool) -> None:
    model = nn.Sequential(nn.Linear(4, 4), nn.Dropout(0.5), nn.Tanh()).to("xpu")
    x = torch.randn(3, 4, device="xpu", requires_grad=True)

    def gradient(run: Callable[[torch.Tensor], torch.Tensor]) -> torch.Tensor:
        x.grad = None
        torch.manual_seed(1)
        run(x).square().sum().backward()
        return x.grad

    checkpoint = torch.utils.checkpoint.checkpoint
    found = gradient(lambda x: checkpoint(model, x, use_reentrant=reentrant))
    assert torch.equal(found, gradient(model))


@pytest.mark.parametrize("backend", ["eager", "aot_eager", "inductor"])
def test_compiled_models_give_what_they_give_otherwise(backend: str) -> None:
    torch._dynamo.reset()
    model = nn.Sequential(nn.Linear(4, 8), nn.GELU(), nn.Linear(8, 2)).to("xpu")
    compiled = torch.compile(model, backend=backend, fullgraph=True)
    x = torch.randn(3, 4, device="xpu")
    # The default backend would write code for a GPU.
    warns = pytest.warns(UserWarning, match='runs as backend="eager"')
    with warns if backend == "inductor" else contextlib.nullcontext():
        y = compiled(x)
    assert torch.equal(y, model(x))
    gradients, expected = (torch.autograd.grad(out.sum(), list(model.parameters())) for out in (y, model(x)))
    torch.testing.assert_close(gradients, expected)


def test_autograd_beyond_the_first_derivative() -> None:
    def hessian(device: str) -> torch.Tensor:
        weights = torch.linspace(-1, 1, 6, device=device).view(2, 3)
        return torch.autograd.functional.hessian(lambda w: torch.sigmoid(w @ w.t()).sum(), weights)

    torch.testing.assert_close(hessian("xpu").cpu(), hessian("cpu"))


def test_several_threads_train_at_once() -> None:
    model = nn.Linear(8, 8)
    expected = losses(model, torch.optim.Adam, "xpu", 20)
    failures: list[str] = []

    def work() -> None:
        # Random numbers are one sequence for all threads, so that each works on inputs of its own.
        here = copy.deepcopy(model).to("xpu")
        x = torch.linspace(-1, 1, 16, device="xpu").view(2, 8)
        results = {float(here(x).tanh().sum().item()) for _ in range(300)}
        here(x).sum().backward()
        column_sums = x.sum(0).cpu().expand(8, 8)
        if len(results) != 1 or not torch.allclose(here.weight.grad.cpu(), column_sums, atol=1e-6):
            failures.append(f"{results}")

    threads = [threading.Thread(target=work) for _ in range(6)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not failures
    assert losses(model, torch.optim.Adam, "xpu", 20) == expected


def test_nothing_leaks() -> None:
    def step() -> None:
        x = torch.randn(4, 8, device="xpu", requires_grad=True)
        model(x).square().mean().backward()  # noqa: F821
        out = torch.empty(0, device="xpu")
        torch.index_select(x.detach(), 0, torch.tensor([1, 2], device="xpu"), out=out)

    before = kelvor_xpu.memory_allocated()
    for _ in range(2):
        model = MODELS["perceptron"]().to("xpu")
        step()
        level = kelvor_xpu.memory_allocated()
        for _ in range(500):
            step()
        assert kelvor_xpu.memory_allocated() == level
        del model
    assert kelvor_xpu.memory_allocated() == before
