"""DMQ factors against their formula."""

import kest
import numpy as np
import pytest

f32 = np.float32


@pytest.mark.parametrize("strength", [0.2, 0.5, 0.8])
def test_factors_along_any_axes(strength):
    rng = np.random.default_rng(6)
    activations = rng.normal(size=(8, 3, 3, 16)).astype(f32) * np.arange(1, 17, dtype=f32)
    activations[2, 1, 1, 3] = np.nan
    weights = rng.normal(size=(3, 3, 16, 5)).astype(f32)
    expected = (np.nanmax(np.abs(activations), (0, 1, 2)).astype(float) ** strength
                / np.abs(weights).max((0, 1, 3)).astype(float) ** (1 - strength))
    found = kest.balance.dmq_factors(activations, weights, strength)
    np.testing.assert_allclose(found, expected, rtol=1e-6)
    assert found.dtype == f32
    moved = [np.ascontiguousarray(np.moveaxis(a, axis, 1)) for a, axis in ((activations, -1), (weights, -2))]
    again = kest.balance.dmq_factors(*moved, strength, activation_axis=1, weight_axis=1)
    np.testing.assert_array_equal(again, found)


def test_channels_of_zeros():
    # The healthy channel's factor is sqrt(4) / sqrt(1), its scaled ranges are 2.
    activations, weights = np.array([[4, 8, 0, 0]], f32), np.array([[1], [0], [0.5], [0]], f32)
    np.testing.assert_allclose(kest.balance.dmq_factors(activations, weights), [2, 4, 4, 1])
    np.testing.assert_array_equal(kest.balance.dmq_factors(0 * activations, weights), [1, 1, 1, 1])


def test_arguments_that_do_not_fit():
    good = np.ones((3, 3), f32)
    with pytest.raises(ValueError, match="^weights have to have 3 channels along weight_axis"):
        kest.balance.dmq_factors(good, np.ones((2, 4), f32))
    with pytest.raises(ValueError, match="^activation_axis has to"):
        kest.balance.dmq_factors(good, good, activation_axis=2)
