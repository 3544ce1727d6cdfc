"""Operators that move bytes and compute nothing, of any type: what they make is other addresses."""
import math

import numpy as np

from folding import FOLDS
from graph import Refused
from lower import Node, lowers
from tensor import Tensor, concat


def axis_of(node: Node, name: str = "axis", default: int = 0, i: int = 0) -> int:
    axis, rank = int(node.get(name, default)), node.tensor(i).at.ndim
    if not -rank <= axis < max(rank, 1):
        raise Refused(f"its {name} {axis} is outside of its input's {rank} dimensions")
    return axis % max(rank, 1)


@lowers("Reshape", "Squeeze", "Unsqueeze")
def reshape(node: Node) -> Tensor:
    shape = node.shape()
    if math.prod(shape) != node.tensor().size:
        raise Refused(f"shape {list(node.tensor().shape)} cannot become {list(shape)}")
    return node.tensor().reshape(*shape)


@lowers("Flatten")
def flatten(node: Node) -> Tensor:
    x = node.tensor()
    axis = int(node.get("axis", 1))
    if abs(axis) > x.at.ndim:
        raise Refused(f"its axis {axis} is outside of its input's {x.at.ndim} dimensions")
    first = math.prod(x.shape[: axis + x.at.ndim if axis < 0 else axis])
    return x.reshape(first, x.size // first if first else 0)


@lowers("Identity")
def identity(node: Node) -> Tensor:
    return node.tensor()


@lowers("Dropout")
def dropout(node: Node) -> list[Tensor]:
    """Its input, as it drops nothing but in training; and that nothing was dropped."""
    if node.has(2) and node.constant(2, "whether it trains").any():
        raise Refused("no operator of the library makes random numbers")
    x = node.tensor()
    return [x, node.job.constant(np.ones(x.shape, np.bool_ if node.opset >= 10 else x.dtype))][: node.wanted]


@lowers("Transpose")
def transpose(node: Node) -> Tensor:
    x = node.tensor()
    return x.transpose(*node.get("perm", list(range(x.at.ndim))[::-1]))


@lowers("Expand")
def expand(node: Node) -> Tensor:
    x = node.tensor()
    if node.job.is_constant(node.tensor(1)):
        return x.broadcast_to(np.broadcast_shapes(x.shape, node.integers(1, "shape")))
    return x.broadcast_to(node.shape())


@lowers("Concat")
def concatenate(node: Node) -> Tensor:
    return concat([node.tensor(i) for i in range(len(node.inputs))], axis_of(node, default=1))


@lowers("Split")
def split(node: Node) -> list[Tensor]:
    """Into parts whose sizes are given, or the outputs' shapes say."""
    axis = axis_of(node)
    given = None if node.has(1) and not node.job.is_constant(node.tensor(1)) else node.integers(1, "split")
    sizes = given or [node.shape(i)[axis] for i in range(node.wanted)]
    if sum(sizes) != node.tensor().shape[axis]:
        raise Refused(f"parts of {sizes} are not all of {node.tensor().shape[axis]}")
    return node.tensor().split(sizes, axis)


@lowers("Slice")
def slice_(node: Node) -> Tensor:
    x = node.tensor()
    starts, ends = node.integers(1, "starts"), node.integers(2, "ends")
    axes = node.integers(3, "axes") or list(range(len(starts)))
    steps = node.integers(4, "steps") or [1] * len(starts)
    for axis, start, end, step in zip(axes, starts, ends, steps):
        n = x.shape[axis]
        start, end = start + n if start < 0 else start, end + n if end < 0 else end
        least, most = (0, n) if step > 0 else (-1, n - 1)
        x = x.take(np.arange(min(max(start, 0), most), min(max(end, least), most), step), axis)
    return x


@lowers("Pad")
def pad(node: Node) -> Tensor:
    x = node.tensor()
    pads, mode = node.integers(1, "pads", node.get("paddings")), node.get("mode", "constant")
    if mode not in ("constant", "edge", "reflect"):
        raise Refused(f"its mode is {mode}")
    value = np.zeros((), x.dtype) + np.array(node.get("value", 0)).astype(x.dtype)
    filling = node.tensor(2) if node.has(2) else node.job.constant(value)
    return padded(x, list(zip(pads[: x.at.ndim], pads[x.at.ndim :])), filling, mode)


def padded(x: Tensor, pads: list[tuple[int, int]], filling: Tensor, mode: str = "constant") -> Tensor:
    """x with that many elements more before and after along each axis, or fewer."""
    cut = tuple(slice(max(0, -before), n - max(0, -after)) for (before, after), n in zip(pads, x.shape))
    widths = [(max(0, before), max(0, after)) for before, after in pads]
    more = {"constant_values": filling.address} if mode == "constant" else {}
    return Tensor(np.pad(x.at[cut], widths, mode, **more), x.dtype)


@lowers("Tile")
def tile(node: Node) -> Tensor:
    x = node.tensor()
    if node.job.is_constant(node.tensor(1)):
        return Tensor(np.tile(x.at, node.integers(1, "repeats")), x.dtype)
    return Tensor(np.tile(x.at, [n // own if own else 0 for n, own in zip(node.shape(), x.shape)]), x.dtype)


@lowers("DepthToSpace")
def depth_to_space(node: Node) -> Tensor:
    x, size = node.tensor(), int(node.get("blocksize"))
    n, c, h, w = x.shape
    if node.get("mode", "DCR") == "DCR":
        blocks = x.reshape(n, size, size, c // size**2, h, w).transpose(0, 3, 4, 1, 5, 2)
    else:
        blocks = x.reshape(n, c // size**2, size, size, h, w).transpose(0, 1, 4, 2, 5, 3)
    return blocks.reshape(n, c // size**2, h * size, w * size)


@lowers("SpaceToDepth")
def space_to_depth(node: Node) -> Tensor:
    x, size = node.tensor(), int(node.get("blocksize"))
    n, c, h, w = x.shape
    blocks = x.reshape(n, c, h // size, size, w // size, size).transpose(0, 3, 5, 1, 2, 4)
    return blocks.reshape(n, c * size**2, h // size, w // size)


@lowers("Trilu")
def triangle(node: Node) -> Tensor:
    """Elements beyond the diagonal are zeros."""
    x = node.tensor()
    k = int(node.constant(1, "k")) if node.has(1) else 0
    stays = np.triu(np.ones(x.shape[-2:], bool), k) if node.get("upper", 1) else np.tril(np.ones(x.shape[-2:], bool), k)
    zero = node.job.constant(np.zeros((), x.dtype))
    return Tensor(np.where(stays, x.at, zero.at), x.dtype)


@lowers("Shape")
def shape(node: Node) -> Tensor:
    """A constant, as shapes are known beforehand."""
    dims = node.tensor().shape[node.get("start", 0) : node.get("end")]
    return node.job.constant(np.array(dims, np.int64))


@lowers("Size")
def size(node: Node) -> Tensor:
    return node.job.constant(np.array(node.tensor().size, np.int64))


@lowers("ConstantOfShape")
def constant_of_shape(node: Node) -> Tensor:
    """Of a shape that is not constant and yet known."""
    return node.job.constant(FOLDS["ConstantOfShape"](node.attributes, np.array(node.shape())))


@lowers("Upsample", "Resize")
def upsample(node: Node) -> Tensor:
    """Each element repeated, where the sizes are whole multiples."""
    x, shape = node.tensor(), node.shape()
    if node.get("mode", "nearest") != "nearest" or node.op == "Resize":
        raise Refused("only Upsample by repetition is lowered")
    known = node.job.value(node.inputs[1]) if node.has(1) and node.job.is_constant(node.inputs[1]) else ()
    scales = node.get("scales", known)
    if any(n % own for n, own in zip(shape, x.shape)) or any(scale % 1 for scale in scales):
        raise Refused("its scales are no integers")
    at = x.at
    for axis, (n, own) in enumerate(zip(shape, x.shape)):
        at = at.repeat(n // own, axis)
    return Tensor(at, x.dtype)
