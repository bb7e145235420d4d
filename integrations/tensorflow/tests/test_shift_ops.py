"""Shifts of kept and of streamed accumulators, eager and in graphs that several threads run, against numpy."""

from concurrent.futures import ThreadPoolExecutor

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

Invalid = tf.errors.InvalidArgumentError
scale = np.float32([0.5, 2, 1, 0.25])


def batch(seed, axis):
    """Accumulators whose channels need shifts of their own."""
    integers = np.random.default_rng(seed).normal(size=(30, 4)) * [2**16, 2**18, 2**23, 3]
    x = (integers.round() * scale).astype(np.float32).reshape(5, 6, 4)
    return np.ascontiguousarray(np.moveaxis(x, -1, axis))


def errors(x, axis):
    """Those of the sixteen shifts, a row for each channel."""
    q = np.rint(np.moveaxis(x, axis, 0).reshape(4, -1, 1) / scale.astype(np.float64)[:, None, None])
    shifts = 2.0 ** np.arange(1, 17)
    return ((np.clip(np.floor(q / shifts), -32768, 32767) * shifts - q) ** 2).sum(1)


def expected(error, per_tensor):
    return 1 + (error.sum(0, keepdims=True) if per_tensor else error).argmin(-1)


@pytest.mark.parametrize("per_tensor", [False, True])
@pytest.mark.parametrize("axis", [0, 1, -1])
def test_kept_and_streamed(axis, per_tensor):
    batches = [batch(seed, axis) for seed in range(3)]
    found = both_ways(lambda x: kest.shift_search(x, scale, axis, per_tensor), batches[0])
    np.testing.assert_array_equal(found, expected(errors(batches[0], axis), per_tensor))
    assert len(set(errors(batches[0], axis).argmin(-1))) == 4
    searcher = kest.ShiftSearcher(axis, per_tensor)

    @tf.function
    def step(x):
        searcher.add(x, scale)
        return searcher.shift_bits()

    total = 0
    for x in batches:
        total += errors(x, axis)
        np.testing.assert_array_equal(step(x), expected(total, per_tensor))
    np.testing.assert_array_equal(searcher.shift_bits(), expected(total, per_tensor))


@pytest.mark.parametrize("num_large, shift", [(100, 1), (101, 2)])
def test_threads_of_functions(num_large, shift):
    """A batch lost among the threads tips the balance: 65536 is clipped by a shift of 1, and 2 is cut by one of 2."""
    searcher = kest.ShiftSearcher()
    see = tf.function(lambda x: searcher.add(x, [1.0]))
    small, large = np.full((100, 1), 2, np.float32), np.full((100, 1), 65536, np.float32)
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(see, [small, large] * 100 + [large] * (num_large - 100)))
    np.testing.assert_array_equal(searcher.shift_bits(), [shift])


def test_errors():
    searcher = kest.ShiftSearcher()
    with pytest.raises(tf.errors.FailedPreconditionError, match="KestShiftErrorsFind.*no batch"):
        searcher.shift_bits()
    searcher.add([[1.0, 2.0]], [1.0, 1.0])
    with pytest.raises(Invalid, match="3 channels do not go with those before, of 2"):
        searcher.add([[1.0, 2.0, 3.0]], [1.0, 1.0, 1.0])
    for x, factors, message in [([[1.0]], [1.0, 1.0], "scale has to hold 1 values"), ([[]], [], "no accumulators")]:
        with pytest.raises(Invalid, match=message):
            kest.shift_search(x, factors)
