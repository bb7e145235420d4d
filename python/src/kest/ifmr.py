"""IFMR: activations to one scale and offset, by the clip range of smallest squared error over all values seen.

Clip ranges by least squared error: Choukroun et al., "Low-bit Quantization of Neural Networks for Efficient Inference",
2019.
"""

from typing import Any

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._accumulator import Accumulator
from kest._activation import MOST_VALUES, ActivationFactors, FactorArrays, checked_values, float_dtype
from kest._arrays import Float, checked_int

__all__ = ["ActivationFactors", "Calibrator", "fake_quantise", "percentile_bounds"]


def _check_percentiles(*percentiles: float) -> None:
    for percentile in percentiles:
        if not 0 < percentile <= 1:
            raise ValueError(f"a percentile has to be in (0, 1], not {percentile}")


class Calibrator(Accumulator):
    """Keeps a copy of every batch, for as long as it lives.

    Two percentiles bound the values. Of the clip ranges that a grid of ratios makes of the bound, the one whose
    fake-quantised values have the smallest mean squared error wins, the first of equal ones. Threads may share a
    calibrator. Copies and pickles are snapshots that go on by themselves.
    """

    def __init__(
        self,
        num_bits: int = 8,
        *,
        with_offset: bool = True,
        start_ratio: float = 0.7,
        end_ratio: float = 1.3,
        step: float = 0.01,
        max_percentile: float = 0.999999,
        min_percentile: float = 0.999999,
        dtype: npt.DTypeLike = np.float32,
    ) -> None:
        """Starts without a value.

        Args:
            num_bits: the width of the grid, 2 to 31.
            with_offset: an asymmetric grid; without it the offset is 0.
            start_ratio, end_ratio, step: the grid of ratios, in single precision; at most 2^24 of them.
            max_percentile: the share of values at or below the upper bound, in (0, 1].
            min_percentile: the share of values at or above the lower bound, in (0, 1].
            dtype: that of the batches, float32 or float64.

        Raises:
            BadParamError: a grid of ratios that is empty, endless or too fine.
            ValueError: num_bits or a percentile out of range.
        """
        super().__init__()
        num_bits = checked_int("num_bits", num_bits, 2, 31)
        _check_percentiles(max_percentile, min_percentile)
        self._settings = (num_bits, bool(with_offset), start_ratio, end_ratio, step, max_percentile, min_percentile)
        self._dtype = float_dtype(dtype)
        self._batches: tuple[npt.NDArray[Any], ...] = (np.empty(0, self._dtype),)
        self._factors(np.zeros(1, self._dtype))  # finds what is wrong with the settings before the batches come

    def add(self, batch: npt.NDArray[Float]) -> None:
        """Keeps a copy of a batch: any shape.

        Raises:
            ValueError: 2^32 values or more, this batch and those before it.
        """
        kept = checked_values("batch", batch, self._dtype).reshape(-1).copy()
        with self._lock:
            if kept.size + sum(earlier.size for earlier in self._batches) > MOST_VALUES:
                raise ValueError("batch has to leave fewer than 2^32 values in all")
            self._batches += (kept,)

    def factors(self) -> ActivationFactors:
        """The scale and offset of all values so far.

        Raises:
            BadParamError: no values, or NaN among them.
            ScaleError: a scale that is infinite or above 2^23.
        """
        with self._lock:
            if len(self._batches) > 1:
                self._batches = (np.concatenate(self._batches),)
            (values,) = self._batches
        return self._factors(values)

    def _factors(self, values: npt.NDArray[Any]) -> ActivationFactors:
        found = FactorArrays()
        _core.ifmr_calibrate(values, *self._settings, found.scale, found.offset)
        return found.factors()


def fake_quantise(values: npt.NDArray[Float], factors: ActivationFactors, num_bits: int = 8) -> npt.NDArray[Float]:
    """Replaces every value by scale * (code - offset), a new array.

    Args:
        values: float32 or float64, any shape; NaN counts as 0.
        factors: their scale is taken in single precision.
        num_bits: the width of the grid, 1 to 31.

    Raises:
        ScaleError: a scale below 2^-52.
        ValueError: num_bits out of range.
    """
    num_bits = checked_int("num_bits", num_bits, 1, 31)
    found = checked_values("values", values, np.float32, np.float64).copy()
    given = FactorArrays(factors)
    _core.ifmr_fake_quantise(found, num_bits, given.scale, given.offset)
    return found


def percentile_bounds(
    values: npt.NDArray[Float], *, max_percentile: float = 0.999999, min_percentile: float = 0.999999
) -> tuple[float, float]:
    """Bounds values by two percentiles: the lower bound, 0 or less, and the upper bound, 0 or more.

    Args:
        values: float32 or float64, any shape.
        max_percentile: the share of values at or below the upper bound, in (0, 1]; 1: the largest value.
        min_percentile: the share of values at or above the lower bound, in (0, 1]; 1: the smallest value.

    Raises:
        BadParamError: no values, NaN among them.
        ValueError: a percentile outside (0, 1].
    """
    checked_values("values", values, np.float32, np.float64)
    _check_percentiles(max_percentile, min_percentile)
    bounds = np.empty(2, values.dtype)
    _core.ifmr_percentile_bounds(values, max_percentile, min_percentile, bounds)
    low, high = bounds.tolist()
    return low, high
