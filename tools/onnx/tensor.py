"""Elements of memories, as an array of their addresses: what moves none of them, only names others."""
from collections.abc import Sequence

import numpy as np


class Tensor:
    """Elements of memories: their addresses `at` [shape] and their dtype. Never changed once made."""

    def __init__(self, at: np.ndarray, dtype: np.dtype) -> None:
        self.at, self.dtype = at, np.dtype(dtype)

    @property
    def shape(self) -> tuple[int, ...]:
        return self.at.shape

    @property
    def address(self) -> int:
        """Of its first element."""
        return int(self.at.reshape(-1)[0])

    @property
    def size(self) -> int:
        return self.at.size

    @property
    def nbytes(self) -> int:
        return self.at.size * self.dtype.itemsize

    @property
    def T(self) -> "Tensor":
        return self.transpose()

    def __len__(self) -> int:
        return len(self.at)

    def __getitem__(self, key: object) -> "Tensor":
        return Tensor(np.asarray(self.at[key]), self.dtype)

    def reshape(self, *shape: int) -> "Tensor":
        return Tensor(self.at.reshape(*shape) if shape else self.at.reshape(()), self.dtype)

    def transpose(self, *axes: int) -> "Tensor":
        return Tensor(self.at.transpose(axes or None), self.dtype)

    def moveaxis(self, source: int, target: int) -> "Tensor":
        return Tensor(np.moveaxis(self.at, source, target), self.dtype)

    def take(self, indices: np.ndarray, axis: int) -> "Tensor":
        return Tensor(self.at.take(indices, axis), self.dtype)

    def broadcast_to(self, shape: Sequence[int]) -> "Tensor":
        return Tensor(np.broadcast_to(self.at, shape), self.dtype)

    def split(self, sizes: Sequence[int], axis: int) -> "list[Tensor]":
        ends = np.cumsum(sizes)[:-1]
        return [Tensor(at, self.dtype) for at in np.split(self.at, ends, axis)]

    def view(self, dtype: str) -> "Tensor":
        """The same bytes as elements of another type: a further axis, if it is smaller, of an element's parts."""
        size = np.dtype(dtype).itemsize
        parts = self.at[..., None] + np.arange(0, self.dtype.itemsize, size)
        return Tensor(parts[..., 0] if size == self.dtype.itemsize else parts, np.dtype(dtype))


def concat(tensors: Sequence[Tensor], axis: int = 0) -> Tensor:
    return Tensor(np.concatenate([tensor.at for tensor in tensors], axis), tensors[0].dtype)
