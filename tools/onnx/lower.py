"""A model as a job: each node by the function that is registered for its operator.

The functions themselves are in the modules at the end of this one. Such a function takes a `Node` and gives the
tensors that it makes, in the order of the node's outputs; it raises `Refused` with the reason if the node cannot be
expressed. Shapes in their docstrings are ONNX's."""
import collections
import dataclasses
import math
from collections.abc import Callable, Sequence

import numpy as np
import onnx

import folding
import graph
import missing
from graph import DOMAINS, Graph, Refused, title
from job import Job, JobError
from tensor import Tensor

Lowering = Callable[["Node"], Tensor | Sequence[Tensor]]
LOWERINGS: dict[str, Lowering] = {}


def lowers(*operators: str) -> Callable[[Lowering], Lowering]:
    def register(function: Lowering) -> Lowering:
        LOWERINGS.update(dict.fromkeys(operators, function))
        return function

    return register


@dataclasses.dataclass
class Options:
    """What the user knows of the data."""

    softmax_in_range: bool = False  # every input of a softmax can be exponentiated as it stands


@dataclasses.dataclass
class Node:
    """A node, its inputs as tensors of the job (None: left out) and what is known of its outputs."""

    job: Job
    op: str
    opset: int
    inputs: list[Tensor | None]
    attributes: dict[str, object]
    outputs: list[graph.Value | None]  # None: nothing is known, or the output is left out
    options: Options
    wanted: int  # how many outputs the node has

    def has(self, i: int) -> bool:
        return i < len(self.inputs) and self.inputs[i] is not None

    def get(self, name: str, default: object = None) -> object:
        value = self.attributes.get(name, default)
        return value.decode() if isinstance(value, bytes) else value

    def tensor(self, i: int = 0) -> Tensor:
        """An input of any type."""
        if not self.has(i):
            raise Refused(f"input {i} is missing")
        return self.inputs[i]

    def floats(self, i: int = 0) -> Tensor:
        """An input that is to be computed with."""
        tensor = self.tensor(i)
        if tensor.dtype != np.float32:
            raise Refused(f"input {i} is {tensor.dtype}, and arithmetic is lowered for float32 alone")
        return tensor

    def constant(self, i: int, what: str) -> np.ndarray:
        """What an input holds that the model has to fix."""
        if not self.job.is_constant(self.tensor(i)):
            raise Refused(f"{what} is computed or given at run time, and a job is written beforehand")
        return self.job.value(self.inputs[i])

    def integers(self, i: int, name: str, default: object = None) -> list[int] | None:
        """A list that older operator sets have as attribute `name` and newer ones as input `i`."""
        if self.has(i):
            return [int(value) for value in self.constant(i, name).reshape(-1)]
        value = self.get(name, default)
        return None if value is None else [int(n) for n in value]

    def shape(self, i: int = 0) -> tuple[int, ...]:
        """The shape of an output, as inferred or declared."""
        value = self.outputs[i] if i < len(self.outputs) else None
        if value is None or value.shape is None:
            raise Refused("the shape of its output is dynamic")
        return value.shape

    def refuse_attributes(self, **defaults: object) -> None:
        """Refuses what is not at its default."""
        for name, default in defaults.items():
            if (value := self.get(name, default)) != default:
                raise Refused(f"its {name} is {value}")


@dataclasses.dataclass
class Lowered:
    """What became of one node: how many contexts of which operators, or why nothing."""

    title: str
    op: str
    contexts: collections.Counter
    refused: str = ""


def lower(model: onnx.ModelProto, inputs: dict[str, np.ndarray], options: Options) -> tuple[Job, list[Lowered]]:
    """The job of a model, whose inputs hold zeros where `inputs` says nothing, and what became of each node. After a
    refused node the others are lowered as if what it makes were given."""
    shapes = Graph(model)
    job = Job()
    for name in inputs:
        if name not in shapes.inputs:
            raise Refused(f"the model has no input '{name}'; it has {', '.join(shapes.inputs) or 'none'}")
    tensors = {name: job.input(name, _input(name, value, inputs.get(name))) for name, value in shapes.inputs.items()}
    tensors |= {name: job.constant(array, name) for name, array in shapes.constants.items()}
    report = [_lower_node(node, shapes, job, tensors, options) for node in model.graph.node]
    if not any(node.refused for node in report):
        try:
            for output in model.graph.output:
                job.output(output.name, tensors[output.name])
        except JobError as error:
            raise Refused(f"output '{output.name}': {error}") from None
        except MemoryError:
            raise Refused(f"output '{output.name}' takes more memory than there is") from None
    return job, report


def _input(name: str, value: graph.Value, given: np.ndarray | None) -> np.ndarray:
    if given is None:
        return _zeros(f"input '{name}'", value)
    if given.dtype != value.dtype:
        raise Refused(f"input '{name}' is {value.dtype} and {given.dtype} is given")
    if given.shape != value.shape:
        raise Refused(f"input '{name}' has shape {list(value.shape)} and {list(given.shape)} is given")
    return given


def _zeros(what: str, value: graph.Value) -> np.ndarray:
    try:
        Job.check_bytes(math.prod(value.shape) * value.dtype.itemsize)
    except JobError as error:
        raise Refused(f"{what}: {error}") from None
    return np.zeros(value.shape, value.dtype)


def _lower_node(proto: onnx.NodeProto, shapes: Graph, job: Job, tensors: dict[str, Tensor],
                options: Options) -> Lowered:
    """Lowers one node, adding what it makes to `tensors`."""
    before = len(job.contexts)
    values = [shapes.values.get(name) if name else None for name in proto.output]
    try:
        results = _results(proto, shapes, job, tensors, options, values)
    except (Refused, JobError) as refused:
        del job.contexts[before:]
        results = [_stand_in(job, title(proto), value) for value in values]
        tensors |= {name: result for name, result in zip(proto.output, results) if result is not None}
        return Lowered(title(proto), proto.op_type, collections.Counter(), str(refused))
    tensors |= dict(zip(proto.output, results))
    return Lowered(title(proto), proto.op_type, collections.Counter(op for op, _ in job.contexts[before:]))


def _results(proto: onnx.NodeProto, shapes: Graph, job: Job, tensors: dict[str, Tensor], options: Options,
             values: list[graph.Value | None]) -> list[Tensor]:
    if proto.domain not in DOMAINS:
        raise Refused(f"operators of the domain {proto.domain} are not known")
    for name in proto.input:
        if name and name not in tensors:
            raise Refused(f"its input '{name}' is made by a node that is refused")
    inputs = [tensors[name] if name else None for name in proto.input]
    try:
        made = _made(Node(job, proto.op_type, shapes.opset, inputs, graph.attributes(proto), values, options,
                          len(proto.output)))
    except (ValueError, LookupError, TypeError, AttributeError, ArithmeticError) as error:
        # Of shapes and attributes as they must not be.
        raise Refused(f"its inputs and attributes do not fit together: {graph.first_line(error)}") from error
    except MemoryError:
        raise Refused("it takes more memory than there is") from None
    _check(proto, made, values)
    graph.check_types(proto, shapes.opset, [None if tensor is None else tensor.dtype for tensor in inputs])
    return made


def _made(node: Node) -> list[Tensor]:
    """By folding, without computing as there is nothing to compute, or by the function for the operator."""
    foldable = node.op in folding.FOLDS and not node.get("broadcast")  # the old way to broadcast is not numpy's
    if foldable and all(tensor is None or node.job.is_constant(tensor) for tensor in node.inputs):
        arrays = [None if tensor is None else node.job.value(tensor) for tensor in node.inputs]
        with np.errstate(all="ignore"):  # infinities and what is not a number are results, too
            return [node.job.constant(folding.FOLDS[node.op](node.attributes, *arrays))]
    if node.op not in LOWERINGS:
        raise Refused(missing.reason(node.op, node.opset))
    if node.outputs and all(value and value.shape is not None and 0 in value.shape for value in node.outputs):
        return [node.job.constant(np.zeros(value.shape, value.dtype)) for value in node.outputs]
    made = LOWERINGS[node.op](node)
    return [made] if isinstance(made, Tensor) else list(made)


def _check(proto: onnx.NodeProto, made: list[Tensor], values: list[graph.Value | None]) -> None:
    """Holds what was made against what was inferred or declared."""
    if len(made) < sum(1 for name in proto.output if name):
        raise Refused(f"only {len(made)} of its {len(proto.output)} outputs can be expressed")
    for name, tensor, value in zip(proto.output, made, values):
        if value is None:
            continue
        if tensor.dtype != value.dtype:
            raise Refused(f"its output '{name}' is declared {value.dtype} and would be {tensor.dtype}")
        if value.shape is not None and tensor.shape != value.shape:
            raise Refused(f"its output '{name}' is declared {list(value.shape)} and would be {list(tensor.shape)}")


def _stand_in(job: Job, node: str, value: graph.Value | None) -> Tensor | None:
    """In place of what a refused node would make."""
    if value is None or value.shape is None:
        return None
    return job.input("refused", _zeros(f"{node}: what it makes", value))


# Each registers its functions.
import elementwise  # noqa: E402
import lookups  # noqa: E402
import moves  # noqa: E402
import normalising  # noqa: E402
import products  # noqa: E402
import quantising  # noqa: E402
import recurrent  # noqa: E402

__all__ = ["elementwise", "lookups", "moves", "normalising", "products", "quantising", "recurrent"]
