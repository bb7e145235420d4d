"""Arrays that a kernel can read where they lie."""

from typing import Any

import numpy as np
import numpy.typing as npt


def checked(name: str, array: npt.NDArray[Any], *dtypes: npt.DTypeLike) -> npt.NDArray[Any]:
    """Returns `array`.

    Raises:
        TypeError: it is no array, or of none of the types.
        ValueError: it is not in C order, not aligned, or not in the machine's byte order.
    """
    if not isinstance(array, np.ndarray):
        raise TypeError(f"{name} has to be a numpy array, not {type(array).__name__}")
    if array.dtype.newbyteorder("=") not in [np.dtype(dtype) for dtype in dtypes]:
        wanted = " or ".join(np.dtype(dtype).name for dtype in dtypes)
        raise TypeError(f"{name} has to be {wanted}, not {array.dtype.name}")
    if not array.dtype.isnative:
        raise ValueError(f"{name} has to be in the machine's byte order")
    if not array.flags.c_contiguous:
        raise ValueError(f"{name} has to be in C order: use numpy.ascontiguousarray")
    if not array.flags.aligned:
        raise ValueError(f"{name} has to be aligned: use numpy.require(array, requirements='A')")
    return array
