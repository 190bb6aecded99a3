"""The module's door: what it publishes, and what it says where it cannot be loaded."""

from __future__ import annotations

import inspect
import os
import subprocess
import sys
from pathlib import Path

import pytest

tolvane = pytest.importorskip("tolvane")

# In the order of registration, with the docstrings they were given.
OPERATORS = {
    "forward_new": "Linear forward (XPU) new format",
    "dequant": "Dequantize weight (XPU)",
    "apply_rotary_embedding_half_q_and_k": "Apply rotary embedding to qk (XPU)",
    "apply_rotary_embedding_half_q_or_k": "Apply rotary embedding to q/k (XPU)",
    "apply_rotary_embedding_half_q_and_k_cache_freq": "Apply rotary embedding to qk (XPU) using cached sin/cos",
    "bmm": "SYCL-based batch matrix multiplication",
    "fused_rms_norm": "fused rms norm",
    "fused_layer_norm": "fused layer norm",
    "mlp_forward_xpu": "fused mlp",
    "query_key_fp8_matmul": "query key matmul",
    "attn_value_fp8_matmul": "attn value matmul",
    "rwkv_linear_attention_v4": "rwkv v4 attention",
    "rwkv_linear_attention_v5": "rwkv v5 attention",
    "rwkv_time_shift": "rwkv time shift",
    "dequantize_rows": "Dequantize rows of weight",
}


def test_publishes_the_operators_and_nothing_else():
    assert [name for name in dir(tolvane) if not name.startswith("__")] == sorted(OPERATORS)
    assert tolvane.__doc__ is None
    for name, text in OPERATORS.items():
        assert inspect.getdoc(getattr(tolvane, name)).endswith(text)


@pytest.mark.parametrize("name", OPERATORS)
def test_refuses_keyword_arguments(name):
    with pytest.raises(TypeError, match="incompatible function arguments"):
        getattr(tolvane, name)(input=1)


def test_without_torch_the_import_says_what_to_do():
    hide = "import sys; sys.modules['torch'] = None; import tolvane"
    done = subprocess.run([sys.executable, "-c", hide], capture_output=True, text=True)
    assert "ImportError" in done.stderr and "install torch==2.13.0" in done.stderr


def in_python(code: str, **environment: str) -> subprocess.CompletedProcess[str]:
    env = {**os.environ, **environment}
    return subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True)


def test_target_is_the_one_that_is_asked_for():
    tell = "import kelvor_xpu, tolvane; print(kelvor_xpu.target())"
    widest = in_python(tell, KELVOR_XPU_TARGET="").stdout.strip()
    flags = Path("/proc/cpuinfo").read_text().split()
    assert widest == ("avx512" if "avx512_vnni" in flags else "avx2")
    assert in_python(tell, KELVOR_XPU_TARGET="scalar").stdout.strip() == "scalar"
    refused = in_python("import tolvane", KELVOR_XPU_TARGET="avx1024").stderr
    assert 'ImportError: KELVOR_XPU_TARGET must be scalar, avx2 or avx512, but is "avx1024"' in refused
    if widest == "avx2":
        refused = in_python("import tolvane", KELVOR_XPU_TARGET="avx512").stderr
        assert "ImportError: KELVOR_XPU_TARGET asks for the target avx512, but this CPU lacks" in refused


def test_targets_share_no_symbols():
    """What is compiled for one target binds to nothing of another: each library shows one symbol only."""
    libraries = sorted(Path(tolvane.__file__).parent.glob("libtolvane-*.so"))
    assert libraries
    for library in libraries:
        lines = subprocess.check_output(["nm", "-D", "--defined-only", library], text=True).splitlines()
        assert [line.split()[-1] for line in lines] == ["tolvane_target_library"]
    lines = subprocess.check_output(["nm", "-DC", "--defined-only", tolvane.__file__], text=True)
    for name in (
        *("add_rms_norm", "add_layer_norm", "add_add_rms_norm", "add_add_layer_norm"),
        *("get_workgroup_size", "initialize_gpu_type", "is_sysarr_enabled"),
    ):
        assert f" T {name}(" in lines
