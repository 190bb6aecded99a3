"""The examples of attention with a state: an FP8 cache, and RWKV in several calls."""

from __future__ import annotations

import pytest
import torch

pytest.importorskip("tolvane")

import kelvor_xpu  # noqa: E402
import rwkv_steps  # noqa: E402
from fp8_attention import with_fp8_cache  # noqa: E402
from model import Cache, Config, Decoder  # noqa: E402
from quarn.fp8_cache import decode_fp8, encode_fp8  # noqa: E402


class RoundingCache(Cache):
    """A dense cache of what the bytes stand for."""

    def append(self, keys, values):
        return super().append(*(decode_fp8(encode_fp8(x)).float() for x in (keys, values)))


@torch.no_grad()
def test_decoding_through_the_cache() -> None:
    """After a prompt in plain PyTorch, against the dense model that reads the rounded cache."""
    torch.manual_seed(0)
    dense = Decoder(Config(width=256, heads=2, layers=2, hidden=64, context=24)).eval()
    tokens = torch.randint(256, (2, 24))
    model = with_fp8_cache(dense)
    caches = [RoundingCache(cache.keys, cache.values) for cache in dense.new_cache(2)]
    bytes_caches = model.new_cache(2)
    for token in tokens.split(1, dim=1):
        expected, actual = dense(token, caches), model(token.to("xpu"), bytes_caches).cpu()
        # Where a rounding tips to the next byte the two differ more than floats do.
        assert (actual - expected).norm() < 2e-2 * expected.norm()

    bytes_caches = model.new_cache(2)
    kelvor_xpu.clear_submissions()
    prompt = model(tokens[:, :9].to("xpu"), bytes_caches).cpu()
    kernels = [record.kernel for record in kelvor_xpu.submissions()]
    assert sum("fused_norm_kernel1" in kernel for kernel in kernels) == 2 * 2 + 1
    assert sum("rotary" in kernel for kernel in kernels) == 2
    torch.testing.assert_close(prompt, dense(tokens[:, :9]), atol=1e-4, rtol=1e-4)
    step = model(tokens[:, 9:10].to("xpu"), bytes_caches).cpu()
    plain = dense(tokens[:, :10])[:, -1:]
    assert 0 < (step - plain).norm() < 0.2 * plain.norm()
    with pytest.raises(ValueError, match="empty cache"):
        model(tokens[:, 10:12].to("xpu"), bytes_caches)


def test_rwkv_in_parts_equals_the_whole(capsys: pytest.CaptureFixture[str], monkeypatch) -> None:
    monkeypatch.setattr("sys.argv", ["rwkv_steps.py", "--tokens", "7", "--cut", "1"])
    rwkv_steps.main()
    lines = capsys.readouterr().out.splitlines()
    assert [line.split(":")[0] for line in lines] == ["Version4", "Version5"]
    assert all("outputs and states are equal" in line for line in lines)
