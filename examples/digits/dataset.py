"""The handwritten digits that Debian's python3-sklearn package carries, split once and for all, and the .npy
files that the example driver reads."""
import importlib.util
import pathlib

import numpy as np

HERE = pathlib.Path(__file__).resolve().parent
DATA = HERE / "data"  # of the repository, which the driver reads
ELSEWHERE = HERE.parents[1] / "build" / "digits-data"
HELD_OUT = 500
SEED = 1998


def load():
    """All 1797 pictures (64 pixels, 0 to 16) and their labels, without importing the package itself."""
    package = importlib.util.find_spec("sklearn")
    if package is None:
        raise SystemExit("the digits are missing: install Debian's python3-sklearn")
    path = pathlib.Path(package.submodule_search_locations[0]) / "datasets" / "data" / "digits.csv.gz"
    table = np.loadtxt(path, delimiter=",")
    return table[:, :64], table[:, 64].astype(int)


def split():
    """Training pictures and labels, then the held-out ones. RandomState because its stream is frozen."""
    pictures, labels = load()
    order = np.random.RandomState(SEED).permutation(len(labels))
    train, held_out = order[HELD_OUT:], order[:HELD_OUT]
    return pictures[train], labels[train], pictures[held_out], labels[held_out]


def statistics(pictures):
    """Mean and divisor of every pixel, as the device holds them: rounded to single precision. A pixel that
    never changes is divided by 1. The sums are whole numbers, exact in any order."""
    count, total, squares = len(pictures), pictures.sum(axis=0), (pictures * pictures).sum(axis=0)
    divisor = np.sqrt(count * squares - total * total) / count
    divisor[divisor == 0] = 1
    return (total / count).astype(np.float32), divisor.astype(np.float32)


def save(directory, name, array, dtype=np.float32):
    np.save(directory / f"{name}.npy", np.ascontiguousarray(array, dtype=dtype))


def accuracy(scores, labels):
    return 100 * np.mean(scores.argmax(axis=1) == labels)
