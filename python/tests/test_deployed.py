"""The deployed operators against hand-worked values and numpy."""

import kest
import numpy as np
import pytest

f32 = np.float32


def test_quantise_rounds_halves_away_and_clamps_with_the_offset():
    values = np.array([[0.5, -0.5, 1.25], [np.nan, 100, -100]], f32)
    found = kest.deployed.quantise(values, 2, 3, 4)  # codes -8 to 7
    np.testing.assert_array_equal(found, np.array([[1, -1, 3], [np.nan, 4, -11]], f32))
    assert found.dtype == f32


def test_words_hold_the_scale_and_the_shift():
    scale = np.array([1, -0.5], f32)
    np.testing.assert_array_equal(kest.deployed.pack_words(scale, [7, 255]), [0x07_3F800000, 0xFF_BF000000])
    np.testing.assert_array_equal(kest.deployed.pack_words(scale), [0x3F800000, 0xBF000000])
    for shift, error in (([1.0, 2.0], TypeError), ([1], ValueError), ([1, 256], ValueError), (-1, ValueError)):
        with pytest.raises(error, match="shift has to"):
            kest.deployed.pack_words(scale, shift)


@pytest.mark.parametrize("axis", [0, 1, -1])
def test_factors_follow_any_axis(axis):
    rng = np.random.default_rng(axis % 3)
    values = rng.integers(-(2**20), 2**20, (4, 5, 6)).astype(f32)
    count = values.shape[axis]
    shape = [1, 1, 1]
    shape[axis] = count
    scale, shift = rng.random(count, f32), np.arange(count)
    power = f32(2) ** shift.astype(f32).reshape(shape)
    steps = np.where(power == 1, 3 * values, np.clip(np.floor(3 * values / power), -32768, 32767))
    expected = steps * (power * scale.reshape(shape)) / f32(3)
    words = kest.deployed.pack_words(scale, shift)
    found = kest.deployed.dequantise(values, words, channel_axis=axis, input_multiplier=3)
    np.testing.assert_array_equal(found, expected)

    codes = rng.integers(-128, 128, values.shape, np.int8)
    offset = rng.integers(-128, 128, count, np.int8)
    found = kest.deployed.anti_quantise_weights(codes, offset, channel_axis=axis)
    np.testing.assert_array_equal(found, codes.astype(f32) - offset.reshape(shape).astype(f32))


def test_one_factor_for_all():
    values = np.array([[3, 40000]], f32)
    words = kest.deployed.pack_words(np.array([0.5], f32), 0)
    np.testing.assert_array_equal(kest.deployed.dequantise(values, words), [[1.5, 20000]])
    np.testing.assert_array_equal(kest.deployed.anti_quantise(values, 0.1), values * f32(0.1))
    codes = np.array([-128, 127], np.int8)
    np.testing.assert_array_equal(kest.deployed.anti_quantise_weights(codes, np.array([-2], np.int8)), [-126, 129])


@pytest.mark.parametrize("call, name", [
    (lambda v, w: kest.deployed.dequantise(v, w, channel_axis=2), "channel_axis"),
    (lambda v, w: kest.deployed.dequantise(v, w, channel_axis=0), "words"),
    (lambda v, w: kest.deployed.dequantise(v, w, channel_axis=1, input_multiplier=0), "input_multiplier"),
    (lambda v, w: kest.deployed.anti_quantise_weights(v.astype(np.int8), np.zeros(3, np.int8)), "offset"),
])
def test_arguments_that_do_not_fit(call, name):
    with pytest.raises(ValueError, match=f"^{name} has to"):
        call(np.ones((2, 3), f32), np.zeros(3, np.uint64))
