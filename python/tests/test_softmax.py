"""The polynomial softmax against its formula."""

import kest
import numpy as np
import pytest


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_rows_along_the_last_axis(dtype):
    values = np.random.default_rng(2).normal(scale=2, size=(3, 50, 10)).astype(dtype)
    values[1, 7, 3] = np.nan
    values[1, 8, 3] = -np.inf
    d = values - np.fmax.reduce(values, axis=-1, keepdims=True)
    d = np.where(d == -np.inf, dtype(-9), d)
    p = np.where(d <= -1.596, 0, 1 + d + d**2 / 2 + d**3 / 6)
    expected = p / p.sum(-1, keepdims=True)
    found = kest.softmax.rows(values)
    np.testing.assert_allclose(found, expected, rtol=1e-3, atol=1e-6)
    assert found.dtype == dtype and np.isnan(found[1, 7]).all() and np.isnan(found).sum() == 10


def test_coefficients_and_threshold():
    values = np.array([1, 2, 3], np.float32)
    found = kest.softmax.rows(values, square=0.5, cube=0.25, threshold=-3)
    np.testing.assert_array_equal(found, [-4, 1, 4])  # -1, 1/4, 1 by their sum of 1/4
    np.testing.assert_array_equal(kest.softmax.rows(values, cube=0.25, threshold=-2), np.float32([0, 0.2, 0.8]))


def test_rows_that_have_no_softmax():
    rows = np.array([[np.inf, 1], [np.nan, 1], [-np.inf, -np.inf], [-1e39, -np.inf]])
    assert np.isnan(kest.softmax.rows(rows)).all()


def test_arguments_that_do_not_fit():
    for threshold in (0, np.nan, -1e-50):
        with pytest.raises(ValueError, match="threshold has to be negative"):
            kest.softmax.rows(np.ones(3), threshold=threshold)
    with pytest.raises(ValueError, match="the last axis"):
        kest.softmax.rows(np.array(1.0))
    assert kest.softmax.rows(np.ones((4, 0))).shape == (4, 0)
