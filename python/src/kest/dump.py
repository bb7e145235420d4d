"""Files of tensors, one for each tensor and batch.

A file holds, in the machine's byte order, the code of the element type as a float32 (0 float32, 1 float64, 2 int32, 3
float16), the shape as float32 entries, and the elements. It does not tell how many dimensions there are.
"""

import math
import os
from pathlib import Path
from typing import Any

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import AnyPath, checked, checked_int, checked_path

_DTYPES: list[np.dtype[Any]] = [np.dtype(name) for name in ("float32", "float64", "int32", "float16")]


def write(directory: AnyPath, name: str, batch: int, values: npt.NDArray[Any]) -> Path:
    """Writes a tensor to <directory>/<name>_batch<batch>.bin, over a file that is there.

    Args:
        directory: has to exist.
        name: of the tensor, as the system's names of files are decoded (os.fsdecode); with a "/" it names a directory
            in there.
        batch: its number, 0 to 2^32 - 1.
        values: float32, float64, int32 or float16, with fewer than 2^32 elements.

    Returns:
        The file's path.

    Raises:
        OSError: the file cannot be opened, or not be written whole.
        ValueError: a name with a NUL, a batch out of range, a tensor that is too large, or a dimension that
            a float32 cannot hold.
    """
    checked("values", values, *_DTYPES, longest=2**32 - 1)
    shape = np.array(values.shape, np.float32)
    if any(int(entry) != n for entry, n in zip(shape, values.shape)):
        raise ValueError(f"values has to have dimensions that float32 holds exactly, not {values.shape}")
    batch = checked_int("batch", batch, 0, 2**32 - 1)
    parent = Path(os.fsdecode(checked_path("directory", directory)))
    encoded = checked_path("name", name)
    path = parent / f"{name}_batch{batch}.bin"
    elements = values.view(np.uint16) if values.dtype == np.float16 else values
    log = _core.dump_write(elements, os.fsencode(parent), encoded, batch, shape)
    if log:
        raise OSError(f"{path} cannot be opened:\n{log.rstrip()}")
    if path.stat().st_size != 4 * (1 + values.ndim) + values.nbytes:
        raise OSError(f"{path} is not written whole")
    return path


def read(path: AnyPath, num_dims: int) -> npt.NDArray[Any]:
    """Reads the file of a tensor.

    Args:
        path: of the file.
        num_dims: how many dimensions the tensor has, which the file does not tell.

    Raises:
        OSError: the file cannot be read.
        ValueError: it is no such tensor: an unknown element type, or a shape that does not fit the file's length.
    """
    num_dims = checked_int("num_dims", num_dims, 0)
    path = Path(os.fsdecode(path))
    content = path.read_bytes()
    begin = 4 * (1 + num_dims)
    if len(content) < begin:
        raise ValueError(f"{path} has to be at least {begin} bytes long with {num_dims} dimensions")
    code, *entries = np.frombuffer(content, np.float32, 1 + num_dims).tolist()
    if code not in range(len(_DTYPES)):
        raise ValueError(f"{path} has the unknown element type {code}")
    dtype = _DTYPES[int(code)]
    if not all(0 <= entry < 2**63 and entry.is_integer() for entry in entries):
        raise ValueError(f"{path} has no shape of {num_dims} dimensions: {entries}")
    shape = [int(entry) for entry in entries]
    if math.prod(shape) * dtype.itemsize != len(content) - begin:
        raise ValueError(f"{path} has the shape {shape}, which does not fit its {len(content)} bytes")
    return np.frombuffer(content, dtype, offset=begin).reshape(shape).copy()
