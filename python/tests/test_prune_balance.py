"""Pruning, masks and balance factors against numpy and hand-worked masks."""

import kest
import numpy as np
import pytest

equal = np.testing.assert_array_equal
floating = pytest.mark.parametrize("dtype", [np.float32, np.float64])


def test_prune_count():
    assert kest.prune.prune_count(64, 0.6) == 38 and kest.prune.prune_count(64, 0.6, align_to_16=True) == 32
    assert kest.prune.prune_count(10, 0.5, num_groups=3) == 7


@floating
def test_the_weakest_channels_of_each_group_go(dtype):
    strength = np.array([5, 1, 4, 2, 3], dtype)
    tensors = [strength * np.ones((2, 3, 5), dtype), strength[:, np.newaxis] * np.ones((5, 7), dtype)]
    found = kest.prune.keep_mask(tensors, [-1, 0], [2, 1], group_sizes=[3, 2])
    equal(found, np.array([1, 0, 0, 0, 1], dtype), strict=True)


def test_scores_of_tensors_are_added():
    first = np.array([[0, 1, 10]], np.float32)   # norms mapped to 0, 0.1, 1
    second = np.array([[3, 3], [1, 1], [2, 2]], np.float32)  # and to 1, 0, 0.5
    equal(kest.prune.keep_mask([first], [1], [1]), [0, 1, 1])
    equal(kest.prune.keep_mask([first, second], [1, 0], [1]), [1, 0, 1])


@floating
def test_n_of_m(dtype):
    """Groups of 4 and of what is left, channel 2 aside."""
    values = np.array([[[1, 9], [-3, 2], [0, 1], [4, 3], [2, 8], [5, 1], [-7, 4], [6, 5]]], dtype)
    found = kest.masks.n_of_m(values, np.int8(2), np.uint8(4), axis=-2, selected=np.arange(8) != 2)
    equal(found, np.array([[[0, 1], [1, 0], [1, 1], [1, 0], [0, 1], [0, 0], [1, 1], [1, 1]]], dtype), strict=True)
    equal(kest.masks.n_of_m(values, 70, 99, axis=1), np.ones_like(values))
    equal(kest.masks.n_of_m(values, 1, 2**24, axis=2), np.abs(values) == np.abs(values).max(2, keepdims=True))


@floating
def test_masks_of_two_axes(dtype):
    mask = kest.masks.from_rows_and_columns(np.array([1, 0, 2], dtype), np.array([0, np.nan], dtype))
    equal(mask, np.array([[0, 1], [0, 0], [0, 1]], dtype), strict=True)
    mask, values = np.arange(15, dtype=dtype).reshape(5, 3), np.arange(60, dtype=dtype).reshape(3, 4, 5)
    found = kest.masks.apply(mask, values, row_axis=-1, column_axis=0)
    equal(found, mask.T[:, np.newaxis] * values, strict=True)


def test_balance_factors_along_any_axes():
    rng = np.random.default_rng(6)
    x, w = rng.normal(size=(8, 3, 16)).astype(np.float32), rng.normal(size=(3, 16, 5)).astype(np.float32)
    expected = np.abs(x).max((0, 1)) ** 0.2 / np.abs(w).max((0, 2)) ** 0.8
    np.testing.assert_allclose(kest.balance.dmq_factors(x, w, 0.2), expected, rtol=1e-6, strict=True)
    found = kest.balance.dmq_factors(x.T.copy(), w.swapaxes(1, 2).copy(), 0.2, activation_axis=0, weight_axis=-1)
    np.testing.assert_allclose(found, expected, rtol=1e-6)
