#!/usr/bin/env python3
"""Trains an LSTM that reads a picture one row of pixels at a time, by back-propagation through time written out
in double precision, and writes it, the held-out pictures and the probabilities that they should get into data/.

One step, for a row x of 8 pixels and the state (h, c), with the four gate blocks in the order input, forget,
output, cell candidate:

    gates = x Wx + h Wh + b
    i, f, o, g = sigmoid, sigmoid, sigmoid, tanh of the blocks
    c' = i g + f c
    h' = o tanh(c')

After the last row: probabilities = softmax(h Wo + bo)."""
import numpy as np

import dataset

UNITS, ROWS, COLUMNS, DIGITS = 32, 8, 8, 10
# Chosen by three-fold cross-validation inside the training pictures; the held-out ones had no say.
EPOCHS = 60
BATCH = 50
RATE = 1e-2  # of Adam, falling to nothing along half a cosine
DECAY = 1e-3  # of the matrices, towards zero
SHIFTS = [(0, 0), (1, 0), (-1, 0), (0, 1), (0, -1)]  # every picture trains in five places


def start(random):
    """Uniform weights of about unit gain; the forget gates start open, so that gradients reach the first row."""

    def matrix(rows, columns):
        return random.uniform(-1, 1, (rows, columns)) / np.sqrt(rows)

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


def sigmoid(x):
    return 1 / (1 + np.exp(-x))


def forward(network, x):
    """Probabilities of the pictures x [count, 64], and what every step leaves for the way back."""
    h = c = np.zeros((len(x), UNITS))
    steps = []
    for row in range(ROWS):
        pixels = x[:, row * COLUMNS : (row + 1) * COLUMNS]
        gates = pixels @ network["input_weights"] + h @ network["hidden_weights"] + network["gate_bias"]
        i, f, o = (sigmoid(gates[:, k * UNITS : (k + 1) * UNITS]) for k in range(3))
        g = np.tanh(gates[:, 3 * UNITS :])
        before = (pixels, h, c)
        c = i * g + f * c
        squashed = np.tanh(c)
        h = o * squashed
        steps.append((before, i, f, o, g, squashed))
    scores = h @ network["output_weights"] + network["output_bias"]
    odds = np.exp(scores - scores.max(axis=1, keepdims=True))
    return odds / odds.sum(axis=1, keepdims=True), h, steps


def gradients(network, x, labels):
    """Of the mean cross-entropy, by everything in the network."""
    probabilities, h, steps = forward(network, x)
    d_scores = (probabilities - np.eye(DIGITS)[labels]) / len(x)
    d = {name: np.zeros_like(value) for name, value in network.items()}
    d["output_weights"] = h.T @ d_scores
    d["output_bias"] = d_scores.sum(axis=0)

    d_h = d_scores @ network["output_weights"].T
    d_c = np.zeros_like(d_h)
    for (pixels, h, c), i, f, o, g, squashed in reversed(steps):
        d_c = d_c + d_h * o * (1 - squashed**2)
        d_gates = np.hstack([
            d_c * g * i * (1 - i),
            d_c * c * f * (1 - f),
            d_h * squashed * o * (1 - o),
            d_c * i * (1 - g**2),
        ])
        d["input_weights"] += pixels.T @ d_gates
        d["hidden_weights"] += h.T @ d_gates
        d["gate_bias"] += d_gates.sum(axis=0)
        d_h = d_gates @ network["hidden_weights"].T
        d_c = d_c * f
    return d


def train(x, labels):
    random = np.random.RandomState(dataset.SEED)
    network = start(random)
    mean = {name: np.zeros_like(value) for name, value in network.items()}
    square = {name: np.zeros_like(value) for name, value in network.items()}
    steps_in_all = EPOCHS * (len(x) // BATCH)
    step = 0
    for _ in range(EPOCHS):
        order = random.permutation(len(x))
        for first in range(0, len(x) - BATCH + 1, BATCH):
            batch = order[first : first + BATCH]
            step += 1
            rate = RATE * (1 + np.cos(np.pi * step / steps_in_all)) / 2
            for name, gradient in gradients(network, x[batch], labels[batch]).items():
                if name.endswith("weights"):
                    gradient = gradient + DECAY * network[name]
                mean[name] = 0.9 * mean[name] + 0.1 * gradient
                square[name] = 0.999 * square[name] + 0.001 * gradient**2
                slope = mean[name] / (1 - 0.9**step)
                spread = np.sqrt(square[name] / (1 - 0.999**step))
                network[name] = network[name] - rate * slope / (spread + 1e-8)
    return network


def main():
    pictures, labels, held_out, held_out_labels = dataset.split()
    mean, divisor = (vector.astype(float) for vector in dataset.statistics(pictures))
    moved = np.vstack([shifted(pictures, *shift) for shift in SHIFTS])
    network = train((moved - mean) / divisor, np.tile(labels, len(SHIFTS)))

    # From here on the network as the device holds it, rounded to single precision, computed in double.
    rounded = {name: value.astype(np.float32).astype(float) for name, value in network.items()}
    probabilities = forward(rounded, (held_out - mean) / divisor)[0]
    training = forward(rounded, (pictures - mean) / divisor)[0]
    print(f"training pictures: {len(labels)}, {dataset.accuracy(training, labels):.1f} % right")
    print(f"held-out pictures: {len(held_out)}, {dataset.accuracy(probabilities, held_out_labels):.1f} % right")

    dataset.save("mean", mean)
    dataset.save("var", divisor)
    for name, value in rounded.items():
        dataset.save(name, value)
    dataset.save("images", held_out.reshape(-1, 8, 8), np.uint8)
    dataset.save("labels", held_out_labels, np.uint8)
    dataset.save("probabilities", probabilities)


if __name__ == "__main__":
    main()
