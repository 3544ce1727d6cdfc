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
from onnx import helper, numpy_helper
from onnx.backend.base import Backend, BackendRep

import lower
from graph import Refused
from job import Job

TOOL = pathlib.Path(__file__).resolve().parents[2] / "build" / "host" / "bin" / "kelrt"


def command() -> list[str]:
    return shlex.split(os.environ.get("KELRT", "")) or [str(TOOL)]


def refusals(report: Sequence[lower.Lowered]) -> list[str]:
    return [f"{node.title}: {node.refused}" for node in report if node.refused]


class KelRtModel(BackendRep):
    """A model's job. Only the values of its inputs change from run to run."""

    def __init__(self, model: onnx.ModelProto, job: Job, folder: pathlib.Path | None) -> None:
        self.job, self.folder = job, folder
        constants = {tensor.name for tensor in model.graph.initializer}
        self.inputs = [value.name for value in model.graph.input if value.name not in constants]
        self.outputs = [value.name for value in model.graph.output]

    def run(self, inputs: Sequence[np.ndarray], **kwargs: object) -> tuple[np.ndarray, ...]:
        if len(inputs) != len(self.inputs):
            raise Refused(f"{len(inputs)} inputs are given, and the model has {', '.join(self.inputs) or 'none'}")
        for name, array in zip(self.inputs, inputs):
            self.job.set_input(name, np.asarray(array))
        result = self.job.run(command(), self.folder)
        return tuple(result[name] for name in self.outputs)


class KelRtBackend(Backend):
    folder: pathlib.Path | None = None  # where the job and its files stay after a run

    @classmethod
    def refused(cls, model: onnx.ModelProto, **kwargs: object) -> list[str]:
        """Why a model cannot be lowered, a sentence for each node that cannot."""
        try:
            return refusals(lower.lower(model, {}, lower.Options(**kwargs))[1])
        except Refused as refused:
            return [str(refused)]

    @classmethod
    def is_compatible(cls, model: onnx.ModelProto, device: str = "CPU", **kwargs: object) -> bool:
        return not cls.refused(model)

    @classmethod
    def prepare(cls, model: onnx.ModelProto, device: str = "CPU", **kwargs: object) -> KelRtModel:
        job, report = lower.lower(model, {}, lower.Options(**kwargs))
        if refused := refusals(report):
            raise Refused(refused[0])
        return KelRtModel(model, job, cls.folder)

    @classmethod
    def run_node(cls, node: onnx.NodeProto, inputs: Sequence[np.ndarray], device: str = "CPU",
                 outputs_info: object = None, **kwargs: object) -> tuple[np.ndarray, ...]:
        """A model of one node."""
        given = list(map(np.asarray, inputs))
        infos = [helper.make_tensor_value_info(name, numpy_helper.from_array(array).data_type, array.shape)
                 for name, array in zip(filter(None, node.input), given)]
        outputs = [helper.make_empty_tensor_value_info(name) for name in filter(None, node.output)]
        model = helper.make_model(helper.make_graph([node], "node", infos, outputs))
        return cls.run_model(model, given, device, **kwargs)

    @classmethod
    def supports_device(cls, device: str) -> bool:
        return device == "CPU"
