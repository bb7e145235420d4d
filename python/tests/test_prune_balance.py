"""Pruning, masks and balance factors against numpy and hand-worked counts."""

import kest
import numpy as np
import pytest

equal = np.testing.assert_array_equal
floating = pytest.mark.parametrize("dtype", [np.float32, np.float64])


def test_prune_count():
    assert kest.prune.prune_count(64, 0.6) == 38 and kest.prune.prune_count(64, 0.6, align_to_16=True) == 32
    assert kest.prune.prune_count(10, 0.5, num_groups=3) == 7


@floating
@pytest.mark.parametrize("sizes, counts", [(None, [9]), ([3, 3, 6], [3, 0, 1])])
def test_the_weakest_channels_of_each_group_go(dtype, sizes, counts):
    rng = np.random.default_rng(8)
    strength = rng.permutation(12) + 1
    first = (rng.choice([-1, 1], (3, 3, 5, 12)) * strength).astype(dtype)
    second = (rng.choice([-1, 1], (12, 7)) * strength[:, None]).astype(dtype)
    found = kest.prune.keep_mask([first, second], [-1, 0], counts, group_sizes=sizes)
    groups = np.split(strength, np.cumsum(sizes or [12])[:-1])
    expected = [group > np.sort(np.append(0, group))[count] for group, count in zip(groups, counts)]
    equal(found, np.concatenate(expected).astype(dtype), strict=True)


def test_scores_of_tensors_are_added():
    first = np.array([[0, 1, 10]], np.float32)   # norms mapped to 0, 0.1, 1
    second = np.array([[3], [1], [2]], np.float32)  # and to 1, 0, 0.5
    equal(kest.prune.keep_mask([first], [1], [1]), [0, 1, 1])
    equal(kest.prune.keep_mask([first, second], [1, 0], [1]), [1, 0, 1])


@floating
def test_n_of_m(dtype):
    """Groups of 4 and of what is left, channel 2 aside."""
    values = np.random.default_rng(3).normal(size=(3, 8, 2)).astype(dtype)
    expected = np.ones_like(values)
    for group in [0, 1, 3, 4], [5, 6, 7]:
        expected[:, group] = np.argsort(np.argsort(-np.abs(values[:, group]), axis=1), axis=1) < 2
    found = kest.masks.n_of_m(values, np.int8(2), np.uint8(4), axis=-2, selected=np.arange(8) != 2)
    equal(found, expected, strict=True)
    equal(kest.masks.n_of_m(values, 70, 99, axis=1), np.ones_like(values))
    equal(kest.masks.n_of_m(values, 1, 2**24, axis=2), np.abs(values) == np.abs(values).max(2, keepdims=True))


@floating
@pytest.mark.parametrize("row_axis, column_axis, pair", [(1, 2, "bc"), (-1, 0, "ca")])
def test_masks_of_two_axes(dtype, row_axis, column_axis, pair):
    rng = np.random.default_rng(4)
    values = rng.normal(size=(3, 4, 5)).astype(dtype)
    rows, columns = (rng.integers(0, 2, values.shape[a]).astype(dtype) for a in (row_axis, column_axis))
    columns[0] = np.nan  # is not 0
    mask = kest.masks.from_rows_and_columns(rows, columns)
    equal(mask, np.outer(rows != 0, columns != 0).astype(dtype), strict=True)
    mask = rng.normal(size=mask.shape).astype(dtype)
    found = kest.masks.apply(mask, values, row_axis=row_axis, column_axis=column_axis)
    equal(found, np.einsum(f"{pair},abc->abc", mask, values), strict=True)


def test_balance_factors_along_any_axes():
    rng = np.random.default_rng(6)
    x, w = rng.normal(size=(8, 3, 16)).astype(np.float32), rng.normal(size=(3, 16, 5)).astype(np.float32)
    expected = np.abs(x).max((0, 1)) ** 0.2 / np.abs(w).max((0, 2)) ** 0.8
    np.testing.assert_allclose(kest.balance.dmq_factors(x, w, 0.2), expected, rtol=1e-6, strict=True)
    found = kest.balance.dmq_factors(x.T.copy(), w.swapaxes(1, 2).copy(), 0.2, activation_axis=0, weight_axis=-1)
    np.testing.assert_allclose(found, expected, rtol=1e-6)
