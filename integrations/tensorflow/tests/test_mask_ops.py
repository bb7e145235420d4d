"""Masks, balance factors and dumps, eager and in graphs, against numpy."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

rng = np.random.default_rng(0)
equal = np.testing.assert_array_equal
floating = pytest.mark.parametrize("dtype", [np.float32, np.float64])


@floating
def test_generate_mask(dtype):
    mask = both_ways(kest.generate_mask, np.array([1, 0, 0.5], dtype), np.array([0, 1, -2, np.nan], dtype))
    equal(mask, [[0, 1, 1, 1], [0, 0, 0, 0], [0, 1, 1, 1]])
    assert mask.dtype == dtype


@floating
def test_apply_mask(dtype):
    x = rng.normal(size=(2, 3, 4)).astype(dtype)
    for axes, pair in [((-2, -1), "bc"), ((2, 0), "ca")]:
        mask = rng.integers(0, 2, [x.shape[a] for a in axes]).astype(dtype)
        expected = np.einsum(f"{pair},abc->abc", mask, x)
        equal(both_ways(lambda x, m: kest.apply_mask(x, m, *axes), x, mask), expected)
    with tf.GradientTape() as tape:
        variable = tf.Variable(x)
        y = kest.apply_mask(variable, mask, 2, 0)
    equal(tape.gradient(y, variable, x), expected)


@floating
def test_n_of_m_mask(dtype):
    """Groups of 4 and of what is left, channel 2 aside, 2 positions behind each channel and 3 before."""
    w = rng.normal(size=(3, 8, 2)).astype(dtype)
    select = np.ones(8, dtype)
    select[2] = 0.5
    expected = np.ones_like(w)
    for group in [0, 1, 3, 4], [5, 6, 7]:
        expected[:, group] = np.argsort(np.argsort(-np.abs(w[:, group]), axis=1), axis=1) < 2
    equal(both_ways(lambda w, s: kest.n_of_m_mask(w, select=s), w, select), expected)
    equal(kest.n_of_m_mask(w, keep=1, group_size=100, axis=2), np.abs(w) == np.abs(w).max(2, keepdims=True))
    assert kest.n_of_m_mask(w[:0]).shape == (0, 8, 2)


@floating
@pytest.mark.parametrize("sizes, counts", [([6], [2]), ([2, 4], [1, 3])])
def test_channel_prune_mask(dtype, sizes, counts):
    strength = np.array([1, 5, 6, 2, 4, 3], dtype)  # of all tensors' channels
    tensors = [strength[:, np.newaxis] * np.ones(shape, dtype) for shape in [(2, 6, 3), (6, 1), (6, 5)]]
    groups = np.split(strength, np.cumsum(sizes)[:-1])
    expected = np.concatenate([group > np.sort(group)[count - 1] for group, count in zip(groups, counts)])
    equal(both_ways(lambda *t: kest.channel_prune_mask(t, [-2, 0, 0], sizes, counts), *tensors), expected.astype(dtype))


@pytest.mark.parametrize("code, dtype", enumerate([np.float32, np.float64, np.int32, np.float16]))
def test_dump(tmp_path, code, dtype):
    x = rng.normal(scale=9, size=(2, 3)).astype(dtype)
    kest.dump(x, tmp_path, "eager", 7)
    tf.function(lambda x: kest.dump(x, tmp_path, "graph"))(x)
    for file in "eager_batch7.bin", "graph_batch0.bin":
        assert (tmp_path / file).read_bytes() == np.float32([code, 2, 3]).tobytes() + x.tobytes()


def test_dmq_balance_factors():
    x, w = (rng.normal(size=shape).astype(np.float32) for shape in [(8, 2, 3), (2, 3, 4)])
    got = both_ways(lambda x, w: kest.dmq_balance_factors(x, w, 0.3), x, w)
    np.testing.assert_allclose(got, np.abs(x).max((0, 1)) ** 0.3 / np.abs(w).max((0, 2)) ** 0.7, rtol=1e-6)
