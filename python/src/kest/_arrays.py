"""Arguments that a kernel can take: arrays where they lie, axes and whole numbers."""

import math
import operator
import os
from typing import Any, SupportsIndex, TypeVar

import numpy as np
import numpy.typing as npt

Float = TypeVar("Float", np.float32, np.float64)
AnyPath = str | bytes | os.PathLike[str] | os.PathLike[bytes]

_MAX_INT = 2**31 - 1


def checked(
    name: str, array: npt.NDArray[Any], *dtypes: npt.DTypeLike, longest: int = _MAX_INT
) -> npt.NDArray[Any]:
    """Returns `array`.

    Raises:
        TypeError: it is no array, a masked one, or of none of the types.
        ValueError: it has more than `longest` elements, or is not in C order, not aligned, or not in the machine's byte
            order.
    """
    if not isinstance(array, np.ndarray):
        raise TypeError(f"{name} has to be a numpy array, not {type(array).__name__}")
    if isinstance(array, np.ma.MaskedArray):
        raise TypeError(f"{name} has to be an array without a mask, which kernels do not see: use its filled()")
    if array.dtype.newbyteorder("=") not in [np.dtype(dtype) for dtype in dtypes]:
        wanted = " or ".join(np.dtype(dtype).name for dtype in dtypes)
        raise TypeError(f"{name} has to be {wanted}, not {array.dtype.name}")
    if array.size > longest:
        raise ValueError(f"{name} has to have at most {longest} elements, not {array.size}")
    if not array.dtype.isnative:
        raise ValueError(f"{name} has to be in the machine's byte order")
    if not array.flags.c_contiguous:
        raise ValueError(f"{name} has to be in C order: use numpy.ascontiguousarray")
    if not array.flags.aligned:
        raise ValueError(f"{name} has to be aligned: use numpy.require(array, requirements='A')")
    return array


def check_shape(name: str, array: npt.NDArray[Any], shape: tuple[int, ...]) -> None:
    """Raises ValueError for another shape."""
    if array.shape != shape:
        raise ValueError(f"{name} has to have the shape {shape}, not {array.shape}")


def checked_int(name: str, value: SupportsIndex, low: int, high: int = _MAX_INT) -> int:
    """`value` as Python's own integer, which does not wrap around.

    Raises:
        TypeError: it is no whole number by its type.
        ValueError: it is outside low to high.
    """
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{name} has to be a whole number, not {type(value).__name__}") from None
    if not low <= number <= high:
        raise ValueError(f"{name} has to be {low} to {high}, not {number}")
    return number


def checked_offset(value: SupportsIndex) -> int:
    """An offset of 32 bits. Raises as checked_int."""
    return checked_int("offset", value, -(2**31))


def axis_of(name: str, array: npt.NDArray[Any], axis: SupportsIndex) -> tuple[int, int]:
    """How many entries an axis has, and how many elements lie behind each. A negative axis counts from the end.

    Raises:
        TypeError: `axis` is no whole number.
        ValueError: `array` has no such axis, or 2^31 entries or elements behind them (where another axis has none).
    """
    if array.ndim == 0:
        raise ValueError(f"{name} has to be an axis, of which a tensor of 0 dimensions has none")
    axis = checked_int(name, axis, -array.ndim, array.ndim - 1) % array.ndim
    count, stride = array.shape[axis], math.prod(array.shape[axis + 1 :])
    if max(count, stride) > _MAX_INT:
        raise ValueError(f"{name} has to have fewer than 2^31 entries, and elements behind each")
    return count, stride


def checked_path(name: str, path: AnyPath) -> bytes:
    """The bytes by which the system knows a path."""
    encoded = os.fsencode(path)
    if b"\0" in encoded:
        raise ValueError(f"{name} has to be without a NUL: {encoded!r}")
    return encoded
