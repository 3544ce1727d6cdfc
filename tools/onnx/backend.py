"""The library behind the ecosystem's own interface: `onnx.backend.base.Backend`.

    import onnx, backend
    outputs = backend.KelRtBackend.prepare(onnx.load("model.onnx")).run([array])

The tool is what $KELRT says, a command with its emulator, or else build/host/bin/kelrt."""
import os
import pathlib
import shlex
from collections.abc import Sequence

import numpy as np
import onnx
from onnx.backend.base import Backend, BackendRep

import lower
from graph import Refused

TOOL = pathlib.Path(__file__).resolve().parents[2] / "build" / "host" / "bin" / "kelrt"


def command() -> list[str]:
    return shlex.split(os.environ.get("KELRT", "")) or [str(TOOL)]


def refusals(report: Sequence[lower.Lowered]) -> list[str]:
    return [f"{node.title}: {node.refused}" for node in report if node.refused]


class KelRtModel(BackendRep):
    """A model that can be lowered. The job is written at each run, as its inputs are among its files; which contexts it
    has does not depend on them."""

    def __init__(self, model: onnx.ModelProto, options: lower.Options) -> None:
        self.model, self.options = model, options

    def run(self, inputs: Sequence[np.ndarray], **kwargs: object) -> tuple[np.ndarray, ...]:
        constants = {tensor.name for tensor in self.model.graph.initializer}
        names = [value.name for value in self.model.graph.input if value.name not in constants]
        given = dict(zip(names, map(np.asarray, inputs)))
        job, report = lower.lower(self.model, given, self.options)
        if refused := refusals(report):
            raise Refused(refused[0])
        result = job.run(command())
        return tuple(result[output.name] for output in self.model.graph.output)


class KelRtBackend(Backend):
    @classmethod
    def is_compatible(cls, model: onnx.ModelProto, device: str = "CPU", **kwargs: object) -> bool:
        return not cls.refused(model)

    @classmethod
    def refused(cls, model: onnx.ModelProto, options: lower.Options | None = None) -> list[str]:
        """Why not, a sentence for each node."""
        try:
            return refusals(lower.lower(model, {}, options or lower.Options())[1])
        except Refused as refused:
            return [str(refused)]

    @classmethod
    def prepare(cls, model: onnx.ModelProto, device: str = "CPU", **kwargs: object) -> KelRtModel:
        options = lower.Options(**kwargs)
        if refused := cls.refused(model, options):
            raise Refused(refused[0])
        return KelRtModel(model, options)

    @classmethod
    def supports_device(cls, device: str) -> bool:
        return device == "CPU"
