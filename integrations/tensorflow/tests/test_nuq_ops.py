"""NUQ weights, eager and in graphs, against clusters worked by hand."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

Invalid = tf.errors.InvalidArgumentError


def test_distinct_values_are_their_own_clusters():
    """Whatever channel they are in, the last axis, which kest has first."""
    scales = np.float32([0.5, 2, 0.25])
    codes = np.random.default_rng(3).choice([-64, 0, 5, 127], (4, 9, 3))
    codes[0, 0] = 127
    weights = (codes * scales).astype(np.float32)
    quantised, scale, offset, clusters = both_ways(lambda w: kest.nuq_weights(w, 4), weights)
    np.testing.assert_array_equal(quantised, weights)
    np.testing.assert_array_equal(scale, scales)
    np.testing.assert_array_equal(offset, [0, 0, 0])
    assert sorted(clusters) == [-64, 0, 5, 127]


def test_a_channel_weighs_by_the_square_of_its_scale_and_a_round_refits_it():
    weights = np.float32([[127, 254], [1, 20]])  # (128 + 4 * 137) / 10 = 67.6
    quantised, _, _, clusters = kest.nuq_weights(weights, 1)
    np.testing.assert_array_equal(clusters, [68])
    np.testing.assert_array_equal(quantised, [[68, 136], [68, 136]])
    quantised, scale, *_ = kest.nuq_weights(weights, 1, num_iterations=1)
    np.testing.assert_array_equal(scale, np.float32([64 / 68, 137 / 68]))
    np.testing.assert_array_equal(quantised[0], scale * 68)


def test_offset():
    quantised, scale, offset, clusters = kest.nuq_weights([[0.0], [255.0]], 2, with_offset=True)
    assert scale.numpy() == [1] and offset.numpy() == [-128] and sorted(clusters.numpy()) == [-128, 127]
    np.testing.assert_array_equal(quantised, [[-256], [-1]])  # scale * (centre + offset)


def test_given_factors():
    """The first centre whose distance, less its fraction, is smallest; the channels are the last axis."""
    weights = np.float32([[8.9, 20], [-3, -100], [9.5, 3]])
    given = np.float32([1, 2]), np.int32([0, 1]), np.int32([10, 9, -3])
    got = both_ways(lambda w: kest.fake_quantise_nuq(w, *given), weights)
    np.testing.assert_array_equal(got, [[9, 20], [-3, -4], [10, -4]])
    quantised, *factors = kest.nuq_weights(weights, 3)
    np.testing.assert_array_equal(kest.fake_quantise_nuq(quantised, *factors), quantised)
    for factors, message in [((given[0], given[1][:1], given[2]), "offset has to"), ((*given[:2], []), "no clusters")]:
        with pytest.raises(Invalid, match=message):
            kest.fake_quantise_nuq(weights, *factors)


def test_errors():
    with pytest.raises(Invalid, match=r"KestNuqWeights.* failed with status -65530"):
        kest.nuq_weights([[np.nan]])
    for weights, message in [(np.zeros((0, 2), np.float32), "no weights"), (1.0, "no axis -1|at least rank 1")]:
        with pytest.raises(Invalid, match=message):
            kest.nuq_weights(weights)
