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


def runs(device: str, dtype: torch.dtype, module: nn.Module, x: torch.Tensor) -> torch.Tensor:
    """What the module gives on the device, in its type and on the CPU."""
    if device == "xpu":
        pytest.importorskip("tolvane")
    actual = module.to(device)(x.to(device)).detach()
    assert actual.device.type == device and actual.dtype == dtype
    return actual.cpu()


def assert_close(actual: torch.Tensor, expected: np.ndarray) -> None:
    """To some units of the type, next to the largest value."""
    tolerance = {torch.float16: 6e-3, torch.bfloat16: 4e-2}.get(actual.dtype, 1e-5)
    bound = tolerance * np.abs(expected).max(initial=0)
    np.testing.assert_allclose(actual.double(), expected, rtol=0, atol=bound)


FLOAT_TYPES = [torch.float32, torch.float16, torch.bfloat16]
PLACES = [("cpu", torch.float32), *(("xpu", dtype) for dtype in FLOAT_TYPES)]


@pytest.mark.parametrize(("device", "dtype"), [*PLACES, ("xpu", torch.float64)])
@pytest.mark.parametrize("name", NAMES)
def test_mlp(name: str, device: str, dtype: torch.dtype) -> None:
    module = quarn.QuantMLP.from_float(small_mlp(), name).to(dtype)
    x = torch.randn(2, 3, 128).to(dtype)
    expected = expected_output(module, x)
    assert_close(runs(device, dtype, module, x), expected)


def small_linear(format: str, bias: bool = True, state: int = 128) -> quarn.QuantLinear:
    torch.manual_seed(0)
    return quarn.QuantLinear.from_float(nn.Linear(state, 96, bias), format)


def expected_linear(module: quarn.QuantLinear, x: torch.Tensor) -> np.ndarray:
    """x @ weight.T + bias in double, from an independent reading of the packed bytes."""
    weight = decode(module.packed.cpu().numpy().tobytes(), module.format.name, module.state_size)
    bias = 0 if module.bias is None else module.bias.detach().cpu().double().numpy()
    return x.double().numpy() @ weight.T + bias


@pytest.mark.parametrize(("device", "dtype"), PLACES)
@pytest.mark.parametrize("name", LINEAR_NAMES)
def test_linear(name: str, device: str, dtype: torch.dtype) -> None:
    """Of several rows, where the weights enter as they are, on the CPU also of one."""
    inputs = [torch.randn(4, 3, 256).transpose(0, 1), torch.randn(0, 256)]
    if device == "cpu":
        inputs.append(torch.randn(256))
    for bias in (True, False):
        module = small_linear(name, bias, state=256).to(dtype)
        for x in inputs:
            expected = expected_linear(module.cpu(), x.to(dtype))
            assert_close(runs(device, dtype, module, x.to(dtype)), expected)


def test_linear_on_xpu_names_the_missing_operator(monkeypatch: pytest.MonkeyPatch) -> None:
    tolvane = pytest.importorskip("tolvane")
    monkeypatch.delattr(tolvane, "forward_new", raising=False)
    with pytest.raises(RuntimeError, match="needs tolvane.forward_new"):
        small_linear("q4_0").to("xpu")(torch.ones(1, 128, device="xpu"))


def test_states_survive_saving_and_types() -> None:
    """Loaded into a module of other weights; a linear layer's brings its format: nf4 has q4_0's size and fp8_e5m2
    another. Casts leave the packed bytes alone."""
    x = torch.randn(1, 128)
    for module, other, format in (
        (quarn.QuantMLP.from_float(small_mlp(), "q4_0"), quarn.QuantMLP.from_float(MLP(128, 192), "q4_0"), "q4_0"),
        (small_linear("nf4"), small_linear("q4_0"), "nf4"),
        (small_linear("fp8_e5m2"), small_linear("q4_0"), "fp8_e5m2_linear"),
    ):
        file = io.BytesIO()
        torch.save(nn.Sequential(module).state_dict(), file)
        file.seek(0)
        nn.Sequential(other).load_state_dict(torch.load(file))
        assert other.format.name == format and torch.equal(other(x), module(x))
        before = {name: packed.clone() for name, packed in module.named_buffers()}
        assert before and all(torch.equal(packed, before[name]) for name, packed in module.half().named_buffers())
        assert f"state_size=128, {'hidden_size=192, ' if 'gate' in before else ''}format={format}" in repr(module)
    assert repr(small_linear("nf3", bias=False)) == (
        "QuantLinear(output_size=96, state_size=128, format=nf3, bits_per_weight=3.25, bias=False)"
    )


def small_embedding() -> tuple[nn.Embedding, quarn.QuantEmbedding, np.ndarray]:
    """A dense embedding, its packed form, and the table that the packed bytes stand for."""
    torch.manual_seed(0)
    dense = nn.Embedding(10, 512, padding_idx=0)
    module = quarn.QuantEmbedding.from_float(dense)
    return dense, module, decode(module.packed.numpy().tobytes(), "q2_k", 512)


INDICES = [torch.tensor([[5]]), torch.tensor([[0, 9, 3], [3, 3, 0]]), torch.tensor(7).int()]
INDICES += [torch.zeros(0, 4, dtype=torch.int64), torch.arange(8).view(2, 2, 2).transpose(0, 2)]


@pytest.mark.parametrize("device", ["cpu", "xpu"])
def test_embedding(device: str) -> None:
    _, module, table = small_embedding()
    for indices in INDICES:
        expected = table.astype(np.float32)[indices.numpy()].reshape(*indices.shape, 512)
        np.testing.assert_array_equal(runs(device, torch.float32, module, indices), expected)


def test_embedding_is_near_the_dense_table() -> None:
    dense, module, _ = small_embedding()
    indices = torch.arange(10)
    assert (module(indices) - dense(indices)).norm() < 0.27 * dense(indices).norm()
    assert (module(torch.tensor([0])) == 0).all()
    half = quarn.QuantEmbedding.from_float(dense.half())
    assert half(indices).dtype == torch.half and half.float()(indices).dtype == torch.float32
    assert list(module.state_dict()) == ["packed"]


def test_what_is_refused() -> None:
    biased, packed, (_, embedding, _) = small_mlp(), quarn.pack(torch.ones(192, 128), "q4_0"), small_embedding()
    biased.gate.bias = nn.Parameter(torch.zeros(192))
    for error, message, call, *arguments in (
        (ValueError, "q4_0, fp8_e5m2, not with 'nf4'", quarn.QuantMLP.from_float, small_mlp(), "nf4"),
        (ValueError, "gate must have no bias", quarn.QuantMLP.from_float, biased, "q4_0"),
        (TypeError, "'gate'", quarn.QuantMLP.from_float, nn.Linear(64, 64), "q4_0"),
        (ValueError, "even, but is 191", quarn.QuantMLP.from_float, MLP(128, 191), "q4_0"),
        (ValueError, "up must be 13056 bytes, 192", quarn.QuantMLP, packed, packed[:-1], small_mlp().down, "q4_0"),
        (ValueError, r"192 rows of 128 in nf4, .* \[13055\]", quarn.QuantLinear, packed[1:], 192, 128, "nf4", None),
        (ValueError, r"\[192\], but has \[128\]", quarn.QuantLinear, packed, 192, 128, "q4_0", torch.zeros(128)),
        (ValueError, "unknown format 'q9'", small_linear, "q9"),
        (ValueError, r"x must be \[..., 128\], but has shape \[2, 64\]", small_linear("q4_0"), torch.ones(2, 64)),
        (IndexError, "index 10 is not in 0 to 9", embedding, torch.tensor([3, 10])),
        (IndexError, "index -1 is not in 0 to 9", embedding, torch.tensor([3, -1])),
        (TypeError, "torch.float32", embedding, torch.ones(1)),
        (ValueError, "256 for q2_k, but is 64", quarn.QuantEmbedding.from_float, nn.Embedding(4, 64)),
        (ValueError, "max_norm", quarn.QuantEmbedding.from_float, nn.Embedding(4, 256, max_norm=1.0)),
        (ValueError, "packed must be 1848 bytes, 11 rows", quarn.QuantEmbedding, embedding.packed, 11, 512),
    ):
        with pytest.raises(error, match=message):
            call(*arguments)


class Tied(nn.Module):
    """A layer under two names, one of its own, and an embedding."""

    def __init__(self) -> None:
        super().__init__()
        self.embedding = nn.Embedding(7, 256)
        self.first = nn.Sequential(nn.Linear(256, 256), nn.ReLU())
        self.again = self.first[0]
        self.last = nn.Linear(256, 5, bias=False)
        self.unused = nn.Linear(256, 3)

    def forward(self, indices: torch.Tensor) -> torch.Tensor:
        return self.last(self.again(self.first(self.embedding(indices))))


def test_importance_is_the_mean_square_of_each_column() -> None:
    """Over all calls and positions, of both uses of a shared layer, and without a trace in the model."""
    torch.manual_seed(0)
    model = Tied()
    samples = [torch.randint(7, (2, 3)), torch.randint(7, (4,))]
    importance = quarn.collect_importance(model, samples)
    assert sorted(importance) == ["first.0", "last"]
    rows = [model.embedding(sample).reshape(-1, 256) for sample in samples]
    into_last = torch.cat([model.again(model.first(row)) for row in rows])
    both = torch.cat([*rows, *(model.first(row) for row in rows)])
    for name, inputs in (("first.0", both), ("last", into_last)):
        mean_squares = inputs.detach().double().square().mean(0).float()
        torch.testing.assert_close(importance[name], mean_squares)
    assert not any(module._forward_pre_hooks for module in model.modules())
    doubled = quarn.collect_importance(model, samples, lambda m, s: m.last(torch.ones(1, 256)))
    assert list(doubled) == ["last"] and (doubled["last"] == 1).all()


def test_quantize_replaces_layers_and_shows_how_far_it_is(capsys) -> None:
    torch.manual_seed(0)
    model = Tied()
    importance = {"first.0": torch.rand(256), "last": torch.rand(256)}
    weights = {name: value.clone() for name, value in model.state_dict().items()}
    kept = model.unused

    def choose(name: str, module: nn.Module) -> str | None:
        return {"first.0": "iq2_xxs", "last": "q8_0"}.get(name)

    assert quarn.quantize_(model, choose, importance, embeddings=True) is model
    shown = capsys.readouterr()
    assert shown.out == "" and "100%  0.1 of 0.1 M weights" in shown.err
    assert model.first[0] is model.again and model.unused is kept
    expected = {
        "embedding": quarn.pack(weights["embedding.weight"], "q2_k"),
        "again": quarn.pack(weights["again.weight"], "iq2_xxs", importance["first.0"]),
        "last": quarn.pack(weights["last.weight"], "q8_0"),
    }
    for name, packed in expected.items():
        assert torch.equal(model.get_submodule(name).packed, packed), name
    assert torch.equal(model.again.bias, weights["again.bias"])
    two = nn.Sequential(nn.Sequential(nn.Linear(64, 2)), nn.Linear(64, 2), nn.Linear(64, 2))
    quarn.quantize_(two, {"0": "q8_0", "default": "q4_0"}, skip=["1"], progress=False)
    assert two[0][0].format.name == "q8_0" and two[2].format.name == "q4_0"
    assert isinstance(two[1], nn.Linear)
    alone = quarn.quantize_(nn.Linear(64, 2), "q4_0", progress=False)
    assert isinstance(alone, quarn.QuantLinear) and capsys.readouterr().err == ""
    with pytest.raises(ValueError, match="1: state_size must be a positive multiple of 256"):
        quarn.quantize_(nn.Sequential(nn.ReLU(), nn.Linear(64, 2)), "q2_k", progress=False)
