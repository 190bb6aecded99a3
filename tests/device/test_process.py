"""What needs a process of its own: settings, forks, exits, and the package's own functions."""

from __future__ import annotations

import shutil
import textwrap
from pathlib import Path
from typing import Any, Callable

import pytest
import torch

import kelvor_xpu

IMPORTS = "import torch, kelvor_xpu\n"


@pytest.fixture
def output(in_python) -> Callable[..., str]:
    """What code prints that goes well."""

    def run(code: str, imports: str = IMPORTS, **variables: str) -> str:
        done = in_python(imports + textwrap.dedent(code), **variables)
        assert done.returncode == 0, done.stderr
        return done.stdout.strip()

    return run


def test_settings_name_the_device(output) -> None:
    show = "print(kelvor_xpu.device_name(), '|', torch.xpu.get_device_name(0))"
    assert output(show, KELVOR_XPU_DEVICE_NAME="Some Card") == "Some Card | Some Card"
    plain = output(show, KELVOR_XPU_DEVICE_NAME="")
    assert plain == "Kelvor XPU (host emulation) | Kelvor XPU (host emulation)"


@pytest.mark.parametrize(
    ("variable", "value"),
    [
        *(("KELVOR_XPU_THREADS", value) for value in ("0", "-1", "4k", "99999999999", " 2")),
        ("KELVOR_XPU_MAX_WORK_GROUP_SIZE", "many"),
    ],
)
def test_malformed_numbers_are_refused_at_every_use(output, variable: str, value: str) -> None:
    code = """
        for _ in range(2):
            try:
                torch.ones(2, device="xpu")
            except Exception as error:
                print(error)
    """
    lines = output(code, **{variable: value}).splitlines()
    said = f'{variable} must be a whole number from 1 to 2147483647, but it is "{value}"'
    assert len([line for line in lines if said in line]) == 2


@pytest.mark.parametrize("threads", ["1", "3"])
def test_thread_counts_do_not_change_results(output, threads: str) -> None:
    code = """
        torch.manual_seed(0)
        x, w = torch.randn(7, 512).half(), torch.randn(900, 512).half()
        print(float((x.to("xpu") @ w.to("xpu").t()).float().sum()), torch.get_num_threads())
    """
    assert output(code, KELVOR_XPU_THREADS=threads) == output(code, KELVOR_XPU_THREADS="2")


def test_a_forked_child_can_use_the_device(output) -> None:
    code = """
        import os
        w = torch.randn(600, 600, dtype=torch.half, device="xpu")
        before = (w @ w.t()).sum().item()
        child = os.fork()
        if child == 0:
            same = (w @ w.t()).sum().item() == before
            new = torch.ones(1000, 1000, device="xpu").sum().item() == 1e6
            os._exit(0 if same and new else 1)
        assert os.waitpid(child, 0)[1] == 0
        assert (w @ w.t()).sum().item() == before
    """
    output(code)


def test_exit_with_live_tensors_and_a_sleeping_thread(output) -> None:
    code = """
        import threading, time
        keep = torch.randn(300, 300, device="xpu", requires_grad=True)
        (keep @ keep).sum().backward()

        def work():
            reduced = torch.randn(900, 900, device="xpu").half()
            product = reduced[:200] @ reduced.t()  # the pool's threads
            done.set()
            time.sleep(600)  # with tensors of its own

        done = threading.Event()
        threading.Thread(target=work, daemon=True).start()
        done.wait()
        print(keep.shape[0])
    """
    assert output(code) == "300"


def test_a_second_copy_of_the_library_changes_nothing(output, tmp_path: Path) -> None:
    package = Path(kelvor_xpu.__file__).parent
    library = next(path for place in (package, package.parent) for path in place.glob("libkelvor-xpu.so"))
    copy = shutil.copy(library, tmp_path / "libother-xpu.so")
    code = f"""
        import ctypes
        x = torch.ones(3, device="xpu")
        ctypes.CDLL({str(copy)!r})
        assert (x + 1).tolist() == [2.0] * 3 and kelvor_xpu.memory_allocated() == 12
    """
    output(code)


def test_memory_is_counted_reused_and_returned(output) -> None:
    code = """
        import gc
        assert kelvor_xpu.memory_allocated() == 0
        x = torch.empty(1 << 20, device="xpu")
        y = x[::2].clone()
        assert kelvor_xpu.memory_allocated() == 6 << 20, kelvor_xpu.memory_allocated()
        assert x.data_ptr() % 64 == y.data_ptr() % 64 == 0
        place = x.data_ptr()
        del x
        assert torch.empty((1 << 20) - 9, device="xpu").data_ptr() == place
        h = torch.randn(64, 64, device="xpu").half().softmax(-1)  # passes through scratch
        taken = torch.nonzero(torch.ones(50, device="xpu"))  # allocated by the CPU's kernel
        assert kelvor_xpu.memory_allocated() == (2 << 20) + 8192 + 400
        del y, h, taken
        gc.collect()
        assert kelvor_xpu.memory_allocated() == 0 and kelvor_xpu.max_memory_allocated() >= 6 << 20
        assert torch.xpu.memory_reserved() > 0
        kelvor_xpu.empty_cache()
        kelvor_xpu.reset_peak_memory_stats()
        assert torch.xpu.memory_reserved() == kelvor_xpu.max_memory_allocated() == 0
        torch.xpu.set_per_process_memory_fraction(1e-9)  # some bytes
        try:
            torch.empty(4096, device="xpu")
        except torch.OutOfMemoryError as error:
            assert "limit" in str(error)
        else:
            raise AssertionError("there is a limit")
        torch.xpu.set_per_process_memory_fraction(1.0)
        torch.empty(4096, device="xpu")
    """
    output(code)


def test_what_was_freed_last_stays_when_much_is_free(output) -> None:
    code = """
        for size in (100, 120, 140, 80):  # MB, one after the other: 360 would be free
            torch.empty(size << 20, dtype=torch.uint8, device="xpu")
            assert torch.xpu.memory_reserved() < 257 << 20
        before = torch.xpu.memory_reserved()
        x = torch.empty(80 << 20, dtype=torch.uint8, device="xpu")
        del x
        assert torch.xpu.memory_reserved() == before > 80 << 20
        y = torch.empty(100 << 20, dtype=torch.uint8, device="xpu")  # the oldest has gone
        assert torch.xpu.memory_reserved() == before + (104 << 20)  # its size class
    """
    output(code)


def test_the_device_module() -> None:
    assert torch.xpu.is_available() and torch.xpu.is_initialized() and torch.xpu.device_count() == 1
    assert torch.accelerator.current_accelerator() == torch.device("xpu")
    assert torch.ones(1).xpu().is_xpu and next(torch.nn.Linear(1, 1).xpu().parameters()).is_xpu
    for index in (torch.xpu.current_device, torch.accelerator.current_device_index):
        with torch.xpu.device(0):
            assert index() == 0
    for choose in (torch.xpu.set_device, torch.accelerator.set_device_index):
        with pytest.raises(RuntimeError, match="one xpu device, xpu:0, but xpu:1"):
            choose(1)
    free, total = torch.xpu.mem_get_info()
    assert 0 < free <= total == torch.xpu.get_device_properties().total_memory
    state = torch.xpu.get_rng_state()
    first = torch.rand(3, device="xpu")
    torch.xpu.set_rng_state(state)
    assert torch.equal(torch.rand(3, device="xpu"), first)
    # PyTorch's own operators are the CPU's kernels and submit nothing.
    kelvor_xpu.clear_submissions()
    count = kelvor_xpu.submission_count()
    torch.ones(3, device="xpu").add_(1)
    assert kelvor_xpu.submission_count() == count and kelvor_xpu.submissions() == []


@pytest.mark.parametrize("device", [torch.xpu, torch.accelerator])
def test_streams_and_events(device: Any) -> None:
    default = device.current_stream()
    assert default.stream_id == 0
    other = torch.xpu.Stream()
    start, end = torch.xpu.Event(enable_timing=True), torch.Event("xpu", enable_timing=True)
    with other:
        assert device.current_stream() == other != default
        start.record()
        torch.randn(64, 64, device="xpu").sum()
        other.record_event(end)
    device.synchronize()
    assert device.current_stream() == default and start.elapsed_time(end) > 0 and end.query()
    with torch.xpu.stream(other):
        assert device.current_stream() == other
    assert isinstance(other, torch.xpu.Stream) and isinstance(start, torch.xpu.Event)
    assert len({torch.xpu.Stream().stream_id for _ in range(64)}) == 32
    with pytest.raises(ValueError, match="enable_timing"):
        start.elapsed_time(torch.xpu.Event())


def test_a_late_import_says_so(output, in_python) -> None:
    code = """
        import torch
        torch.ones(1, requires_grad=True).sum().backward()  # counts the devices
        import kelvor_xpu
    """
    done = in_python(textwrap.dedent(code), TORCH_DEVICE_BACKEND_AUTOLOAD="0")
    assert "ImportError: kelvor_xpu was imported too late" in done.stderr
    early = "import kelvor_xpu, torch; print(torch.ones(1).xpu().item())"
    assert output(early, imports="", TORCH_DEVICE_BACKEND_AUTOLOAD="0") == "1.0"
    # torch's own attempt to load the device comes in between
    assert output(early, imports="") == "1.0"


@pytest.mark.parametrize(("name", "value"), [("PYTHON", "2.7"), ("TORCH", "1.0.0")])
def test_another_python_or_torch_is_told_what_to_do(in_python, name: str, value: str) -> None:
    code = f"""
        import sys, types
        built_for = types.ModuleType("kelvor_xpu._built_for")
        built_for.PYTHON, built_for.TORCH = "%d.%d" % sys.version_info[:2], "2.13.0"
        built_for.{name} = {value!r}
        sys.modules["kelvor_xpu._built_for"] = built_for
        import torch
        assert torch.ones(2).sum() == 2 and "kelvor_xpu._C" not in sys.modules
        import kelvor_xpu
    """
    warned, refused = in_python(textwrap.dedent(code)).stderr.split("Traceback")
    assert "UserWarning: the xpu device is not available: tolvane's modules are built for" in warned
    for said in ("ImportError: tolvane's modules", f" {value}, but", "--no-build-isolation"):
        assert said in refused
