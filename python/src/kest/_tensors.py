"""Tensors and their axes, as kernels with 32-bit lengths take them."""

import math
import operator
from typing import Any, SupportsIndex

import numpy.typing as npt

from kest._arrays import checked

_MAX_INT = 2**31 - 1


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


def checked_tensor(name: str, array: npt.NDArray[Any], *dtypes: npt.DTypeLike) -> npt.NDArray[Any]:
    """`checked`, and a ValueError for 2^31 elements or more."""
    if checked(name, array, *dtypes).size > _MAX_INT:
        raise ValueError(f"{name} has to have fewer than 2^31 elements")
    return array


def axis_of(name: str, array: npt.NDArray[Any], axis: int) -> tuple[int, int]:
    """How many entries an axis has, and how many elements lie behind each. A negative axis counts from the end.

    Raises:
        ValueError: `array` has no such axis, or 2^31 entries or elements behind them (where another axis has none).
    """
    if not -array.ndim <= axis < array.ndim:
        raise ValueError(f"{name} has to be an axis of a tensor of {array.ndim} dimensions, not {axis}")
    axis %= array.ndim
    count, stride = array.shape[axis], math.prod(array.shape[axis + 1 :])
    if max(count, stride) > _MAX_INT:
        raise ValueError(f"{name} has to have fewer than 2^31 entries, and elements behind each")
    return count, stride
