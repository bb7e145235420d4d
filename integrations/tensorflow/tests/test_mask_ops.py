"""Masks and dumps, eager and in graphs, against numpy."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

Invalid = tf.errors.InvalidArgumentError
rng = np.random.default_rng(0)
floating = pytest.mark.parametrize("dtype", [np.float32, np.float64])


@floating
def test_generate_mask(dtype):
    rows, columns = np.array([1, 0, 0.5], dtype), np.array([0, 1, -2, np.nan], dtype)
    mask = both_ways(kest.generate_mask, rows, columns)
    np.testing.assert_array_equal(mask, [[0, 1, 1, 1], [0, 0, 0, 0], [0, 1, 1, 1]])
    assert mask.dtype == dtype
    with pytest.raises(Invalid, match="columns has to hold 1 values"):
        kest.generate_mask(rows, columns[0])
    with pytest.raises(Invalid, match="failed with status 8"):
        kest.generate_mask(rows, columns[:0])


@floating
def test_apply_mask(dtype):
    x = rng.normal(size=(2, 3, 4)).astype(dtype)
    for axes, spread in [((-2, -1), (1, 3, 4)), ((0, 1), (2, 3, 1)), ((2, 0), (2, 1, 4))]:
        mask = rng.integers(0, 2, [x.shape[a] for a in axes]).astype(dtype)
        expected = x * (mask.T if axes == (2, 0) else mask).reshape(spread)
        np.testing.assert_array_equal(both_ways(lambda x, m: kest.apply_mask(x, m, *axes), x, mask), expected)
    with tf.GradientTape() as tape:
        variable = tf.Variable(x)
        y = kest.apply_mask(variable, mask, 2, 0)
    np.testing.assert_array_equal(tape.gradient(y, variable, x), expected)
    for wrong, axes, message in [(mask, (0, 1), r"shape \[2,3\] and is of shape \[4,2\]"), (mask, (3, 0), "no axis 3")]:
        with pytest.raises(Invalid, match=message):
            kest.apply_mask(x, wrong, *axes)


@floating
def test_n_of_m_mask(dtype):
    """Groups of 4 and of what is left, channel 2 aside, 2 positions behind each channel and 3 before."""
    w = rng.normal(size=(3, 8, 2)).astype(dtype)
    select = np.ones(8, dtype)
    select[2] = 0.5
    expected = np.ones_like(w)
    for group in [0, 1, 3, 4], [5, 6, 7]:
        rank = np.argsort(np.argsort(-np.abs(w[:, group]), axis=1, kind="stable"), axis=1)
        expected[:, group] = rank < 2
    got = both_ways(lambda w, s: kest.n_of_m_mask(w, select=s), w, select)
    np.testing.assert_array_equal(got, expected)
    mask = both_ways(lambda w: kest.n_of_m_mask(w, keep=1, group_size=100, axis=2), w)
    np.testing.assert_array_equal(mask, np.abs(w) == np.abs(w).max(2, keepdims=True))
    assert kest.n_of_m_mask(w[:0]).shape == (0, 8, 2)
    with pytest.raises(Invalid, match="select has to hold 8"):
        kest.n_of_m_mask(w, select=select[1:])
    with pytest.raises(Invalid, match="the groups hold"):
        kest.n_of_m_mask(w, group_size=2**30)


@floating
@pytest.mark.parametrize("sizes, counts", [([6], [2]), ([2, 4], [1, 3])])
def test_channel_prune_mask(dtype, sizes, counts):
    tensors = [rng.normal(size=shape).astype(dtype) for shape in [(2, 3, 6), (6,), (6, 5)]]
    groups = np.split(np.arange(6), np.cumsum(sizes)[:-1])
    expected = np.ones(6)
    for group, count in zip(groups, counts):
        scores = 0
        for tensor, others in zip(tensors, [(0, 1), (), 1]):
            norms = np.sqrt((tensor.astype(float) ** 2).sum(others))[group]
            scores = scores + (norms - norms.min()) / (norms.max() - norms.min())
        expected[group[np.argsort(scores)[:count]]] = 0
    got = both_ways(lambda *t: kest.channel_prune_mask(t, [-1, 0, 0], sizes, counts), *tensors)
    np.testing.assert_array_equal(got, expected)
    assert got.dtype == dtype


@pytest.mark.parametrize(
    "axes, sizes, counts, message",
    [
        ([0], [4], [1], "does not hold elements of 4 channels along axis 0"),
        ([1], [6], [1], "no axis 1"),
        ([0, 0], [6], [1], "2 axes for 1 tensors"),
        ([0], [6], [1, 1], "2 prune_counts for 1 groups"),
        ([0], [2, 4], [3, 0], "group 0 cannot prune 3 of 2"),
        ([0], [-2, 8], [0, 0], "group 0 cannot prune 0 of -2"),
    ],
)
def test_channel_prune_mask_errors(axes, sizes, counts, message):
    with pytest.raises(Invalid, match=message):
        kest.channel_prune_mask([tf.ones([6])], axes, sizes, counts)


@pytest.mark.parametrize("code, dtype", enumerate([np.float32, np.float64, np.int32, np.float16]))
def test_dump(tmp_path, code, dtype):
    x = rng.normal(scale=9, size=(2, 3)).astype(dtype)
    kest.dump(x, tmp_path, "eager", 7)
    tf.function(lambda x: kest.dump(x, tmp_path, "graph"))(x)
    for file in "eager_batch7.bin", "graph_batch0.bin":
        assert (tmp_path / file).read_bytes() == np.float32([code, 2, 3]).tobytes() + x.tobytes()


def test_dump_errors(tmp_path):
    with pytest.raises(Invalid, match=r"KestDump.* failed: \[ERROR\]"):
        kest.dump([1.0], tmp_path / "missing", "x")
    with pytest.raises(Invalid, match="batch is negative"):
        kest.dump([1.0], tmp_path, "x", -1)
