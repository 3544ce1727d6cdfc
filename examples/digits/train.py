#!/usr/bin/env python3
"""Trains a linear softmax classifier by plain gradient descent in double precision and writes it, the
held-out pictures and the scores that they should get into data/."""
import numpy as np

import dataset

STEPS = 1500
RATE = 0.3
DECAY = 3e-3  # of the weights, towards zero: keeps rarely inked pixels from shouting


def train(x, labels):
    target = np.eye(10)[labels]
    weights, bias = np.zeros((x.shape[1], 10)), np.zeros(10)
    for _ in range(STEPS):
        scores = x @ weights + bias
        odds = np.exp(scores - scores.max(axis=1, keepdims=True))
        error = (odds / odds.sum(axis=1, keepdims=True) - target) / len(x)
        weights -= RATE * (x.T @ error + DECAY * weights)
        bias -= RATE * error.sum(axis=0)
    return weights, bias


def main():
    pictures, labels, held_out, held_out_labels = dataset.split()
    mean, divisor = dataset.statistics(pictures)
    weights, bias = train((pictures - mean) / divisor, labels)

    # From here on as the device computes, with the rounded weights, but in double precision.
    weights, bias = weights.astype(np.float32), bias.astype(np.float32)

    def score(x):
        return (x - mean.astype(float)) / divisor.astype(float) @ weights.astype(float) + bias.astype(float)

    scores = score(held_out)
    print(f"training pictures: {len(labels)}, {dataset.accuracy(score(pictures), labels):.1f} % right")
    print(f"held-out pictures: {len(held_out)}, {dataset.accuracy(scores, held_out_labels):.1f} % right")

    dataset.save("mean", mean)
    dataset.save("var", divisor)
    dataset.save("weights", weights)
    dataset.save("bias", bias)
    dataset.save("images", held_out.reshape(-1, 8, 8), np.uint8)
    dataset.save("labels", held_out_labels, np.uint8)
    dataset.save("scores", scores)


if __name__ == "__main__":
    main()
