"""Rotary embedding against its definition in double, over types, head sizes, layouts, positions and both readings."""

from __future__ import annotations

import numpy as np
import pytest
import torch

tolvane = pytest.importorskip("tolvane")
kelvor_xpu = pytest.importorskip("kelvor_xpu")

import arithmetic  # noqa: E402
from device_names import DEVICE_NAMES  # noqa: E402
import rope_reference as reference  # noqa: E402
from rope_cases import CASES, TYPES, Case, by_position, by_tables, tables  # noqa: E402

both = tolvane.apply_rotary_embedding_half_q_and_k
one = tolvane.apply_rotary_embedding_half_q_or_k
cached = tolvane.apply_rotary_embedding_half_q_and_k_cache_freq


def numbers(tensor: torch.Tensor) -> np.ndarray:
    return tensor.cpu().double().numpy()


def check(result: torch.Tensor, expected: tuple[np.ndarray, np.ndarray], name: object) -> None:
    value, bound = expected
    distance = np.abs(numbers(result) - value)
    assert np.all(distance <= bound), (name, np.max(distance / bound))


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.name)
def test_q_and_k_by_position_and_by_tables(case):
    t = arithmetic.ALL[case.type]
    q, k, positions = case.tensors()
    for x, out in zip((q, k), by_position(case)):
        check(out, reference.by_position(numbers(x), positions.numpy(), t), case)
    sine, cosine = (numbers(table)[..., : case.size // 2] for table in tables(case))
    for x, out in zip((q, k), by_tables(case)):
        check(out, reference.turned(numbers(x), sine, cosine, 0, t), case)


@pytest.mark.parametrize("type", TYPES)
def test_one_tensor_forward_and_back(type):
    t = arithmetic.ALL[type]
    x, _, positions = Case(type, 64).tensors()
    forward, back = torch.empty_like(x).to("xpu"), torch.empty_like(x).to("xpu")
    one(x.to("xpu"), positions.to("xpu"), forward, False)
    check(forward, reference.by_position(numbers(x), positions.numpy(), t), type)
    one(forward, positions.to("xpu"), back, True)
    check(back, reference.by_position(numbers(forward), positions.numpy(), t, backward=True), type)
    np.testing.assert_allclose(numbers(back), numbers(x), atol=12 * max(t.unit, 2.0**-24))
    one(back, torch.zeros_like(positions).to("xpu"), forward, False)
    np.testing.assert_array_equal(numbers(forward), numbers(back))


def layouts(x: torch.Tensor) -> dict[str, torch.Tensor]:
    """x with other strides, on xpu."""


    def wide() -> torch.Tensor:
        return torch.zeros(*x.shape[:3], 2 * x.shape[3] + 2).to(x.dtype).to("xpu")

    views = {
        "contiguous": torch.zeros_like(x).to("xpu"),
        "tokens before heads": torch.zeros_like(x.transpose(1, 2)).contiguous().to("xpu").transpose(1, 2),
        "columns outermost": torch.zeros(x.shape[::-1]).to(x.dtype).to("xpu").permute(3, 2, 1, 0),
        "every second column": wide()[..., 1 : 2 * x.shape[3] + 1 : 2],
        "part of a longer row": wide()[..., 1 : x.shape[3] + 1],
        "heads apart": torch.zeros(x.shape[0], 2 * x.shape[1], *x.shape[2:]).to(x.dtype).to("xpu")[:, ::2],
    }
    for view in views.values():
        view.copy_(x)
    return views


@pytest.mark.parametrize("type", ["float16", "float32"])
@pytest.mark.parametrize("size", [6, 64])
def test_every_layout_of_inputs_and_outputs_and_in_place(type, size):
    t = arithmetic.ALL[type]
    case = Case(type, size, batch=2, q_heads=3, tokens=4)
    q, k, positions = case.tensors()
    sine, cosine = (table.to("xpu") for table in tables(case))
    by_angle = reference.by_position(numbers(q), positions.numpy(), t)
    half = size // 2
    by_table = reference.turned(numbers(q), numbers(sine)[..., :half], numbers(cosine)[..., :half], 0, t)
    spread = torch.stack([positions, positions], -1).to("xpu")[..., 0]
    k_xpu = k.to("xpu")
    for source in layouts(q):
        for target in layouts(q):
            x, out, k_out = layouts(q)[source], layouts(q)[target], torch.empty_like(k_xpu)
            both(x, k_xpu, spread, out, k_out)
            check(out, by_angle, (source, target))
            check(k_out, reference.by_position(numbers(k), positions.numpy(), t), (source, target))
            cached(x, k_xpu, sine, cosine, out, k_out)
            check(out, by_table, (source, target))
        x = layouts(q)[source]
        one(x, spread, x, False)
        check(x, by_angle, source)
        x = layouts(q)[source]
        cached(x, k_xpu, sine, cosine, x, k_xpu.clone())
        check(x, by_table, source)


def test_tables_of_all_broadcasts_and_ranks():
    t = arithmetic.FLOAT
    random = np.random.default_rng(3)
    x = torch.from_numpy(random.standard_normal((2, 3, 4, 8))).float()
    for shape in [(1, 1, 4, 8), (2, 1, 4, 8), (1, 3, 1, 8), (1, 1, 1, 8), (2, 3, 4, 8)]:
        angle = torch.from_numpy(random.uniform(-3, 3, shape))
        sine, cosine = angle.sin().float(), angle.cos().float()
        for rank in (4, 3, 2):
            if rank < 4 and shape != (1, 1, 1, 8):
                continue
            cut = (slice(None),) * rank
            x_, s_, c_ = ((v[(0,) * (4 - rank)][cut].to("xpu")) for v in (x, sine, cosine))
            q_out, k_out = torch.empty_like(x_), torch.empty_like(x_)
            cached(x_, x_, s_, c_, q_out, k_out)
            expected = reference.turned(numbers(x_), numbers(s_)[..., :4], numbers(c_)[..., :4], 0, t)
            check(q_out, expected, shape)
            check(k_out, expected, shape)


@pytest.mark.parametrize("tokens", [40000, 3000])
def test_more_rows_than_groups_and_more_positions_than_a_table_holds(tokens):
    x = torch.from_numpy(np.random.default_rng(1).standard_normal((1, 1, tokens, 16))).float()
    positions = torch.arange(tokens)[None]
    out, k_out = torch.empty_like(x).to("xpu"), torch.empty_like(x).to("xpu")
    kelvor_xpu.clear_submissions()
    both(x.to("xpu"), x.to("xpu"), positions.to("xpu"), out, k_out)
    (record,) = kelvor_xpu.submissions()
    groups = min(2 * tokens, 32768)
    assert list(record.global_size)[:2] == [1, groups * 16]
    assert record.local_size[1] == 16 and not record.waited and record.label == "devq_kernel"
    assert "apply_rotary_embedding_half_kernel_q_and_k" in record.kernel
    expected = reference.by_position(numbers(x), positions.numpy(), arithmetic.FLOAT)
    check(out, expected, tokens)
    check(k_out, expected, tokens)


def test_one_row_of_positions_serves_all_batches():
    q, _, positions = Case("float32", 8).tensors()
    out = torch.empty_like(q).to("xpu")
    one(q.to("xpu"), positions[:1].to("xpu"), out, False)
    check(out, reference.by_position(numbers(q), positions[:1].numpy(), arithmetic.FLOAT), "broadcast")


def test_readings_guard_pages_and_device_classes_agree(in_process):
    plain = in_process("rope_cases.py")
    others = {
        "one lane": in_process("rope_cases.py", one_lane=True),
        "guarded": in_process("rope_cases.py", KELVOR_XPU_GUARD_PAGES="1"),
        "small groups": in_process("rope_cases.py", KELVOR_XPU_MAX_WORK_GROUP_SIZE="256"),
        **{name: in_process("rope_cases.py", KELVOR_XPU_DEVICE_NAME=name) for name in DEVICE_NAMES},
    }
    for name, values in plain.items():
        for kind, other in others.items():
            np.testing.assert_array_equal(values, other[name], err_msg=f"{kind} {name}")


def xpu(*sizes: int, dtype: torch.dtype = torch.float32) -> torch.Tensor:
    return torch.zeros(sizes, dtype=dtype, device="xpu")


RANK = "^The dimensions of all tensor should be 4"
POSITIONS = "^The dimensions of position_ids should be 2"
ODD = "^The problem size should be divisible by 2"
REFUSED_PAIR = {
    "rank of q": ({0: (3, 2, 8)}, RANK),
    "rank of k_out": ({4: (8,)}, RANK),
    "rank of positions": ({2: (2,)}, POSITIONS),
    "odd q": ({0: (1, 2, 2, 7), 3: (1, 2, 2, 7)}, ODD),
    "odd k": ({1: (1, 1, 2, 7), 4: (1, 1, 2, 7)}, ODD),
    "head sizes": ({1: (1, 1, 2, 6), 4: (1, 1, 2, 6)}, "one head size, but have 8 and 6"),
    "output": ({3: (1, 2, 2, 6)}, r"q_out must have the sizes of q, \[1, 2, 2, 8\], but has \[1, 2, 2, 6\]"),
    "tokens": ({2: (1, 3)}, r"position_ids must be \[1, 2\] or \[1, 2\] for q"),
}


def refused(call, arguments: list, message: str) -> None:
    before = kelvor_xpu.submission_count()
    with pytest.raises(RuntimeError, match=message):
        call(*arguments)
    assert kelvor_xpu.submission_count() == before


def pair_arguments() -> list[torch.Tensor]:
    positions = xpu(1, 2, dtype=torch.int64)
    return [xpu(1, 2, 2, 8), xpu(1, 1, 2, 8), positions, xpu(1, 2, 2, 8), xpu(1, 1, 2, 8)]


@pytest.mark.parametrize("name", REFUSED_PAIR)
def test_refuses_shapes(name):
    changed, message = REFUSED_PAIR[name]
    arguments = pair_arguments()
    for index, sizes in changed.items():
        arguments[index] = xpu(*sizes, dtype=arguments[index].dtype)
    refused(both, arguments, message)
    if set(changed) <= {0, 2, 3} and name != "head sizes":
        x, _, positions, x_out, _ = arguments
        refused(one, [x, positions, x_out, False], message.replace("q_out", "x_out").replace(" q", " x"))
    both(*pair_arguments())


def test_refuses_tables_types_and_devices():
    def table_call(**changed):
        names = {"q": (1, 2, 2, 8), "k": (1, 1, 2, 8), "sin": (1, 1, 2, 8), "cos": (1, 1, 2, 8), "q_out": (1, 2, 2, 8),
                 "k_out": (1, 1, 2, 8)}
        return [xpu(*sizes) for sizes in {**names, **changed}.values()]

    refused(cached, table_call(sin=(2, 8)), "^The dimensions of all tensor should be equal")
    refused(cached, table_call(cos=(1, 1, 2, 4)), "^The problem size of all tensor should be equal")
    refused(cached, table_call(k_out=(1, 1, 2, 4)), "^The problem size of all tensor should be equal")
    odd = {name: (1, 1, 2, 7) for name in ("q", "k", "sin", "cos", "q_out", "k_out")}
    refused(cached, table_call(**odd), ODD)
    refused(cached, table_call(sin=(1, 1, 3, 8)), r"sin must broadcast to the sizes of q, \[1, 2, 2, 8\], but has")
    refused(cached, table_call(cos=(1, 2, 2, 8)), r"cos must broadcast to the sizes of k, \[1, 1, 2, 8\], but has")
    refused(both, [t.int() for t in pair_arguments()], "\"apply_rotary_embedding\" not implemented for 'Int'")
    for index, name in enumerate(("q", "k", "position_ids", "q_out", "k_out")):
        arguments = pair_arguments()
        arguments[index] = arguments[index].cpu()
        refused(both, arguments, f"{name} must be .*on.* cpu")
    arguments = pair_arguments()
    refused(both, [*arguments[:2], arguments[2].int(), *arguments[3:]], "position_ids must be of Long, but is of Int")
    refused(both, [*arguments[:4], arguments[4].half()], "k_out must be of Float, as q is, but is of Half")
    overlapping = xpu(1, 2, 1, 8).expand(1, 2, 2, 8)
    refused(both, [*arguments[:3], overlapping, arguments[4]], "more than one element of the written-to tensor")


def test_up_to_twelve_dimensions_that_do_not_join():
    def crossed(dims: int) -> tuple[torch.Tensor, ...]:
        """A tensor whose dimensions lie in memory in reverse, its tables, and an output."""
        random = torch.Generator().manual_seed(dims)
        x = torch.rand([2] * dims, generator=random).permute(*reversed(range(dims)))
        return x, x.sin(), x.cos(), torch.zeros([2] * dims)

    x, sin, cos, out = (t.to("xpu") for t in crossed(12))
    cached(x, x, sin, cos, out, torch.empty_like(out))
    low, high = x.cpu().unbind(-1)
    sines, cosines = sin.cpu()[..., 0], cos.cpu()[..., 0]
    expected = torch.stack([cosines * low - sines * high, cosines * high + sines * low], dim=-1)
    torch.testing.assert_close(out.cpu(), expected)
    x, sin, cos, out = (t.to("xpu") for t in crossed(13))
    refused(cached, [x, x, sin, cos, out, torch.empty_like(out)], r"^tensor has too many \(>12\) dims")


def test_profiler_scopes():
    arguments = pair_arguments()
    with torch.autograd.profiler.profile(record_shapes=True) as profile:
        both(*arguments)
        one(arguments[0], arguments[2], arguments[3], True)
        one(arguments[0], arguments[2], arguments[3], False)
    seen = [(e.name, e.input_shapes) for e in profile.function_events if e.name.startswith("quarn_rope")]
    shapes = [[1, 2, 2, 8]]
    assert sorted(seen) == [("quarn_rope_backward", shapes), *[("quarn_rope_forward", shapes)] * 2]


def test_empty_tensors_and_nothing_left_allocated():
    before = kelvor_xpu.memory_allocated()
    both(xpu(0, 2, 2, 8), xpu(0, 1, 2, 8), xpu(0, 2, dtype=torch.int64), xpu(0, 2, 2, 8), xpu(0, 1, 2, 8))
    arguments = pair_arguments()
    both(xpu(1, 0, 2, 8), arguments[1], arguments[2], xpu(1, 0, 2, 8), arguments[4])
    del arguments
    assert kelvor_xpu.memory_allocated() == before
