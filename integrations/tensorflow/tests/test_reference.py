"""kest's grids against TensorFlow's own fake quantisation. docs/tensorflow.md tells what differs."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf

theirs = tf.quantization.fake_quant_with_min_max_vars
theirs_per_channel = tf.quantization.fake_quant_with_min_max_vars_per_channel
rng = np.random.default_rng(0)


@pytest.mark.parametrize("num_bits, offset", [(3, -4), (3, 3), (8, -1), (8, 0), (16, -5000)])
def test_fake_quantise(num_bits, offset):
    """Where the step is a power of two neither rounds but to a code: the same bits, but a tie below zero."""
    half, step = 2 ** (num_bits - 1), 2.0**-5
    low, high = (-half - offset) * step, (half - 1 - offset) * step
    x = (rng.integers(8 * (-half - offset - 9), 8 * (half - offset + 9), 4000) * step / 8).astype(np.float32)
    x[:4] = low, high, low - step / 8, high + step / 8
    ties = (x < 0) & (x > low) & (x / step % 1 == 0.5)
    expected = tf.quantization.fake_quant_with_min_max_args(x, low, high, num_bits) - ties * np.float32(step)
    with tf.GradientTape() as tape:
        tape.watch(x := tf.constant(x))
        y = kest.fake_quantise(x, step, offset, num_bits)
    np.testing.assert_array_equal(y, expected)
    grad = rng.normal(size=x.shape).astype(np.float32)
    expected = tf.quantization.fake_quant_with_min_max_args_gradient(grad, x, low, high, num_bits)
    np.testing.assert_array_equal(tape.gradient(y, x, grad), expected)


def assert_same_codes(x, got, expected, scale):
    """Products and quotients are rounded in other places: values differ by ulps, codes where x is about a tie."""
    sure = np.abs(x / scale % 1 - 0.5) > 1e-3
    np.testing.assert_allclose(np.where(sure, got, 0), np.where(sure, expected, 0), rtol=1e-5, atol=1e-6)
    assert sure.mean() > 0.99


@pytest.mark.parametrize("num_bits", [4, 8])
def test_learned_and_calibrated(num_bits):
    """ARQ with offsets nudges as they do; without, it has a code more below zero than their narrow range."""
    w, half = rng.normal([0, 0.5, -2], size=(800, 3)).astype(np.float32), 2 ** (num_bits - 1)
    with tf.GradientTape(persistent=True) as tape:
        tape.watch(x := tf.constant(w))
        got, scale, offset = kest.ulq(x, 1.3, -0.7, num_bits)
        low = scale * float(-half - offset)
        expected = theirs(x, low, low + scale * (2 * half - 1), num_bits)
    assert_same_codes(x, got, expected, scale)
    np.testing.assert_array_equal(tape.gradient(got, x), tape.gradient(expected, x))
    got, scale, _ = kest.arq_weights(w, num_bits, with_offset=True)
    assert_same_codes(w, got, theirs_per_channel(w, np.minimum(w.min(0), 0), np.maximum(w.max(0), 0), num_bits), scale)
    for got, scale in [kest.arq_weights(w, num_bits)[:2], (kest.fake_quantise_weights(w, [0.1] * 3, num_bits), 0.1)]:
        low, high = -half * scale * tf.ones(3), (half - 1) * scale * tf.ones(3)
        assert_same_codes(w, got, theirs_per_channel(w, low, high, num_bits), scale)
        narrow = theirs_per_channel(w, -high, high, num_bits, narrow_range=True)
        assert_same_codes(w, np.maximum(got, -high), narrow, scale)
