"""IFMR and HFMG against hand-worked histograms, ranges and grids."""

import kest
import numpy as np
import pytest

f32 = np.float32
floating = pytest.mark.parametrize("dtype", [np.float32, np.float64])


@floating
@pytest.mark.parametrize("with_offset, expected", [(True, (106 / 7, -1)), (False, (65 / 3, 0))])
def test_ifmr_of_all_batches(dtype, with_offset, expected):
    """The bounds have the ranks 20 from the top and 10 from the bottom; the one ratio is not the best of others."""
    values = np.random.default_rng(3).permutation(np.arange(-50, 150)).astype(dtype)
    calibrator = kest.ifmr.Calibrator(3, with_offset=with_offset, start_ratio=0.5, end_ratio=0.55, step=0.125,
                                      max_percentile=0.9, min_percentile=0.95, dtype=dtype)
    for batch in values.copy().reshape(4, 5, 10):
        calibrator.add(batch)
        batch[:] = 1e6  # the calibrator has its own copy
    found = calibrator.factors()
    assert (found.scale, found.offset) == pytest.approx(expected, rel=1e-6)
    assert found == calibrator.factors()
    bounds = kest.ifmr.percentile_bounds(values.reshape(10, 20), max_percentile=0.9, min_percentile=0.95)
    assert bounds == (-41, 130)


def test_ifmr_counts_what_it_keeps():
    calibrator = kest.ifmr.Calibrator()
    calibrator._batches = (np.broadcast_to(f32(0), 2**32 - 1),)
    calibrator.add(np.empty(0, f32))
    with pytest.raises(ValueError, match="fewer than 2\\^32 values"):
        calibrator.add(np.ones(1, f32))


@floating
def test_fake_quantise(dtype):
    values = np.array([[-9, -0.13, 0.12], [0.625, 9, np.nan]], dtype)
    factors = kest.ActivationFactors(0.25, -2)  # codes -4 to 3: -0.5 to 1.25
    found = kest.ifmr.fake_quantise(values, factors, 3)
    np.testing.assert_array_equal(found, np.array([[-0.5, -0.25, 0], [0.75, 1.25, 0]], dtype), strict=True)
    assert factors.clip_range(3) == (-0.5, 1.25) and values[0, 0] == -9


@floating
def test_hfmg_widens_the_histogram_for_a_wider_batch(dtype):
    calibrator = kest.hfmg.Calibrator(num_bins=8, dtype=dtype)
    calibrator.add(np.arange(9, dtype=dtype).reshape(3, 3))
    first = calibrator.histogram()
    calibrator.add(np.array([-8, 8, -8], dtype))
    found = calibrator.histogram()
    for histogram, counts, edges in ((first, [1, 1, 1, 1, 1, 1, 1, 2], range(9)),
                                     (found, [2, 0, 0, 0, 2, 2, 2, 4], range(-8, 9, 2))):
        np.testing.assert_array_equal(histogram.counts, np.array(counts, np.uint32), strict=True)
        np.testing.assert_array_equal(histogram.edges, np.array(edges, dtype), strict=True)


def test_hfmg_does_not_count_a_batch_that_raises():
    calibrator = kest.hfmg.Calibrator(num_bins=2)
    calibrator._histogram = kest.hfmg.Histogram(np.uint32([2**32 - 2, 7]), f32([0, 1, 2]))
    for bad, error in (([np.inf, 0], ValueError), ([-3e38, 3e38], ValueError), ([0, 0], OverflowError)):
        with pytest.raises(error, match="has to"):
            calibrator.add(f32(bad))
    assert calibrator.histogram().counts.tolist() == [2**32 - 2, 7] and calibrator.histogram().edges[2] == 2


def test_hfmg_factors():
    for settings, values, expected in (({}, [-1, 0, 1.55], (0.01, -28)),
                                       ({"num_bits": 3, "with_offset": False}, [-4, 0, 2.5], (1, 0))):
        calibrator = kest.hfmg.Calibrator(num_bins=np.uint8(2), **settings)  # too few to trim
        calibrator.add(f32(values))
        found = calibrator.factors()
        assert (found.scale, found.offset) == pytest.approx(expected, rel=1e-6)


def test_activation_arq():
    for minimum, maximum, with_offset, expected in ((-1, 1.55, True, (0.01, -28)), (-2, 1, False, (2 / 127, 0))):
        found = kest.hfmg.activation_arq(minimum, maximum, with_offset=with_offset)
        assert (found.scale, found.offset) == pytest.approx(expected, rel=1e-6)
    assert kest.hfmg.activation_arq(0, 7, 3).scale == 1
    double = kest.hfmg.activation_arq(0, 1 + 2**-40, 2, dtype=np.float64)
    assert double.scale == f32((1 + 2**-40) / 3)
