"""What lies under a window that passes over an image: the columns that convolutions and pools multiply or compare."""
import math
from collections.abc import Callable, Sequence

import numpy as np

from graph import Refused
from job import MOST_BYTES, Job
from moves import padded
from tensor import Tensor


class Window:
    """Its sizes, steps and padding, one of each a spatial dimension, and how many places it comes to."""

    def __init__(self, sizes: Sequence[int], kernel: Sequence[int], get: Callable[..., object],
                 spread: Sequence[int] | None = None) -> None:
        """`get(name, default)` has the attributes of a node. With `spread`, zeros are between the elements of the
        image, whose `sizes` count them."""
        rank = len(sizes)
        self.kernel, self.spread = list(kernel), list(spread or [1] * rank)
        self.strides = list(get("strides", None) or [1] * rank)
        self.dilations = list(get("dilations", None) or [1] * rank)
        self.extents = [(k - 1) * d + 1 for k, d in zip(self.kernel, self.dilations)]
        pads, auto = list(get("pads", None) or [0] * 2 * rank), get("auto_pad", "NOTSET")
        self.pads = list(zip(pads[:rank], pads[rank:]))
        if auto.startswith("SAME"):
            self.pads = [self._same(n, k, s, auto) for n, k, s in zip(sizes, self.extents, self.strides)]
        elif auto == "VALID":
            self.pads = [(0, 0)] * rank
        spans = [n + sum(p) - k for n, p, k in zip(sizes, self.pads, self.extents)]
        rounding = math.ceil if get("ceil_mode", 0) else math.floor
        self.places = [rounding(span / s) + 1 for span, s in zip(spans, self.strides)]
        if min(self.places) < 1:
            raise Refused(f"its kernel {self.kernel} is larger than its input {list(sizes)}")
        # Rounding up, the last place may pass the padding.
        beyond = [max(0, (o - 1) * s - span) for o, s, span in zip(self.places, self.strides, spans)]
        self.all_pads = [(before, after + more) for (before, after), more in zip(self.pads, beyond)]

    @staticmethod
    def _same(size: int, extent: int, stride: int, auto: str) -> tuple[int, int]:
        more = max(0, (math.ceil(size / stride) - 1) * stride + extent - size)
        return (more // 2, more - more // 2) if auto == "SAME_UPPER" else (more - more // 2, more // 2)

    def laid_out(self, image: Tensor, filling: Tensor, axis: int) -> Tensor:
        """An image whose spatial dimensions begin at `axis`, with what is between its elements and around them."""
        at, rank = image.at, len(self.kernel)
        for i, step in enumerate(self.spread, axis):
            apart = np.full([*at.shape[:i], (at.shape[i] - 1) * step + 1, *at.shape[i + 1 :]], filling.address)
            apart[(*[slice(None)] * i, slice(None, None, step))] = at
            at = apart
        pads = [(0, 0)] * axis + self.all_pads + [(0, 0)] * (at.ndim - axis - rank)
        return padded(Tensor(at, image.dtype), pads, filling)

    def taps(self, image: Tensor) -> Tensor:
        """What is under the window, of an image as it is laid out [c, spatial] -> [taps, c, places]."""
        at, rank = image.at, len(self.kernel)
        for i, (k, d, o, s) in enumerate(zip(self.kernel, self.dilations, self.places, self.strides)):
            at = at.take(np.arange(k)[:, None] * d + np.arange(o) * s, axis=1 + 2 * i)
        order = [*range(1, 1 + 2 * rank, 2), 0, *range(2, 2 + 2 * rank, 2)]
        return Tensor(at.transpose(order).reshape(math.prod(self.kernel), len(at), -1), image.dtype)

    def counts(self, sizes: Sequence[int], with_padding: bool) -> np.ndarray:
        """How many elements each place covers, [places]."""
        inner = np.pad(np.ones(sizes, np.float32), self.pads, constant_values=float(with_padding))
        outer = np.pad(inner, [(0, a[1] - p[1]) for a, p in zip(self.all_pads, self.pads)])
        places = self.taps(Tensor(np.arange(outer.size).reshape(1, *outer.shape), np.dtype(np.float32))).at
        return outer.reshape(-1)[places[:, 0]].sum(axis=0)


def unused(window: Window, channels: int) -> int:
    """How many rows of zeros the columns end with: patches of `cpu_im2col` are a multiple of 8 bytes."""
    whole = max(window.dilations) == 1 and len(window.kernel) <= 2
    return math.prod(window.kernel) * channels % 2 if whole else 0


def columns(job: Job, image: Tensor, window: Window, filling: Tensor) -> Tensor:
    """What is under the window, [c, spatial] -> [taps c and unused, places], the channel innermost: by `cpu_im2col`,
    or in more than two dimensions by copies alone."""
    if len(window.kernel) > 2:
        taps = window.taps(window.laid_out(image, filling, 1))
        return taps.reshape(-1, taps.shape[2])
    covered = math.prod(window.extents) * math.prod(window.places) * len(image) * 4
    if covered > MOST_BYTES // 8:
        raise Refused(f"all that its window covers takes {covered >> 20} MiB, of {MOST_BYTES >> 20} for everything")
    # The operator has the channel innermost. Transposed first, the image needs a copy a row for its padding.
    last = window.laid_out(job.dense(image.moveaxis(0, -1)), filling, 0)
    flat = [1] * (2 - len(window.kernel))
    last = last.reshape(*flat, *last.shape)
    patches = job.im2col(last, [*flat, *window.extents], [*flat, *window.strides])
    if max(window.dilations) == 1:
        return patches.T
    # It has no dilation either: of a window without gaps some rows are taken.
    used = math.prod(window.extents) * len(image)
    rows = job.dense(patches.T)[:used].reshape(*window.extents, len(image), len(patches))
    return rows[tuple(slice(None, None, d) for d in window.dilations)].reshape(-1, len(patches))
