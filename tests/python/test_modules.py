"""QuantMLP and QuantLinear against the dense arithmetic, on the CPU and through the operator."""

from __future__ import annotations

import io

import numpy as np
import pytest
import torch
from torch import nn

import quarn
from model import MLP
from reference import decode

NAMES = sorted(quarn.MLP_FORMATS)
LINEAR_NAMES = sorted(name for name in quarn.FORMATS if name != "fp8_e5m2_linear")


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
    with pytest.raises(ValueError, match="q4_0, fp8_e5m2, not with 'nf4'"):
        quarn.QuantMLP.from_float(mlp, "nf4")
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


def small_linear(format: str, bias: bool = True) -> quarn.QuantLinear:
    torch.manual_seed(0)
    return quarn.QuantLinear.from_float(nn.Linear(128, 96, bias), format)


def expected_linear(module: quarn.QuantLinear, x: torch.Tensor) -> np.ndarray:
    """x @ weight.T + bias in double, from an independent reading of the packed bytes."""
    weight = decode(module.packed.cpu().numpy().tobytes(), module.format.name, 128)
    bias = 0 if module.bias is None else module.bias.detach().cpu().double().numpy()
    return x.double().numpy() @ weight.T + bias


@pytest.mark.parametrize("bias", [True, False])
@pytest.mark.parametrize("name", LINEAR_NAMES)
def test_linear_on_cpu(name: str, bias: bool) -> None:
    dense = nn.Linear(128, 96, bias)
    module = quarn.QuantLinear.from_float(dense, name)
    for x in (torch.randn(2, 3, 128), torch.randn(128), torch.randn(0, 128)):
        actual = module(x).detach()
        np.testing.assert_allclose(actual, expected_linear(module, x), atol=2e-6)
    x = torch.randn(50, 128)
    assert (module(x) - dense(x)).norm() < 0.2 * dense(x).norm()


@pytest.mark.parametrize("dtype", [torch.float32, torch.float16, torch.bfloat16])
@pytest.mark.parametrize("name", LINEAR_NAMES)
def test_linear_on_xpu(name: str, dtype: torch.dtype) -> None:
    tolvane = pytest.importorskip("tolvane")
    if not hasattr(tolvane, "forward_new"):
        pytest.skip("this build of tolvane has no forward_new")
    module = small_linear(name).to(dtype)
    x = torch.randn(4, 3, 128).to(dtype)
    expected = expected_linear(module, x)
    actual = module.to("xpu")(x.transpose(0, 1).to("xpu")).transpose(0, 1)
    assert actual.device.type == "xpu" and actual.dtype == dtype and actual.shape == (4, 3, 96)
    tolerance = {torch.float16: 6e-3, torch.bfloat16: 4e-2}.get(dtype, 1e-5)
    error = np.abs(actual.detach().cpu().double().numpy() - expected).max()
    assert error <= tolerance * np.abs(expected).max()


def test_linear_on_xpu_names_the_missing_operator(monkeypatch: pytest.MonkeyPatch) -> None:
    tolvane = pytest.importorskip("tolvane")
    monkeypatch.delattr(tolvane, "forward_new", raising=False)
    with pytest.raises(RuntimeError, match="needs tolvane.forward_new"):
        small_linear("q4_0").to("xpu")(torch.ones(1, 128, device="xpu"))


def test_linear_state_brings_its_format() -> None:
    """nf4 has q4_0's size and fp8_e5m2 another; inside a model as well."""
    x = torch.randn(3, 128)
    for name, saved in (("nf4", "nf4"), ("fp8_e5m2", "fp8_e5m2_linear")):
        module, other = nn.Sequential(small_linear(name)), nn.Sequential(small_linear("q4_0"))
        file = io.BytesIO()
        torch.save(module.state_dict(), file)
        file.seek(0)
        other.load_state_dict(torch.load(file))
        assert other[0].format.name == saved and torch.equal(other(x), module(x))
    assert module.half()[0].packed.dtype == torch.uint8
    assert repr(small_linear("nf3", bias=False)) == (
        "QuantLinear(output_size=96, state_size=128, format=nf3, bits_per_weight=3.25, bias=False)"
    )


def test_refused_linears() -> None:
    packed = quarn.pack(torch.ones(96, 128), "q4_0")
    with pytest.raises(ValueError, match=r"6528 bytes, 96 rows of 128 in nf4, .* \[6527\]"):
        quarn.QuantLinear(packed[1:], 96, 128, "nf4", None)
    with pytest.raises(ValueError, match=r"bias must have shape \[96\], but has \[128\]"):
        quarn.QuantLinear(packed, 96, 128, "q4_0", torch.zeros(128))
    with pytest.raises(ValueError, match="unknown format 'q9'"):
        small_linear("q9")
    with pytest.raises(ValueError, match=r"x must be \[..., 128\], but has shape \[2, 64\]"):
        small_linear("q4_0")(torch.ones(2, 64))
