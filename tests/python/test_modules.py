"""QuantMLP against the dense arithmetic, on the CPU and through the operator."""

from __future__ import annotations

import io

import numpy as np
import pytest
import torch
from torch import nn

import quarn
from model import MLP
from reference import decode

NAMES = sorted(quarn.FORMATS)


def small_mlp() -> MLP:
    torch.manual_seed(0)
    return MLP(128, 192)


def expected_output(module: quarn.QuantMLP, x: torch.Tensor) -> np.ndarray:
    """down(silu(gate x) * up x) in double, from an independent reading of the packed bytes."""
    gate, up = (
        decode(packed.cpu().numpy().tobytes(), module.format.name, module.state_size)
        for packed in (module.gate, module.up)
    )
    rows = x.double().numpy().reshape(-1, module.state_size)
    g, u = rows @ gate.T, rows @ up.T
    down = module.down.weight.detach().cpu().double().numpy()
    return (g / (1 + np.exp(-g)) * u @ down.T).reshape(x.shape)


@pytest.mark.parametrize("name", NAMES)
def test_cpu_forward(name: str) -> None:
    module = quarn.QuantMLP.from_float(small_mlp(), name)
    x = torch.randn(2, 3, 128)
    np.testing.assert_allclose(module(x).detach(), expected_output(module, x), atol=1e-5)


@pytest.mark.parametrize("dtype", [torch.float32, torch.float64, torch.float16, torch.bfloat16])
@pytest.mark.parametrize("name", NAMES)
def test_xpu_forward(name: str, dtype: torch.dtype) -> None:
    pytest.importorskip("tolvane")
    module = quarn.QuantMLP.from_float(small_mlp(), name).to(dtype)
    x = torch.randn(2, 3, 128).to(dtype)
    expected = expected_output(module, x)
    actual = module.to("xpu")(x.to("xpu"))
    assert actual.device.type == "xpu" and actual.dtype == dtype and actual.shape == x.shape
    tolerance = {torch.float16: 4e-3, torch.bfloat16: 3e-2}.get(dtype, 1e-5)
    error = np.abs(actual.detach().cpu().double().numpy() - expected).max()
    assert error <= tolerance * np.abs(expected).max()


def test_state_dict_survives_saving_and_types() -> None:
    """Saved and loaded into a module of other weights; casts leave the packed bytes alone."""
    module = quarn.QuantMLP.from_float(small_mlp(), "q4_0")
    other = quarn.QuantMLP.from_float(MLP(128, 192), "q4_0")
    file = io.BytesIO()
    torch.save(module.state_dict(), file)
    file.seek(0)
    other.load_state_dict(torch.load(file))
    x = torch.randn(1, 128)
    assert torch.equal(other(x), module(x))
    packed = module.gate.clone()
    assert module.half().gate.dtype == torch.uint8 and torch.equal(module.gate, packed)
    assert "state_size=128, hidden_size=192, format=q4_0" in repr(module)


def test_refused_modules() -> None:
    mlp = small_mlp()
    mlp.gate.bias = nn.Parameter(torch.zeros(192))
    with pytest.raises(ValueError, match="gate must have no bias"):
        quarn.QuantMLP.from_float(mlp, "q4_0")
    with pytest.raises(TypeError, match="'gate'"):
        quarn.QuantMLP.from_float(nn.Linear(64, 64), "q4_0")
    with pytest.raises(ValueError, match="even, but is 191"):
        quarn.QuantMLP.from_float(MLP(128, 191), "q4_0")
    good = quarn.pack(torch.ones(192, 128), "q4_0")
    with pytest.raises(ValueError, match=r"up must be 13056 bytes, 192 rows of 128 in q4_0"):
        quarn.QuantMLP(good, good[:-1], small_mlp().down, "q4_0")
