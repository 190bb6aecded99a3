"""RWKV of version 4 against transformers' own: logits, tokens, and the states of both."""

from __future__ import annotations

import pytest
import torch
from torch import nn

import quarn
from quarn import rwkv
from reference import MODEL_SIZES, result_of_the_library

transformers = pytest.importorskip("transformers")
pytest.importorskip("tolvane")


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    """A small random model, whose weights begin larger than the library lets them."""
    torch.manual_seed(2)
    own = transformers.RwkvForCausalLM(transformers.RwkvConfig(**MODEL_SIZES | {"num_hidden_layers": 3}))
    for name, parameter in own.named_parameters():
        if "mix" in name:
            nn.init.uniform_(parameter)
        elif parameter.dim() == 1:
            nn.init.normal_(parameter, mean=float("ln" in name and "weight" in name), std=0.3)
        else:
            nn.init.normal_(parameter, std=1.0 if "embeddings" in name else 0.2)
    path = tmp_path_factory.mktemp("rwkv")
    own.save_pretrained(path)
    return path


@pytest.mark.parametrize("format", [None, "q4_0", {"key": "q8_0", "head": "nf4", "default": "q4_0"}])
def test_logits_tokens_and_states_of_the_library(folder, tmp_path, monkeypatch, format) -> None:
    monkeypatch.setattr(rwkv, "PROMPT_ROWS", 8)
    model = quarn.from_pretrained(folder, format, progress=False)
    if format is not None:
        quarn.save_pretrained(model, tmp_path)
        model = quarn.from_pretrained(tmp_path)
    everything, result = result_of_the_library(folder, model)
    expected = result.logits[0]
    for parts in ([everything], everything.split(1)):  # over a prompt, and token by token
        state = model.new_cache()
        actual = torch.cat([model(part, state) for part in parts]).cpu()
        assert (actual - expected).abs().max() <= 1e-4 * (expected.max() - expected.min())
        kept = [state.feed_forward_inputs, state.attention_inputs]
        kept += [state.numerators, state.denominators, state.exponents]
        actual = [torch.stack(parts, -1).cpu() for parts in kept]
        torch.testing.assert_close(actual, [*result.state], rtol=1e-4, atol=1e-5, check_dtype=False)
