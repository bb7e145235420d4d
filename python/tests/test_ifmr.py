"""IFMR against numpy and hand-worked grids."""

import kest
import numpy as np
import pytest


def plain(values, num_bits, with_offset, percentiles, ratios):
    """The scale and offset of the ratio with the smallest error: values are clipped, divided, rounded."""
    f32, dtype, half = np.float32, values.dtype.type, 2 ** (num_bits - 1)
    top, bottom = (len(values) - int(f32(len(values)) * f32(share)) if share < 1 else 1 for share in percentiles)
    highest, lowest = max(np.sort(values)[-top], dtype(0)), min(np.sort(values)[bottom - 1], dtype(0))
    bound = max(highest, -lowest)
    levels = 2 * half - 1 if with_offset else half - (highest > -lowest)
    losses = []
    for ratio in map(f32, ratios):
        above = dtype(ratio * highest) if with_offset else dtype(ratio * f32(bound))
        below = lowest if with_offset else -above
        scale = (above - below) / dtype(levels) if with_offset else above / dtype(levels)
        steps = np.clip(values, below, above) / scale
        errors = np.trunc(steps + np.copysign(np.nextafter(dtype(0.5), dtype(0)), steps)) * scale - values
        losses.append(np.add.accumulate((errors * errors / dtype(len(values))).astype(f32))[-1])  # in order
    ratio = float(f32(ratios[int(np.argmin(losses))]))
    if not with_offset:
        return f32(ratio * float(f32(bound))) / f32(levels), 0
    product = ratio * float(highest) if dtype is f32 else float(f32(ratio * highest))
    scale = f32(f32(product - float(lowest)) / f32(levels)) if dtype is f32 else f32((product - lowest) / levels)
    return scale, -int(np.trunc(lowest / dtype(scale) - dtype(0.5))) - half


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
@pytest.mark.parametrize("num_bits, with_offset, percentiles", [(3, True, (1, 1)), (3, False, (1, 1)),
                                                                (6, True, (0.99, 0.95)), (4, False, (0.9, 0.95))])
def test_the_ratio_of_the_smallest_error_over_all_batches(dtype, num_bits, with_offset, percentiles):
    for seed in range(40):
        batches = list(np.random.default_rng(seed).normal((seed - 20) / 20, 1, (3, 5, 7, 4)).astype(dtype))
        calibrator = kest.ifmr.Calibrator(num_bits, with_offset=with_offset, start_ratio=0.5, end_ratio=1.25,
                                          step=2**-5, max_percentile=percentiles[0], min_percentile=percentiles[1],
                                          dtype=dtype)
        values = np.concatenate(batches).reshape(-1)
        for batch in batches:
            calibrator.add(batch)
            batch[:] = 1e6  # the calibrator has its own copy
        expected = plain(values, num_bits, with_offset, percentiles, np.arange(0.5, 1.26, 2**-5))
        found = calibrator.factors()
        assert (found.scale, found.offset) == expected and found == calibrator.factors()


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_fake_quantise(dtype):
    values = np.array([[-9, -0.13, 0.12], [0.625, 9, np.nan]], dtype)
    original = values.copy()
    factors = kest.ActivationFactors(0.25, -2)  # codes -4 to 3: -0.5 to 1.25
    found = kest.ifmr.fake_quantise(values, factors, 3)
    np.testing.assert_array_equal(found, [[-0.5, -0.25, 0], [0.75, 1.25, 0]])
    assert found.dtype == dtype and factors.clip_range(3) == (-0.5, 1.25)
    np.testing.assert_array_equal(values, original)


def test_percentile_bounds():
    values = np.random.default_rng(3).permutation(np.arange(-300, 700)).astype(np.float64).reshape(10, 100)
    bounds = kest.ifmr.percentile_bounds(values, max_percentile=0.75, min_percentile=1)
    assert bounds == (-300, 450)  # the rank 250 from the top
    assert kest.ifmr.percentile_bounds(values, max_percentile=1, min_percentile=0.5) == (0, 699)


def factors_of(*args, values=(1.0, 2.0), **keywords):
    calibrator = kest.ifmr.Calibrator(*args, **keywords)
    calibrator.add(np.array(values, np.float32))
    return calibrator.factors()


@pytest.mark.parametrize("call, error, line", [
    (lambda: factors_of(values=()), kest.BadParamError, "IfmrQuant"),
    (lambda: factors_of(values=(np.nan,)), kest.BadParamError, "Exist NaN"),
    (lambda: kest.ifmr.Calibrator(step=0), kest.BadParamError, "step = 0"),  # before any batch
    (lambda: kest.ifmr.fake_quantise(np.ones(2), kest.ActivationFactors(0, 0)), kest.ScaleError, "scale value"),
    (lambda: kest.ifmr.percentile_bounds(np.ones(0)), kest.BadParamError, "no data"),
])
def test_failures(call, error, line):
    with pytest.raises(error) as raised:
        call()
    assert line in raised.value.log


def test_arguments_are_checked():
    calibrator = kest.ifmr.Calibrator()
    calibrator._batches = (np.broadcast_to(np.float32(0), 2**32 - 1),)
    calibrator.add(np.empty(0, np.float32))
    with pytest.raises(ValueError, match="fewer than 2\\^32 values"):
        calibrator.add(np.ones(1, np.float32))
    for percentile in (0, -1, 1.5, np.nan):
        with pytest.raises(ValueError, match="a percentile has to be"):
            kest.ifmr.Calibrator(max_percentile=percentile)
    with pytest.raises(TypeError, match="dtype has to be float32 or float64"):
        kest.ifmr.Calibrator(dtype=np.float16)
