"""The plain entries as a scripting layer calls them: ctypes, structures by value, numpy arrays."""

import ctypes
import os

import numpy as np
import pytest

LIBRARY = ctypes.CDLL(os.environ["KEST_LIBRARY"])
STATUS_BAD_PARAM = -65530


class ArqParam(ctypes.Structure):
    _fields_ = [("numBits", ctypes.c_uint), ("channelWise", ctypes.c_bool), ("withOffset", ctypes.c_bool)]


class NuqParam(ctypes.Structure):
    _fields_ = [("numClusters", ctypes.c_uint), ("withOffset", ctypes.c_bool), ("numIterations", ctypes.c_int)]


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


def test_clusters_weights_in_place():
    weights = np.random.default_rng(2).normal(size=(16, 72))
    original = weights.copy()
    scale, offset = np.zeros(16, np.float32), np.full(16, 7, np.int32)
    assert LIBRARY.NuqQuantPython(pointer(weights), weights.size, NuqParam(16, False, 3), *views(scale, offset)) == 0
    assert not offset.any()
    levels = weights / scale.astype(np.float64).reshape(16, 1)
    np.testing.assert_allclose(levels, np.rint(levels), atol=1e-9)
    assert len(np.unique(np.rint(levels))) == 16 and np.abs(levels).max() <= 128
    assert ((weights - original) ** 2).mean() < 0.03 * (original**2).mean()  # the best 16 levels of a normal leave 0.01


def test_codes_of_clustered_weights_are_the_low_byte():
    weights = np.array([2.5, -2.5, 300, -300.5, 100, 0, 0, 1e30])
    scale, offset = np.array([1, 1, 0.5, 0], np.float32), np.array([0, 0, 1, 5], np.int32)
    codes = np.full(8, 55, np.int8)
    entry = LIBRARY.NuqQuantRealPython
    assert entry(pointer(weights), 8, *views(scale, offset), codes.ctypes.data_as(ctypes.c_char_p)) == 0
    # 300 - 256, -301 + 256, 201 - 256; 0 / 0 is 0 and the end of 32 bits -1.
    np.testing.assert_array_equal(codes, [3, -3, 44, -45, -55, 1, 0, -1])
