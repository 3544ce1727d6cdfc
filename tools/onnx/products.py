"""Operators that are products of matrices once the bytes lie right: products, convolutions, pools, sums."""
import itertools
import math
from collections.abc import Sequence

import numpy as np

import arithmetic
from graph import Refused
from job import Job
from lower import Node, lowers
from moves import padded
from tensor import Tensor, concat


@lowers("MatMul")
def matmul(node: Node) -> Tensor:
    """[..., m, k] x [..., k, n], a vector counting as a row or a column."""
    job, a, b = node.job, node.floats(0), node.floats(1)
    rows = a.reshape(1, -1) if a.at.ndim == 1 else a
    cols = b.reshape(-1, 1) if b.at.ndim == 1 else b
    (m, k), n = rows.shape[-2:], cols.shape[-1]
    if math.prod(cols.shape[:-2]) == 1:
        result = job.matmul(rows.reshape(-1, k), cols.reshape(k, n)).reshape(*rows.shape[:-1], n)
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


class Window:
    """How a window passes over the spatial dimensions of an input: sizes, steps and padding, one of each a
    dimension."""

    def __init__(self, node: Node, sizes: Sequence[int], kernel: Sequence[int]) -> None:
        rank = len(sizes)
        self.kernel = list(kernel)
        self.strides = list(node.get("strides", [1] * rank))
        self.dilations = list(node.get("dilations", [1] * rank))
        self.extents = [(k - 1) * d + 1 for k, d in zip(self.kernel, self.dilations)]
        pads = list(node.get("pads", [0] * 2 * rank))
        self.pads = list(zip(pads[:rank], pads[rank:]))
        auto = node.get("auto_pad", "NOTSET")
        if auto.startswith("SAME"):
            self.pads = [self._same(n, k, s, auto) for n, k, s in zip(sizes, self.extents, self.strides)]
        elif auto == "VALID":
            self.pads = [(0, 0)] * rank
        rounding = math.ceil if node.get("ceil_mode") else math.floor
        spans = [n + sum(p) - k for n, p, k in zip(sizes, self.pads, self.extents)]
        self.places = [rounding(span / s) + 1 for span, s in zip(spans, self.strides)]
        if min(self.places) < 1:
            raise Refused(f"its kernel {self.kernel} is larger than its input {list(sizes)}")
        # Rounding up, the last place may pass the padding.
        beyond = [max(0, (o - 1) * s - span) for o, s, span in zip(self.places, self.strides, spans)]
        self.all_pads = [(before, after + more) for (before, after), more in zip(self.pads, beyond)]

    @staticmethod
    def _same(size: int, extent: int, stride: int, auto: str) -> tuple[int, int]:
        more = max(0, (math.ceil(size / stride) - 1) * stride + extent - size)
        return (more // 2, more - more // 2) if auto == "SAME_UPPER" else (more - more // 2, more // 2)

    def pad(self, x: Tensor, filling: Tensor) -> Tensor:
        """x [.., ..., spatial] with its padding."""
        return padded(x, [(0, 0)] * (x.at.ndim - len(self.pads)) + self.all_pads, filling)

    def taps(self, x: Tensor) -> Tensor:
        """What is under the window: padded x [c, spatial] -> [c, taps, places]."""
        at, rank = x.at, len(self.kernel)
        for i, (k, d, o, s) in enumerate(zip(self.kernel, self.dilations, self.places, self.strides)):
            at = at.take(np.arange(k)[:, None] * d + np.arange(o) * s, axis=1 + 2 * i)
        order = [0, *range(1, 1 + 2 * rank, 2), *range(2, 2 + 2 * rank, 2)]
        return Tensor(at.transpose(order).reshape(len(at), math.prod(self.kernel), -1), x.dtype)

    def counts(self, sizes: Sequence[int], with_padding: bool) -> np.ndarray:
        """How many elements each place covers, [places]."""
        ones = np.ones([1, *sizes], np.float32)
        inner = np.pad(ones, [(0, 0), *self.pads], constant_values=float(with_padding))
        outer = np.pad(inner, [(0, 0), *((0, a[1] - p[1]) for a, p in zip(self.all_pads, self.pads))])
        addresses = self.taps(Tensor(np.arange(outer.size).reshape(outer.shape), np.dtype(np.float32))).at
        return outer.reshape(-1)[addresses[0]].sum(axis=0)


@lowers("Conv")
def conv(node: Node) -> Tensor:
    """x [n, c, spatial], w [m, c/groups, kernel] -> [n, m, places]."""
    x, w = node.floats(0), node.floats(1)
    window = Window(node, x.shape[2:], w.shape[2:])
    groups = int(node.get("group", 1))
    if x.shape[1] != groups * w.shape[1] or w.shape[0] % groups:
        raise Refused(f"{groups} groups of {w.shape[1]} channels are not its input's {x.shape[1]}")
    x = window.pad(x, arithmetic.full(node.job, (1,), 0))
    result = convolve(node.job, x, w, window, groups)
    return with_bias(node, result)


def with_bias(node: Node, x: Tensor) -> Tensor:
    """x [n, m, ...] plus input 2 [m], if there is one."""
    return node.job.add(x, node.floats(2).reshape(-1, *[1] * (x.at.ndim - 2))) if node.has(2) else x


def convolve(job: Job, x: Tensor, w: Tensor, window: Window, groups: int) -> Tensor:
    """Padded x [n, c, spatial], w [m, c/groups, kernel] -> [n, m, places]."""
    if max(window.dilations) == 1 and len(window.kernel) <= 2:
        patches = _Im2col(job, w, window, groups)
    else:
        patches = _Taps(job, w, window, groups)
    width = w.shape[1]
    images = [[patches.product(x[i, g * width : (g + 1) * width], g) for g in range(groups)] for i in range(len(x))]
    result = concat([concat(image).reshape(1, w.shape[0], -1) for image in images])
    return result.reshape(len(x), w.shape[0], *window.places)


class _Taps:
    """By columns of what is under the window, each brought together by copies alone."""

    def __init__(self, job: Job, w: Tensor, window: Window, groups: int) -> None:
        self.job, self.window = job, window
        self.weights = [job.floats(part.reshape(len(part), -1)) for part in w.split([len(w) // groups] * groups, 0)]

    def product(self, x: Tensor, group: int) -> Tensor:
        """[c/groups, spatial] -> [m/groups, places]."""
        taps = self.window.taps(x)
        return self.job.matmul(self.weights[group], taps.reshape(-1, taps.shape[2]))


class _Im2col:
    """By `cpu_im2col`, which wants the channel innermost and ends each patch with zeros."""

    def __init__(self, job: Job, w: Tensor, window: Window, groups: int) -> None:
        self.job = job
        self.kernel, self.strides = ([1] * (2 - len(n)) + list(n) for n in (window.kernel, window.strides))
        innermost = w.moveaxis(1, -1).reshape(len(w), -1)
        zeros = job.constant(np.zeros((len(w), innermost.shape[1] % 2), np.float32))
        rows = concat([innermost, zeros], 1)
        self.weights = [job.floats(part) for part in rows.split([len(w) // groups] * groups, 0)]

    def product(self, x: Tensor, group: int) -> Tensor:
        """[c/groups, spatial] -> [m/groups, places]."""
        image = x.moveaxis(0, -1)
        image = image.reshape(*[1] * (3 - image.at.ndim), *image.shape)
        patches = self.job.im2col(image, self.kernel, self.strides)
        return self.job.matmul(self.weights[group], patches.T)


@lowers("ConvTranspose")
def conv_transpose(node: Node) -> Tensor:
    """x [n, c, spatial], w [c, m/groups, kernel] -> [n, m, ...]: a convolution of x, its elements `strides` apart with
    zeros between them, with the kernel turned round; of which padding cuts the ends off."""
    job, x, w = node.job, node.floats(0), node.floats(1)
    rank, groups = x.at.ndim - 2, int(node.get("group", 1))
    strides, dilations = (list(node.get(name, [1] * rank)) for name in ("strides", "dilations"))
    zero = arithmetic.full(job, (1,), 0)
    extents = [(k - 1) * d for k, d in zip(w.shape[2:], dilations)]
    sizes = node.shape()[2:]
    spread = np.full([*x.shape[:2], *((n - 1) * s + 1 for n, s in zip(x.shape[2:], strides))], zero.at[0])
    spread[(..., *(slice(None, None, s) for s in strides))] = x.at
    begins = _cut_off(node, [n + e for n, e in zip(spread.shape[2:], extents)], sizes)
    ends = [max(0, begin + size - n - e) for begin, size, n, e in zip(begins, sizes, spread.shape[2:], extents)]
    x = padded(Tensor(spread, x.dtype), [(0, 0)] * 2 + [(e, e + more) for e, more in zip(extents, ends)], zero)

    turned = w[(..., *[slice(None, None, -1)] * rank)]
    parts = turned.split([len(w) // groups] * groups, 0)
    w = concat([part.moveaxis(1, 0) for part in parts])
    plain = Node(job, "Conv", node.opset, [], {"dilations": dilations}, [], node.options, 1)
    result = convolve(job, x, w, Window(plain, x.shape[2:], w.shape[2:]), groups)
    return with_bias(node, result[(..., *(slice(b, b + n) for b, n in zip(begins, sizes)))])


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
    window = Window(node, x.shape[2:], node.get("kernel_shape"))
    taps = _pooled_taps(window, x, arithmetic.full(job, (1,), 0))
    ones = arithmetic.full(job, (1, len(taps)), 1)
    counts = window.counts(x.shape[2:], bool(node.get("count_include_pad")))
    sums = job.matmul(ones, taps).reshape(-1, counts.size)
    return arithmetic.divide(job, sums, job.constant(counts)).reshape(*x.shape[:2], *window.places)


@lowers("MaxPool")
def max_pool(node: Node) -> Tensor:
    job, x = node.job, node.floats()
    if node.wanted > 1:
        raise Refused("it also gives positions, 64-bit integers, which no operator of the library makes")
    window = Window(node, x.shape[2:], node.get("kernel_shape"))
    least = arithmetic.full(job, (1,), np.finfo(np.float32).min)
    taps = _pooled_taps(window, x, least)
    return arithmetic.fold(job, arithmetic.maximum, taps).reshape(*x.shape[:2], *window.places)


def _pooled_taps(window: Window, x: Tensor, filling: Tensor) -> Tensor:
    """What is under the window, x [n, c, spatial] -> [taps, n c places]."""
    taps = window.taps(window.pad(x, filling).reshape(-1, *window.pad(x, filling).shape[2:]))
    return taps.moveaxis(1, 0).reshape(taps.shape[1], -1)


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
