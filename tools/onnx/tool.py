"""Running `kelrt run`, on this machine or under an emulator, and reading what it says."""
import collections
import dataclasses
import pathlib
import re
import subprocess
from collections.abc import Mapping, Sequence

import numpy as np

CONTEXT = re.compile(r"^ *\d+  (\S+) +(.*?)  ([0-9.]+) us")


class ToolError(Exception):
    """In one sentence: a context failed (code 1), or the tool refused the job or cannot be run (code 2)."""

    def __init__(self, sentence: str, code: int = 2) -> None:
        super().__init__(sentence)
        self.code = code


@dataclasses.dataclass
class Report:
    """What the tool said of each context, in their order: operator, status, microseconds."""

    contexts: list[tuple[str, str, float]]

    def __str__(self) -> str:
        """A line for each operator, and one for all."""
        rows = collections.defaultdict(list)
        for operator, status, time in self.contexts:
            rows[operator, status].append(time)
        lines = [f"{operator:<36} {status:<22} {len(times):>7} x {sum(times):>11.1f} us"
                 for (operator, status), times in rows.items()]
        total = sum(time for _, _, time in self.contexts)
        return "\n".join([*lines, f"{'total':<59} {len(self.contexts):>7} x {total:>11.1f} us"])


class Result(Mapping):
    """A job's outputs by name, as numpy arrays, and the tool's report."""

    def __init__(self, arrays: dict[str, np.ndarray], report: Report) -> None:
        self.arrays, self.report = arrays, report

    def __getitem__(self, name: str) -> np.ndarray:
        return self.arrays[name]

    def __iter__(self):
        return iter(self.arrays)

    def __len__(self) -> int:
        return len(self.arrays)


@dataclasses.dataclass
class Files:
    folder: pathlib.Path
    report: Report

    def load(self, name: str) -> np.ndarray:
        return np.load(self.folder / f"{name}.npy")


def run(command: Sequence[str], job: pathlib.Path, out: pathlib.Path | None = None) -> Files:
    """Runs a job's file; its outputs go to `out`, or beside it."""
    out = out or job.parent / "out"
    try:
        done = subprocess.run([*map(str, command), "run", str(job), "--out", str(out)], capture_output=True, text=True)
    except OSError as error:
        raise ToolError(f"cannot run {command[0]}: {error.strerror}") from None
    contexts = [match.groups() for line in done.stdout.splitlines() if (match := CONTEXT.match(line))]
    report = Report([(operator, status, float(time)) for operator, status, time in contexts])
    if done.returncode != 0:
        failed = [f"{operator}: {status}" for operator, status, _ in report.contexts[-1:]]
        said = (done.stderr if done.returncode == 2 else "").strip().splitlines() or failed or ["it said nothing"]
        raise ToolError(f"{command[-1]} ended with {done.returncode}: {said[-1]}", 1 if done.returncode == 1 else 2)
    return Files(out, report)
