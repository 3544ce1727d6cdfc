"""Bringing scattered elements together: which stretches of bytes to copy where, as few as possible.

Elements are named by addresses, int64: the memory's number in the upper 32 bits, the byte offset in the lower ones.
Elements are neighbours when their addresses differ by the size of one, so that everything here is plain arithmetic on
arrays of addresses of any shape."""
from collections.abc import Iterator
from typing import NamedTuple

import numpy as np

MEMORY = 1 << 32  # from one memory to the next


def place(address: int) -> tuple[int, int]:
    """The memory's number and the offset in it."""
    return divmod(int(address), MEMORY)


class Copy(NamedTuple):
    """A stretch of bytes: from an address to an address."""

    source: int
    target: int
    size: int


class Transposition(NamedTuple):
    """A matrix stored at `address` as rows x cols elements of 4 bytes is to become its transpose there."""

    address: int
    rows: int
    cols: int


def in_one_piece(at: np.ndarray, size: int) -> bool:
    """Whether elements of `size` bytes at the addresses `at` [any shape] follow one another."""
    flat = at.reshape(-1)
    return bool(np.all(np.diff(flat) == size))


def plan(at: np.ndarray, wanted: np.ndarray, target: int, size: int) -> list[Copy | Transposition]:
    """What brings elements of `size` bytes at `at` [any shape] to `target` and after, in the order of their shape.

    Only those that are `wanted` [the same shape] need to move: the others are there already, and a copy may cross
    them."""
    if not wanted.any():
        return []
    straight = list(_copies(at, wanted, target, size))
    turned = _transpositions(at, wanted, target) if size == 4 else []
    return turned if turned and len(turned) < len(straight) else straight


def _copies(at: np.ndarray, wanted: np.ndarray, target: int, size: int) -> Iterator[Copy]:
    if not wanted.any():
        return
    if not any(_repeats(at, axis) for axis in range(at.ndim)):
        yield from _stretches(at.reshape(-1), wanted.reshape(-1), target, size)
        return
    block = at[0].size * size
    if not _repeats(at, 0):
        for i in range(len(at)):
            yield from _copies(at[i], wanted[i], target + i * block, size)
        return
    # The first block from its place, the others from the ones before: 1, 2, 4, 8 ... at once.
    yield from _copies(at[0], wanted[0], target, size)
    done = 1
    while done < len(at):
        more = min(done, len(at) - done)
        yield Copy(target, target + done * block, more * block)
        done += more


def _repeats(at: np.ndarray, axis: int) -> bool:
    """Whether all of `at` along an axis is the same, and there is more than one."""
    first = at.take([0], axis)
    return at.shape[axis] > 1 and bool(np.all(at == first))


def _stretches(at: np.ndarray, wanted: np.ndarray, target: int, size: int) -> Iterator[Copy]:
    """One copy for each longest row of neighbours among the wanted elements of `at` [n]."""
    places = np.flatnonzero(wanted)
    source = at[places]
    breaks = np.flatnonzero((np.diff(source) != size) | (np.diff(places) != 1)) + 1
    begins = [0, *breaks.tolist()]
    ends = [*breaks.tolist(), len(places)]
    for begin, end in zip(begins, ends):
        yield Copy(int(source[begin]), target + int(places[begin]) * size, (end - begin) * size)


def _transpositions(at: np.ndarray, wanted: np.ndarray, target: int) -> list[Copy | Transposition]:
    """Where the elements of 4 bytes are one stored matrix after another, each read down its columns: a copy of each
    as it is stored, which then is transposed in place. Else nothing."""
    flat = at.reshape(-1)
    step = int(flat[1] - flat[0]) if flat.size > 1 else 0
    if step <= 4 or step % 4 or not wanted.all():
        return []
    cols = step // 4
    turns = np.flatnonzero(np.diff(flat) != step)
    rows = int(turns[0]) + 1 if turns.size else flat.size
    if flat.size % (rows * cols):
        return []
    matrices = flat.reshape(-1, rows * cols)
    column_by_column = 4 * np.arange(rows * cols).reshape(rows, cols).T.reshape(-1)
    if not np.array_equal(matrices, matrices[:, :1] + column_by_column):
        return []
    steps: list[Copy | Transposition] = []
    for i, first in enumerate(matrices[:, 0].tolist()):
        place = target + i * rows * cols * 4
        steps += [Copy(first, place, rows * cols * 4), Transposition(place, rows, cols)]
    return steps
