#!/usr/bin/env python3
"""The recorder from outside: what it changes (nothing), what it writes, and how it ends when it cannot.

usage: recorder_test.py DRIVER KELRT [EMULATOR...]
"""

import json
import os
import pathlib
import resource
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zlib

DRIVER, KELRT, EMULATOR = "", "", []
SANITIZED = os.environ.get("KELRT_SANITIZED") == "1"
GOLDEN = sorted(pathlib.Path(__file__).parent.glob("*.records"))
CONTEXTS = ("contexts", 1, 19 * 8)


def sealed(body):
    """A record of this body, with length and checksums that fit."""
    head = struct.pack("<8sIIQI", b"\x89kelRec\n", 1, 0, 32 + len(body), zlib.crc32(body))
    return head + struct.pack("<I", zlib.crc32(head)) + body


def record_of_sum(out, offset=0, status=1001, shifts=(0, 0), published=1, faults=()):
    """Of a cpu_ewop_add of ones and twos, which are threes; `out` says what came out on the device."""
    size = 4 * len(out)
    body = struct.pack("<3Q3IiiI5B3x4I8x", 0, 0, 0, 0, 0, status, 2, 6, 1, 1, 8, 0, *shifts, 6, 3, 3, len(faults))
    for argument in [(1, 0, 4), (1, 0, 4), (2, offset, 70), (2, 0, 80), (2, 0, 90), (1, 0, len(out))]:
        body += struct.pack("<3I", *argument)
    for memory in [(70, 0, offset + size, 1001, published), (80, 0, size, 1001, 0), (90, 0, size, 1001, 0)]:
        body += struct.pack("<5I", *memory)
    for piece in [(0, 1, offset, size), (1, 0, 0, size), (2, 0, 0, size)]:
        body += struct.pack("<4I", *piece)
    body += b"".join(struct.pack("<2I", *fault) for fault in faults)
    return sealed(body + b"".join(struct.pack(f"<{len(out)}f", *floats)
                                  for floats in (out, [1] * len(out), [2] * len(out))))


class RecorderTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.file = self.folder / "calls.records"

    def command(self, program, words, environment):
        return dict(args=EMULATOR + [program] + [str(word) for word in words], cwd=self.folder,
                    env=dict({key: value for key, value in os.environ.items() if not key.startswith("KELRT_RECORD")},
                             **{key: str(value) for key, value in environment.items()}))

    def drive(self, *words, preexec_fn=None, **environment):
        """The driver's output, without the leading time stamps of log lines; recording says the environment."""
        result = subprocess.run(**self.command(DRIVER, words, environment), timeout=300, preexec_fn=preexec_fn,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertEqual(result.returncode, 0, result)
        return result.stdout.splitlines()

    def record(self, *words, **environment):
        return self.drive(*words, KELRT_RECORD=self.file, **environment)

    def kelrt(self, *words):
        return subprocess.run(**self.command(KELRT, words, {}), timeout=300, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)

    def ends(self):
        """Where the records of the file end."""
        data, ends = self.file.read_bytes(), [0]
        while ends[-1] < len(data):
            ends.append(ends[-1] + struct.unpack_from("<Q", data, ends[-1] + 16)[0])
        return ends[1:]

    def replay(self, *words, code=0, file=None):
        """The report of a replay."""
        result = self.kelrt("replay", file or self.file, "--report", "report.json", *words)
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        return json.loads((self.folder / "report.json").read_text())

    def warnings(self, lines):
        return [line[line.index("KELRT_RECORD: "):] for line in lines
                if "NNA_LOG_WARN" in line and "KELRT_RECORD: " in line]


class Observes(RecorderTest):
    def test_and_changes_nothing(self):
        """The same results, and the same platform calls after questions for sizes."""
        bare, recorded = self.drive(*CONTEXTS), self.record(*CONTEXTS)
        self.assertEqual(len(bare), CONTEXTS[2])
        is_call = lambda word: word[0] in "psSr" and word[1:].isdigit()
        for ours, theirs in zip(recorded, bare, strict=True):
            ours, theirs = ours.split(), theirs.split()
            our_calls, their_calls = list(filter(is_call, ours)), list(filter(is_call, theirs))
            asked = our_calls[:len(our_calls) - len(their_calls)]
            self.assertEqual([word for word in ours if not is_call(word)], [word for word in theirs if not is_call(word)])
            self.assertEqual(our_calls[len(asked):], their_calls)
            self.assertTrue(all(word[0] == "s" for word in asked) and len(asked) == len(set(asked)), ours)

    def test_what_replays_identically(self):
        for words in (CONTEXTS, ("contexts", 7, 19 * 8), ("shared",), ("refused",), ("faults",), ("nested",)):
            with self.subTest(words=words):
                self.file.unlink(missing_ok=True)
                # Log lines have a time stamp, and what the simulator shows of them a process number.
                statuses = lambda lines: [line for line in lines if not line.startswith(("[", "E/"))]
                bare, recorded = self.drive(*words), self.record(*words)
                if words[0] != "contexts":
                    self.assertEqual(statuses(recorded), statuses(bare))
                report = self.replay()
                self.assertEqual(report["damages"], [])
                self.assertEqual(report["total"]["records"], report["total"]["equal"])
                self.assertGreater(report["total"]["equal"], 6)

    def test_every_operator(self):
        self.record(*CONTEXTS)
        self.assertEqual({record["op"] for record in self.replay()["records"] if record["status"] == 1001},
                         {line.split()[0] for line in self.drive("contexts", 1, 19)})
        result = self.kelrt("check", self.file)
        self.assertEqual(result.stdout.count(" error: "), 0, result.stdout)

    def test_what_is_checked_has_the_kind_that_it_had(self):
        self.record("shared")
        self.assertEqual(self.kelrt("check", self.file).stdout, "".join(
            f"{self.file}: context {i} (call {i}): warning: c: publishing c publishes all of memory 0, operand a of context "
            f"{i} (call {i}) as that left it included\n" for i in (1, 3, 5, 7)) + "0 errors, 4 warnings in 8 contexts\n")

    def test_the_records_of_other_machines(self):
        """Made by `recorded_driver contexts 1 38` elsewhere; only the maths library may tell."""
        self.assertGreaterEqual(len(GOLDEN), 2)
        for file in GOLDEN:
            with self.subTest(file=file.name):
                result = self.kelrt("replay", file, "--report", "report.json")
                total = json.loads((self.folder / "report.json").read_text())["total"]
                self.assertEqual((total["records"], total["different"], total["not_run"]), (38, 0, 0), result.stdout)
                self.assertIn(result.returncode, (0, 1))

    def test_from_several_threads(self):
        self.record("threads", 8, 200)
        report = self.replay()
        self.assertEqual(report["total"]["equal"], 1600)
        self.assertEqual(len({record["thread"] for record in report["records"]}), 8)
        self.assertEqual(sorted(record["call"] for record in report["records"]), list(range(1600)))

    def test_no_more_than_the_limits(self):
        self.record("contexts", 1, 38)
        ends = self.ends()
        in_1k = [call for call, end in enumerate(ends) if end <= 1024]
        for environment, calls in [
            (dict(KELRT_RECORD_CALLS=5), [0, 1, 2, 3, 4]),
            (dict(KELRT_RECORD_EVERY=7, KELRT_RECORD_CALLS=3), [0, 7, 14]),
            (dict(KELRT_RECORD_OP="cpu_matmul"), [10, 29]),
            (dict(KELRT_RECORD_OP="10", KELRT_RECORD_EVERY=2), [10]),
            (dict(KELRT_RECORD_FAILED=1, KELRT_RECORD_OP=4), []),
            (dict(KELRT_RECORD_BYTES=1), []),
            (dict(KELRT_RECORD_BYTES=ends[4]), [0, 1, 2, 3, 4]),
            (dict(KELRT_RECORD_BYTES=ends[4] - 1), [0, 1, 2, 3]),
            (dict(KELRT_RECORD_BYTES="1K"), in_1k),
            (dict(KELRT_RECORD_BYTES="1M"), list(range(38))),
        ]:
            with self.subTest(environment=environment):
                self.file.unlink(missing_ok=True)
                self.assertEqual(self.warnings(self.record("contexts", 1, 38, **environment)), [])
                result = self.kelrt("replay", self.file, "--report", "report.json")
                report = json.loads((self.folder / "report.json").read_text())
                self.assertEqual([record["call"] for record in report["records"]], calls)
                self.assertEqual(result.returncode, 0 if calls else 2)
        self.file.unlink()
        self.record("refused", KELRT_RECORD_FAILED=1)
        self.assertEqual(len(self.replay()["records"]), 9)


class GivesUp(RecorderTest):
    """One WARN line, the recording stops, and the driver does not notice."""

    def assert_gives_up(self, reason, lines, words=("contexts", 1, 38)):
        found = self.warnings(lines)
        self.assertEqual(len(found), 1, lines)
        self.assertIn(reason, found[0])
        self.assertTrue(found[0].endswith(", recording stops"))

    def test_for_a_file_that_it_cannot_write(self):
        (self.folder / "text").write_text("a driver's configuration\n")
        os.mkfifo(self.folder / "pipe")
        for file, reason in [("missing/calls", "No such file or directory"), (".", "Is a directory"),
                             ("text", "this is no file of records"), ("pipe", "this is no file of records"),
                             ("/dev/full", "this is no file of records")]:
            lines = self.drive("shared", KELRT_RECORD=file)
            self.assert_gives_up(reason, lines)
            self.assertIn("errno 7", lines)
        self.assertEqual((self.folder / "text").read_text(), "a driver's configuration\n")

    def test_for_a_limit_that_it_does_not_understand(self):
        for name, value in [("CALLS", "0"), ("CALLS", "-1"), ("BYTES", "1T"), ("BYTES", "99999999999999999999"),
                            ("EVERY", "x"), ("OP", "cpu_nothing"), ("FAILED", "yes")]:
            lines = self.record("contexts", 1, 19, **{"KELRT_RECORD_" + name: value})
            self.assert_gives_up("KELRT_RECORD_" + name, lines)
            self.assertFalse(self.file.exists())

    def test_for_a_full_disk(self):
        limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (20000, 20000))
        lines = self.drive(*CONTEXTS, KELRT_RECORD=self.file, preexec_fn=limit)
        self.assert_gives_up("File too large", lines)
        self.assertGreater(self.complete_records(), 10)
        full = self.folder / "full"
        full.mkdir()
        if os.geteuid() != 0 or subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16k", "none", full],
                                               stderr=subprocess.DEVNULL).returncode != 0:
            return  # the limit above is all that can be had
        try:
            self.file = full / "calls.records"
            self.assert_gives_up("No space left on device", self.record(*CONTEXTS))
            self.assertGreater(self.complete_records(), 5)
        finally:
            subprocess.run(["umount", full], check=True)

    def complete_records(self):
        """How many replay, all of them identically; the torn one at the end is named."""
        report = self.replay(code=2)
        self.assertEqual(report["total"]["equal"], report["total"]["records"])
        self.assertEqual(len(report["damages"]), 1)
        self.assertIn("the record is cut short", report["damages"][0])
        return report["total"]["records"]

    def test_for_want_of_memory(self):
        if SANITIZED:
            self.skipTest("the sanitizer has a heap of its own")
        lines = self.record("nomemory")
        self.assert_gives_up("there is no memory for a record: Cannot allocate memory", lines)
        self.assertEqual([line for line in lines if line == "1001"], ["1001"] * 3)
        self.assertEqual(self.replay()["total"]["equal"], 1)

    def test_when_it_is_killed(self):
        process = subprocess.Popen(**self.command(DRIVER, ["forever"], dict(KELRT_RECORD=self.file)))
        while not self.file.exists() or self.file.stat().st_size < 200000:
            time.sleep(0.01)
        process.send_signal(signal.SIGKILL)
        process.wait()
        result = self.kelrt("replay", self.file)
        self.assertIn(result.returncode, (0, 2))
        self.assertRegex(result.stdout, r"total +(\d+) +\1 +0 +0 +0 ")
        # A later recording follows what is there, torn or not.
        with open(self.file, "ab") as file:
            file.write(b"\x89kelRec\n torn")
        before = len(self.replay(code=2)["records"])
        self.record("contexts", 1, 19)
        self.assertEqual(len(self.replay(code=2)["records"]), before + 19)


class Replays(RecorderTest):
    def setUp(self):
        super().setUp()
        self.record("contexts", 1, 38)

    def spoil(self, index, flip, place=None):
        """Flips bits of one byte of a record, with checksums that fit: the last, that at a place, or the first of the
        last bytes that are `place`."""
        data = bytearray(self.file.read_bytes())
        at, end = ([0] + self.ends())[index:index + 2]
        spoilt = end - 1 if place is None else data.rindex(place, at, end) if isinstance(place, bytes) else at + place
        data[spoilt] ^= flip
        data[at:end] = sealed(data[at + 32:end])
        self.file.write_bytes(data)

    def index_of(self, op):
        return next(record["record"] for record in self.replay()["records"] if record["op"] == op)

    def test_differences_are_shown(self):
        index = self.index_of("cpu_onnx_inst_norm")
        # The last bytes of a record are those before or after the call; of one element one bit of the exponent.
        self.spoil(index, 0x01)
        result = self.kelrt("replay", self.file)
        self.assertEqual(result.returncode, 1, result.stdout)
        self.assertRegex(result.stdout, r"calls\.records: record %d, cpu_onnx_inst_norm\n    out: \d+ of \d+ elements "
                                        r"differ; element \d+: recorded .* \(0x........\), here .* \(0x........\), \d+ ULP "
                                        r"apart; most: \d+ ULP, element \d+\n    again: kelrt replay '.*' --index %d\n"
                                        % (index, index))
        self.assertRegex(result.stdout, r"\ntotal +38 +37 +0 +1 +0 ")
        self.assertEqual(self.kelrt("replay", self.file, "--index", index).returncode, 1)
        self.assertEqual(self.kelrt("replay", self.file, "--index", index + 1).returncode, 0)
        self.assertEqual(self.kelrt("replay", self.file, "--only", "cpu_matmul").returncode, 0)
        entry, = (record for record in self.replay(code=1)["records"] if not record["equal"])
        self.assertEqual((entry["record"], entry["differences"][0]["argument"]), (index, "out"))

    def test_statuses_and_shifts_are_compared(self):
        index = self.index_of("cpu_copy_fmt_conv")
        for place, flip, shown in [(64, 0xE9 ^ 0xE8, "status: recorded NNA_STATUS_FAILED (1000), here NNA_STATUS_OK (1001)"),
                                   (84, 0x08, "out_shift: recorded 8, here 0")]:
            self.spoil(index, flip, place)
            result = self.kelrt("replay", self.file, "--index", index)
            self.assertEqual(result.returncode, 1)
            self.assertIn("    " + shown + "\n", result.stdout)
            self.spoil(index, flip, place)

    def test_what_the_maths_library_may_have_done_is_said(self):
        self.spoil(self.index_of("cpu_softmax"), 0x01)
        result = self.kelrt("replay", self.file)
        self.assertEqual(result.returncode, 1)
        self.assertIn("where the maths library computes", result.stdout)
        self.assertRegex(result.stdout, r"\ntotal +38 +37 +1 +0 +0 ")

    def test_normalising_spreads_what_the_maths_library_computes(self):
        """To the first element, if any is beyond the groups of four; otherwise only those are of its making."""
        self.file.unlink()
        self.record("contexts", 2, 19 * 10, KELRT_RECORD_OP="cpu_lstm_states_norm_cifg_cpuactv")
        self.replay("--dump", "dumped")
        expected = []
        for i in range(10):
            args = json.loads((self.folder / f"dumped/{i}.json").read_text())["contexts"][0]["args"]
            n, out = args["n"], args["out"]
            data = (self.folder / f"dumped/{i}.{out['mem']}.after.npy").read_bytes()
            begin = 10 + struct.unpack_from("<H", data, 8)[0] + out["offset"]
            self.spoil(i, 0x01, data[begin:begin + 4 * n])
            expected.append(("out", 1, int(n % 4 != 0 and (args["cellNorm"] != 0 or n < 4))))
        found = [record["differences"][0] for record in self.replay(code=1)["records"]]
        self.assertEqual([(one["argument"], one["different"], one["by_maths"]) for one in found], expected)
        self.assertEqual({by_maths for _, _, by_maths in expected}, {0, 1})

    def test_records_become_jobs(self):
        result = self.kelrt("replay", self.file, "--dump", "dumped", "--quiet")
        self.assertEqual((result.returncode, result.stdout), (0, ""), result.stderr)
        for record in self.replay()["records"]:
            number = record["record"]
            out = self.folder / "out" / str(number)
            result = self.kelrt("run", f"dumped/{number}.json", "--out", out, "--quiet")
            self.assertEqual(result.returncode, 0, (record, result))
            for path in out.iterdir():
                after = (self.folder / "dumped" / f"{number}.{path.stem}.after.npy").read_bytes()
                if record["op"] != "nna_sram_get":  # of which accelerator memory shows nothing
                    self.assertEqual(path.read_bytes()[:80], after[:80])

    def test_a_damaged_beginning(self):
        """What follows it is replayed, and checked."""
        self.file.write_bytes(b"\0" + self.file.read_bytes()[1:])
        self.assertEqual(self.replay(code=2)["total"]["equal"], 37)
        result = self.kelrt("check", self.file)
        self.assertEqual((result.returncode, result.stderr), (2, f"kelrt: {self.file}: byte 0: no record begins here\n"))
        self.assertIn(" in 37 contexts\n", result.stdout)

    def test_options_that_make_no_sense(self):
        self.drive("contexts", 1, 38, KELRT_RECORD=self.folder / "splits", KELRT_RECORD_OP="cpu_split")
        for words, sentence in [
            (["none", self.file, "--quiet"], "none: cannot open the file (No such file or directory)"),
            ([self.file, "--only", "x"], "--only x: there is no such operator (see kelrt ops)"),
            (["splits", "--only", "4"], "--only 4: no record is of this operator"),
            ([self.file, "--index", "38"], f"--index 38: {self.file} has 38 records, numbered from 0"),
            (["none"], "none: cannot open the file (No such file or directory)"),
            ([self.file, "--index", "x"], "--index: 'x' is not the number of a record"),
            ([self.file, "--dump", ""], "--dump: the name of a folder is wanted"),
            ([self.file, "--report", "r", "--trace", "r"], "--trace r: the report goes into this file"),
            (["/dev/zero", "--quiet"], "/dev/zero: this is no regular file, and there are 512 MiB or more in it"),
        ]:
            result = self.kelrt("replay", *words)
            self.assertEqual((result.returncode, result.stderr), (2, f"kelrt: {sentence}\n"))

    def test_profiles_and_traces(self):
        report = self.replay("--repeat", 3, "--profile", "--trace", "trace.json")
        rows = {row["op"]: row for row in report["profile"]["operators"]}
        self.assertEqual({row["calls"] for row in rows.values()}, {6})
        self.assertAlmostEqual(sum(row["share"] for row in rows.values()), 1, 5)
        self.assertEqual({row["op"]: row["equal"] for row in report["operators"]}, dict.fromkeys(rows, 2))
        trace = json.loads((self.folder / "trace.json").read_text())["traceEvents"]
        self.assertEqual(len(trace), 3 * 38)
        self.assertTrue(all(event["ph"] == "X" and event["dur"] >= 0 for event in trace))


class ReplaysWhatIsMadeByHand(RecorderTest):
    """Records that no recorder comes to write, or not for certain."""

    def test_and_measures_differences(self):
        three = 0x40400000
        up, higher, down = (struct.unpack("<f", struct.pack("<I", three + ulps))[0] for ulps in (1, 2, -1))
        for out, different, first, ulps, most_ulps, worst in [
            ([3, up], 1, 1, 1, 1, 1),
            ([-3], 1, 0, 2 * three, 2 * three, 0),
            ([down, up], 2, 0, 1, 1, 0),
            ([up, 3, higher, higher], 3, 0, 1, 2, 2),
        ]:
            self.file.write_bytes(record_of_sum(out))
            (difference,), = (record["differences"] for record in self.replay(code=1)["records"])
            self.assertEqual([difference[key] for key in ("different", "first", "ulps", "most_ulps", "worst")],
                             [different, first, ulps, most_ulps, worst])

    def test_and_holds_the_effects_of_a_call_against_its_own(self):
        unflushed = dict(status=1070, faults=[(9, 777)])  # the last call makes the caches coherent
        for effects, differences in [
            (dict(shifts=(5, 5)), []),
            (dict(shifts=(5, 0)), [("out_shift", "0", "5")]),
            (dict(published=0, **unflushed), []),
            (dict(published=1, **unflushed), [("out", "3 (0x40400000)", "0 (0x00000000)")]),
        ]:
            self.file.write_bytes(record_of_sum([3], **effects))
            record, = self.replay(code=1 if differences else 0)["records"]
            self.assertEqual([(difference["argument"], difference["recorded"], difference["here"])
                              for difference in record["differences"]], differences, effects)

    def test_and_shows_the_first_twenty(self):
        for count, more in [(20, ""), (22, "2 more that differ; --report FILE.json has them all\n")]:
            self.file.write_bytes(record_of_sum([4]) * count)
            result = self.kelrt("replay", self.file)
            self.assertEqual(result.stdout.count("\n    again: "), 20)
            self.assertRegex(result.stdout, f" --index 19\n{more}operator ")

    def test_and_leaves_out_what_is_far_from_the_operands(self):
        """Which keep their places within a cache line."""
        self.file.write_bytes(record_of_sum([3, 3], offset=1000 * 64 + 12))
        self.assertEqual(self.replay("--dump", "dumped")["total"]["equal"], 1)
        job = json.loads((self.folder / "dumped/0.json").read_text())
        self.assertEqual(job["contexts"][0]["args"]["out"], {"mem": "mem70", "offset": 12})
        after = (self.folder / "dumped/0.mem70.after.npy").read_bytes()
        self.assertEqual(after[-20:], bytes(12) + struct.pack("<2f", 3, 3))


if __name__ == "__main__":
    DRIVER, KELRT, *EMULATOR = sys.argv[1:]
    unittest.main(argv=sys.argv[:1], failfast="GTEST_FAIL_FAST" in os.environ)
