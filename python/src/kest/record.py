"""Record files: the factors of a model, one record a layer (docs/record-file.md).

Updates read a file, change one layer and replace the file by its canonical text; insertions put new lines at the start
of a layer's value block without reading the rest. Both replace a file whole: at any moment, and after any failure, it
holds its old bytes or its new ones. They exclude each other, within a process and, where the file system has locks,
between processes.
"""

from dataclasses import dataclass
from typing import Any, SupportsFloat

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import AnyPath, checked, checked_int, checked_offset, checked_path

_LIST_TYPES: dict[str, type[np.generic]] = {
    "scale_w": np.float32,
    "offset_w": np.int32,
    "shift_bit": np.int32,
    "cluster": np.int32,
    "tensor_balance_factor": np.float32,
}


@dataclass(frozen=True, eq=False)
class Record:
    """The factors of one layer, in the order of the file. Arrays are read-only, and empty where the file has no line.

    Attributes:
        key: the layer's name; empty if the record has none.
        scale_d: scale of the layer's input.
        offset_d: offset of the layer's input.
        scale_w: float32, one for every output channel.
        offset_w: int32, one for every output channel.
        shift_bit: uint64, one a channel.
        cluster: int32, cluster centres of non-uniform weights.
        skip_fusion: whether the layer is left out of fusion.
        dst_type: destination type, a text of the caller's.
        tensor_balance_factor: float32, one a channel.
    """

    key: str
    scale_d: np.float32 | None
    offset_d: int | None
    scale_w: npt.NDArray[np.float32]
    offset_w: npt.NDArray[np.int32]
    shift_bit: npt.NDArray[np.uint64]
    cluster: npt.NDArray[np.int32]
    skip_fusion: bool | None
    dst_type: str | None
    tensor_balance_factor: npt.NDArray[np.float32]


@dataclass(frozen=True, eq=False)
class RecordFile:
    """What a file holds, in its order.

    Attributes:
        records: one a layer; two with one key are both kept, and updates change the first.
        prune_records: the texts between the braces of the prune_record blocks.
    """

    records: tuple[Record, ...]
    prune_records: tuple[str, ...]

    def __getitem__(self, key: str) -> Record:
        """The first record of a layer."""
        for record in self.records:
            if record.key == key:
                return record
        raise KeyError(key)


def _decoded(text: bytes) -> str:
    """Bytes that are no UTF-8 become surrogates, which _encoded turns back."""
    return text.decode("utf-8", "surrogateescape")


def _encoded(text: str) -> bytes:
    return text.encode("utf-8", "surrogateescape")


def _word(name: str, text: str) -> bytes:
    """A text that can be read back from between quotes."""
    for character in ' \t\n\r"\0':
        if character in text:
            raise ValueError(f"{name} cannot hold {character!r}, which a record file cannot keep: {text!r}")
    return _encoded(text)


def _layer(layer: str) -> bytes:
    if not layer:
        raise ValueError("layer cannot be empty: an update would never find its record again")
    return _word("layer", layer)


def _list(name: str, array: npt.NDArray[Any], dtype: npt.DTypeLike) -> npt.NDArray[Any]:
    if checked(name, array, dtype).ndim != 1:
        raise ValueError(f"{name} has to have one axis, not the shape {array.shape}")
    return array


def _same_length(scale: npt.NDArray[np.float32], offset: npt.NDArray[np.int32]) -> None:
    if len(_list("scale", scale, np.float32)) != len(_list("offset", offset, np.int32)):
        raise ValueError(f"offset has to be as long as scale, {len(scale)}, not {len(offset)}")


def read(file: AnyPath) -> RecordFile:
    """Reads a file.

    Numbers are what the library reads: inf, nan and words are 0, what is out of range is the nearest limit.

    Raises:
        RecordFileError: no such file (status 5), one that cannot be read (6), a text that breaks off (13), a field that
            record files do not have (14).
    """
    records, prune_records = _core.record_read(checked_path("file", file))
    return RecordFile(
        tuple(
            Record(
                key=_decoded(key),
                scale_d=None if scale_d is None else np.float32(scale_d),
                offset_d=offset_d,
                scale_w=np.frombuffer(scale_w, np.float32),
                offset_w=np.frombuffer(offset_w, np.int32),
                shift_bit=np.frombuffer(shift_bit, np.uint64),
                cluster=np.frombuffer(cluster, np.int32),
                skip_fusion=skip_fusion,
                dst_type=_decoded(dst_type) or None,
                tensor_balance_factor=np.frombuffer(balance_factor, np.float32),
            )
            for (key, scale_d, offset_d, scale_w, offset_w, shift_bit, cluster, skip_fusion, dst_type, balance_factor)
            in records
        ),
        tuple(map(_decoded, prune_records)),
    )


def canonical_text(file: AnyPath) -> str:
    """The text that an update writes for what the file holds. The file stays as it is.

    Bytes that are no UTF-8 are surrogates: encode with "surrogateescape".

    Raises:
        RecordFileError: as in read.
    """
    return _decoded(_core.record_canonical_text(checked_path("file", file)))


def rewrite(file: AnyPath) -> None:
    """Replaces a file by its canonical text.

    Raises:
        RecordFileError: as in read; also status 6 for a file that cannot be written. The file is unchanged.
    """
    _core.record_rewrite(checked_path("file", file))


def update_data(file: AnyPath, layer: str, scale: SupportsFloat, offset: int, *, dst_type: str | None = None) -> None:
    """Sets scale_d and offset_d of a layer.

    Here and in all updates: the layer's record is appended if the file has none, and all other fields keep their
    values. The file must exist and may be empty. An infinity or NaN is written as inf or nan, which reads as 0.

    Args:
        file: the record file.
        layer: the layer's name.
        scale: kept as float32.
        offset: 32 bits.
        dst_type: destination type that a new record gets, "hide" for none; one that is there keeps its own.

    Raises:
        RecordFileError: as in read; also status 6 for a file that cannot be written. The file is unchanged.
        ValueError: a layer name that is empty; a blank, line end, quote or NUL in it or in dst_type.
    """
    kind = _word("dst_type", dst_type or "hide")
    _core.record_update_data(checked_path("file", file), _layer(layer), float(scale), checked_offset(offset), kind)


def update_weights(file: AnyPath, layer: str, scale: npt.NDArray[np.float32], offset: npt.NDArray[np.int32]) -> None:
    """Sets scale_w and offset_w of a layer, replacing the lists whole. See update_data.

    Args:
        file: the record file.
        layer: the layer's name.
        scale: float32, one axis.
        offset: int32, as long.
    """
    _same_length(scale, offset)
    _core.record_update_weights(checked_path("file", file), _layer(layer), scale, offset)


def update_nuq(
    file: AnyPath,
    layer: str,
    scale: npt.NDArray[np.float32],
    offset: npt.NDArray[np.int32],
    cluster: npt.NDArray[np.int32],
) -> None:
    """Sets scale_w, offset_w and cluster of a layer, replacing the lists whole. See update_data.

    Args:
        file: the record file.
        layer: the layer's name.
        scale: float32, one axis.
        offset: int32, as long.
        cluster: int32, one axis, any length.
    """
    _same_length(scale, offset)
    clusters = _list("cluster", cluster, np.int32)
    _core.record_update_nuq(checked_path("file", file), _layer(layer), scale, offset, clusters)


def update_shift_bits(file: AnyPath, layer: str, shift_bits: npt.NDArray[np.int32]) -> None:
    """Sets shift_bit of a layer, replacing the list whole. See update_data.

    Args:
        file: the record file.
        layer: the layer's name.
        shift_bits: int32, one axis; -1 is kept as 2^64 - 1.
    """
    values = _list("shift_bits", shift_bits, np.int32)
    _core.record_update_shift_bits(checked_path("file", file), _layer(layer), values)


def update_balance_factors(file: AnyPath, layer: str, factors: npt.NDArray[np.float32]) -> None:
    """Sets tensor_balance_factor of a layer, replacing the list whole. See update_data.

    Args:
        file: the record file.
        layer: the layer's name.
        factors: float32, one axis.
    """
    values = _list("factors", factors, np.float32)
    _core.record_update_balance_factors(checked_path("file", file), _layer(layer), values)


def insert_data(file: AnyPath, layer: str, scale: SupportsFloat, offset: int, *, onnx_type: int = 0) -> None:
    """Puts a line scale_d and one offset_d at the start of a layer's value block.

    Here and in all insertions: the record must be there, in canonical form. Nothing is removed, and a reader takes the
    last of a scalar and all lines of a list: an older scale_d below wins over the new one.

    Args:
        file: the record file.
        layer: the layer's name.
        scale: written with ten significant digits.
        offset: 32 bits.
        onnx_type: ONNX element type for a line op_data_type, 0 for none. With that line `read` and the updates refuse
            the file (status 14).

    Raises:
        KestError: a file that cannot be read or holds nothing; no such layer; a failed write. The file is unchanged.
        ValueError: a layer name that is empty, or holds a blank, a line end, a quote or a NUL.
    """
    path, key = checked_path("file", file), _layer(layer)
    element_type = checked_int("onnx_type", onnx_type, -(2**31))
    _core.record_insert_data(path, key, float(scale), checked_offset(offset), element_type)


def insert_weights(file: AnyPath, layer: str, scale: SupportsFloat, offset: int) -> None:
    """Puts a line scale_w and one offset_w at the start of a layer's value block. See insert_data.

    Args:
        file: the record file.
        layer: the layer's name.
        scale: written with ten significant digits.
        offset: 32 bits.
    """
    _core.record_insert_weights(checked_path("file", file), _layer(layer), float(scale), checked_offset(offset))


def insert_values(
    file: AnyPath, layer: str, field: str, values: npt.NDArray[np.float32] | npt.NDArray[np.int32]
) -> None:
    """Puts one line a value at the start of a layer's value block. See insert_data.

    A block that begins with tensor_balance_factor loses its old lines of that field when new ones are put in.

    Args:
        file: the record file.
        layer: the layer's name.
        field: scale_w, offset_w, shift_bit, cluster or tensor_balance_factor.
        values: one axis; float32 for the first and the last of these fields, written with six significant digits,
            int32 for the others.
    """
    if field not in _LIST_TYPES:
        raise ValueError(f"field has to be one of {', '.join(_LIST_TYPES)}, not {field!r}")
    _list("values", values, _LIST_TYPES[field])
    _core.record_insert_values(checked_path("file", file), _layer(layer), _encoded(field), values)
