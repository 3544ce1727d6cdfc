"""LSTM layers: two products, two sums and a state update a step, in the order in which a driver would call them."""
import arithmetic
from graph import Refused
from job import Job
from lower import Node, lowers
from tensor import Tensor, concat

BLOCKS = (0, 2, 1, 3)  # of ONNX's input, output, forget gate and candidate, in the order of the library's gates


@lowers("LSTM")
def lstm(node: Node) -> list[Tensor]:
    """x [steps, batch, size], w [directions, 4h, size], r [directions, 4h, h] -> all hidden states
    [steps, directions, batch, h], the last one and the last cell state [directions, batch, h]."""
    directions = _checked(node)
    batch_first = bool(node.get("layout"))
    x = node.floats(0).moveaxis(0, 1) if batch_first else node.floats(0)
    done = [_Direction(node, i, x).run(backwards) for i, backwards in enumerate(directions)]
    every = concat([states.reshape(len(x), 1, *states.shape[1:]) for states, _, _ in done], 1)
    last, cell = (concat([results[i].reshape(1, *results[i].shape) for results in done]) for i in (1, 2))
    made = [every.moveaxis(2, 0), last.moveaxis(1, 0), cell.moveaxis(1, 0)] if batch_first else [every, last, cell]
    return made[: node.wanted]


def _checked(node: Node) -> list[bool]:
    """Which directions there are, the one backwards as True."""
    node.refuse_attributes(clip=None, input_forget=0)
    known = {"forward": [False], "reverse": [True], "bidirectional": [False, True]}
    directions = known[node.get("direction", "forward")]
    functions = [name.decode() for name in node.get("activations", [])]
    if functions and functions != ["Sigmoid", "Tanh", "Tanh"] * len(directions):
        raise Refused(f"its activations are {', '.join(functions)}, and the library's are Sigmoid, Tanh, Tanh")
    _check_shapes(node, len(directions))
    steps = node.tensor(0).shape[1 if node.get("layout") else 0]
    if node.has(4) and (node.constant(4, "the length of each sequence") != steps).any():
        raise Refused("its sequences have different lengths")
    return directions


def _check_shapes(node: Node, directions: int) -> None:
    x, h = node.floats(0), node.floats(2).shape[-1]
    batch = x.shape[0 if node.get("layout") else 1]
    state = (batch, directions, h) if node.get("layout") else (directions, batch, h)
    for i, shape in {1: (4 * h, x.shape[2]), 2: (4 * h, h), 3: (8 * h,), 7: (3 * h,)}.items():
        if node.has(i) and node.tensor(i).shape != (directions, *shape):
            raise Refused(f"input {i} has shape {list(node.tensor(i).shape)} and not {[directions, *shape]}")
    for i in (5, 6):
        if node.has(i) and node.tensor(i).shape != state:
            raise Refused(f"input {i} has shape {list(node.tensor(i).shape)} and not {list(state)}")


class _Direction:
    """One of them: its weights as the operators want them, [size, 4h] and [h, 4h], and its state."""

    def __init__(self, node: Node, i: int, x: Tensor) -> None:
        job = self.job = node.job
        self.steps, self.batch, size = x.shape
        self.units = node.floats(2).shape[2]
        self.hidden_weights = job.floats(self._ordered(node.floats(2)[i]).T)
        input_weights = job.floats(self._ordered(node.floats(1)[i]).T)
        products = job.matmul(x.reshape(-1, size), input_weights)
        self.from_input = products.reshape(self.steps, self.batch, 4 * self.units)
        self.bias = self._bias(node.floats(3)[i]) if node.has(3) else None
        self.hidden, cell = (self._initial(node, j, i) for j in (5, 6))
        self.cell = job.copied(cell)
        self.peepholes = node.floats(7)[i].split([self.units] * 3, 0) if node.has(7) else None

    def _ordered(self, blocks: Tensor) -> Tensor:
        """[4h, ...] in the library's order."""
        return concat([blocks[k * self.units : (k + 1) * self.units] for k in BLOCKS])

    def _bias(self, both: Tensor) -> Tensor:
        """[8h] -> [batch, 4h]"""
        job, (of_input, of_hidden) = self.job, both.split([4 * self.units] * 2, 0)
        if job.is_constant(both):
            total = job.constant(job.value(of_input) + job.value(of_hidden))
        else:
            total = job.add(of_input, of_hidden)
        return job.floats(self._ordered(total).broadcast_to((self.batch, 4 * self.units)))

    def _initial(self, node: Node, j: int, i: int) -> Tensor:
        """The state [batch, h] that input j gives, or none."""
        if not node.has(j):
            return arithmetic.full(self.job, (self.batch, self.units), 0)
        return node.floats(j)[:, i] if node.get("layout") else node.floats(j)[i]

    def run(self, backwards: bool) -> tuple[Tensor, Tensor, Tensor]:
        """Hidden states [steps, batch, h], the last one and the last cell state [batch, h]."""
        states: dict[int, Tensor] = {}
        for step in sorted(range(self.steps), reverse=backwards):
            self.hidden = states[step] = self._step(self.from_input[step])
        every = concat([states[step].reshape(1, *self.hidden.shape) for step in range(self.steps)])
        return every, self.hidden, self.cell

    def _step(self, from_input: Tensor) -> Tensor:
        """[batch, 4h] -> the hidden state [batch, h]."""
        job = self.job
        gates = job.add(job.matmul(self.hidden, self.hidden_weights), from_input)
        if self.bias is not None:
            gates = job.add(gates, self.bias)
        if self.peepholes is not None:
            return self._step_with_peepholes(job, gates)
        return self._updated("_cpu_activation", self.cell, gates)

    def _updated(self, variant: str, cell: Tensor, gates: Tensor) -> Tensor:
        """The operator once for each sequence of the batch."""
        hidden = self.job.buffer(cell.shape)
        for i in range(self.batch):
            self.job.lstm_states(variant, cell[i], gates[i], hidden[i])
        return hidden

    def _step_with_peepholes(self, job: Job, gates: Tensor) -> Tensor:
        """Input and forget gate look at the old cell state. The output gate looks at the new one, so that the operator
        runs twice: for the cell state, and for the hidden state of a cell that keeps it."""
        of_input, of_output, of_forget = self.peepholes
        zeros = arithmetic.full(job, (self.batch, self.units), 0)
        looks = [arithmetic.multiply(job, self.cell, weights) for weights in (of_input, of_forget)]
        gates = job.add(gates, concat([*looks, zeros, zeros], 1))
        output_gate = gates[:, 2 * self.units : 3 * self.units]
        kept = job.copied(output_gate)
        self._updated("_cpu_activation", self.cell, gates)
        opened = arithmetic.sigmoid(job, job.add(kept, arithmetic.multiply(job, self.cell, of_output)))
        ones = arithmetic.full(job, zeros.shape, 1)
        return self._updated("", job.copied(self.cell), job.dense(concat([zeros, ones, opened, zeros], 1)))


