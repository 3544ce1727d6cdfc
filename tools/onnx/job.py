"""Jobs for `kelrt run` from chains of operators on numpy arrays:

    import numpy as np
    from job import Job

    job = Job()
    x = job.input("x", np.random.rand(3, 4).astype("f4"))
    weights = job.constant(np.random.rand(4, 10).astype("f4"))
    scores = job.matmul(x, weights)
    job.output("probabilities", job.softmax(scores))
    result = job.run(["build/host/bin/kelrt"])
    print(result["probabilities"])    # a numpy array [3, 10]
    print(result.report)              # status and time of every operator

A tensor is an array of addresses, so that `x.T`, `x[:, ::2]`, `x.reshape(...)`, `x.broadcast_to(...)` and `concat` cost
nothing. An operator needs its operands in one piece: then, and only then, the bytes are copied into a buffer by
`cpu_split` contexts, as few as possible. Nothing is computed here. What is constant in such a buffer is among its
initial bytes."""
import collections
import dataclasses
import itertools
import json
import math
import os
import pathlib
import re
import shutil
import tempfile
from collections.abc import Iterable, Sequence

import numpy as np

import gather
import tool
from gather import MEMORY

# What `kelrt run` has a dtype for; anything else is bytes to it.
DTYPES = {"float32": "f4", "int32": "i4", "int16": "i2", "int8": "i1", "uint8": "u1"}
FLOATS = ("f4", "u1")
BYTES = ("i1", "u1")
ANY = (*DTYPES.values(),)
ANY_OUTPUT = ("cpu_split", "cpu_copy_fmt_conv", "cpu_hw32_fmt_conv_param")  # give elements of any type
MOST_CONTEXTS = 400_000  # what the tool reads in two seconds
MOST_BYTES = 512 << 20  # of all memories together


class JobError(Exception):
    """A job that cannot be, in one sentence."""


@dataclasses.dataclass
class Memory:
    """One memory of a job. A constant's bytes are known, those of a buffer are what contexts write over its initial
    ones, those of an input may be others at each run."""

    number: int
    name: str
    kind: str  # "cpu" or "accelerator"
    role: str  # "constant", "buffer", "input" or "output"
    initial: np.ndarray  # uint8 [size]
    dtype: np.dtype
    shape: tuple[int, ...]

    @property
    def tool_dtype(self) -> str:
        """Buffers are raw bytes to the tool, which then serve every operand, and so are types that it does not know."""
        return "u1" if self.role == "buffer" else DTYPES.get(self.dtype.name, "u1")

    def array(self) -> np.ndarray:
        """The initial bytes as the tool is to see them: raw ones along a further axis."""
        size = self.dtype.itemsize
        if self.tool_dtype == "u1":
            return self.initial.reshape(*self.shape, size) if size > 1 else self.initial.reshape(self.shape)
        return self.initial.view(self.dtype).reshape(self.shape)


class Tensor:
    """Elements of memories: their addresses `at` [shape] and their dtype. Never changed once made."""

    def __init__(self, at: np.ndarray, dtype: np.dtype) -> None:
        self.at, self.dtype = at, np.dtype(dtype)

    @property
    def shape(self) -> tuple[int, ...]:
        return self.at.shape

    @property
    def size(self) -> int:
        return self.at.size

    @property
    def nbytes(self) -> int:
        return self.at.size * self.dtype.itemsize

    @property
    def T(self) -> "Tensor":
        return self.transpose()

    def __len__(self) -> int:
        return len(self.at)

    def __getitem__(self, key: object) -> "Tensor":
        return Tensor(np.asarray(self.at[key]), self.dtype)

    def reshape(self, *shape: int) -> "Tensor":
        return Tensor(self.at.reshape(*shape) if shape else self.at.reshape(()), self.dtype)

    def transpose(self, *axes: int) -> "Tensor":
        return Tensor(self.at.transpose(axes or None), self.dtype)

    def moveaxis(self, source: int, target: int) -> "Tensor":
        return Tensor(np.moveaxis(self.at, source, target), self.dtype)

    def take(self, indices: np.ndarray, axis: int) -> "Tensor":
        return Tensor(self.at.take(indices, axis), self.dtype)

    def broadcast_to(self, shape: Sequence[int]) -> "Tensor":
        return Tensor(np.broadcast_to(self.at, shape), self.dtype)

    def split(self, sizes: Sequence[int], axis: int) -> "list[Tensor]":
        ends = np.cumsum(sizes)[:-1]
        return [Tensor(at, self.dtype) for at in np.split(self.at, ends, axis)]

    def view(self, dtype: str) -> "Tensor":
        """The same bytes as elements of another type: a further axis, if it is smaller, of an element's parts."""
        size = np.dtype(dtype).itemsize
        parts = self.at[..., None] + np.arange(0, self.dtype.itemsize, size)
        return Tensor(parts[..., 0] if size == self.dtype.itemsize else parts, np.dtype(dtype))


def concat(tensors: Sequence[Tensor], axis: int = 0) -> Tensor:
    return Tensor(np.concatenate([tensor.at for tensor in tensors], axis), tensors[0].dtype)


class Job:
    """Memories and contexts. The methods after `copy` are the operators of the library, each of which takes tensors
    and gives tensors; `arithmetic.py` says what else can be made of them."""

    def __init__(self) -> None:
        self.memories: list[Memory] = []
        self.contexts: list[tuple[str, list]] = []
        self.outputs: dict[str, tuple[Memory, Tensor]] = {}
        self._on_cpu: dict[int, int] = {}  # of inputs that had to be cut up: their copy's address
        self._names: set[str] = {"sram"}
        self._users: dict[int, list[str]] = collections.defaultdict(list)  # operators that use a memory

    # ---- memories ----

    def constant(self, array: np.ndarray) -> Tensor:
        """A tensor whose elements are known: `array` [any shape]."""
        return self._memory("constant", "cpu", np.ascontiguousarray(array).reshape(np.shape(array)))

    def input(self, name: str, array: np.ndarray) -> Tensor:
        """A tensor in accelerator memory. The values of `array` [any shape] are what the job is run with."""
        return self._memory("input", "accelerator", np.ascontiguousarray(array).reshape(np.shape(array)), name)

    def set_input(self, name: str, array: np.ndarray) -> None:
        """Other values for the next run."""
        memory = next(memory for memory in self.memories if memory.role == "input" and memory.name == file_name(name))
        assert (array.dtype, array.shape) == (memory.dtype, memory.shape), (array.dtype, array.shape)
        memory.initial = np.ascontiguousarray(array).reshape(-1).view(np.uint8)

    def buffer(self, shape: Sequence[int], dtype: object = np.float32) -> Tensor:
        """Zeros [shape] on the CPU, for an operator to write."""
        return self._memory("buffer", "cpu", np.zeros(shape, dtype))

    def output(self, name: str, tensor: Tensor) -> None:
        """The job's result `name` is `tensor` [any shape], which accelerator memory shall hold."""
        if not self._becomes_output(tensor := self.dense(tensor), name):
            result = self._memory("output", "accelerator", np.zeros(tensor.shape, tensor.dtype), name)
            self.copy(tensor, result)
            tensor = result
        self.outputs[name] = (self.memories[-1] if not tensor.size else self.memory_of(tensor), tensor)

    def _becomes_output(self, tensor: Tensor, name: str) -> bool:
        """Lets the one context that makes a whole buffer write to accelerator memory instead."""
        if not tensor.size:
            return False
        memory = self.memory_of(tensor)
        users = self._users[memory.number]
        fits = users[0] in ANY_OUTPUT or (tensor.dtype == np.float32 and users[0] != "cpu_im2col") if users else False
        whole = tensor.nbytes == len(memory.initial)
        if memory.role != "buffer" or not whole or memory.initial.any() or len(users) != 1 or not fits:
            return False
        memory.name, memory.kind, memory.role = self._unused(file_name(name)), "accelerator", "output"
        memory.dtype, memory.shape = tensor.dtype, tensor.shape
        return True

    def _memory(self, role: str, kind: str, array: np.ndarray, name: str = "") -> Tensor:
        number = len(self.memories)
        name = self._unused(file_name(name) or f"{role}_{number}")
        initial = array.reshape(-1).view(np.uint8)
        self.memories.append(Memory(number, name, kind, role, initial, array.dtype, array.shape))
        offsets = np.arange(array.size, dtype=np.int64).reshape(array.shape) * array.dtype.itemsize
        return Tensor(number * MEMORY + offsets, array.dtype)

    def _unused(self, name: str) -> str:
        for candidate in itertools.chain([name], (f"{name}_{i}" for i in itertools.count(2))):
            if candidate not in self._names:
                self._names.add(candidate)
                return candidate
        raise AssertionError

    def memory_of(self, tensor: Tensor) -> Memory:
        """The memory that holds a dense tensor."""
        return self.memories[int(tensor.at.reshape(-1)[0]) // MEMORY]

    # ---- what is where ----

    def is_constant(self, tensor: Tensor) -> bool:
        return not self._wanted(tensor.at).any()

    def value(self, tensor: Tensor) -> np.ndarray:
        """What a constant tensor holds [its shape]."""
        values = np.zeros(tensor.shape, tensor.dtype)
        self._fill(tensor, values.reshape(-1).view(np.uint8))
        return values

    def is_dense(self, tensor: Tensor) -> bool:
        return gather.in_one_piece(tensor.at, tensor.dtype.itemsize)

    def _wanted(self, at: np.ndarray) -> np.ndarray:
        """Which elements contexts have to bring: all but those of constants [the shape of `at`]."""
        varies = np.array([memory.role != "constant" for memory in self.memories], dtype=bool)
        return varies[at // MEMORY] if at.size else np.zeros(at.shape, dtype=bool)

    def _fill(self, tensor: Tensor, initial: np.ndarray) -> None:
        """Writes the constant elements of a tensor into its place's initial bytes, uint8 [nbytes]."""
        size, at = tensor.dtype.itemsize, tensor.at.reshape(-1)
        rows = initial.reshape(-1, size) if initial.size else initial.reshape(0, size)
        for number in np.unique(at // MEMORY).tolist():
            memory = self.memories[number]
            if memory.role == "constant":
                mine = np.flatnonzero(at // MEMORY == number)
                rows[mine] = memory.initial[(at[mine] % MEMORY)[:, None] + np.arange(size)]

    def dense(self, tensor: Tensor, dtypes: Iterable[str] = ANY) -> Tensor:
        """The same elements in one piece of a memory whose type is one of `dtypes`: the tensor itself if it is, else
        a copy."""
        if tensor.size == 0 or (self.is_dense(tensor) and self.memory_of(tensor).tool_dtype in dtypes):
            return tensor
        if self.is_constant(tensor) and DTYPES.get(tensor.dtype.name) in dtypes:
            return self.constant(self.value(tensor))
        return self.copied(tensor)

    def copied(self, tensor: Tensor) -> Tensor:
        """The same elements in a buffer of their own, which an operator may write."""
        made = self.buffer([tensor.nbytes], np.uint8)
        result = Tensor(made.at[:: tensor.dtype.itemsize].reshape(tensor.shape), tensor.dtype)
        self.copy(tensor, result)
        return result

    def copy(self, tensor: Tensor, to: Tensor) -> None:
        """Brings a tensor's elements to those of a dense one of the same size, in a buffer that is new."""
        if tensor.size == 0:
            return
        memory, target = self.memory_of(to), int(to.at.reshape(-1)[0])
        begin = target % MEMORY
        self._fill(tensor, memory.initial[begin : begin + to.nbytes])
        for step in self._fetched(gather.plan(tensor.at, self._wanted(tensor.at), target, tensor.dtype.itemsize)):
            if isinstance(step, gather.Copy):
                self.call("cpu_split", [_mem(step.source), _mem(step.target), step.size])
            else:
                # Without columns in b nothing is multiplied, and a CPU buffer keeps its transposed operand.
                place = _mem(step.address)
                self.call("cpu_matmul", [place, place, place, step.rows, step.cols, step.rows, 0, 1, 0])

    def _fetched(self, steps: list) -> list:
        """The same steps, from a copy on the CPU where an input is read in pieces: each context that reads of an
        accelerator memory carries all of it through the caches."""
        reads = collections.Counter(step.source // MEMORY for step in steps if isinstance(step, gather.Copy))
        moved = {number: self._copy_on_cpu(number) - number * MEMORY for number, count in reads.items()
                 if self.memories[number].role == "input" and (count > 1 or number in self._on_cpu)}
        return [step._replace(source=step.source + moved.get(step.source // MEMORY, 0))
                if isinstance(step, gather.Copy) else step for step in steps]

    def _copy_on_cpu(self, number: int) -> int:
        """The address of an input's copy on the CPU."""
        if number not in self._on_cpu:
            whole = self.buffer([len(self.memories[number].initial)], np.uint8)
            self._on_cpu[number] = int(whole.at[0])
            self.call("cpu_split", [_mem(number * MEMORY), _mem(int(whole.at[0])), whole.size])
        return self._on_cpu[number]

    # ---- contexts ----

    def call(self, operator: str, arguments: list) -> None:
        """Appends one context; the arguments are those of the job's file, but a memory is `_mem(address)`."""
        if len(self.contexts) >= MOST_CONTEXTS:
            raise JobError(f"it takes more than {MOST_CONTEXTS} contexts")
        self.contexts.append((operator, arguments))
        for value in arguments:
            if isinstance(value, tuple):
                self._users[value[0]].append(operator)

    def _run(self, operator: str, shape: Sequence[int], arguments: list, dtype: object = np.float32) -> Tensor:
        """One context that makes a tensor [shape], which stands as None among its arguments. Nothing is called for a
        tensor of no elements."""
        made = self.buffer(shape, dtype)
        if made.size:
            self.call(operator, [self._argument(made if value is None else value) for value in arguments])
        return made

    def _argument(self, value: object) -> object:
        if isinstance(value, Tensor):
            return _mem(int(value.at.reshape(-1)[0]))
        return value

    def floats(self, tensor: Tensor) -> Tensor:
        """The same float32 elements, where an operator can read them as such."""
        assert tensor.dtype == np.float32, tensor.dtype
        return self.dense(tensor, FLOATS)

    # ---- operators ----

    def add(self, a: Tensor, b: Tensor) -> Tensor:
        """a + b, broadcast against each other."""
        shape = np.broadcast_shapes(a.shape, b.shape)
        a, b = self.floats(a.broadcast_to(shape)), self.floats(b.broadcast_to(shape))
        return self._run("cpu_ewop_add", shape, [None, a, b, a.size])

    def matmul(self, a: Tensor, b: Tensor) -> Tensor:
        """a [m, k] times b [k, n] -> [m, n]. Either may be given as the .T of a dense matrix: the operator then
        transposes a copy."""
        (m, k), n = a.shape, b.shape[1]
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
            self.call("cpu_softmax", [_mem(y[0]), _mem(x[0]), len(x)])
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

    # ---- files ----

    def write(self, folder: str | os.PathLike) -> pathlib.Path:
        """Writes job.json and the .npy files of its memories into a folder, all or nothing; returns the job's path."""
        folder = pathlib.Path(folder)
        folder.parent.mkdir(parents=True, exist_ok=True)
        beside = pathlib.Path(tempfile.mkdtemp(prefix=".job-", dir=folder.parent))
        try:
            (beside / "job.json").write_text(self._text(beside))
            folder.mkdir(exist_ok=True)
            for path in beside.iterdir():
                path.replace(folder / path.name)
        finally:
            shutil.rmtree(beside)
        return folder / "job.json"

    def _text(self, folder: pathlib.Path) -> str:
        """The job's JSON, a context a line; the arrays that it names go into the folder."""
        used = sorted({value[0] for _, arguments in self.contexts for value in arguments if isinstance(value, tuple)}
                      | {memory.number for memory, _ in self.outputs.values()})
        if (total := sum(len(self.memories[number].initial) for number in used)) > MOST_BYTES:
            raise JobError(f"the job's memories take {total >> 20} MiB, and the tool has {MOST_BYTES >> 20}")
        memories = {self.memories[number].name: self._described(self.memories[number], folder) for number in used}
        lines = [json.dumps({"op": operator, "args": [self._spelt(value) for value in arguments]})
                 for operator, arguments in self.contexts]
        sections = [
            '"memories": {\n' + ",\n".join(f"  {json.dumps(name)}: {json.dumps(m)}" for name, m in memories.items()),
            '}, "contexts": [\n' + ",\n".join("  " + line for line in lines),
            '], "outputs": ' + json.dumps([memory.name for memory, _ in self.outputs.values()]),
        ]
        return "{" + "\n".join(sections) + "}\n"

    def _described(self, memory: Memory, folder: pathlib.Path) -> dict:
        kind = {"kind": memory.kind} if memory.kind == "cpu" else {}
        array = memory.array()
        if memory.role in ("buffer", "output") and not memory.initial.any():
            return {"dtype": memory.tool_dtype, "shape": list(array.shape)} | kind
        np.save(folder / f"{memory.name}.npy", array)
        return {"npy": f"{memory.name}.npy"} | kind

    def _spelt(self, value: object) -> object:
        if not isinstance(value, tuple):
            return value
        number, offset = value
        return {"mem": self.memories[number].name} | ({"offset": offset} if offset else {})

    def run(self, command: Sequence[str], folder: str | os.PathLike | None = None) -> "tool.Result":
        """Runs the job with a tool such as ["build/host/bin/kelrt"], in `folder` or one that is removed again."""
        with tempfile.TemporaryDirectory() as passing:
            job = self.write(folder or pathlib.Path(passing) / "job")
            files = tool.run(command, job)
            return tool.Result({name: self.load(files, name) for name in self.outputs}, files.report)

    def load(self, files: "tool.Files", name: str) -> np.ndarray:
        """The output `name` of a run, of the type and shape of its tensor."""
        memory, tensor = self.outputs[name]
        return files.load(memory.name).reshape(-1).view(tensor.dtype).reshape(tensor.shape)


def file_name(name: str) -> str:
    """A name that may be one of a memory and of a file."""
    return re.sub(r"[^A-Za-z0-9_.-]+|^[.-]", "_", name)[:90]


def _mem(address: int) -> tuple[int, int]:
    return divmod(address, MEMORY)


def _bits(value: np.ndarray) -> dict:
    return {"flt": f"0x{int(value.view(np.uint32)):08X}"}


def _flt(value: float) -> dict:
    exact = np.float32(value)
    return {"flt": float(exact)} if np.isfinite(exact) else _bits(np.array(exact))
