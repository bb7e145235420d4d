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
calibrators = [kest.ActivationArqCalibrator, kest.HfmgCalibrator, kest.IfmrCalibrator]
batches = np.random.default_rng(0).uniform(-1, 1, (24, 500)).astype(np.float32)
batches[0, :2] = [-1.55, 1]


def factors_of(calibrator):
    return [factor.numpy() for factor in calibrator.factors()]


def ifmr(x, num_bits, with_offset, ratios):
    """The factors of the ratio of the smallest error; its clip range is not yet that of the codes."""
    levels, half = 2**num_bits - 1, 2 ** (num_bits - 1)
    low, high = x.min(), x.max()
    found = []
    for ratio in ratios:
        clip = ratio * high if with_offset else ratio * -low
        scale = (clip - low) / levels if with_offset else clip / half
        offset = np.rint(-low / scale) - half if with_offset else 0
        y = np.rint(np.clip(x, low if with_offset else -clip, clip) / scale) * scale
        found.append((((x - y) ** 2).mean(), scale, offset))
    return min(found)[1:]


@pytest.mark.parametrize("with_offset", [False, True])
@pytest.mark.parametrize("num_bits", [3, 8])
def test_ifmr(num_bits, with_offset):
    """The lower bound is the larger magnitude, over all batches and not over the last one."""
    ratios = (0.5, 1.0, 0.125)
    calibrator = kest.IfmrCalibrator(num_bits, with_offset, *ratios, 1.0, 1.0)
    for batch in batches:
        calibrator.add(batch)
    expected = ifmr(batches.astype(np.float64).ravel(), num_bits, with_offset, np.arange(0.5, 1.01, 0.125))
    np.testing.assert_allclose(factors_of(calibrator), expected, rtol=1e-6)


def test_hfmg():
    """Values with no sparse tail keep about their whole range, which a narrower batch leaves as it is."""
    calibrator = kest.HfmgCalibrator(8, num_bins=64)
    for low, high in [(-1, 2), (-2, 3), (-0.5, 1)]:
        calibrator.add(np.linspace(low, high, 6400, dtype=np.float32).reshape(64, 100))
    scale, offset = factors_of(calibrator)
    np.testing.assert_allclose(scale, 5 / 255, rtol=0.02)
    assert offset == np.rint(2 / scale) - 128
    symmetric = kest.HfmgCalibrator(4, with_offset=False)
    symmetric.add(np.linspace(-4, 3, 100, dtype=np.float32))
    scale, offset = factors_of(symmetric)
    assert offset == 0 and 0.4 < scale <= 0.5  # 8 codes below zero


def of_batches(make, some):
    calibrator = make()
    for batch in some:
        calibrator.add(batch)
    return factors_of(calibrator)


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


@pytest.mark.parametrize("with_offset", [False, True])
def test_activation_arq(with_offset):
    """The extremes of different batches, zero included; NaN is passed over."""
    for some in ([[np.nan, 1], [-2, np.nan], [0.5, -1]], [[3, 4], [np.nan, np.nan], [2, 5]]):
        low, high = min(np.nanmin(some), 0), max(np.nanmax(some), 0)
        scale = (high - low) / 255 if with_offset else max(high, -low) / 127
        found = of_batches(lambda: kest.ActivationArqCalibrator(8, with_offset), np.float32(some))
        np.testing.assert_allclose(found, [scale, -128 - np.rint(low / scale) if with_offset else 0], rtol=1e-6)


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_percentile_bounds(dtype):
    x = np.random.default_rng(2).permutation(np.arange(-50, 150)).astype(dtype)
    upper, lower = both_ways(lambda x: kest.percentile_bounds(x, 0.9, 1.0), x)
    assert (upper, lower, upper.dtype) == (130, -50, dtype)
    with pytest.raises(Invalid, match="KestPercentileBounds.*STATUS_BAD_PARAM"):
        kest.percentile_bounds(x[:0])


def test_fake_quantise():
    x = np.float32([[-9, -1.25, 0.75], [np.nan, 1.3, np.inf]])
    got = both_ways(lambda x: kest.fake_quantise(x, 0.5, 1, 3), x)
    np.testing.assert_array_equal(got, [[-2.5, -1.5, 1], [0, 1, 1]])  # codes from -4 to 3
    assert kest.fake_quantise(x[:0], 0.5, 1).shape == (0, 3)
    with pytest.raises(Invalid, match="KestFakeQuantise.*STATUS_SCALE_ERROR"):
        kest.fake_quantise(x, 0.0, 1)


@pytest.mark.parametrize("make", calibrators)
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

    def function(make):
        calibrator = make()
        calibrator.add(batches[0])
        return tf.function(lambda: calibrator.factors())

    functions = [function(kest.IfmrCalibrator) for _ in range(2)]
    gc.collect()
    assert [x.numpy() for x in functions[0]()] == [x.numpy() for x in functions[1]()]


@pytest.mark.parametrize("make", calibrators)
def test_errors(make):
    with pytest.raises(tf.errors.FailedPreconditionError, match="KestCalibratorFactors.* no batch was added"):
        make().factors()
    with pytest.raises(Invalid, match=r"KestCalibratorAdd.* failed with status 8 .EMPTY_INPUT_ERROR.\s"):
        make().add(np.float32([]))
    with pytest.raises(Invalid, match="at most 31"):
        make(32)


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


def test_errors_of_a_batch():
    calibrator = kest.IfmrCalibrator()
    calibrator.add([np.nan])
    with pytest.raises(Invalid, match=r"(?s)failed with status -65530 .STATUS_BAD_PARAM.: .*NaN in input data"):
        calibrator.factors()
