"""Models of the transformers library, small and random: the CPU's logits and greedy tokens on the device, dense and
with every linear layer packed."""

from __future__ import annotations

import copy
import itertools
from typing import Any

import pytest
import torch
from torch import nn

import quarn
from reference import MODEL_SIZES, take_packed_weights

transformers = pytest.importorskip("transformers")
pytest.importorskip("tolvane")

NO_TOKENS: dict[str, Any] = {"bos_token_id": None, "eos_token_id": None, "pad_token_id": 0}
GROUPED: dict[str, Any] = {**MODEL_SIZES, **NO_TOKENS, "num_key_value_heads": 2}
DECODERS = {
    "llama": lambda: transformers.LlamaForCausalLM(transformers.LlamaConfig(**GROUPED)),
    "qwen2": lambda: transformers.Qwen2ForCausalLM(transformers.Qwen2Config(**GROUPED)),
    "gpt_neox": lambda: transformers.GPTNeoXForCausalLM(transformers.GPTNeoXConfig(**MODEL_SIZES, **NO_TOKENS)),
}
MODELS = {**DECODERS, "bert": lambda: transformers.BertForMaskedLM(transformers.BertConfig(**MODEL_SIZES))}
FORMATS = ("q4_0", "q8_0", "nf4", "q5_1", "fp8_e4m3")
"""Formats that the linear layers of a model take in turn."""


def made(name: str) -> nn.Module:
    torch.manual_seed(7)
    model = MODELS[name]().eval()
    for parameter in model.parameters():  # biases begin as zeros
        if parameter.dim() == 1 and not parameter.any():
            nn.init.normal_(parameter, std=0.1)
    return model


def prompt() -> dict[str, torch.Tensor]:
    """Two rows of tokens, the second padded on the left."""
    tokens = torch.randint(1, 192, (2, 7), generator=torch.Generator().manual_seed(3))
    mask = torch.ones_like(tokens)
    mask[1, :3] = 0
    return {"input_ids": tokens * mask, "attention_mask": mask}


def packed_and_dense(model: nn.Module) -> tuple[nn.Module, nn.Module]:
    """Copies of the model whose linear layers are packed, and have the packed weights' values."""
    dense, formats = copy.deepcopy(model), itertools.cycle(FORMATS)
    packed = quarn.quantize_(copy.deepcopy(model), lambda *layer: next(formats), progress=False)
    assert not any(isinstance(module, nn.Linear) for module in packed.modules())
    take_packed_weights(dense, packed)
    return packed, dense


def assert_same(there: nn.Module, here: nn.Module, name: str) -> None:
    """The model on the device gives the CPU model's logits, and tokens where it has any to give."""
    inputs = prompt()
    on_device = {key: value.to("xpu") for key, value in inputs.items()}
    counted = inputs["attention_mask"].bool()
    with torch.no_grad():
        expected = here(**inputs).logits[counted]
        actual = there(**on_device).logits
    assert actual.device.type == "xpu" and expected.std() > 0.1
    torch.testing.assert_close(actual.cpu()[counted], expected, rtol=1e-4, atol=1e-4)
    if name in DECODERS:
        how = {"max_new_tokens": 12, "do_sample": False}
        tokens = here.generate(**inputs, **how)
        assert tokens.shape == (2, 19) and len(tokens[:, 7:].unique()) > 3
        assert torch.equal(there.generate(**on_device, **how).cpu(), tokens)


@pytest.mark.parametrize("packs", [False, True], ids=["dense", "packed"])
@pytest.mark.parametrize("name", MODELS)
def test_model_gives_the_results_of_its_weights(name: str, packs: bool) -> None:
    model = made(name)
    there, here = packed_and_dense(model) if packs else (copy.deepcopy(model), model)
    assert_same(there.to("xpu"), here, name)
