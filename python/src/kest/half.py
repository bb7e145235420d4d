"""Half precision as kest rounds it: toward zero, without subnormals."""

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import checked


def to_float16(values: npt.NDArray[np.float32]) -> npt.NDArray[np.float16]:
    """The values rounded toward zero to half precision.

    `values.astype(numpy.float16)` differs: it rounds to the nearest, ties to even; keeps magnitudes below 2^-14 as
    subnormals, which are a zero of their sign here; and makes infinity of finite magnitudes from 65520 on, which are
    65504 here. Infinity and NaN stay.

    Args:
        values: float32, any shape.

    Returns:
        float16, in the shape of `values`.
    """
    found = np.empty(checked("values", values, np.float32).shape, np.float16)
    _core.half_to_float16(values, found.view(np.uint16))
    return found


def to_float32(values: npt.NDArray[np.float16]) -> npt.NDArray[np.float32]:
    """The same values in single precision, exact, subnormals included: what `values.astype(numpy.float32)` gives.

    Args:
        values: float16, any shape.
    """
    found = np.empty(checked("values", values, np.float16).shape, np.float32)
    _core.half_to_float32(values.view(np.uint16), found)
    return found
