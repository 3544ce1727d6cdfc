"""Operators that take from a place that indices name: constant ones are addresses, others rows of a table."""
import math

import numpy as np

import arithmetic
from graph import Refused
from lower import Node, lowers
from moves import axis_of
from tensor import Tensor, concat


@lowers("Gather")
def gather(node: Node) -> Tensor:
    """x [..., n, ...], indices [any shape] -> [..., the indices' shape, ...]"""
    x, indices, axis = node.tensor(0), node.tensor(1), axis_of(node)
    n = x.shape[axis]
    if node.job.is_constant(indices):
        places = node.job.value(indices)
        _check_range(places, n)
        return x.take(places % n, axis)
    rest = x.shape[:axis] + x.shape[axis + 1 :]
    table = x.moveaxis(axis, 0).reshape(n, -1)
    rows = _rows(node, table, arithmetic.index(node.job, indices, n).reshape(-1))
    result = rows.reshape(-1, *rest).moveaxis(0, axis) if rest else rows.reshape(-1)
    return result.reshape(*x.shape[:axis], *indices.shape, *x.shape[axis + 1 :])


def _check_range(places: np.ndarray, n: int) -> None:
    if places.size and not (-n <= places.min() and places.max() < n):
        raise Refused(f"an index is outside of -{n} to {n - 1}")


def _rows(node: Node, table: Tensor, indices: Tensor) -> Tensor:
    """Rows of a table [n, w], one for each index, floats [k] -> [k, w]."""
    size = table.dtype.itemsize
    if size * table.shape[1] % 4:
        raise Refused(f"a row of {table.shape[1]} {table.dtype} is no whole number of floats")
    table, indices = node.job.dense(table, ("f4", "u1")), node.job.floats(indices)
    rows = [node.job.embedding(indices[i : i + 1], table) for i in range(len(indices))]
    return concat([row.reshape(1, -1) for row in rows])


@lowers("GatherElements")
def gather_elements(node: Node) -> Tensor:
    """x, indices of as many dimensions -> the indices' shape: each element of its own row along the axis."""
    x, indices, axis = node.tensor(0), node.tensor(1), axis_of(node)
    n = x.shape[axis]
    own = x[tuple(slice(0, k) if i != axis else slice(None) for i, k in enumerate(indices.shape))]
    if node.job.is_constant(indices):
        places = node.job.value(indices)
        _check_range(places, n)
        return Tensor(np.take_along_axis(own.at, places % n, axis), x.dtype)
    lines = node.job.dense(own.moveaxis(axis, -1), ("f4", "u1")).reshape(-1, n, 1)
    wanted = arithmetic.index(node.job, indices, n).moveaxis(axis, -1)
    columns = node.job.floats(wanted).reshape(len(lines), -1)
    rows = concat([_rows(node, lines[i], columns[i]).reshape(1, -1) for i in range(len(lines))])
    return rows.reshape(*wanted.shape).moveaxis(-1, axis)


@lowers("GatherND")
def gather_nd(node: Node) -> Tensor:
    """x, indices [..., k]: rows of what the first k dimensions after the batch's count, by their number."""
    x, indices, batch = node.tensor(0), node.tensor(1), int(node.get("batch_dims", 0))
    k = indices.shape[-1]
    counted = x.shape[batch : batch + k]
    if node.job.is_constant(indices):
        for i, n in enumerate(counted):
            _check_range(node.job.value(indices)[..., i], n)
    strides = [math.prod(counted[i + 1 :]) for i in range(k)]
    parts = [arithmetic.index(node.job, indices[..., i], n).reshape(-1, 1) for i, n in enumerate(counted)]
    column = node.job.constant(np.float32(strides).reshape(-1, 1))
    batches = math.prod(x.shape[:batch])
    numbers = node.job.matmul(concat(parts, 1), column).reshape(batches, -1)
    tables = node.job.dense(x, ("f4", "u1")).reshape(batches, math.prod(counted), -1)
    rows = concat([_rows(node, tables[i], numbers[i]) for i in range(batches)])
    return rows.reshape(*indices.shape[:-1], *x.shape[batch + k :])


@lowers("OneHot")
def one_hot(node: Node) -> Tensor:
    """indices [...], depth, values [off, on] -> [..., depth, ...]. An index beyond the depth makes its context fail."""
    job, indices, values = node.job, node.tensor(0), node.tensor(2)
    axis = int(node.get("axis", -1)) % (indices.at.ndim + 1)
    depth = int(job.value(node.tensor(1)).item()) if job.is_constant(node.tensor(1)) else node.shape()[axis]
    flat = job.floats(arithmetic.index(job, indices, depth).reshape(-1))
    if values.dtype.itemsize == 4 and job.is_constant(values):
        off, on = job.value(values)
        hot = [job.one_hot(flat[i : i + 1], depth, on, off, values.dtype) for i in range(len(flat))]
    else:
        # Which of the two values, for each element.
        places = [job.one_hot(flat[i : i + 1], depth, 1, 0) for i in range(len(flat))]
        hot = [_rows(node, values.reshape(2, 1), place).reshape(-1) for place in places]
    rows = concat([row.reshape(1, -1) for row in hot])
    return rows.reshape(*indices.shape, depth).moveaxis(-1, axis)
