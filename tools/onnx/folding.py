"""What is computed beforehand, where every input of a node is a constant of the model: as a compiler would."""
from collections.abc import Callable

import numpy as np
from onnx import TensorProto, numpy_helper

try:
    from onnx.helper import tensor_dtype_to_np_dtype as numpy_type
except ImportError:  # before ONNX 1.13
    from onnx.mapping import TENSOR_TYPE_TO_NP_TYPE

    numpy_type = TENSOR_TYPE_TO_NP_TYPE.__getitem__


def _divide(_, a: np.ndarray, b: np.ndarray) -> np.ndarray:
    return a / b if a.dtype.kind == "f" else np.trunc(a / b).astype(a.dtype)


def _cast(attributes: dict, a: np.ndarray) -> np.ndarray:
    return a.astype(numpy_type(attributes["to"]))


def _constant(attributes: dict) -> np.ndarray:
    (name, value), *_ = attributes.items()
    if isinstance(value, TensorProto):
        return numpy_helper.to_array(value)
    return np.array(value, np.float32 if "float" in name else np.int64)


def _constant_of_shape(attributes: dict, shape: np.ndarray) -> np.ndarray:
    value = numpy_helper.to_array(attributes["value"]) if "value" in attributes else np.zeros(1, np.float32)
    return np.full(tuple(shape), value.reshape(-1)[0])


FOLDS: dict[str, Callable[..., np.ndarray]] = {
    "Add": lambda _, a, b: a + b,
    "Cast": _cast,
    "Constant": _constant,
    "ConstantOfShape": _constant_of_shape,
    "Div": _divide,
    "Mul": lambda _, a, b: a * b,
    "Neg": lambda _, a: -a,
    "Range": lambda _, start, limit, delta: np.arange(start, limit, delta, start.dtype),
    "Sqrt": lambda _, a: np.sqrt(a),
    "Sub": lambda _, a, b: a - b,
}
