"""The record writer as a scripting layer calls it: ctypes, a string as the address of a character pointer."""

import ctypes
import os
import re
import resource

import pytest

LIBRARY = ctypes.CDLL(os.environ["KEST_LIBRARY"])
HEAD, REST = 'record {\n  key: "conv1"\n  value {\n', "    offset_d: 1\n  }\n}\n"
STATUS_FILE_ERROR, STATUS_RUNTIME_ERROR = -65529, -65528


class View(ctypes.Structure):
    _fields_ = [("length", ctypes.c_uint), ("data", ctypes.c_void_p)]


@pytest.fixture
def write(capfd):
    def call(entry, path, layer, *data_type):  # 0.5 and -3, from views that claim to be empty
        strings = [ctypes.byref(ctypes.c_char_p(text and os.fsencode(text))) for text in (path, layer)]
        values = ctypes.c_float(0.5), ctypes.c_int(-3)
        views = [ctypes.byref(View(0, ctypes.addressof(value))) for value in values]
        status = getattr(LIBRARY, entry)(*strings, *views, *data_type)
        ctypes.CDLL(None).fflush(None)
        return status, re.sub(r"\[\d+\]", "[]", capfd.readouterr().out)

    return call


def test_both_entries(write, tmp_path):
    path = tmp_path / ("a name that no string holds without an allocation " * 4)
    path.write_text(HEAD + REST)
    success = (0, '[INFO][RecordScaleOffsetKernel][] Write scale_d and offset_d to "conv1" success.\n')
    assert write("RecordScaleOffset", path, "conv1", 10) == success
    assert write("RecordScaleOffsetWeight", path, "conv1") == success
    data = "    scale_d: 0.5\n    offset_d: -3\n    op_data_type: 'FLOAT16'\n"
    assert path.read_text() == HEAD + "    scale_w: 0.5\n    offset_w: -3\n" + data + REST


def test_failures(write, tmp_path):
    path, error = tmp_path / "record.txt", "[ERROR][RecordScaleOffsetKernel][] "
    path.write_text(HEAD)
    assert write("RecordScaleOffset", None, "conv1", 0) == (STATUS_FILE_ERROR, error + "Invalid record file path.\n")
    missing = '[ERROR][RecordScaleOffsetData][] Cannot find "" in record file.\n'
    failed = error + 'Write scale_d and offset_d to "" failed.\n'
    assert write("RecordScaleOffsetWeight", path, None) == (STATUS_RUNTIME_ERROR, missing + failed)
    os.truncate(path, 1 << 30)
    memory = int(open("/proc/self/statm").read().split()[0]) * resource.getpagesize()
    before = resource.getrlimit(resource.RLIMIT_AS)
    resource.setrlimit(resource.RLIMIT_AS, (memory + (1 << 29), before[1]))
    result = write("RecordScaleOffset", path, "conv1", 0)
    resource.setrlimit(resource.RLIMIT_AS, before)
    assert result == (STATUS_RUNTIME_ERROR, error + "Failed to allocate memory.")
