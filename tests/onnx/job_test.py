#!/usr/bin/python3
"""Jobs from Python: which bytes are brought together by how many contexts, and what the operators make of them.

usage: job_test.py KELRT DIGITS"""
import os
import pathlib
import re
import sys
import tempfile
import textwrap
import unittest
from unittest import mock

import numpy as np

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPOSITORY / "tools" / "onnx"))

import arithmetic  # noqa: E402
import job as job_module  # noqa: E402
from job import Job, JobError, concat  # noqa: E402
from tool import ToolError  # noqa: E402

KELRT = []
RANDOM = np.random.RandomState(12)


def floats(*shape, scale=10):
    return np.float32(RANDOM.standard_normal(shape) * scale).reshape(shape)


def run(make, *arrays):
    """What `make(job, tensors...)` gives for arrays that are inputs, and the job."""
    job = Job()
    job.output("y", make(job, *(job.input(f"x{i}", array) for i, array in enumerate(arrays))))
    return job.run(KELRT)["y"], job


class Moves(unittest.TestCase):
    def test_scattered_elements_come_together_in_few_contexts(self):
        """Views of one input, the same in numpy, and how many contexts bring them to the output; one of them fetches
        the input and one publishes the output, where that is not the same."""
        for name, array, view, contexts in [
            ("itself", floats(3, 4), lambda x: x, 1),
            ("a row", floats(3, 4), lambda x: x[1], 1),
            ("columns", floats(3, 4), lambda x: x[:, 1:3], 1 + 3 + 1),
            ("backwards", floats(5), lambda x: x[::-1], 1 + 5 + 1),
            ("a transposition", floats(30, 40), lambda x: x.transpose(1, 0), 3),
            ("one of each of a batch", floats(5, 7, 9), lambda x: x.transpose(0, 2, 1), 12),
            ("of 8 bytes, element by element", RANDOM.rand(3, 4), lambda x: x.transpose(1, 0), 14),
            ("rows exchanged", floats(5, 7, 9), lambda x: x.transpose(1, 0, 2), 37),
            ("bytes", RANDOM.randint(0, 9, (4, 6)).astype(np.uint8), lambda x: x[:, ::3], 10),
            ("integers of 64 bits", RANDOM.randint(0, 9, 6), lambda x: x[2:], 1),
            ("nothing", floats(3, 4), lambda x: x[:0], 0),
        ]:
            with self.subTest(name):
                result, job = run(lambda job, x: view(x), array)
                np.testing.assert_array_equal(result, view(array), strict=False)
                self.assertEqual((result.dtype, len(job.contexts)), (array.dtype, contexts))

    def test_what_repeats_is_doubled(self):
        for shape, to, contexts in [((3, 1), (3, 100), 26), ((1, 5), (64, 5), 8), ((), (1000,), 12), ((4,), (3, 4), 4)]:
            with self.subTest(to):
                array = floats(*shape)
                result, job = run(lambda job, x: x.broadcast_to(to), array)
                np.testing.assert_array_equal(result, np.broadcast_to(array, to))
                self.assertEqual(len(job.contexts), contexts)

    def test_constants_are_there_from_the_start(self):
        x, y = floats(2, 3), floats(2, 3)
        result, job = run(lambda job, t: concat([t, job.constant(y), t[:1]]), x)
        np.testing.assert_array_equal(result, np.concatenate([x, y, x[:1]]))
        self.assertEqual(len(job.contexts), 1 + 2 + 1)  # fetch, two stretches, publish
        result, _ = run(lambda job, t: concat([t.reshape(-1), arithmetic.full(job, (3,), 0)]), x)
        np.testing.assert_array_equal(result, [*x.reshape(-1), 0, 0, 0])
        job = Job()
        self.assertTrue(job.is_constant(job.dense(concat([job.constant(x), job.constant(y)]).T)))
        self.assertEqual(job.contexts, [])

    def test_an_operand_that_is_transposed_in_place_stays_as_it_was(self):
        x = floats(4, 6)
        result, _ = run(lambda job, t: concat([job.matmul(t, t.T).reshape(-1), t.reshape(-1)]), x)
        np.testing.assert_allclose(result[:16].reshape(4, 4), x @ x.T, rtol=1e-6)
        np.testing.assert_array_equal(result[16:].reshape(4, 6), x)


class Operators(unittest.TestCase):
    def check(self, make, reference, *arrays, within=0.0):
        result, _ = run(make, *arrays)
        with np.errstate(all="ignore"):
            expected = np.asarray(reference(*(array.astype(float) for array in arrays)))
        self.assertEqual(result.shape, expected.shape)
        np.testing.assert_allclose(result.astype(float), expected, rtol=within, atol=within)

    def test_arithmetic_on_operands_that_repeat(self):
        x = floats(3, 4, 5)
        for other in (x[::-1].copy(), floats(5), floats(4, 1), floats(3, 1, 1), floats()):
            for function, reference, within in [
                (Job.add, np.add, 1e-6), (arithmetic.subtract, np.subtract, 1e-6), (arithmetic.divide, np.divide, 1e-6),
                (arithmetic.multiply, np.multiply, 1e-6), (arithmetic.maximum, np.maximum, 0),
                (arithmetic.minimum, np.minimum, 0),
            ]:
                with self.subTest(function.__name__, shape=other.shape):
                    self.check(function, reference, x, other, within=within)
                    self.check(function, reference, other, x, within=within)

    def test_functions(self):
        edges = np.float32([0, -0.0, 1, -1, 1e-38, -1e-38, 3e38, -3e38, 127, -128, 0.5, 2])
        rows = floats(6, 7, scale=300)

        def softmax(x):
            return np.exp(x - x.max(1, keepdims=True)) / np.exp(x - x.max(1, keepdims=True)).sum(1, keepdims=True)

        for name, make, reference, array, within in [
            ("comparison", lambda job, x: arithmetic.at_least(job, x, arithmetic.full(job, (), 0)), lambda x: x >= 0,
             edges, 0),
            ("sigmoid", arithmetic.sigmoid, lambda x: 1 / (1 + np.exp(-x)), floats(3, 5), 1e-6),
            ("tanh", arithmetic.tanh, np.tanh, floats(3, 5, scale=2), 1e-6),
            ("softmax of large numbers", lambda job, x: arithmetic.softmax(job, x, False), softmax, rows, 1e-6),
            ("softmax of masked ones", lambda job, x: arithmetic.softmax(job, x, False), softmax,
             np.float32([[-1e9, 50, -1e9], [-1e9, -1e9, 2]]), 1e-6),
            ("softmax of one", lambda job, x: arithmetic.softmax(job, x, False), softmax, rows[:, :1], 0),
            ("rounding", arithmetic.rounded, np.rint, np.float32([0.5, 1.5, 2.5, -0.5, -1.5, 3.7, 0]), 0),
            ("inverse deviation", lambda job, x: arithmetic.inverse_deviation(job, x, arithmetic.mean(job, x), 0.1),
             lambda x: 1 / np.sqrt(x.var(1) + 0.1), floats(4, 6), 1e-5),
            ("the same of what does not vary",
             lambda job, x: arithmetic.inverse_deviation(job, x, arithmetic.mean(job, x), 1e-5),
             lambda x: 1 / np.sqrt(x.var(1) + 1e-5), np.full((1, 5), 3, np.float32), 1e-2),
        ]:
            with self.subTest(name):
                self.check(make, reference, array, within=within)

    def test_integers(self):
        whole = np.float32([0, 1, 255, 256, -1, -200, 300, 127, 128])
        for dtype, least, most in ((np.uint8, 0, 255), (np.int8, -128, 127)):
            self.check(lambda job, x: arithmetic.clamped(job, x, np.dtype(dtype)), lambda x: x.clip(least, most), whole)
        for dtype in ("u1", "i1", "u2", "i2", "i4", "?"):
            with self.subTest(dtype):
                values = RANDOM.randint(-(2**23), 2**23, 13).astype(dtype)
                self.check(arithmetic.to_floats, lambda x: x, values)
        for dtype in ("i8", "i4", "i2", "i1", "f4"):
            with self.subTest(index=dtype):
                places = np.array([0, 9, -1, -10], dtype)
                self.check(lambda job, x: arithmetic.index(job, x, 10), lambda x: x % 10, places)


class Files(unittest.TestCase):
    def test_the_example_of_the_docstring_runs(self):
        quoted = re.search(r"^    import numpy.*?\n(?=\S)", job_module.__doc__, re.M | re.S)[0]
        self.assertIn(quoted, (REPOSITORY / "tools/onnx/README.md").read_text())
        code = textwrap.dedent(quoted)
        self.assertLessEqual(len([line for line in code.splitlines() if line]), 12)
        printed = []
        exec(code.replace('"build/host/bin/kelrt"', repr(KELRT[0])), {"print": printed.append})
        np.testing.assert_allclose(printed[0].sum(axis=1), 1, rtol=1e-6)
        self.assertRegex(str(printed[1]), r"cpu_softmax +NNA_STATUS_OK \(1001\) +3 x")

    def test_failures_are_told_and_leave_nothing(self):
        with tempfile.TemporaryDirectory() as folder:
            job = Job()
            job.output("y", job.one_hot(job.input("i", np.float32([7])), 4, 1, 0))
            with self.assertRaisesRegex(ToolError, r"ended with 1: cpu_onnx_onehot: NNA_STATUS_\w+ \(1000\)"):
                job.run(KELRT)
            with self.assertRaisesRegex(ToolError, "cannot run /nowhere"):
                job.run(["/nowhere"])
            with mock.patch("job.MOST_BYTES", 1 << 20):
                with self.assertRaisesRegex(JobError, "the job's memories take 2 MiB, and the tool has 1"):
                    Job().buffer((1 << 19,))
                job = Job()
                job.output("z", job.matmul(job.input("large", floats(1, 1 << 18)), job.constant(floats(1 << 18, 1))))
                with self.assertRaisesRegex(JobError, "the job's memories take 2 MiB, and the tool has 1"):
                    job.write(pathlib.Path(folder) / "job")
            with mock.patch("job.MOST_CONTEXTS", 2), self.assertRaisesRegex(JobError, "more than 2 contexts"):
                job.softmax(job.input("rows", floats(3, 4)))
            self.assertEqual(os.listdir(folder), [])

    def test_names_of_memories_and_inputs_of_a_type_the_tool_does_not_know(self):
        job = Job()
        values = np.array([[1.5, -2], [3, 4]])
        job.output("a b/c", job.input("a b/c", values).T)
        job.output("sram", job.input("../x", np.array([True, False])))
        result = job.run(KELRT)
        np.testing.assert_array_equal(result["a b/c"], values.T)
        np.testing.assert_array_equal(result["sram"], [True, False])


if __name__ == "__main__":
    KELRT[:], sys.argv[1:] = sys.argv[1:2], []
    unittest.main(failfast="GTEST_FAIL_FAST" in os.environ)
