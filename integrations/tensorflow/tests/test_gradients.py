"""The gradients that operators have; those of fake_quantise are in test_reference.py."""

import kest
import kest_tensorflow as ops
import numpy as np
import pytest
import tensorflow as tf

equal = np.testing.assert_array_equal


@pytest.mark.parametrize("reciprocal", [False, True])
def test_fake_quantise_weights(reciprocal):
    """3 bits: codes from -4 to 3. Two values that round off the grid, two that just do not; two within a channel."""
    w = np.float32([[3.5, 3.4, 0.6], [-4.5, -4.4, 1.25]]) / 2
    learned = tf.fill([3], 2.0 if reciprocal else 0.5)
    g = np.float32([[1, 2, 4], [8, 16, 32]])
    with tf.GradientTape() as tape:
        tape.watch([inputs := tf.constant(w), learned])
        y = ops.fake_quantise_weights(inputs, learned, 3, reciprocal)
    to_weights, to_steps = tape.gradient(y, [inputs, learned], g)
    equal(to_weights, [[0, 2, 4], [0, 16, 32]])
    expected = np.array([3 * 1 - 4 * 8, -0.4 * 2 + 0.4 * 16, 0.4 * 4 - 0.25 * 32])
    np.testing.assert_allclose(to_steps, expected * (-0.25 if reciprocal else 1), rtol=1e-5)


def test_ulq():
    """Where a value is clipped the grid decides, which begins above the lower bound and ends above the upper one."""
    bounds = kest.ulq.Bounds(clip_max=1.03, clip_min=-0.72)
    limits = kest.ulq.grid_bounds(kest.ulq.fake_quantise(np.zeros(1, "f"), bounds, 4)[1], 4)
    between = [(limits.clip_min + bounds.clip_min) / 2, (limits.clip_max + bounds.clip_max) / 2]
    x = np.float32([*between, limits.clip_min * 1.001, limits.clip_max * 1.001, -0.3, 0.45])
    g = np.float32([1, 2, 4, 8, 16, 32])

    @tf.function(input_signature=[tf.TensorSpec([None]), tf.TensorSpec([]), tf.TensorSpec([])])
    def gradients(*inputs):
        with tf.GradientTape() as tape:
            tape.watch(inputs)
            y, *_ = ops.ulq(*inputs, 4)
        return tape.gradient(y, inputs, g)

    to_x, to_max, to_min = gradients(x, bounds.clip_max, bounds.clip_min)
    equal(to_x, [0, 2, 0, 0, 16, 32])
    expected = kest.ulq.gradients(x, g, bounds, limits)
    assert (to_max, to_min) == (expected.clip_max, expected.clip_min)


def test_apply_mask():
    g, mask = np.arange(24, dtype="f").reshape(2, 3, 4), np.float32([[1, 0], [0, 1], [1, 1], [0, 0]])
    with tf.GradientTape() as tape:
        tape.watch(x := tf.ones([2, 3, 4]))
        y = ops.apply_mask(x, mask, 2, 0)
    equal(tape.gradient(y, x, g), np.transpose(mask)[:, np.newaxis] * g)
