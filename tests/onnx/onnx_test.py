#!/usr/bin/python3
"""Models from ONNX: what is refused, what is said of it, and a short list of ONNX's own cases.

usage: onnx_test.py KELRT DIGITS"""
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest
import warnings

import numpy as np
from onnx import TensorProto, helper, numpy_helper

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
TOOLS = REPOSITORY / "tools" / "onnx"
sys.path.insert(0, str(TOOLS))

import backend  # noqa: E402

KELRT, DIGITS = "", ""
# A case or two of each kind of lowering.
CASES = ("add_bcast|sub|matmul_4d|gemm_all_attributes|softmax_large_number|softmax_axis_0|instancenorm_epsilon"
         "|layer_normalization_3d_axis1_epsilon|batchnorm_example_training_mode|BatchNorm2d_eval|onehot_\\w+"
         "|gather_negative_indices|gather_elements_0|gathernd_example_int32_batch_dim1|split_equal_parts_2d"
         "|concat_2d_axis_1|transpose_all_permutations_5|expand_dim_changed|lstm_(defaults|with_initial_bias|batchwise)"
         "|Conv1d_pad2|Conv2d_groups"
         "|Conv3d_stride_padding|conv_with_autopad_same|convtranspose_pads|averagepool_2d_ceil|maxpool_2d_same_lower"
         "|dequantizelinear_axis|quantizelinear|sigmoid|tanh|dropout_default_mask|triu|clip|prelu_broadcast"
         "|less_equal_bcast|where_example|xor2d|mvn")


def value(name, shape, dtype=TensorProto.FLOAT):
    return helper.make_tensor_value_info(name, dtype, shape)


def model(*nodes, inputs=(("x", [2, 3]),), outputs=(("y", [2, 3]),), constants=None, opset=13):
    """Nodes are (operator, inputs, outputs, attributes), and called first, second, third."""
    made = [helper.make_node(operator, ins.split(), outs.split(), name, **attributes)
            for (operator, ins, outs, attributes), name in zip(nodes, ("first", "second", "third"))]
    initializers = [numpy_helper.from_array(array, name) for name, array in (constants or {}).items()]
    graph = helper.make_graph(made, "test", [value(*i) for i in inputs], [value(*o) for o in outputs], initializers)
    return helper.make_model(graph, opset_imports=[helper.make_opsetid("", opset)])


class Tool(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def kelrt_onnx(self, made, *options):
        content = made if isinstance(made, bytes) else made.SerializeToString()
        (self.folder / "model.onnx").write_bytes(content)
        return subprocess.run([TOOLS / "kelrt-onnx", "model.onnx", "--tool", KELRT, *options], cwd=self.folder,
                              capture_output=True, text=True)

    def test_what_cannot_be_is_refused_in_one_sentence_and_nothing_is_written(self):
        relu = ("Relu", "x", "y", {})
        good = model(relu).SerializeToString()
        wide = TensorProto.INT64
        two, starts = (("x", [2, 3]), ("w", [2, 3], wide)), [("x", [2, 3]), ("s", [2], wide)]
        for name, made, sentence in [
            ("unknown operator", model(("Frobnicate", "x", "y", {})),
             "Frobnicate 'first': there is no operator of this name in ONNX's operator set 13"),
            ("too new an operator", model(("LayerNormalization", "x x", "y", {})),
             "LayerNormalization 'first': there is no operator of this name in ONNX's operator set 13"),
            ("not expressible", model(("Log", "x", "y", {})), "Log 'first': no operator of the library gives a square"),
            ("two of them", model(("Log", "x", "z", {}), ("Erf", "z", "y", {})), "(and 1 more; --explain lists them)"),
            ("foreign domain", model(("Thing", "x", "y", {"domain": "com.example"})),
             "Thing 'first': operators of the domain com.example are not known"),
            ("missing input", model(("Add", "x w", "y", {})), "Add 'first': its input 'w' is neither an input of"),
            ("too few inputs", model(("Add", "x", "y", {})), "Add 'first': it has 1 inputs and takes 2 to 2"),
            ("no such output", model(("Relu", "x", "z", {})), "no node makes the model's output 'y'"),
            ("dynamic shape", model(relu, inputs=[("x", ["n", 3])]),
             "input 'x' has the dynamic shape [n, 3]; a job is written for one shape"),
            ("dynamic inside", model(("Reshape", "x s", "z", {}), ("Log", "z", "y", {}), outputs=[("y", None)],
                                     inputs=starts),
             "Reshape 'first': the shape of its output is dynamic"),
            ("wrong type", model(("Add", "x w", "y", {}), inputs=[("x", [2, 3]), ("w", [2, 3], TensorProto.INT32)]),
             "Add 'first': input 1 is int32, and arithmetic is lowered for float32 alone"),
            ("another type declared", model(relu, outputs=[("y", [2, 3], TensorProto.INT64)]), "node name: first"),
            ("another shape declared", model(relu, outputs=[("y", [3, 3])]), "node name: first"),
            ("shapes do not fit", model(("Add", "x w", "y", {}), inputs=[("x", [2]), ("w", [3])]),
             "Add 'first': its inputs and attributes do not fit together: "),
            ("texts", model(("Identity", "x", "y", {}), inputs=[("x", [2], TensorProto.STRING)],
                            outputs=[("y", [2], TensorProto.STRING)]), "input 'x' is no tensor of numbers"),
            ("starts at run time", model(("Slice", "x s s", "y", {}), inputs=starts),
             "Slice 'first': starts is computed or given at run time, and a job is written beforehand"),
            ("index outside", model(("Gather", "x i", "y", {}), constants={"i": np.array([0, 3])}),
             "Gather 'first': an index is outside of -2 to 1"),
            ("operator set to come", model(relu, opset=99), "the model is of operator set 99, and this ONNX knows"),
            ("enormous", model(relu, inputs=[("x", [1 << 40])], outputs=[("y", [1 << 40])]), "input 'x': the job's"),
            ("step of 0", model(("MaxPool", "x", "y", {"kernel_shape": [1], "strides": [0]}),
                                inputs=[("x", [1, 1, 3])]), "MaxPool 'first': its strides is less than 1"),
            ("attribute of a wrong type", model(("Softmax", "x", "y", {"axis": 1.5})), "Softmax 'first': Mismatched"),
            ("two types", model(("Concat", "x w", "y", {"axis": 0}), inputs=two, outputs=[("y", [4, 3])]),
             "Concat 'first': input 1 is int64 where another is float32"),
            ("wrong condition", model(("Where", "x x x", "y", {})), "Where 'first': input 0 is float32, which its"),
            ("no such row", model(("GatherND", "x k", "y", {}), outputs=[("y", [3])], constants={"k": np.int64([2])}),
             "GatherND 'first': an index is outside of -2 to 1"),
            ("an axis too many", model(("GatherElements", "x k", "y", {"axis": 2}),
                                       constants={"k": np.zeros((2, 3), np.int64)}),
             "GatherElements 'first': its axis 2 is outside of its input's 2 dimensions"),
            ("indices of 64-bit floats", model(("Gather", "x s", "y", {}),
                                               inputs=[("x", [2, 3]), ("s", [2], TensorProto.DOUBLE)]),
             "Gather 'first': no operator of the library takes indices of float64"),
            ("made twice", model(relu, ("Tanh", "x", "y", {})), "Tanh 'second': it makes 'y', which is there before"),
            ("bias too long", model(("LSTM", "x w r b", "y", {"hidden_size": 2}), outputs=[("y", None)], inputs=[
                ("x", [2, 1, 3]), ("w", [1, 8, 3]), ("r", [1, 8, 2]), ("b", [1, 17])]),
             "LSTM 'first': input 3 has shape [1, 17] and not [1, 16]"),
            ("scales no integers", model(("Upsample", "x k", "y", {}), opset=9, outputs=[("y", [2, 6])],
                                         constants={"k": np.float32([1, 2.1])}), "its scales are no integers"),
            ("truncated", good[: len(good) // 2], "model.onnx is no ONNX model, or is cut short: "),
            ("empty", b"", "model.onnx is no ONNX model: it has no graph"),
            ("text", b"hello\n", "model.onnx is no ONNX model, or is cut short: "),
        ]:
            with self.subTest(name):
                result = self.kelrt_onnx(made, "--out", "out")
                self.assertEqual((result.returncode, result.stdout, result.stderr.count("\n")), (2, "", 1), result)
                self.assertTrue(result.stderr.startswith("kelrt-onnx: "))
                self.assertIn(sentence, result.stderr)
                self.assertEqual([path.name for path in self.folder.iterdir()], ["model.onnx"])

    def test_bad_options(self):
        np.save(self.folder / "narrow.npy", np.zeros((2, 2), np.float32))
        np.save(self.folder / "double.npy", np.zeros((2, 3)))
        np.save(self.folder / "x.npy", np.zeros((2, 3), np.float32))
        np.savez(self.folder / "several.npz", x=np.zeros(3))
        for options, sentence in [
            (["--input", "x"], "--input x: NAME=FILE.npy is wanted"),
            (["--input", "x=nowhere.npy"], "--input x: nowhere.npy: No such file or directory"),
            (["--input", "x=x.npy", "--input", "x=x.npy"], "--input x is there twice"),
            (["--input", "x=model.onnx"], "--input x: model.onnx is no .npy file: "),
            (["--input", "x=several.npz"], "--input x: several.npz is no .npy file: it is an archive of several"),
            (["--run", "--tool", "/nowhere"], "--tool: there is no program '/nowhere' to run"),
            (["--run", "--tool", "'"], "--tool: No closing quotation"),
            (["--input", "w=narrow.npy"], "the model has no input 'w'; it has x"),
            (["--input", "x=narrow.npy"], "input 'x' has shape [2, 3] and [2, 2] is given"),
            (["--input", "x=double.npy"], "input 'x' is float32 and float64 is given"),
            (["--out", "/proc/none"], "--out /proc/none: "),
            (["--out", ""], "--out: the name of a folder is wanted"),
        ]:
            with self.subTest(options):
                result = self.kelrt_onnx(model(("Relu", "x", "y", {})), "--out", "out", *options)
                self.assertEqual((result.returncode, result.stdout), (2, ""), result)
                self.assertIn(sentence, result.stderr)
                self.assertFalse((self.folder / "out").exists())

    def test_explains_each_node_and_runs(self):
        made = model(("Add", "x b", "z", {}), ("Transpose", "z", "t", {}), ("Softmax", "t", "y", {}),
                     outputs=[("y", [3, 2])], constants={"b": np.float32([1, 2, 3])})
        x = np.float32([[1, 2, 3], [4, 5, 7]])
        np.save(self.folder / "x.npy", x)
        result = self.kelrt_onnx(made, "--input", "x=x.npy", "--out", "out", "--run", "--explain", "--softmax-in-range")
        self.assertEqual(result.returncode, 0, result)
        for line in ("Add 'first'         1 context: cpu_ewop_add", "Transpose 'second'  no context: constant, or only",
                     "Softmax 'third'     5 contexts: cpu_split, cpu_matmul, 3 x cpu_softmax", "0 refused"):
            self.assertIn(line, result.stdout)
        scores = np.exp(x + np.float32([1, 2, 3])).T
        np.testing.assert_allclose(np.load(self.folder / "out/out/y.npy"), scores / scores.sum(1, keepdims=True), 1e-6)

    def test_explains_nodes_after_a_refused_one(self):
        result = self.kelrt_onnx(model(("Log", "x", "z", {}), ("Add", "z x", "y", {})), "--explain")
        self.assertEqual(result.returncode, 2)
        self.assertRegex(result.stdout, r"(?s)Log 'first' +REFUSED: no operator.*Add 'second' +1 context: cpu_ewop_add")

    def test_a_context_that_fails_ends_with_1(self):
        made = model(("OneHot", "i depth values", "y", {}), inputs=[("i", [1], TensorProto.INT64)],
                     outputs=[("y", [1, 3])], constants={"depth": np.array(3), "values": np.float32([0, 1])})
        np.save(self.folder / "i.npy", np.array([3]))
        result = self.kelrt_onnx(made, "--input", "i=i.npy", "--out", "out", "--run")
        self.assertEqual(result.returncode, 1, result)
        self.assertIn("ended with 1: cpu_onnx_onehot: NNA_STATUS_FAILED (1000)", result.stderr)


def lstm(x, w, r, b, h0, c0, p=None):
    """Bidirectional, as ONNX defines it, in the precision of its arguments."""
    def sigmoid(v):
        return 1 / (1 + np.exp(-v))

    results = []
    for d in range(2):
        h, c, steps = h0[d], c0[d], {}
        pi, po, pf = np.split(p[d], 3) if p is not None else (0, 0, 0)
        for t in (range(len(x)), reversed(range(len(x))))[d]:
            i, o, f, g = np.split(x[t] @ w[d].T + h @ r[d].T + sum(np.split(b[d], 2)), 4, axis=1)
            c = sigmoid(f + pf * c) * c + sigmoid(i + pi * c) * np.tanh(g)
            h = steps[t] = sigmoid(o + po * c) * np.tanh(c)
        results.append((np.stack([steps[t] for t in sorted(steps)]), h, c))
    every, last, cells = zip(*results)
    return np.stack(every, axis=1), np.stack(last), np.stack(cells)


def conformance(*words):
    return subprocess.run([TOOLS / "conformance.py", *words], capture_output=True, text=True)


class Conformance(unittest.TestCase):
    def test_a_short_list(self):
        with tempfile.TemporaryDirectory() as folder:
            result = conformance("--filter", f"test_({CASES})_cpu$", folder, f"host={KELRT}")
        self.assertEqual(result.returncode, 0, result)
        counts = re.match(r"host: (\d+) passed, (\d+) failed, (\d+) not", result.stdout)
        passed, failed, refused = map(int, counts.groups())
        self.assertEqual((failed, refused), (0, 0), result.stdout)
        self.assertGreaterEqual(passed, len(CASES.split("|")))
        self.assertLess(float(re.search(r"largest error (\S+) ", result.stdout)[1]), 2e-6)

    def test_lstm_beyond_the_cases(self):
        """Both directions, initial states, bias and a batch, without and with peepholes, against double precision."""
        random, h = np.random.RandomState(3), 5
        shapes = {"x": (4, 3, 6), "w": (2, 4 * h, 6), "r": (2, 4 * h, h), "b": (2, 8 * h), "h0": (2, 3, h),
                  "c0": (2, 3, h), "p": (2, 3 * h)}
        arrays = {name: np.float32(random.standard_normal(shape)) for name, shape in shapes.items()}
        outputs = [("y", [4, 2, 3, h]), ("y_h", [2, 3, h]), ("y_c", [2, 3, h])]
        for inputs in ("x w r b  h0 c0", "x w r b  h0 c0 p"):
            given = inputs.split()
            node = helper.make_node("LSTM", [*given[:4], "", *given[4:]], [name for name, _ in outputs], "lstm",
                                    hidden_size=h, direction="bidirectional")
            for constants in ((), ("w", "r", "b", "p")):
                names = [name for name in given if name not in constants]
                graph = helper.make_graph([node], "test", [value(name, shapes[name]) for name in names],
                                          [value(*output) for output in outputs],
                                          [numpy_helper.from_array(arrays[n], n) for n in given if n in constants])
                made = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 14)])
                results = backend.KelRtBackend.run_model(made, [arrays[name] for name in names])
                for result, expected in zip(results, lstm(**{name: arrays[name].astype(float) for name in given})):
                    np.testing.assert_allclose(result, expected, rtol=1e-5, atol=1e-6)

    def test_batch_normalization_of_parameters_that_do_not_fold(self):
        x, scale, bias, mean = (np.float32(np.random.RandomState(4).standard_normal(s)) for s in ((2, 3, 4), 3, 3, 3))
        variance = np.float32([0.5, 1, 2])
        for given in ({"scale": scale, "bias": bias, "mean": mean}, {"bias": bias}):
            constants = {"scale": np.float32([0, 1, 2]), "mean": mean, "variance": variance}
            made = model(("BatchNormalization", "x scale bias mean variance", "y", {}), outputs=[("y", [2, 3, 4])],
                         inputs=[("x", [2, 3, 4]), *((name, [3]) for name in given)],
                         constants={name: array for name, array in constants.items() if name not in given})
            result, = backend.KelRtBackend.run_model(made, [x, *given.values()])
            s, b, m, v = (dict(constants, **given)[name][:, None] for name in ("scale", "bias", "mean", "variance"))
            np.testing.assert_allclose(result, (x - m) / np.sqrt(v + 1e-5) * s + b, rtol=1e-5, atol=1e-6)

    def test_numbers_that_are_at_hand_and_yet_not_easy(self):
        truth = TensorProto.BOOL
        a, b, x = np.float32(np.arange(9).reshape(3, 3)), np.float32([1, 2, 4]), np.float32([[[1, 2], [3, 4]]])
        tiny = {"s": np.float32([1e-39, 1]), "b": np.float32([5, 6]), "m": np.zeros(2, "f4"), "v": np.ones(2, "f4")}
        for name, made, given, expected in [
            ("a scale of almost nothing", model(("BatchNormalization", "x s b m v", "y", {}), constants=tiny,
                                                inputs=[("x", [1, 2, 2])], outputs=[("y", [1, 2, 2])]),
             [x], [[[5, 5], [9, 10]]]),
            ("constants, broadcast the old way", model(("Add", "a b", "y", {"broadcast": 1, "axis": 0}), opset=6,
                                                       inputs=[], outputs=[("y", [3, 3])],
                                                       constants={"a": a, "b": b}), [], a + b[:, None]),
            ("truth, broadcast the old way", model(("And", "a b", "y", {"broadcast": 1, "axis": 0}), opset=6,
                                                   inputs=[("a", [3, 3], truth), ("b", [3], truth)],
                                                   outputs=[("y", [3, 3], truth)]),
             [a > 0, b > 1], (a > 0) & (b > 1)[:, None]),
            ("softmax the old way, over all axes from one on", model(("Softmax", "x", "y", {}), opset=11,
                                                                    inputs=[("x", [1, 2, 2])],
                                                                    outputs=[("y", [1, 2, 2])]),
             [x], np.exp(x) / np.exp(x).sum()),
            ("integers are divided toward zero", model(("Div", "n d", "i", {}), ("Gather", "a i", "y", {}),
                                                       inputs=[("a", [3, 3])], outputs=[("y", [1, 3])],
                                                       constants={"n": np.int64([-7]), "d": np.int64([2])}),
             [a], a[:1]),
            ("a division by zero", model(("Div", "a z", "y", {}), inputs=[], outputs=[("y", [3])],
                                         constants={"a": b, "z": np.zeros(3, "f4")}), [], np.full(3, np.inf)),
        ]:
            with self.subTest(name), warnings.catch_warnings():
                warnings.simplefilter("error")
                result, = backend.KelRtBackend.run_model(made, given)
                np.testing.assert_allclose(result, expected, rtol=1e-4)
        with self.assertRaisesRegex(backend.Refused, "0 inputs are given, and the model has x"):
            backend.KelRtBackend.run_model(model(("Relu", "x", "y", {})), [])
        with self.assertRaisesRegex(backend.Refused, "2 inputs are given, and the model has x"):
            backend.KelRtBackend.run_model(model(("Relu", "x", "y", {})), [np.zeros((2, 3), np.float32)] * 2)

    def test_outputs_whose_files_would_have_one_name(self):
        with tempfile.TemporaryDirectory() as folder:
            made = model(("Relu", "x", "a/b", {}), ("Identity", "x", "a_b", {}),
                         outputs=[("a/b", [2, 3]), ("a_b", [2, 3])])
            path = pathlib.Path(folder) / "model.onnx"
            path.write_bytes(made.SerializeToString())
            np.save(path.parent / "x.npy", np.full((2, 3), -1, np.float32))
            subprocess.run([TOOLS / "kelrt-onnx", path, "--tool", KELRT, "--input", f"x={path.parent / 'x.npy'}",
                            "--out", path.parent / "out", "--run"], check=True, capture_output=True)
            self.assertEqual([np.load(path.parent / f"out/out/{name}.npy").max() for name in ("a_b", "a_b_2")], [0, -1])

    def test_a_node_by_itself(self):
        x = np.float32([[1, -2], [3, 4]])
        result, = backend.KelRtBackend.run_node(helper.make_node("Transpose", ["x"], ["y"]), [x])
        np.testing.assert_array_equal(result, x.T)
        with self.assertRaisesRegex(backend.Refused, "Erf that makes 'y': no operator"):
            backend.KelRtBackend.run_node(helper.make_node("Erf", ["x"], ["y"]), [x])

    def test_the_runner_sees_what_is_wrong(self):
        """With a tool whose outputs are not what they should be, a case fails."""
        with tempfile.TemporaryDirectory() as folder:
            wrong = pathlib.Path(folder) / "wrong"
            wrong.write_text(f"#!/bin/sh\nsed -i '/cpu_ewop_add/s/, 60]/, 59]/' \"$2\"\nexec {KELRT} \"$@\"\n")
            wrong.chmod(0o755)
            result = conformance("--filter", "test_add_cpu$", folder + "/cases", f"right={KELRT}", f"wrong={wrong}")
        self.assertEqual(result.returncode, 1, result)
        self.assertIn("FAILED wrong: test_add: ", result.stdout)
        self.assertIn("1 output files, 1 of them not the same on right and wrong", result.stdout)


class DigitsNetwork(unittest.TestCase):
    def test_lowered_it_gives_the_bytes_of_the_hand_written_driver(self):
        with tempfile.TemporaryDirectory() as folder:
            compare = REPOSITORY / "examples" / "onnx" / "compare.py"
            result = subprocess.run([compare, "--kelrt", KELRT, "--digits", DIGITS, folder],
                                    capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, result)
        self.assertIn("the same 20000 bytes", result.stdout)


if __name__ == "__main__":
    KELRT, DIGITS = (os.path.abspath(path) for path in sys.argv[1:3])
    sys.argv[1:] = []
    os.environ["KELRT"] = KELRT
    unittest.main(failfast="GTEST_FAIL_FAST" in os.environ)
