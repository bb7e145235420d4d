"""Clusters worked by hand, and given factors against numpy."""

import kest
import numpy as np
import pytest
from kest.nuq import Factors

LAYOUTS = [(0, lambda a: a), (-1, lambda a: np.ascontiguousarray(np.moveaxis(a, 0, -1)))]


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
@pytest.mark.parametrize("axis, view", LAYOUTS)
def test_distinct_values_are_their_own_clusters(dtype, axis, view):
    random = np.random.default_rng(3)
    scale = np.array([0.5, 2, 0.25], np.float32)
    codes = random.choice([-64, 0, 5, 127], (3, 4, 9)).astype(np.int8)
    codes[:, 0, 0] = 127
    weights = view((codes * scale[:, None, None]).astype(dtype))
    values, factors = kest.nuq.quantise(weights, 4, channel_axis=axis)
    np.testing.assert_array_equal(factors.scale, scale)
    assert sorted(factors.clusters) == [-64, 0, 5, 127] and not factors.offset.any() and values.dtype == dtype
    np.testing.assert_array_equal(values, weights)
    assert values is not weights and not np.shares_memory(values, weights)
    np.testing.assert_array_equal(kest.nuq.codes(weights, factors, channel_axis=axis), view(codes))


def test_a_channel_weighs_by_the_square_of_its_scale_and_a_round_refits_it():
    weights = np.array([[127, 1], [254, 20]], np.float32)  # (128 + 4 * 137) / 10 = 67.6
    values, factors = kest.nuq.quantise(weights, 1)
    np.testing.assert_array_equal(factors.clusters, [68])
    np.testing.assert_array_equal(values, [[68, 68], [136, 136]])
    _, factors = kest.nuq.quantise(weights, 1, channel_axis=-1)  # (4 * 190.5 + 0.025 * 133.3) / 8.05 = 95.1
    np.testing.assert_array_equal(factors.clusters, [95])
    np.testing.assert_array_equal(factors.scale, np.float32([254, 20]) / np.float32(127))
    values, factors = kest.nuq.quantise(weights, 1, num_iterations=1)
    np.testing.assert_array_equal(factors.scale, np.float32([64 / 68, 137 / 68]))
    np.testing.assert_array_equal(values[:, 0], factors.scale * np.float32(68))
    _, factors = kest.nuq.quantise(weights, 1, channel_axis=None)
    np.testing.assert_array_equal(factors.scale, [2])
    values, factors = kest.nuq.quantise(np.array([[0.0, 255.0]]), 2, with_offset=True)
    np.testing.assert_array_equal(factors.offset, [-128])
    np.testing.assert_array_equal(values, [[-256, -1]])


@pytest.mark.parametrize("axis, view", LAYOUTS)
def test_given_factors_against_numpy(axis, view):
    random = np.random.default_rng(5)
    weights = random.normal(0, 9, (3, 50, 7)).astype(np.float32)
    weights[0, 0, :2] = np.inf, -np.inf
    factors = Factors(np.float32([0.1, 0.7, 2]), np.int32([0, 3, -2]), np.int32([9, 2, -5, -6, 30]))
    scale, offset = factors.scale[:, None, None], factors.offset[:, None, None].astype(np.float32)
    steps = np.clip(weights / scale - offset, np.float32(-8), np.float32(7))
    distances = np.trunc(np.abs(steps[..., None] - factors.clusters.astype(np.float32)))
    expected = (offset + factors.clusters[distances.argmin(-1)].astype(np.float32)) * scale
    for array in (factors.scale, factors.offset, factors.clusters):
        array.flags.writeable = False
    found = kest.nuq.fake_quantise(view(weights), factors, 4, channel_axis=axis)
    np.testing.assert_array_equal(found, view(expected))
    weights[0, 0] = 0
    steps = weights.astype(np.float64) / scale
    codes = (np.trunc(steps + np.copysign(0.5, steps)) + offset).astype(np.int64).astype(np.int8)
    np.testing.assert_array_equal(kest.nuq.codes(view(weights), factors, channel_axis=axis), view(codes))


def test_what_does_not_fit_is_an_error():
    weights = np.ones((2, 3), np.float32)
    _, factors = kest.nuq.quantise(weights, 2)
    for bad, error in ((np.array([[1, np.inf]]), kest.BadParamError), (np.ones((2, 0)), kest.BadParamError),
                       (np.full((1, 2), 1e10), kest.ScaleError)):
        with pytest.raises(error) as raised:
            kest.nuq.quantise(bad, 2)
        assert raised.value.step == "nuq.quantise" and "[ERROR]" in raised.value.log
    for call, match in ((lambda: kest.nuq.codes(weights, factors, channel_axis=-1), r"scale has .*\(3,\)"),
                        (lambda: kest.nuq.fake_quantise(weights, Factors(factors.scale, factors.offset[:1],
                                                                         factors.clusters)), "offset"),
                        (lambda: kest.nuq.fake_quantise(weights, Factors(factors.scale, factors.offset,
                                                                         factors.clusters[:0])), "clusters")):
        with pytest.raises(ValueError, match=match):
            call()
    with pytest.raises(kest.BadParamError, match="nuq.codes"):
        kest.nuq.codes(weights * np.float32(np.nan), factors)
    with pytest.raises(kest.BadParamError, match="nuq.fake_quantise"):
        kest.nuq.fake_quantise(weights[:0], Factors(factors.scale[:0], factors.offset[:0], factors.clusters))
