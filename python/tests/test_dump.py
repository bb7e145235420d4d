"""Dump files byte for byte, and back."""

import os

import kest
import numpy as np
import pytest


@pytest.mark.parametrize("code, dtype", enumerate([np.float32, np.float64, np.int32, np.float16]))
@pytest.mark.parametrize("shape", [(2, 3, 5), (7,), (), (4, 0)])
def test_files_and_back(tmp_path, code, dtype, shape):
    values = np.asarray(np.random.default_rng(code).normal(scale=10, size=shape)).astype(dtype)
    directory = tmp_path / "d\udcff"  # a byte that is no UTF-8, as the system's functions have it
    directory.mkdir()
    (directory / "é\udcfe_batch4000000000.bin").write_bytes(b"x" * 999)  # is replaced
    given = [directory, str(directory), bytes(directory), os.fsencode(directory) + b"/"][code]
    path = kest.dump.write(given, "é\udcfe", 4000000000, values)
    assert path == directory / "é\udcfe_batch4000000000.bin"
    assert path.read_bytes() == np.array([code, *shape], np.float32).tobytes() + values.tobytes()
    back = kest.dump.read([path, str(path), bytes(path), path][code], len(shape))
    np.testing.assert_array_equal(back, values)
    assert back.dtype == dtype and back.shape == shape and back.flags.writeable


def test_files_that_cannot_be_written(tmp_path, capfd):
    values = np.ones(5, np.float32)
    with pytest.raises(OSError, match=r"cannot be opened:\n\[ERROR\]\[DumpData\]"):
        kest.dump.write(tmp_path / "absent", "a", 0, values)
    assert capfd.readouterr().out == ""
    (tmp_path / "full_batch0.bin").symlink_to("/dev/full")
    with pytest.raises(OSError, match="not written whole"):
        kest.dump.write(tmp_path, "full", 0, values)
    for name, arguments in (("name", ("a\0b", 0, values)), ("batch", ("a", 2**32, values)),
                            ("values", ("a", 0, np.ones((2**24 + 1, 0), np.float32)))):
        with pytest.raises(ValueError, match=f"^{name} (has|have) to"):
            kest.dump.write(tmp_path, *arguments)
    with pytest.raises(TypeError, match="values has to be"):
        kest.dump.write(tmp_path, "a", 0, np.ones(5, np.uint16))


@pytest.mark.parametrize("header, num_dims, message", [
    ([0, 2], 2, "at least 12 bytes"), ([0, 2], -1, "num_dims"), ([4, 1], 1, "unknown element type 4"),
    ([np.nan], 0, "unknown element type"), ([0, -1], 1, "no shape"), ([0, 1.5], 1, "no shape"),
    ([0, np.inf], 1, "no shape"), ([0, 0, 1e30], 2, "no shape"),
    ([0, 2, 1], 1, "does not fit"), ([1, 1, 0], 1, "does not fit"),
])
def test_files_that_are_no_such_tensor(tmp_path, header, num_dims, message):
    path = tmp_path / "t.bin"
    path.write_bytes(np.array(header, np.float32).tobytes())
    with pytest.raises(ValueError, match=message):
        kest.dump.read(path, num_dims)
    with pytest.raises(FileNotFoundError):
        kest.dump.read(tmp_path / "absent", 1)
