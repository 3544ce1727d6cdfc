#!/usr/bin/env python3
"""The command line from outside: exit codes, messages, numbers and files.

usage: kelrt_test.py COMMAND... where COMMAND runs kelrt, under an emulator if need be.
"""

import json
import os
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest

KELRT = []
JOBS = pathlib.Path(__file__).resolve().parents[2] / "examples" / "jobs"
# A sanitizer's verdict must not pass for a failed context.
ENVIRONMENT = dict(os.environ, ASAN_OPTIONS="exitcode=99", UBSAN_OPTIONS="exitcode=99")
CODES = {"f4": "f", "i4": "i", "i2": "h", "i1": "b", "u1": "B"}


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

    def kelrt(self, *words):
        return subprocess.run(KELRT + [str(word) for word in words], capture_output=True, text=True,
                              cwd=self.folder, env=ENVIRONMENT, timeout=300)

    def run_job(self, job, *options):
        text = job if isinstance(job, str) else json.dumps(job)
        (self.folder / "job.json").write_text(text)
        return self.kelrt("run", "job.json", "--out", self.out, *options)

    def assert_refused(self, result, sentence):
        """Exit code 2, and one line on standard error that is `sentence`, or contains it after "..."."""
        self.assertEqual((result.returncode, result.stdout, result.stderr.count("\n")), (2, "", 1), result)
        if sentence.startswith("..."):
            self.assertIn(sentence[3:], result.stderr)
        else:
            self.assertEqual(result.stderr, "kelrt: " + sentence + "\n")
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
            ("", "line 1: this is not JSON"),
            ('{"contexts": [],\n "outputs": [}', "line 2: this is not JSON"),
            ('{"contexts": []} x', "line 1: this is not JSON"),
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
            (with_memory(memory([1.5])), "memories.w.shape[0]: " + U32),
            (with_memory(memory([4294967296])), "memories.w.shape[0]: " + U32),
            (with_memory(memory([2**27 + 1])), "...memories.w.shape: a memory of shape (134217729,) takes more"),
            (with_memory(memory([2**31, 2**31, 2**31])), "...memories.w.shape: a memory of shape (2147483648, "),
            (with_memory(memory([2**27])), "memories.w: the memories take more than 512 MiB together"),
            (with_memory(memory(values=[1, 2, 3])), "memories.w.values: 3 values are given and shape (4,) has 4"),
            (with_memory(memory([1], values=[1e39])), "memories.w.values[0]: " + VALUE + ", is wanted here"),
            (with_memory(memory([1], "i1", values=[128])), "memories.w.values[0]: " + VALUE + ", is wanted here"),
            (with_memory(memory([1], "i4", values=[0.5])), "memories.w.values[0]: " + VALUE + ", is wanted here"),
            (with_memory(memory([1], "u1", values=["0x100"])), "...memories.w.values[0]: " + VALUE),
            (with_memory(memory([1], "f4", values=[None])), "...memories.w.values[0]: " + VALUE),
            (add_job(memories={"../w": memory()}), "...memories.../w: a memory's name is made of letters"),
            (add_job(memories={"sram": memory()}), "...memories.sram: a memory's name is made of letters"),
            (with_memory({"npy": "none.npy"}),
             "memories.w.npy: none.npy: cannot open the file (No such file or directory)"),
            (with_memory({"npy": "cut.npy"}),
             "memories.w.npy: cut.npy: shape (2,) of f4 needs 8 bytes of elements and the file has 7"),
            (with_memory({"npy": "i4.npy", "dtype": "f4"}), "memories.w.dtype: the file i4.npy holds i4"),
            (with_memory({"npy": "i4.npy", "shape": [3]}), "memories.w.shape: the file i4.npy has shape (2,)"),
            (with_memory({"npy": "i4.npy", "values": []}), "memories.w.values: a memory has either a file or values"),
            (add_job(sram=memory([17], "u1", base=2**32 - 16)), "sram: the SRAM reaches beyond 32-bit addresses"),
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
            (with_args(Z, X, Y, 2**64), "contexts[0].args[3]: " + U32),
            (with_args(Z, X, Y, "0x100000000"), "contexts[0].args[3]: " + U32),
            (with_args(Z, X, Y, "4"), "contexts[0].args[3]: " + U32),
            (with_args(*one_hot[:3], {"flt": 1e39}, {"flt": 0}, op=3), "contexts[0].args[3].flt: " + FLOAT),
            (with_args(*one_hot[:3], {"flt": "1"}, {"flt": 0}, op=3), "contexts[0].args[3].flt: " + FLOAT),
            (with_args(*one_hot[:3], {"flt": None}, {"flt": 0}, op=3), "contexts[0].args[3].flt: " + FLOAT),
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
            (with_args(0, 4, 4, 1, Z, op="nna_sram_get"), 'contexts[0].op: nna_sram_get needs the job to have "sram"'),
            (dict(with_args(0, 4, 4, 1, {"mem": None}, op=17), sram=memory([16], "u1")),
             "contexts[0].args[4]: mem of nna_sram_get must be a memory"),
            # outputs
            (add_job(outputs=["v"]), "outputs[0]: there is no memory v"),
            (add_job(outputs=["sram"]), "outputs[0]: there is no memory sram"),
            (add_job(outputs=["z", "z"]), "outputs[1]: memory z is there twice"),
        ]
        # The keys that replay invalid contexts
        for key, value in (("raw", []), ("target", 1), ("num_args", 6), ("null", False)):
            job = add_job()
            job["contexts"][0][key] = value
            refused.append((job, f"contexts[0].{key}: this needs --unchecked"))

        (self.folder / "cut.npy").write_bytes(npy("f4", [2], [1, 2])[:-1])
        (self.folder / "i4.npy").write_bytes(npy("i4", [2], [1, 2]))
        for job, sentence in refused:
            with self.subTest(sentence=sentence):
                prefix = "" if sentence.startswith("...") else "job.json: "
                self.assert_refused(self.run_job(job), prefix + sentence)

    def test_files_and_options(self):
        job = self.folder / "job.json"
        job.write_text(json.dumps(add_job()))
        for words, sentence in [
            ([], "A subcommand is required"),
            (["walk"], "walk: there is no such command; there are ops, run and op"),
            (["run"], "JOB is required"),
            (["run", "none.json"], "none.json: cannot open the file (No such file or directory)"),
            (["run", "."], ".: cannot read the file (Is a directory)"),
            (["run", job, "--repeat", "0"], "...--repeat"),
            (["run", job, "--repeat", "-1"], "...--repeat"),
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
            (["op", "cpu_ewop_add", "a=f4[2]:1", "b=f4[4]", "n=4"],
             "a=f4[2]:1: 1 values are given and shape (2,) has 2"),
            (["op", "cpu_ewop_add", "a=i1[1]:200", "b=f4[4]", "n=4"],
             "a=i1[1]:200: '200' is not a number that i1 can hold"),
            (["op", "cpu_ewop_add", "a=@c", "b=f4[4]", "n=4"], "a=@c: no argument has a memory of that name"),
            (["op", "cpu_ewop_add", "a=none.npy", "b=f4[4]", "n=4"],
             "a=none.npy: none.npy: cannot open the file (No such file or directory)"),
            (["op", "cpu_ewop_add", "a=f4[1]", "b=f4[1]", "n=0xFFFFFFFF"],
             "out: the operator needs more than 512 MiB for it"),
            (["op", "nna_sram_get", "sram_address=0", "row_size=1", "sram_stride=1", "rows=1"],
             "nna_sram_get: the SRAM is missing; it is given as sram=FILE.npy or sram=u1[64]"),
        ]:
            with self.subTest(words=words):
                self.assert_refused(self.kelrt(*words), sentence)

    def test_outputs_that_cannot_be_written(self):
        job = self.folder / "job.json"
        job.write_text(json.dumps(add_job(outputs=["x", "z"])))
        self.out.write_text("a file")
        result = self.kelrt("run", job, "--out", self.out)
        self.assertEqual(result.returncode, 2)
        self.assertIn("--out", result.stderr)
        self.out.unlink()
        (self.out / "x.npy").mkdir(parents=True)
        result = self.kelrt("run", job, "--out", self.out)
        self.assertEqual(result.returncode, 2)
        self.assertIn("x.npy: cannot put the file in place", result.stderr)
        self.assertEqual(os.listdir(self.out), ["x.npy"])


class Runs(KelrtTest):
    SUM = npy("f4", [4], [11, 22, 33, 44])

    def test_every_way_to_hold_the_memories(self):
        (self.folder / "x.npy").write_bytes(npy("f4", [4], [1, 2, 3, 4]))
        x, y, z = add_job()["memories"].values()
        for kind in ("accelerator", "cpu"):
            for x_memory in (x, {"npy": "x.npy", "dtype": "f4", "shape": [4]}):
                memories = {"x": dict(x_memory, kind=kind), "y": y, "z": dict(z, kind=kind)}
                result = self.run_job(add_job(memories=memories))
                self.assertEqual((result.returncode, result.stderr), (0, ""), result)
                self.assertEqual(self.written(), {"z.npy": self.SUM})
                to_cpu, back = (32, 16) if kind == "accelerator" else (16, 0)
                self.assertIn(f"caches carried {to_cpu} bytes to the CPU, {back} bytes back", result.stdout)
                self.assertIn("NNA_STATUS_OK (1001)", result.stdout)
                self.assertIn("z  f4 (4,) = 11 22 33 44\n", result.stdout)

    def test_offsets_bit_patterns_and_raw_bytes(self):
        raw = struct.pack("<x2f", 0.5, -0.0)
        job = {"memories": {"all": memory([9], "u1", values=list(raw)), "z": memory([2])},
               "contexts": [{"op": 4, "args": [{"mem": "z"}, {"mem": "all", "offset": 1},
                                               {"mem": "all", "offset": "0x1"}, "0x2"]}],
               "outputs": ["all", "z"]}
        self.assertEqual(self.run_job(job).returncode, 0)
        self.assertEqual(self.written(), {"all.npy": npy("u1", [9], raw), "z.npy": npy("f4", [2], [1, -0.0])})

    def test_repetitions_start_alike(self):
        job = with_args(X, X, Y, 4)
        job["outputs"] = ["x"]
        result = self.run_job(job, "--repeat", "7")
        self.assertEqual(result.returncode, 0)
        self.assertEqual(self.written(), {"x.npy": self.SUM})
        self.assertRegex(result.stdout, r"cpu_ewop_add +NNA_STATUS_OK \(1001\)  least .* us, median .* us of 7\n")

    def test_values_of_every_type_come_back(self):
        values = {"f4": [0.5, -0.0, "0x7FC00001", 1e-45], "i4": [-2**31, 2**31 - 1, "0xFFFFFFFF"],
                  "i2": [-2**15, 2**15 - 1, "0xFFFF"], "i1": [-128, 127, "0xFF"], "u1": [0, 255, "0x7F"]}
        job = {"memories": {"m_" + d: memory([len(v)], d, values=v) for d, v in values.items()},
               "contexts": [], "outputs": ["m_" + d for d in values]}
        self.assertEqual(self.run_job(job).returncode, 0)
        got = {name: contents[128:] for name, contents in self.written().items()}
        self.assertEqual(got, {
            "m_f4.npy": struct.pack("<4I", 0x3F000000, 0x80000000, 0x7FC00001, 1),
            "m_i4.npy": struct.pack("<3i", -2**31, 2**31 - 1, -1),
            "m_i2.npy": struct.pack("<3h", -2**15, 2**15 - 1, -1),
            "m_i1.npy": struct.pack("<3b", -128, 127, -1), "m_u1.npy": bytes([0, 255, 127])})

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
        for words, name, contents in [
            (["a=x.npy", "b=f4[4]:10,20,30,40", "n=4"], "out", self.SUM),
            (["out=f4[2,2]", "a=x.npy", "b=f4[4]:10,20,30,40", "n=4"], "out", npy("f4", [2, 2], [11, 22, 33, 44])),
            (["out=@a", "a=x.npy", "a.kind=cpu", "b=@a", "b.offset=8", "n=2"], "a", npy("f4", [4], [4, 6, 3, 4])),
            (["out.offset=8", "out.kind=cpu", "a=f4[1]:0x3F800000", "b=f4[]:-0.5", "n=1"], "out",
             npy("f4", [3], [0, 0, 0.5])),
        ]:
            with self.subTest(words=words):
                result = self.kelrt("op", "cpu_ewop_add", *words, "--out", self.out)
                self.assertEqual((result.returncode, result.stderr), (0, ""), result)
                self.assertEqual(self.written()[name + ".npy"], contents)
        result = self.kelrt("op", "cpu_ewop_add", "a=none", "b=f4[4]", "n=4")
        self.assertEqual(result.returncode, 1)
        self.assertIn("NNA_STATUS_NULL_POINTER (1056)", result.stdout)

    def test_operands_left_changed_are_warned_of(self):
        m, at = {"mem": "m"}, lambda offset: {"mem": "m", "offset": offset}
        matmul = lambda a, b, c, *flags: {"op": "cpu_matmul", "args": [a, b, c, 2, 2, 2, 2, *flags]}
        add = lambda out, a: {"op": "cpu_ewop_add", "args": [out, a, X, 4]}
        lstm = {"op": "cpu_lstm_states", "args": [at(48), Y, m, 3]}
        overlap = "context 0: a and b overlap in memory m, so that both are read as the transposition leaves them"
        publishes = "publishing %s publishes all of memory m, operand %s as context 0 left it included"
        for contexts, warnings in [
            ([matmul(m, m, Z, 0, 1)], [overlap]),
            ([matmul(m, at(12), Z, 1, 0)], [overlap]),
            ([matmul(m, at(16), Z, 1, 1)], []),
            ([matmul(m, m, Z, 0, 0)], []),
            ([{"op": "cpu_matmul", "args": [m, m, Z, 1, 4, 4, 1, 1, 0]}], []),  # moves nothing
            ([matmul(m, X, at(16), 1, 0)], ["context 0: " + publishes % ("c", "a")]),
            ([matmul(X, m, at(16), 1, 0)], []),
            ([matmul(X, m, Z, 0, 1), add(at(16), Y)], ["context 1: " + publishes % ("out", "b")]),
            ([matmul(X, m, Z, 0, 1), add(at(16), m), add(at(16), Y)], []),  # fetched anew in between
            ([lstm], ["context 0: " + publishes % ("out", "gates")]),
        ]:
            for kind in ("accelerator", "cpu"):
                with self.subTest(contexts=contexts, kind=kind):
                    memories = dict(add_job()["memories"], m=memory([15], kind=kind))
                    result = self.run_job({"memories": memories, "contexts": contexts})
                    self.assertEqual(result.returncode, 0, result)
                    self.assertEqual(result.stderr.splitlines(), ["kelrt: warning: " + warning for warning in warnings
                                                                  if kind == "accelerator" or "overlap" in warning])

    def test_sram_rows_move_both_ways(self):
        job = {"memories": {"m": memory([6], "u1", kind="cpu")},
               "sram": memory([16], "u1", base=4096, values=list(range(16))),
               "contexts": [{"op": "nna_sram_get", "args": [4097, 3, 8, 2, {"mem": "m"}]},
                            {"op": "nna_sram_set", "args": [4100, 2, 2, 3, {"mem": "m"}]}],
               "outputs": ["m", "sram"]}
        result = self.run_job(job)
        self.assertEqual(result.returncode, 0, result)
        self.assertEqual(self.written(), {"m.npy": npy("u1", [6], [1, 2, 3, 9, 10, 11]), "sram.npy": npy(
            "u1", [16], [0, 1, 2, 3, 1, 2, 3, 9, 10, 11, 10, 11, 12, 13, 14, 15])})
        job["contexts"][0]["args"][0] = 4110
        self.assertIn("NNA_SIM_STATUS_OUT_OF_RANGE (2002)", self.run_job(job).stdout)

    def test_sram_operators_ignore_their_memorys_offset(self):
        result = self.kelrt("op", "nna_sram_get", "mem=u1[4]", "mem.offset=4", "mem.kind=cpu", "sram=u1[4]:1,2,3,4",
                            "sram_address=0", "row_size=4", "sram_stride=4", "rows=1")
        self.assertEqual(result.returncode, 0, result)
        self.assertIn("mem  u1 (4,) = 1 2 3 4", result.stdout)

    def test_the_catalogue_is_shown(self):
        result = self.kelrt("ops")
        self.assertEqual(result.returncode, 0)
        self.assertRegex(result.stdout, r"(?m)^18  nna_sram_set +sram_address row_size sram_stride rows mem$")
        for name in ("cpu_ewop_add", "4"):
            result = self.kelrt("ops", name)
            self.assertEqual(result.returncode, 0)
            self.assertRegex(result.stdout, r"(?m)^ +2  out +memory +output +f4 +n sums")
            self.assertRegex(result.stdout, r"(?m)^ +5  n +integer +number of values$")

    def test_the_example_jobs(self):
        result = self.kelrt("run", JOBS / "dense_layer.json", "--out", self.out)
        self.assertEqual(result.returncode, 0, result)
        self.assertEqual(self.written(), {"y.npy": npy("f4", [2, 2], [-1.5, 1.5, -1.5, 4.5])})
        result = self.kelrt("run", JOBS / "fixed_point.json", "--out", self.out)
        self.assertEqual(result.returncode, 0, result)
        real = [3.5, -7.25, 0.125, 11, -12.5, 1, 0, 6.75, 9.5, -0.75, 2, -3, 12.625, -10, 0.0625, 5]
        self.assertEqual({name: data for name, data in self.written().items() if name != "y.npy"}, {
            "fixed.npy": npy("i4", [16], [int(x * 2**16) for x in real]),
            "real.npy": npy("f4", [16], real),
            # 12.625 needs a shift of 1 to fit a range of 8: 2^4 / 2^1 an unit, truncated.
            "bytes.npy": npy("i1", [16], [int(x * 8) for x in real])})
        result = self.kelrt("run", JOBS / "refused.json", "--unchecked")
        self.assertEqual(result.returncode, 1, result)
        self.assertIn("Unknown Context Argument[3] Type 9", result.stdout)


class Replays(KelrtTest):
    def test_invalid_contexts_reach_the_library(self):
        x = {"mem": "x"}
        good = [[1, 0, 4], [1, 0, 4], [2, 0, x], [2, 0, x], [2, 0, x], [1, 0, 4]]
        raw = lambda **changed: {"raw": [changed.get(f"a{i}", record) for i, record in enumerate(good)]}
        for context, status, line in [
            ({"null": True}, "NULL_POINTER (1056)", "Unexpected NULL context"),
            (dict(raw(), target=2), "INVALID_ARGUMENT (1064)", "Unsupported target 2"),
            (dict(raw(), num_args=2), "INVALID_ARGUMENT (1064)", "Insufficient arguments for CPU 2"),
            (dict(raw(), num_args="0xFFFFFFFF"), "INVALID_ARGUMENT (1064)", "Insufficient arguments for CPU -1"),
            (raw(a0=[2, 0, 4]), "TYPE_MISMATCH (1065)",
             "Context Argument[0] Type Mismatch expected init_to_val actual init_to_mem_idx"),
            (raw(a1=[7, 0, 4]), "INVALID_ARGUMENT (1064)", "Unknown Context Argument[1] Type 7"),
            (raw(a1=[1, 0, 19]), "INVALID_ARGUMENT (1064)", "KEL RT Unknown operator 19"),
            (raw(a0=[1, 0, 5]), "INVALID_ARGUMENT (1064)", "Expected 4 Actual 5"),
            (raw(a3=["0xFFFFFF09", 0, 0]), "TYPE_MISMATCH (1065)", "Unknown Context Argument[3] Type 9"),
            (raw(a2=[2, 0, 77]), "...UNKNOWN_MEMORY (2001)", "Error 2001 kelrt op 1"),
            (raw(a3=[2, 0, "0xFFFFFFFF"]), "NULL_POINTER (1056)", "Bad Address Input 0 (nil)"),
            # Fewer records than the operator reads; what is missing is of type "init_none".
            ({"raw": good[:4]}, "TYPE_MISMATCH (1065)",
             "Context Argument[4] Type Mismatch expected init_to_mem_idx actual init_none"),
            ({"raw": []}, "INVALID_ARGUMENT (1064)", "Insufficient arguments for CPU 0"),
            ({"op": 300, "args": []}, "INVALID_ARGUMENT (1064)", "Insufficient arguments for CPU 2"),
            ({"op": "cpu_ewop_add", "args": [x, x, x]}, "INVALID_ARGUMENT (1064)", "Expected 4 Actual 3"),
            ({"op": "cpu_ewop_add", "args": [x, x, 1, x]}, "TYPE_MISMATCH (1065)",
             "Context Argument[4] Type Mismatch expected init_to_mem_idx actual init_to_val"),
        ]:
            with self.subTest(context=context):
                result = self.run_job({"memories": {"x": memory()}, "contexts": [context]}, "--unchecked")
                self.assertEqual(result.returncode, 1, result)
                self.assertIn(status.replace("...", "NNA_SIM_STATUS_") if status[0] == "." else "NNA_STATUS_" + status,
                              result.stdout)
                self.assertIn("| " + line, result.stdout)

    def test_what_even_a_replay_refuses(self):
        for context, sentence in [
            ({"raw": [[1, 0]]}, "contexts[0].raw[0]: a record is [type, offset, value]"),
            ({"raw": [[1, 0, -1]]}, "contexts[0].raw[0][2]: " + U32),
            ({"raw": [[2, 0, 2**20]]}, "contexts[0].raw[0][2]: the driver's buffer table ends at memory id 0xFFFFF"),
            ({"raw": [], "op": 4}, "contexts[0].op: a raw context has records only"),
            ({"null": True, "target": 1}, "contexts[0].target: unknown key; known are null"),
            ({"null": 1}, "contexts[0].null: true or false is wanted here"),
        ]:
            with self.subTest(context=context):
                self.assert_refused(self.run_job({"contexts": [context]}, "--unchecked"), "job.json: " + sentence)

    def test_valid_records_run(self):
        job = add_job(contexts=[{"raw": [[1, 0, 4], [1, 0, "0x104"], [2, 0, 2], [2, 0, 0], [2, 0, {"mem": "y"}],
                                         [1, 0, 4]]}])
        self.assertEqual(self.run_job(job, "--unchecked").returncode, 0)
        self.assertEqual(self.written(), {"z.npy": Runs.SUM})


class Extents(KelrtTest):
    def test_memories_of_exactly_the_needed_size(self):
        """Each memory argument is admitted with the bytes given here and refused with one less. Under a sanitizer
        this also shows that the operator touches no byte more."""
        lstm = dict(n=3, out=12, cell=12, gates=48)
        norm = dict(n=4, out=16, cell=16, gates=64, epsilon="0.1", gateGamma=0, gateBeta=0, cellGamma=0, cellBeta=0,
                    cifg=0, cpuActivation=1, gateNorm=0, perGateNorm=0, cellNorm=0, cellNormInPlace=0)
        gates = lambda size, **flags: dict(norm, gateNorm=1, gateGamma=size, gateBeta=size, **flags)
        matmul = dict(aRows=2, aCols=3, bRows=3, bCols=5, transA=0, transB=0, a=24, b=60, c=40)
        im2col = dict(rows=5, cols=4, channels=3, kernelHeight=3, kernelWidth=2, filters=1, rowStride=2, colStride=2)
        copy = dict(out_frac_bits=0, inp_frac_bits=0, inp_scale=1, count=5)
        minus1 = "0xFFFFFFFF"
        for op, arguments in [
            ("cpu_onnx_inst_norm", dict(out=20, n=5, scale=1, bias=0, **{"in": 20})),
            ("cpu_lstm_states", lstm),
            ("cpu_lstm_states_cpu_activation", lstm),
            ("cpu_lstm_states_cifg", lstm),
            ("cpu_lstm_states_cpu_activation_cifg", lstm),
            ("cpu_copy_fmt_conv", dict(copy, out=20, out_tot_bits=minus1, out_scale=1, inp_tot_bits=16, **{"in": 10})),
            ("cpu_copy_fmt_conv", dict(copy, out=5, out_tot_bits=8, out_scale=1, inp_tot_bits=minus1, **{"in": 20})),
            ("cpu_copy_fmt_conv", dict(copy, out=5, out_tot_bits=8, out_scale=0, inp_tot_bits=8, **{"in": 20})),
            ("cpu_copy_fmt_conv", dict(copy, out=1, out_tot_bits=8, out_scale=0, inp_tot_bits=minus1, count=1,
                                       **{"in": 16})),
            ("cpu_onnx_onehot", dict(out=12, index=4, depth=3, on_value=1, off_value=0)),
            ("cpu_ewop_add", dict(out=28, a=28, b=28, n=7)),
            ("cpu_softmax", dict(out=28, n=7, **{"in": 28})),
            ("cpu_hw32_fmt_conv", dict(out=64, size=17, dir=0, **{"in": 64})),
            ("cpu_hw32_fmt_conv_param", dict(out=68, size=17, dir=1, nna_out_line_sz=17, **{"in": 68})),
            ("cpu_hw32_fmt_conv_param", dict(out=40, size=10, dir=0, nna_out_line_sz=5, **{"in": 40})),
            ("cpu_hw32_fmt_conv_param", dict(out=0, size=4, dir=0, nna_out_line_sz=5, **{"in": 0})),
            ("cpu_embedding", dict(out=12, index=4, table=12, w=3)),
            ("cpu_im2col", dict(im2col, out=4 * 24, **{"in": 60})),
            ("cpu_im2col", dict(im2col, rows=6, out=4 * 24, **{"in": 60})),
            # A kernel wider than the map, at a stride of 0: one position a row, and bytes of the row below.
            ("cpu_im2col", dict(im2col, rows=18, cols=1, channels=1, kernelHeight=1, rowStride=6, colStride=0, out=24,
                                **{"in": 14})),
            ("cpu_matmul", matmul),
            ("cpu_matmul", dict(matmul, aRows=3, aCols=2, bRows=5, bCols=3, transA=1, transB=1)),
            ("cpu_matmul", dict(matmul, bRows=9, bCols=9, transB=1, b=324, c=72)),
            ("cpu_matmul", dict(matmul, aRows=minus1, a=0, b=0, c=0)),
            ("cpu_featurenorm", dict(total=11, mean=12, var=12, featureLen=3, out=36, **{"in": 36})),
            ("cpu_featurenorm", dict(total=2, mean=0, var=0, featureLen=3, out=0, **{"in": 0})),
            ("cpu_split", dict(out=7, nbytes=7, **{"in": 7})),
            ("cpu_lstm_states_norm_cifg_cpuactv", norm),
            ("cpu_lstm_states_norm_cifg_cpuactv", gates(28, perGateNorm=1)),
            ("cpu_lstm_states_norm_cifg_cpuactv", gates(52, cifg=1)),
            ("cpu_lstm_states_norm_cifg_cpuactv", gates(64)),
            ("cpu_lstm_states_norm_cifg_cpuactv", dict(norm, cellNorm=1, cellGamma=16, cellBeta=16)),
            ("nna_sram_get", dict(sram_address=0, row_size=3, sram_stride=8, rows=2, mem=6, sram=16)),
            ("nna_sram_set", dict(sram_address=0, row_size=3, sram_stride=8, rows=2, mem=6, sram=16)),
        ]:
            memories = self.memory_arguments(op)
            spell = lambda key, value: f"{key}=u1[{value}]" if key in memories | {"sram"} else f"{key}={value}"
            with self.subTest(op=op, arguments=arguments):
                result = self.kelrt("op", op, *[spell(*pair) for pair in arguments.items()])
                self.assertIn(result.returncode, (0, 1), result)
                self.assertNotIn("Sanitizer", result.stderr)
                for name in memories:
                    if arguments[name] > 0:
                        short = dict(arguments, **{name: arguments[name] - 1})
                        result = self.kelrt("op", op, *[spell(*pair) for pair in short.items()])
                        self.assertEqual(result.returncode, 2, result)
                        self.assertIn(f": {name} of {op} needs {arguments[name]} bytes", result.stderr)

    def memory_arguments(self, op):
        if op not in self.known:
            lines = self.kelrt("ops", op).stdout.splitlines()[3:]
            self.known[op] = {line.split()[1] for line in lines if line.split()[2] == "memory"}
        return self.known[op]

    known = {}


if __name__ == "__main__":
    KELRT = sys.argv[1:]
    unittest.main(argv=sys.argv[:1])
