"""Cases off the beaten track: roundings that are easily contracted, empty and larger tensors, tensors that only look
like tensors, exceptions, gradients, and what the process and its environment may do."""

from __future__ import annotations

import ast
import inspect
import os
import re
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
import torch

tolvane = pytest.importorskip("tolvane")
kelvor_xpu = pytest.importorskip("kelvor_xpu")

import arithmetic  # noqa: E402
from packed import FORMATS, random_weight  # noqa: E402
from sample_calls import Call, sample_calls  # noqa: E402

HERE = Path(__file__).resolve().parent
BLOCK_BYTES = {2: 34, 3: 36, 6: 44, 7: 44, 8: 68, 10: 34, 11: 26, 15: 68, 16: 34, 19: 68}
OPERATORS = list(sample_calls())


def in_new_process(code: str, **environment: str) -> subprocess.CompletedProcess:
    """Runs code with this process's modules; what it prints and how it ends is the caller's to judge."""
    paths = os.pathsep.join([str(HERE), *sys.path])
    env = {**os.environ, **environment, "PYTHONPATH": paths}
    return subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True, timeout=300)


def prints(expected: str, code: str, **environment: str) -> None:
    done = in_new_process(code, **environment)
    assert (done.returncode, done.stdout.strip()) == (0, expected), done.stderr[-2000:]


def packed(form: str, rows: int, state: int = 64) -> torch.Tensor:
    return torch.from_numpy(random_weight(FORMATS[form], rows, state, 5).bytes).to("xpu")


def empty_bytes() -> torch.Tensor:
    return torch.empty(0, dtype=torch.uint8, device="xpu")


# Roundings


def test_time_shift_rounds_every_step():
    """Against PyTorch's own operators on the CPU, each of which rounds its result."""
    torch.manual_seed(1)
    for dtype in (torch.bfloat16, torch.float16):
        x, s = torch.randn(2, 3, 5, 64).to(dtype).unbind()
        a = torch.rand(4, 1, 64).to(dtype)
        if dtype == torch.bfloat16:
            factor = a[:, :, None]
            expected = x * factor + s * (1 - factor)
        else:
            x_, s_, a_ = (t.numpy() for t in (x, s, a[:, :, None]))
            expected = torch.from_numpy(s_ + a_ * (x_ - s_))
        actual = tolvane.rwkv_time_shift(x.to("xpu"), s.to("xpu"), a.to("xpu"))
        assert torch.equal(actual.cpu(), expected), dtype


@pytest.mark.parametrize(
    "dtype, d, m, element",
    [
        # 31 d = 31.0302734375 rounds to 31.03125; with m that is 31.03915…, next to 31.046875 and not to 31.03125.
        (torch.float16, 1.0009765625, 0.0079, 31.046875),
        # 31 d = 31.2421875 rounds to 31.25; with m that is 31.3154…, past the middle of 31.25 and 31.375.
        (torch.bfloat16, 1.0078125, 0.0654296875, 31.375),
    ],
)
def test_q5_1_rounds_the_product_before_it_adds_the_minimum(dtype, d, m, element):
    record = np.zeros(44, np.uint8)
    record[:4] = np.array([d, m], np.float16).view(np.uint8)
    record[4], record[12] = 1, 15  # the code of element 0 is 31
    x = torch.zeros(1, 64, dtype=dtype)
    x[0, 0] = 1
    assert tolvane.forward_new(x.to("xpu"), torch.from_numpy(record).to("xpu"), 7, 0).item() == element


# Exceptions and the environment


@pytest.mark.parametrize("variable, parser", [("TILE_THRESHOLD", "stoll"), ("TILE_SIZE", "stoull")])
def test_malformed_settings_keep_their_class_and_are_named(monkeypatch, variable, parser):
    arguments = sample_calls()["forward_new"].arguments
    for text, error in (("many", ValueError), ("", ValueError), ("9" * 30, IndexError)):
        monkeypatch.setenv(variable, text)
        for rows in (0, 1, 2, 30):
            with pytest.raises(error, match=f'^{parser}: {variable} must be.* "{text}"$'):
                tolvane.forward_new(torch.ones(rows, 64, device="xpu"), *arguments[1:])
        tolvane.forward_new(torch.ones(1, 64, device="xpu"), packed("q4_1", 4), 3, 0)
    for text in ("4096-rows", "4096 rows", "0", "-4096"):
        monkeypatch.setenv(variable, text)
        tolvane.forward_new(*arguments)


def test_other_errors_stay_what_they_are():
    def raised(error: type, call, *arguments) -> str:
        with pytest.raises(error) as caught:
            call(*arguments)
        assert caught.type is error and "frame #" not in str(caught.value)
        return str(caught.value)

    arguments = sample_calls()["rwkv_time_shift"].arguments
    assert raised(RuntimeError, tolvane.rwkv_time_shift, *(x.double() for x in arguments)) == "unsupported dtype"
    x = torch.ones(1, 64)
    assert raised(RuntimeError, tolvane.forward_new, x, x, 2, 0) == "input must be a XPU tensor"
    raised(TypeError, tolvane.forward_new, x, x, 2)


TILED = """
import torch, tolvane
x = torch.ones(30, 64, device="xpu")
weight = torch.ones(101 * 34, dtype=torch.uint8, device="xpu")
tolvane.forward_new(x[:1], weight, 2, 4096)
tolvane.forward_new(x, weight, 2, 0)
try:
    whole, sliced = tolvane.forward_new(x, weight, 2, 0), tolvane.forward_new(x, weight, 2, 4096)
    print(torch.equal(whole, sliced))
except RuntimeError as error:
    print(error)
"""


@pytest.mark.parametrize("size, said", [("40-rows", "True"), *[(text, None) for text in ("0", "-0", " -40")]])
def test_slices_of_no_rows_are_refused_where_they_would_be_made(size, said):
    said = said or f'TILE_SIZE must be a positive number of weight rows, but it is "{size}"'
    prints(said, TILED, KELVOR_XPU_DEVICE_NAME="Vela(TM)", TILE_THRESHOLD="100", TILE_SIZE=size)


def test_the_device_is_that_of_the_import():
    code = """
import os, torch, tolvane, kelvor_xpu
os.environ["KELVOR_XPU_DEVICE_NAME"] = "Rack GPU Summit"
os.environ["KELVOR_XPU_MAX_WORK_GROUP_SIZE"] = "32"
tolvane.forward_new(torch.ones(1, 64).to("xpu"), torch.ones(34, dtype=torch.uint8).to("xpu"), 2, 0)
tolvane.fused_rms_norm(torch.ones(1, 8192).to("xpu"), (8192,), None, None, 0.0)
print([record.local_size[0] for record in kelvor_xpu.submissions()])
"""
    prints("[32, 1024]", code)  # that of Summit would be 64


def test_a_device_that_cannot_be_probed_fails_the_import():
    done = in_new_process("import tolvane", KELVOR_XPU_MAX_WORK_GROUP_SIZE="many")
    assert "ImportError: " in done.stderr and "KELVOR_XPU_MAX_WORK_GROUP_SIZE must be a whole number" in done.stderr


def test_without_new_threads_the_calling_one_does_the_work():
    code = """
import resource, torch, tolvane
x, weight = torch.ones(1, 64).to("xpu"), torch.ones(5000 * 34, dtype=torch.uint8).to("xpu")
used = int(open("/proc/self/statm").read().split()[0]) * resource.getpagesize()
resource.setrlimit(resource.RLIMIT_AS, (used + (4 << 20), -1))  # a thread's stack takes 8 MiB
y = tolvane.forward_new(x, weight, 2, 0)
resource.setrlimit(resource.RLIMIT_AS, (-1, -1))
print(torch.equal(y, tolvane.forward_new(x, weight, 2, 0)), len(y.unique()))
"""
    prints("True 1", code, KELVOR_XPU_THREADS="4")


# Sizes


def test_rows_that_are_no_whole_tiles_are_refused_in_the_words_of_their_route():
    for qtype, limit in ((2, 20), (3, 20), (10, 14)):
        weight = torch.zeros(10 * BLOCK_BYTES[qtype], dtype=torch.uint8, device="xpu")
        for rows, divisor in ((1, 16), (2, 16), (limit, 16), (limit + 1, 64)):
            with pytest.raises(RuntimeError, match=f"^100 must be a multiple of {divisor}$"):
                tolvane.forward_new(torch.ones(rows, 100, device="xpu"), weight, qtype, 0)
        with pytest.raises(RuntimeError, match="positive multiple of 64.* got 80"):
            tolvane.forward_new(torch.ones(2, 80, device="xpu"), weight, qtype, 0)


def test_a_weight_of_no_bytes_and_no_rows():
    before = kelvor_xpu.submission_count()
    for qtype, size in BLOCK_BYTES.items():
        for rows in (0, 1, 2, 30):
            x = torch.ones(rows, 64, dtype=torch.half, device="xpu")
            result = tolvane.forward_new(x, empty_bytes(), qtype, 4096)
            assert result.shape == (rows, 0) and result.dtype == x.dtype and result.device.type == "xpu"
            with pytest.raises(RuntimeError, match="bytes hold no row of 64 elements"):
                tolvane.forward_new(x, torch.zeros(size - 1, dtype=torch.uint8, device="xpu"), qtype, 0)
            with pytest.raises(RuntimeError, match="not implemented for 'Int'"):
                tolvane.forward_new(x.int(), torch.zeros(size, dtype=torch.uint8, device="xpu"), qtype, 0)
        if qtype in (2, 8, 10, 15, 16, 19):
            assert tolvane.dequant(x, empty_bytes(), qtype).shape == (0, 64)
        with pytest.raises(RuntimeError, match="100 must|multiple of 64"):
            tolvane.forward_new(torch.ones(0, 100, device="xpu"), packed("q4_0", 99), qtype, 0)
    assert kelvor_xpu.submission_count() == before


def test_bmm_writes_the_beginning_of_a_larger_result():
    a, b, _ = sample_calls()["bmm"].arguments
    for shape in ((41,), (2, 3, 7), (5, 2, 6)):
        c = torch.full(shape, torch.nan, device="xpu")
        assert tolvane.bmm(a, b, c).data_ptr() == c.data_ptr()
        assert torch.equal(c.cpu().flatten()[:30], (a.cpu() @ b.cpu()).flatten())  # sums of few bits are exact
        assert c.cpu().flatten()[30:].isnan().all()
    for x in (a[0], a[None]):
        with pytest.raises(RuntimeError, match="^Input tensors must have 3 dimensions"):
            tolvane.bmm(x, b, c)
    with pytest.raises(RuntimeError, match="^Input tensors dimensions do not match for batch multiplication"):
        tolvane.bmm(a, b[:1], c)


def test_time_shift_reads_tensors_of_other_shapes_in_memory_order():
    hidden, shifted, mix = sample_calls()["rwkv_time_shift"].arguments
    expected = tolvane.rwkv_time_shift(hidden, shifted, mix)
    longer = torch.cat([shifted, shifted + 1], 1)
    wide = torch.cat([mix, mix.flip(0)]).view(3, 2, 64)
    for s in (shifted.view(2, 1, 64), longer):
        for a in (mix, wide):
            assert torch.equal(tolvane.rwkv_time_shift(hidden, s, a), expected)
    for s, a, name in ((shifted[:, :1], mix, "shifted"), (shifted[:0], mix, "shifted"), (shifted, mix[:, :0], "mix")):
        with pytest.raises(RuntimeError, match=f"rwkv_time_shift: {name} must have shape"):
            tolvane.rwkv_time_shift(hidden, s, a)


# Attention


def test_conditions_come_before_types_and_sizes_after():
    call = "import torch, tolvane; tolvane.{}(*(torch.zeros(s, device='xpu').to(t) for s, t in ({})))"
    rows_of_six = call.format(
        "attn_value_fp8_matmul", "((1, 2, 1, 5), torch.double), ((1, 1, 6, 5), torch.uint8)"
    )
    floats = call.format("query_key_fp8_matmul", "((1, 2, 1, 128), torch.double), ((1, 1, 5, 128), torch.float)")
    for code in (rows_of_six, floats):
        done = in_new_process(code)
        assert (done.returncode, done.stderr) == (2, "unsupported dtype\n")
    query = torch.zeros(1, 2, 1, 64, dtype=torch.double, device="xpu")
    with pytest.raises(RuntimeError, match="head_dim == 128"):
        tolvane.query_key_fp8_matmul(query, query.to(torch.uint8))


def test_the_cache_refuses_types_and_the_process_goes_on():
    code = """
import torch
from quarn.fp8_cache import FP8Cache
cache = FP8Cache(1, 1, 8)
x = torch.ones(1, 1, 3, 128)
cache.append(x.double().to("xpu"), x.half().to("xpu"))
for call in (
    lambda: cache.append(x.int(), x),
    lambda: cache.append(x, x.to(torch.complex64)),
    lambda: cache.attend(x[:, :, :1].double().to("xpu")),
    lambda: cache.attend(x[:, :, :1].int().to("xpu")),
):
    try:
        call()
    except TypeError as error:
        print(str(error).split()[0], end=" ")
print(cache.length)
"""
    prints("keys values query query 3", code)


def test_rows_of_the_key_cache_lie_128_bytes_apart():
    query, key = sample_calls()["query_key_fp8_matmul"].arguments
    wider = torch.cat([key, key], 3)
    positions = torch.cat([key, key], 2)
    for view, stride in ((wider[..., 128:], 256), (positions[:, :, ::2], 256), (key[:, :, :1].expand(1, 1, 5, 128), 0)):
        said = rf"rows of key must lie 128 bytes apart, but key.stride\(2\) is {stride}$"
        with pytest.raises(RuntimeError, match=said):
            tolvane.query_key_fp8_matmul(query, view)
    expected = tolvane.query_key_fp8_matmul(query, key)
    assert torch.equal(tolvane.query_key_fp8_matmul(query, wider[:, :, :1, :128]), expected[..., :1])
    assert torch.equal(tolvane.query_key_fp8_matmul(query, positions[:, :, :5]), expected)


# Signatures


def test_signatures_agree_in_stub_help_and_document():
    stub = ast.parse((HERE.parents[1] / "kernels" / "tolvane.pyi").read_text())
    document = (HERE.parents[1] / "docs" / "operators.md").read_text()
    functions = [node for node in stub.body if isinstance(node, ast.FunctionDef)]
    assert [function.name for function in functions] == OPERATORS
    assert all(ast.get_docstring(function) for function in functions)
    for function in functions:
        assert not function.args.args and not function.args.kwonlyargs
        names = [argument.arg for argument in function.args.posonlyargs]
        types = [ast.unparse(argument.annotation) for argument in function.args.posonlyargs]
        listed = ", ".join(f"{name}: {type_}" for name, type_ in zip(names, types))
        signature = f"{function.name}({listed}, /) -> {ast.unparse(function.returns)}"
        shown = inspect.getdoc(getattr(tolvane, function.name)).splitlines()[0]
        assert shown.replace("torch.Tensor", "Tensor") == signature
        assert f"    {function.name}({', '.join(names)}, /) -> {ast.unparse(function.returns)}\n" in document


# Tensors that only look like tensors


NO_MEMORY = """
import torch, tolvane
from torch._subclasses.fake_tensor import FakeTensorMode
from sample_calls import sample_calls

class Wrapper(torch.Tensor):
    @staticmethod
    def __new__(cls, x):
        return torch.Tensor._make_wrapper_subclass(cls, x.size(), strides=x.stride(), dtype=x.dtype, device=x.device)

    @classmethod
    def __torch_dispatch__(cls, function, types, arguments=(), options=None):
        raise AssertionError("an operator of PyTorch was called")

def fake(x):
    with FakeTensorMode():
        return torch.empty_strided(x.shape, x.stride(), dtype=x.dtype, device=x.device)

def zeros(x):
    return torch._efficientzerotensor(x.shape, dtype=x.dtype, device=x.device)

def refuses(operator, arguments):
    try:
        operator(*arguments)
    except RuntimeError as error:
        if "has no memory" in str(error):
            return
        raise
    raise AssertionError((operator, arguments))

for name, call in sample_calls().items():
    operator = getattr(tolvane, name)
    for place in call.tensors():
        if place not in call.unread:
            for make in (Wrapper, fake, zeros):
                arguments = call.with_argument(place, make(call.arguments[place]))
                with torch._C._DisableTorchDispatch():  # as if the subclass had passed itself on
                    refuses(operator, arguments)
print("refused")
"""


def test_tensors_without_memory_are_refused():
    prints("refused", NO_MEMORY)


def outcomes(name: str, call: Call, arguments: list) -> list[torch.Tensor]:
    """The result and what stands in the written tensors afterwards."""
    result = getattr(tolvane, name)(*arguments)
    written = [arguments[place].clone() for place in call.written]
    return written if result is None else [result, *written]


@pytest.mark.parametrize("name", OPERATORS)
def test_lazy_signs(name):
    call = sample_calls()[name]
    expected = outcomes(name, call, call.arguments)
    for place in call.read():
        call = sample_calls()[name]
        view = torch._neg_view(-call.arguments[place])
        assert view.is_neg()
        for actual, x in zip(outcomes(name, call, call.with_argument(place, view)), expected):
            assert torch.equal(actual, x), place
    for place in call.written:
        before = kelvor_xpu.submission_count()
        with pytest.raises(RuntimeError, match="must not be a view with a lazy sign"):
            getattr(tolvane, name)(*call.with_argument(place, torch._neg_view(call.arguments[place])))
        assert kelvor_xpu.submission_count() == before


def test_the_imaginary_part_of_a_conjugate():
    q, _, positions, q_out, _ = sample_calls()["apply_rotary_embedding_half_q_and_k"].arguments
    imaginary = torch.complex(q.cpu(), -q.cpu()).to("xpu").conj().imag
    assert imaginary.is_neg()
    expected = torch.zeros_like(q_out)
    tolvane.apply_rotary_embedding_half_q_or_k(q, positions, expected, False)
    tolvane.apply_rotary_embedding_half_q_or_k(imaginary, positions, q_out, False)
    assert torch.equal(q_out, expected)


# Tracing and gradients


def test_tracing_raises():
    for name, call in sample_calls().items():

        def traced(x: torch.Tensor) -> torch.Tensor:
            getattr(tolvane, name)(*call.with_argument(0, x))
            return x + 1

        with pytest.raises(RuntimeError, match=f"^{name} cannot be traced"):
            torch.jit.trace(traced, call.arguments[0], check_trace=False)


@pytest.mark.parametrize("form", FORMATS)
def test_the_linear_layer_has_a_gradient_on_every_route(form):
    """Against differences of the layer itself, which are exact up to rounding, as it is linear. The elements of an
    expansion may be rounded to float, which those of one row are not."""
    weight, qtype = packed(form, 9, 128), FORMATS[form].qtype
    torch.manual_seed(1)
    for rows in (1, 3, 30):
        x = torch.randn(rows, 128, dtype=torch.double).to("xpu").requires_grad_()
        factor = torch.randn(rows, 9, dtype=torch.double).to("xpu")
        y = tolvane.forward_new(x, weight, qtype, 0)
        (gradient,) = torch.autograd.grad((y * factor).sum(), x)
        with torch.no_grad():
            assert not tolvane.forward_new(x, weight, qtype, 0).requires_grad
        direction = torch.randn(rows, 128, dtype=torch.double).to("xpu")
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


def test_other_results_require_no_gradient():
    for name, call in sample_calls().items():
        arguments = list(call.arguments)
        for place in call.read():
            if arguments[place].is_floating_point():
                arguments[place] = arguments[place].clone().requires_grad_()
        result = getattr(tolvane, name)(*arguments)
        assert result is None or result.requires_grad == (name == "forward_new"), name
        assert not any(arguments[place].requires_grad for place in call.written), name


def test_written_tensors_are_marked_as_changed():
    for name, call in sample_calls().items():
        read = [call.arguments[place]._version for place in call.read()]
        for place in call.written:
            leaf = torch.ones_like(call.arguments[place], requires_grad=True)
            product = leaf * call.arguments[place]
            getattr(tolvane, name)(*call.arguments)
            with pytest.raises(RuntimeError, match="modified by an inplace operation"):
                product.sum().backward()
        assert read == [call.arguments[place]._version for place in call.read()], name
    with torch.inference_mode():
        made = sample_calls()
    for name, call in made.items():  # these have no version, and are written as before
        getattr(tolvane, name)(*call.arguments)
