"""Operators that take each element for itself."""
import functools
from collections.abc import Callable

import numpy as np

import arithmetic
from graph import Refused
from lower import Node, lowers
from tensor import Tensor


def _operands(node: Node, get: Callable[[Node, int], Tensor] = Node.floats) -> list[Tensor]:
    """All inputs, floats or what else `get` allows. The old way of broadcasting, where an attribute says at which axis
    the second begins, is turned into the new one."""
    tensors = [get(node, i) for i in range(len(node.inputs))]
    if node.opset < 7 and node.get("broadcast") and len(tensors) == 2:
        a, b = tensors
        after = a.at.ndim - int(node.get("axis", a.at.ndim - b.at.ndim)) - b.at.ndim
        tensors[1] = b.reshape(*b.shape, *[1] * after)
    return tensors


@lowers("Add", "Sum")
def add(node: Node) -> Tensor:
    return functools.reduce(node.job.add, _operands(node))


@lowers("Sub")
def subtract(node: Node) -> Tensor:
    return arithmetic.subtract(node.job, *_operands(node))


@lowers("Mul")
def multiply(node: Node) -> Tensor:
    return arithmetic.multiply(node.job, *_operands(node))


@lowers("Div")
def divide(node: Node) -> Tensor:
    return arithmetic.divide(node.job, *_operands(node))


@lowers("Mean")
def mean(node: Node) -> Tensor:
    tensors = _operands(node)
    return arithmetic.divide(node.job, add(node), arithmetic.full(node.job, (), len(tensors)))


@lowers("Max")
def maximum(node: Node) -> Tensor:
    return functools.reduce(functools.partial(arithmetic.maximum, node.job), _operands(node))


@lowers("Min")
def minimum(node: Node) -> Tensor:
    return functools.reduce(functools.partial(arithmetic.minimum, node.job), _operands(node))


@lowers("Neg")
def negate(node: Node) -> Tensor:
    return arithmetic.negate(node.job, node.floats())


@lowers("Reciprocal")
def reciprocal(node: Node) -> Tensor:
    return arithmetic.divide(node.job, arithmetic.full(node.job, (), 1), node.floats())


@lowers("Sigmoid")
def sigmoid(node: Node) -> Tensor:
    return arithmetic.sigmoid(node.job, node.floats())


@lowers("Tanh")
def tanh(node: Node) -> Tensor:
    return arithmetic.tanh(node.job, node.floats())


@lowers("Relu")
def relu(node: Node) -> Tensor:
    return arithmetic.maximum(node.job, node.floats(), arithmetic.full(node.job, (), 0))


@lowers("Abs")
def absolute(node: Node) -> Tensor:
    return arithmetic.maximum(node.job, node.floats(), arithmetic.negate(node.job, node.floats()))


@lowers("LeakyRelu")
def leaky_relu(node: Node) -> Tensor:
    slope = arithmetic.full(node.job, (), float(node.get("alpha", 0.01)))
    return _by_sign(node, arithmetic.scale(node.job, node.floats(), slope))


@lowers("PRelu")
def parametric_relu(node: Node) -> Tensor:
    x, slope = node.floats(), node.floats(1)
    if node.opset < 7 and slope.size > 1:  # one for each channel
        slope = slope.reshape(-1, *[1] * (x.at.ndim - 2))
    return _by_sign(node, arithmetic.multiply(node.job, x, slope))


def _by_sign(node: Node, below: Tensor) -> Tensor:
    x = node.job.floats(node.floats())
    return arithmetic.choose(node.job, arithmetic.at_least(node.job, x, arithmetic.full(node.job, (), 0)), x, below)


@lowers("ThresholdedRelu")
def thresholded_relu(node: Node) -> Tensor:
    """x where it is greater than alpha, else 0."""
    job, x = node.job, node.job.floats(node.floats())
    alpha = arithmetic.full(job, (), float(node.get("alpha", 1.0)))
    return arithmetic.choose(job, arithmetic.at_least(job, alpha, x), arithmetic.full(job, (), 0), x)


@lowers("HardSigmoid")
def hard_sigmoid(node: Node) -> Tensor:
    return _hard_sigmoid(node, float(node.get("alpha", 0.2)), float(node.get("beta", 0.5)))


@lowers("HardSwish")
def hard_swish(node: Node) -> Tensor:
    return arithmetic.multiply(node.job, node.floats(), _hard_sigmoid(node, 1 / 6, 0.5))


def _hard_sigmoid(node: Node, alpha: float, beta: float) -> Tensor:
    job = node.job
    alpha, beta, zero, one = (arithmetic.full(job, (), value) for value in (alpha, beta, 0, 1))
    line = job.add(arithmetic.scale(job, node.floats(), alpha), beta)
    return arithmetic.minimum(job, arithmetic.maximum(job, line, zero), one)


@lowers("Clip")
def clip(node: Node) -> Tensor:
    job, x = node.job, node.floats()
    for i, name, combine in ((1, "min", arithmetic.maximum), (2, "max", arithmetic.minimum)):
        bound = node.job.value(node.inputs[i]) if node.has(i) and job.is_constant(node.inputs[i]) else node.get(name, 0)
        if np.isinf(bound):
            continue
        if node.has(i):
            x = combine(job, x, node.floats(i))
        elif node.get(name) is not None:
            x = combine(job, x, arithmetic.full(job, (), float(node.get(name))))
    return x


@lowers("Softsign")
def softsign(node: Node) -> Tensor:
    return arithmetic.divide(node.job, node.floats(), node.job.add(arithmetic.full(node.job, (), 1), absolute(node)))


@lowers("GreaterOrEqual", "LessOrEqual", "Less", "Greater", "Equal")
def compare(node: Node) -> Tensor:
    """Numbers; every comparison is one or two of `at_least`."""
    job, (a, b) = node.job, _operands(node)
    if node.op == "Equal":
        return arithmetic.to_truth(job, arithmetic.both(job, *(arithmetic.at_least(job, *p) for p in ((a, b), (b, a)))))
    swapped = node.op in ("LessOrEqual", "Greater")
    result = arithmetic.at_least(job, *((b, a) if swapped else (a, b)))
    return arithmetic.to_truth(job, arithmetic.opposite(job, result) if node.op in ("Less", "Greater") else result)


@lowers("And", "Or", "Xor", "Not")
def logic(node: Node) -> Tensor:
    """Truth values as 0 and 1."""
    job = node.job
    a, *others = (arithmetic.to_floats(job, tensor) for tensor in _operands(node, Node.tensor))
    if node.op == "Not":
        return arithmetic.to_truth(job, arithmetic.opposite(job, a))
    b = others[0]
    if node.op == "Xor":  # their difference, squared
        difference = arithmetic.subtract(job, a, b)
        return arithmetic.to_truth(job, arithmetic.multiply(job, difference, difference))
    result = arithmetic.both(job, a, b) if node.op == "And" else arithmetic.maximum(job, a, b)
    return arithmetic.to_truth(job, result)


@lowers("Where")
def where(node: Node) -> Tensor:
    return arithmetic.choose(node.job, arithmetic.to_floats(node.job, node.tensor(0)), node.floats(1), node.floats(2))


@lowers("Cast")
def cast(node: Node) -> Tensor:
    x = node.tensor()
    if int(node.get("to")) != 1:
        raise Refused("casts are lowered to float32 alone")
    if x.dtype == np.float32:
        return x
    if x.dtype.kind not in "iub" or x.dtype.itemsize > 4 or x.dtype == np.uint32:
        raise Refused(f"no operator of the library takes {x.dtype}")
    return arithmetic.to_floats(node.job, x)
