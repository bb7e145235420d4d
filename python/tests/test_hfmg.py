"""HFMG and activation ARQ against hand-worked histograms and ranges."""

import kest
import numpy as np
import pytest


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_a_wider_batch_widens_the_histogram(dtype):
    calibrator = kest.hfmg.Calibrator(num_bins=8, dtype=dtype)
    calibrator.add(np.arange(9, dtype=dtype).reshape(3, 3))
    first = calibrator.histogram()
    np.testing.assert_array_equal(first.counts, [1, 1, 1, 1, 1, 1, 1, 2])
    np.testing.assert_array_equal(first.edges, np.arange(9))
    calibrator.add(np.array([-8, 8, -8], dtype))
    found = calibrator.histogram()
    np.testing.assert_array_equal(found.counts, [2, 0, 0, 0, 2, 2, 2, 4])
    np.testing.assert_array_equal(found.edges, np.arange(-8, 9, 2))
    assert first.counts.dtype == np.uint32 and found.edges.dtype == dtype and first.edges[0] == 0


def test_a_batch_that_raises_is_not_counted():
    calibrator = kest.hfmg.Calibrator(num_bins=2)
    calibrator._histogram = kest.hfmg.Histogram(np.uint32([2**32 - 2, 7]), np.float32([0, 1, 2]))
    for bad, error in (([np.inf, 0], ValueError), ([-3e38, 3e38], ValueError), ([0, 0], OverflowError)):
        with pytest.raises(error, match="has to"):
            calibrator.add(np.float32(bad))
    assert calibrator.histogram().counts.tolist() == [2**32 - 2, 7] and calibrator.histogram().edges[2] == 2


def test_factors_of_the_full_range_and_of_trimmed_tails():
    calibrator = kest.hfmg.Calibrator(num_bins=np.uint8(2))  # too few to trim
    calibrator.add(np.array([-1, 0, 1.55], np.float32))
    found = calibrator.factors()
    assert found.scale == pytest.approx(0.01, rel=1e-6) and found.offset == -28
    values = np.random.default_rng(1).uniform(-0.5, 1.5, 100_000).astype(np.float32)
    values[0] = 16
    for with_offset, num_bits in ((True, 4), (False, 3)):
        calibrator = kest.hfmg.Calibrator(num_bits, with_offset=with_offset, num_bins=64)
        calibrator.add(values)
        found = calibrator.factors()
        low, high = found.clip_range(num_bits)
        # A quarter of the bins is as far as it trims, and the outlier costs less than the coarser grid.
        assert low <= -0.4 and 1 < high < 5 and (found.offset != 0) == with_offset
        assert calibrator.histogram().edges[-1] == 16


def test_activation_arq():
    for minimum, maximum, with_offset, scale, offset in ((-1, 1.55, True, 0.01, -28), (0.5, 2.55, True, 0.01, -128),
                                                         (-2.55, -1, True, 0.01, 127), (-2, 1, False, 2 / 127, 0)):
        found = kest.hfmg.activation_arq(minimum, maximum, with_offset=with_offset)
        assert found.scale == pytest.approx(scale, rel=1e-6) and found.offset == offset
    assert kest.hfmg.activation_arq(0, 7, 3).scale == 1
    double = kest.hfmg.activation_arq(0, 1 + 2**-40, 2, dtype=np.float64)
    assert double.scale == np.float32((1 + 2**-40) / 3)
    with pytest.raises(kest.ScaleError, match="activation_arq failed") as raised:
        kest.hfmg.activation_arq(0, np.inf)
    assert "[ERROR]" in raised.value.log


def test_failures_and_checks():
    calibrator = kest.hfmg.Calibrator()
    for call in (calibrator.factors, lambda: calibrator.add(np.empty(0, np.float32))):
        with pytest.raises(kest.BadParamError):
            call()
    for call, name in ((calibrator.histogram, "before the first batch"),
                       (lambda: kest.hfmg.activation_arq(0, np.nan), "at most maximum")):
        with pytest.raises(ValueError, match=name):
            call()
    with pytest.raises(TypeError, match="dtype"):
        kest.hfmg.activation_arq(0, 1, dtype=np.int32)
