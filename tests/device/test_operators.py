"""Every operator of PyTorch's table on the xpu device against the same operator on the CPU."""

from __future__ import annotations

from typing import Any

import pytest
import torch
from samples import OPERATORS, call, map_tensors, samples, strided, tensors, to_device

import kelvor_xpu  # noqa: F401

pytestmark = pytest.mark.filterwarnings("ignore")

NOT_COMPARABLE = {
    "empty": "no values",
    "empty_like": "no values",
    "new_empty": "no values",
    "new_empty_strided": "no values",
    "to_sparse": "dense tensors only",
    "sparse.sampled_addmm": "dense tensors only",
    "tensor_split": "wants its indices on the CPU, on any device",
    "linalg.eigvals": "PyTorch mixes devices in its own implementation",
}
NO_HALF = {
    "nn.functional.ctc_loss": "refused before a kernel is asked",
    "nanquantile": "refused before a kernel is asked",
    "polar": "complex numbers of halves",
    "quantile": "refused before a kernel is asked",
    "stft": "complex numbers of halves",
    "istft": "complex numbers of halves",
    "linalg.pinv-singular": "its samples cannot be made in half",
    "nn.functional.fractional_max_pool3d": "picks its windows by random numbers that are halves",
    "nn.functional.soft_margin_loss": "built of steps, of which exp overflows in half",
}
RESOLUTION = {torch.half: 2.0**-10, torch.bfloat16: 2.0**-7}


def full_name(op: Any) -> str:
    return f"{op.name}-{op.variant_test_name}" if op.variant_test_name else op.name


def comparable(operators: list[Any]) -> list[Any]:
    return [
        pytest.param(op, id=full_name(op))
        for op in operators
        if op.name not in NOT_COMPARABLE and "jiterator" not in op.name  # compiles for GPUs
    ]


def assert_same(actual: Any, expected: Any) -> None:
    assert all(t.device.type == "xpu" for t in tensors(actual))
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
        torch.testing.assert_close(
            got.cpu(), want, rtol=bound, atol=bound * max(size, 0.1), equal_nan=True
        )


@pytest.mark.parametrize("dtype", [torch.float32, torch.float64, torch.int64], ids=str)
@pytest.mark.parametrize("op", comparable(OPERATORS))
def test_values_equal_the_cpus(op: Any, dtype: torch.dtype) -> None:
    compared = 0
    for arguments in samples(op, dtype, 4):
        for variant in (arguments, map_tensors(arguments, strided)):
            try:
                expected = call(op, to_device(variant, "cpu"))
            except RuntimeError:
                continue  # e.g. a view that strides forbid
            assert_same(call(op, to_device(variant, "xpu")), expected)
            compared += 1
    if compared == 0:
        pytest.skip("no sample of this type")


@pytest.mark.parametrize("dtype", [torch.half, torch.bfloat16], ids=str)
@pytest.mark.parametrize("op", comparable(OPERATORS))
def test_reduced_types_equal_the_cpus_or_float_rounded(op: Any, dtype: torch.dtype) -> None:
    if dtype is torch.half and full_name(op) in NO_HALF:
        pytest.skip(NO_HALF[full_name(op)])
    compared = 0
    for arguments in samples(op, dtype, 3):
        wide = map_tensors(arguments, lambda t: t.float() if t.dtype is dtype else t)
        try:
            expected = call(op, to_device(arguments, "cpu"))
        except RuntimeError as error:
            expected = None
            if "not implemented for" not in str(error):
                continue
        actual = call(op, to_device(arguments, "xpu"))
        compared += 1
        if expected is not None:
            try:
                assert_same(actual, expected)
                continue
            except AssertionError:
                pass  # sums that the CPU rounds at every step
        assert_rounded(actual, call(op, to_device(wide, "cpu")), dtype)
    if compared == 0:
        pytest.skip("no sample of this type")


UNINITIALISED_ON_THE_CPU = {"as_strided_scatter"}


@pytest.mark.parametrize("op", comparable([op for op in OPERATORS if op.supports_autograd]))
def test_gradients_equal_the_cpus(op: Any) -> None:
    if op.name in UNINITIALISED_ON_THE_CPU:
        pytest.skip("the CPU's gradient is not defined")
    compared = 0
    for arguments in samples(op, torch.float32, 2):
        try:
            expected = gradients(op, to_device(arguments, "cpu"))
        except RuntimeError:
            continue  # not differentiable for these arguments
        assert_same(gradients(op, to_device(arguments, "xpu")), expected)
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
