"""Between integers and floats."""
import numpy as np

import arithmetic
from graph import Refused
from lower import Node, lowers
from moves import axis_of
from tensor import Tensor


def _parameters(node: Node, dtype: object) -> tuple[Tensor, Tensor]:
    """Scale and zero point, floats, one each or one for each place along the axis."""
    x, step = node.tensor(0), node.floats(1)
    zero = node.tensor(2) if node.has(2) else node.job.constant(np.zeros((), dtype))
    zero = node.job.constant(node.job.value(zero).astype(np.float32)) if node.job.is_constant(zero) else \
        arithmetic.to_floats(node.job, zero)
    if step.size == 1:
        return step.reshape(), zero.reshape()
    axis = axis_of(node, default=1)
    along = (-1, *[1] * (x.at.ndim - axis - 1))
    return step.reshape(*along), zero.reshape(*along)


@lowers("DequantizeLinear")
def dequantize(node: Node) -> Tensor:
    """(x - zero point) * scale"""
    x = node.tensor(0)
    if x.dtype not in (np.int8, np.uint8, np.int32):
        raise Refused(f"no operator of the library takes {x.dtype}")
    step, zero = _parameters(node, x.dtype)
    from_zero = arithmetic.subtract(node.job, arithmetic.to_floats(node.job, x), zero)
    return arithmetic.multiply(node.job, from_zero, step)


@lowers("QuantizeLinear")
def quantize(node: Node) -> Tensor:
    """x / scale to the nearest integer, ties to even, plus the zero point, saturated."""
    job = node.job
    dtype = node.tensor(2).dtype if node.has(2) else np.dtype(np.uint8)
    step, zero = _parameters(node, dtype)
    steps = arithmetic.rounded(job, arithmetic.divide(job, node.floats(0), step))
    return arithmetic.clamped(job, job.add(steps, zero), dtype)
