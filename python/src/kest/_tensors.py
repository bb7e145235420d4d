"""Tensors and their axes, as kernels with 32-bit lengths take them."""

import math
from typing import Any

import numpy.typing as npt

from kest._arrays import checked

_MAX_INT = 2**31 - 1


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
