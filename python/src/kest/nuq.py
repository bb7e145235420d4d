"""NUQ: weights to a few integers that the whole tensor shares, with one scale and offset a channel.

Weighted k-means (Lloyd, 1982) over the weights on ARQ's grid of 8 bits, a channel weighing by the square of its scale,
from seeds as in k-means++ (Arthur and Vassilvitskii, 2007) but at fixed quantiles: nothing is random. Clustered
weights: Han et al., "Deep Compression", 2016.
"""

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import Float, checked, checked_int
from kest._channels import channels_of_weights, check_factors, to_first, to_last


@dataclass(frozen=True, eq=False)
class Factors:
    """A weight is about scale * (cluster + offset).

    Attributes:
        scale: float32, one a channel.
        offset: int32, one a channel.
        clusters: int32, the integers of the tensor, on the 8-bit grid, in no order.
    """

    scale: npt.NDArray[np.float32]
    offset: npt.NDArray[np.int32]
    clusters: npt.NDArray[np.int32]


def quantise(
    weights: npt.NDArray[Float],
    num_clusters: int = 16,
    *,
    num_iterations: int = 0,
    channel_axis: int | None = 0,
    with_offset: bool = False,
) -> tuple[npt.NDArray[Float], Factors]:
    """Finds clusters, scales and offsets, and replaces every weight by scale * (cluster + offset).

    Args:
        weights: float32 or float64, any shape, finite.
        num_clusters: how many integers, 1 to 256, all that the grid of 8 bits has.
        num_iterations: rounds that fit scales and offsets to the clusters and cluster anew. More than one round makes
            the clusters of a tensor with a channel of zeros NaN if none of them is 0.
        channel_axis: 0 or -1; None for one scale and offset.
        with_offset: an asymmetric grid. The result is near the weights only where the offsets come out near 0, which
            weights on both sides of 0 give; without it offsets are 0.

    Returns:
        The weights, a new array of their type, and the factors.

    Raises:
        BadParamError: no weights, NaN or infinity among them.
        ScaleError: a channel's scale is infinite or above 2^23.
        ValueError: num_clusters or channel_axis out of range.
    """
    num_channels, channel_last = channels_of_weights(weights, channel_axis, np.float32, np.float64)
    num_clusters = checked_int("num_clusters", num_clusters, 1, 256)
    num_iterations = checked_int("num_iterations", num_iterations, -(2**31))
    factors = Factors(
        np.zeros(num_channels, np.float32), np.zeros(num_channels, np.int32), np.zeros(num_clusters, np.int32)
    )
    first = to_first(weights, channel_last)
    values = np.empty(first.shape, first.dtype)
    _core.nuq_calibrate(
        first, num_iterations, bool(with_offset), values, factors.scale, factors.offset, factors.clusters
    )
    rows = values.reshape(num_channels, -1)
    rows += factors.offset[:, None].astype(rows.dtype)
    rows *= factors.scale[:, None].astype(rows.dtype)
    return to_last(values, channel_last), factors


def fake_quantise(
    weights: npt.NDArray[np.float32], factors: Factors, num_bits: int = 8, *, channel_axis: int | None = 0
) -> npt.NDArray[np.float32]:
    """Replaces every weight by scale * (cluster + offset) with given factors.

    The cluster is the first one whose distance to weight / scale - offset, clamped to the grid and truncated to an
    integer, is smallest.

    Args:
        weights: float32, any shape.
        factors: one scale and offset for each channel, one cluster or more.
        num_bits: the width of the grid, 1 to 32.
        channel_axis: 0 or -1; None for one scale and offset.

    Returns:
        A new array in the shape of the weights.

    Raises:
        BadParamError: no channels.
        ValueError: factors that do not fit the channels, no clusters, num_bits or channel_axis out of range.
    """
    num_bits = checked_int("num_bits", num_bits, 1, 32)
    num_channels, channel_last = channels_of_weights(weights, channel_axis, np.float32)
    check_factors(factors.scale, factors.offset, num_channels)
    if checked("clusters", factors.clusters, np.int32).size == 0:
        raise ValueError("clusters has to have one entry or more")
    first = to_first(weights, channel_last)
    values = np.empty(first.shape, first.dtype)
    _core.nuq_fake_quantise(first, num_bits, factors.scale, factors.offset, factors.clusters, values)
    return to_last(values, channel_last)


def codes(weights: npt.NDArray[Float], factors: Factors, *, channel_axis: int | None = 0) -> npt.NDArray[np.int8]:
    """The low 8 bits of round(weight / scale) + offset, in the shape of the weights.

    For weights of quantise without offsets these are their clusters.

    Args:
        weights: float32 or float64, any shape, finite.
        factors: one scale and offset for each channel.
        channel_axis: 0 or -1; None for one scale and offset.

    Raises:
        BadParamError: no weights, NaN or infinity among them.
        ValueError: factors that do not fit the channels, or channel_axis out of range.
    """
    num_channels, channel_last = channels_of_weights(weights, channel_axis, np.float32, np.float64)
    check_factors(factors.scale, factors.offset, num_channels)
    first = to_first(weights, channel_last)
    found = np.empty(first.shape, np.int8)
    _core.nuq_codes(first.astype(np.float64, copy=False), factors.scale, factors.offset, found)
    return to_last(found, channel_last)
