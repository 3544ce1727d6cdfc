#!/usr/bin/env python3
"""The command line from outside: exit codes, messages, numbers and files.

usage: kelrt_test.py COMMAND... where COMMAND runs kelrt, under an emulator if need be.
"""

import fcntl
import json
import os
import pathlib
import pty
import resource
import signal
import stat
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

KELRT = []
JOBS = pathlib.Path(__file__).resolve().parents[2] / "examples" / "jobs"
# A sanitizer's verdict must not pass for a failed context.
ENVIRONMENT = dict(os.environ, TERM="xterm", ASAN_OPTIONS="exitcode=99", UBSAN_OPTIONS="exitcode=99",
                   TSAN_OPTIONS="exitcode=99")
SANITIZED = os.environ.get("KELRT_SANITIZED") == "1"
CODES = {"f4": "f", "i4": "i", "i2": "h", "i1": "b", "u1": "B", "f8": "d"}


def npy(dtype, shape, values):
    descr = ("|" if dtype in ("i1", "u1") else "<") + dtype
    header = "{'descr': '%s', 'fortran_order': False, 'shape': %r, }" % (descr, tuple(shape))
    header += " " * (-(len(header) + 11) % 64) + "\n"
    return (b"\x93NUMPY\1\0" + struct.pack("<H", len(header)) + header.encode()
            + struct.pack("<%d%s" % (len(values), CODES[dtype]), *values))


class KelrtTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.out = self.folder / "out"

    def kelrt(self, *words, **how):
        how = dict(stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) | how
        return subprocess.run(KELRT + [str(word) for word in words], cwd=self.folder, env=ENVIRONMENT, timeout=300, **how)

    def start(self, *words, **how):
        process = subprocess.Popen(KELRT + [str(word) for word in words], cwd=self.folder, env=ENVIRONMENT, **how)
        self.addCleanup(process.kill)
        return process

    def run_job(self, job, *options, **how):
        text = job if isinstance(job, str) else json.dumps(job)
        (self.folder / "job.json").write_text(text)
        return self.kelrt("run", "job.json", "--out", self.out, *options, **how)

    def assert_refused(self, result, sentence):
        """Exit code 2, and one line on standard error that is `sentence`, or contains it after "..."."""
        self.assertEqual((result.returncode, result.stdout, result.stderr.count("\n")), (2, "", 1), result)
        if sentence.startswith("..."):
            self.assertIn(sentence[3:], result.stderr)
        else:
            self.assertEqual(result.stderr, "kelrt: " + sentence + "\n")
        self.assertLess(len(result.stderr), 600)
        self.assertFalse(self.out.exists())

    def written(self):
        return {path.name: path.read_bytes() for path in self.out.iterdir()}


def memory(shape=(4,), dtype="f4", **more):
    return dict(dtype=dtype, shape=list(shape), **more)


def add_job(**replaced):
    """A good job, and the places to spoil it."""
    job = {"memories": {"x": memory(values=[1, 2, 3, 4]), "y": memory(values=[10, 20, 30, 40]), "z": memory()},
           "contexts": [{"op": "cpu_ewop_add", "args": [{"mem": "z"}, {"mem": "x"}, {"mem": "y"}, 4]}],
           "outputs": ["z"]}
    job.update(replaced)
    return job


def with_args(*args, op="cpu_ewop_add"):
    return add_job(contexts=[{"op": op, "args": list(args)}])


def with_names(label=None, op="cpu_ewop_add", **args):
    return add_job(contexts=[dict({"op": op, "args": args}, **({"label": label} if label else {}))])


def with_memory(description):
    return add_job(memories=dict(add_job()["memories"], w=description))


U32 = "an integer from 0 to 4294967295 or a bit pattern such as 0xFFFFFFFF is wanted here"
FLOAT = "a finite number or a bit pattern such as 0x3F000000 is wanted here"
VALUE = "a number that the dtype can hold, or its bit pattern such as 0x7F"
Z, X, Y = {"mem": "z"}, {"mem": "x"}, {"mem": "y"}


class Refusals(KelrtTest):
    def test_jobs(self):
        one_hot = [Z, X, 4, {"flt": 1}, {"flt": 0}]
        refused = [
            # JSON
            ("", "line 1, column 1: this is not JSON: unexpected end of input; expected '[', '{', or a literal"),
            ('{"contexts": [],\n "outputs": [}',
             "line 2, column 14: this is not JSON: unexpected '}'; expected '[', '{', or a literal"),
            ('{"contexts": []} x',
             "line 1, column 18: this is not JSON: invalid literal; expected end of input"),
            ('{"contexts": []}\0', "this is not JSON: there is a NUL in it"),
            ('{"contexts": [], "contexts": []}', "contexts: the key is there twice"),
            ('{"contexts": [{}, {"args": [1, {"mem": "x", "mem": "y"}]}]}',
             "contexts[1].args[1].mem: the key is there twice"),
            ('{"contexts": [{"op": 4, "args": [1e999]}]}', "contexts[0].args[0]: the number is too large"),
            ('{"contexts": ' + "[" * 200000 + "]" * 200000 + "}", "contexts" + "[0]" * 16 + ": this is nested too deeply"),
            ("[]", "an object is wanted here"),
            ("{}", "the key contexts is missing"),
            (add_job(context=[]), "context: unknown key; known are memories, sram, contexts, outputs"),
            (add_job(contexts={}), "contexts: a list is wanted here"),
            # memories
            (with_memory({"dtype": "f4"}), "memories.w: the key shape is missing"),
            (with_memory(memory(size=4)), "memories.w.size: unknown key; known are npy, dtype, shape, values, kind"),
            (with_memory(memory(dtype="f8")), "memories.w.dtype: the dtype is one of f4, i4, i2, i1 and u1"),
            (with_memory(memory(kind="gpu")), 'memories.w.kind: the kind of a memory is "accelerator" or "cpu"'),
            (with_memory(memory([-1])), "memories.w.shape[0]: " + U32),
            (with_memory(memory([2**27 + 1])), "...memories.w.shape: a memory of shape (134217729,) takes more"),
            (with_memory(memory([2**31, 2**31, 2**31])), "...memories.w.shape: a memory of shape (2147483648, "),
            (with_memory(memory([1] * 33)), "memories.w.shape: a shape has at most 32 dimensions"),
            (with_memory(memory([2**29 - 48], "u1")) | {"contexts": 1}, "contexts: a list is wanted here"),
            (add_job(memories={"w": memory([2**29], "u1")}, contexts=1), "contexts: a list is wanted here"),
            (with_memory(memory([2**29 - 47], "u1")), "memories.w: the memories take more than 512 MiB together"),
            (with_memory(memory([2**29 - 48], "u1")) | {"sram": memory([1], "u1")},
             "sram: the memories take more than 512 MiB together"),
            (with_memory(memory(values=[1, 2, 3])), "memories.w.values: 3 values are given and shape (4,) has 4"),
            (with_memory(memory([1], values=[1e39])), "memories.w.values[0]: " + VALUE + ", is wanted here"),
            *((with_memory(memory([1], dtype, values=[value])), "memories.w.values[0]: " + VALUE + ", is wanted here")
              for dtype, value in (("i4", 2**31), ("i4", -2**31 - 1), ("i4", 0.5), ("i2", 2**15), ("i2", -2**15 - 1),
                                   ("i2", "0x10000"), ("i1", 128), ("i1", -129), ("u1", 256), ("u1", -1),
                                   ("u1", "0x100"))),
            (with_memory(memory([1], "f4", values=[None])), "...memories.w.values[0]: " + VALUE),
            (add_job(memories={"sram": memory()}, sram=memory()), "sram: a memory has the name sram too"),
            (with_memory({"npy": "i4.npy\0"}), "memories.w.npy: a file's name has no NUL in it"),
            (with_memory({"npy": "none.npy"}),
             "memories.w.npy: none.npy: cannot open the file (No such file or directory)"),
            (with_memory({"npy": "cut.npy"}),
             "memories.w.npy: cut.npy: shape (2,) of f4 needs 8 bytes of elements and the file has 7"),
            (with_memory({"npy": "i4.npy", "dtype": "f4"}), "memories.w.dtype: the file i4.npy holds i4"),
            (with_memory({"npy": "f8.npy", "dtype": "i4"}),
             "memories.w.npy: f8.npy: elements of type '<f8' become f4, not i4"),
            (with_memory({"npy": "f8.npy", "shape": [1]}), "memories.w.shape: the file f8.npy has shape (8,)"),
            (with_memory({"npy": "i4.npy", "shape": [3]}), "memories.w.shape: the file i4.npy has shape (2,)"),
            (with_memory({"npy": "i4.npy", "values": []}), "memories.w.values: a memory has either a file or values"),
            (add_job(sram=memory([17], "u1", base=2**32 - 16)), "sram: the SRAM reaches beyond 32-bit addresses"),
            (add_job(sram=memory([16], "u1", base=2**32 - 16), contexts=1), "contexts: a list is wanted here"),
            # operators and arguments
            (with_args(Z, X, Y, 4, op="cpu_add"), "contexts[0].op: there is no operator cpu_add (see kelrt ops)"),
            (with_args(Z, X, Y, 4, op=19), "contexts[0].op: there is no operator 19 (see kelrt ops)"),
            (with_args(Z, X, 4),
             "contexts[0].args: cpu_ewop_add takes 4 arguments (out, a, b, n) and 3 are given"),
            (with_args(Z, X, 4, Y), "contexts[0].args[2]: b of cpu_ewop_add is a memory and an integer is given"),
            (with_args(Z, X, Y, {"flt": 4}),
             "contexts[0].args[3]: n of cpu_ewop_add is an integer and a float is given"),
            (with_args(Z, {"mem": "v"}, Y, 4), "contexts[0].args[1].mem: there is no memory v"),
            (with_args(Z, {"mem": 1}, Y, 4), "contexts[0].args[1].mem: a text is wanted here"),
            (with_args(Z, {"mem": "x", "ofs": 4}, Y, 4), "contexts[0].args[1].ofs: unknown key; known are mem, offset"),
            (with_args(Z, X, Y, -1), "contexts[0].args[3]: " + U32),
            (with_args(Z, X, Y, 4.0), "contexts[0].args[3]: " + U32),
            (with_args(Z, X, Y, 2**32), "contexts[0].args[3]: " + U32),
            (with_args(Z, X, Y, "0x100000000"), "contexts[0].args[3]: " + U32),
            (with_args(Z, X, Y, "0x000000004"), "contexts[0].args[3]: " + U32),
            (with_args(Z, X, Y, "4"), "contexts[0].args[3]: " + U32),
            (with_args(*one_hot[:3], {"flt": 1e39}, {"flt": 0}, op=3), "contexts[0].args[3].flt: " + FLOAT),
            (with_args(*one_hot[:3], {"flt": "1"}, {"flt": 0}, op=3), "contexts[0].args[3].flt: " + FLOAT),
            # what does not fit
            (with_args(Z, X, Y, 5),
             "contexts[0].args[0]: out of cpu_ewop_add needs 20 bytes from offset 0 and memory z has 16"),
            (with_args(Z, {"mem": "x", "offset": 1}, Y, 4),
             "contexts[0].args[1]: a of cpu_ewop_add needs 16 bytes from offset 1 and memory x has 16"),
            (with_args(Z, {"mem": "x", "offset": 17}, Y, 0),
             "contexts[0].args[1]: offset 17 is outside memory x of 16 bytes"),
            (with_args(Z, X, Y, 2**32 - 1),
             "contexts[0].args[0]: out of cpu_ewop_add needs 17179869180 bytes from offset 0 and memory z has 16"),
            (with_args(Z, {"mem": None, "offset": 4}, Y, 4),
             "contexts[0].args[1]: a of cpu_ewop_add is no memory and has an offset all the same"),
            (dict(with_args(Z, {"mem": "i"}, Y, 4), memories=dict(add_job()["memories"], i=memory(dtype="i4"))),
             "contexts[0].args[1]: a of cpu_ewop_add holds f4 and memory i is i4"),
            (with_args(Z, X, {"mem": "z", "offset": 4}, 3),
             "contexts[0].args[2]: b and out of cpu_ewop_add both touch bytes 4 to 11 of memory z; they may begin at "
             "the same byte, or lie apart"),
            (with_args({"mem": "x", "offset": 8}, {"mem": "x", "offset": 11}, 4, op="cpu_split"),
             "contexts[0].args[1]: out and in of cpu_split both touch bytes 11 to 11 of memory x; they must lie apart"),
            (with_args(Z, {"mem": "y", "offset": 12}, X, 4, op="cpu_embedding"),
             "contexts[0].args[1]: index of cpu_embedding is 40 and memory x has 1 row"),
            (with_args({"mem": "x", "offset": 4}, X, X, 1, op="cpu_embedding"),
             "contexts[0].args[2]: row 1 of table and out of cpu_embedding both touch bytes 4 to 7 of memory x; they must "
             "lie apart"),
            (dict(with_args(0, 0, 1, 17, Z, op=17), sram=memory([16], "u1")),
             "contexts[0].args[3]: 17 rows of no bytes are more than the memory has bytes"),
            (with_args(0, 4, 4, 1, Z, op="nna_sram_get"), 'contexts[0].op: nna_sram_get needs the job to have "sram"'),
            (dict(with_args(0, 4, 4, 1, {"mem": None}, op=17), sram=memory([16], "u1")),
             "contexts[0].args[4]: mem of nna_sram_get must be a memory"),
            # arguments by name, labels
            (with_names(a=X, b=Y, n=4), "contexts[0].args: the argument out of cpu_ewop_add is missing"),
            (with_names(out=Z, a=X, bb=Y, n=4),
             "contexts[0].args.bb: cpu_ewop_add has no such argument; it has out, a, b, n"),
            (with_names(out=Z, a=X, b=Y, n=4, m=5),
             "contexts[0].args.m: cpu_ewop_add has no such argument; it has out, a, b, n"),
            (with_names(out=Z, a=X, b=Y, n=5),
             "contexts[0].args.out: out of cpu_ewop_add needs 20 bytes from offset 0 and memory z has 16"),
            (with_names("sum", out=Z, a=X, b=Y, n=-1), "contexts[0] (sum).args.n: " + U32),
            (add_job(contexts=[{"op": 4, "args": [], "label": 7}]), "...contexts[0].args: cpu_ewop_add takes 4"),
            (add_job(contexts=[dict(add_job()["contexts"][0], label=7)]), "contexts[0].label: a text is wanted here"),
            # outputs
            (add_job(outputs=["v"]), "outputs[0]: there is no memory v"),
            (add_job(outputs=["sram"]), "outputs[0]: there is no memory sram"),
            (add_job(outputs=["z", "z"]), "outputs[1]: memory z is there twice"),
            (add_job(outputs=["sram", "z", "sram"], sram=memory()), "outputs[2]: memory sram is there twice"),
        ]
        # The keys that replay invalid contexts
        for key, value in (("raw", []), ("target", 1), ("num_args", 6), ("null", False)):
            job = add_job()
            job["contexts"][0][key] = value
            refused.append((job, f"contexts[0].{key}: this needs --unchecked"))

        (self.folder / "cut.npy").write_bytes(npy("f4", [2], [1, 2])[:-1])
        (self.folder / "i4.npy").write_bytes(npy("i4", [2], [1, 2]))
        (self.folder / "f8.npy").write_bytes(npy("f8", [1], [1]))
        for job, sentence in refused:
            with self.subTest(sentence=sentence):
                prefix = "" if sentence.startswith("...") else "job.json: "
                self.assert_refused(self.run_job(job), prefix + sentence)

    def test_files_and_options(self):
        job = self.folder / "job.json"
        job.write_text(json.dumps(add_job()))
        (self.folder / "many.json").write_text(json.dumps(add_job(contexts=add_job()["contexts"] * 67)))
        os.mkfifo(self.folder / "pipe")
        repeat = "is not a whole number from 1 to 1000000"
        wide_kernel = "rows=1 cols=3 channels=1 kernelHeight=1 kernelWidth=5 filters=1 rowStride=0 colStride=0x7FFFFFFF"
        lookup = lambda index: ["op", "cpu_embedding", f"index=f4[1]:{index}", "table=f4[9]", "w=4"]
        for words, sentence in [
            (["walk" * 30000], "...walk: there is no such command; there are ops, run, op, replay and check"),
            (["run", "pipe"], "pipe: nobody writes into this pipe"),
            (["run", "/dev/zero"], "/dev/zero: this is not JSON: there is a NUL in it"),
            (["op", "cpu_split", "in=pipe", "nbytes=1"], "in=pipe: pipe: nobody writes into this pipe"),
            (["op", "cpu_split", "in=/dev/zero", "nbytes=1"], "in=/dev/zero: /dev/zero: the file is not a .npy file"),
            (["run", job, "--out", ""], "--out: the name of a folder is wanted"),
            *((["run", job, "--repeat", text], f"--repeat: '{text}' {repeat}")
              for text in ("0", "-1", "1000001", "0x10", "1e3", "")),
            (["run", "many.json", "--repeat", "1000000"],
             "--repeat 1000000: that often, 67 contexts are more than 67108864 measurements"),
            (["run", job, "--unchecked=false"], "--unchecked takes no value"),
            (lookup(2), "index=f4[1]:2: index of cpu_embedding is 2 and memory table has 2 rows"),
            (lookup("1e9"), "index=f4[1]:1e9: index of cpu_embedding is 1e+09 and memory table has 2 rows"),
            (lookup("0x7FC00000"), "index=f4[1]:0x7FC00000: index of cpu_embedding is nan and memory table has 2 rows"),
            (["op", "cpu_im2col", "in=u1[3]", *wide_kernel.split()],
             "in=u1[3]: in of cpu_im2col needs 4294967299 bytes from offset 0 and memory in has 3"),
            ([], "A subcommand is required"),
            (["walk"], "walk: there is no such command; there are ops, run, op, replay and check"),
            (["run"], "JOB is required"),
            (["run", "none.json"], "none.json: cannot open the file (No such file or directory)"),
            (["run", "."], ".: cannot read the file (Is a directory)"),
            (["run", job, "--log", "loud"], "...--log"),
            (["run", job, "--swiftly"], "...--swiftly"),
            (["ops", "cpu_add"], "cpu_add: there is no such operator (see kelrt ops)"),
            (["op", "cpu_add"], "cpu_add: there is no such operator (see kelrt ops)"),
            (["op", "cpu_ewop_add"], "a: the argument of cpu_ewop_add is missing"),
            (["op", "cpu_ewop_add", "n"], "n: an argument is written NAME=VALUE"),
            (["op", "cpu_ewop_add", "m=4"],
             "m=4: cpu_ewop_add has no argument m; it has out, a, b, n"),
            (["op", "cpu_ewop_add", "n=4", "n=4"], "n=4: the argument is there twice"),
            (["op", "cpu_ewop_add", "a=f4[4]", "b=f4[4]", "n=-1"],
             "n=-1: an integer from 0 to 4294967295 or a bit pattern such as 0xFFFFFFFF is wanted"),
            (["op", "cpu_onnx_onehot", "index=f4[1]", "depth=2", "on_value=inf", "off_value=0"],
             "on_value=inf: a finite number or a bit pattern such as 0x3F000000 is wanted"),
            (["op", "cpu_ewop_add", "a=f4[4]", "b=f4[3]", "n=4"],
             "b=f4[3]: b of cpu_ewop_add needs 16 bytes from offset 0 and memory b has 12"),
            (["op", "cpu_ewop_add", "a=f4[4", "b=f4[4]", "n=4"], "a=f4[4: a memory is written f4[2,3] or f4[2]:0.5,1"),
            (["op", "cpu_ewop_add", "a=f4[x]", "b=f4[4]", "n=4"], "a=f4[x]: 'x' is not a dimension"),
            (["op", "cpu_ewop_add", "a=f4[4]", "a.kind=gpu", "b=f4[4]", "n=4"],
             "a.kind=gpu: the kind of a memory is accelerator or cpu"),
            (["op", "cpu_ewop_add", "a=f4[2]:1", "b=f4[4]", "n=4"],
             "a=f4[2]:1: 1 values are given and shape (2,) has 2"),
            (["op", "cpu_ewop_add", "a=i1[1]:200", "b=f4[4]", "n=4"],
             "a=i1[1]:200: '200' is not a number that i1 can hold"),
            (["op", "cpu_ewop_add", "a=@c", "b=f4[4]", "n=4"], "a=@c: no argument has a memory of that name"),
            (["op", "cpu_ewop_add", "a=none.npy", "b=f4[4]", "n=4"],
             "a=none.npy: none.npy: cannot open the file (No such file or directory)"),
            (["op", "cpu_ewop_add", "a=f4[1]", "b=f4[1]", "n=0xFFFFFFFF"],
             "out: the operator needs more than 512 MiB for it"),
            (["op", "cpu_split", "in=u1[1]", "nbytes=1", f"out.offset={2**29}"],
             "out: the operator needs more than 512 MiB for it"),
            (["op", "cpu_split", "in=u1[1]", "nbytes=1", f"out.offset={2**29 - 1}"],
             "cpu_split: the memories take more than 512 MiB together"),
            (["op", "cpu_split", "in=u1[1" + ",1" * 32 + "]", "nbytes=1"], "...]: the memory is too large"),
            (["op", "nna_sram_get", "sram_address=0", "row_size=1", "sram_stride=1", "rows=1"],
             "nna_sram_get: the SRAM is missing; it is given as sram=FILE.npy or sram=u1[64]"),
        ]:
            with self.subTest(words=words):
                self.assert_refused(self.kelrt(*words), sentence)

    def test_an_index_that_an_earlier_context_makes(self):
        job = add_job(contexts=[{"op": 4, "args": [Z, X, Y, 4]}, {"op": 7, "args": [Z, {"mem": "z"}, X, 1]}])
        job["contexts"][1]["args"][0] = Y
        by_order = job["contexts"][1]["args"]
        by_name = dict(zip(("out", "index", "table", "w"), by_order))
        for kind, args, place in (("accelerator", by_order, "[1]"), ("cpu", by_order, "[1]"), ("cpu", by_name, ".index")):
            job["memories"]["z"]["kind"] = kind
            job["contexts"][1]["args"] = args
            result = self.run_job(job)
            self.assertEqual(result.returncode, 2)
            self.assertEqual(result.stderr, f"kelrt: job.json: contexts[1].args{place}: index of cpu_embedding is 11 and "
                                            "memory x has 4 rows\n")
            self.assertFalse(self.out.exists())
        job["memories"]["z"]["values"] = [9] * 4
        job["contexts"][0] = {"op": "cpu_split", "args": [X, Z, 4]}
        self.assertEqual(self.run_job(job).returncode, 0)


class Runs(KelrtTest):
    SUM = npy("f4", [4], [11, 22, 33, 44])

    def test_every_way_to_hold_the_memories(self):
        (self.folder / "x.npy").write_bytes(npy("f4", [4], [1, 2, 3, 4]))
        (self.folder / "f8.npy").write_bytes(npy("f8", [4], [1, 2, 3, 4]))
        x, y, z = add_job()["memories"].values()
        for kind in ("accelerator", "cpu"):
            for x_memory in (x, {"npy": "x.npy", "dtype": "f4", "shape": [4]}, {"npy": "f8.npy", "dtype": "f4"}):
                memories = {"x": dict(x_memory, kind=kind), "y": y, "z": dict(z, kind=kind)}
                result = self.run_job(add_job(memories=memories))
                self.assertEqual((result.returncode, result.stderr), (0, ""), result)
                self.assertEqual(self.written(), {"z.npy": self.SUM})
                to_cpu, back = (32, 16) if kind == "accelerator" else (16, 0)
                self.assertIn(f"caches carried {to_cpu} bytes to the CPU, {back} bytes back", result.stdout)
                self.assertIn("NNA_STATUS_OK (1001)", result.stdout)
                self.assertIn("z  f4 (4,) = 11 22 33 44\n", result.stdout)

    def test_repetitions_start_alike(self):
        result = self.run_job(with_args(X, X, Y, 4) | {"outputs": ["x"]}, "--repeat", "010")
        self.assertEqual(self.written(), {"x.npy": self.SUM})
        self.assertRegex(result.stdout, r"cpu_ewop_add +NNA_STATUS_OK \(1001\)  least .* us, median .* us of 10\n")
        self.assertIn("caches carried 32 bytes to the CPU, 16 bytes back\n", result.stdout)  # in each of them

    def test_values_of_every_type_come_back(self):
        values = {"f4": ("4I", [0.5, -0.0, "0x7FC00001", 1e-45], [0x3F000000, 0x80000000, 0x7FC00001, 1]),
                  "i4": ("3i", [-2**31, 2**31 - 1, "0xFFFFFFFF"], [-2**31, 2**31 - 1, -1]),
                  "i2": ("3h", [-2**15, 2**15 - 1, "0xFFFF"], [-2**15, 2**15 - 1, -1]),
                  "i1": ("3b", [-128, 127, "0xFF"], [-128, 127, -1]), "u1": ("3B", [0, 255, "0x7F"], [0, 255, 127])}
        job = {"memories": {dtype * 50: memory([1] * 31 + [len(v)], dtype, values=v) for dtype, (_, v, _) in values.items()},
               "contexts": [], "outputs": [dtype * 50 for dtype in values]}
        # The integer -0 has a sign, too.
        self.assertEqual(self.run_job(json.dumps(job).replace("-0.0", "-0")).returncode, 0)
        for dtype, (layout, _, expected) in values.items():
            packed = struct.pack("<" + layout, *expected)
            self.assertEqual(self.written()[dtype * 50 + ".npy"][-len(packed):], packed)

    def test_names_of_every_kind(self):
        """Any memory name, which becomes a file name by one rule; labels and arguments by name; the report."""
        names = {"": "%", "conv 1/weights:0": "conv 1%2Fweights%3A0", "../w": "%2E.%2Fw", "-w": "%2Dw", "w\0": "w%00",
                 "\u00e9": "%C3%A9", "w%": "w%25", "sram": "sram", "w" * 200: "", "w" * 201: ""}
        job = {"memories": {name: memory([1], values=[i]) for i, name in enumerate(names)}, "outputs": list(names),
               "contexts": [{"op": 4, "label": "sum\n\u00e9", "args": {
                   "n": 1, "out": {"mem": "w\0"}, "a": {"mem": ""}, "b": {"mem": "-w"}}}]}
        result = self.run_job(job, "--report", "report.json")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertRegex(result.stdout, "us  \\(sum\\?\u00e9\\)\n")
        report = json.loads((self.folder / "report.json").read_text())
        self.assertEqual([(context["op"], context["label"], context["status"]) for context in report["contexts"]],
                         [("cpu_ewop_add", "sum\n\u00e9", 1001)])
        self.assertEqual([(output["memory"], output["values"]) for output in report["outputs"]],
                         [(name, [3 if name == "w\0" else i]) for i, name in enumerate(names)])
        files = self.written()
        self.assertEqual(len(files), len(names))
        self.assertLessEqual({name + ".npy" for name in names.values() if name}, set(files))
        quiet = self.run_job(job, "--quiet")
        self.assertEqual((quiet.returncode, quiet.stdout, quiet.stderr), (0, "", ""))

    def test_a_report_tells_what_failed_and_how_long_it_took(self):
        job = with_args(Z, {"mem": None}, Y, 4)
        job["contexts"] = add_job()["contexts"] * 3 + job["contexts"]
        result = self.run_job(job, "--quiet", "--log", "off", "--report", "r.json", "--profile", "--trace", "t.json")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stdout, r"\A  3  cpu_ewop_add .*\nstopped: context 3 failed, no outputs\n\Z")
        report, trace = (json.loads((self.folder / name).read_text()) for name in ("r.json", "t.json"))
        self.assertEqual([context["status"] for context in report["contexts"]], [1001] * 3 + [1056])
        row, = report["profile"]["operators"]
        self.assertEqual((row["op"], row["calls"], row["bytes"]), ("cpu_ewop_add", 4, 4 * 48))
        self.assertLessEqual(row["least_us"], row["median_us"])
        self.assertLessEqual(row["median_us"], row["p99_us"])
        self.assertLessEqual(row["p99_us"], row["most_us"])
        self.assertAlmostEqual(row["mean_us"] * 4, row["total_us"], 3)
        self.assertAlmostEqual(row["gb_per_s"] * row["total_us"] * 1000 / row["bytes"], 1, 5)
        self.assertEqual([(event["ph"], event["name"], event["args"]["context"]) for event in trace["traceEvents"]],
                         [("X", "cpu_ewop_add", i) for i in range(4)])
        begins = [event["ts"] for event in trace["traceEvents"]]
        self.assertEqual(begins, sorted(begins))
        text = self.run_job(add_job(), "--profile").stdout
        self.assertRegex(text, r"\ncpu_ewop_add +1 .* 100\.0 %\na memory copy on this machine, .* GB/s\n")

    def test_a_failing_context_ends_the_run(self):
        job = with_args(Z, {"mem": None}, Y, 4)
        job["contexts"] = add_job()["contexts"] + job["contexts"] + add_job()["contexts"]
        for level, logged in (("debug", 3), ("warn", 3), ("err", 3), ("off", 0)):
            result = self.run_job(job, "--log", level)
            self.assertEqual(result.returncode, 1)
            self.assertRegex(result.stdout, r"\n  1  cpu_ewop_add +NNA_STATUS_NULL_POINTER \(1056\)  .* us\n")
            self.assertTrue(result.stdout.endswith("stopped: context 1 failed, no outputs\n"))
            self.assertEqual(result.stdout.count("NNA_LOG_ERR"), logged)
            self.assertEqual("KEL RT executing operator cpu_ewop_add" in result.stdout, level == "debug")
            self.assertFalse(self.out.exists())

    def test_operators_from_the_shell(self):
        (self.folder / "x.npy").write_bytes(npy("f4", [4], [1, 2, 3, 4]))
        copy = "out_tot_bits=8 out_frac_bits=0 inp_tot_bits=0xFFFFFFFF inp_frac_bits=0 inp_scale=0 "
        square = "aRows=2 aCols=2 bRows=2 bCols=2 transA=0 transB=0"
        patch = "rows=2 cols=2 channels=1 kernelHeight=1 kernelWidth=2 filters=1 rowStride=1 colStride=1"
        rows = "sram_address=4 row_size=4 sram_stride=8 rows=2"
        for words, shown in [
            ("cpu_ewop_add a=x.npy b=f4[4]:10,20,30,40 n=4", "out  f4 (4,) = 11 22 33 44"),
            ("cpu_ewop_add out=f4[2,2] a=x.npy b=f4[4]:10,20,30,40 n=4", "out  f4 (2, 2) = 11 22 33 44"),
            ("cpu_ewop_add out=@a a=x.npy a.kind=cpu b=@a b.offset=8 n=2", "a  f4 (4,) = 4 6 3 4"),
            ("cpu_ewop_add out.offset=8 out.kind=cpu a=f4[1]:0x3F800000 b=f4[]:-0.5 n=1", "out  f4 (3,) = 0 0 0.5"),
            ("cpu_ewop_add a=u1[9]:0,0,0,0,63,0,0,0,128 a.offset=1 b=@a b.offset=0x1 n=0x2", "out  f4 (2,) = 1 -0"),
            ("cpu_ewop_add a=f4[64] b=f4[64] n=64", "out  f4 (64,) = 0 0 0 0"),
            ("cpu_ewop_add a=f4[65] b=f4[65] n=65", "out  f4 (65,)  too many to show; --out DIR writes them"),
            ("cpu_copy_fmt_conv in=f4[1]:-30 count=1 out_scale=1 " + copy, "out  i1 (1,) = -30"),
            ("cpu_copy_fmt_conv in=f4[4]:-300,1,2,3 count=4 out_scale=0 " + copy, " us  scale 4\n"),
            ("cpu_copy_fmt_conv in=i1[1]:3 count=1 out_tot_bits=0xFFFFFFFF out_frac_bits=0 out_scale=0 "
             "inp_tot_bits=8 inp_frac_bits=0 inp_scale=1", " us\ntotal"),
            ("cpu_matmul a=f4[4]:1,2,3,4 b=f4[4]:1,0,0,1 " + square, "c  f4 (2, 2) = 1 2 3 4"),
            ("cpu_im2col in=i1[4]:1,2,3,-4 " + patch, "out  i1 (2, 8) = 1 2 0 0 0 0 0 0 3 -4 0 0 0 0 0 0"),
            ("cpu_featurenorm in=f4[5] total=5 mean=f4[2] var=f4[2]:1,1 featureLen=2", "out  f4 (2, 2) = 0 0 0 0"),
            ("cpu_split in=i2[4]:1,2,3,-4 in.offset=2 nbytes=6", "out  i2 (3,) = 2 3 -4"),
            ("cpu_split in=f4[1]:-0 nbytes=4", "out  f4 (1,) = -0"),
            ("cpu_split in=i2[2]:1,2 nbytes=3", "out  u1 (3,) = 1 0 2"),
            ("cpu_split in=i2[2]:1,2 in.offset=1 nbytes=2", "out  u1 (2,) = 0 2"),
            ("cpu_hw32_fmt_conv_param in=i4[1]:7 size=1 dir=0 nna_out_line_sz=1", "out  i4 (1,) = 7"),
            ("cpu_hw32_fmt_conv_param in=i4[1]:7 size=1 dir=1 nna_out_line_sz=1", "out  u1 (4,) = 7 0 0 0"),
            ("cpu_embedding index=f4[1]:1 table=f4[4]:1,2,3,4 w=2", "out  f4 (2,) = 3 4"),
            ("nna_sram_get mem.kind=cpu sram=f4[4]:1,2,3,4 " + rows, "mem  f4 (2, 1) = 2 4\n"),
            ("nna_sram_get mem=u1[2]:1,2 mem.kind=cpu sram=u1[1] sram_address=0 row_size=0 sram_stride=1 rows=2", "= 1 2"),
            ("nna_sram_get mem=u1[8] mem.offset=8 mem.kind=cpu sram=u1[16] " + rows, "mem  u1 (8,) = 0 0 0 0 0 0 0 0\n"),
            ("nna_sram_set mem=f4[2]:5,6 mem.kind=cpu sram=f4[4]:1,2,3,4 " + rows, "back\nsram  f4 (4,) = 1 5 3 6\n"),
        ]:
            with self.subTest(words=words):
                result = self.kelrt("op", *words.split())
                self.assertEqual((result.returncode, result.stderr), (0, ""), result)
                self.assertIn(shown, result.stdout)
                self.assertEqual("\nsram  " in result.stdout, "nna_sram_set" in words)
        self.kelrt("op", "cpu_ewop_add", "a=x.npy", "b=x.npy", "n=4", "--out", self.out)
        self.assertEqual(self.written(), {"out.npy": npy("f4", [4], [2, 4, 6, 8])})
        # A pipe that has its bytes before it is opened.
        os.mkfifo(self.folder / "pipe")
        writer = os.open(self.folder / "pipe", os.O_RDWR)
        os.write(writer, npy("f4", [4], [1, 2, 3, 4]))
        reader = self.start("op", "cpu_split", "in=pipe", "nbytes=16", stdout=subprocess.PIPE, text=True)
        for _ in range(6000):
            if fcntl.ioctl(writer, termios.FIONREAD, bytes(4)) == bytes(4) or reader.poll() is not None:
                break
            time.sleep(0.01)
        else:
            self.fail("the pipe is not read")
        os.close(writer)
        self.assertIn("out  f4 (4,) = 1 2 3 4", reader.communicate()[0])
        result = self.kelrt("op", "cpu_ewop_add", "a=none", "b=f4[4]", "n=4")
        self.assertEqual(result.returncode, 1)
        self.assertIn("NNA_STATUS_NULL_POINTER (1056)", result.stdout)
        self.assertRegex(self.kelrt("ops").stdout, r"(?m)^18  nna_sram_set +sram_address row_size sram_stride rows mem$")
        for name in ("cpu_ewop_add", "4"):
            self.assertRegex(self.kelrt("ops", name).stdout, r"(?s)  2  out +memory +output +f4 +n sums.*  5  n +integer ")

    def test_operands_left_changed_are_warned_of(self):
        m, at = {"mem": "m"}, lambda offset: {"mem": "m", "offset": offset}
        matmul = lambda a, b, c, *flags: {"op": "cpu_matmul", "args": [a, b, c, 2, 2, 2, 2, *flags]}
        add = lambda out, a, n=4: {"op": "cpu_ewop_add", "args": [out, a, X, n]}
        lstm = {"op": "cpu_lstm_states", "args": [at(48), Y, m, 3]}
        overlap = "context 0: a and b overlap in memory m, so that both are read as the transposition leaves them"
        publishes = "publishing %s publishes all of memory m, operand %s of context 0 as that left it included"
        reads = "context 1: a is read from memory m, where operand b of context 0 lies as that left it"
        for contexts, warnings in [
            ([matmul(m, m, Z, 0, 1)], [overlap]),
            ([matmul(m, at(12), Z, 1, 0)], [overlap]),
            ([matmul(m, at(16), Z, 1, 1)], []),
            ([matmul(m, m, Z, 0, 0)], []),
            ([{"op": "cpu_matmul", "args": [m, m, Z, 1, 4, 4, 1, 1, 0]}], []),  # moves nothing
            ([matmul(m, X, at(16), 1, 0)], ["context 0: " + publishes % ("c", "a")]),
            ([matmul(X, m, at(16), 1, 0)], []),
            ([matmul(X, m, Z, 0, 1), add(at(16), Y)], ["context 1: " + publishes % ("out", "b")]),
            ([matmul(X, m, Z, 0, 1), add(at(16), m), add(at(16), Y)], [reads]),  # or fetched anew in between
            ([matmul(X, m, Z, 0, 1), add(m, Y), add(Z, m)], ["context 1: " + publishes % ("out", "b")]),  # or overwritten
            ([matmul(X, m, Z, 0, 1), add(m, Y, 3), add(Z, m)], [  # as a whole
                "context 1: " + publishes % ("out", "b"), reads.replace("context 1", "context 2")]),
            ([lstm], ["context 0: " + publishes % ("out", "gates")]),
        ]:
            for kind in ("accelerator", "cpu"):
                with self.subTest(contexts=contexts, kind=kind):
                    memories = dict(add_job()["memories"], m=memory([15], kind=kind))
                    result = self.run_job({"memories": memories, "contexts": contexts}, "--report", "report.json")
                    of_kind = "is read" if kind == "cpu" else "publishes"
                    report = json.loads((self.folder / "report.json").read_text())
                    self.assertEqual(len(report["warnings"]), result.stderr.count("warning: "))
                    self.assertEqual(result.stderr.splitlines(), ["kelrt: warning: " + warning for warning in warnings
                                                                  if of_kind in warning or "overlap" in warning])

        for op, seen in (("get", "memory mem does not show the rows"),
                         ("set", "the rows are not those of memory mem but what a stale view holds")):
            result = self.kelrt("op", f"nna_sram_{op}", "mem=u1[1]", "sram=u1[1]", "sram_address=0", "row_size=1",
                                "sram_stride=1", "rows=1")
            self.assertEqual(result.stderr, f"kelrt: warning: context 0: nna_sram_{op} maintains no cache, so {seen}; a "
                                            "cpu memory would\n")

    def test_sram_rows_move_both_ways(self):
        job = {"memories": {"m": memory([6], "u1", kind="cpu")},
               "sram": memory([16], "u1", base=4096, values=list(range(16))),
               "contexts": [{"op": "nna_sram_get", "args": [4097, 3, 8, 2, {"mem": "m"}]},
                            {"op": "nna_sram_set", "args": [4100, 2, 2, 3, {"mem": "m"}]}],
               "outputs": ["m", "sram"]}
        self.assertEqual(self.run_job(job).returncode, 0)
        self.assertEqual(self.written(), {"m.npy": npy("u1", [6], [1, 2, 3, 9, 10, 11]), "sram.npy": npy(
            "u1", [16], [0, 1, 2, 3, 1, 2, 3, 9, 10, 11, 10, 11, 12, 13, 14, 15])})
        job["contexts"][1]["op"] = 0x112  # of which the library sees the low byte
        moved = self.written()
        self.assertEqual(self.run_job(job, "--unchecked").returncode, 0)
        self.assertEqual(self.written(), moved)
        job["contexts"][1]["op"] = "nna_sram_set"
        job["contexts"][0]["args"][0] = 4110
        self.assertIn("NNA_SIM_STATUS_OUT_OF_RANGE (2002)", self.run_job(job).stdout)

    def test_the_example_jobs(self):
        for job in ("dense_layer", "fixed_point"):
            self.assertEqual(self.kelrt("run", JOBS / f"{job}.json", "--out", self.out).returncode, 0)
        real = [3.5, -7.25, 0.125, 11, -12.5, 1, 0, 6.75, 9.5, -0.75, 2, -3, 12.625, -10, 0.0625, 5]
        self.assertEqual(self.written(), {
            "y.npy": npy("f4", [2, 2], [-1.5, 1.5, -1.5, 4.5]),
            "fixed.npy": npy("i4", [16], [int(x * 2**16) for x in real]),
            "real.npy": npy("f4", [16], real),
            # 12.625 needs a shift of 1 to fit a range of 8: 2^4 / 2^1 an unit, truncated.
            "bytes.npy": npy("i1", [16], [int(x * 8) for x in real])})

    def test_unchecked_contexts_reach_the_library(self):
        good = [[1, 0, 4], [1, 0, "0x104"], [2, 0, 2], [2, 0, 0], [2, 0, {"mem": "y"}], [1, 0, 4]]
        raw = lambda **changed: {"raw": [changed.get(f"a{i}", record) for i, record in enumerate(good)]}
        for context, code, line in [
            (raw(), 0, "NNA_STATUS_OK (1001)"),
            ({"null": True}, 1, "| Unexpected NULL context"),
            (dict(raw(), target=2), 1, "| Unsupported target 2"),
            (dict(raw(), num_args="0xFFFFFFFF"), 1, "| Insufficient arguments for CPU -1"),
            (raw(a0=[2, 0, 4]), 1, "| Context Argument[0] Type Mismatch expected init_to_val actual init_to_mem_idx"),
            (raw(a3=["0xFFFFFF09", 0, 0]), 1, "| Unknown Context Argument[3] Type 9"),
            (raw(a2=[2, 0, 77]), 1, "NNA_SIM_STATUS_UNKNOWN_MEMORY (2001)"),
            (raw(a2=[2, 0, 2**20 - 1]), 1, "NNA_SIM_STATUS_UNKNOWN_MEMORY (2001)"),
            (raw(a3=[2, 0, "0xFFFFFFFF"]), 1, "| Bad Address Input 0 (nil)"),
            # Fewer records than the operator reads; what is missing is of type "init_none".
            ({"raw": good[:4]}, 1, "| Context Argument[4] Type Mismatch expected init_to_mem_idx actual init_none"),
            ({"raw": []}, 1, "| Insufficient arguments for CPU 0"),
            ({"op": 300, "args": []}, 1, "| Insufficient arguments for CPU 2"),
            ({"op": "cpu_ewop_add", "args": [X, X, 1, X]}, 1, "Mismatch expected init_to_mem_idx actual init_to_val"),
            ({"raw": [[1, 0]]}, 2, "contexts[0].raw[0]: a record is [type, offset, value]"),
            ({"raw": [[1, 0, -1]]}, 2, "contexts[0].raw[0][2]: " + U32),
            ({"raw": [[2, 0, 2**20]]}, 2, "contexts[0].raw[0][2]: the driver's buffer table ends at memory id 0xFFFFF"),
            ({"raw": [], "op": 4}, 2, "contexts[0].op: a raw context has records only"),
            ({"null": True, "target": 1}, 2, "contexts[0].target: unknown key; known are null, label"),
            ({"null": 1}, 2, "contexts[0].null: true or false is wanted here"),
        ]:
            with self.subTest(context=context):
                result = self.run_job(add_job(contexts=[context]), "--unchecked")
                if code == 2:
                    self.assert_refused(result, "job.json: " + line)
                    continue
                self.assertEqual(result.returncode, code, result)
                self.assertIn(line, result.stdout)
                if code == 0:
                    self.assertEqual(self.written(), {"z.npy": self.SUM})
                    (self.out / "z.npy").unlink()
                    self.out.rmdir()


class Endings(KelrtTest):
    """How it ends when something goes wrong after all."""

    def test_a_report_that_cannot_be_written(self):
        words = ["ops"], ["ops", "4"], ["--help"], ["run", "--help"], ["--version"], ["run", "job.json", "--out", "out"]
        (self.folder / "job.json").write_text(json.dumps(add_job()))
        for command in words:
            with self.subTest(command=command), open("/dev/full", "w") as full:
                for how in (dict(stdout=full), dict(preexec_fn=lambda: os.close(1), stdout=None)):
                    result = self.kelrt(*command, **how)
                    self.assertEqual((result.returncode, result.stderr),
                                     (2, "kelrt: standard output: the report cannot be written\n"))
                    self.assertFalse(self.out.exists())
        os.symlink("shown.json", self.folder / "link.json")
        self.assertEqual(self.kelrt("run", "job.json", "--out", "out", "--report", "link.json").returncode, 0)
        self.assertTrue((self.folder / "link.json").is_symlink() and json.loads((self.folder / "shown.json").read_text()))
        if len(KELRT) == 1:  # an emulator opens files of its own in its place
            quiet = self.kelrt("run", "job.json", "--out", "out", "--quiet", "--report", "/dev/stdout",
                               preexec_fn=lambda: os.close(1), stdout=None)
            self.assertEqual((quiet.returncode, quiet.stderr.count("--report /dev/stdout: cannot write the file")),
                             (2, 1))

    def test_outputs_appear_all_or_none(self):
        job = json.dumps(add_job(outputs=["x", "z"]))
        (self.folder / "job.json").write_text(job)
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100, 100))
        for make, out, how, reason in [
            (lambda: self.out.write_text("a file"), "out", {}, "out: cannot make the folder (File exists)"),
            (lambda: (self.out / "z.npy").mkdir(parents=True), "out", {},
             "out/z.npy: cannot put the file in place (Is a directory)"),
            (lambda: (self.out / "x.npy").write_text("old"), "out", {},
             "out/z.npy: cannot put the file in place (Is a directory)"),
            (lambda: None, "new/new", dict(preexec_fn=limit), "new/new/x.npy: cannot write the file (File too large)"),
        ]:
            with self.subTest(reason=reason):
                if self.out.is_file():
                    self.out.unlink()
                make()
                before = sorted(path for path in self.folder.rglob("*"))
                result = self.kelrt("run", "job.json", "--out", out, **how)
                self.assertEqual((result.returncode, result.stderr), (2, "kelrt: --out " + reason + "\n"))
                self.assertEqual(sorted(path for path in self.folder.rglob("*")), before)
        self.assertEqual((self.out / "x.npy").read_text(), "old")
        (self.out / "z.npy").rmdir()
        self.assertEqual(self.kelrt("run", "job.json", "--out", "out", preexec_fn=lambda: os.umask(0o027)).returncode, 0)
        self.assertEqual({name: data[-4:] for name, data in self.written().items()},
                         {"x.npy": struct.pack("<f", 4), "z.npy": struct.pack("<f", 44)})
        self.assertEqual(stat.S_IMODE((self.out / "x.npy").stat().st_mode), 0o640)

    def test_signals_leave_nothing_behind(self):
        # The report does not fit into a pipe, so that the run waits there with files half done.
        memories = {f"m{i}": memory([64], values=[1.23456789e-30] * 64) for i in range(99)}
        (self.folder / "job.json").write_text(
            json.dumps({"memories": memories, "contexts": [], "outputs": list(memories)}))
        def start(number, reaction):  # whatever this process has been told, by nohup say
            process = self.start("run", "job.json", "--out", self.out, stdout=subprocess.PIPE,
                                 preexec_fn=lambda: signal.signal(number, reaction))
            while not (self.out.exists() and any(self.out.iterdir())):
                time.sleep(0.1)
            return process

        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGPIPE, signal.SIGALRM, signal.SIGUSR1):
            with self.subTest(signal=number):
                process = start(number, signal.SIG_DFL)
                if number == signal.SIGPIPE:
                    process.stdout.close()
                else:
                    process.send_signal(number)
                self.assertEqual(process.wait(60), -number)
                self.assertFalse(self.out.exists())
        process = start(signal.SIGHUP, signal.SIG_IGN)
        process.send_signal(signal.SIGHUP)
        process.communicate()
        self.assertEqual((process.returncode, len(self.written())), (0, 99))

    def test_sets_of_outputs_do_not_mix(self):
        self.out.mkdir()
        ours = os.open(self.out, os.O_RDONLY)
        fcntl.flock(ours, fcntl.LOCK_SH)  # another run would not even share
        (self.folder / "job.json").write_text(json.dumps(add_job()))
        process = self.start("run", "job.json", "--out", self.out, "--quiet", preexec_fn=lambda: os.close(1))
        time.sleep(1)
        self.assertIsNone(process.poll())
        # Started without standard output, it does not take the folder for that.
        self.assertNotEqual(pathlib.Path(f"/proc/{process.pid}/fd/1").resolve(), self.out.resolve())
        self.assertFalse((self.out / "z.npy").exists())
        os.close(ours)
        self.assertEqual(process.wait(60), 0)
        self.assertEqual(list(self.written()), ["z.npy"])

    def test_the_end_of_memory(self):
        if len(KELRT) > 1 or SANITIZED:
            self.skipTest("limits of address space are this process's own here")
        job = add_job(memories=dict(add_job()["memories"], big=memory([300000], values=[1] * 300000)))
        ends = set()
        for limit in range(8, 40):
            limited = lambda: resource.setrlimit(resource.RLIMIT_AS, (limit << 20, limit << 20))
            result = self.run_job(job, preexec_fn=limited)
            ends.add((result.returncode, result.stderr))
            self.assertTrue(result.returncode == 0 or not self.out.exists())
        self.assertEqual(ends, {(0, ""), (2, "kelrt: the job does not fit into this machine's memory\n")})

    def test_a_context_that_crashes_is_named(self):
        job = with_args(Z, {"mem": None, "offset": 4096}, Y, 4)
        job["contexts"] = add_job()["contexts"] + job["contexts"]
        result = self.run_job(job, "--unchecked")
        self.assertIn(result.returncode, (-signal.SIGSEGV, 99))
        self.assertTrue(result.stderr.startswith("kelrt: job.json: contexts[1]: cpu_ewop_add brought the tool down\n"))
        self.assertRegex(result.stdout, r"^  0  cpu_ewop_add +NNA_STATUS_OK \(1001\)  .* us\n")

    def test_long_work_shows_a_bar_on_a_terminal(self):
        (self.folder / "job.json").write_text(json.dumps(add_job(contexts=add_job()["contexts"] * 60)))
        ours, theirs = pty.openpty()
        process = self.start("run", "job.json", "--repeat", "1000000", stdout=subprocess.DEVNULL, stderr=theirs)
        shown = b""
        while b" of 60000000" not in shown:
            shown += os.read(ours, 1000)
        process.kill()
        process.wait()
        self.assertRegex(shown, rb"^\r\[#*\.+\] \d+ of 60000000")

    def test_errors_appear_once_on_a_terminal(self):
        ours, theirs = pty.openpty()
        self.assertEqual(self.kelrt("run", JOBS / "refused.json", "--unchecked", stdout=theirs, stderr=theirs).returncode, 1)
        self.assertEqual(os.read(ours, 10000).count(b"Unknown Context Argument"), 1)
        self.assertEqual(self.kelrt("run", JOBS / "refused.json", "--unchecked", stdout=theirs).stderr.count("E/NNA-Srvc("), 2)


if __name__ == "__main__":
    KELRT = sys.argv[1:]
    unittest.main(argv=sys.argv[:1], failfast="GTEST_FAIL_FAST" in os.environ)
