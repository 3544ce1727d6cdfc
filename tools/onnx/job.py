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
from gather import MEMORY, place
from operators import Operators
from tensor import Tensor, concat

__all__ = ["Job", "JobError", "Tensor", "concat"]

# What `kelrt run` has a dtype for; anything else is bytes to it.
DTYPES = {"float32": "f4", "int32": "i4", "int16": "i2", "int8": "i1", "uint8": "u1"}
ANY = (*DTYPES.values(),)
ANY_OUTPUT = ("cpu_split", "cpu_copy_fmt_conv", "cpu_hw32_fmt_conv_param")  # give elements of any type
MOST_CONTEXTS = 400_000  # what the tool reads in two seconds
MOST_BYTES = 512 << 20  # of all memories together
SMALL = 64 << 10  # bytes of a constant that is looked for among those that are there


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


class Job(Operators):
    """Memories and contexts. The methods after `copy` are the operators of the library, each of which takes tensors
    and gives tensors; `arithmetic.py` says what else can be made of them."""

    def __init__(self) -> None:
        self.memories: list[Memory] = []
        self.contexts: list[tuple[str, list]] = []
        self.inputs: dict[str, Memory] = {}
        self.outputs: dict[str, tuple[Memory, Tensor]] = {}
        self._on_cpu: dict[int, int] = {}  # of inputs that had to be cut up: their copy's address
        self._names: set[str] = {"sram"}
        self._constants: dict[tuple, Tensor] = {}  # by what they hold
        self._buffered = 0  # bytes
        self._users: dict[int, list[int]] = collections.defaultdict(list)  # which contexts name a memory

    # ---- memories ----

    def constant(self, array: np.ndarray, name: str = "") -> Tensor:
        """A tensor whose elements are known: `array` [any shape]. Small ones that are the same share a memory."""
        array = np.ascontiguousarray(array).reshape(np.shape(array))
        key = (array.dtype.str, array.shape, array.tobytes()) if array.nbytes <= SMALL else (len(self.memories),)
        if key not in self._constants:
            self._constants[key] = self._memory("constant", "cpu", array, name)
        return self._constants[key]

    def input(self, name: str, array: np.ndarray) -> Tensor:
        """A tensor in accelerator memory. The values of `array` [any shape] are what the job is run with."""
        made = self._memory("input", "accelerator", np.ascontiguousarray(array).reshape(np.shape(array)), name)
        self.inputs[name] = self.memories[-1]
        return made

    def set_input(self, name: str, array: np.ndarray) -> None:
        """Other values for the next run."""
        memory = self.inputs[name]
        if (array.dtype, array.shape) != (memory.dtype, memory.shape):
            raise JobError(f"input '{name}' is {memory.dtype} {list(memory.shape)} and {array.dtype} "
                           f"{list(array.shape)} is given")
        memory.initial = np.ascontiguousarray(array).reshape(-1).view(np.uint8)

    def buffer(self, shape: Sequence[int], dtype: object = np.float32) -> Tensor:
        """Zeros [shape] on the CPU, for an operator to write."""
        self._buffered += math.prod(shape) * np.dtype(dtype).itemsize
        self.check_bytes(self._buffered)
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
        users = [self.contexts[i] for i in self._users[memory.number]]
        if memory.role != "buffer" or tensor.nbytes != len(memory.initial) or memory.initial.any() or len(users) != 1:
            return False
        (operator, arguments), = users
        if operator == "cpu_split" and arguments[2] != tensor.nbytes:  # the other bytes are constants, and zeros
            return False
        if operator not in ANY_OUTPUT and (tensor.dtype != np.float32 or operator == "cpu_im2col"):
            return False
        memory.name, memory.kind, memory.role = self._unused(file_name(name)), "accelerator", "output"
        memory.dtype, memory.shape = tensor.dtype, tensor.shape
        return True

    @staticmethod
    def check_bytes(total: int) -> None:
        if total > MOST_BYTES:
            raise JobError(f"the job's memories take {total >> 20} MiB, and the tool has {MOST_BYTES >> 20}")

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
        return self.memories[tensor.address // MEMORY]

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
        memory, target = self.memory_of(to), to.address
        begin = target % MEMORY
        self._fill(tensor, memory.initial[begin : begin + to.nbytes])
        for step in self._fetched(gather.plan(tensor.at, self._wanted(tensor.at), target, tensor.dtype.itemsize)):
            if isinstance(step, gather.Copy):
                self.call("cpu_split", [place(step.source), place(step.target), step.size])
            else:
                # Without columns in b nothing is multiplied, and a CPU buffer keeps its transposed operand.
                there = place(step.address)
                self.call("cpu_matmul", [there, there, there, step.rows, step.cols, step.rows, 0, 1, 0])

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
            self._on_cpu[number] = whole.address
            self.call("cpu_split", [place(number * MEMORY), place(whole.address), whole.size])
        return self._on_cpu[number]

    # ---- contexts ----

    def call(self, operator: str, arguments: list) -> None:
        """Appends one context; the arguments are those of the job's file, but a memory is `place(address)` of it."""
        if len(self.contexts) >= MOST_CONTEXTS:
            raise JobError(f"it takes more than {MOST_CONTEXTS} contexts")
        for number in {value[0] for value in arguments if isinstance(value, tuple)}:
            self._users[number].append(len(self.contexts))
        self.contexts.append((operator, arguments))

    # ---- files ----

    def write(self, folder: str | os.PathLike) -> pathlib.Path:
        """Writes job.json and the .npy files of its memories beside a folder, then into it; returns the job's path."""
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
        self.check_bytes(sum(len(self.memories[number].initial) for number in used))
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

