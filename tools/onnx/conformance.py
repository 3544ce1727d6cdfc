#!/usr/bin/python3
"""ONNX's conformance cases, run by its own runner on one machine after another.

usage: conformance.py [--filter REGEX] [--table FILE] FOLDER NAME=COMMAND...

NAME is what a machine is called and COMMAND what runs kelrt on it. Each case's job and outputs stay in
FOLDER/NAME/CASE; the outputs of the machines are compared byte for byte. Ends with 1 if a case fails or the machines
differ."""
import argparse
import collections
import dataclasses
import os
import pathlib
import re
import sys
import time
import unittest

import numpy as np
import onnx

import backend

# ONNX 1.12 asks for a name that numpy 1.24 does not have any more; it means the same.
if "object" not in vars(np):
    np.object = object

import onnx.backend.test  # noqa: E402


@dataclasses.dataclass
class Case:
    """One case on one machine: its operators, contexts, and why it was refused or how it failed."""

    operators: tuple[str, ...] = ()
    contexts: int = 0
    refused: str = ""
    failed: str = ""
    error: float = 0.0  # the largest of an output: of its size, or absolute below 1


class Recorder(unittest.TestResult):
    """Runs the cases for one machine, and keeps what became of each."""

    def __init__(self, folder: pathlib.Path, title: str) -> None:
        super().__init__()
        self.folder, self.title, self.cases, self.current = folder, title, {}, Case()

    def startTest(self, test: unittest.TestCase) -> None:  # noqa: N802
        name = test.id().split(".")[-1].removesuffix("_cpu")
        self.current = self.cases[name] = Case()
        Watched.recorder, Watched.folder = self, self.folder / name
        if sys.stderr.isatty():
            print(f"\r\x1b[K{self.title}: {len(self.cases)} {name}", end="", file=sys.stderr)

    def addFailure(self, test: unittest.TestCase, err: tuple) -> None:  # noqa: N802
        self.current.failed = " ".join(str(err[1]).split())

    addError = addFailure


class Watched(backend.KelRtBackend):
    """The backend, which also tells the recorder what it sees."""

    recorder: Recorder

    @classmethod
    def is_compatible(cls, model: onnx.ModelProto, device: str = "CPU", **kwargs: object) -> bool:
        case = cls.recorder.current
        case.operators = tuple(sorted({node.op_type for node in model.graph.node}))
        try:
            cls.prepared = super().prepare(model)
        except backend.Refused as refused:
            case.refused = str(refused)
            return False
        case.contexts = len(cls.prepared.job.contexts)
        return True

    @classmethod
    def prepare(cls, model: onnx.ModelProto, device: str = "CPU", **kwargs: object) -> backend.KelRtModel:
        return cls.prepared


class Runner(onnx.backend.test.BackendTest):
    """The runner itself, asked how far the outputs are from what is expected before it judges."""

    @classmethod
    def assert_similar_outputs(cls, ref_outputs: list, outputs: list, rtol: float, atol: float) -> None:
        for wanted, got in zip(ref_outputs, outputs):
            if wanted.shape == np.shape(got) and wanted.dtype.kind in "fiub" and wanted.size:
                wanted_, got_ = wanted.astype(float), np.asarray(got).astype(float)
                error = np.nanmax(abs(wanted_ - got_) / np.maximum(1, abs(wanted_)))
                Watched.recorder.current.error = max(Watched.recorder.current.error, float(error))
        super().assert_similar_outputs(ref_outputs, outputs, rtol, atol)


def run(folder: pathlib.Path, title: str, command: str, pattern: str) -> dict[str, Case]:
    """All cases by name that fit a pattern. Those whose models would have to be fetched are left out."""
    os.environ["KELRT"] = command
    runner = Runner(Watched, __name__)
    recorder = Recorder(folder / title, title)
    for name, tests in sorted(runner.test_cases.items()):
        if name != "OnnxBackendRealModelTest":
            for test in unittest.defaultTestLoader.loadTestsFromTestCase(tests):
                if test.id().endswith("_cpu") and re.search(pattern, test.id()):
                    test.run(recorder)
    if sys.stderr.isatty():
        print("\r\x1b[K", end="", file=sys.stderr)
    return recorder.cases


def compare_files(folder: pathlib.Path, titles: list[str]) -> tuple[int, list[str]]:
    """How many output files there are, and those that are not the same on all machines."""
    first, *others = titles
    files = {title: {path.relative_to(folder / title): path.read_bytes()
                     for path in folder.glob(f"{title}/*/out/*.npy")} for title in titles}
    every = set().union(*files.values())
    return len(every), sorted(str(path) for path in every
                              if any(files[first].get(path) != files[other].get(path) for other in others))


def summary(title: str, cases: dict[str, Case]) -> str:
    refused = sum(bool(case.refused) for case in cases.values())
    failed = sum(bool(case.failed) for case in cases.values())
    largest = max(((case.error, name) for name, case in cases.items() if not case.refused), default=(0, "none"))
    return (f"{title}: {len(cases) - refused - failed} passed, {failed} failed, {refused} not expressible; "
            f"largest error {largest[0]:.2g} ({largest[1]})")


def reason(refused: str) -> str:
    """A refusal without the names of its node and values."""
    return re.sub(r"^\w+ (that makes )?'[^']*': |'[^']*' ?", "", refused)


def table(cases: dict[str, Case]) -> str:
    """By operator: how many cases of it alone, and of graphs with it, pass, and why others do not."""
    rows = collections.defaultdict(lambda: [0, 0, 0.0, collections.Counter()])
    for case in cases.values():
        row = rows[", ".join(case.operators) if len(case.operators) == 1 else "graphs of several"]
        if case.refused:
            row[3][reason(case.refused)] += 1
        else:
            row[0] += 1
            row[1] = max(row[1], case.contexts)
            row[2] = max(row[2], case.error)
    lines = ["| Operator | Passed | Most contexts | Largest error | Not expressible |", "|---|---|---|---|---|"]
    for operator, (passed, contexts, error, reasons) in sorted(rows.items()):
        why = "; ".join(f"{count}: {text}" for text, count in reasons.most_common())
        figures = f"{contexts} | {error:.1e}" if passed else " | "
        lines.append(f"| {operator} | {passed} | {figures} | {why.replace('|', '/')} |")
    return "\n".join(lines)


def main() -> int:
    parser = argparse.ArgumentParser(description="ONNX's conformance cases on one machine after another.")
    parser.add_argument("--filter", default="", metavar="REGEX", help="only cases whose name fits")
    parser.add_argument("--table", type=pathlib.Path, metavar="FILE", help="write the table by operator into this page")
    parser.add_argument("folder", type=pathlib.Path, help="where jobs and outputs stay")
    parser.add_argument("machines", nargs="+", metavar="NAME=COMMAND")
    options = parser.parse_args()
    machines = dict(machine.split("=", 1) for machine in options.machines)
    results = {}
    for title, command in machines.items():
        start = time.monotonic()
        results[title] = run(options.folder, title, command, options.filter)
        print(summary(title, results[title]), f"in {time.monotonic() - start:.0f} s")
    cases = next(iter(results.values()))
    print("\nnot expressible:")
    reasons = collections.Counter(reason(case.refused) for case in cases.values() if case.refused)
    for text, count in reasons.most_common():
        print(f"{count:5}  {text}")
    bad = [f"{title}: {name}: {case.failed}" for title, cases_ in results.items() for name, case in cases_.items()
           if case.failed]
    files, other = compare_files(options.folder, list(machines))
    compared = f"{files} output files, {len(other)} of them not the same on {' and '.join(machines)}"
    if len(machines) > 1:
        print("\n" + compared)
    print("".join(f"\nFAILED {line}" for line in bad + [f"{name} differs" for name in other]), end="")
    if options.table:
        write_table(options.table, [*(summary(title, results[title]) for title in results), compared], table(cases))
    return 1 if bad or other or not cases else 0


def write_table(page: pathlib.Path, summaries: list[str], text: str) -> None:
    """Between the page's marks."""
    begin, end = "<!-- written by ./dev conformance -->\n", "<!-- end -->"
    before, _, rest = page.read_text().partition(begin)
    page.write_text(before + begin + "".join(f"- {line}\n" for line in summaries) + f"\n{text}\n\n"
                    + end + rest.partition(end)[2])


if __name__ == "__main__":
    sys.exit(main())
