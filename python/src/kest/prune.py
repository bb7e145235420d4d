"""Structured pruning: the output channels of a layer with the weakest filters.

Li et al., "Pruning Filters for Efficient ConvNets", 2017.
"""

from collections.abc import Sequence

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import Float, axis_of, checked, checked_int


def prune_count(num_channels: int, ratio: float, *, num_groups: int = 1, align_to_16: bool = False) -> int:
    """How many channels to prune.

    The number kept is rounded up to a multiple of 16 if `align_to_16` (not above num_channels), then down to one of
    num_groups, and is at least num_groups.

    Args:
        num_channels: up to 2^24, which single precision counts.
        ratio: the share to prune, 0 to 1; in single precision.
        num_groups: 1 to num_channels.
        align_to_16: keep multiples of 16.

    Raises:
        ValueError: arguments out of range.
    """
    num_channels = checked_int("num_channels", num_channels, 1, 2**24)
    num_groups = checked_int("num_groups", num_groups, 1, num_channels)
    if not 0 <= ratio <= 1:
        raise ValueError(f"ratio has to be 0 to 1, not {ratio}")
    return _core.prune_count(num_channels, num_groups, ratio, bool(align_to_16))


def keep_mask(
    tensors: Sequence[npt.NDArray[Float]],
    channel_axes: Sequence[int],
    prune_counts: Sequence[int],
    *,
    group_sizes: Sequence[int] | None = None,
) -> npt.NDArray[Float]:
    """Which channels stay when the weakest of each group are pruned.

    Every tensor adds to the scores of the channels the L2 norms of their filters, mapped to [0, 1] within each group.
    Equal scores prune the lower channel; a NaN score counts as the strongest.

    Args:
        tensors: all float32 or all float64, at least one, with as many channels each.
        channel_axes: for each tensor the axis of the channels, any.
        prune_counts: for each group how many channels to prune.
        group_sizes: the channels of each group, which are consecutive. None for one group of all.

    Returns:
        1 or 0 for each channel, in the dtype of the tensors. numpy.split(mask, numpy.cumsum(group_sizes)[:-1]) gives
        the groups.

    Raises:
        BadParamError: no channels, or a tensor with no elements behind them.
        TypeError: tensors of several types.
        ValueError: tensors, axes, sizes and counts that do not fit each other.
    """
    if len(tensors) == 0 or len(channel_axes) != len(tensors):
        raise ValueError("channel_axes has to have an entry for each tensor, of which there has to be one")
    checked("tensors", tensors[0], np.float32, np.float64)
    num_channels, _ = axis_of("channel_axes", tensors[0], channel_axes[0])
    strides = []
    for tensor, axis in zip(tensors, channel_axes):
        count, stride = axis_of("channel_axes", checked("tensors", tensor, tensors[0].dtype), axis)
        if count != num_channels:
            raise ValueError(f"tensors have to have one number of channels, not {num_channels} and {count}")
        strides.append(stride)
    given = [num_channels] if group_sizes is None else group_sizes
    sizes = [checked_int("group_sizes", size, 0, num_channels) for size in given]
    if sum(sizes) != num_channels:
        raise ValueError(f"group_sizes has to have the sum {num_channels}")
    if len(prune_counts) != len(sizes):
        raise ValueError("prune_counts has to have an entry for each group")
    counts = [checked_int("prune_counts", n, 0, size) for n, size in zip(prune_counts, sizes)]
    mask = np.zeros(num_channels, tensors[0].dtype)
    _core.prune_keep_mask(list(tensors), strides, sizes, counts, np.empty_like(mask), mask)
    return mask
