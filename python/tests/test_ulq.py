"""Fake quantisation of both kinds and the repair of bounds, to the bit; gradients against numpy."""

import kest
import numpy as np
import pytest
from kest.ulq import Grid, Repaired


def between(clip_min, clip_max):
    return kest.ulq.Bounds(clip_min=clip_min, clip_max=clip_max)


def round_away(x):
    return np.trunc(x + np.copysign(x.dtype.type(0.5), x))


@pytest.mark.parametrize("num_bits", [4, 8])
def test_activations_between_learned_bounds(num_bits):
    activations = np.random.default_rng(num_bits).normal(0, 2, (5, 7, 11)).astype(np.float32)
    activations[0, 0, :3] = np.nan, np.inf, -np.inf
    activations.flags.writeable = False
    bounds = between(-0.5, 1.75)
    scale = np.float32(2.25) / np.float32(2**num_bits - 1) + np.float32(1e-6)
    level = round_away(np.float32(-0.5) / scale)
    top = level + 2**num_bits - 1
    found, grid = kest.ulq.fake_quantise(activations, bounds, num_bits)
    assert grid == Grid(scale, -(2 ** (num_bits - 1)) - level) and found.dtype == np.float32
    clipped = np.clip(activations, level * scale, np.float32(float(top) * float(scale)))
    np.testing.assert_array_equal(found, round_away(clipped / scale) * scale)
    assert kest.ulq.grid_bounds(grid, num_bits) == between(level * scale, np.float32(top) * scale)
    empty, same_grid = kest.ulq.fake_quantise(activations[:0], bounds, num_bits)
    assert empty.shape == (0, 7, 11) and same_grid == grid


@pytest.mark.parametrize("dtype, tolerance", [(np.float32, 1e-4), (np.float64, 1e-12)])
def test_gradients_of_the_bounds(dtype, tolerance):
    random = np.random.default_rng(1)
    activations, upstream = random.normal(0, 2, (2, 40, 25)).astype(dtype)
    bounds, thresholds = between(-0.5, 1.75), between(-0.625, 1.5)
    above, below = activations > 1.5, activations < -0.625
    steps = np.where(above | below, dtype(-0.5), activations) * 255 / dtype(2.25)
    error = (round_away(steps) - steps) / 255
    found = kest.ulq.gradients(activations, upstream, bounds, thresholds)
    assert above.any() and below.any()
    np.testing.assert_allclose(found.clip_max, ((above + error) * upstream).sum(), tolerance)
    np.testing.assert_allclose(found.clip_min, ((below - error) * upstream).sum(), tolerance)
    assert kest.ulq.gradients(activations[:0], upstream[:0], bounds, thresholds) == between(0, 0)


@pytest.mark.parametrize("bounds, repaired, record, restored", [
    ((-1, 2), (-1, 2), (-1, 2), False),
    ((-1, -1), (-3, 5), (-3, 5), True),
    ((-2, -1), (-2, 5), (-2, 5), False),
    ((1, 2), (-3, 2), (-3, 2), False),
])
def test_clip_check(bounds, repaired, record, restored):
    found = kest.ulq.clip_check(between(*bounds), between(-3, 5))
    assert found == Repaired(between(*repaired), between(*record), restored)
    with pytest.raises(TypeError, match="positional"):
        kest.ulq.Bounds(-3, 5)


@pytest.mark.parametrize("reciprocal", [False, True])
def test_weights_with_learned_steps(reciprocal):
    weights = np.random.default_rng(4).normal(size=(3, 4, 5, 6)).astype(np.float32)
    weights *= np.float32([1, 2, 0.5, -3, 1e-7, 1])
    weights[..., 5] = np.abs(weights[..., 5]) + 1
    weights[0, 0, 0, 0] = np.nan
    weights.flags.writeable = False
    highest = np.fmax(np.fmax.reduce(weights, (0, 1, 2)), 0)
    lowest = np.fmin(np.fmin.reduce(weights, (0, 1, 2)), 0)
    step = np.where(-lowest > highest, -lowest / np.float32(8), highest / np.float32(7))
    learned = np.where(step < 1e-6, np.float32(1), 1 / step if reciprocal else step)
    found = kest.ulq.initial_steps(weights, 4, reciprocal=reciprocal)
    for array, expected in ((found.highest, highest), (found.lowest, lowest), (found.learned, learned)):
        np.testing.assert_array_equal(array, expected)
    learned[:3] = 0, -2, 1e-7
    learned.flags.writeable = False
    used = np.where(learned < np.float32(1e-6), learned + np.float32(1e-6), learned)
    used = 1 / used if reciprocal else used
    values = kest.ulq.fake_quantise_weights(weights, learned, 4, reciprocal=reciprocal)
    np.testing.assert_array_equal(values, np.clip(round_away(weights / used), -8, 7) * used)
    assert kest.ulq.fake_quantise_weights(weights[..., :0].copy(), learned[:0]).shape == (3, 4, 5, 0)
    factors = kest.ulq.weight_factors(learned, reciprocal=reciprocal)
    used = np.where(np.abs(learned) < np.float32(1e-6), np.abs(learned) + np.float32(1e-6), np.abs(learned))
    np.testing.assert_array_equal(factors.scale, 1 / used if reciprocal else used, strict=True)
    assert factors.offset.tolist() == [0] * 6


def test_what_does_not_fit_is_an_error():
    good, bounds = np.ones((2, 3), np.float32), between(-1, 1)
    for call, match in (
        (lambda: kest.ulq.gradients(good, good[:1], bounds, bounds), "upstream"),
        (lambda: kest.ulq.initial_steps(good[0, :1].reshape(())), "channel_axis"),
        (lambda: kest.ulq.fake_quantise_weights(good, np.ones(2, np.float32)), r"learned .*\(3,\)"),
        (lambda: kest.ulq.weight_factors(good), "learned")):
        with pytest.raises(ValueError, match=match):
            call()
