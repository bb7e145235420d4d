"""Fused scales against numpy."""

import kest
import numpy as np
import pytest

f32 = np.float32


def test_fused_scales():
    rng = np.random.default_rng(3)
    scale, variance = rng.random((2, 50), f32)
    gamma = rng.normal(size=50).astype(f32)
    deviation = np.sqrt(np.abs(variance + f32(0.01)).astype(float))
    expected = np.abs((scale * gamma).astype(float) / deviation * float(f32(1.7))).astype(f32)
    found = kest.fusion.fuse_weight_scales(scale, gamma, variance, epsilon=0.01, multiplier=1.7)
    np.testing.assert_array_equal(found, expected)
    assert found.dtype == f32


def test_small_scales_become_1_and_variances_count_by_magnitude():
    scale, gamma, variance = np.array([[1e-7, 2], [1, 3], [1, -4]], f32)
    np.testing.assert_array_equal(kest.fusion.fuse_weight_scales(scale, gamma, variance, epsilon=0), [1, 3])


def test_failures():
    one = np.ones(2, f32)
    with pytest.raises(kest.ScaleError, match="fusion.fuse_weight_scales failed with status 9"):
        kest.fusion.fuse_weight_scales(one, one, 0 * one, epsilon=0)
    for name, arrays in (("gamma", (one, one[:1], one)), ("variance", (one, one, np.ones(3, f32))),
                         ("scale", (np.ones((2, 1), f32), one, one))):
        with pytest.raises(ValueError, match=f"^{name} has to have"):
            kest.fusion.fuse_weight_scales(*arrays)
