"""What is the linear layer's own: its routes, slices of an expansion, sizes, settings, and its gradient."""

from __future__ import annotations

import numpy as np
import pytest
import kelvor_xpu
import tolvane
import torch
from numpy.testing import assert_allclose

import arithmetic
import linear_routes as routes
from cases import DEVICE_NAMES, on_xpu
from linear_cases import BATCH_LIMIT, DEQUANT, Product, weight
from matvec_reference import dense
from packed import FORMATS, random_weight

ALL_ROWS = (0, 1, 2, 30)


def ones(rows: int, state: int = 64, dtype: torch.dtype = torch.float32) -> torch.Tensor:
    return torch.ones(rows, state, dtype=dtype, device="xpu")


def zero_bytes(count: int) -> torch.Tensor:
    return torch.zeros(count, dtype=torch.uint8, device="xpu")


def packed(form: str, rows: int, state: int = 64) -> torch.Tensor:
    return on_xpu(random_weight(FORMATS[form], rows, state, 5).bytes)


@pytest.mark.parametrize("name", DEVICE_NAMES)
def test_routes_shapes_and_forms(results, name):
    device_class = DEVICE_NAMES.index(name)
    observed = results(KELVOR_XPU_DEVICE_NAME=name, KELVOR_XPU_GUARD_PAGES="1")
    group, outputs = (64 if device_class == 0 else 32), (8 if device_class == 5 else 2)
    for i, (call, expected) in enumerate(routes.CALLS):
        qtype, _, output, _, environment = call
        route, shapes = str(observed[f"route{i}"]), observed[f"shapes{i}"].tolist()
        tiled = expected[device_class] == "t"
        assert route == (routes.DENSE if tiled else routes.LETTERS[expected[device_class]]), call
        if route == routes.ONE:
            per_group = 1 if qtype in (6, 7) else outputs if qtype == 2 else 2
            assert shapes == [[-(-output // per_group), group, 0]], call
        elif route == routes.ENGINE:
            assert shapes == [[output // (16 if device_class == 0 else 8), 8, 0]], call
        elif route == routes.FEW:
            assert shapes == [[-(-output // 2), group, 0]], call
        elif route == routes.DENSE:
            # Rows of 64 elements: a work-item takes 4 or 2 elements of a four-bit format, 2 or 1 of a byte-wide one.
            if qtype in (6, 7, 11):
                size, rows = 256, [-(-output * 64 // (4 if qtype == 11 else 2) // 256)]
            else:
                size = (32 if qtype in (8, 15, 19) else 16) * (1 if device_class == 0 else 2)
                # What is expanded at a time stays in a cache.
                step = int(environment.get("TILE_SIZE", 4096)) if tiled else (4 << 20) // (64 * 4)
                rows = [min(step, output - i) for i in range(0, output, step)]
            waits = qtype != 7 and not (qtype == 2 and device_class == 0)
            assert shapes == [[groups, size, int(waits)] for groups in rows], call


@pytest.mark.parametrize("size", routes.TILE_SIZES)
def test_slices_give_what_the_whole_expansion_gives(results, size):
    """Of a positive number of rows; the others are refused where slices would be made."""
    seen = results("routes", KELVOR_XPU_DEVICE_NAME="Vela(TM)")
    step = int(size.removesuffix("-rows"))
    if step <= 0:
        assert str(seen[f"tiled{size}"]) == f'TILE_SIZE must be a positive number of weight rows, but it is "{size}"'
        return
    # The same elements, which the BLAS may sum in another order for another shape.
    assert_allclose(seen[f"tiled{size}"], seen["dense"], atol=1e-12)
    # The output, one slice, and the slice's product with what the multiplication needs besides.
    step = min(step, routes.OUTPUT)
    assert 0 < seen[f"peak{size}"] <= 8 * (routes.ROWS * routes.OUTPUT + step * routes.STATE + 3 * routes.ROWS * step)


@pytest.mark.parametrize("rows, output", [(21, 33), (64, 1900), (65, 33)])
@pytest.mark.parametrize("form", FORMATS)
def test_many_rows_multiply_the_dense_weight(form, rows, output):
    """1900 rows of 576 floats are expanded in two slices."""
    for dtype, tolerance in (("float32", 2e-6), ("float16", 2e-3)):
        case = Product(form, dtype, rows, 576, output)
        elements = dense(weight(form, 576, output), arithmetic.ALL[dtype]).astype(np.float64)
        expected = case.activations(rows, 576).astype(np.float64) @ elements.T
        result = tolvane.forward_new(*case.arguments()).cpu().double().numpy()
        assert_allclose(result, expected, atol=tolerance * np.abs(expected).max())


@pytest.mark.parametrize("form", FORMATS)
def test_weights_of_no_bytes_no_rows_spare_bytes_and_parts(form):
    """In the order of the checks, and in the words of the route that the call takes."""
    qtype, size = FORMATS[form].qtype, FORMATS[form].block_bytes
    before = kelvor_xpu.submission_count()
    for rows in ALL_ROWS:
        x = ones(rows, dtype=torch.half)
        result = tolvane.forward_new(x, zero_bytes(0), qtype, 4096)
        assert result.shape == (rows, 0) and result.dtype == x.dtype and result.device.type == "xpu"
        for wrong, count, message in (
            (x, size - 1, "bytes hold no row of 64 elements"),
            (x.int(), size, "not implemented for 'Int'"),
            (ones(rows, 100), 99 * 68, "100 must|multiple of 64"),
            (ones(rows, 80), 99 * 68, "80 must be a multiple of 64|multiple of 64.* got 80"),
        ):
            with pytest.raises(RuntimeError, match=message):
                tolvane.forward_new(wrong, zero_bytes(count), qtype, 0)
    if form in BATCH_LIMIT:
        limit = BATCH_LIMIT[form]
        for rows, divisor in ((1, 16), (2, 16), (limit, 16), (limit + 1, 64)):
            with pytest.raises(RuntimeError, match=f"^100 must be a multiple of {divisor}$"):
                tolvane.forward_new(ones(rows, 100), zero_bytes(10 * size), qtype, 0)
    if form in DEQUANT:
        assert tolvane.dequant(x, zero_bytes(0), qtype).shape == (0, 64)
    assert tolvane.forward_new(ones(0), zero_bytes(10 * size), qtype, 0).shape == (0, 10)
    assert kelvor_xpu.submission_count() == before
    assert tolvane.forward_new(ones(1), zero_bytes(10 * size + 1), qtype, 0).shape == (1, 10)


@pytest.mark.parametrize("variable, parser", [("TILE_THRESHOLD", "stoll"), ("TILE_SIZE", "stoull")])
def test_malformed_settings_keep_their_class_and_are_named(monkeypatch, variable, parser):
    for text, error in (("many", ValueError), ("", ValueError), ("9" * 30, IndexError)):
        monkeypatch.setenv(variable, text)
        for rows in ALL_ROWS:
            with pytest.raises(error, match=f'^{parser}: {variable} must be.* "{text}"$'):
                tolvane.forward_new(ones(rows), packed("q4_0", 4), 2, 0)
        tolvane.forward_new(ones(1), packed("q4_1", 4), 3, 0)
    for text in ("4096-rows", "4096 rows", "0", "-4096"):
        monkeypatch.setenv(variable, text)
        tolvane.forward_new(ones(1), packed("q4_0", 4), 2, 0)


@pytest.mark.parametrize("form", FORMATS)
def test_a_gradient_on_every_route(form):
    """Against differences of the layer itself, which are exact up to rounding, as it is linear. The elements of an
    expansion may be rounded to float, which those of one row are not."""
    weight, qtype = packed(form, 9, 128), FORMATS[form].qtype
    torch.manual_seed(1)
    for rows in (1, 3, 30):
        x, direction = torch.randn(2, rows, 128, dtype=torch.double).to("xpu")
        x.requires_grad_()
        factor = torch.randn(rows, 9, dtype=torch.double).to("xpu")
        y = tolvane.forward_new(x, weight, qtype, 0)
        (gradient,) = torch.autograd.grad((y * factor).sum(), x)
        with torch.no_grad():
            assert not tolvane.forward_new(x, weight, qtype, 0).requires_grad
        ahead, behind = (tolvane.forward_new(x.detach() + s * direction, weight, qtype, 0) for s in (0.5, -0.5))
        difference = ((ahead - behind) * factor).sum().item()
        terms = (gradient * direction).abs().sum().item()
        assert abs((gradient * direction).sum().item() - difference) <= 2.0**-23 * max(terms, 1), rows


def test_an_adapter_before_a_packed_weight_learns():
    """Half precision, through a second derivative too, against a dense layer of the same elements."""
    weight = packed("q4_0", 9)
    dense = tolvane.dequant(torch.empty(0, 64, dtype=torch.half, device="xpu"), weight, 2).float()
    x = (torch.randint(-8, 8, (1, 64)) / 8).half().to("xpu").requires_grad_()
    y = tolvane.forward_new(x, weight, 2, 0)
    (gradient,) = torch.autograd.grad((y * y.detach()).sum(), x, retain_graph=True)
    assert gradient.dtype == torch.half
    torch.testing.assert_close(gradient.float(), y.detach().float() @ dense, rtol=2e-3, atol=2e-3)
    (first,) = torch.autograd.grad(y.float().pow(2).sum(), x, create_graph=True)
    (second,) = torch.autograd.grad(first.float().sum(), x)
    expected = 2 * (dense @ torch.ones(64, device="xpu")) @ dense
    torch.testing.assert_close(second.float()[0], expected, rtol=1e-2, atol=1e-2)
