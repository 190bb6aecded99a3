"""The formats of 256 elements, q2_k and iq2_xxs, in forward_new, dequant and dequantize_rows."""

from __future__ import annotations

import kelvor_xpu
import numpy as np
import pytest
import tolvane
import torch

from super_block_cases import on_xpu
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


def elements(form: str, record: np.ndarray) -> np.ndarray:
    """The 256 elements of one record, as the module expands them."""
    if form == "q2_k":
        return rows_of([[0]], record[None, None])[0, 0]
    return tolvane.dequant(torch.empty(1, 256, device="xpu"), packed(record), 21).cpu().numpy()[0]


def test_elements_worked_by_hand():
    record = np.zeros(66, np.uint8)
    assert not elements("iq2_xxs", record).any()
    record[:2] = np.float16([1]).view(np.uint8)
    assert np.all(elements("iq2_xxs", record) == 1)
    record[2] = 1  # grid point 1: 43, then 8
    assert elements("iq2_xxs", record)[:9].tolist() == [43 / 8, *[1] * 8]
    record[9] = 0xF0  # scale 15: 3.875 a unit
    assert elements("iq2_xxs", record)[:2].tolist() == [166.625, 31]
    record[2], record[6] = 0, 1  # sign index 1: the first and the last of the eight
    assert elements("iq2_xxs", record)[:9].tolist() == [-31, *[31] * 6, -31, 31]
    record[6] = 127
    assert elements("iq2_xxs", record)[:9].tolist() == [*[-31] * 8, 31]

    record = np.zeros(84, np.uint8)
    record[:16], record[80:82], record[16] = 0x01, np.float16([1]).view(np.uint8), 0b11100100
    assert elements("q2_k", record)[[0, 32, 64, 96]].tolist() == [0, 1, 2, 3]
    record[82:84], record[0], record[2], record[16] = (
        np.float16([1]).view(np.uint8),
        0x21,
        0x52,
        0b0111,
    )
    assert elements("q2_k", record)[[0, 1, 16, 32, 33]].tolist() == [1, -2, 0, -3, -5]


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
    rows += [
        random.integers(-254, 255, 256) / 2,
        np.where(c % 32 == 5, 127, 0),
        np.where(c == 3, -1, c == 9),
    ]
    rows += [np.linspace(-1e-44, 1e-44, 256), np.where(c % 32 == 0, 127, c - 127.5)]
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
            np.testing.assert_array_equal(result, expected)
    one = (
        tolvane.forward_new(on_xpu(rows[6][None].astype(np.float32)), weight, 23, 0)
        .cpu()
        .numpy()[0]
    )
    assert one.tolist() == [127.0 if c % 32 == 5 else 0.0 for c in range(256)]


@pytest.mark.parametrize("form", BLOCK_BYTES)
def test_routes_forms_and_gradient(form):
    records = random_records(form, 3, 512, 6)
    weight, x = packed(records), torch.randn(2, 512)
    kelvor_xpu.clear_submissions()
    tolvane.forward_new(x[:1].to("xpu"), weight, QTYPE[form], 0)
    assert shapes() == [(512, 256, True), (3 * 32, 32, True)]
    kelvor_xpu.clear_submissions()
    leaf = x.to("xpu").requires_grad_()
    y = tolvane.forward_new(leaf, weight, QTYPE[form], 0)
    group = 64 if form == "q2_k" else 32
    assert shapes()[0] == (6 * group, group, True)
    dense = torch.from_numpy(decoded(form, records).reshape(3, 512))
    torch.testing.assert_close(y.cpu(), x @ dense.t())
    y.sum().backward()
    torch.testing.assert_close(leaf.grad.cpu(), dense.sum(0).expand(2, 512))
    empty = weight[:0]
    for rows, bytes_ in ((0, weight), (0, empty), (1, empty), (2, empty)):
        result = tolvane.forward_new(
            x.new_zeros(rows, 512).half().to("xpu"), bytes_, QTYPE[form], 0
        )
        assert (
            result.shape == (rows, len(bytes_) // (2 * BLOCK_BYTES[form]))
            and result.dtype == torch.half
        )


def test_what_is_refused():
    before = kelvor_xpu.submission_count()
    for form, size in BLOCK_BYTES.items():
        weight = torch.zeros(10 * size, dtype=torch.uint8, device="xpu")
        for rows, state, message in (
            (1, 320, "positive multiple of 256"),
            (2, 320, "positive multiple of 256"),
            (1, 100, "positive multiple of 256"),
            (2, 100, "^100 must be a multiple of 64"),
        ):
            with pytest.raises(RuntimeError, match=message):
                tolvane.forward_new(torch.ones(rows, state, device="xpu"), weight, QTYPE[form], 0)
        with pytest.raises(RuntimeError, match="not implemented for 'Int'"):
            tolvane.forward_new(torch.ones(1, 256, device="xpu").int(), weight, QTYPE[form], 0)
    assert kelvor_xpu.submission_count() == before


def test_rows_that_indices_pick():
    records = random_records("q2_k", 7, 512, 9, any_scales=True)
    table = decoded("q2_k", records).reshape(7, 512)
    for indices in ([[5]], [[0, 6, 6], [3, 1, 6]], [[6], [0]]):
        np.testing.assert_array_equal(rows_of(indices, records), table[np.array(indices)])
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
    assert (
        other.shape == (1, 1, 100) and other.dtype == torch.float32 and other.device.type == "xpu"
    )
    good = torch.tensor([[0, 6, 6], [3, 1, 6]])
    for place, value in (((0, 0), -1), ((1, 2), 7), ((0, 1), 2**32), ((1, 0), -(2**63))):
        bad = good.clone()
        bad[place] = value
        said = rf"^dequantize_rows: input\[{place[0]}\]\[{place[1]}\] is {value}, but the weight has 7 rows"
        with pytest.raises(RuntimeError, match=said):
            tolvane.dequantize_rows(bad.to("xpu"), weight, 23, 512)
    good = good.to("xpu")
    for arguments, message in (
        ((good.cpu(), weight, 23, 512), "^input must be a XPU tensor"),
        ((good.t(), weight, 23, 512), "^input must be contiguous"),
        ((good, weight.cpu(), 23, 512), "^weight must be a XPU tensor"),
        ((good, weight[::2], 23, 512), "^weight must be contiguous"),
        ((good[0], weight, 23, 512), "input must have 2 dimensions"),
        ((good.int(), weight, 23, 512), "torch.int64"),
        ((good, weight.float(), 23, 512), "flat tensor of packed bytes"),
        ((good, weight, 23, 100), "^100 must be a multiple of 64"),
        ((good, weight, 23, 192), "positive multiple of 256"),
        ((good, weight, 23, 0), "positive multiple of 256"),
        ((good, weight[:0], 23, 512), "has 0 rows"),
    ):
        with pytest.raises(RuntimeError, match=message):
            tolvane.dequantize_rows(*arguments)
    assert kelvor_xpu.submission_count() == before
