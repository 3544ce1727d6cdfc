"""The operators of the library, as methods of a job: they take tensors and give tensors. `kelrt ops NAME` describes the
operators, `arithmetic.py` says what else can be made of them."""
import math
from collections.abc import Sequence

import numpy as np

from gather import place
from tensor import Tensor

FLOATS = ("f4", "u1")  # what an operator of floats may be given, to the tool
BYTES = ("i1", "u1")


class Operators:
    """What `Job` has these from; it has memories itself."""

    def _run(self, operator: str, shape: Sequence[int], arguments: list, dtype: object = np.float32) -> Tensor:
        """One context that makes a tensor [shape], which stands as None among its arguments. Nothing is called for a
        tensor of no elements."""
        made = self.buffer(shape, dtype)
        if made.size:
            self.call(operator, [self._argument(made if value is None else value) for value in arguments])
        return made

    def _argument(self, value: object) -> object:
        if isinstance(value, Tensor):
            return place(value.address)
        return value

    def floats(self, tensor: Tensor) -> Tensor:
        """The same float32 elements, where an operator can read them as such."""
        assert tensor.dtype == np.float32, tensor.dtype
        return self.dense(tensor, FLOATS)

    def add(self, a: Tensor, b: Tensor) -> Tensor:
        """a + b, broadcast against each other."""
        shape = np.broadcast_shapes(a.shape, b.shape)
        a, b = self.floats(a.broadcast_to(shape)), self.floats(b.broadcast_to(shape))
        return self._run("cpu_ewop_add", shape, [None, a, b, a.size])

    def matmul(self, a: Tensor, b: Tensor) -> Tensor:
        """a [m, k] times b [k, n] -> [m, n]. Either may be given as the .T of a dense matrix: the operator then
        transposes a copy."""
        (m, k), n = a.shape, b.shape[1]
        if b.shape[0] != k:
            raise ValueError(f"matrices of {list(a.shape)} and {list(b.shape)} have no product")
        if k == 0:
            return self.constant(np.zeros((m, n), np.float32))
        (a, a_turned), (b, b_turned) = self._factor(a), self._factor(b)
        sizes = [*a.shape, *b.shape, a_turned, b_turned]
        return self._run("cpu_matmul", [m, n], [a, b, None, *sizes])

    def _factor(self, matrix: Tensor) -> tuple[Tensor, int]:
        """As it is to be stored, and whether the operator has to transpose it where it lies."""
        if self.is_dense(matrix) or self.is_constant(matrix) or not self.is_dense(matrix.T):
            return self.floats(matrix), 0
        return self.copied(matrix.T), 1

    def softmax(self, rows: Tensor) -> Tensor:
        """Of each row of [rows, n], exponentiated as it stands: nothing is subtracted first."""
        rows = self.floats(rows)
        result = self.buffer(rows.shape)
        for x, y in zip(rows.at.tolist(), result.at.tolist()):
            self.call("cpu_softmax", [place(y[0]), place(x[0]), len(x)])
        return result

    def featurenorm(self, frames: Tensor, mean: Tensor, var: Tensor) -> Tensor:
        """(frames [f, n] - mean [n]) / var [n], a true division."""
        frames, mean, var = self.floats(frames), self.floats(mean), self.floats(var)
        return self._run("cpu_featurenorm", frames.shape, [frames, frames.size, mean, var, mean.size, None])

    def instance_norm(self, channel: Tensor, scale: float, bias: float) -> Tensor:
        """Normalised values [n] of one channel times `scale` plus `bias`; epsilon is 1e-5."""
        channel = self.floats(channel)
        values = [None, channel, channel.size, _flt(scale), _flt(bias)]
        return self._run("cpu_onnx_inst_norm", channel.shape, values)

    def one_hot(self, index: Tensor, depth: int, on: object, off: object, dtype: object = np.float32) -> Tensor:
        """[depth] elements of 4 bytes: `off`, and `on` at the index, one float. The context fails at a greater
        one."""
        index, bits = self.floats(index), [_bits(np.array(value, dtype)) for value in (on, off)]
        return self._run("cpu_onnx_onehot", [depth], [None, index, depth, *bits], dtype)

    def embedding(self, index: Tensor, table: Tensor) -> Tensor:
        """The row of the dense table [rows, w] at the index, one float -> [w]; rows of 4 bytes or a multiple."""
        words = table.dtype.itemsize * table.shape[1] // 4
        table = self.dense(table, FLOATS)
        return self._run("cpu_embedding", [table.shape[1]], [None, self.floats(index), table, words], table.dtype)

    def convert(self, values: Tensor, to: object, frac_bits: int = 0, scale: int = 1) -> Tensor:
        """Integers of 8, 16 or 32 bits, each times scale / 2^frac_bits, to float32; or float32 times
        2^frac_bits / scale to int8, saturated and rounded toward zero."""
        values, format = self.dense(values), [frac_bits, scale]
        floats, ours = [0xFFFFFFFF, 0, 1], [values.dtype.itemsize * 8, *format]
        formats = (floats, ours) if np.dtype(to) == np.float32 else ([8, *format], floats)
        arguments = [None, *formats[0], values, *formats[1], values.size]
        return self._run("cpu_copy_fmt_conv", values.shape, arguments, to)

    def low_bytes(self, words: Tensor) -> Tensor:
        """The lowest byte of each element of 4 bytes [n], as uint8: the first plane of one hw32 line."""
        words = self.dense(words)
        planes = [None, words, words.size, 1, words.size]
        return self._run("cpu_hw32_fmt_conv_param", [4 * words.size], planes, np.uint8)[: words.size]

    def linear(self, planes: Tensor, count: int) -> Tensor:
        """int32 [count] of one hw32 line of that many, a multiple of 8: first the lowest byte of each, and so on."""
        planes = self.dense(planes)
        return self._run("cpu_hw32_fmt_conv_param", [count], [None, planes, count, 0, count], np.int32)

    def im2col(self, image: Tensor, kernel: Sequence[int], strides: Sequence[int]) -> Tensor:
        """Patches [places, kernel height x kernel width x channels, and zeros up to a multiple of 8 bytes] of an
        image [rows, columns, channels]."""
        rows, cols, channels = image.shape
        size = image.dtype.itemsize
        patch = math.ceil(kernel[0] * kernel[1] * channels * size / 8) * 8 // size
        places = math.prod((n - k) // s + 1 for n, k, s in zip((rows, cols), kernel, strides))
        sizes = [rows, cols, channels * size, *kernel, 1, *strides]
        return self._run("cpu_im2col", [places, patch], [self.dense(image, BYTES), None, *sizes], image.dtype)

    def lstm_states(self, variant: str, cell: Tensor, gates: Tensor, hidden: Tensor | None = None) -> Tensor:
        """The hidden state [n], in a new buffer or the one given; `cell` [n] becomes the new cell state, and the gates
        [4n] may change, so both have to be of buffers that nobody reads as they were. `variant` is what follows
        "cpu_lstm_states" in the operator's name."""
        hidden = self.buffer(cell.shape) if hidden is None else hidden
        arguments = [self._argument(tensor) for tensor in (hidden, cell, gates)]
        self.call("cpu_lstm_states" + variant, [*arguments, cell.size])
        return hidden

    def layer_norm(self, values: Tensor, gates: Tensor, gamma: Tensor, beta: Tensor, epsilon: float) -> None:
        """Normalises each row of `values` [rows, n], dense in a buffer, in place, times gamma plus beta, [rows, n]:
        it is the cell state of an LSTM whose `gates` [4n] keep it."""
        nothing = {"mem": None}
        hidden = self.buffer(values.shape[1:])
        for row in range(len(values)):
            tensors = [self._argument(tensor) for tensor in (hidden, values[row], gates)]
            parameters = [self._argument(self.floats(tensor[row])) for tensor in (gamma, beta)]
            flags = [0, 0, 1, 1]  # of gate normalisation, of each by itself, of cell normalisation, in place
            self.call("cpu_lstm_states_norm_cifg_cpuactv",
                      [*tensors, values.shape[1], 0, 0, _flt(epsilon), nothing, nothing, *parameters, *flags])


def _bits(value: np.ndarray) -> dict:
    return {"flt": f"0x{int(value.view(np.uint32)):08X}"}


def _flt(value: float) -> dict:
    exact = np.float32(value)
    return {"flt": float(exact)} if np.isfinite(exact) else _bits(np.array(exact))
