"""What is wrong with a record file, and on which line.

kest's own parser decides what a file holds and whether it can be read. It keeps no positions: those come from a scan of
the text by the same grammar.
"""

import re
from bisect import bisect_left
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass, field
from decimal import Decimal
from typing import Any

import numpy as np
import numpy.typing as npt

from kest import record
from kest._errors import RecordFileError

_SCALES = ("scale_d", "scale_w", "tensor_balance_factor")
_INTEGERS = ("offset_d", "offset_w", "shift_bit", "cluster")
_NAMES = {
    "file": ("record", "prune_record"),
    "record": ("key", "value"),
    "value": (*_SCALES, *_INTEGERS, "skip_fusion", "dst_type"),
}
_LISTS = ("scale_w", "offset_w", "shift_bit", "cluster", "tensor_balance_factor")

_BLANKS = re.compile(r"[ \t\n\r]*")
_NAME = re.compile(r"[^:{ \t\n\r]*")
_TOKEN = re.compile(r"[^ \t\n\r]*")
_BRACE_OR_QUOTE = re.compile(r'["{}]')
_FLOAT = re.compile(r"[+-]?(?:[0-9]+\.?[0-9]*|\.[0-9]+)(?:[eE][+-]?[0-9]+)?")
_INTEGER = re.compile(r"[+-]?[0-9]+")
_MAX_SHIFT = 31
_MAX_FLOAT = float(np.finfo(np.float32).max)
_MIN_NORMAL = np.finfo(np.float32).tiny


@dataclass(frozen=True)
class Finding:
    """One thing that is wrong; `line` counts from 1."""

    file: str
    line: int | None
    layer: str | None
    field: str | None
    message: str

    def __str__(self) -> str:
        place = self.file if self.line is None else f"{self.file}:{self.line}"
        return f"{place}: {self.message}" if self.layer is None else f"{place}: {self.layer}: {self.message}"


@dataclass(frozen=True)
class _Field:
    line: int
    name: str
    text: str
    start: int


@dataclass
class _Record:
    line: int
    keys: list[_Field] = field(default_factory=list)
    blocks: list[_Field] = field(default_factory=list)
    values: dict[str, list[_Field]] = field(default_factory=dict)  # of the last block


class _Broken(Exception):
    def __init__(self, line: int, message: str) -> None:
        super().__init__(message)
        self.line = line
        self.message = message


class _Scanner:
    def __init__(self, text: str) -> None:
        self.text = text
        self.line_ends = [found.start() for found in re.finditer("\n", text)]

    def records(self) -> Iterator[_Record]:
        for entry in self._fields("file", 0, len(self.text)):
            if entry.name == "prune_record":
                continue
            found = _Record(entry.line)
            for part in self._fields("record", entry.start, entry.start + len(entry.text)):
                if part.name == "key":
                    found.keys.append(part)
                    continue
                found.blocks.append(part)
                found.values = {}
                for value in self._fields("value", part.start, part.start + len(part.text)):
                    found.values.setdefault(value.name, []).append(value)
            yield found

    def _line(self, position: int) -> int:
        return bisect_left(self.line_ends, position) + 1

    def _skip(self, pattern: re.Pattern[str], position: int, end: int) -> int:
        found = pattern.match(self.text, position, end)
        return position if found is None else found.end()

    def _fields(self, block: str, start: int, end: int) -> Iterator[_Field]:
        position = self._skip(_BLANKS, start, end)
        while position < end:
            name_end = self._skip(_NAME, position, end)
            name = self.text[position:name_end]
            line = self._line(position)
            if name not in _NAMES[block]:
                place = "a record file" if block == "file" else f"a {block} block"
                raise _Broken(line, f'unknown field "{name}" in {place}')
            value = self._skip(_BLANKS, name_end, end)
            if self.text[value : min(value + 1, end)] == "{":
                close = self._closing_brace(name, line, value + 1, end)
                yield _Field(line, name, self.text[value + 1 : close], value + 1)
                value_end = close + 1
            else:
                colon = self.text.find(":", value, end)
                if colon < 0:
                    raise _Broken(line, f"no colon or brace behind {name}")
                value = self._skip(_BLANKS, colon + 1, end)
                value_end = self._skip(_TOKEN, value, end)
                if name in ("record", "prune_record", "value") and self.text[value : min(value + 1, end)] == "{":
                    raise _Broken(line, f'"{name}: {{" has to be "{name} {{", without the colon')
                if value == end:
                    raise _Broken(line, f"no value behind {name}")
                if value_end == end:
                    raise _Broken(line, f"no blank or line end behind the value of {name}")
                yield _Field(line, name, self.text[value:value_end], value)
            position = self._skip(_BLANKS, value_end, end)

    def _closing_brace(self, name: str, line: int, position: int, end: int) -> int:
        depth = 1
        while found := _BRACE_OR_QUOTE.search(self.text, position, end):
            position = found.end()
            if found.group() == '"':
                quote = self.text.find('"', position, end)
                if quote < 0:
                    raise _Broken(self._line(found.start()), "a quote is not closed")
                position = quote + 1
                continue
            depth += 1 if found.group() == "{" else -1
            if depth == 0:
                return found.start()
        raise _Broken(line, f"the brace behind {name} is not closed")


def _scan(file: str) -> list[_Record]:
    with open(file, encoding="utf-8", errors="surrogateescape", newline="") as opened:
        return list(_Scanner(opened.read()).records())


def unreadable(file: str, error: RecordFileError) -> Finding:
    """Why `file` cannot be read."""
    if error.status in (13, 14):
        try:
            _scan(file)
        except _Broken as broken:
            return Finding(file, broken.line, None, None, broken.message)
        except OSError:
            pass
    return Finding(file, None, None, None, error.meaning)


def check(file: str) -> list[Finding]:
    """What is wrong with a file that can be read.

    Raises:
        RecordFileError: as record.read.
    """
    records = record.read(file).records
    try:
        scanned = _scan(file)
    except (OSError, _Broken):
        scanned = []
    findings: list[Finding] = []
    first_lines: dict[str, int] = {}
    changed = [Finding(file, None, None, None, "the file changed while it was read")]
    if len(scanned) != len(records):
        return changed
    for found, source in zip(records, scanned, strict=True):
        if any(len(getattr(found, name)) != len(source.values.get(name, [])) for name in _LISTS):
            return changed
        findings += _check_record(file, found, source, first_lines)
    return findings


def _check_record(
    file: str, found: record.Record, source: _Record, first_lines: dict[str, int]
) -> Iterator[Finding]:
    layer = found.key or None

    def finding(line: int, name: str | None, message: str) -> Finding:
        return Finding(file, line, layer, name, message)

    if not found.key:
        yield finding(source.line, "key", "a record without a key")
    elif found.key in first_lines:
        first = first_lines[found.key]
        yield finding(source.line, "key", f"a second record of this layer; updates change the first, on line {first}")
    else:
        first_lines[found.key] = source.line
    if not source.blocks:
        yield finding(source.line, "value", "a record without a value block")
    once = {"key": source.keys, "value": source.blocks}
    once |= {name: fields for name, fields in source.values.items() if name not in _LISTS}
    for name, fields in once.items():
        if len(fields) > 1:
            last = fields[-1].line
            yield finding(fields[0].line, name, f"{name} is given again; the last one, on line {last}, counts")

    for name in (*_SCALES, *_INTEGERS):
        fields = source.values.get(name, [])
        values = getattr(found, name) if name in _LISTS else [getattr(found, name)] * bool(fields)
        yield from _check_numbers(finding, name, fields[-len(values) :], values)
    for word in source.values.get("skip_fusion", [])[-1:]:
        if word.text not in ("true", "false"):
            yield finding(word.line, "skip_fusion", f"skip_fusion is {word.text}, which reads as false")

    if len(found.scale_w) != len(found.offset_w):
        lengths = f"scale_w has {_count(found.scale_w)}, offset_w {_count(found.offset_w)}"
        yield finding(source.blocks[-1].line, "scale_w", lengths)
    if (found.scale_d is None) != (found.offset_d is None):
        given, missing = ("offset_d", "scale_d") if found.scale_d is None else ("scale_d", "offset_d")
        yield finding(source.values[given][-1].line, given, f"{given} without {missing}")


def _count(values: npt.NDArray[Any]) -> str:
    return f"{len(values) or 'no'} value{'' if len(values) == 1 else 's'}"


def _check_numbers(
    finding: Callable[[int, str | None, str], Finding], name: str, fields: list[_Field], values: Sequence[Any]
) -> Iterator[Finding]:
    """One finding for each kind of fault: a list may have thousands of values."""
    faults: dict[str, list[tuple[int, str]]] = {}  # by kind: where, and what the first one is said to be
    for i, (source, value) in enumerate(zip(fields, values, strict=True)):
        kind, message = _fault(name, source.text.strip(), value)
        if kind:
            where = f"{name}[{i}]" if name in _LISTS else name
            faults.setdefault(kind, []).append((source.line, f"{where} {message}"))
    for found in faults.values():
        line, message = found[0]
        yield finding(line, name, message + (f", and {len(found) - 1} more like it" if len(found) > 1 else ""))


def _fault(name: str, text: str, value: Any) -> tuple[str, str]:
    """Kind and description of what is wrong with a number, empty if nothing is."""
    is_scale = name in _SCALES
    if not (_FLOAT if is_scale else _INTEGER).fullmatch(text):
        return "word", f"is {text}, no {'finite' if is_scale else 'whole'} number, and reads as {value!s}"
    if abs(float(text)) > _MAX_FLOAT if is_scale else Decimal(text) != int(value):
        return "range", f"is {text}, out of range, and reads as {value!s}"
    if is_scale and value == 0:
        return "zero", "is zero"
    if is_scale and value < 0:
        return "negative", f"is negative: {value!s}"
    if is_scale and value < _MIN_NORMAL:
        return "small", f"is too small to divide by: {value!s}"
    if name == "shift_bit" and value > _MAX_SHIFT:
        return "shift", f"is {value}, beyond {_MAX_SHIFT}"
    return "", ""
