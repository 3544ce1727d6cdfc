"""Operators that are products of matrices once the bytes lie right: products, convolutions, pools, sums."""
import itertools
import math
from collections.abc import Sequence

import numpy as np

import arithmetic
import under_window
from graph import Refused
from job import Job
from lower import Node, lowers
from tensor import Tensor, concat
from under_window import Window


@lowers("MatMul")
def matmul(node: Node) -> Tensor:
    """[..., m, k] x [..., k, n], a vector counting as a row or a column."""
    job, a, b = node.job, node.floats(0), node.floats(1)
    rows = a.reshape(1, -1) if a.at.ndim == 1 else a
    cols = b.reshape(-1, 1) if b.at.ndim == 1 else b
    (m, k), n = rows.shape[-2:], cols.shape[-1]
    if math.prod(cols.shape[:-2]) == 1:
        result = job.matmul(rows.reshape(math.prod(rows.shape[:-1]), k), cols.reshape(k, n))
        result = result.reshape(*np.broadcast_shapes(rows.shape[:-2], cols.shape[:-2]), m, n)
    else:
        batch = np.broadcast_shapes(rows.shape[:-2], cols.shape[:-2])
        lefts = rows.broadcast_to((*batch, m, k)).reshape(-1, m, k)
        rights = cols.broadcast_to((*batch, k, n)).reshape(-1, k, n)
        products = [job.matmul(lefts[i], rights[i]) for i in range(len(lefts))]
        result = concat([product.reshape(1, m, n) for product in products]).reshape(*batch, m, n)
    shape = np.matmul(np.empty(a.shape, bool), np.empty(b.shape, bool)).shape
    return result.reshape(*shape)


@lowers("Gemm")
def gemm(node: Node) -> Tensor:
    """alpha a b + beta c."""
    job = node.job
    a = node.floats(0).T if node.get("transA") else node.floats(0)
    b = node.floats(1).T if node.get("transB") else node.floats(1)
    alpha, beta = float(node.get("alpha", 1.0)), float(node.get("beta", 1.0))
    if job.is_constant(b) and alpha != 1:
        b, alpha = job.constant(job.value(b) * np.float32(alpha)), 1
    product = _times(job, job.matmul(a, b), alpha)
    return job.add(product, _times(job, node.floats(2), beta)) if node.has(2) and beta != 0 else product


def _times(job: Job, x: Tensor, factor: float) -> Tensor:
    if factor == 1:
        return x
    if job.is_constant(x):
        return job.constant(job.value(x) * np.float32(factor))
    return arithmetic.scale(job, x, arithmetic.full(job, (), factor))


@lowers("Conv")
def conv(node: Node) -> Tensor:
    """x [n, c, spatial], w [m, c/groups, kernel] -> [n, m, places]."""
    x, w = node.floats(0), node.floats(1)
    groups = int(node.get("group", 1))
    if x.shape[1] != groups * w.shape[1] or w.shape[0] % groups:
        raise Refused(f"{groups} groups of {w.shape[1]} channels are not its input's {x.shape[1]}")
    return _with_bias(node, _convolved(node.job, x, w, Window(x.shape[2:], w.shape[2:], node.get), groups))


def _with_bias(node: Node, x: Tensor) -> Tensor:
    """x [n, m, ...] plus input 2 [m], if there is one."""
    return node.job.add(x, node.floats(2).reshape(-1, *[1] * (x.at.ndim - 2))) if node.has(2) else x


def _convolved(job: Job, x: Tensor, w: Tensor, window: Window, groups: int) -> Tensor:
    """x [n, c, spatial], w [m, c/groups, kernel] -> [n, m, places]: a product for each image and group."""
    m, width = w.shape[:2]
    rows = w.moveaxis(1, -1).reshape(m, -1)
    zeros = job.constant(np.zeros((m, under_window.unused(window, width)), np.float32))
    weights = [job.floats(part) for part in concat([rows, zeros], 1).split([m // groups] * groups, 0)]
    zero = arithmetic.full(job, (1,), 0)
    products = []
    for i, g in itertools.product(range(len(x)), range(groups)):
        columns = under_window.columns(job, x[i, g * width : (g + 1) * width], window, zero)
        products.append(job.matmul(weights[g], columns))
    return concat(products).reshape(len(x), m, *window.places)


@lowers("ConvTranspose")
def conv_transpose(node: Node) -> Tensor:
    """x [n, c, spatial], w [c, m/groups, kernel] -> [n, m, ...]: a convolution of x, its elements `strides` apart with
    zeros between them, with the kernel turned round; of which padding cuts the ends off."""
    x, w, sizes = node.floats(0), node.floats(1), node.shape()[2:]
    rank, groups = x.at.ndim - 2, int(node.get("group", 1))
    strides, dilations = (list(node.get(name, [1] * rank)) for name in ("strides", "dilations"))
    extents = [(k - 1) * d for k, d in zip(w.shape[2:], dilations)]
    spread = [(n - 1) * s + 1 for n, s in zip(x.shape[2:], strides)]
    full = [n + e for n, e in zip(spread, extents)]
    begins = _cut_off(node, full, sizes)
    ends = [max(0, begin + n - f) for begin, n, f in zip(begins, sizes, full)]
    attributes = {"dilations": dilations, "pads": [*extents, *(e + more for e, more in zip(extents, ends))]}
    window = Window(spread, w.shape[2:], attributes.get, strides)

    turned = w[(..., *[slice(None, None, -1)] * rank)]
    parts = turned.split([len(w) // groups] * groups, 0)
    result = _convolved(node.job, x, concat([part.moveaxis(1, 0) for part in parts]), window, groups)
    return _with_bias(node, result[(..., *(slice(b, b + n) for b, n in zip(begins, sizes)))])


def _cut_off(node: Node, full: Sequence[int], sizes: Sequence[int]) -> list[int]:
    """How much is cut off at the beginning of each dimension of the full result."""
    auto, more = node.get("auto_pad", "NOTSET"), node.get("output_padding", [0] * len(full))
    if node.get("output_shape") is None and not auto.startswith("SAME"):
        return list(node.get("pads", [0] * len(full)))[: len(full)]
    cut = [max(0, f + m - n) for f, m, n in zip(full, more, sizes)]
    return [n // 2 if auto == "SAME_UPPER" else n - n // 2 for n in cut]


@lowers("AveragePool")
def average_pool(node: Node) -> Tensor:
    """x [n, c, spatial] -> [n, c, places]: sums under the window, divided by what each is the sum of."""
    job, x = node.job, node.floats()
    window = Window(x.shape[2:], node.get("kernel_shape"), node.get)
    counts = window.counts(x.shape[2:], bool(node.get("count_include_pad")))
    taps = _pooled(job, x, window, 0)
    sums = [job.matmul(arithmetic.full(job, (1, len(image)), 1), image) for image in taps]
    result = arithmetic.divide(job, concat(sums).reshape(-1, counts.size), job.constant(counts))
    return result.reshape(*x.shape[:2], *window.places)


@lowers("MaxPool")
def max_pool(node: Node) -> Tensor:
    job, x = node.job, node.floats()
    if node.wanted > 1:
        raise Refused("it also gives positions, 64-bit integers, which no operator of the library makes")
    window = Window(x.shape[2:], node.get("kernel_shape"), node.get)
    taps = concat(_pooled(job, x, window, np.finfo(np.float32).min), 1)
    return arithmetic.fold(job, arithmetic.maximum, taps).reshape(*x.shape[:2], *window.places)


def _pooled(job: Job, x: Tensor, window: Window, padding: float) -> list[Tensor]:
    """What is under the window, of each image of x [n, c, spatial]: [taps, c places]."""
    filling, c = arithmetic.full(job, (1,), padding), x.shape[1]
    images = [job.dense(under_window.columns(job, image, window, filling)) for image in (x[i] for i in range(len(x)))]
    taps = math.prod(window.kernel)
    return [image[: taps * c].reshape(taps, -1) for image in images]


@lowers("GlobalAveragePool")
def global_average_pool(node: Node) -> Tensor:
    x = node.floats()
    return arithmetic.mean(node.job, x.reshape(x.shape[0] * x.shape[1], -1)).reshape(*node.shape())


@lowers("GlobalMaxPool")
def global_max_pool(node: Node) -> Tensor:
    x = node.floats()
    columns = x.reshape(x.shape[0] * x.shape[1], -1).T
    return arithmetic.fold(node.job, arithmetic.maximum, columns).reshape(*node.shape())


@lowers("ReduceSum", "ReduceMean", "ReduceSumSquare", "ReduceL1", "ReduceMax", "ReduceMin", "ReduceProd")
def reduce(node: Node) -> Tensor:
    """Over some axes: sums are products with a column of ones, the others go by halves."""
    job, x = node.job, node.floats()
    axes = _reduced(node, x)
    rows = Tensor(np.moveaxis(x.at, axes, range(-len(axes), 0)), x.dtype) if axes else x.reshape(*x.shape, 1)
    rest = rows.shape[: x.at.ndim - len(axes)]
    rows = rows.reshape(math.prod(rest), -1)
    if node.op == "ReduceSumSquare":
        rows = arithmetic.multiply(job, rows, rows)
    if node.op == "ReduceL1":
        rows = arithmetic.maximum(job, rows, arithmetic.negate(job, rows))
    halves = {"ReduceMax": arithmetic.maximum, "ReduceMin": arithmetic.minimum, "ReduceProd": arithmetic.multiply}
    if node.op in halves:
        if not rows.shape[1]:
            raise Refused("it reduces an axis of no elements")
        result = arithmetic.fold(job, halves[node.op], job.dense(rows.T))
    else:
        result = arithmetic.mean(job, rows) if node.op == "ReduceMean" else arithmetic.total(job, rows)
    shape = [1 if axis in axes else n for axis, n in enumerate(x.shape)] if node.get("keepdims", 1) else rest
    return result.reshape(*shape)


def _reduced(node: Node, x: Tensor) -> list[int]:
    """The axes that are reduced. If they are given at run time, the shapes of input and output may still tell."""
    rank = x.at.ndim
    if not node.has(1) or node.job.is_constant(node.tensor(1)):
        axes = node.integers(1, "axes")
        everything = [] if node.get("noop_with_empty_axes") else list(range(rank))
        return sorted(axis % rank for axis in axes) if axes else everything
    shape, kept = node.shape(), node.get("keepdims", 1)
    fitting = [axes for n in range(rank + 1) for axes in itertools.combinations(range(rank), n)
               if tuple(1 if i in axes else d for i, d in enumerate(x.shape) if kept or i not in axes) == shape]
    # Reducing an axis of one element changes nothing.
    if len({tuple(axis for axis in axes if x.shape[axis] != 1) for axes in fitting}) != 1:
        raise Refused("axes are given at run time, and a job is written beforehand")
    return list(fitting[0])
