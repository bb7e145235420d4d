"""Weights and the axis of their channels."""

from typing import Any, TypeVar

import numpy as np
import numpy.typing as npt

from kest._arrays import checked
from kest._tensors import checked_tensor

Float = TypeVar("Float", np.float32, np.float64)
Scalar = TypeVar("Scalar", bound=np.generic)


def number_of_channels(
    weights: npt.NDArray[Any], channel_axis: int | None, *dtypes: npt.DTypeLike
) -> tuple[int, bool]:
    """How many channels the weights have, and whether they are the last axis.

    Raises:
        TypeError, ValueError: as checked_tensor.
        ValueError: the axis is neither the first nor the last, nor None.
    """
    checked_tensor("weights", weights, *dtypes)
    if channel_axis is None:
        return 1, False
    if weights.ndim == 0 or channel_axis not in (0, -1, weights.ndim - 1):
        raise ValueError("channel_axis has to be the first or the last axis, or None for one scale")
    return weights.shape[channel_axis], channel_axis != 0


def one_a_channel(name: str, array: npt.NDArray[Any], dtype: npt.DTypeLike, num_channels: int) -> None:
    """Raises TypeError and ValueError as checked, or ValueError for an array without one entry a channel."""
    if checked(name, array, dtype).shape != (num_channels,):
        raise ValueError(f"{name} has to have the shape ({num_channels},), not {array.shape}")


def to_first(weights: npt.NDArray[Scalar], channel_last: bool) -> npt.NDArray[Scalar]:
    """The weights with their channel first, in C order; they themselves if it is."""
    return np.ascontiguousarray(np.moveaxis(weights, -1, 0)) if channel_last else weights


def to_last(weights: npt.NDArray[Scalar], channel_last: bool) -> npt.NDArray[Scalar]:
    """Undoes to_first."""
    return np.ascontiguousarray(np.moveaxis(weights, 0, -1)) if channel_last else weights
