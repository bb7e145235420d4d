"""Masks against numpy written plainly."""

import kest
import numpy as np
import pytest

f32 = np.float32


def plain_n_of_m(values, keep, group_size, axis, selected):
    mask = np.ones_like(values)
    channels, kept = np.moveaxis(values, axis, 0), np.moveaxis(mask, axis, 0)
    chosen = np.flatnonzero(selected)
    for first in range(0, len(chosen), group_size):
        group = chosen[first:first + group_size]
        order = np.argsort(-np.abs(channels[group]), axis=0, kind="stable")
        kept[group] = np.argsort(order, axis=0) < keep  # the rank of each
    return mask


@pytest.mark.parametrize("dtype", [f32, np.float64])
@pytest.mark.parametrize("axis", [0, 1, -1])
@pytest.mark.parametrize("keep, group_size", [(2, 4), (0, 3), (5, 5), (70, 99)])
def test_n_of_m_along_any_axis(dtype, axis, keep, group_size):
    rng = np.random.default_rng(group_size)
    values = rng.integers(-9, 10, (9, 20, 14)).astype(dtype)  # with ties
    everything = np.ones(values.shape[axis], bool)
    for selected in (None, rng.random(values.shape[axis]) < 0.7):
        found = kest.masks.n_of_m(values, np.int8(keep), np.uint8(group_size), axis=axis, selected=selected)
        expected = plain_n_of_m(values, keep, group_size, axis, everything if selected is None else selected)
        np.testing.assert_array_equal(found, expected)
        assert found.dtype == dtype


@pytest.mark.parametrize("dtype", [f32, np.float64])
def test_masks_of_two_axes(dtype):
    rng = np.random.default_rng(4)
    values = rng.normal(size=(3, 4, 5, 6)).astype(dtype)
    for row_axis, column_axis in ((2, 3), (3, 2), (0, -3), (-1, 0)):
        rows, columns = (rng.integers(0, 2, values.shape[a]).astype(dtype) for a in (row_axis, column_axis))
        columns[0] = np.nan  # is not 0
        mask = kest.masks.from_rows_and_columns(rows, columns)
        np.testing.assert_array_equal(mask, np.outer(rows != 0, columns != 0))
        mask = rng.normal(size=mask.shape).astype(dtype)
        found = kest.masks.apply(mask, values, row_axis=row_axis, column_axis=column_axis)
        letters = "abcd"
        pair = letters[row_axis] + letters[column_axis]
        np.testing.assert_array_equal(found, np.einsum(f"{pair},abcd->abcd", mask, values))
        assert mask.dtype == found.dtype == dtype


def test_what_the_kernels_reject():
    with pytest.raises(kest.BadParamError, match="masks.n_of_m failed with status 8:\n.*ERROR.*shape is 0"):
        kest.masks.n_of_m(np.ones((4, 0)), 2, 4, axis=0)
    with pytest.raises(kest.BadParamError, match="masks.from_rows_and_columns failed with status 8"):
        kest.masks.from_rows_and_columns(np.ones(3), np.ones(0))


@pytest.mark.parametrize("call, name", [
    (lambda v: kest.masks.n_of_m(v, 2, 2**24, axis=0, selected=np.ones(6, bool)), "selected"),
    (lambda v: kest.masks.from_rows_and_columns(v, v), "rows and columns"),
    (lambda v: kest.masks.apply(v, v, row_axis=0, column_axis=-2), "row_axis and column_axis"),
    (lambda v: kest.masks.apply(v, v, row_axis=1, column_axis=0), "mask"),
])
def test_arguments_that_do_not_fit(call, name):
    with pytest.raises(ValueError, match=f"^{name} (has|have|pads)"):
        call(np.ones((4, 6), f32))
