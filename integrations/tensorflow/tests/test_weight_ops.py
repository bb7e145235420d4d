"""Quantisation of weights, batch-norm fusion and balancing, eager and in graphs, against numpy."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

Invalid = tf.errors.InvalidArgumentError
rng = np.random.default_rng(0)


def fake_quantise(w, step, num_bits):
    half = 2 ** (num_bits - 1)
    q = w / step
    return np.clip(np.trunc(q + np.copysign(np.float32(0.5), q)), -half, half - 1) * step


@pytest.mark.parametrize("num_bits", [2, 4, 8])
def test_arq_weights(num_bits):
    w = rng.normal(size=(3, 2, 5)).astype(np.float32)
    w[0, 0, :2] = [9, -9]  # a channel for either end of the grid
    quantised, scale, offset = both_ways(lambda w: kest.arq_weights(w, num_bits), w)
    low, high = w.min((0, 1)), w.max((0, 1))
    half = 2 ** (num_bits - 1)
    np.testing.assert_array_equal(scale, np.where(high > -low, high / np.float32(half - 1), low / np.float32(-half)))
    np.testing.assert_array_equal(quantised, fake_quantise(w, scale, num_bits))
    np.testing.assert_array_equal(offset, np.zeros(5, np.int32))


def test_arq_weights_errors():
    """What kest refuses is told in its own words."""
    with pytest.raises(Invalid, match=r"(?s)KestArqWeights.* failed with status -65519 .*scale is illegal"):
        kest.arq_weights([[np.inf, 1.0]])
    for w, num_bits, message in [([], 8, "no weights"), (1.0, 8, "no axis -1"), ([1.0], 32, "at most 31")]:
        with pytest.raises(Invalid, match=message):
            kest.arq_weights(w, num_bits)
    with pytest.raises(Invalid, match="KestArqWeights 'conv1/weights': failed with status -65519 .STATUS_SCALE_ERROR"):
        tf.function(lambda w: kest.arq_weights(w, name="conv1/weights"))(tf.constant([np.inf]))


def test_arq_codes():
    w = rng.normal(1, size=(3, 2, 5)).astype(np.float32)
    quantised, scale, offset = both_ways(lambda w: kest.arq_weights(w, 4, with_offset=True), w)
    np.testing.assert_array_equal(offset, -8 - np.rint(np.minimum(w.min((0, 1)), 0) / scale))
    w[0] *= 2  # beyond the grid too
    codes = both_ways(lambda w: kest.arq_codes(w, scale, offset, 4), w)
    np.testing.assert_array_equal(codes, np.clip(np.trunc(w / scale + np.copysign(0.5, w)) + offset, -8, 7))
    np.testing.assert_array_equal(np.float32(codes - offset)[1:] * scale, quantised[1:])
    for of_channels, num_bits, message in [(offset, 9, "codes of 9 bits"), (offset[1:], 8, "offset has to hold 5")]:
        with pytest.raises(Invalid, match=message):
            kest.arq_codes(w, scale, of_channels, num_bits)


@pytest.mark.parametrize("reciprocal", [False, True])
def test_steps_to_begin_with_and_to_deploy(reciprocal):
    w = np.float32([[3, 1, 1e-7], [-7, 0, 0], [6, 7, 0]])
    expected = np.float32([7 / 8, 1, 1])
    steps = both_ways(lambda w: kest.initial_steps(w, 4, reciprocal), w)
    np.testing.assert_array_equal(steps, 1 / expected if reciprocal else expected)
    scale, offset = both_ways(lambda s: kest.step_scales(s, reciprocal), np.float32([-0.5, 2, 0]))
    expected = np.float32([0.5, 2, 1e-6])
    np.testing.assert_array_equal(scale, 1 / expected if reciprocal else expected)
    np.testing.assert_array_equal(offset, np.zeros(3, np.int32))


@pytest.mark.parametrize("reciprocal", [False, True])
def test_fake_quantise_weights(reciprocal):
    w = rng.normal(size=(4, 3)).astype(np.float32)
    learned = np.float32([0.5, 4, 0.25])
    step = 1 / learned if reciprocal else learned
    got = both_ways(lambda w, s: kest.fake_quantise_weights(w, s, 3, reciprocal), w, learned)
    np.testing.assert_array_equal(got, fake_quantise(w, step, 3))
    with pytest.raises(Invalid, match="steps has to hold 3 values"):
        kest.fake_quantise_weights(w, learned[:2])


@pytest.mark.parametrize("reciprocal", [False, True])
def test_fake_quantise_weights_gradient(reciprocal):
    """3 bits: codes from -4 to 3. Two values that round off the grid, two that just do not; two within a channel."""
    w = np.float32([[3.5, 3.4, 0.6], [-4.5, -4.4, 1.25]]) / 2
    learned = tf.fill([3], 2.0 if reciprocal else 0.5)
    g = np.float32([[1, 2, 4], [8, 16, 32]])
    with tf.GradientTape() as tape:
        tape.watch([inputs := tf.constant(w), learned])
        y = kest.fake_quantise_weights(inputs, learned, 3, reciprocal)
    to_weights, to_steps = tape.gradient(y, [inputs, learned], g)
    np.testing.assert_array_equal(to_weights, [[0, 2, 4], [0, 16, 32]])
    expected = np.array([3 * 1 - 4 * 8, -0.4 * 2 + 0.4 * 16, 0.4 * 4 - 0.25 * 32])
    np.testing.assert_allclose(to_steps, expected * (-0.25 if reciprocal else 1), rtol=1e-5)


def test_fuse_batch_norm():
    scale, gamma, variance = np.float32([[0.5, 0.25, 0.1], [1, -2, 1e-7], [3, 0.5, 1]])
    got = both_ways(lambda s, g, v: kest.fuse_batch_norm(s, g, v, 0.01, 2.0), scale, gamma, variance)
    expected = np.abs(scale * gamma / np.sqrt(np.abs(variance + 0.01)) * 2)
    np.testing.assert_allclose(got, np.where(expected < 1e-6, 1, expected), rtol=1e-6)
    with pytest.raises(Invalid, match="variance has to hold 3 values"):
        kest.fuse_batch_norm(scale, gamma, variance[:1])
    with pytest.raises(Invalid, match="failed with status 9"):
        kest.fuse_batch_norm(scale, gamma, [np.nan, -0.01, -0.01], 0.01)


def test_dmq_balance_factors():
    x = rng.normal(size=(8, 2, 3)).astype(np.float32)
    w = rng.normal(size=(2, 3, 4)).astype(np.float32)
    got = both_ways(lambda x, w: kest.dmq_balance_factors(x, w, 0.3), x, w)
    np.testing.assert_allclose(got, np.abs(x).max((0, 1)) ** 0.3 / np.abs(w).max((0, 2)) ** 0.7, rtol=1e-6)
    with pytest.raises(Invalid, match=r"KestDmqBalanceFactors.* failed with status -65530 .*igration"):
        kest.dmq_balance_factors(x, w, 0.9)
    with pytest.raises(Invalid, match="3 channels do not go with weights of 4"):
        kest.dmq_balance_factors(x, w, weight_axis=-1)
