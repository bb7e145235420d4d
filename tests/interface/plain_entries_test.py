"""The plain entries as a scripting layer calls them: ctypes, structures by value, numpy arrays."""

import ctypes
import os

import numpy as np
import pytest

LIBRARY = ctypes.CDLL(os.environ["KEST_LIBRARY"])
STATUS_BAD_PARAM = -65530


class ArqParam(ctypes.Structure):
    _fields_ = [("numBits", ctypes.c_uint), ("channelWise", ctypes.c_bool), ("withOffset", ctypes.c_bool)]


class FloatData(ctypes.Structure):
    _fields_ = [("length", ctypes.c_uint), ("data", ctypes.POINTER(ctypes.c_float))]


class IntData(ctypes.Structure):
    _fields_ = [("length", ctypes.c_uint), ("data", ctypes.POINTER(ctypes.c_int))]


def pointer(array):
    return array.ctypes.data_as(ctypes.POINTER(np.ctypeslib.as_ctypes_type(array.dtype)))


def views(scale, offset):
    return FloatData(len(scale), pointer(scale)), IntData(len(offset), pointer(offset))


@pytest.mark.parametrize("dtype, entry", [(np.float32, "ArqQuantFloatPython"), (np.float64, "ArqQuantDoublePython")])
def test_quantises_a_convolution_in_place(dtype, entry):
    weights = np.random.default_rng(1).normal(size=(16, 8, 3, 3)).astype(dtype)
    original = weights.copy()
    scale, offset = np.zeros(16, np.float32), np.full(16, 7, np.int32)
    assert getattr(LIBRARY, entry)(pointer(weights), weights.size, ArqParam(8, True, False), *views(scale, offset)) == 0
    lowest, highest = original.reshape(16, -1).min(1), original.reshape(16, -1).max(1)
    expected = np.where(highest > -lowest, highest.astype(np.float32) / np.float32(127), lowest.astype(np.float32) / np.float32(-128))
    np.testing.assert_array_equal(scale, expected)
    assert not offset.any()
    steps = weights / scale.reshape(16, 1, 1, 1)
    np.testing.assert_allclose(steps, np.rint(steps), atol=1e-4)
    assert np.abs(weights - original).max() <= scale.max() * 0.5001


def test_codes_are_signed_bytes():
    weights = np.array([[2.5, -2.5, 300.0], [1.0, -0.49, 0.5]])
    scale, offset = np.array([1.0, 0.5], np.float32), np.array([0, 3], np.int32)
    codes = np.full(6, 55, np.int8)
    entry = LIBRARY.QuantRealDoublePython
    assert entry(pointer(weights), 6, *views(scale, offset), 8, codes.ctypes.data_as(ctypes.c_char_p)) == 0
    np.testing.assert_array_equal(codes, [3, -3, 127, 5, 2, 4])


def test_a_status_comes_back_and_nothing_is_written():
    weights = np.array([1.0, np.nan], np.float32)
    scale, offset = np.full(1, 5, np.float32), np.full(1, 5, np.int32)
    status = LIBRARY.ArqQuantFloatPython(pointer(weights), 2, ArqParam(8, False, True), *views(scale, offset))
    assert (status, scale[0], offset[0], weights[0]) == (STATUS_BAD_PARAM, 5, 5, 1)
