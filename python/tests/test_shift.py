"""Shifts of kept and of streamed accumulators against numpy."""

import kest
import numpy as np
import pytest

SHIFTS = 2.0 ** np.arange(1, 17)


def round_away(x):
    return np.trunc(x + np.copysign(np.float32(0.5), x))


def errors(integers, to_integer):
    """Those of the sixteen shifts, for integers along the last axis."""
    q = integers.astype(np.float64)[..., None]
    return ((np.clip(to_integer(q / SHIFTS), -32768, 32767) * SHIFTS - q) ** 2).sum(-2)


def batch(seed, axis):
    """Accumulators whose channels, on `axis`, need shifts of their own, channel first too, and the scales."""
    scale = np.float32([0.5, 2, 1, 0.25])
    integers = np.random.default_rng(seed).normal(size=(4, 105)) * [[2**16], [2**18], [2**23], [3]]
    first = (integers.round() * scale[:, None]).astype(np.float32).reshape(4, 3, 5, 7)
    return np.ascontiguousarray(np.moveaxis(first, 0, axis)), first.reshape(4, -1), scale


@pytest.mark.parametrize("axis", [0, 1, 2, -1])
def test_floats_on_any_axis_kept_and_streamed(axis):
    batches = [batch(seed, axis) for seed in range(3)]
    scale = batches[0][2]
    scale.flags.writeable = False
    expected = [errors(round_away(first / scale[:, None]), np.floor) for _, first, _ in batches]
    assert len(set(expected[0].argmin(-1))) == 4
    for accumulators, error in zip((b[0] for b in batches), expected):
        accumulators.flags.writeable = False
        found = kest.shift.search(accumulators, scale, channel_axis=axis)
        np.testing.assert_array_equal(found, 1 + error.argmin(-1))
        together = kest.shift.search(accumulators, scale, channel_axis=axis, per_tensor=True)
        np.testing.assert_array_equal(together, [1 + error.sum(0).argmin()])
    for per_tensor, total in ((False, sum(expected)), (True, sum(expected).sum(0, keepdims=True))):
        searcher = kest.shift.Searcher(scale, channel_axis=axis, per_tensor=per_tensor)
        np.testing.assert_array_equal(searcher.shift_bits(), np.ones(len(total)))
        for accumulators, *_ in batches:
            searcher.feed(accumulators)
        searcher.feed(accumulators[:0] if axis != 0 else accumulators[:, :0])
        np.testing.assert_array_equal(searcher.shift_bits(), 1 + total.argmin(-1))


def test_one_channel_of_any_rank():
    accumulators = np.array([70000, -70000.5], np.float32)
    for shape in ((2,), (1, 2), (2, 1, 1)):
        kept = kest.shift.search(accumulators.reshape(shape), np.ones(1, np.float32), channel_axis=None)
        searcher = kest.shift.Searcher(np.ones(1, np.float32), channel_axis=None)
        searcher.feed(accumulators.reshape(shape))
        assert kept == searcher.shift_bits() == [2] and kept.dtype == np.int32
    searcher.feed(accumulators[:1].reshape(()))
    assert kest.shift.search(accumulators[:0], np.ones(1, np.float32), channel_axis=None) == [1]


def test_integers_truncate_toward_zero():
    rows = np.random.default_rng(2).normal(size=(4, 60)) * [[2**16], [2**18], [2**23], [3]]
    rows = rows.astype(np.int32)
    rows[3] = -1  # truncated to 0 by every shift, floored to -2 and below
    expected = 1 + errors(rows, np.trunc).argmin(-1)
    for axis, shape in ((0, (4, 12, 5)), (-1, (12, 5, 4)), (1, (12, 4, 5))):
        view = np.ascontiguousarray(np.moveaxis(rows.reshape(4, 12, 5), 0, axis))
        assert view.shape == shape
        np.testing.assert_array_equal(kest.shift.search_integers(view, channel_axis=axis), expected)
    joint = 1 + errors(rows.reshape(-1), np.trunc).argmin()
    np.testing.assert_array_equal(kest.shift.search_integers(rows, channel_axis=None), [joint])
    np.testing.assert_array_equal(kest.shift.search_integers(rows[:, :0], channel_axis=0), [1, 1, 1, 1])


@pytest.mark.parametrize("accumulators, scale, axis, match", [
    (np.ones((2, 3), np.float32), np.ones(2, np.float32), -1, r"scale .* \(3,\), not \(2,\)"),
    (np.ones((2, 3), np.float32), np.ones(2, np.float32), None, r"scale .* \(1,\)"),
    (np.ones((2, 3), np.float32), np.ones(3, np.float32), -3, "channel_axis"),
    (np.ones((2, 0), np.float32), np.ones(0, np.float32), -1, "scale .* one entry or more"),
    (np.ones((2, 3), np.float32), np.ones((3, 1), np.float32), -1, "scale .* one axis"),
])
def test_what_does_not_fit_is_an_error(accumulators, scale, axis, match):
    with pytest.raises(ValueError, match=match):
        kest.shift.search(accumulators, scale, channel_axis=axis)
    with pytest.raises(ValueError, match=match):
        kest.shift.Searcher(scale, channel_axis=axis).feed(accumulators)
