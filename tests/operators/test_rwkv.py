"""The RWKV operators against plain numpy, over type pairs and sizes, in both readings; split sequences; refusals."""

from __future__ import annotations

import numpy as np
import pytest
import torch

tolvane = pytest.importorskip("tolvane")
kelvor_xpu = pytest.importorskip("kelvor_xpu")

import arithmetic  # noqa: E402
import rwkv_reference  # noqa: E402
from device_names import DEVICE_NAMES  # noqa: E402
from rwkv_cases import PAIRS, SHIFT_SIZES, V4_SIZES, V5_SIZES  # noqa: E402
from rwkv_cases import on_xpu, results, shift_data, v4_data, v5_data  # noqa: E402


def check(saved: dict[str, np.ndarray]) -> None:
    for activations, parameters in PAIRS:
        t = arithmetic.ALL[activations]
        for sizes in V4_SIZES:
            w, u, k, v, *states = v4_data(*sizes)
            if parameters == "bfloat16":
                w, u = (arithmetic.BFLOAT16.to(x) for x in (w, u))
            with np.errstate(under="ignore"):
                expected = rwkv_reference.v4(t, w, u, k, v, tuple(states))
            for part, x in zip(("out", "num", "den", "max"), expected):
                name = f"v4 {activations} {parameters} {sizes} {part}"
                actual = saved[name]
                assert actual.shape == x.shape
                if part == "max" or sizes[1] == 0:
                    np.testing.assert_array_equal(actual, x.astype(np.float32), err_msg=name)
                    continue
                # An exponential may round to the neighbour, and steps carry that on.
                tolerance = (16 if t.name != "float32" else 64) * t.unit
                np.testing.assert_allclose(actual, x.astype(np.float32), tolerance, 4 * tolerance, err_msg=name)
                if t.name != "float32":
                    assert np.mean(actual == x.astype(np.float32)) > 0.9, name
        for sizes in SHIFT_SIZES:
            hidden, shifted, mix = shift_data(*sizes)
            expected = rwkv_reference.time_shift(t, hidden, shifted, mix).astype(np.float32)
            name = f"shift {activations} {parameters} {sizes}"
            np.testing.assert_array_equal(saved[name], expected, err_msg=name)
            if sizes[0] >= 2:
                np.testing.assert_array_equal(saved[name][:2], [shifted, hidden], err_msg=name)
    for sizes in V5_SIZES:
        data = v5_data(*sizes)
        for part, x in zip(("out", "state"), rwkv_reference.v5(*data)):
            bound = np.maximum(np.abs(x).max(initial=1), 1) * 64 * 2.0**-22
            np.testing.assert_allclose(saved[f"v5 {sizes} {part}"], x, rtol=0, atol=bound)


@pytest.mark.parametrize("activations, parameters", PAIRS)
def test_shifts_larger_than_the_caches(activations, parameters):
    hidden, shifted, mix = shift_data(17, 1, 256, 2048)
    out = tolvane.rwkv_time_shift(on_xpu(hidden, activations), on_xpu(shifted, activations), on_xpu(mix, parameters))
    expected = rwkv_reference.time_shift(arithmetic.ALL[activations], hidden, shifted, mix)
    np.testing.assert_array_equal(out.cpu().float().numpy(), expected.astype(np.float32))


@pytest.mark.parametrize("name", DEVICE_NAMES)
def test_against_the_stated_order(in_process, name):
    check(in_process("rwkv_cases.py", KELVOR_XPU_DEVICE_NAME=name, KELVOR_XPU_GUARD_PAGES="1"))


def test_one_lane_reading_is_the_same(in_process):
    scalar = in_process("rwkv_cases.py", one_lane=True)
    for name, values in results().items():
        np.testing.assert_array_equal(values, scalar[name], err_msg=name)


@pytest.mark.parametrize("activations, parameters", PAIRS)
@pytest.mark.parametrize("cut", [1, 40])
def test_a_sequence_in_two_parts_is_the_whole(activations, parameters, cut):
    w, u, *rest = v4_data(2, 64, 96)
    first = [on_xpu(x, parameters) for x in (w, u)]
    k, v, *states = [on_xpu(x, activations) for x in rest]
    whole = [x.clone() for x in states]
    expected = tolvane.rwkv_linear_attention_v4(*first, k, v, *whole)
    parts = [
        tolvane.rwkv_linear_attention_v4(*first, k[:, part].contiguous(), v[:, part].contiguous(), *states)
        for part in (slice(cut), slice(cut, None))
    ]
    assert torch.equal(torch.cat(parts, 1), expected)
    assert all(torch.equal(a, b) for a, b in zip(states, whole))

    w, u, r, k, v, state = [on_xpu(x, "float32") for x in v5_data(1, 3, 64)]
    split = state.clone()
    expected = tolvane.rwkv_linear_attention_v5(w, u, r, k, v, state)
    parts = [  # slices along the tokens are no copies: their strides are the whole's
        tolvane.rwkv_linear_attention_v5(w, u, *(x[:, :, part] for x in (r, k, v)), split)
        for part in (slice(cut), slice(cut, None))
    ]
    assert torch.equal(torch.cat(parts, 1), expected) and torch.equal(split, state)


def test_v4_forgets_a_state_far_below():
    data = [on_xpu(x, "float32") for x in v4_data(1, 1, 32)]
    data[6].fill_(-1e30)
    assert torch.equal(tolvane.rwkv_linear_attention_v4(*data), data[3])


def zeros(*shape, dtype=torch.float32):
    return torch.zeros(shape, dtype=dtype, device="xpu")


def v4_arguments(channels=32, dtype=torch.float32):
    sizes = [(channels,)] * 2 + [(2, 3, channels)] * 2 + [(2, channels)] * 3
    return [zeros(*size, dtype=dtype) for size in sizes]


def v5_arguments(head=64):
    return [zeros(3, head), zeros(3, head), *(zeros(2, 3, 4, head) for _ in range(3)), zeros(2, 3, head, head)]


def shift_arguments(channels=64, dtype=torch.float32):
    return [zeros(2, 3, channels, dtype=dtype), zeros(2, 3, channels, dtype=dtype), zeros(5, 1, channels, dtype=dtype)]


V4, V5, SHIFT = tolvane.rwkv_linear_attention_v4, tolvane.rwkv_linear_attention_v5, tolvane.rwkv_time_shift
REFUSED = [
    (V4, v4_arguments(), {0: zeros(1, 32)}, r"time_decay.dim\(\) == 1 && time_first.dim\(\) == 1"),
    (V4, v4_arguments(), {3: zeros(2, 32)}, r"key.dim\(\) == 3 && value.dim\(\) == 3"),
    (V4, v4_arguments(), {5: zeros(32)}, r"num_state.dim\(\) == 2 && den_state.dim\(\) == 2 && max_state.dim\(\) == 2"),
    (V4, v4_arguments(48), {}, "hidden_size % GS == 0 is needed, a multiple of 32, but got 48"),
    (V4, v4_arguments(dtype=torch.double), {}, "^unsupported dtype"),
    (V4, v4_arguments(), {0: zeros(32).half(), 1: zeros(32).half()}, "^unsupported dtype"),
    (V4, v4_arguments(), {3: zeros(2, 4, 32)}, r"value must have shape \[2, 3, 32\], but has \[2, 4, 32\]"),
    (V4, v4_arguments(), {6: zeros(2, 32).half()}, "max_state must have the element type of key, Float, but has Half"),
    (V4, v4_arguments(), {4: zeros(2, 32).cpu()}, "num_state must be a XPU tensor"),
    (V5, v5_arguments(), {1: zeros(192)}, r"time_decay.dim\(\) == 2 && time_first.dim\(\) == 2"),
    (V5, v5_arguments(), {5: zeros(3, 64, 64)}, r"state.dim\(\) == 4"),
    (V5, v5_arguments(), {5: zeros(2, 3, 64, 64).transpose(2, 3)}, r"state.is_contiguous\(\)"),
    (V5, v5_arguments(32), {}, "head_dim == 64 is needed, but got 32"),
    (V5, v5_arguments(), {2: zeros(2, 4, 3, 64).transpose(1, 2)}, "receptance must have the sizes and strides of key"),
    (V5, v5_arguments(), {0: zeros(3, 64).half()}, "expected scalar type Float but found Half"),
    (SHIFT, shift_arguments(), {2: zeros(5, 64)}, r"hidden.dim\(\) == 3 && shifted.dim\(\) == 3 && mix.dim\(\) == 3"),
    (SHIFT, shift_arguments(), {2: zeros(5, 1, 32)}, r"hidden.size\(2\) == shifted.size\(2\)"),
    (SHIFT, shift_arguments(), {1: zeros(3, 2, 64).transpose(0, 1)}, r"shifted.is_contiguous\(\)"),
    (SHIFT, shift_arguments(32), {}, "hidden_size % GS == 0 is needed, a multiple of 64, but got 32"),
    (SHIFT, shift_arguments(), {2: zeros(5, 1, 64).half()}, "^unsupported dtype"),
    (SHIFT, shift_arguments(), {1: zeros(2, 2, 64)}, r"shifted must have shape \[2, 3, 64\]"),
]


@pytest.mark.parametrize("operator, arguments, changed, message", REFUSED)
def test_refuses_and_submits_nothing(operator, arguments, changed, message):
    count, live = kelvor_xpu.submission_count(), kelvor_xpu.memory_allocated()
    with pytest.raises(RuntimeError, match=message):
        operator(*(changed.get(place, x) for place, x in enumerate(arguments)))
    assert kelvor_xpu.submission_count() == count and kelvor_xpu.memory_allocated() == live


def test_launch_shapes():
    kelvor_xpu.clear_submissions()
    V4(*v4_arguments(96)), V5(*v5_arguments()), SHIFT(*shift_arguments(128))
    expected = [((2, 96), (1, 32)), ((2, 3, 64), (1, 1, 32)), ((2, 3, 128), (1, 1, 64))]
    for record, (whole, group) in zip(kelvor_xpu.submissions(), expected, strict=True):
        assert (tuple(record.global_size), tuple(record.local_size)) == (whole, group)
        assert record.label == "devq_kernel" and not record.waited
