"""The plain entries as a scripting layer calls them: ctypes, structures by value, strings as addresses of pointers."""

import ctypes
import os
import re

import numpy as np
import pytest

LIBRARY = ctypes.CDLL(os.environ["KEST_LIBRARY"])
STATUS_BAD_PARAM, STATUS_FILE_ERROR, STATUS_RUNTIME_ERROR = -65530, -65529, -65528
HEAD, REST = 'record {\n  key: "conv1"\n  value {\n', "    offset_d: 1\n  }\n}\n"


class ArqParam(ctypes.Structure):
    _fields_ = [("numBits", ctypes.c_uint), ("channelWise", ctypes.c_bool), ("withOffset", ctypes.c_bool)]


class NuqParam(ctypes.Structure):
    _fields_ = [("numClusters", ctypes.c_uint), ("withOffset", ctypes.c_bool), ("numIterations", ctypes.c_int)]


class View(ctypes.Structure):
    _fields_ = [("length", ctypes.c_uint), ("data", ctypes.c_void_p)]


def address(array):
    return ctypes.c_void_p(array.ctypes.data)


def views(scale, offset):
    return View(len(scale), scale.ctypes.data), View(len(offset), offset.ctypes.data)


def factors(scale, offset):
    return np.array(scale, np.float32), np.array(offset, np.int32)


@pytest.mark.parametrize("dtype, entry", [(np.float32, "ArqQuantFloatPython"), (np.float64, "ArqQuantDoublePython")])
def test_quantises_in_place(dtype, entry):
    weights, (scale, offset) = np.array([[127, 0.4, -2.5], [-64, 0.8, 1]], dtype), factors([0, 0], [7, 7])
    assert getattr(LIBRARY, entry)(address(weights), 6, ArqParam(8, True, False), *views(scale, offset)) == 0
    np.testing.assert_array_equal(weights, [[127, 0, -3], [-64, 1, 1]])
    np.testing.assert_array_equal((scale, offset), [[1, 0.5], [0, 0]])


def test_a_status_comes_back_and_nothing_is_written():
    weights, (scale, offset) = np.array([1, np.nan], np.float32), factors([5], [5])
    status = LIBRARY.ArqQuantFloatPython(address(weights), 2, ArqParam(8, False, True), *views(scale, offset))
    assert (status, scale[0], offset[0], weights[0]) == (STATUS_BAD_PARAM, 5, 5, 1)


def test_clusters_weights_in_place():
    weights, (scale, offset) = np.array([0.0, 1, 2, 125, 126, 127]), factors([0], [7])
    assert LIBRARY.NuqQuantPython(address(weights), 6, NuqParam(2, False, 3), *views(scale, offset)) == 0
    np.testing.assert_array_equal(weights, [1, 1, 1, 126, 126, 126])
    assert (scale[0], offset[0]) == (1, 0)


def test_codes_are_signed_bytes():
    codes, weights = np.full(8, 55, np.int8), np.array([[2.5, -2.5, 300], [1, -0.49, 0.5]])
    given = views(*factors([1, 0.5], [0, 3]))
    assert LIBRARY.QuantRealDoublePython(address(weights), 6, *given, 8, address(codes)) == 0
    np.testing.assert_array_equal(codes, [3, -3, 127, 5, 2, 4, 55, 55])
    # Of clusters the low byte: 300 - 256, -301 + 256, 201 - 256; 0 / 0 is 0 and the end of 32 bits -1.
    weights = np.array([2.5, -2.5, 300, -300.5, 100, 0, 0, 1e30])
    given = views(*factors([1, 1, 0.5, 0], [0, 0, 1, 5]))
    assert LIBRARY.NuqQuantRealPython(address(weights), 8, *given, address(codes)) == 0
    np.testing.assert_array_equal(codes, [3, -3, 44, -45, -55, 1, 0, -1])


def test_records_are_written(capfd, tmp_path):
    def write(entry, path, layer, *data_type):  # 0.5 and -3, from views that claim to be empty
        strings = [ctypes.byref(ctypes.c_char_p(text and os.fsencode(text))) for text in (path, layer)]
        values = ctypes.c_float(0.5), ctypes.c_int(-3)
        empty = [ctypes.byref(View(0, ctypes.addressof(value))) for value in values]
        status = getattr(LIBRARY, entry)(*strings, *empty, *data_type)
        ctypes.CDLL(None).fflush(None)
        return status, re.sub(r"\[\d+\]", "[]", capfd.readouterr().out)

    ctypes.CDLL(None).fflush(None)
    capfd.readouterr()  # what is left of earlier tests
    path, kernel = tmp_path / ("a name that no string holds without an allocation " * 4), "[RecordScaleOffsetKernel][] "
    path.write_text(HEAD + REST)
    success = (0, f'[INFO]{kernel}Write scale_d and offset_d to "conv1" success.\n')
    assert write("RecordScaleOffset", path, "conv1", 10) == success
    assert write("RecordScaleOffsetWeight", path, "conv1") == success
    data = "    scale_d: 0.5\n    offset_d: -3\n    op_data_type: 'FLOAT16'\n"
    written = HEAD + "    scale_w: 0.5\n    offset_w: -3\n" + data + REST
    assert path.read_text() == written
    invalid = f"[ERROR]{kernel}Invalid record file path.\n"
    assert write("RecordScaleOffset", None, "conv1", 0) == (STATUS_FILE_ERROR, invalid)
    missing = '[ERROR][RecordScaleOffsetData][] Cannot find "" in record file.\n'
    failed = f'[ERROR]{kernel}Write scale_d and offset_d to "" failed.\n'
    assert write("RecordScaleOffsetWeight", path, None) == (STATUS_RUNTIME_ERROR, missing + failed)
    assert path.read_text() == written
