"""What batches come to, eager and in graphs that several threads run: the bits of the Python package, none lost."""

import functools
import gc
import pathlib
import resource
from concurrent.futures import ThreadPoolExecutor

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf
from kest import hfmg, ifmr
from kest.shift import Searcher

Invalid = tf.errors.InvalidArgumentError


def factors_of(calibrator):
    return [factor.numpy() for factor in calibrator.factors()]


def of_batches(make, some):
    calibrator = make()
    for batch in some:
        calibrator.add(batch)
    return factors_of(calibrator)


@pytest.mark.parametrize("operator, package", [
    (kest.HfmgCalibrator, hfmg.Calibrator), (kest.IfmrCalibrator, ifmr.Calibrator),
    (lambda: kest.HfmgCalibrator(4, False, 64), lambda: hfmg.Calibrator(4, with_offset=False, num_bins=64)),
    (lambda: kest.IfmrCalibrator(3, False, 0.5, 0.8, 2**-4, 0.95, 0.9),
     lambda: ifmr.Calibrator(3, with_offset=False, start_ratio=0.5, end_ratio=0.8, step=2**-4, max_percentile=0.95,
                             min_percentile=0.9)),
    (lambda: kest.IfmrCalibrator(8, True, 1.0, 1.0, 1.0, 0.9, 0.95),
     lambda: ifmr.Calibrator(8, start_ratio=1, end_ratio=1, step=1, max_percentile=0.9, min_percentile=0.95))])
def test_factors_of_the_package(operator, package):
    """The second batch widens what is known, which the third leaves as it is."""
    batches, calibrator = (np.float32([[1], [2], [0.5]]) * np.linspace(-1, 1.5, 400, dtype="f") ** 3), package()
    for batch in batches:
        calibrator.add(batch)
    found = calibrator.factors()
    assert of_batches(operator, batches) == [found.scale, found.offset]


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


@pytest.mark.parametrize("axis, per_tensor", [(1, False), (-1, True)])
def test_shifts(axis, per_tensor):
    """The second of the batches needs larger shifts than those before and after it."""
    scale, searcher = np.float32([0.5, 2, 1, 0.25]), kest.ShiftSearcher(axis, per_tensor)
    package = Searcher(scale, channel_axis=axis, per_tensor=per_tensor)

    @tf.function
    def step(x):
        searcher.add(x, scale)
        return searcher.shift_bits()

    for size in 2**16, 2**20, 2**14:
        x = np.random.default_rng(size).normal(0, size, (4, 4, 4)).astype("f")
        package.feed(x)
        np.testing.assert_array_equal(step(x), package.shift_bits())


@pytest.mark.parametrize("num_large, shift", [(100, 1), (101, 2)])
def test_shifts_of_threads_of_functions(num_large, shift):
    """A batch lost among the threads tips the balance: 65536 is clipped by a shift of 1, and 2 is cut by one of 2."""
    searcher = kest.ShiftSearcher()
    see = tf.function(lambda x: searcher.add(x, [1.0]))
    small, large = np.full((100, 1), 2, np.float32), np.full((100, 1), 65536, np.float32)
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(see, [small, large] * 100 + [large] * (num_large - 100)))
    np.testing.assert_array_equal(searcher.shift_bits(), [shift])


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
