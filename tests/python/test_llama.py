"""Decoders of the Llama family against transformers' own, and their checkpoints, dense and packed."""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
from pathlib import Path
from typing import Any

import pytest
import torch
from safetensors import safe_open
from torch import nn

import quarn
from quarn import kv_cache, llama
from quarn.command import main
from reference import MODEL_SIZES, prompt, result_of_the_library

transformers = pytest.importorskip("transformers")
pytest.importorskip("tolvane")
from quarn.fp8_cache import decode_fp8, encode_fp8  # noqa: E402  they need tolvane

SIZES = MODEL_SIZES | {"num_key_value_heads": 2, "max_position_embeddings": 160}
LLAMA3 = {
    "rope_type": "llama3",
    "rope_theta": 500000.0,
    "factor": 8.0,
    "low_freq_factor": 1.0,
    "high_freq_factor": 4.0,
    "original_max_position_embeddings": 64,
}
LINEAR = {"rope_type": "linear", "rope_theta": 10000.0, "factor": 4.0}
MODELS: dict[str, dict[str, Any]] = {
    "grouped": {},
    "tied": {"tie_word_embeddings": True, "num_key_value_heads": 4, "head_dim": 64},
    "biases": {"attention_bias": True, "mlp_bias": True, "num_key_value_heads": 1},
    "linear": {"rope_parameters": LINEAR},
    "llama3": {"rope_parameters": LLAMA3, "tie_word_embeddings": True},
    "wide heads": {"head_dim": 128, "num_attention_heads": 2, "num_key_value_heads": 1},
    "qwen2": {},
}
FORMATS = {
    "dense": None,
    "q4_0": "q4_0",
    "mixed": {"down": "q8_0", "k_proj": "nf4", "lm_head": None, "default": "q4_0"},
}


@pytest.fixture(scope="module")
def checkpoints(tmp_path_factory) -> dict[str, Path]:
    """Folders of small random models, in several files each."""
    folders = {}
    for name, changed in MODELS.items():
        torch.manual_seed(5)
        kind = transformers.Qwen2Config if name == "qwen2" else transformers.LlamaConfig
        model = transformers.AutoModelForCausalLM.from_config(kind(**(SIZES | changed)))
        for key, parameter in model.named_parameters():  # biases begin as zeros, norms as ones
            if parameter.dim() == 1:
                nn.init.normal_(parameter, mean=float("norm" in key), std=0.2)
        folders[name] = tmp_path_factory.mktemp(name)
        model.save_pretrained(folders[name], max_shard_size="100KB")
    return folders


@pytest.mark.parametrize("format", FORMATS)
@pytest.mark.parametrize("name", MODELS)
def test_logits_and_tokens_of_the_library(checkpoints, monkeypatch, name: str, format: str) -> None:
    """The prompt in pieces of eight, then token by token."""
    monkeypatch.setattr(llama, "PROMPT_ROWS", 8)
    model = quarn.from_pretrained(checkpoints[name], FORMATS[format], progress=False)
    everything, result = result_of_the_library(checkpoints[name], model)
    expected, count = result.logits[0], len(prompt())

    cache = model.new_cache(len(everything))
    parts = [everything[:count], *everything[count:].split(1)]
    actual = torch.cat([model(part, cache) for part in parts]).cpu()
    assert (actual - expected).abs().max() <= 1e-4 * (expected.max() - expected.min())
    # Forgetting and going on another way leaves no trace.
    cache.cut(count)
    assert torch.equal(model(everything[count : count + 1], cache).cpu(), actual[[count]])


def test_fused_operators_run(checkpoints) -> None:
    model = quarn.from_pretrained(checkpoints["grouped"], "q4_0", progress=False)
    cache = model.new_cache(8)
    with torch.autograd.profiler.profile() as profile:
        model(torch.tensor([1]), cache)
    scopes = [event.name for event in profile.function_events]
    layers = SIZES["num_hidden_layers"]
    assert scopes.count("quarn_qkv_forward") == scopes.count("mlp_forward") == layers
    assert scopes.count("quarn_qlinear_forward") == 2 * layers + 1


ROUNDED = {"half": torch.Tensor.half, "fp8": lambda x: decode_fp8(encode_fp8(x))}


class RoundedCache(kv_cache.LayerCache):
    """What it takes in becomes what a cache of the kind holds of it."""

    kind: str

    def finish(self) -> tuple[torch.Tensor, torch.Tensor]:
        for x in (self.keys, self.values):
            x.copy_(ROUNDED[self.kind](x))
        return super().finish()


@pytest.mark.parametrize("kind", ROUNDED)
@pytest.mark.parametrize("format", ["dense", "q4_0"])
def test_caches_that_round(checkpoints, monkeypatch, format: str, kind: str) -> None:
    """Over a prompt in two parts and then token by token, against the CPU with rounded keys and values."""
    folder = checkpoints["wide heads"]
    model = quarn.from_pretrained(folder, FORMATS[format], progress=False)
    on_cpu = quarn.from_pretrained(folder, FORMATS[format], device="cpu", progress=False)
    parts = [*prompt().split(8), *prompt().split(1)]
    monkeypatch.setattr(RoundedCache, "kind", kind, raising=False)
    cache, expected_cache = model.new_cache(64, kind), on_cpu.new_cache(64)
    sizes = (1, 64, 128, torch.device("cpu"), torch.float32)
    expected_cache.layers = [RoundedCache(*sizes) for _ in expected_cache.layers]
    actual = torch.cat([model(part, cache) for part in parts]).cpu()
    expected = torch.cat([on_cpu(part, expected_cache) for part in parts])
    if kind == "half":  # queries and what attention gives are halves, too, where single tokens run
        assert (actual - expected).abs().max() <= 1e-3 * (expected.max() - expected.min())
        return
    # Where keys differ in their last bits, a few are rounded to the neighbouring byte.
    assert (actual - expected).abs().max() <= 0.01 * (expected.max() - expected.min())
    plain = on_cpu.new_cache(64)
    unrounded = torch.cat([on_cpu(part, plain) for part in parts])
    assert (actual - expected).norm() < 0.1 * (unrounded - expected).norm()
    with pytest.raises(ValueError, match="heads of 128, not of 32"):
        other = quarn.from_pretrained(checkpoints["grouped"], progress=False)
        other.new_cache(8, "fp8")
    with pytest.raises(ValueError, match="one of model, half, fp8, not 'float'"):
        model.new_cache(8, "float")


@pytest.mark.parametrize("name", ["tied", "biases"])
@pytest.mark.parametrize("format", ["q4_0", "mixed"])
def test_packed_checkpoints(checkpoints, tmp_path, name: str, format: str) -> None:
    """Packed while it is loaded and saved, or from folder to folder: the same bytes, in a file that others read."""
    model = quarn.from_pretrained(checkpoints[name], FORMATS[format], progress=False)
    quarn.save_pretrained(model, tmp_path / "saved")
    quarn.pack_pretrained(checkpoints[name], tmp_path / "packed", FORMATS[format], progress=False)
    expected = model(prompt(), model.new_cache())
    for folder in (tmp_path / "saved", tmp_path / "packed"):
        again = quarn.from_pretrained(folder)
        assert torch.equal(again(prompt(), again.new_cache()), expected)
        with safe_open(folder / "model.safetensors", framework="pt") as file:
            listed = json.loads(file.metadata()["quarn"])
            down = "model.layers.1.mlp.down_proj"
            entry = {"format": "q4_0" if format == "q4_0" else "q8_0", "shape": [128, 192]}
            assert listed[f"{down}.weight"] == entry
            stored = file.get_tensor(f"{down}.weight")
            assert torch.equal(stored, model.get_submodule(down).packed.cpu())
    packed_again = tmp_path / "again"
    quarn.pack_pretrained(tmp_path / "packed", packed_again, "q8_0", progress=False)
    name = "model.safetensors"
    if format == "q4_0":  # nothing dense was left
        assert (packed_again / name).read_bytes() == (tmp_path / "packed" / name).read_bytes()


def test_what_is_refused(checkpoints, tmp_path) -> None:
    def refuses(error: type[Exception], message: str, format: str | None = None, **changed: Any) -> None:
        config = json.loads((checkpoints["grouped"] / "config.json").read_text())
        (tmp_path / "config.json").write_text(json.dumps(config | changed))
        with pytest.raises(error, match=message):
            quarn.from_pretrained(tmp_path, format, progress=False)

    with pytest.raises(FileNotFoundError, match="has no config.json"):
        quarn.from_pretrained(tmp_path)
    refuses(ValueError, "type mamba are not among", model_type="mamba")
    refuses(ValueError, "must be silu, but is gelu", hidden_act="gelu")
    refuses(ValueError, "default, linear, llama3, but is yarn", rope_parameters={"rope_type": "yarn"})
    refuses(FileNotFoundError, "no .*safetensors file")
    for path in checkpoints["grouped"].glob("*.safetensors*"):
        (tmp_path / path.name).write_bytes(path.read_bytes())
    refuses(KeyError, "no tensor model.layers.2", num_hidden_layers=3)
    refuses(ValueError, "no place for 9 tensors", num_hidden_layers=1)
    refuses(ValueError, "q_proj: .*multiple of 256", "q2_k")
    shard = sorted(tmp_path.glob("*.safetensors"))[0]
    shard.write_bytes(shard.read_bytes()[:-10])
    refuses(ValueError, "cut off")
    model = quarn.from_pretrained(checkpoints["grouped"], progress=False)
    with pytest.raises(ValueError, match="holds 2 positions, but 21 are needed"):
        model(prompt(), model.new_cache(2))
    with pytest.raises(ValueError, match="context of 160 tokens, but are 221"):
        next(quarn.generate(model, prompt().tolist(), 200))


def test_command(checkpoints, tmp_path, capsys) -> None:
    """Packs with mixed formats, generates what the model generates, and measures what its logits say."""
    from tokenizers import Tokenizer, decoders, models, pre_tokenizers

    source, packed = checkpoints["grouped"], str(tmp_path / "packed")
    letters = pre_tokenizers.ByteLevel.alphabet()[: SIZES["vocab_size"]]
    tokenizer = Tokenizer(models.BPE({letter: i for i, letter in enumerate(letters)}, []))
    tokenizer.pre_tokenizer = pre_tokenizers.ByteLevel(add_prefix_space=False)
    tokenizer.decoder = decoders.ByteLevel()
    tokenizer.save(str(source / "tokenizer.json"))
    assert main(["pack", str(source), packed, "--format", "q4_0", "--format", "down=q8_0"]) == 0
    shown = capsys.readouterr()
    assert " MB -> " in shown.out and "100%  0.3 of 0.3 M weights" in shown.err
    model = quarn.from_pretrained(packed)
    assert model.model.layers[0].mlp.down_proj.format.name == "q8_0"

    text = "".join(c for c in "some text to go on with" if tokenizer.token_to_id(c) is not None)
    ids = tokenizer.encode(text).ids
    assert main(["generate", packed, text, "--count", "30"]) == 0
    shown = capsys.readouterr()
    stop = transformers.AutoConfig.from_pretrained(source).eos_token_id
    expected = tokenizer.decode(list(quarn.generate(model, ids, 30, stop=[stop])))
    assert shown.out.startswith(text) and "tokens/s" in shown.err
    assert shown.out[len(text) :].rstrip("\n") == expected.rstrip("\ufffd\n")

    file = tmp_path / "text.txt"
    file.write_text(text * 3, encoding="utf-8")
    assert main(["perplexity", packed, str(file), "--window", "10"]) == 0
    tokens = torch.tensor(tokenizer.encode(text * 3).ids)
    losses = []
    for part in tokens.split(10):
        if len(part) == 1:  # nothing before it
            continue
        logits = model(part[:-1], model.new_cache(10)).cpu().double()
        losses.append(-logits.log_softmax(-1).gather(1, part[1:, None]))
    value = float(torch.cat(losses).mean().exp())
    shown = capsys.readouterr().out.split()
    assert float(shown[1]) == pytest.approx(value, rel=1e-5) and int(shown[3]) == len(tokens)
    assert main(["generate", str(tmp_path), "x"]) == 1
    assert "quarn: " in capsys.readouterr().err


def test_two_processes_share_a_model(tmp_path) -> None:
    """Heads and columns of the MLP are split, and the sums of both are the whole model's."""
    torch.manual_seed(4)
    changed = {"intermediate_size": 256, "num_hidden_layers": 1}
    config = transformers.LlamaConfig(**(SIZES | changed))
    transformers.LlamaForCausalLM(config).save_pretrained(tmp_path)
    script = Path(__file__).resolve().parents[2] / "examples" / "tensor_parallel.py"
    run = [sys.executable, "-m", "torch.distributed.run", "--nproc-per-node", "2", str(script)]
    done = subprocess.run(
        [*run, str(tmp_path), "--check", "--tokens", "8"],
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path), "OMP_NUM_THREADS": "1"},
        capture_output=True,
        text=True,
        timeout=300,
    )
    found = re.search(r"one process: the same tokens, logits off by (\S+)", done.stdout)
    assert found and float(found[1]) < 1e-5, done.stderr[-2000:]
