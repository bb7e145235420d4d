"""The deployed operators and the softmax, eager and in graphs, against numpy."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

Invalid = tf.errors.InvalidArgumentError
rng = np.random.default_rng(0)


def test_quantise():
    x = rng.normal(size=(7, 5)).astype(np.float32)
    codes = both_ways(lambda x: kest.quantise(x, 50.0, 3.0), x)
    np.testing.assert_array_equal(codes, np.clip(np.trunc(x * 50 + np.copysign(0.5, x)) + 3, -128, 127) - 3)
    with pytest.raises(Invalid, match="scale has to be a scalar"):
        kest.quantise(x, [50.0], 3.0)


@pytest.mark.parametrize("axis, spread", [(-1, [1, 1, -1]), (1, [1, -1, 1]), (0, [-1, 1, 1]), (None, [])])
def test_dequantise(axis, spread):
    """Shifted channels are clamped to 16 bits, those with shift 0 are not."""
    x = rng.integers(-(2**22), 2**22, size=(3, 3, 3)).astype(np.float32)
    scale, shift = np.float32([0.5, 0.01, 2]), np.array([0, 4, 9])
    if axis is None:
        scale, shift = scale[1], shift[1]
    keywords = {} if axis is None else {"axis": axis}
    got = both_ways(
        lambda x, s, n: kest.dequantise(x, kest.dequantise_words(s, n), multiplier=-2, **keywords), x, scale, shift
    )
    scale, shift = scale.reshape(spread), shift.reshape(spread)
    y = np.where(shift > 0, np.clip(np.floor(x * -2 / 2.0**shift), -32768, 32767), x * -2)
    np.testing.assert_array_equal(got, y.astype(np.float32) * (2.0**shift * scale).astype(np.float32) / np.float32(-2))


def test_dequantise_errors():
    words = kest.dequantise_words([1.0, 2.0])
    for shape, axis, message in [([2, 3], -1, "words has to hold 3"), ([], -1, "no axis -1"), ([2], 1, "no axis 1")]:
        with pytest.raises(Invalid, match=message):
            kest.dequantise(np.zeros(shape), words, axis=axis)
    with pytest.raises(ValueError, match="must be equal"):
        tf.function(kest.dequantise)(tf.zeros([2, 3]), words)
    with pytest.raises(Invalid, match="multiplier must not be 0"):
        kest.dequantise([1.0], words[0], multiplier=0)


def test_anti_quantise():
    x = rng.integers(-128, 128, size=(4, 3)).astype(np.float32)
    np.testing.assert_array_equal(both_ways(lambda x: kest.anti_quantise(x, 0.1), x), x * np.float32(0.1))
    with pytest.raises(Invalid, match="scale has to be a scalar"):
        kest.anti_quantise(x, [0.1])


def test_anti_quantise_weights():
    codes = rng.integers(-128, 128, size=(2, 3, 5), dtype=np.int8)
    for axis, shape in [(-1, [5]), (1, [3, 1]), (0, [2, 1, 1]), (-1, [])]:
        offset = rng.integers(-128, 128, size=shape, dtype=np.int8)
        given = offset.reshape(-1) if shape else offset
        got = both_ways(lambda w, o: kest.anti_quantise_weights(w, o, axis=axis), codes, given)
        np.testing.assert_array_equal(got, codes.astype(np.float32) - offset)
    with pytest.raises(Invalid, match="offset has to hold 5 values"):
        kest.anti_quantise_weights(codes, codes[0, :, 0])


@pytest.mark.parametrize("dtype, tolerance", [(np.float32, 1e-6), (np.float64, 1e-7)])  # 1/6 is a float
def test_fast_softmax(dtype, tolerance):
    x = rng.normal(size=(2, 3, 7)).astype(dtype)
    d = x - x.max(-1, keepdims=True)
    p = np.where(d > -1.5, d**3 / 6 + d**2 / 2 + d + 1, 0)
    np.testing.assert_allclose(both_ways(kest.fast_softmax, x), p / p.sum(-1, keepdims=True), rtol=tolerance)
    assert kest.fast_softmax(x[..., :0]).shape == (2, 3, 0)
    with pytest.raises(Invalid, match="no axis -1"):
        kest.fast_softmax(x[0, 0, 0])
