"""Calibration over batches, eager and in graphs that several threads run, against numpy."""

import functools
import gc
import pathlib
import resource
from concurrent.futures import ThreadPoolExecutor

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from graphs import both_ways

Invalid = tf.errors.InvalidArgumentError


def factors_of(calibrator):
    return [factor.numpy() for factor in calibrator.factors()]


def of_batches(make, some):
    calibrator = make()
    for batch in some:
        calibrator.add(batch)
    return factors_of(calibrator)


@pytest.mark.parametrize("with_offset, start, end", [(True, 0.5, 1.0625), (False, 1.25, 1.5)])
def test_ifmr(with_offset, start, end):
    """The bounds are those of all batches, by their ranks 20 from the top and 10 from the bottom."""
    x = np.random.default_rng(2).permutation(np.arange(-50.0, 150))
    found = of_batches(lambda: kest.IfmrCalibrator(3, with_offset, start, end, 2**-4, 0.9, 0.95), np.split(x, 4))
    expected = []
    for high in 130 * np.arange(start, end + 0.01, 2**-4):
        low, scale = (-41, (high + 41) / 7) if with_offset else (-high, high / 3)
        q = np.clip(x, low, high) / scale
        y = np.trunc(q + np.copysign(0.5, q)) * scale
        expected.append((((x - y) ** 2).mean(), scale, np.rint(41 / scale) - 4 if with_offset else 0))
    np.testing.assert_allclose(found, min(expected)[1:], rtol=1e-6)


def test_hfmg():
    """Values with no sparse tail keep about their whole range, which a narrower batch leaves as it is."""
    spread = [np.linspace(low, high, 6400).reshape(64, 100) for low, high in [(-1, 2), (-2, 3), (-0.5, 1)]]
    scale, offset = of_batches(lambda: kest.HfmgCalibrator(8, num_bins=64), spread)
    np.testing.assert_allclose(scale, 5 / 255, rtol=0.02)
    assert offset == np.rint(2 / scale) - 128
    scale, offset = of_batches(lambda: kest.HfmgCalibrator(4, with_offset=False), [np.linspace(-4, 3, 100)])
    assert offset == 0 and 0.4 < scale <= 0.5  # 8 codes below zero


# To any value, if its range is cut where few bits serve best, or is that of a percentile.
sensitive = [
    functools.partial(kest.HfmgCalibrator, 3),
    functools.partial(kest.IfmrCalibrator, 8, True, 1.0, 1.0, 1.0, 0.9, 0.9),
    kest.ActivationArqCalibrator,
]


@pytest.mark.parametrize("make", sensitive)
def test_threads_of_functions(make):
    """Batches that several threads count through one function come to the factors of one thread, none lost."""
    spread = np.linspace(0.5, 3, 24)[:, np.newaxis]
    normal = np.random.default_rng(1).normal(0, spread, (24, 50_000)).astype(np.float32)
    normal[0, :2] = [-20, 20]  # so that no histogram is widened and the order of the others does not matter
    expected = of_batches(make, normal)
    if make is not kest.ActivationArqCalibrator:
        for lost in (1, 12, 23):
            assert of_batches(make, np.delete(normal, lost, 0)) != expected
    shared = make()

    @tf.function
    def see(batch):
        shared.add(batch)

    see(normal[0])
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(see, normal[1:]))
    assert factors_of(shared) == expected


def test_activation_arq():
    """The extremes of different batches, zero included; NaN is passed over."""
    for some, symmetric, asymmetric in [([[np.nan, 1], [-2, np.nan], [0.5, -1]], (2 / 127, 0), (3 / 255, 42)),
                                        ([[3, 4], [np.nan, np.nan], [2, 5]], (5 / 127, 0), (5 / 255, -128))]:
        for with_offset, expected in (False, symmetric), (True, asymmetric):
            found = of_batches(lambda: kest.ActivationArqCalibrator(8, with_offset), np.float32(some))
            np.testing.assert_allclose(found, expected, rtol=1e-6)


def test_percentile_bounds_and_fake_quantise():
    for dtype in np.float32, np.float64:
        x = np.random.default_rng(2).permutation(np.arange(-50, 150)).astype(dtype)
        upper, lower = both_ways(lambda x: kest.percentile_bounds(x, 0.9, 1.0), x)
        assert (upper, lower, upper.dtype) == (130, -50, dtype)
    x = np.float32([[-9, -1.25, 0.75], [np.nan, 1.3, np.inf]])
    got = both_ways(lambda x: kest.fake_quantise(x, 0.5, 1, 3), x)
    np.testing.assert_array_equal(got, [[-2.5, -1.5, 1], [0, 1, 1]])  # codes from -4 to 3


@pytest.mark.parametrize("make", [kest.ActivationArqCalibrator, kest.HfmgCalibrator, kest.IfmrCalibrator])
def test_order_in_a_function(make):
    """A function sees the batch before it asks for the factors, and what it saw stays for the next call."""
    expected, calibrator = make(), make()

    @tf.function
    def step(batch):
        calibrator.add(batch)
        return calibrator.factors()

    for batch in np.float32([[-1, 3], [-2, 8], [0, 5]]):
        expected.add(batch)
        got = step(batch)
        assert [x.numpy() for x in got] == factors_of(expected)
        assert got[0].shape == got[1].shape == []


def test_lifetime():
    """Each calibrator has its own state, which a function that uses it keeps alive."""

    def function():
        calibrator = kest.IfmrCalibrator()
        calibrator.add([-1.55, 1.0])
        return tf.function(lambda: calibrator.factors())

    functions = [function(), function()]
    gc.collect()
    assert [x.numpy() for x in functions[0]()] == [x.numpy() for x in functions[1]()]


def test_out_of_memory():
    """An error, which leaves a calibrator what it had."""
    x, calibrator = tf.zeros([2**24, 4]), kest.IfmrCalibrator()
    calibrator.add(x[:1])
    used = int(pathlib.Path("/proc/self/statm").read_text().split()[0]) * resource.getpagesize()
    for name, call in ("CalibratorAdd", lambda: calibrator.add(x)), ("ShiftSearch", lambda: kest.shift_search(x, x[0])):
        with pytest.raises(tf.errors.ResourceExhaustedError, match=f"Kest{name}': memory has run out"):
            resource.setrlimit(resource.RLIMIT_AS, (used + 2**26, resource.RLIM_INFINITY))
            try:
                call()
            finally:
                resource.setrlimit(resource.RLIMIT_AS, (resource.RLIM_INFINITY,) * 2)
    assert calibrator.factors()[0].numpy() == 1


def test_batches_that_would_spoil_a_histogram():
    zeros, calibrator = tf.zeros([2**26]), kest.HfmgCalibrator()
    for _ in range(63):
        calibrator.add(zeros)
    for batch, message in [([1.0, np.inf], "has to be finite"), (zeros, "fewer than 2.32 values")]:
        with pytest.raises(Invalid, match=message):
            calibrator.add(batch)
    calibrator.add([0.0])
    assert factors_of(calibrator) == [1, -128]
