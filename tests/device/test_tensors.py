"""Views, out= arguments, copies, errors, random numbers: what the fallback has to get right."""

from __future__ import annotations

import copy
import io
import pickle
from pathlib import Path
from typing import Callable

import numpy as np
import pytest
import torch

import kelvor_xpu  # noqa: F401

FLOATS = [torch.float64, torch.float32, torch.half, torch.bfloat16]
INTEGERS = [torch.int64, torch.int32, torch.int16, torch.int8, torch.uint8]
TYPES = [*FLOATS, *INTEGERS, torch.bool, torch.complex64]


def numbers(*size: int) -> torch.Tensor:
    return torch.arange(float(np.prod(size))).view(size)


@pytest.mark.parametrize("target", TYPES, ids=str)
@pytest.mark.parametrize("source", TYPES, ids=str)
def test_copies_convert_like_the_cpu(source: torch.dtype, target: torch.dtype) -> None:
    if source.is_complex and not target.is_complex:
        pytest.skip("drops the imaginary part with a warning, as on the CPU")
    values = numbers(3, 4).to(source)
    expected = values.t().to(target)
    for from_device, to_device in (("cpu", "xpu"), ("xpu", "cpu"), ("xpu", "xpu")):
        there = torch.zeros(4, 8, dtype=target, device=to_device)[:, 1:7:2]  # strided target
        there.copy_(values.to(from_device).t(), non_blocking=True)
        assert torch.equal(there.cpu(), expected[:, :3])


def test_copies_broadcast_and_keep_memory_formats() -> None:
    rows = torch.zeros(3, 4, device="xpu").copy_(torch.arange(4.0))
    assert rows.tolist() == [[0.0, 1.0, 2.0, 3.0]] * 3
    image = torch.randn(2, 3, 4, 5).to(memory_format=torch.channels_last).to("xpu")
    assert image.is_contiguous(memory_format=torch.channels_last)
    conjugate = torch.tensor([1 + 2j]).to("xpu").conj()
    assert conjugate.is_conj() and conjugate.clone().cpu().tolist() == [1 - 2j]
    assert torch.zeros(0, 3, device="xpu").cpu().shape == (0, 3)


VIEWS: dict[str, Callable[[torch.Tensor], torch.Tensor]] = {
    "transpose": lambda t: t.t(),
    "slice": lambda t: t[1:, ::2],
    "select": lambda t: t[:, 1],
    "view": lambda t: t.view(2, 12),
    "unfold": lambda t: t.unfold(1, 2, 2),
    "diagonal": lambda t: t.diagonal(),
    "view of the bits": lambda t: t.view(torch.int32),
    "split": lambda t: t.split(2, dim=1)[1],
    "as_strided": lambda t: t.as_strided((2, 2), (6, 2), 1),
    "unsafe": lambda t: t.detach().unsqueeze(0).squeeze(0),
    "complex": lambda t: torch.view_as_complex(t.view(4, 3, 2)),
}


@pytest.mark.parametrize("view", VIEWS.values(), ids=VIEWS.keys())
def test_views_share_memory_with_their_base(view: Callable[[torch.Tensor], torch.Tensor]) -> None:
    base = numbers(4, 6)
    there = base.to("xpu")
    view(base).fill_(7)
    shown = view(there)
    assert shown.device.type == "xpu" and shown.data_ptr() - there.data_ptr() >= 0
    shown.fill_(7)
    assert torch.equal(there.cpu(), base)


def test_in_place_operators_return_their_argument() -> None:
    x = numbers(2, 3).to("xpu")
    for change in (x.add_, x.mul_):
        assert change(2) is x
    assert x.t_().shape == (3, 2) and x.squeeze_().unsqueeze_(0).shape == (1, 3, 2)
    assert x.cpu().tolist() == [[[4.0, 10.0], [6.0, 12.0], [8.0, 14.0]]]
    version = x._version
    x.exp_()
    assert x._version == version + 1


@pytest.mark.filterwarnings("ignore:An output with one or more elements was resized")
@pytest.mark.parametrize("dtype", [torch.float32, torch.half], ids=str)
@pytest.mark.parametrize("size", [0, 2, 12, 100])
def test_out_arguments_take_the_results_size(size: int, dtype: torch.dtype) -> None:
    a, b = numbers(3, 4).to("xpu", dtype), numbers(4, 5).to("xpu", dtype)
    rows = torch.tensor([2, 0], device="xpu")
    for run in (
        lambda out: torch.mm(a, b, out=out),  # a kernel of the device's own
        lambda out: torch.add(a, a, out=out),  # allocates by PyTorch's rules for any device
        lambda out: torch.cat([a, a], out=out),
        lambda out: torch.index_select(a, 0, rows, out=out),  # the CPU resizes
    ):
        out = torch.empty(size, dtype=dtype, device="xpu")
        alias = out.detach()
        result = run(out)
        expected = run(None)
        assert result is out and torch.equal(out.cpu(), expected.cpu())
        if size >= expected.numel():
            assert alias.data_ptr() == out.data_ptr()
        out.add_(1)
        assert torch.equal(out.cpu(), expected.cpu() + 1)


def test_resize_and_set_change_storages() -> None:
    x = numbers(2, 3).to("xpu")
    x.resize_(4, 3)
    assert x.flatten()[:6].tolist() == [0.0, 1.0, 2.0, 3.0, 4.0, 5.0] and x.shape == (4, 3)
    y = torch.empty(0, device="xpu").set_(x.storage(), 1, (2, 2), (1, 2))
    assert y.tolist() == [[1.0, 3.0], [2.0, 4.0]]
    y.set_(x)
    assert y.data_ptr() == x.data_ptr() and y.shape == (4, 3)


def test_mixed_devices_are_refused_in_pytorchs_words() -> None:
    here, there = torch.ones(2, 2), torch.ones(2, 2, device="xpu")
    for call in (
        lambda: here + there,
        lambda: there.add_(here),
        lambda: there @ here,
        lambda: torch.nn.functional.linear(there, here),
        lambda: torch.where(there > 0, here, there),
        lambda: here.mul_(there),
        lambda: torch.cat([there, here]),
        lambda: torch.mm(there, there, out=here),
        lambda: torch.tensor(1.0).add_(torch.tensor(1.0, device="xpu")),
    ):
        with pytest.raises(RuntimeError, match="to be on the same device.*xpu:0 and cpu"):
            call()
    assert here.tolist() == [[1.0, 1.0], [1.0, 1.0]] == there.tolist()


def test_numbers_and_indices_may_stay_on_the_cpu() -> None:
    there = numbers(3).to("xpu")
    assert (there + torch.tensor(2.0)).tolist() == [2.0, 3.0, 4.0]
    assert there[torch.tensor([2, 0])].tolist() == [2.0, 0.0]
    there[torch.tensor([1])] = 9.0
    assert there.tolist() == [0.0, 9.0, 2.0] and there.sum().item() == 11.0
    assert (there.double().cpu() + 0.5).to("xpu").dtype == torch.float64
    assert (there + torch.ones(3, dtype=torch.int64, device="xpu")).dtype == torch.float32


def test_what_the_device_cannot_do_is_said() -> None:
    for call, message in (
        (lambda: torch.empty(2, device="xpu:1"), "one xpu device, xpu:0, but xpu:1"),
        (lambda: torch.empty(2, device="xpu", pin_memory=True), "pinned"),
        (lambda: torch.ones(2, device="xpu").to_sparse(), "dense tensors only"),
        (lambda: torch.ones(2, device="xpu").numpy(), "Tensor.cpu"),
        (lambda: torch.empty(1 << 60, device="xpu"), "xpu.*cannot allocate"),
    ):
        with pytest.raises((RuntimeError, TypeError), match=message):
            call()


def draw(device: str, generator: torch.Generator | None = None) -> list[list[float]]:
    """From PyTorch's default generator where none is given."""
    options = {"generator": generator, "device": device}
    ones = torch.ones(9, device=device)
    return [
        torch.randn(5, **options).tolist(),
        torch.randint(0, 99, (4,), **options).tolist(),
        torch.randperm(6, **options).tolist(),
        torch.empty_like(ones).uniform_(-1, 1, generator=generator).tolist(),
        torch.multinomial(ones, 4, generator=generator).tolist(),
    ]


def test_random_numbers_are_the_cpus() -> None:
    drawn = []
    for device in ("cpu", "xpu"):
        torch.manual_seed(5)
        dropped = torch.nn.functional.dropout(torch.ones(9, device=device), 0.5)
        drawn.append([*draw(device), dropped.tolist()])
    assert drawn[0] == drawn[1]


def test_generators_draw_the_cpus_numbers() -> None:
    here, there = torch.Generator(), torch.Generator(device="xpu")
    assert there.device == torch.device("xpu:0") and there.initial_seed() == here.initial_seed()
    before = torch.get_rng_state()
    assert draw("xpu", there.manual_seed(7)) == draw("cpu", here.manual_seed(7))
    state, copied = there.get_state(), pickle.loads(pickle.dumps(there))
    assert copied.device == there.device and copied.initial_seed() == 7
    numbers = draw("xpu", there)
    assert draw("xpu", copied) == numbers == draw("cpu", here)
    there.set_state(state)
    clone = there.clone_state()
    assert draw("xpu", there) == numbers == draw("xpu", clone)
    assert torch.equal(torch.get_rng_state(), before)  # none of it came from the default generator
    with pytest.raises(RuntimeError, match="same device"):
        torch.randn(3, generator=there)

    default = torch.xpu.default_generators[0]
    assert default.device.type == "xpu"
    with torch.random.fork_rng(device_type="xpu"):
        torch.xpu.manual_seed(5)
        first = torch.rand(2, device="xpu", generator=default)
        torch.manual_seed(5)
        assert torch.equal(torch.rand(2, device="xpu"), first)
    assert torch.equal(torch.get_rng_state(), before)


def test_pinned_memory_says_so() -> None:
    pinned = torch.arange(6.0).pin_memory()
    made = [torch.empty(3, pin_memory=True), torch.zeros_like(pinned, pin_memory=True)]
    for tensor in (pinned, pinned[2:], pinned.detach(), *made):
        assert tensor.is_pinned() and tensor.device.type == "cpu"
    assert not pinned.clone().is_pinned() and not pinned.xpu().is_pinned()
    assert pinned.pin_memory() is pinned
    assert pinned.to("xpu", non_blocking=True).tolist() == [0.0, 1.0, 2.0, 3.0, 4.0, 5.0]
    address = pinned.data_ptr()
    del pinned, tensor
    taken = [torch.empty(6) for _ in range(20)]
    assert not any(x.is_pinned() for x in taken), f"{address} is not pinned any more"
    six = torch.arange(6.0)
    loader = torch.utils.data.DataLoader(six, 3, num_workers=1, pin_memory=True)
    batches = list(loader)
    assert [batch.tolist() for batch in batches] == [[0.0, 1.0, 2.0], [3.0, 4.0, 5.0]]
    assert all(batch.is_pinned() for batch in batches)


def test_dlpack_shares_memory_both_ways() -> None:
    there = numbers(3, 4).to("xpu")
    shared = torch.from_dlpack(there[:, ::2])
    assert shared.device == there.device and shared.stride() == (4, 2)
    shared.fill_(-1)
    assert there[:, 0].tolist() == [-1.0] * 3 and there[0, 1].item() == 1.0
    again = torch.utils.dlpack.from_dlpack(torch.utils.dlpack.to_dlpack(there))
    assert again.data_ptr() == there.data_ptr()
    assert torch.from_dlpack(np.arange(3.0), device="xpu").tolist() == [0.0, 1.0, 2.0]
    assert np.array_equal(np.from_dlpack(there.cpu()), there.cpu().numpy())
    del there
    assert again[2, 3].item() == 11.0  # the memory lives as long as one of the tensors


def test_safetensors_of_the_device(tmp_path: Path) -> None:
    safetensors = pytest.importorskip("safetensors.torch")
    tensors = {str(dtype): numbers(2, 3).to("xpu", dtype) for dtype in FLOATS + INTEGERS}
    safetensors.save_file(tensors, tmp_path / "file")
    for device in ("xpu", "cpu"):
        loaded = safetensors.load_file(tmp_path / "file", device=device)
        for name, tensor in tensors.items():
            assert loaded[name].device.type == device
            assert torch.equal(loaded[name].cpu(), tensor.cpu())
    with safetensors.safe_open(tmp_path / "file", "pt", device="xpu") as file:
        assert file.get_slice("torch.float32")[:, 1:].tolist() == [[1.0, 2.0], [4.0, 5.0]]


@pytest.mark.parametrize("dtype", [torch.float32, torch.half, torch.bfloat16, torch.int64], ids=str)
def test_saving_loading_pickling_and_copying(dtype: torch.dtype) -> None:
    base = numbers(3, 4).to("xpu", dtype)
    saved = {"view": base[1:], "base": base}
    for location, device in ((None, "xpu"), ("cpu", "cpu"), ("xpu", "xpu"), ("xpu:0", "xpu")):
        file = io.BytesIO()
        torch.save(saved, file)
        file.seek(0)
        loaded = torch.load(file, map_location=location)
        assert loaded["view"].device.type == device
        assert torch.equal(loaded["view"].cpu(), base[1:].cpu())
        loaded["base"][1, 0] = 0
        assert loaded["view"][0, 0] == 0  # the two still share memory
    for clone in (pickle.loads(pickle.dumps(base.t())), copy.deepcopy(base.t())):
        assert clone.device.type == "xpu" and torch.equal(clone.cpu(), base.t().cpu())
        assert clone.data_ptr() != base.data_ptr()
    file = io.BytesIO()
    torch.save(numbers(2), file)
    file.seek(0)
    assert torch.load(file, map_location="xpu").tolist() == [0.0, 1.0]
    file.seek(0)
    with pytest.raises(RuntimeError, match=r"on XPU device 3 but torch.xpu.device_count\(\) is 1"):
        torch.load(file, map_location="xpu:3")
