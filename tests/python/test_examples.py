"""The example decoder, its corpus and its text generation."""

from __future__ import annotations

import re

import pytest
import torch

import corpus
import quarn
from convert import convert
from all_formats import FORMATS, Row
from generate import generate
from model import Config, Decoder
from packed_models import bytes_of, with_packed_linears
from plot_formats import plot
from train import load, save

SMALL = Config(width=64, heads=2, layers=2, hidden=128, context=24)


def small_decoder() -> Decoder:
    torch.manual_seed(0)
    model = Decoder(SMALL).eval()
    for parameter in model.parameters():  # larger than at the start, so that attention matters
        if parameter.dim() == 2:
            torch.nn.init.normal_(parameter, std=0.15)
    return model


@torch.no_grad()
def test_cached_steps_equal_full_forward() -> None:
    """In chunks of 1, 5, 1 and the rest, so that masks with a past are used as well."""
    model = small_decoder()
    tokens = torch.randint(256, (2, SMALL.context))
    full = model(tokens)
    caches = model.new_cache(batch=2)
    chunks = tokens.split([1, 5, 1, SMALL.context - 7], dim=1)
    stepwise = torch.cat([model(chunk, caches) for chunk in chunks], dim=1)
    torch.testing.assert_close(stepwise, full, atol=2e-5, rtol=1e-5)
    with pytest.raises(ValueError, match="25 positions exceed the context of 24"):
        model(tokens[:, :1], caches)


def test_greedy_generation_equals_repeated_forward() -> None:
    model = small_decoder()
    tokens = list(b"Anna was")
    with torch.no_grad():
        for _ in range(10):
            tokens.append(int(model(torch.tensor([tokens]))[0, -1].argmax()))
    assert list(generate(model, b"Anna was", 10, temperature=0)) == tokens[8:]
    drawn = [list(generate(model, b"Anna was", 10, seed=seed)) for seed in (1, 1, 2)]
    assert drawn[0] == drawn[1] != drawn[2]
    for prompt, count, message in ((b"Anna", 21, "of 24"), (b"", 1, "empty"), (b"A", 0, "not 0")):
        with pytest.raises(ValueError, match=message):
            next(generate(model, prompt, count))


def test_checkpoint_round_trip(tmp_path) -> None:
    model = small_decoder()
    path = tmp_path / "checkpoint.pt"
    save(model, path)
    loaded = load(path)
    assert loaded.config == SMALL
    expected = model.layers[1].mlp.up.weight.detach()
    torch.testing.assert_close(loaded.layers[1].mlp.up.weight, expected, rtol=2**-11, atol=1e-7)
    with pytest.raises(FileNotFoundError, match="train.py"):
        load(tmp_path / "absent.pt")


@torch.no_grad()
def test_converted_decoder_is_one_of_transformers(tmp_path) -> None:
    """The library gives its logits, and the tokenizer its bytes."""
    transformers = pytest.importorskip("transformers")
    model, text = small_decoder(), "Anna was happy, é\n"
    convert(model, tmp_path)
    tokenizer = transformers.AutoTokenizer.from_pretrained(tmp_path)
    tokens = tokenizer.encode(text)
    assert bytes(tokens) == text.encode() and tokenizer.decode(tokens) == text
    own = transformers.AutoModelForCausalLM.from_pretrained(tmp_path).eval()
    expected = model(torch.tensor([tokens]))
    torch.testing.assert_close(own(torch.tensor([tokens])).logits, expected, atol=1e-4, rtol=1e-4)


@torch.no_grad()
def test_packing_replaces_every_linear_layer() -> None:
    """Per layer: qkv 3 * 64 * 64, out 64 * 64, and three of 64 * 128. The original stays dense."""
    model = small_decoder()
    expected = model(torch.arange(24)[None])
    packed = with_packed_linears(model, "q8_0", torch.float32)
    assert not any(isinstance(module, torch.nn.Linear) for module in packed.modules())
    assert sum(isinstance(module, quarn.QuantLinear) for module in packed.modules()) == 10
    weights = 2 * (4 * 64 * 64 + 3 * 64 * 128)
    assert bytes_of(packed, lambda name: name.endswith("packed")) == weights // 64 * 68
    error = (packed(torch.arange(24)[None]) - expected).norm() / expected.norm()
    assert 0 < error < 0.02
    assert torch.equal(model(torch.arange(24)[None]), expected)


def test_plot_is_an_image(tmp_path) -> None:
    pytest.importorskip("matplotlib")
    rows = [Row("all", name, 0.5, 1000, 1.2, 10.0) for name in (*FORMATS, "dense")]
    plot(rows, tmp_path / "new" / "plot.png")
    assert (tmp_path / "new" / "plot.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"


def test_corpus_is_deterministic_and_held_out_is_unseen() -> None:
    text = corpus.generate(7, 5000)
    assert len(text) == 5000 and text == corpus.generate(7, 9000)[:5000]
    assert text != corpus.generate(8, 5000)
    seen = set(corpus.train_text().decode().split(corpus.SEPARATOR))
    held_out = corpus.held_out_text(20_000).decode().split(corpus.SEPARATOR)
    assert sum(entry in seen for entry in held_out) < 0.05 * len(held_out)
    with pytest.raises(ValueError, match="-1"):
        corpus.generate(1, -1)


def test_corpus_agrees_with_itself() -> None:
    """Sales add up, and a story names no more than two people."""
    text = corpus.generate(11, 200_000).decode()
    number = {name: value for value, name in enumerate(corpus.NUMBERS)}
    sales = re.findall(r"brought (\w+) .*? bought (\w+) of them, .*? carried (\w+) home", text)
    assert len(sales) > 50
    assert all(number[a] - number[b] == number[c] > 0 for a, b, c in sales)
    names = {person.name for person in corpus.PEOPLE}
    for entry in text.split(corpus.SEPARATOR)[:-1]:
        assert len(names & set(re.findall(r"[A-Z][a-z]+", entry))) == 2
