"""The module's import, its targets and its device, which the process's environment decides."""

from __future__ import annotations

import subprocess
from pathlib import Path

import pytest
import tolvane


def test_without_torch_the_import_says_what_to_do(in_python):
    done = in_python("import sys; sys.modules['torch'] = None; import tolvane")
    assert "ImportError" in done.stderr and "install torch==2.13.0" in done.stderr


def test_target_is_the_one_that_is_asked_for(in_python):
    tell = "import kelvor_xpu, tolvane; print(kelvor_xpu.target())"
    widest = in_python(tell, KELVOR_XPU_TARGET="").stdout.strip()
    flags = Path("/proc/cpuinfo").read_text().split()
    assert widest == ("avx512" if "avx512_vnni" in flags else "avx2")
    assert in_python(tell, KELVOR_XPU_TARGET="scalar").stdout.strip() == "scalar"
    refused = in_python(tell, KELVOR_XPU_TARGET="avx1024").stderr
    said = 'ImportError: KELVOR_XPU_TARGET must be scalar, avx2 or avx512, but is "avx1024"'
    assert said in refused
    if widest == "avx2":
        refused = in_python(tell, KELVOR_XPU_TARGET="avx512").stderr
        said = "ImportError: KELVOR_XPU_TARGET asks for the target avx512, but this CPU lacks"
        assert said in refused


def test_targets_share_no_symbols():
    """What is compiled for one target binds to nothing of another: each library shows one symbol only."""
    libraries = sorted(Path(tolvane.__file__).parent.glob("libtolvane-*.so"))
    assert libraries
    for library in libraries:
        lines = subprocess.check_output(["nm", "-D", "--defined-only", library], text=True)
        assert [line.split()[-1] for line in lines.splitlines()] == ["tolvane_target_library"]
    lines = subprocess.check_output(["nm", "-DC", "--defined-only", tolvane.__file__], text=True)
    for name in (
        *("add_rms_norm", "add_layer_norm", "add_add_rms_norm", "add_add_layer_norm"),
        *("get_workgroup_size", "initialize_gpu_type", "is_sysarr_enabled"),
    ):
        assert f" T {name}(" in lines


DEVICE_OF_THE_IMPORT = """
import os, torch, tolvane, kelvor_xpu
os.environ["KELVOR_XPU_DEVICE_NAME"] = "Rack GPU Summit"
os.environ["KELVOR_XPU_MAX_WORK_GROUP_SIZE"] = "32"
tolvane.forward_new(torch.ones(1, 64).to("xpu"), torch.ones(34, dtype=torch.uint8).to("xpu"), 2, 0)
tolvane.fused_rms_norm(torch.ones(1, 8192).to("xpu"), (8192,), None, None, 0.0)
print([record.local_size[0] for record in kelvor_xpu.submissions()])
"""
WITHOUT_NEW_THREADS = """
import resource, torch, tolvane
x, weight = torch.ones(1, 64).to("xpu"), torch.ones(5000 * 34, dtype=torch.uint8).to("xpu")
used = int(open("/proc/self/statm").read().split()[0]) * resource.getpagesize()
resource.setrlimit(resource.RLIMIT_AS, (used + (4 << 20), -1))  # a thread's stack takes 8 MiB
y = tolvane.forward_new(x, weight, 2, 0)
resource.setrlimit(resource.RLIMIT_AS, (-1, -1))
print(torch.equal(y, tolvane.forward_new(x, weight, 2, 0)), len(y.unique()))
"""


# In groups of 64 on Summit.
@pytest.mark.parametrize("code, expected", [(DEVICE_OF_THE_IMPORT, "[32, 1024]"), (WITHOUT_NEW_THREADS, "True 1")])
def test_the_device_is_that_of_the_import_and_needs_no_new_threads(in_python, code, expected):
    done = in_python(code, KELVOR_XPU_THREADS="4")
    assert (done.returncode, done.stdout.strip()) == (0, expected), done.stderr[-2000:]


def test_a_device_that_cannot_be_probed_fails_the_import(in_python):
    done = in_python("import tolvane", KELVOR_XPU_MAX_WORK_GROUP_SIZE="many")
    assert "ImportError: " in done.stderr
    assert "KELVOR_XPU_MAX_WORK_GROUP_SIZE must be a whole number" in done.stderr
