#!/usr/bin/env python3
"""Trains an LSTM that reads a picture one row of pixels at a time, by back-propagation through time written out
in double precision, and writes it, the held-out pictures and the probabilities that they should get as .npy files.

One step, for a row x of 8 pixels and the state (h, c), with the four gate blocks in the order input, forget,
output, cell candidate:

    gates = x Wx + h Wh + b
    i, f, o, g = sigmoid, sigmoid, sigmoid, tanh of the blocks
    c' = i g + f c
    h' = o tanh(c')

After the last row: probabilities = softmax(h Wo + bo).

Training amplifies the last bit of everything, so that other libraries or processors would give another network. Here
all of them give the same bytes: products of matrices are exact, whatever their order; other sums are taken in a
stated order; and nothing else is used but addition, multiplication, division, square roots and what is made of
them, which every machine rounds alike."""
import argparse
import pathlib

import numpy as np

import dataset

UNITS, ROWS, COLUMNS, DIGITS = 32, 8, 8, 10
# Chosen by three-fold cross-validation inside the training pictures; the held-out ones had no say.
EPOCHS = 60
BATCH = 50
RATE = 1e-2  # of Adam, falling to nothing, slowly at first and at last
DECAY = 1e-3  # of the matrices, towards zero
SHIFTS = [(0, 0), (1, 0), (-1, 0), (0, 1), (0, -1)]  # every picture trains in five places


def on_grid(a):
    """a rounded to 22 bits below its largest element."""
    scale = np.ldexp(1.0, 22 - np.frexp(abs(a).max())[1])
    return np.rint(a * scale) / scale


def exact_product(a, b):
    """a b of operands on their grids: sums of at most 512 products of 44 bits, which a double holds exactly whatever
    their order, fused or not."""
    return on_grid(a) @ on_grid(b)


def ordered_product(a, b):
    """a b in double precision, summed in the order of b's rows: slow."""
    return sum(a[:, k, None] * b[k] for k in range(len(b)))


def exp(x):
    """2^k e^r with r of at most half a binary order, by its series."""
    x = np.clip(x, -700, 700)
    k = np.rint(x * 1.4426950408889634)
    # ln 2 in two parts, the first so short that its product with k is exact.
    r = x - k * 0.693147180369123816490 - k * 1.90821492927058770002e-10
    series = np.ones_like(r)
    for n in range(14, 0, -1):
        series = 1 + series * r / n
    return np.ldexp(series, k.astype(int))


def sigmoid(x):
    return 1 / (1 + exp(-x))


def tanh(x):
    return 1 - 2 / (exp(2 * x) + 1)


def start(random):
    """Uniform weights of about unit gain; the forget gates start open, so that gradients reach the first row."""

    def matrix(rows, columns):
        return (2 * random.random_sample((rows, columns)) - 1) / np.sqrt(rows)

    network = {
        "input_weights": matrix(COLUMNS, 4 * UNITS),
        "hidden_weights": matrix(UNITS, 4 * UNITS),
        "gate_bias": np.zeros(4 * UNITS),
        "output_weights": matrix(UNITS, DIGITS),
        "output_bias": np.zeros(DIGITS),
    }
    network["gate_bias"][UNITS : 2 * UNITS] = 1
    return network


def shifted(pictures, down, right):
    """The pictures moved by a pixel or none, with blank paper coming in at the edge."""
    paper = np.zeros((len(pictures), ROWS + 2, COLUMNS + 2))
    paper[:, 1 + down : 1 + down + ROWS, 1 + right : 1 + right + COLUMNS] = pictures.reshape(-1, ROWS, COLUMNS)
    return paper[:, 1 : 1 + ROWS, 1 : 1 + COLUMNS].reshape(-1, ROWS * COLUMNS)


def forward(network, x, product):
    """Probabilities of the pictures x [count, 64], and what every step leaves for the way back."""
    h = c = np.zeros((len(x), UNITS))
    steps = []
    for row in range(ROWS):
        pixels = x[:, row * COLUMNS : (row + 1) * COLUMNS]
        gates = product(pixels, network["input_weights"]) + product(h, network["hidden_weights"])
        gates = gates + network["gate_bias"]
        i, f, o = np.hsplit(sigmoid(gates[:, : 3 * UNITS]), 3)
        g = tanh(gates[:, 3 * UNITS :])
        before = (pixels, h, c)
        c = i * g + f * c
        squashed = tanh(c)
        h = o * squashed
        steps.append((before, i, f, o, g, squashed))
    scores = product(h, network["output_weights"]) + network["output_bias"]
    odds = exp(scores - scores.max(axis=1, keepdims=True))
    return odds / sum(odds.T)[:, None], h, steps


def gradients(network, x, labels):
    """Of the cross-entropy summed over the pictures, by everything in the network."""
    probabilities, h, steps = forward(network, x, exact_product)
    d_scores = probabilities - np.eye(DIGITS)[labels]
    d = {name: np.zeros_like(value) for name, value in network.items()}
    d["output_weights"] = exact_product(h.T, d_scores)
    d["output_bias"] = sum(d_scores)

    d_h = exact_product(d_scores, network["output_weights"].T)
    d_c = np.zeros_like(d_h)
    for (pixels, h, c), i, f, o, g, squashed in reversed(steps):
        d_c = d_c + d_h * o * (1 - squashed * squashed)
        d_gates = np.hstack([
            d_c * g * i * (1 - i),
            d_c * c * f * (1 - f),
            d_h * squashed * o * (1 - o),
            d_c * i * (1 - g * g),
        ])
        d["input_weights"] += exact_product(pixels.T, d_gates)
        d["hidden_weights"] += exact_product(h.T, d_gates)
        d["gate_bias"] += sum(d_gates)
        d_h = exact_product(d_gates, network["hidden_weights"].T)
        d_c = d_c * f
    return d


def train(x, labels):
    random = np.random.RandomState(dataset.SEED)
    network = start(random)
    mean = {name: np.zeros_like(value) for name, value in network.items()}
    square = {name: np.zeros_like(value) for name, value in network.items()}
    steps_in_all = EPOCHS * (len(x) // BATCH)
    step, mean_decay, square_decay = 0, 1.0, 1.0
    for _ in range(EPOCHS):
        order = random.permutation(len(x))
        for first in range(0, len(x) - BATCH + 1, BATCH):
            batch = order[first : first + BATCH]
            step += 1
            mean_decay *= 0.9
            square_decay *= 0.999
            left = 1 - step / steps_in_all
            rate = RATE * left * left * (3 - 2 * left)
            for name, gradient in gradients(network, x[batch], labels[batch]).items():
                gradient = gradient / BATCH
                if name.endswith("weights"):
                    gradient = gradient + DECAY * network[name]
                mean[name] = 0.9 * mean[name] + 0.1 * gradient
                square[name] = 0.999 * square[name] + 0.001 * gradient * gradient
                slope = mean[name] / (1 - mean_decay)
                spread = np.sqrt(square[name] / (1 - square_decay))
                network[name] = network[name] - rate * slope / (spread + 1e-8)
    return network


def main():
    parser = argparse.ArgumentParser(description="Trains the network of the example driver.")
    parser.add_argument("--out", type=pathlib.Path, default=dataset.ELSEWHERE, metavar="DIRECTORY",
                        help=f"where the files go ({dataset.ELSEWHERE}); {dataset.DATA} is what the driver reads")
    parser.add_argument("--onnx", type=pathlib.Path, metavar="FILE.onnx",
                        help="write the network as an ONNX model, too; needs Debian's python3-onnx")
    options = parser.parse_args()
    out = options.out
    if options.onnx:
        import export  # first, lest a minute's training be for nothing
    try:
        out.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        parser.error(f"cannot make {out}: {error.strerror}")

    pictures, labels, held_out, held_out_labels = dataset.split()
    mean, divisor = (vector.astype(float) for vector in dataset.statistics(pictures))
    moved = np.vstack([shifted(pictures, *shift) for shift in SHIFTS])
    network = train((moved - mean) / divisor, np.tile(labels, len(SHIFTS)))

    # From here on the network as the device holds it, rounded to single precision, computed in double.
    rounded = {name: value.astype(np.float32).astype(float) for name, value in network.items()}
    probabilities = forward(rounded, (held_out - mean) / divisor, ordered_product)[0]
    training = forward(rounded, (pictures - mean) / divisor, ordered_product)[0]
    print(f"training pictures: {len(labels)}, {dataset.accuracy(training, labels):.1f} % right")
    print(f"held-out pictures: {len(held_out)}, {dataset.accuracy(probabilities, held_out_labels):.1f} % right")

    dataset.save(out, "mean", mean)
    dataset.save(out, "var", divisor)
    for name, value in rounded.items():
        dataset.save(out, name, value)
    dataset.save(out, "images", held_out.reshape(-1, 8, 8), np.uint8)
    dataset.save(out, "labels", held_out_labels, np.uint8)
    dataset.save(out, "probabilities", probabilities)
    if options.onnx:
        export.export(rounded | {"mean": mean, "var": divisor}, 1, options.onnx)
    print(f"written to {out}, which the driver takes as its argument")


if __name__ == "__main__":
    main()
