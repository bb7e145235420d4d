"""ARQ, learned steps, NUQ, ULQ and shifts, eager and in graphs that several threads run, against numpy."""

from concurrent.futures import ThreadPoolExecutor

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

equal, rng = np.testing.assert_array_equal, np.random.default_rng(0)


def fake_quantise(w, step, num_bits):
    half = 2 ** (num_bits - 1)
    q = w / step
    return np.clip(np.trunc(q + np.copysign(np.float32(0.5), q)), -half, half - 1) * step


def test_arq():
    w = rng.normal(1, size=(3, 2, 5)).astype(np.float32)
    w[0, 0, :2] = [9, -9]  # a channel for either end of the grid
    quantised, scale, offset = both_ways(lambda w: kest.arq_weights(w, 4), w)
    low, high = w.min((0, 1)), w.max((0, 1))
    equal(scale, np.where(high > -low, high / np.float32(7), low / np.float32(-8)))
    equal(quantised, fake_quantise(w, scale, 4))
    equal(offset, np.zeros(5, np.int32))
    quantised, scale, offset = both_ways(lambda w: kest.arq_weights(w, 4, with_offset=True), w)
    equal(offset, -8 - np.rint(np.minimum(low, 0) / scale))
    w[0] *= 2  # beyond the grid too
    codes = both_ways(lambda w: kest.arq_codes(w, scale, offset, 4), w)
    equal(codes, np.clip(np.trunc(w / scale + np.copysign(0.5, w)) + offset, -8, 7))
    equal(np.float32(codes - offset)[1:] * scale, quantised[1:])


@pytest.mark.parametrize("reciprocal", [False, True])
def test_learned_steps(reciprocal):
    w = np.float32([[3, 1, 1e-7], [-7, 0, 0], [6, 7, 0]])
    expected = np.float32([7 / 8, 1, 1])
    steps = both_ways(lambda w: kest.initial_steps(w, 4, reciprocal), w)
    equal(steps, 1 / expected if reciprocal else expected)
    scale, offset = both_ways(lambda s: kest.step_scales(s, reciprocal), np.float32([-0.5, 2, 0]))
    expected = np.float32([0.5, 2, 1e-6])
    equal(scale, 1 / expected if reciprocal else expected)
    equal(offset, np.zeros(3, np.int32))
    learned = np.float32([0.5, 4, 0.25])
    got = both_ways(lambda w, s: kest.fake_quantise_weights(w, s, 3, reciprocal), w, learned)
    equal(got, fake_quantise(w, 1 / learned if reciprocal else learned, 3))


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
    equal(to_weights, [[0, 2, 4], [0, 16, 32]])
    expected = np.array([3 * 1 - 4 * 8, -0.4 * 2 + 0.4 * 16, 0.4 * 4 - 0.25 * 32])
    np.testing.assert_allclose(to_steps, expected * (-0.25 if reciprocal else 1), rtol=1e-5)


def test_nuq_iterations_and_offset():
    """A channel weighs by the square of its scale, and a round refits it."""
    weights = np.float32([[127, 254], [1, 20]])  # (128 + 4 * 137) / 10 = 67.6
    quantised, scale, _, clusters = both_ways(lambda w: kest.nuq_weights(w, 1, num_iterations=1), weights)
    equal(clusters, [68])
    equal(scale, np.float32([64 / 68, 137 / 68]))
    equal(quantised[0], scale * 68)
    quantised, scale, offset, clusters = kest.nuq_weights([[0.0], [255.0]], 2, with_offset=True)
    assert scale.numpy() == [1] and offset.numpy() == [-128] and sorted(clusters.numpy()) == [-128, 127]
    equal(quantised, [[-256], [-1]])  # scale * (centre + offset)


def test_nuq_given_factors():
    """The first centre whose distance, less its fraction, is smallest; 4 bits clip to -8 and 7."""
    weights = np.float32([[8.9, 20], [-3, -100], [9.5, 3]])
    given = np.float32([1, 2]), np.int32([0, 1]), np.int32([10, 9, -3])
    got = both_ways(lambda w: kest.fake_quantise_nuq(w, *given, num_bits=4), weights)
    equal(got, [[9, 20], [-3, -4], [9, -4]])
    quantised, *factors = kest.nuq_weights(weights, 3)
    equal(kest.fake_quantise_nuq(quantised, *factors), quantised)


@pytest.mark.parametrize("num_bits", [2, 4])
def test_ulq_and_its_gradients(num_bits):
    """Values between a bound and where the grid clips take their gradient from the grid."""
    bounds, half = [np.float32(1.03), np.float32(-0.72)], 2 ** (num_bits - 1)
    expected_scale = (bounds[0] - bounds[1]) / np.float32(2 * half - 1) + np.float32(1e-6)
    low = np.rint(bounds[1] / expected_scale) * expected_scale
    high = low + (2 * half - 1) * expected_scale
    x = np.append(rng.normal(size=200), [(low + bounds[1]) / 2, (high + bounds[0]) / 2, low * 1.001, high * 1.001])
    x, g = x.astype(np.float32), rng.normal(size=x.shape).astype(np.float32)

    def call(x, *bounds):
        with tf.GradientTape() as tape:
            tape.watch([x, *bounds])
            found = kest.ulq(x, *bounds, num_bits)
        return *found, *tape.gradient(found[0], [x, *bounds], g)

    values, scale, offset, to_x, to_max, to_min = both_ways(call, *map(tf.constant, (x, *bounds)))
    np.testing.assert_allclose(scale, expected_scale, rtol=1e-7)
    assert offset == -half - np.rint(low / scale)
    equal(values, np.clip(np.rint(x / scale), -half - float(offset), half - 1 - float(offset)) * scale)
    above, below = x > high, x < low
    steps = np.where(above | below, bounds[1], x).astype(np.float64) * 255 / (bounds[0] - bounds[1])
    error = (np.rint(steps) - steps) / 255
    equal(to_x, np.where(above | below, 0, g))
    np.testing.assert_allclose(to_max, ((above + error) * g).sum(), rtol=1e-4)
    np.testing.assert_allclose(to_min, ((below - error) * g).sum(), rtol=1e-4)


def test_ulq_clip_check():
    good = [((3, -1), (3, -1)), ((1, 1), (9, -9)), ((-1, -2), (9, -2)), ((3, 1), (3, -9))]
    for bounds, expected in good:
        equal(both_ways(kest.ulq_clip_check, *np.float32([*bounds, 9, -9])), expected * 2)
    equal(kest.ulq_clip_check(3.0, 1.0, 9.0, -9.0, reset_min=True), [3, 0, 3, 0])


@pytest.mark.parametrize("per_tensor", [False, True])
@pytest.mark.parametrize("axis", [1, -1])
def test_shifts_kept_and_streamed(axis, per_tensor):
    """Channels that need shifts of their own."""
    scale, shifts, total = np.float32([0.5, 2, 1, 0.25]), 2.0 ** np.arange(1, 17), 0
    searcher = kest.ShiftSearcher(axis, per_tensor)

    @tf.function
    def step(x):
        searcher.add(x, scale)
        return searcher.shift_bits()

    for seed in range(3):
        integers = (np.random.default_rng(seed).normal(size=(5, 6, 4)) * [2**16, 2**18, 2**23, 3]).round()
        x = np.ascontiguousarray(np.moveaxis((integers * scale).astype(np.float32), -1, axis))
        q = integers[..., np.newaxis]
        errors = ((np.clip(np.floor(q / shifts), -32768, 32767) * shifts - q) ** 2).sum((0, 1))
        assert len(set(errors.argmin(-1))) == 4
        errors = errors.sum(0, keepdims=True) if per_tensor else errors
        total += errors
        found = both_ways(lambda x: kest.shift_search(x, scale, axis, per_tensor), x)
        equal(found, 1 + errors.argmin(-1))
        equal(step(x), 1 + total.argmin(-1))
    equal(searcher.shift_bits(), 1 + total.argmin(-1))


@pytest.mark.parametrize("num_large, shift", [(100, 1), (101, 2)])
def test_shifts_of_threads_of_functions(num_large, shift):
    """A batch lost among the threads tips the balance: 65536 is clipped by a shift of 1, and 2 is cut by one of 2."""
    searcher = kest.ShiftSearcher()
    see = tf.function(lambda x: searcher.add(x, [1.0]))
    small, large = np.full((100, 1), 2, np.float32), np.full((100, 1), 65536, np.float32)
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(see, [small, large] * 100 + [large] * (num_large - 100)))
    equal(searcher.shift_bits(), [shift])
