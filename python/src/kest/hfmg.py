"""HFMG: activations to one scale and offset from a histogram, so that batches need not be kept; activation ARQ.

Clip ranges by least squared error: Choukroun et al., "Low-bit Quantization of Neural Networks for Efficient Inference",
2019.
"""

from dataclasses import dataclass
from typing import Any

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._accumulator import Accumulator
from kest._activation import ActivationFactors, FactorArrays, checked_values, float_dtype
from kest._arrays import Float, checked_int

__all__ = ["ActivationFactors", "Calibrator", "Histogram", "activation_arq"]


@dataclass(frozen=True, eq=False)
class Histogram:
    """n bins: counts[i] values in [edges[i], edges[i + 1]).

    Attributes:
        counts: uint32, (n,).
        edges: (n + 1,), of the calibrator's dtype.
    """

    counts: npt.NDArray[np.uint32]
    edges: npt.NDArray[Any]


class Calibrator(Accumulator):
    """Counts every batch into a histogram that widens as it has to.

    The sparse tails are trimmed bin by bin into a row of clip ranges, of which the one with the smallest squared error
    wins. NaN counts in the first bin. A batch that raises leaves the calibrator as it was. Threads may share a
    calibrator; the counts of bins that widen depend on the order of the batches. Copies and pickles are snapshots that
    go on by themselves.
    """

    def __init__(
        self,
        num_bits: int = 8,
        *,
        with_offset: bool = True,
        num_bins: int = 4096,
        dtype: npt.DTypeLike = np.float32,
    ) -> None:
        """Starts without a histogram.

        Args:
            num_bits: the width of the grid, 2 to 31.
            with_offset: an asymmetric grid; without it the offset is 0.
            num_bins: 1 to 2^31 - 1.
            dtype: that of the batches, float32 or float64.

        Raises:
            ValueError: num_bits or num_bins out of range.
        """
        super().__init__()
        self._num_bits = checked_int("num_bits", num_bits, 2, 31)
        self._with_offset = bool(with_offset)
        self._num_bins = checked_int("num_bins", num_bins, 1)
        self._dtype = float_dtype(dtype)
        self._histogram = Histogram(np.empty(0, np.uint32), np.zeros(1, self._dtype))

    def add(self, batch: npt.NDArray[Float]) -> None:
        """Counts a batch: any shape.

        Raises:
            BadParamError: no values.
            OverflowError: a bin with 2^32 values, of all batches so far.
            ValueError: an infinite value, or a range beyond the largest number of the dtype.
        """
        checked_values("batch", batch, self._dtype)
        wider = Histogram(np.empty(self._num_bins, np.uint32), np.empty(self._num_bins + 1, self._dtype))
        with self._lock:
            counts, edges = self._histogram.counts, self._histogram.edges
            _core.hfmg_add(counts, edges, batch, wider.counts, wider.edges)
            if not np.isfinite(wider.edges).all():
                raise ValueError("batch has to be finite: no histogram has infinite edges")
            if wider.counts.sum(dtype=np.uint64) != counts.sum(dtype=np.uint64) + np.uint64(batch.size):
                raise OverflowError("a bin has to hold fewer than 2^32 values")  # the kernel's counts have wrapped
            self._histogram = wider

    def histogram(self) -> Histogram:
        """A copy of the histogram so far.

        Raises:
            ValueError: no batch yet.
        """
        found = self._histogram
        if found.counts.size == 0:
            raise ValueError("a calibrator has no histogram before the first batch")
        return Histogram(found.counts.copy(), found.edges.copy())

    def factors(self) -> ActivationFactors:
        """The scale and offset of the batches so far.

        Costs up to three quarters of num_bins clip ranges times num_bins: some milliseconds with thousands of bins,
        a hundred times as much with ten times as many.

        Raises:
            BadParamError: no batch yet.
        """
        found, seen = FactorArrays(), self._histogram
        _core.hfmg_factors(seen.counts, seen.edges, self._num_bits, self._with_offset, found.scale, found.offset)
        return found.factors()


def activation_arq(
    minimum: float,
    maximum: float,
    num_bits: int = 8,
    *,
    with_offset: bool = True,
    dtype: npt.DTypeLike = np.float32,
) -> ActivationFactors:
    """The scale and offset of a range, widened to contain zero.

    Args:
        minimum: the smallest of the values.
        maximum: the largest.
        num_bits: the width of the grid, 2 to 31.
        with_offset: an asymmetric grid; without it the offset is 0, and the larger magnitude counts as positive.
        dtype: float32 or float64: that of the values, in which the range is computed.

    Raises:
        ScaleError: a scale that is infinite or above 2^23.
        ValueError: a minimum above the maximum, NaN, or num_bits out of range.
    """
    num_bits = checked_int("num_bits", num_bits, 2, 31)
    if not minimum <= maximum:
        raise ValueError("minimum has to be at most maximum")
    found = FactorArrays()
    bounds = np.array([minimum, maximum], float_dtype(dtype))
    _core.hfmg_activation_arq(bounds, num_bits, bool(with_offset), found.scale, found.offset)
    return found.factors()
