"""The module's door: what it publishes, and what it says where it cannot be loaded."""

from __future__ import annotations

import inspect
import subprocess
import sys
from pathlib import Path

import pytest

tolvane = pytest.importorskip("tolvane")

# In the order of registration, with the docstrings they were given.
OPERATORS = {
    "forward_new": "Linear forward (XPU) new format",
    "dequant": "Dequantize weight (XPU)",
    "mlp_forward_xpu": "fused mlp",
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
    assert "ImportError" in done.stderr and "install python3-torch" in done.stderr


def test_stub_documents_every_operator():
    stub = Path(tolvane.__file__).with_name("tolvane.pyi").read_text()
    assert [line.split("(")[0][4:] for line in stub.splitlines() if line.startswith("def ")] == list(OPERATORS)
