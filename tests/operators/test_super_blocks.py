"""The formats of 256 elements, q2_k and iq2_xxs, in forward_new, dequant and dequantize_rows."""

from __future__ import annotations

import kelvor_xpu
import numpy as np
import pytest
import tolvane
import torch
from numpy.testing import assert_array_equal

from cases import on_xpu
from super_block_reference import BLOCK_BYTES, QTYPE, decoded, quantized, random_records


def packed(records: np.ndarray) -> torch.Tensor:
    return on_xpu(records.reshape(-1))


def shapes() -> list[tuple[int, int, bool]]:
    """Of every kernel submitted lately: its work-items, those of a group, and whether the host waited for it."""
    log = [s for s in kelvor_xpu.submissions() if s.label == "devq_kernel"]
    return [(s.global_size[0], s.local_size[0], bool(s.waited)) for s in log]


def rows_of(indices: list[list[int]], records: np.ndarray) -> np.ndarray:
    """dequantize_rows of q2_k records [rows, blocks, 84]."""
    state = records.shape[1] * 256
    index = torch.tensor(indices, dtype=torch.int64).reshape(len(indices), -1).to("xpu")
    result = tolvane.dequantize_rows(index, packed(records), 23, state)
    assert result.dtype == torch.float32 and result.shape == (*index.shape, state)
    return result.cpu().numpy()


@pytest.mark.parametrize("form", BLOCK_BYTES)
def test_one_row_is_near_the_product_of_what_it_stands_for(form):
    """Not by the steps of the kernel: the error is that of rounding activations to 8 bits."""
    records = random_records(form, 64, 4096, 3)
    x = np.random.default_rng(4).standard_normal(4096).astype(np.float32)
    weight = decoded(form, records).reshape(64, 4096).astype(np.float64)
    result = tolvane.forward_new(on_xpu(x[None]), packed(records), QTYPE[form], 0).cpu().numpy()[0]
    step = np.abs(x.reshape(-1, 32)).max(1).repeat(32) / 127
    deviation = np.sqrt((weight**2 @ (step**2 / 12)))
    error = np.abs(result - weight @ x)
    assert np.all(error < 6 * deviation) and np.all(error.mean() > 0.2 * deviation.mean())


def test_activations_are_quantized_to_the_bit():
    """Row c of this weight is 1 in column c and 0 elsewhere, so that an output is a step times an integer."""
    records = np.zeros((256, 1, 84), np.uint8)
    records[:, 0, :16], records[:, 0, 80:82] = 0x01, np.float16([1]).view(np.uint8)
    c = np.arange(256)
    records[c, 0, 16 + c // 128 * 32 + c % 32] = 1 << 2 * (c % 128 // 32)
    weight = packed(records)
    random = np.random.default_rng(5)
    rows = [random.standard_normal(256) * 10.0**power for power in (-9, -4, 0, 3, 6)]
    rows += [random.integers(-254, 255, 256) / 2, np.where(c % 32 == 5, 127, 0)]
    rows += [np.where(c == 3, -1, c == 9), np.linspace(-1e-44, 1e-44, 256)]
    rows += [np.where(c % 32 == 0, 127, c - 127.5)]
    for row in rows:
        for dtype in (np.float16, np.float32, np.float64):
            with np.errstate(over="ignore"):
                x = row.astype(dtype)
            q, d = quantized(x if dtype == np.float64 else x.astype(np.float32))
            with np.errstate(over="ignore", invalid="ignore"):
                expected = (q * d[:, None]).reshape(-1).astype(np.float32).astype(dtype)
            if not np.isfinite(d).all():
                expected[:] = np.nan  # the zeros of every row are multiplied by that step
            result = tolvane.forward_new(on_xpu(x[None]), weight, 23, 0).cpu().numpy()[0]
            assert_array_equal(result, expected)
    fives = on_xpu(rows[6].astype(np.float32))
    assert torch.equal(tolvane.forward_new(fives[None], weight, 23, 0)[0], fives)


@pytest.mark.parametrize("form", BLOCK_BYTES)
def test_routes_forms_and_gradient(form):
    records = random_records(form, 3, 512, 6)
    weight, x, group = packed(records), torch.randn(2, 512), 64 if form == "q2_k" else 32
    dense = torch.from_numpy(decoded(form, records).reshape(3, 512))
    for rows, seen in ((1, [(512, 256, True), (3 * 32, 32, True)]), (2, [(6 * group, group, True)])):
        kelvor_xpu.clear_submissions()
        leaf = x[:rows].to("xpu").requires_grad_()
        y = tolvane.forward_new(leaf, weight, QTYPE[form], 0)
        assert shapes() == seen
        y.sum().backward()
        torch.testing.assert_close(leaf.grad.cpu(), dense.sum(0).expand(rows, 512))
    torch.testing.assert_close(y.cpu(), x @ dense.t())
    empty = weight[:0]
    for rows, bytes_ in ((0, weight), (0, empty), (1, empty), (2, empty)):
        zeros = torch.zeros(rows, 512, dtype=torch.half, device="xpu")
        result = tolvane.forward_new(zeros, bytes_, QTYPE[form], 0)
        output = len(bytes_) // (2 * BLOCK_BYTES[form])
        assert result.shape == (rows, output) and result.dtype == torch.half


def test_rows_that_indices_pick():
    records = random_records("q2_k", 7, 512, 9, any_scales=True)
    table = decoded("q2_k", records).reshape(7, 512)
    for indices in ([[5]], [[0, 6, 6], [3, 1, 6]], [[6], [0]]):
        assert_array_equal(rows_of(indices, records), table[np.array(indices)])
    kelvor_xpu.clear_submissions()
    rows_of([[0, 6, 6], [3, 1, 6]], records)
    assert shapes() == [(12 * 64, 64, True)]
    spare = torch.cat([packed(records), torch.zeros(167, dtype=torch.uint8, device="xpu")])
    index = torch.tensor([[6]]).to("xpu")
    assert tolvane.dequantize_rows(index, spare, 23, 512).shape == (1, 1, 512)

    before = kelvor_xpu.submission_count()
    weight = packed(records)
    for shape in ((0, 3), (3, 0), (0, 0)):
        index = torch.zeros(shape, dtype=torch.int64, device="xpu")
        assert tolvane.dequantize_rows(index, weight, 23, 512).shape == (*shape, 512)
    other = tolvane.dequantize_rows(torch.tensor([[99]]).to("xpu"), weight, 21, 100)
    assert other.shape == (1, 1, 100) and other.dtype == torch.float32 and other.is_xpu
    good = torch.tensor([[0, 6, 6], [3, 1, 6]])
    for place, value in (((0, 0), -1), ((1, 2), 7), ((0, 1), 2**32), ((1, 0), -(2**63))):
        bad = good.clone()
        bad[place] = value
        said = rf"^dequantize_rows: input\[{place[0]}\]\[{place[1]}\] is {value}, but the weight has 7 rows"
        with pytest.raises(RuntimeError, match=said):
            tolvane.dequantize_rows(bad.to("xpu"), weight, 23, 512)
    assert kelvor_xpu.submission_count() == before
