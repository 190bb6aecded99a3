"""Every operator of PyTorch's table on the xpu device against the same operator on the CPU.

Two samples of each, or as many as KELVOR_XPU_TEST_SAMPLES says; 0 are all there are.
"""

from __future__ import annotations

import os
from typing import Any, Iterator

import pytest
import torch
from samples import OPERATORS, call, map_tensors, samples, strided, tensors, to_device

import kelvor_xpu  # noqa: F401

pytestmark = pytest.mark.filterwarnings("ignore")

COUNT = int(os.environ.get("KELVOR_XPU_TEST_SAMPLES", "2")) or None
NOT_COMPARABLE = ("to_sparse", "sparse.sampled_addmm", "sparse.mm")  # dense tensors only
NO_VALUES = ("empty", "empty_like", "empty_permuted", "empty_strided")
NO_VALUES += ("new_empty", "new_empty_strided")
NO_MEAN = "the mean's divisor cannot be made on any device"
NOT_REDUCED = {
    ("polar", torch.half): "the CPU has no complex numbers of halves",
    ("nn.functional.ctc_loss", torch.half): NO_MEAN,
    ("nn.functional.ctc_loss", torch.bfloat16): NO_MEAN,
}
RESOLUTION = {torch.half: 2.0**-10, torch.bfloat16: 2.0**-7}


@pytest.fixture(autouse=True, scope="module")
def one_thread() -> Iterator[None]:
    """The samples are small, and waking threads for them takes longer than they do."""
    before = torch.get_num_threads()
    torch.set_num_threads(1)
    yield
    torch.set_num_threads(before)


def full_name(op: Any) -> str:
    return f"{op.name}-{op.variant_test_name}" if op.variant_test_name else op.name


def comparable(operators: list[Any]) -> list[Any]:
    return [
        pytest.param(op, id=full_name(op))
        for op in operators
        if op.name not in NOT_COMPARABLE and "jiterator" not in op.name  # compiles for GPUs
    ]


def on_xpu(op: Any, arguments: Any) -> Any:
    """A copy of ``arguments`` on the device; tensor_split wants its indices on the CPU, whatever the device."""
    (first, *rest), named = to_device(arguments, "xpu")
    return ([first, *arguments[0][1:]] if op.name == "tensor_split" else [first, *rest]), named


def call_on_xpu(op: Any, arguments: Any) -> Any:
    result = call(op, on_xpu(op, arguments))
    # These make their result on the CPU where no device is named, whatever their numbers are.
    if op.name not in ("arange", "linspace", "logspace") or "device" in arguments[1]:
        assert all(t.device.type == "xpu" for t in tensors(result))
    return result


def assert_same(actual: Any, expected: Any, op: Any = None) -> None:
    if op is not None and op.name in NO_VALUES:
        made, wanted = ([(t.shape, t.stride(), t.dtype) for t in tensors(x)] for x in (actual, expected))
        assert made == wanted
        return
    on_cpu = map_tensors(actual, lambda t: t.cpu())
    torch.testing.assert_close(on_cpu, expected, equal_nan=True, check_stride=False)


def assert_rounded(actual: Any, exact: Any, dtype: torch.dtype) -> None:
    """``actual`` is ``exact`` to a few units in the last place, its own or the largest value's."""
    for got, want in zip(tensors(actual), tensors(exact), strict=True):
        want = want.to(got.dtype)
        if not got.dtype.is_floating_point:
            continue
        size = want[want.isfinite()].abs().max().item() if want.isfinite().any() else 0.0
        bound = 8 * RESOLUTION[dtype]
        tolerances = {"rtol": bound, "atol": bound * max(size, 0.1)}
        torch.testing.assert_close(got.cpu(), want, **tolerances, equal_nan=True)


@pytest.mark.parametrize("dtype", [torch.float32, torch.float64, torch.int64], ids=str)
@pytest.mark.parametrize("op", comparable(OPERATORS))
def test_values_equal_the_cpus(op: Any, dtype: torch.dtype) -> None:
    compared = 0
    for arguments in samples(op, dtype, COUNT):
        for variant in (arguments, map_tensors(arguments, strided)):
            try:
                expected = call(op, to_device(variant, "cpu"))
            except RuntimeError:
                continue  # e.g. a view that strides forbid
            assert_same(call_on_xpu(op, variant), expected, op)
            compared += 1
    if compared == 0:
        pytest.skip("no sample of this type")


@pytest.mark.parametrize("dtype", [torch.half, torch.bfloat16], ids=str)
@pytest.mark.parametrize("op", comparable(OPERATORS))
def test_reduced_types_equal_the_cpus_or_float_rounded(op: Any, dtype: torch.dtype) -> None:
    if (reason := NOT_REDUCED.get((full_name(op), dtype))) is not None:
        pytest.skip(reason)
    compared = 0
    for arguments in samples(op, dtype, COUNT):
        wide = map_tensors(arguments, lambda t: t.float() if t.dtype is dtype else t)
        try:
            expected = call(op, to_device(arguments, "cpu"))
        except RuntimeError as error:
            expected = None
            if "not implemented for" not in str(error):
                continue
        actual = call_on_xpu(op, arguments)
        compared += 1
        if expected is not None:
            try:
                assert_same(actual, expected, op)
                continue
            except AssertionError:
                pass  # sums that the CPU rounds at every step
        assert_rounded(actual, call(op, to_device(wide, "cpu")), dtype)
    if compared == 0:
        pytest.skip("no sample of this type")


@pytest.mark.parametrize("op", comparable([op for op in OPERATORS if op.supports_autograd]))
def test_gradients_equal_the_cpus(op: Any) -> None:
    if op.name == "as_strided_scatter":
        pytest.skip("the CPU's gradient is not defined")
    compared = 0
    for arguments in samples(op, torch.float32, COUNT):
        if arguments[1].get("sparse"):
            continue  # dense tensors only
        try:
            expected = gradients(op, to_device(arguments, "cpu"))
        except RuntimeError:
            continue  # not differentiable for these arguments
        assert_same(gradients(op, on_xpu(op, arguments)), expected)
        compared += 1
    if compared == 0:
        pytest.skip("no differentiable sample")


def gradients(op: Any, arguments: Any) -> list[torch.Tensor]:
    inputs = [t.requires_grad_() for t in tensors(arguments) if t.is_floating_point()]
    outputs = [t for t in tensors(call(op, arguments)) if t.requires_grad and t.is_floating_point()]
    total = sum((t * t.detach().cos()).sum() for t in outputs)
    if not isinstance(total, torch.Tensor):
        raise RuntimeError("nothing to differentiate")
    found = torch.autograd.grad(total, inputs, allow_unused=True)
    return [gradient for gradient in found if gradient is not None]
