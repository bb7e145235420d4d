"""Tensors and the axis of their channels."""

from typing import Any, SupportsIndex, TypeVar

import numpy as np
import numpy.typing as npt

from kest._arrays import axis_of, check_shape, checked

Scalar = TypeVar("Scalar", bound=np.generic)


def channels_of(
    values: npt.NDArray[Any],
    channel_axis: SupportsIndex | None,
    name: str,
    factors: npt.NDArray[Any],
    dtype: npt.DTypeLike,
) -> tuple[int, int]:
    """How many channels `values` has on any axis, one without an axis, and how many elements lie behind each.

    Raises:
        TypeError, ValueError: as axis_of; as checked, and for another shape than one entry a channel, of `factors`.
    """
    count, stride = (1, values.size) if channel_axis is None else axis_of("channel_axis", values, channel_axis)
    check_shape(name, checked(name, factors, dtype), (count,))
    return count, stride


def channels_of_weights(
    weights: npt.NDArray[Any], channel_axis: SupportsIndex | None, *dtypes: npt.DTypeLike
) -> tuple[int, bool]:
    """How many channels the weights have, and whether they are the last axis.

    Raises:
        TypeError, ValueError: as checked and axis_of.
        ValueError: the axis is neither the first nor the last, nor None.
    """
    checked("weights", weights, *dtypes)
    if channel_axis is None:
        return 1, False
    count, _ = axis_of("channel_axis", weights, channel_axis)
    if channel_axis not in (0, -weights.ndim, -1, weights.ndim - 1):
        raise ValueError("channel_axis has to be the first or the last axis, or None for one scale")
    return count, channel_axis not in (0, -weights.ndim)


def check_factors(scale: npt.NDArray[np.float32], offset: npt.NDArray[np.int32], num_channels: int) -> None:
    """Raises TypeError and ValueError as checked, or ValueError for arrays without one entry a channel."""
    check_shape("scale", checked("scale", scale, np.float32), (num_channels,))
    check_shape("offset", checked("offset", offset, np.int32), (num_channels,))


def to_first(weights: npt.NDArray[Scalar], channel_last: bool) -> npt.NDArray[Scalar]:
    """The weights with their channel first, in C order; they themselves if it is."""
    return np.ascontiguousarray(np.moveaxis(weights, -1, 0)) if channel_last else weights


def to_last(weights: npt.NDArray[Scalar], channel_last: bool) -> npt.NDArray[Scalar]:
    """Undoes to_first."""
    return np.ascontiguousarray(np.moveaxis(weights, 0, -1)) if channel_last else weights
