"""Weights against numpy, and what a caller sees of failures."""

from concurrent.futures import ThreadPoolExecutor

import kest
import numpy as np
import pytest


def plain(weights, num_bits, with_offset):
    """The factors and the weights on their grid, channel first, written plainly."""
    flat = weights.reshape(len(weights), -1)
    lowest, highest = (extreme.astype(np.float32) for extreme in (flat.min(1), flat.max(1)))
    low, high = np.float32(-(2 ** (num_bits - 1))), np.float32(2 ** (num_bits - 1) - 1)
    if with_offset:
        return None
    scale = np.where(highest > -lowest, highest / high, lowest / low)
    scale = np.where(scale < np.finfo(np.float32).eps, np.float32(1), scale)
    steps = flat / scale[:, None]
    codes = np.clip(np.trunc(steps + np.copysign(0.5, steps)), low, high)
    return scale, codes.astype(np.int8), (codes.astype(np.float32) * scale[:, None]).reshape(weights.shape)


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
@pytest.mark.parametrize("num_bits", [3, 8])
def test_channels_first_last_and_none(dtype, num_bits):
    weights = np.random.default_rng(num_bits).normal(size=(16, 3, 5, 7)).astype(dtype)
    original = weights.copy()
    scale, codes, values = plain(weights, num_bits, False)
    for axis, view in ((0, lambda a: a), (-1, lambda a: np.ascontiguousarray(np.moveaxis(a, 0, -1)))):
        given = view(weights)
        found, factors = kest.arq.fake_quantise(given, num_bits, channel_axis=axis)
        np.testing.assert_array_equal(factors.scale, scale)
        np.testing.assert_array_equal(found, view(values.astype(dtype)))
        assert not factors.offset.any() and found.dtype == dtype
        found_codes = kest.arq.codes(given, factors, num_bits, channel_axis=axis)
        np.testing.assert_array_equal(found_codes, view(codes.reshape(weights.shape)))
    np.testing.assert_array_equal(weights, original)
    one = kest.arq.calibrate(weights, num_bits, channel_axis=None)
    np.testing.assert_array_equal(one.scale, plain(weights.reshape(1, -1), num_bits, False)[0])


def test_an_asymmetric_grid_reaches_both_ends():
    weights = np.array([[0, 2.55], [-1, 1.55]], np.float32)
    values, factors = kest.arq.fake_quantise(weights, with_offset=True)
    np.testing.assert_array_equal(factors.offset, [-128, -28])
    np.testing.assert_allclose(values, weights, atol=1e-6)


@pytest.mark.parametrize("call, error, status, line", [
    (lambda: kest.arq.calibrate(np.array([1, np.nan], "f")), kest.BadParamError, -65530, "[ERROR][CheckArqParams]"),
    (lambda: kest.arq.calibrate(np.ones(2), 1), kest.BadParamError, -65530, "[ERROR][CheckArqParams]"),
    (lambda: kest.arq.calibrate(np.array([[1], [np.inf]])), kest.ScaleError, -65519, "[ERROR][ProcessScale]"),
])
def test_a_status_is_an_exception_with_the_log_lines(capfd, call, error, status, line):
    with pytest.raises(error) as raised:
        call()
    assert raised.value.status == status and line in raised.value.log
    assert str(status) in str(raised.value) and raised.value.step == "arq.calibrate"
    assert capfd.readouterr().out == ""


def test_axes_and_factors_are_checked():
    good = np.ones((4, 6), np.float32)
    for axis in (1, 3, -2):
        with pytest.raises(ValueError, match="channel_axis has to be"):
            kest.arq.calibrate(good.reshape(2, 2, 6), channel_axis=axis)
    factors = kest.arq.calibrate(good, channel_axis=-1)
    with pytest.raises(ValueError, match=r"shape \(4,\)"):
        kest.arq.codes(good, factors)
    for num_bits in (1, 9):
        with pytest.raises(ValueError, match="num_bits has to be 2 to 8"):
            kest.arq.codes(good, factors, num_bits, channel_axis=-1)


def test_threads_have_their_own_log_lines():
    def work(channel):
        weights = np.ones((8, 999), np.float32)
        weights[channel, 5] = np.inf
        for _ in range(50):
            with pytest.raises(kest.ScaleError) as raised:
                kest.arq.calibrate(weights)
            assert raised.value.log.count("[ERROR]") == 2

    with ThreadPoolExecutor(4) as threads:
        list(threads.map(work, range(4)))
