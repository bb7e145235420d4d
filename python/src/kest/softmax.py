"""Softmax with a polynomial in place of the exponential."""

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import Float, axis_of, checked


def rows(
    values: npt.NDArray[Float], *, square: float = 1 / 2, cube: float = 1 / 6, threshold: float = -1.596
) -> npt.NDArray[Float]:
    """The softmax of every row along the last axis: p / the row's sum of p.

    p(d) = cube * d^3 + square * d^2 + d + 1 with d = value - the row's maximum, 0 for d <= threshold. The
    coefficients and the threshold are used in single precision.

    A row is NaN that holds NaN or +inf, or no value from -3.4028235e38 on, the lowest float32. -inf becomes 0 in other
    rows. Without rows, or in rows of no values, there is nothing to do.

    Args:
        values: float32 or float64, with at least one axis.
        square: the coefficient of d^2; by default that of the exponential's series.
        cube: the coefficient of d^3, likewise.
        threshold: negative, in single precision too. With the series, p rises everywhere from its root at -1.596 on,
            and is negative below.

    Returns:
        An array of the shape and dtype of `values`.

    Raises:
        ValueError: a tensor without axes, or a threshold that is not negative.
    """
    checked("values", values, np.float32, np.float64)
    width, _ = axis_of("the last axis", values, -1)
    if not np.float32(threshold) < 0:
        raise ValueError(f"threshold has to be negative, not {threshold}")
    found = np.empty_like(values)
    _core.softmax_rows(values, width, square, cube, threshold, found)
    return found
