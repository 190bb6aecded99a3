"""The formats of 256 elements in plain numpy: decoding, the quantization of activations, and one row's products in the
order of the kernels' work-items. Integers are integers, every float operation rounds, and a multiply with the add
behind it counts as one."""

from __future__ import annotations

import numpy as np

from arithmetic import Arithmetic

BLOCK_BYTES = {"q2_k": 84, "iq2_xxs": 66}
QTYPE = {"q2_k": 23, "iq2_xxs": 21}

# Points of the grid, two bits an element from the low end: 8, 25 or 43.
_POINTS = """
    0000 0002 0005 0008 000A 0011 0014 0020 0022 0028 002A 0041 0044 0050 0058 0061
    0064 0080 0082 008A 00A2 0101 0104 0110 0115 0140 0184 0198 0200 0202 0222 0282
    0401 0404 0410 0421 0424 0440 0442 0448 0460 0481 0484 0490 04A4 0500 0502 0508
    0520 0546 0569 0580 0591 0609 0610 0640 0684 06A4 0800 0805 0808 0814 0828 0841
    0844 0850 0852 0888 0904 0940 0A02 0A14 1001 1004 1010 1021 1040 1060 1084 1090
    1095 1100 1108 1120 1150 115A 1180 1224 1245 1400 1408 1420 1425 1449 1480 1518
    1562 1600 1616 1801 1804 1810 1840 1881 1900 1905 19A0 1A51 2000 2002 200A 2044
    2061 2080 2082 2129 2148 2200 2202 2401 2404 2410 2440 2456 2500 2541 2564 2690
    2808 2820 2894 2A44 4001 4004 4010 4018 4021 4024 4040 4048 4056 4060 4081 4084
    4090 4100 4120 4161 4180 4185 4201 4210 4248 4256 4268 4400 4408 4420 4480 4499
    4512 4524 4600 4801 4804 4810 4840 4845 4900 4958 4961 4982 4A45 4A90 5000 5008
    5011 5019 5020 5080 5088 5104 5142 51A4 5291 5490 5492 550A 5601 5654 5800 5811
    5819 5864 5940 5A08 6004 6010 6040 6068 6100 6155 6218 6260 6400 6405 6510 6512
    6584 6842 8000 8002 800A 8041 8082 8104 8118 8140 8211 8401 8404 8410 8415 8440
    8460 8500 8546 8594 8609 8640 8660 8802 8904 8A11 9004 9010 9024 9040 90A1 9116
    9180 9245 9400 9422 9444 9551 9881 9920 A002 A050 A085 A109 A200 A418 A850 A904
"""
_CODES = np.array([int(code, 16) for code in _POINTS.split()])
GRID = np.array([8, 25, 43])[_CODES[:, None] >> 2 * np.arange(8) & 3]
_SEVEN = np.arange(128)[:, None] >> np.arange(7) & 1
SIGNS = 1 - 2 * np.concatenate([_SEVEN, _SEVEN.sum(1, keepdims=True) % 2], axis=1)


def random_records(form: str, rows: int, state: int, seed: int, any_scales: bool = False) -> np.ndarray:
    """Random bytes [rows, blocks, bytes of a block]; scales of 0.02 or so, of either sign, or any at all."""
    random = np.random.default_rng(seed)
    records = random.integers(0, 256, (rows, state // 256, BLOCK_BYTES[form]), dtype=np.uint8)
    if not any_scales:
        for at in (80, 82) if form == "q2_k" else (0,):
            d = (random.standard_normal(records.shape[:2]) * 0.02).astype(np.float16)
            records[..., at : at + 2] = d[..., None].view(np.uint8)
    return records


def _half(record: np.ndarray, at: int) -> np.ndarray:
    """The half at byte `at` of records [..., bytes], as float."""
    halves = np.ascontiguousarray(record[..., at : at + 2]).view(np.float16)
    return halves[..., 0].astype(np.float32)


def _q2_k_fields(records: np.ndarray) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Codes [..., 256], and the scale and minimum codes of every element."""
    shape = records.shape[:-1]
    bytes_ = records[..., 16:80].reshape(*shape, 2, 1, 32)
    codes = bytes_ >> 2 * np.arange(4)[:, None] & 3
    scales = np.repeat(records[..., :16], 16, axis=-1)
    return codes.reshape(*shape, 256), scales & 15, scales >> 4


def _iq2_xxs_fields(records: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """Signed magnitudes [..., 8, 32] and the scale codes [..., 8]."""
    shape = records.shape[:-1]
    groups = np.ascontiguousarray(records[..., 2:]).reshape(*shape, 8, 8)
    aux = np.ascontiguousarray(groups[..., 4:]).view("<u4")[..., 0]
    signs = SIGNS[aux[..., None] >> 7 * np.arange(4) & 127]
    return (GRID[groups[..., :4]] * signs).reshape(*shape, 8, 32), aux >> 28


@np.errstate(invalid="ignore", over="ignore")
def decoded(form: str, records: np.ndarray) -> np.ndarray:
    """Elements [..., 256] of records [..., bytes], in float32."""
    d = _half(records, 80 if form == "q2_k" else 0)[..., None]
    if form == "q2_k":
        codes, scale, minimum = (x.astype(np.float32) for x in _q2_k_fields(records))
        return (d * scale) * codes - _half(records, 82)[..., None] * minimum
    values, scale = _iq2_xxs_fields(records)
    f = ((scale.astype(np.float32) + np.float32(0.5)) * d) * np.float32(0.25)
    return (f[..., None] * values.astype(np.float32)).reshape(*records.shape[:-1], 256)


@np.errstate(invalid="ignore", over="ignore", divide="ignore")
def quantized(x: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """Signed bytes [blocks, 32] of a row of activations and the steps [blocks], rounded to half, as float32."""
    x = x.reshape(-1, 32)
    amax = np.abs(x.astype(np.float32))
    for mask in (16, 8, 4, 2, 1):
        amax = np.fmax(amax, amax[:, np.arange(32) ^ mask])
    step = amax * np.uint32(0x3C010204).view(np.float32)
    quotient = (x / step.astype(x.dtype if x.dtype == np.float64 else np.float32)).astype(np.float32)
    magnitude = np.where(np.isnan(quotient), 0, np.minimum(np.abs(quotient), np.float32(127))).astype(np.float64)
    q = np.where(quotient < 0, -1, 1) * np.floor(magnitude + 0.5)
    return q.astype(np.int64), step[:, 0].astype(np.float16).astype(np.float32)


def _fma(a: np.ndarray, b: np.ndarray, c: np.ndarray) -> np.ndarray:
    """a * b + c of float32, rounded once: the sum in double is rounded to odd, so that the second rounding is exact."""
    product, c = a.astype(np.float64) * b, np.float64(c)
    total = product + c
    part = total - product
    error = (product - (total - part)) + (c - part)
    bits = total.view(np.int64)
    inexact = np.isfinite(total) & (error != 0) & (bits & 1 == 0)
    toward = np.where((error > 0) == (total > 0), 1, -1)
    return np.where(inexact, bits + toward, bits).view(np.float64).astype(np.float32)


def _dots_q2_k(records: np.ndarray, q: np.ndarray, d8: np.ndarray) -> np.ndarray:
    """[rows, blocks, 16]: what each work-item of a block makes of it. q [blocks, 8, 32], d8 [blocks, 8]."""
    codes, scale, minimum = (x.astype(np.int64) for x in _q2_k_fields(records))
    shape = (*records.shape[:-1], 2, 4, 8, 4)  # halves, runs, work-items, columns of a run
    codes, scale, minimum = (x.reshape(shape) for x in (codes, scale, minimum))
    u = q.reshape(-1, 2, 4, 8, 4)
    dot = ((codes * u).sum(-1) * scale[..., 0]).astype(np.float32)
    low = (u.sum(-1) * minimum[..., 0]).astype(np.float32)
    d8 = d8.reshape(-1, 2, 4, 1)
    sumd = summ = np.zeros(dot[..., 0, :].shape, np.float32)
    for i in range(4):
        sumd = _fma(np.broadcast_to(d8[..., i, :], sumd.shape), dot[..., i, :], sumd)
        summ = _fma(np.broadcast_to(d8[..., i, :], summ.shape), low[..., i, :], summ)
    d, dmin = (np.broadcast_to(_half(records, at)[..., None, None], sumd.shape) for at in (80, 82))
    return _fma(d, sumd, -(dmin * summ)).reshape(*records.shape[:-1], 16)


def _dots_iq2_xxs(records: np.ndarray, q: np.ndarray, d8: np.ndarray) -> np.ndarray:
    """[rows, blocks, 8]"""
    values, scale = _iq2_xxs_fields(records)
    sumi = (values.astype(np.int64) * q).sum(-1).astype(np.float32)
    d = _half(records, 0)[..., None]
    return (((scale.astype(np.float32) + np.float32(0.5)) * d) * d8) * np.float32(0.25) * sumi


@np.errstate(invalid="ignore", over="ignore")
def one_row(form: str, x: np.ndarray, records: np.ndarray, t: Arithmetic) -> np.ndarray:
    """[rows] of T: activations x (float64 where T is, else float32) times records [rows, blocks, bytes]. Work-items of
    a block side by side, 32 in a group, then a tree in T."""
    q, d8 = quantized(x)
    dots = (_dots_q2_k if form == "q2_k" else _dots_iq2_xxs)(records, q.reshape(-1, 8, 32), d8.reshape(-1, 8))
    together = 32 // dots.shape[-1]
    acc = np.zeros((len(records), together, dots.shape[-1]), np.float32)
    for i in range(dots.shape[1]):
        acc[:, i % together] += dots[:, i]
    return t.tree(t.to(acc.reshape(-1, 32)))
