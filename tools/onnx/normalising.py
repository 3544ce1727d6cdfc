"""Softmax and the normalisations."""
import math

import numpy as np

import arithmetic
from graph import Refused
from lower import Node, lowers
from moves import axis_of
from tensor import Tensor, concat

TINY = 1e-18  # is nothing beside a variance, and keeps 0 from being divided by 0
INSTANCE_NORM_EPSILON = np.float32(1e-5)  # the library's own


@lowers("Softmax")
def softmax(node: Node) -> Tensor:
    """Along an axis; before operator set 13 over all axes from that one on."""
    x = node.floats()
    if node.opset >= 13:
        axis = axis_of(node, default=-1)
        moved = x.moveaxis(axis, -1)
    else:
        axis = axis_of(node, default=1)
        moved = x.reshape(*x.shape[:axis], math.prod(x.shape[axis:]))
    rows = moved.reshape(-1, moved.shape[-1])
    result = arithmetic.softmax(node.job, rows, node.options.softmax_in_range).reshape(*moved.shape)
    return result.moveaxis(-1, axis) if node.opset >= 13 else result.reshape(*x.shape)


@lowers("InstanceNormalization")
def instance_normalization(node: Node) -> Tensor:
    """x [n, c, spatial], scale and bias [c]: the operator of that name where they and epsilon allow it."""
    job, x, scale, bias = node.job, node.floats(0), node.floats(1), node.floats(2)
    epsilon = float(node.get("epsilon", 1e-5))
    rows = x.reshape(*x.shape[:2], -1)
    if job.is_constant(scale) and job.is_constant(bias) and np.float32(epsilon) == INSTANCE_NORM_EPSILON:
        rows, scales, biases = job.floats(rows), job.value(scale), job.value(bias)
        made = [job.instance_norm(rows[i, c], scales[c], biases[c]) for i in range(len(x)) for c in range(x.shape[1])]
        return concat(made).reshape(*x.shape)
    # Each channel's parameters once, for all instances.
    gamma, beta = (job.floats(tensor.reshape(-1, 1).broadcast_to(rows.shape[1:])) for tensor in (scale, bias))
    flat = rows.reshape(-1, rows.shape[2])
    gamma, beta = (tensor.broadcast_to(rows.shape).reshape(*flat.shape) for tensor in (gamma, beta))
    return arithmetic.layer_norm(job, flat, gamma, beta, epsilon).reshape(*x.shape)


@lowers("MeanVarianceNormalization")
def mean_variance_normalization(node: Node) -> Tensor:
    """Over some axes, without scale, bias and epsilon."""
    x, axes = node.floats(), sorted(axis % node.floats().at.ndim for axis in node.get("axes", [0, 2, 3]))
    moved = Tensor(np.moveaxis(x.at, axes, range(-len(axes), 0)), x.dtype)
    rows = moved.reshape(-1, math.prod(x.shape[axis] for axis in axes))
    one, none = (arithmetic.full(node.job, (rows.shape[1],), value) for value in (1, 0))
    result = arithmetic.layer_norm(node.job, rows, one, none, TINY).reshape(*moved.shape)
    return Tensor(np.moveaxis(result.at, range(-len(axes), 0), axes), x.dtype)


@lowers("LayerNormalization")
def layer_normalization(node: Node) -> list[Tensor]:
    """Over all axes from one on; mean and inverse deviation too, if they are wanted."""
    job, x = node.job, node.floats()
    axis, epsilon = axis_of(node, default=-1), float(node.get("epsilon", 1e-5))
    rows = x.reshape(math.prod(x.shape[:axis]), -1)
    gamma = node.floats(1).broadcast_to(x.shape[axis:]).reshape(-1)
    beta = node.floats(2).broadcast_to(x.shape[axis:]).reshape(-1) if node.has(2) else \
        arithmetic.full(job, gamma.shape, 0)
    made = [arithmetic.layer_norm(job, rows, job.floats(gamma), job.floats(beta), epsilon).reshape(*x.shape)]
    shape = [*x.shape[:axis], *[1] * (x.at.ndim - axis)]
    if node.wanted > 1:
        mean = arithmetic.mean(job, rows)
        made.append(mean.reshape(*shape))
    if node.wanted > 2:
        made.append(arithmetic.inverse_deviation(job, rows, mean, epsilon).reshape(*shape))
    return made[: node.wanted]


@lowers("BatchNormalization")
def batch_normalization(node: Node) -> list[Tensor]:
    """x [n, c, spatial], scale, bias, mean and variance [c]."""
    job, x = node.job, node.floats()
    epsilon = np.float32(node.get("epsilon", 1e-5))
    if node.get("training_mode"):
        return _trained(node, x, epsilon)
    if node.wanted > 1:
        raise Refused("outputs besides the first are for training")
    if not job.is_constant(node.floats(4)):
        raise Refused("its variance is given at run time, and no operator of the library gives a square root")
    deviation = np.sqrt(job.value(node.floats(4)).astype(np.float64) + epsilon)
    if all(job.is_constant(node.floats(i)) for i in (1, 2, 3)) and job.value(node.floats(1)).all():
        # Constants fold into one mean and one divisor.
        scale, bias, mean = (job.value(node.floats(i)).astype(np.float64) for i in (1, 2, 3))
        with np.errstate(over="ignore"):
            folded = np.float32([mean - bias * deviation / scale, deviation / scale])
        if np.isfinite(folded).all():  # a scale that training has driven to almost nothing is not divided by
            return [arithmetic.normalised(job, x, *(_by_channel(job.constant(array), x) for array in folded))]
    deviations = job.constant(deviation.astype(np.float32))
    scale, bias, mean, divisor = (_by_channel(tensor, x) for tensor in (*map(node.floats, (1, 2, 3)), deviations))
    return [job.add(arithmetic.multiply(job, arithmetic.normalised(job, x, mean, divisor), scale), bias)]


def _by_channel(tensor: Tensor, x: Tensor) -> Tensor:
    """[c], to go with x [n, c, spatial]."""
    return tensor.reshape(-1, *[1] * (x.at.ndim - 2))


def _trained(node: Node, x: Tensor, epsilon: float) -> list[Tensor]:
    """By the statistics of the batch itself, and the running ones, of which `momentum` stays."""
    job = node.job
    channels = job.floats(x.moveaxis(1, 0)).reshape(x.shape[1], -1)
    gamma, beta = (job.floats(node.floats(i).reshape(-1, 1).broadcast_to(channels.shape)) for i in (1, 2))
    result = arithmetic.layer_norm(job, channels, gamma, beta, float(epsilon))
    made = [result.reshape(x.shape[1], x.shape[0], *x.shape[2:]).moveaxis(0, 1)]
    mean = arithmetic.mean(job, channels)
    centred = arithmetic.subtract(job, channels, mean.reshape(-1, 1))
    variance = arithmetic.mean(job, arithmetic.multiply(job, centred, centred))
    stays = float(node.get("momentum", 0.9))
    for old, new in ((node.floats(3), mean), (node.floats(4), variance)):
        parts = [arithmetic.scale(job, part, arithmetic.full(job, (), weight))
                 for part, weight in ((old, stays), (new, 1 - stays))]
        made.append(job.add(*parts))
    return made[: node.wanted]
