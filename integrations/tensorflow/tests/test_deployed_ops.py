"""The operators of deployed models, the softmax and the fusion, eager and in graphs, against numpy."""

import kest_tensorflow as kest
import numpy as np
import pytest
from graphs import both_ways

equal = np.testing.assert_array_equal
rng = np.random.default_rng(0)


def test_scalars():
    x = rng.normal(size=(7, 5)).astype(np.float32)
    codes = both_ways(lambda x: kest.quantise(x, 5.0, 3.0, 4), x)
    equal(codes, np.clip(np.trunc(x * 5 + np.copysign(0.5, x)) + 3, -8, 7) - 3)
    equal(both_ways(lambda x: kest.anti_quantise(x, 0.1), x), x * np.float32(0.1))


@pytest.mark.parametrize("axis, spread", [(-1, [-1]), (1, [-1, 1]), (None, [])])
def test_factors_of_channels(axis, spread):
    """Shifted channels are clamped to 16 bits, those with shift 0 are not."""
    x = rng.integers(-(2**22), 2**22, size=(3, 3, 3)).astype(np.float32)
    scale, shift, offset = np.float32([0.5, 0.01, 2]), np.array([0, 4, 9]), np.int8([-128, 5, 127])
    if axis is None:
        scale, shift, offset = scale[1], shift[1], offset[1]
    keywords = {} if axis is None else {"axis": axis}
    got = both_ways(lambda x, *words: kest.dequantise(x, kest.dequantise_words(*words), multiplier=-2, **keywords),
                    x, scale, shift)
    scale, shift = scale.reshape(spread), shift.reshape(spread)
    y = np.where(shift > 0, np.clip(np.floor(x * -2 / 2.0**shift), -32768, 32767), x * -2)
    equal(got, y.astype(np.float32) * (2.0**shift * scale).astype(np.float32) / np.float32(-2))
    codes = rng.integers(-128, 128, size=(3, 3, 3), dtype=np.int8)
    got = both_ways(lambda w, o: kest.anti_quantise_weights(w, o, **keywords), codes, offset)
    equal(got, codes.astype(np.float32) - offset.reshape(spread))


@pytest.mark.parametrize("dtype, tolerance", [(np.float32, 1e-6), (np.float64, 1e-12)])
def test_fast_softmax(dtype, tolerance):
    x = rng.normal(size=(2, 3, 7)).astype(dtype)
    d = x - x.max(-1, keepdims=True)
    p = np.where(d > -1.5, d**3 / 6 + d**2 / 2 + d + 1, 0)
    np.testing.assert_allclose(kest.fast_softmax(x), p / p.sum(-1, keepdims=True), rtol=1e-6)
    p = np.where(d > -1, d**3 / 8 + d**2 / 4 + d + 1, 0)
    got = both_ways(lambda x: kest.fast_softmax(x, 1 / 4, 1 / 8, -1), x)
    np.testing.assert_allclose(got, p / p.sum(-1, keepdims=True), rtol=tolerance)
    assert kest.fast_softmax(x[..., :0]).shape == (2, 3, 0)


def test_fuse_batch_norm():
    inputs = np.float32([[0.5, 3, 1e-7], [-2, 1, 1], [3.75, -4.25, 1]])
    got = both_ways(lambda s, g, v: kest.fuse_batch_norm(s, g, v, 0.25, 6.0), *inputs)
    equal(got, [3, 9, 1])  # the small one becomes 1
