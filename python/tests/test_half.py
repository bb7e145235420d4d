"""Half precision to the bit."""

import kest
import numpy as np
import pytest

f32 = np.float32


def test_every_half_comes_back_but_for_subnormals():
    bits = np.arange(2**16, dtype=np.uint16).reshape(256, 256)
    halves = bits.view(np.float16)
    wide = kest.half.to_float32(halves)
    np.testing.assert_array_equal(wide, halves.astype(f32))
    assert wide.dtype == f32
    narrow = kest.half.to_float16(wide)
    assert narrow.dtype == np.float16 and narrow.shape == bits.shape
    subnormal = (bits & 0x7C00) == 0
    expected = np.where(subnormal, bits & 0x8000, bits)
    number = ~np.isnan(halves)
    np.testing.assert_array_equal(narrow.view(np.uint16)[number], expected[number])
    assert np.isnan(narrow[~number]).all()


def test_rounding_is_toward_zero_where_numpy_rounds_to_nearest():
    values = np.array([1 + 2**-11 + 2**-12, -1 - 2**-11 - 2**-12, 2**-14, 2**-14 - 2**-26, -1e-5, 65520, -1e30,
                       np.inf], f32)
    found = kest.half.to_float16(values)
    np.testing.assert_array_equal(found.view(np.uint16),
                                  [0x3C00, 0xBC00, 0x0400, 0, 0x8000, 0x7BFF, 0xFBFF, 0x7C00])
    with np.errstate(over="ignore"):
        numpys = values.astype(np.float16)
    np.testing.assert_array_equal(found != numpys, [1, 1, 0, 1, 1, 1, 1, 0])
