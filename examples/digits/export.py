#!/usr/bin/env python3
"""Writes the network that the training script has made as an ONNX model.

pixels int32 [pictures, 64] -> probabilities float32 [pictures, 10], by the steps of train.py: each pixel normalised for
itself, an LSTM over the rows, a softmax over what it remembers. Needs Debian's python3-onnx."""
import argparse
import pathlib

import numpy as np
from onnx import ModelProto, TensorProto, checker, helper, numpy_helper, save

import dataset

UNITS, ROWS, COLUMNS, DIGITS = 32, 8, 8, 10
BLOCKS = (0, 2, 1, 3)  # of our gates (input, forget, output, candidate), in the order that ONNX has them


def blocks(gates: np.ndarray) -> np.ndarray:
    """[..., 4 x 32] in our order -> [4 x 32, ...] in ONNX's."""
    return np.concatenate([np.split(gates, 4, axis=-1)[i] for i in BLOCKS], axis=-1).T


def model(network: dict[str, np.ndarray], pictures: int) -> ModelProto:
    """The arrays of `data/` by name, and how many pictures are read at once."""
    bias = np.concatenate([blocks(network["gate_bias"]), np.zeros(4 * UNITS, np.float32)])
    constants = {
        "mean": network["mean"],
        "var": network["var"],
        "W": blocks(network["input_weights"])[None],
        "R": blocks(network["hidden_weights"])[None],
        "B": bias[None],
        "output_weights": network["output_weights"],
        "output_bias": network["output_bias"],
        "by_row": np.array([pictures, ROWS, COLUMNS]),
        "flat": np.array([pictures, UNITS]),
    }
    nodes = [
        helper.make_node("Cast", ["pixels"], ["floats"], "cast", to=TensorProto.FLOAT),
        helper.make_node("Sub", ["floats", "mean"], ["centred"], "subtract_mean"),
        helper.make_node("Div", ["centred", "var"], ["normalised"], "divide"),
        helper.make_node("Reshape", ["normalised", "by_row"], ["rows"], "to_rows"),
        helper.make_node("Transpose", ["rows"], ["steps"], "rows_first", perm=[1, 0, 2]),
        helper.make_node("LSTM", ["steps", "W", "R", "B"], ["", "remembered"], "lstm", hidden_size=UNITS),
        helper.make_node("Reshape", ["remembered", "flat"], ["features"], "to_features"),
        helper.make_node("Gemm", ["features", "output_weights", "output_bias"], ["scores"], "scores"),
        helper.make_node("Softmax", ["scores"], ["probabilities"], "softmax", axis=1),
    ]
    graph = helper.make_graph(
        nodes, "digits",
        [helper.make_tensor_value_info("pixels", TensorProto.INT32, [pictures, ROWS * COLUMNS])],
        [helper.make_tensor_value_info("probabilities", TensorProto.FLOAT, [pictures, DIGITS])],
        [numpy_helper.from_array(array, name) for name, array in constants.items()],
    )
    made = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    checker.check_model(made)
    return made


def export(network: dict[str, np.ndarray], pictures: int, path: pathlib.Path) -> None:
    save(model({name: array.astype(np.float32) for name, array in network.items()}, pictures), str(path))


def main() -> None:
    parser = argparse.ArgumentParser(description="Writes the trained network as an ONNX model.")
    parser.add_argument("--data", type=pathlib.Path, default=dataset.DATA, metavar="DIRECTORY",
                        help="what the training script wrote (%(default)s)")
    parser.add_argument("--pictures", type=int, default=1, help="how many are read at once (%(default)s)")
    parser.add_argument("out", type=pathlib.Path, metavar="FILE.onnx")
    options = parser.parse_args()
    names = ("mean", "var", "input_weights", "hidden_weights", "gate_bias", "output_weights", "output_bias")
    export({name: np.load(options.data / f"{name}.npy") for name in names}, options.pictures, options.out)


if __name__ == "__main__":
    main()
