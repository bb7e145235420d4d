"""ARQ, NUQ, ULQ and shifts, worked by hand."""

from concurrent.futures import ThreadPoolExecutor

import kest
import numpy as np
import pytest
from kest.ulq import Grid, Repaired

equal, f32, i32 = np.testing.assert_array_equal, np.float32, np.int32
floating = pytest.mark.parametrize("dtype", [np.float32, np.float64])
LAYOUTS = pytest.mark.parametrize("axis, view", [
    (0, lambda a: a), (-1, lambda a: np.ascontiguousarray(np.moveaxis(a, 0, -1)))])


@floating
@LAYOUTS
def test_arq_symmetric(dtype, axis, view):
    weights = view(np.array([[[3, -1.3], [2.6, 0.2]], [[-8, 3.6], [0.4, -1.2]]], dtype))
    found, factors = kest.arq.fake_quantise(weights, 3, channel_axis=axis)  # codes -4 to 3
    equal(factors.scale, f32([1, 2]), strict=True)
    equal(factors.offset, i32([0, 0]), strict=True)
    equal(found, view(np.array([[[3, -1], [3, 0]], [[-8, 4], [0, -2]]], dtype)), strict=True)
    codes = kest.arq.codes(2 * weights, factors, 3, channel_axis=axis)
    equal(codes, view(np.int8([[[3, -3], [3, 0]], [[-4, 3], [0, -1]]])), strict=True)
    equal(kest.arq.calibrate(weights, 3, channel_axis=None).scale, [2])


@LAYOUTS
def test_arq_asymmetric(axis, view):
    weights = view(f32([[0, 2.55], [-1, 1.55]]))
    values, factors = kest.arq.fake_quantise(weights, channel_axis=axis, with_offset=True)
    equal(factors.offset, [-128, -28])
    np.testing.assert_allclose(values, weights, atol=1e-6)
    equal(kest.arq.codes(weights, factors, channel_axis=axis), view(np.int8([[-128, 127], [-128, 127]])))


def test_threads_have_their_own_log_lines():
    def work(channel):
        weights = np.ones((8, 999), f32)
        weights[channel, 5] = np.inf
        for _ in range(50):
            with pytest.raises(kest.ScaleError) as raised:
                kest.arq.calibrate(weights)
            assert raised.value.log.count("[ERROR]") == 2

    with ThreadPoolExecutor(4) as threads:
        list(threads.map(work, range(4)))


def test_nuq_weighs_a_channel_by_the_square_of_its_scale_and_a_round_refits_it():
    weights = f32([[127, 1], [254, 20]])  # (128 + 4 * 137) / 10 = 67.6
    values, factors = kest.nuq.quantise(weights, 1, num_iterations=1)
    equal(factors.clusters, [68])
    equal(factors.scale, f32([64 / 68, 137 / 68]))
    equal(values[:, 0], factors.scale * f32(68))
    values, factors = kest.nuq.quantise(weights, 1, channel_axis=-1)  # (4 * 190.5 + 0.025 * 133.3) / 8.05 = 95.1
    equal(factors.clusters, [95])
    equal(values, [factors.scale * f32(95)] * 2)
    equal(kest.nuq.quantise(weights, 1, channel_axis=None)[1].scale, [2])
    values, factors = kest.nuq.quantise(np.array([[0.0, 255.0]]), 2, with_offset=True)
    equal(factors.offset, [-128])
    equal(values, [[-256, -1]])


@LAYOUTS
def test_nuq_given_factors(axis, view):
    """The first centre whose distance, less its fraction, is smallest; 4 bits clip to -8 and 7."""
    weights = view(f32([[[8.9], [-3], [9.5]], [[20], [-100], [3]]]))
    factors = kest.nuq.Factors(f32([1, 2]), i32([0, 1]), i32([10, 9, -3]))
    found = kest.nuq.fake_quantise(weights, factors, 4, channel_axis=axis)
    equal(found, view(f32([[[9], [-3], [9]], [[20], [-4], [-4]]])), strict=True)
    codes = kest.nuq.codes(weights, factors, channel_axis=axis)
    equal(codes, view(np.int8([[[9], [-3], [10]], [[11], [-49], [3]]])), strict=True)


def between(clip_min, clip_max):
    return kest.ulq.Bounds(clip_min=clip_min, clip_max=clip_max)


def test_ulq_between_learned_bounds():
    activations, bounds = f32([[np.inf, 0.4, -np.inf], [-0.1, 1, np.nan]]), between(-0.5, 1.75)
    scale = f32(2.25) / f32(15) + f32(1e-6)  # codes -3 to 12
    found, grid = kest.ulq.fake_quantise(activations, bounds, 4)
    assert grid == Grid(scale, -8 + 3)
    equal(found, f32([[12, 3, -3], [-1, 7, np.nan]]) * scale, strict=True)
    assert kest.ulq.grid_bounds(grid, 4) == between(-3 * scale, 12 * scale)
    assert kest.ulq.fake_quantise(activations[:0], bounds, 4)[0].shape == (0, 3)


@floating
def test_ulq_gradients_of_the_bounds(dtype):
    """A step is 3.75 / 255: -0.55 is -37.4 of them, 0.26 is 17.68. What is clipped counts as the lower bound."""
    activations, upstream = np.array([[-0.55, 0.26], [2, -0.75]], dtype), np.array([[1, 2], [4, 8]], dtype)
    bounds, thresholds = between(-0.5, 3.25), between(-0.625, 1.5)
    found, error = kest.ulq.gradients(activations, upstream, bounds, thresholds), (0.4 * 1 + 0.32 * 2) / 255
    assert (found.clip_max, found.clip_min) == pytest.approx((4 + error, 8 - error), rel=1e-5)
    assert kest.ulq.gradients(activations[:0], upstream[:0], bounds, thresholds) == between(0, 0)


def test_ulq_clip_check():
    for bounds, repaired, restored in (((-1, 2), (-1, 2), False), ((-1, -1), (-3, 5), True),
                                       ((-2, -1), (-2, 5), False), ((1, 2), (-3, 2), False)):
        found = kest.ulq.clip_check(between(*bounds), between(-3, 5))
        assert found == Repaired(between(*repaired), between(*repaired), restored)


@pytest.mark.parametrize("reciprocal", [False, True])
def test_ulq_weights_with_learned_steps(reciprocal):
    """4 bits: codes from -8 to 7."""
    weights, learned = f32([[[3.5, 1.75, 1e-7]], [[-8, 0.25, 0]]]), f32([0.5, 4, 2])
    steps = 1 / learned if reciprocal else learned
    found = kest.ulq.initial_steps(weights, 4, reciprocal=reciprocal)
    equal([found.highest, found.lowest], f32([[3.5, 1.75, 1e-7], [-8, 0, 0]]))
    equal(found.learned, [1, 4 if reciprocal else 0.25, 1])
    values = kest.ulq.fake_quantise_weights(weights, f32([0.5, 4, 0.25]), 4, reciprocal=reciprocal)
    equal(values, f32([[[4, 1.75, 0]], [[-8, 0.25, 0]]] if reciprocal else [[[3.5, 0, 0]], [[-4, 0, 0]]]), strict=True)
    assert kest.ulq.fake_quantise_weights(weights[..., :0].copy(), learned[:0]).shape == (2, 1, 0)
    factors = kest.ulq.weight_factors(learned * f32([1, -1, 1]), reciprocal=reciprocal)
    equal(factors.scale, steps, strict=True)
    equal(factors.offset, i32([0, 0, 0]), strict=True)


@pytest.mark.parametrize("axis", [1, -1])
def test_shifts_kept_and_streamed(axis):
    """An integer 2^(14 + N) fits 16 bits from a shift by N on, and up to 16 nothing of it is lost."""
    scale, shifts = f32([0.5, 2, 1, 0.25]), [5, 2, 9, 3]
    channels = 2.0**14 * scale * np.exp2(shifts) * np.ones((3, 5, 4))
    accumulators = np.ascontiguousarray(np.moveaxis(channels, -1, axis)).astype(f32)
    integers = (2**14 << i32(shifts)) * np.ones((3, 5, 4), i32)
    equal(kest.shift.search(accumulators, scale, channel_axis=axis), i32(shifts), strict=True)
    equal(kest.shift.search(accumulators, scale, channel_axis=axis, per_tensor=True), [9])
    found = kest.shift.search_integers(np.ascontiguousarray(np.moveaxis(integers, -1, axis)), channel_axis=axis)
    equal(found, i32(shifts), strict=True)
    equal(kest.shift.search_integers(integers, channel_axis=None), [9])
    for per_tensor, expected in ((False, shifts), (True, [9])):
        searcher = kest.shift.Searcher(scale, channel_axis=axis, per_tensor=per_tensor)
        equal(searcher.shift_bits(), np.ones_like(expected))
        for batch in (0 * accumulators, accumulators, 0 * accumulators, accumulators[:0]):
            searcher.feed(batch)
        equal(searcher.shift_bits(), i32(expected), strict=True)


def test_shifts_of_one_channel():
    accumulators, one = f32([70000, -70000.5]), np.ones(1, f32)
    searcher = kest.shift.Searcher(one, channel_axis=None)
    for batch in (accumulators.reshape(2, 1, 1), accumulators[:1].reshape(())):
        searcher.feed(batch)
    equal(searcher.shift_bits(), [2])
    equal(kest.shift.search(accumulators, one, channel_axis=None), i32([2]), strict=True)
    equal(kest.shift.search(accumulators[:0], one, channel_axis=None), [1])
    equal(kest.shift.search_integers(np.ones((4, 0), i32), channel_axis=0), [1, 1, 1, 1])
