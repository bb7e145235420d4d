"""Masks of weights: 1 where kept, 0 where pruned.

N of M: Mishra et al., "Accelerating Sparse Deep Neural Networks", 2021.
"""

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import Float, axis_of, check_shape, checked, checked_int

_MAX_CHANNELS = 2**24  # the kernel counts groups in single precision


def n_of_m(
    values: npt.NDArray[Float],
    keep: int,
    group_size: int,
    *,
    axis: int,
    selected: npt.NDArray[np.bool_] | None = None,
) -> npt.NDArray[Float]:
    """Keeps the `keep` largest magnitudes of every `group_size` consecutive selected channels.

    The choice is made at each position of the other axes. Equal magnitudes keep the lower channel; NaN counts as the
    largest. The last group may be short: it is filled up with zeros, which go behind equal magnitudes.

    Args:
        values: float32 or float64.
        keep: N, 0 or more; the group's size and more keep all.
        group_size: M, 1 to 2^24.
        axis: that of the channels, any; at most 2^24 of them.
        selected: bool, one for each channel: the channels that take part. The others are kept whole, and the groups
            close up. None for all.

    Returns:
        The mask, of the shape and dtype of `values`.

    Raises:
        BadParamError: no values.
        ValueError: counts out of range, a selection that does not fit, a workspace of 2^31 elements or more.
    """
    checked("values", values, np.float32, np.float64)
    num_channels, stride = axis_of("axis", values, axis)
    if num_channels > _MAX_CHANNELS:
        raise ValueError("axis has to have at most 2^24 channels")
    group_size = checked_int("group_size", group_size, 1, _MAX_CHANNELS)
    keep = checked_int("keep", keep, 0)
    if selected is None:
        selected = np.ones(num_channels, np.bool_)
    check_shape("selected", checked("selected", selected, np.bool_), (num_channels,))
    chosen = selected.astype(values.dtype)  # a copy that no other thread changes
    num_selected = int(np.count_nonzero(chosen))
    group_size = min(group_size, max(1, num_selected))  # the zeros that would fill up a group go last
    num_groups = -(-num_selected // group_size)
    outer = values.size // max(1, num_channels * stride)
    workspace_size = outer * num_groups * group_size * stride
    if workspace_size > 2**31 - 1:
        raise ValueError("group_size pads the selected channels to 2^31 elements or more")
    mask = np.ones_like(values)
    workspace = np.empty(workspace_size, values.dtype)
    shape = (outer, num_channels, stride)
    _core.masks_n_of_m(values, chosen, workspace, shape, min(keep, group_size), group_size, mask)
    return mask


def from_rows_and_columns(rows: npt.NDArray[Float], columns: npt.NDArray[Float]) -> npt.NDArray[Float]:
    """The mask that keeps an entry where its row and its column are not 0.

    Args:
        rows: float32 or float64, one axis.
        columns: one axis, of the dtype of `rows`.

    Returns:
        An array [row][column] of their dtype.

    Raises:
        BadParamError: no columns.
        ValueError: more than one axis, or 2^31 entries or more.
    """
    checked("rows", rows, np.float32, np.float64)
    checked("columns", columns, rows.dtype)
    if rows.ndim != 1 or columns.ndim != 1:
        raise ValueError("rows and columns have to have one axis")
    if max(rows.size * columns.size, columns.size) > 2**31 - 1:
        raise ValueError("rows and columns have to have fewer than 2^31 pairs")
    mask = np.empty((rows.size, columns.size), rows.dtype)
    _core.masks_from_rows_and_columns(rows, columns, mask, np.empty_like(mask))
    return mask


def apply(
    mask: npt.NDArray[Float], values: npt.NDArray[Float], *, row_axis: int, column_axis: int
) -> npt.NDArray[Float]:
    """mask entry * value, with the mask over two axes of a tensor.

    Args:
        mask: [row][column], float32 or float64.
        values: a tensor of the dtype of `mask`.
        row_axis: the axis of `values` that the mask's rows follow.
        column_axis: the axis that its columns follow, another one.

    Returns:
        The products, in the shape of `values`.

    Raises:
        ValueError: one axis twice, or a mask that does not fit them.
    """
    checked("mask", mask, np.float32, np.float64)
    checked("values", values, mask.dtype)
    num_rows, row_stride = axis_of("row_axis", values, row_axis)
    num_columns, column_stride = axis_of("column_axis", values, column_axis)
    if row_axis % values.ndim == column_axis % values.ndim:
        raise ValueError("row_axis and column_axis have to differ")
    check_shape("mask", mask, (num_rows, num_columns))
    found = np.empty_like(values)
    _core.masks_apply(mask, values, row_stride, column_stride, found)
    return found
