"""What the operators of the library can be made to compute besides their own: each function says how.

Tensors are float32 unless something else is said, and operands are broadcast against each other. Values that are not
finite do not come through a choice (`choose` and what uses it), and a product of -0 is +0."""
import math
from collections.abc import Callable

import numpy as np

from job import Job, JobError
from tensor import Tensor, concat

MAGIC = 1.5 * 2**23  # Added to a small float it rounds it to an integer, ties to even, which its low bits then are.
HUGE = 2.0**126  # Times this, the least normal number is 1.


def full(job: Job, shape: tuple[int, ...], value: float) -> Tensor:
    return job.constant(np.full(shape, value, np.float32))


def subtract(job: Job, a: Tensor, b: Tensor) -> Tensor:
    """(a - b) / 1, which feature normalisation rounds as a subtraction does."""
    return normalised(job, a, b, full(job, (), 1))


def divide(job: Job, a: Tensor, b: Tensor) -> Tensor:
    """(a - 0) / b, the same way."""
    return normalised(job, a, full(job, (), 0), b)


def normalised(job: Job, a: Tensor, mean: Tensor, var: Tensor) -> Tensor:
    """(a - mean) / var. The operator takes frame after frame, so a mean and a divisor that repeat along leading axes
    are there once."""
    shape = np.broadcast_shapes(a.shape, mean.shape, var.shape)
    changing = [axis for axis, n in enumerate(np.broadcast_shapes(mean.shape, var.shape)[::-1], 1) if n > 1]
    frame = shape[len(shape) - max(changing, default=0) :]

    def in_frame(tensor: Tensor) -> Tensor:
        own = tensor.shape[max(0, tensor.at.ndim - len(frame)) :]
        return tensor.reshape(*own).broadcast_to(frame).reshape(-1)

    frames = a.broadcast_to(shape).reshape(-1, math.prod(frame))
    return job.featurenorm(frames, in_frame(mean), in_frame(var)).reshape(*shape)


def scale(job: Job, x: Tensor, factor: Tensor) -> Tensor:
    """x times one number: a matrix of one column times one of one element."""
    return job.matmul(x.reshape(-1, 1), factor.reshape(1, 1)).reshape(*x.shape)


def multiply(job: Job, a: Tensor, b: Tensor) -> Tensor:
    """a * b: the new cell state of an LSTM whose input gate is a, whose candidate is b and which forgets."""
    shape = np.broadcast_shapes(a.shape, b.shape)
    for x, factor in ((a, b), (b, a)):
        if factor.size == 1 and x.shape == shape:
            return scale(job, x, factor)
    a, b = a.broadcast_to(shape).reshape(-1), b.broadcast_to(shape).reshape(-1)
    zeros = full(job, a.shape, 0)
    cell = job.copied(zeros)
    job.lstm_states("", cell, job.dense(concat([a, zeros, zeros, b])))
    return cell.reshape(*shape)


def negate(job: Job, x: Tensor) -> Tensor:
    return divide(job, x, full(job, (), -1))


def sigmoid(job: Job, x: Tensor) -> Tensor:
    """The forget gate of an LSTM that activates its gates, whose cell state was 1 and to which tanh(0) is added."""
    zeros = full(job, (x.size,), 0)
    cell = job.copied(full(job, (x.size,), 1))
    job.lstm_states("_cpu_activation", cell, job.copied(concat([zeros, x.reshape(-1), zeros, zeros])))
    return cell.reshape(*x.shape)


def tanh(job: Job, x: Tensor) -> Tensor:
    """The hidden state of an LSTM whose cell keeps x and whose output gate is 1."""
    zeros, ones = full(job, (x.size,), 0), full(job, (x.size,), 1)
    gates = job.dense(concat([zeros, ones, ones, zeros]))
    return job.lstm_states("", job.copied(x.reshape(-1)), gates).reshape(*x.shape)


def at_least(job: Job, a: Tensor, b: Tensor) -> Tensor:
    """1 where a >= b (or one of them is not a number), 0 where a < b, from the ends of the range of 8 bits."""
    saturated = job.convert(normalised(job, a, b, full(job, (), 1 / HUGE)), np.int8, frac_bits=7)  # < 0, or 0 and more
    upwards = job.add(job.convert(saturated, np.float32, frac_bits=7), full(job, (), 1))  # [0, 1) or [1, 2)
    return job.convert(job.convert(upwards, np.int8), np.float32)


def choose(job: Job, condition: Tensor, a: Tensor, b: Tensor) -> Tensor:
    """a where the condition is 1, b where it is 0: the new cell state of an LSTM whose input gate is coupled to its
    forget gate, exactly."""
    for tensor in (a, b):
        if job.is_constant(tensor) and not np.isfinite(job.value(tensor)).all():
            raise JobError("it has a constant that is not finite, which no choice leaves alone")
    shape = np.broadcast_shapes(condition.shape, a.shape, b.shape)
    condition, a, b = (tensor.broadcast_to(shape).reshape(-1) for tensor in (condition, a, b))
    zeros = full(job, a.shape, 0)
    cell = job.copied(a)
    job.lstm_states("_cifg", cell, job.copied(concat([zeros, condition, zeros, b])))
    return cell.reshape(*shape)


def maximum(job: Job, a: Tensor, b: Tensor) -> Tensor:
    a, b = _dense(job, a, b)
    return choose(job, at_least(job, a, b), a, b)


def minimum(job: Job, a: Tensor, b: Tensor) -> Tensor:
    a, b = _dense(job, a, b)
    return choose(job, at_least(job, b, a), a, b)


def _dense(job: Job, *tensors: Tensor) -> list[Tensor]:
    shape = np.broadcast_shapes(*(tensor.shape for tensor in tensors))
    return [job.floats(tensor.broadcast_to(shape)) for tensor in tensors]


def fold(job: Job, combine: Callable[[Job, Tensor, Tensor], Tensor], x: Tensor) -> Tensor:
    """x [n, ...] -> [...], the first half with the second, half as often as there are elements left."""
    while len(x) > 1:
        half = len(x) // 2
        both = combine(job, x[:half], x[half : 2 * half])
        x = both if len(x) % 2 == 0 else concat([both, x[2 * half :]])
    return x[0]


def total(job: Job, rows: Tensor) -> Tensor:
    """The sum of each of the rows [r, n] -> [r]: a product with a column of ones."""
    return job.matmul(rows, full(job, (rows.shape[1], 1), 1)).reshape(-1)


def mean(job: Job, rows: Tensor) -> Tensor:
    """Of each of the rows [r, n] -> [r]."""
    return divide(job, total(job, rows), full(job, (), rows.shape[1]))


def softmax(job: Job, rows: Tensor, in_range: bool) -> Tensor:
    """Of each of the rows [r, n]. The operator exponentiates its values as they stand; unless they are known to be
    in range, the largest of its row is subtracted of each first."""
    if not in_range and rows.shape[1] > 1:
        columns = job.dense(rows.T)
        largest = fold(job, maximum, columns)
        rows = subtract(job, columns, largest).T
    elif not in_range:
        return full(job, rows.shape, 1)
    return job.softmax(rows)


def layer_norm(job: Job, rows: Tensor, gamma: Tensor, beta: Tensor, epsilon: float) -> Tensor:
    """Each of the rows [r, n] normalised, times gamma plus beta, both [n] or [r, n]: the cell state of an LSTM that
    keeps it, with cell normalisation."""
    count = rows.shape[1]
    gates = job.constant(np.repeat(np.float32([0, 1, 0, 0]), count))
    gamma, beta = (job.floats(tensor).broadcast_to(rows.shape) for tensor in (gamma, beta))
    result = job.copied(rows)
    job.layer_norm(result, gates, gamma, beta, epsilon)
    return result


def inverse_deviation(job: Job, rows: Tensor, mean: Tensor, epsilon: float) -> Tensor:
    """1 / sqrt(variance + epsilon) of each of the rows [r, n] with their means [r] -> [r].

    A row of n values, its mean taken off, and +s and -s with s^2 = n epsilon / 2 has the deviation
    sqrt((variance + epsilon) n / (n + 2)), and by it s is divided when the row is normalised."""
    r, n = rows.shape
    s = math.sqrt(n * epsilon / 2)
    ends = job.constant(np.tile(np.float32([s, -s]), (r, 1)))
    longer = concat([subtract(job, rows, mean.reshape(-1, 1)), ends], 1)
    gamma = full(job, (n + 2,), math.sqrt(n / (n + 2)) / s)
    return layer_norm(job, longer, gamma, full(job, (n + 2,), 0), 0)[:, n]


def rounded(job: Job, x: Tensor, plus: float = 0) -> Tensor:
    """x to the nearest integer, ties to even, plus an integer; of magnitudes below 2^22."""
    return subtract(job, job.add(x, full(job, (), MAGIC)), full(job, (), MAGIC - plus))


def both(job: Job, a: Tensor, b: Tensor) -> Tensor:
    """1 where a and b, which are 0 or 1, are 1."""
    return multiply(job, *_dense(job, a, b))


def opposite(job: Job, a: Tensor) -> Tensor:
    """1 where a is 0, 0 where it is 1."""
    return subtract(job, full(job, (), 1), a)


def to_truth(job: Job, a: Tensor) -> Tensor:
    """Of 0 and 1, as bool."""
    return Tensor(to_bytes(job, a).at, np.dtype(np.bool_))


def to_bytes(job: Job, integers: Tensor) -> Tensor:
    """The lowest byte of each integer, which a float32 holds, as uint8."""
    return job.low_bytes(job.add(integers, full(job, (), MAGIC)).reshape(-1)).reshape(*integers.shape)


def clamped(job: Job, integers: Tensor, dtype: np.dtype) -> Tensor:
    """Integers, which a float32 holds, as int8 or uint8, saturated."""
    if dtype == np.int8:
        return job.convert(integers, np.int8)
    signed = job.convert(job.add(integers, full(job, (), -128)), np.int8)
    return to_bytes(job, job.add(job.convert(signed, np.float32), full(job, (), 128)))


def to_floats(job: Job, integers: Tensor) -> Tensor:
    """Integers of up to 32 bits, signed, or 8 or 16, unsigned, as float32. Unsigned ones get zeros above them."""
    if integers.dtype.kind == "u" or integers.dtype == np.bool_:
        size = integers.dtype.itemsize
        parts = job.constant(np.zeros((*integers.shape, 4 // size), integers.dtype))
        wide = concat([Tensor(integers.at[..., None], integers.dtype), parts[..., 1:]], -1)
        integers = _widened(job, integers) if size == 1 else Tensor(job.dense(wide).at[..., 0], np.dtype(np.int32))
    return job.convert(integers, np.float32)


def _widened(job: Job, small: Tensor) -> Tensor:
    """Bytes as int32: the first plane of one hw32 line, whose length is a multiple of 8, zeros in the others."""
    line = -(-small.size // 8) * 8
    planes = job.copied(concat([small.reshape(-1), job.constant(np.zeros(4 * line - small.size, small.dtype))]))
    words = job.linear(planes, line)[: small.size]
    return words.reshape(*small.shape)


def index(job: Job, indices: Tensor, size: int) -> Tensor:
    """Indices of `size` elements as floats [the same shape]; negative ones count from the end."""
    if indices.dtype.kind == "f" and indices.dtype != np.float32:
        raise JobError(f"no operator of the library takes indices of {indices.dtype}")
    flat = indices.reshape(-1)
    if indices.dtype == np.int64:  # Two words, of which the upper one is 0 or -1.
        words = job.convert(job.dense(flat).view("i4"), np.float32)
        return job.matmul(words, job.constant(np.float32([[1], [-size]]))).reshape(*indices.shape)
    floats = flat if indices.dtype == np.float32 else to_floats(job, flat)
    if indices.dtype.kind == "u":
        return floats.reshape(*indices.shape)
    below = opposite(job, at_least(job, floats, full(job, (), 0)))
    return job.add(floats, scale(job, below, full(job, (), size))).reshape(*indices.shape)
