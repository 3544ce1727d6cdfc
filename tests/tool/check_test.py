#!/usr/bin/env python3
"""kelrt check: every planted fault is found, in its place and of its kind, and nothing where there is none. What it says
the library refuses is then given to the library.

usage: check_test.py COMMAND... where COMMAND runs kelrt, under an emulator if need be.
"""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

KELRT = []
JOBS = pathlib.Path(__file__).resolve().parents[2] / "examples" / "jobs"
FLOAT = 0xFFFFFFFF


def given(count, kind="accelerator", values=None):
    return {"dtype": "f4", "shape": [count], "kind": kind, "values": values or [1.5] * count}


def zeros(count, kind="accelerator"):
    return {"dtype": "f4", "shape": [count], "kind": kind}


def at(name, offset=0):
    return {"mem": name, "offset": offset}


def job(*contexts, **memories):
    """Memories x, y with values, z without; t and u are CPU buffers. Those that no context names are left out."""
    known = {"x": given(16), "y": given(16), "z": zeros(16), "t": given(16, "cpu"), "u": zeros(16, "cpu")} | memories
    text = json.dumps(contexts)
    used = {name: memory for name, memory in known.items() if name in memories or f'"{name}"' in text}
    return {"memories": used, "contexts": list(contexts)}


def op(name, *args, **more):
    return dict({"op": name, "args": list(args)}, **more)


def add(out="z", a="x", b="y", n=4):
    return op("cpu_ewop_add", at(out), at(a), at(b), n)


def copy(*formats, out="z", source="x", count=4):
    to, start = formats[:3], formats[3:]
    return op("cpu_copy_fmt_conv", at(out), *to, at(source), *start, count)


def matmul(a, b, c, *geometry):
    return op("cpu_matmul", a, b, c, *geometry)


def norm(n=4, cifg=0, activation=1, gamma="x", cell="x", flags=(0, 0, 0, 0)):
    return op("cpu_lstm_states_norm_cifg_cpuactv", at("z"), at("y"), at("t"), n, cifg, activation, {"flt": 0.001},
              at(gamma), at("x"), at(cell), at(cell), *flags)


def im2col(rows=4, cols=4, height=2, width=2, strides=(1, 1)):
    bytes_ = lambda size: {"dtype": "u1", "shape": [size], "values": [7] * size}
    return job(op("cpu_im2col", at("in"), at("out"), rows, cols, 1, height, width, 1, *strides),
               **{"in": bytes_(64), "out": bytes_(256)})


def sram(address=0, size=4, stride=8, rows=2, memory="t"):
    return dict(job(op("nna_sram_get", address, size, stride, rows, at(memory))),
                sram={"base": 0, "dtype": "u1", "shape": [64]})


GOOD = [[1, 0, 4], [1, 0, 4], [2, 0, 1], [2, 0, 0], [2, 0, 0], [1, 0, 4]]


def raw(**changed):
    return job({"raw": [changed.get(f"a{i}", record) for i, record in enumerate(GOOD)]}, x=given(16), z=zeros(16))


def refused(status, message):
    return f"the library refuses it: {status}, \"{message}\""


NULL, INVALID, MISMATCH = "NNA_STATUS_NULL_POINTER (1056)", "NNA_STATUS_INVALID_ARGUMENT (1064)", "NNA_STATUS_TYPE_MISMATCH (1065)"
NOBODY = {"mem": None}

# (a job, "error" or "warning", argument, what is said of it); each has this one finding.
ONE_FAULT = [
    # what the library refuses
    (job({"null": True}), "error", "", refused(NULL, "Unexpected NULL context")),
    (job(dict(add(), target=2)), "error", "", refused(INVALID, "Unsupported target 2")),
    (job(dict(add(), num_args=2)), "error", "", refused(INVALID, "Insufficient arguments for CPU 2")),
    (raw(a0=[2, 0, 4]), "error", "",
     refused(MISMATCH, "Context Argument[0] Type Mismatch expected init_to_val actual init_to_mem_idx")),
    (raw(a1=[7, 0, 4]), "error", "", refused(INVALID, "Unknown Context Argument[1] Type 7")),
    (raw(a1=[1, 0, 19]), "error", "", refused(INVALID, "KEL RT Unknown operator 19")),
    (raw(a0=[1, 0, 5]), "error", "", refused(INVALID, "Expected 4 Actual 5")),
    (raw(a5=[3, 0, 4]), "error", "n",
     refused(MISMATCH, "Context Argument[5] Type Mismatch expected init_to_val actual init_to_flt")),
    (raw(a4=[9, 0, 4]), "error", "b", refused(MISMATCH, "Unknown Context Argument[4] Type 9")),
    (job(op("cpu_ewop_add", at("z"), NOBODY, at("y"), 4)), "error", "a", refused(NULL, "Bad Address")),
    (job(op("cpu_lstm_states", at("z"), at("y"), at("t"), 0)), "error", "n",
     refused(INVALID, "Error executing operator 1064")),
    (job(op("cpu_embedding", at("z"), at("x"), at("y"), 0)), "error", "w", refused(NULL, "Error executing operator 1056")),
    (job(op("cpu_onnx_onehot", at("z"), at("x"), 1, {"flt": 1}, {"flt": 0})), "error", "index",
     refused("NNA_STATUS_FAILED (1000)", "Error executing operator 1000")),
    (job(norm(activation=0, flags=(1, 0, 0, 0))), "error", "gateNorm",
     refused("NNA_STATUS_UNSUPPORTED (1063)", "Gate Normalization without CPU activation not supported")),
    (job(copy(8, 0, 1, 16, 0, 0)), "error", "inp_scale", refused(INVALID, "Input Scale Factor 0")),
    (job(copy(16, 0, 1, 16, 0, 1)), "error", "out_tot_bits", refused(INVALID, "Input Total : 16 Frac : 0")),
    (job(copy(8, 9, 1, 16, 0, 1)), "error", "out_frac_bits", refused(INVALID, "Input Total : 16 Frac : 0")),
    (job(copy(8, 0, 1, 24, 0, 1)), "error", "inp_tot_bits", refused(INVALID, "Input Total : 24 Frac : 0")),
    (job(copy(8, 0, 1, 8, 9, 1)), "error", "inp_frac_bits", refused(INVALID, "Input Total : 8 Frac : 9")),
    (job(copy(8, 0, 1, FLOAT, 0, 1, count=0)), "error", "count", refused(INVALID, "Unexpected Size 0")),
    # what it does not notice
    (job(add(n=17, out="v", b="v"), v=given(17)), "error", "a", "a of cpu_ewop_add needs 68 bytes from offset 0 and memory x has 64"),
    (job(op("cpu_split", at("x"), at("z", 65), 0)), "error", "out", "offset 65 is outside memory z of 64 bytes"),
    (job(norm(flags=(1, 0, 0, 0), gamma="g"), g=given(15)), "error", "gateGamma",
     "gateGamma of cpu_lstm_states_norm_cifg_cpuactv needs 64 bytes from offset 0 and memory g has 60"),
    (job(copy(8, 0, 0, FLOAT, 0, 1, source="s", count=1), s=given(3)), "error", "in",
     "in of cpu_copy_fmt_conv needs 16 bytes from offset 0 and memory s has 12"),
    (job(op("cpu_ewop_add", at("z"), dict(NOBODY, offset=4), at("y"), 4)), "error", "a",
     "a of cpu_ewop_add is no memory and has an offset all the same"),
    (job(op("cpu_ewop_add", at("x", 4), at("x"), at("y"), 4)), "error", "a",
     "a and out of cpu_ewop_add both touch bytes 4 to 15 of memory x; they may begin at the same byte, or lie apart"),
    (job(op("cpu_lstm_states", at("z"), at("z"), at("t"), 4)), "error", "cell",
     "cell and out of cpu_lstm_states both touch bytes 0 to 15 of memory z; they must lie apart"),
    (job(op("cpu_embedding", at("z"), at("i"), at("y"), 4), i=given(1, values=[4])), "error", "index",
     "index of cpu_embedding is 4 and memory y has 4 rows"),
    (im2col(rows=1), "error", "rows", "the geometry wraps: the kernel is higher than the input"),
    (im2col(cols=1), "error", "cols", "the geometry wraps: the kernel is wider than the input"),
    (job(matmul(at("x"), at("y"), at("z"), 2, 3, 2, 4, 0, 0)), "error", "bRows", "the inner dimensions differ; b is "
     "taken to have as many rows as a has columns"),
    (sram(address=60), "error", "sram_address", "rows lie outside the SRAM, from 0 to 64"),
    (raw(a3=[2, 0, 77]), "error", "a", "the platform knows no memory 77"),
    # what is allowed and seldom meant
    (job(op("cpu_ewop_add", at("z"), at("x", 2), at("y"), 4)), "warning", "a", "offset 2 cuts elements of 4 bytes"),
    (job(copy(FLOAT, 0, 1, FLOAT, 0, 1)), "warning", "out", "float to float copies nothing: the output stays as it was"),
    (job(copy(8, 0, 0, 16, 0, 1)), "warning", "out_scale", "an automatic scale reads integers as if they were floats"),
    (job(op("cpu_hw32_fmt_conv", at("z"), at("x"), 12, 0)), "warning", "size",
     "elements after the last whole line of 8 are not converted"),
    (job(op("cpu_hw32_fmt_conv_param", at("z"), at("x"), 12, 0, 5)), "warning", "size",
     "elements after the last whole line are not converted"),
    (im2col(strides=(0, 1)), "warning", "rowStride", "a stride of 0 makes one row of patches"),
    (job(op("cpu_featurenorm", at("x"), 7, at("y"), at("y"), 4, at("z"))), "warning", "total",
     "the last frame is not whole, and is not normalised"),
    (job(op("cpu_featurenorm", at("x"), 3, at("y"), at("y"), 4, at("z"))), "warning", "featureLen",
     "a frame longer than the input: nothing is written"),
    (sram(stride=2), "warning", "sram_stride", "rows of SRAM overlap: the stride is smaller than a row"),
    (sram(memory="x"), "warning", "mem", "nna_sram_get maintains no cache, so memory x does not show the rows; a cpu memory "
     "would"),
    (job(matmul(at("x"), at("x"), at("z"), 2, 2, 2, 2, 0, 1)), "warning", "b",
     "a and b overlap in memory x, so that both are read as the transposition leaves them"),
    (job(matmul(at("t"), at("x"), at("z"), 2, 2, 2, 2, 1, 0), add("y", "t", "x")), "warning", "a",
     "a is read from memory t, where operand a of context 0 lies as that left it"),
    (job(matmul(at("x"), at("y"), at("x", 32), 2, 2, 2, 2, 1, 0)), "warning", "c",
     "publishing c publishes all of memory x, operand a of context 0 as that left it included"),
    (job(matmul(at("x"), at("y"), at("z"), 2, 2, 2, 2, 1, 0), add("x", "y", "y", 1)), "warning", "out",
     "publishing out publishes all of memory x, operand a of context 0 as that left it included"),
    (job(add(a="u", b="u"), add("y", "u")), "warning", "a", "memory u has no values, and no context before has written it"),
    (job(add()) | {"outputs": ["x"]}, "warning", "", "memory x is an output, and no context publishes it"),
    (job(add(), v=given(1)), "warning", "", "memory v is named by no context"),
]

SPOTLESS = [
    job(add(), add("x", "z", "y")) | {"outputs": ["z"]},
    job(matmul(at("t"), at("x"), at("z"), 2, 2, 2, 2, 1, 0), add("t", "x", "x"), add("y", "t", "x")),
    job(op("cpu_ewop_add", at("x"), at("x"), at("y"), 16)),
    job(op("cpu_im2col", at("p"), at("p"), 4, 4, 1, 4, 4, 1, 1, 1), p={"dtype": "u1", "shape": [16], "values": [7] * 16}),
    job(norm(flags=(1, 1, 1, 1))), job(copy(8, 0, 0, FLOAT, 0, 1)), im2col(), sram(),
]


class CheckTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def kelrt(self, *words):
        return subprocess.run(KELRT + [str(word) for word in words], cwd=self.folder, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=300)

    def check(self, contents):
        (self.folder / "job.json").write_text(json.dumps(contents))
        result = self.kelrt("check", "job.json", "--report", "report.json")
        return result, json.loads((self.folder / "report.json").read_text())["findings"]

    def test_each_fault_is_found(self):
        self.assertGreaterEqual(len(ONE_FAULT), 30)
        for contents, severity, argument, what in ONE_FAULT:
            with self.subTest(what=what):
                result, findings = self.check(contents)
                self.assertEqual((result.returncode, result.stderr), (1, ""))
                self.assertEqual([(finding["severity"], finding.get("argument", ""), finding["what"]) for finding in findings],
                                 [(severity, argument, what)])
                context = f"context {findings[0]['context']}: " if "context" in findings[0] else ""
                self.assertIn(f"job.json: {context}{severity}: {argument}{': ' if argument else ''}{what}\n", result.stdout)
                if "refuses" in what:
                    self.library_agrees(what)

    def library_agrees(self, what):
        result = self.kelrt("run", "job.json", "--unchecked")
        status, message = what.removeprefix("the library refuses it: ").removesuffix('"').split(', "')
        self.assertEqual(result.returncode, 1)
        self.assertIn(status, result.stdout)
        self.assertIn("| " + message, result.stdout)

    def test_nothing_is_found_where_nothing_is(self):
        for contents in SPOTLESS:
            with self.subTest(contents=contents):
                result, findings = self.check(contents)
                self.assertEqual((result.returncode, findings, result.stderr), (0, [], ""))
        for name in ("dense_layer", "fixed_point"):
            result = self.kelrt("check", JOBS / f"{name}.json")
            self.assertEqual(result.returncode, 0, result.stdout)
        # It is there to be refused.
        result = self.kelrt("check", JOBS / "refused.json")
        self.assertEqual((result.returncode, result.stdout.count("\n"), result.stdout.count(" error: ")), (1, 2, 1))

    def test_all_faults_of_a_job_at_once(self):
        contents = job(dict(add(), label="first"), op("cpu_ewop_add", at("x", 4), at("x", 6), at("y", 64), 4),
                       dict(add(), label="last", target=3), v=given(1))
        result, findings = self.check(contents)
        self.assertEqual(result.returncode, 1)
        self.assertEqual([(finding.get("context"), finding.get("label"), finding["severity"], finding.get("argument"))
                          for finding in findings],
                         [(1, None, "error", "b"), (1, None, "error", "a"), (1, None, "warning", "a"),
                          (2, "last", "error", None), (None, None, "warning", None)])
        self.assertEqual([finding.get("status") for finding in findings], [None, None, None, 1064, None])
        # Errors first, warnings apart.
        kinds = ["error" if " error: " in line else "warning" for line in result.stdout.splitlines()[:-1]]
        self.assertEqual(kinds, sorted(kinds))
        self.assertTrue(result.stdout.endswith("3 errors, 2 warnings in 3 contexts\n"))
        self.assertIn("job.json: context 2 (last): error: ", result.stdout)

    def test_bad_input(self):
        (self.folder / "text").write_text("no job")
        for words, code in ((["none"], 2), (["text"], 2), ([], 2)):
            result = self.kelrt("check", *words)
            self.assertEqual((result.returncode, result.stdout), (code, ""))


if __name__ == "__main__":
    KELRT = sys.argv[1:]
    unittest.main(argv=sys.argv[:1], failfast="GTEST_FAIL_FAST" in os.environ)
