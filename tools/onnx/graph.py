"""An ONNX model as the lowering sees it: nodes whose inputs, types and shapes are known, or one sentence why not."""
import dataclasses
import os
import re
import warnings
from collections.abc import Sequence

import google.protobuf.message
import numpy as np
import onnx
import onnx.checker
import onnx.defs
import onnx.mapping
import onnx.shape_inference
from onnx import TensorProto, helper, numpy_helper

import folding
import missing

DOMAINS = ("", "ai.onnx")
NO_NUMBERS = (TensorProto.UNDEFINED, TensorProto.STRING, TensorProto.BFLOAT16)  # or none that numpy has
POSITIVE = ("strides", "dilations", "kernel_shape", "group", "blocksize")  # ONNX's inference divides by some of them


class Refused(Exception):
    """What a model asks for and cannot have, in one sentence; which node asks comes first once it is known."""


@dataclasses.dataclass
class Value:
    """What is declared or inferred of a value: its dtype, and its shape where no dimension is open."""

    dtype: np.dtype
    shape: tuple[int, ...] | None


class Graph:
    """The main graph of a model, checked: every node reads what is there before it."""

    def __init__(self, model: onnx.ModelProto) -> None:
        self.model = model
        self.opset = max((entry.version for entry in model.opset_import if entry.domain in DOMAINS), default=1)
        graph = model.graph
        if not graph.node and not graph.output:
            raise Refused("the model has no graph")
        if graph.sparse_initializer:
            raise Refused(f"initializer '{graph.sparse_initializer[0].values.name}' is sparse")
        self.constants = {tensor.name: self._array(tensor) for tensor in graph.initializer}
        if self.opset > onnx.defs.onnx_opset_version():
            raise Refused(f"the model is of operator set {self.opset}, and this ONNX knows those up to "
                          f"{onnx.defs.onnx_opset_version()}")
        self._check_operators()
        self.values = self._values()
        self.inputs = {value.name: self._fixed(value) for value in graph.input if value.name not in self.constants}
        self._check_order()

    @staticmethod
    def _array(tensor: onnx.TensorProto) -> np.ndarray:
        if tensor.data_type in NO_NUMBERS:
            raise Refused(f"initializer '{tensor.name}' is no tensor of numbers that numpy has")
        try:
            return numpy_helper.to_array(tensor)
        except (ValueError, TypeError, KeyError) as error:
            raise Refused(f"initializer '{tensor.name}' cannot be read: {first_line(error)}") from None

    def _values(self) -> dict[str, Value]:
        """What ONNX's own shape inference says of every value of the graph that is a tensor."""
        try:
            graph = onnx.shape_inference.infer_shapes(self.model, data_prop=True).graph
        except (onnx.shape_inference.InferenceError, RuntimeError, ValueError) as error:
            raise Refused(f"its shapes cannot be inferred: {first_line(error)}") from None
        infos = [*graph.value_info, *graph.output, *graph.input]
        return {info.name: value for info in infos if (value := _value(info)) is not None}

    def _fixed(self, info: onnx.ValueInfoProto) -> Value:
        """An input, whose shape has to be known."""
        value = _value(info)
        if value is None:
            raise Refused(f"input '{info.name}' is no tensor of numbers that numpy has")
        if value.shape is None:
            dims = info.type.tensor_type.shape.dim
            text = ", ".join(str(dim.dim_value) if dim.HasField("dim_value") else dim.dim_param or "?" for dim in dims)
            raise Refused(f"input '{info.name}' has the dynamic shape [{text}]; a job is written for one shape")
        return value

    def _check_operators(self) -> None:
        """Each has the inputs and attributes that ONNX says. One that ONNX does not know is refused when it is
        lowered."""
        imported = {entry.domain for entry in self.model.opset_import}
        context = onnx.checker.C.CheckerContext()
        context.ir_version, context.opset_imports = onnx.IR_VERSION, {"": self.opset}
        for node in self.model.graph.node:
            if node.domain not in (*imported, *DOMAINS):
                raise Refused(f"{title(node)}: operators of the domain {node.domain} are not known")
            if node.domain not in DOMAINS or not onnx.defs.has(node.op_type):
                continue
            try:
                schema = onnx.defs.get_schema(node.op_type, self.opset, "")
            except onnx.defs.SchemaError:  # it came, or went, with another operator set
                raise Refused(f"{title(node)}: {missing.unknown(self.opset)}") from None
            if not schema.min_input <= len(node.input) <= schema.max_input:
                raise Refused(f"{title(node)}: it has {len(node.input)} inputs and takes {schema.min_input} to "
                              f"{schema.max_input}")
            try:
                if not any(attribute.HasField("g") for attribute in node.attribute):  # which read values around them
                    onnx.checker.check_node(node, context)
            except onnx.checker.ValidationError as error:
                raise Refused(f"{title(node)}: {first_line(error)}") from None
            for attribute in node.attribute:
                if attribute.name in POSITIVE and min(attribute.ints or [attribute.i]) < 1:
                    raise Refused(f"{title(node)}: its {attribute.name} is less than 1")

    def _check_order(self) -> None:
        known = {"", *self.constants, *self.inputs}
        for node in self.model.graph.node:
            for name in node.input:
                if name not in known:
                    raise Refused(f"{title(node)}: its input '{name}' is neither an input of the model nor made by a "
                                  "node before it")
            for name in filter(None, node.output):
                if name in known:
                    raise Refused(f"{title(node)}: it makes '{name}', which is there before it")
                known.add(name)
        known.remove("")
        for output in self.model.graph.output:
            if output.name not in known:
                raise Refused(f"no node makes the model's output '{output.name}'")


def _value(info: onnx.ValueInfoProto) -> Value | None:
    if not info.type.HasField("tensor_type"):
        return None
    tensor = info.type.tensor_type
    if tensor.elem_type in NO_NUMBERS:
        return None
    dtype = folding.numpy_type(tensor.elem_type)
    fixed = tensor.HasField("shape") and all(dim.HasField("dim_value") for dim in tensor.shape.dim)
    return Value(dtype, tuple(dim.dim_value for dim in tensor.shape.dim) if fixed else None)


def load(path: str | os.PathLike) -> onnx.ModelProto:
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore")  # what is wrong comes as an exception, too
            model = onnx.load(os.fspath(path))
    except OSError as error:
        raise Refused(f"{path}: {error.strerror}") from None
    except (google.protobuf.message.DecodeError, onnx.checker.ValidationError) as error:
        raise Refused(f"{path} is no ONNX model, or is cut short: {first_line(error)}") from None
    if not model.HasField("graph"):
        raise Refused(f"{path} is no ONNX model: it has no graph")
    return model


def title(node: onnx.NodeProto) -> str:
    """The operator and the node's name, or else what it makes."""
    made = next((name for name in node.output if name), "")
    return f"{node.op_type} {node.name!r}" if node.name else f"{node.op_type} that makes {made!r}"


def check_types(node: onnx.NodeProto, opset: int, dtypes: Sequence[np.dtype | None]) -> None:
    """Whether ONNX allows the operator inputs of these types, and together. None: left out."""
    schema = onnx.defs.get_schema(node.op_type, opset, "")
    allowed = {constraint.type_param_str: constraint.allowed_type_strs for constraint in schema.type_constraints}
    same: dict[str, np.dtype] = {}
    for i, dtype in enumerate(dtypes):
        formal = schema.inputs[min(i, len(schema.inputs) - 1)]
        if dtype is None:
            continue
        text = f"tensor({TensorProto.DataType.Name(onnx.mapping.NP_TYPE_TO_TENSOR_TYPE[dtype]).lower()})"
        if text not in allowed.get(formal.typeStr, [formal.typeStr]):
            raise Refused(f"input {i} is {dtype}, which its operator does not take")
        if formal.isHomogeneous and same.setdefault(formal.typeStr, dtype) != dtype:
            raise Refused(f"input {i} is {dtype} where another is {same[formal.typeStr]}, and ONNX wants one type")


def attributes(node: onnx.NodeProto) -> dict[str, object]:
    return {attribute.name: helper.get_attribute_value(attribute) for attribute in node.attribute}


def first_line(error: Exception) -> str:
    """Of what an exception says, without the kinds of error that ONNX sets in brackets before it."""
    lines = re.sub(r"\[\w+Error\] *", "", str(error)).strip().splitlines()
    return lines[0].strip() if lines else type(error).__name__
