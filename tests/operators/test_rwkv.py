"""What is RWKV's own, beyond the catalogue: split sequences, far exponents, shapes in memory order; and bmm's result."""

from __future__ import annotations

import pytest
import tolvane
import torch

from rwkv_cases import PAIRS, Version4, Version5
from sample_calls import sample_calls


@pytest.mark.parametrize("pair", PAIRS)
@pytest.mark.parametrize("cut", [1, 40])
def test_a_sequence_in_two_parts_is_the_whole(pair, cut):
    halves = slice(cut), slice(cut, None)
    w, u, k, v, *states = Version4(*pair, (2, 64, 96)).tensors()
    whole = [x.clone() for x in states]
    expected = tolvane.rwkv_linear_attention_v4(w, u, k, v, *whole)
    parts = [
        tolvane.rwkv_linear_attention_v4(w, u, *(x[:, part].contiguous() for x in (k, v)), *states) for part in halves
    ]
    assert torch.equal(torch.cat(parts, 1), expected)
    assert all(torch.equal(a, b) for a, b in zip(states, whole))

    w, u, r, k, v, state = Version5(*pair, (1, 3, 64)).tensors()
    split = state.clone()
    expected = tolvane.rwkv_linear_attention_v5(w, u, r, k, v, state)
    parts = [  # slices along the tokens are no copies: their strides are the whole's
        tolvane.rwkv_linear_attention_v5(w, u, *(x[:, :, part] for x in (r, k, v)), split) for part in halves
    ]
    assert torch.equal(torch.cat(parts, 1), expected) and torch.equal(split, state)


def test_v4_forgets_a_state_far_below():
    data = Version4("float32", "float32", (1, 1, 32)).tensors()
    data[6].fill_(-1e30)
    assert torch.equal(tolvane.rwkv_linear_attention_v4(*data), data[3])


def test_time_shift_reads_tensors_of_other_shapes_in_memory_order():
    hidden, shifted, mix = sample_calls()["rwkv_time_shift"].arguments
    expected = tolvane.rwkv_time_shift(hidden, shifted, mix)
    longer = torch.cat([shifted, shifted + 1], 1)
    wide = torch.cat([mix, mix.flip(0)]).view(3, 2, 64)
    for s in (shifted.view(2, 1, 64), longer):
        for a in (mix, wide):
            assert torch.equal(tolvane.rwkv_time_shift(hidden, s, a), expected)


def test_bmm_writes_the_beginning_of_a_larger_result():
    a, b, _ = sample_calls()["bmm"].arguments
    for shape in ((41,), (2, 3, 7), (5, 2, 6)):
        c = torch.full(shape, torch.nan, device="xpu")
        assert tolvane.bmm(a, b, c).data_ptr() == c.data_ptr()
        product = (a.cpu() @ b.cpu()).flatten()  # sums of few bits are exact
        assert torch.equal(c.cpu().flatten()[:30], product)
        assert c.cpu().flatten()[30:].isnan().all()
