"""ULQ and its gradients, eager and in graphs, against numpy."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

Invalid = tf.errors.InvalidArgumentError
rng = np.random.default_rng(0)


def grid(clip_max, clip_min, num_bits):
    """The scale, and the levels of the lower and the upper bound."""
    scale = (np.float32(clip_max) - np.float32(clip_min)) / np.float32(2**num_bits - 1) + np.float32(1e-6)
    level = np.rint(np.float32(clip_min) / scale)
    return scale, level, level + 2**num_bits - 1


@pytest.mark.parametrize("num_bits", [2, 4, 8])
def test_ulq(num_bits):
    x = rng.normal(size=(7, 5)).astype(np.float32)
    values, scale, offset = both_ways(lambda *inputs: kest.ulq(*inputs, num_bits), x, np.float32(1), np.float32(-0.7))
    expected_scale, low, high = grid(1, -0.7, num_bits)
    np.testing.assert_allclose(scale, expected_scale, rtol=1e-7)
    assert offset == -(2 ** (num_bits - 1)) - low
    np.testing.assert_array_equal(values, np.clip(np.rint(x / scale), low, high) * scale)


@pytest.mark.parametrize("in_graph", [False, True])
@pytest.mark.parametrize("num_bits", [4, 8])
def test_gradients(num_bits, in_graph):
    """Values between a bound and where the grid clips take their gradient from the grid."""
    bounds = np.float32(1.03), np.float32(-0.72)
    scale, low, high = grid(*bounds, num_bits)
    between = [(low * scale + bounds[1]) / 2, (high * scale + bounds[0]) / 2]
    x = np.append(rng.normal(size=200), [*between, low * scale * 1.001, high * scale * 1.001])
    x = x.astype(np.float32)
    g = rng.normal(size=x.shape).astype(np.float32)

    def gradients(x, *bounds):
        with tf.GradientTape() as tape:
            tape.watch([x, *bounds])
            y = tf.reduce_sum(kest.ulq(x, *bounds, num_bits)[0] * g)
        return tape.gradient(y, [x, *bounds])

    function = tf.function(gradients) if in_graph else gradients
    to_x, to_max, to_min = function(*map(tf.constant, (x, *bounds)))
    above, below = x > high * scale, x < low * scale
    steps = np.where(above | below, bounds[1], x).astype(np.float64) * 255 / (bounds[0] - bounds[1])
    error = (np.rint(steps) - steps) / 255
    np.testing.assert_array_equal(to_x, np.where(above | below, 0, g))
    np.testing.assert_allclose(to_max, ((above + error) * g).sum(), rtol=1e-4)
    np.testing.assert_allclose(to_min, ((below - error) * g).sum(), rtol=1e-4)


def test_bounds_are_learned():
    """A few steps of descent move a bound that clips half of the values to where it clips few."""
    x = tf.constant(rng.uniform(0, 4, 1000), tf.float32)
    clip_max, clip_min = tf.Variable(2.0), tf.Variable(0.0)
    optimizer = tf.keras.optimizers.SGD(0.5)
    for _ in range(30):
        with tf.GradientTape() as tape:
            loss = tf.reduce_mean((kest.ulq(x, clip_max, clip_min, 4)[0] - x) ** 2)
        optimizer.apply_gradients([(tape.gradient(loss, clip_max), clip_max)])
    assert 3.6 < clip_max.numpy() < 4.1


def test_clip_check():
    good = [((3, -1), (3, -1)), ((1, 1), (9, -9)), ((-1, -2), (9, -2)), ((3, 1), (3, -9))]
    for bounds, expected in good:
        np.testing.assert_array_equal(both_ways(kest.ulq_clip_check, *np.float32([*bounds, 9, -9])), expected * 2)
    np.testing.assert_array_equal(kest.ulq_clip_check(3.0, 1.0, 9.0, -9.0, reset_min=True), [3, 0, 3, 0])


def test_errors():
    for clip_max, num_bits, message in [([1.0], 8, "clip_max has to be a scalar"), (1.0, 32, "'KestUlq': num_bits is 32")]:
        with pytest.raises(Invalid, match=message):
            kest.ulq([1.0], clip_max, 0.0, num_bits)
