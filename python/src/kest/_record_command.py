"""The command kest-record."""

import argparse
import difflib
import functools
import json
import os
import shutil
import sys
import tempfile
from collections.abc import Sequence
from dataclasses import asdict, replace
from importlib.metadata import version
from typing import Any

import numpy as np

from kest import record
from kest._errors import RecordFileError
from kest._record_check import check, unreadable
from kest.record import Record, RecordFile

_FIELDS = (
    "dst_type",
    "skip_fusion",
    "scale_d",
    "offset_d",
    "scale_w",
    "offset_w",
    "shift_bit",
    "cluster",
    "tensor_balance_factor",
)
_NOTHING, _FOUND, _FAILED = 0, 1, 2


class _Failure(Exception):
    """What is said on standard error before the command gives up."""


@functools.cache
def _spooled(source: str) -> "tempfile._TemporaryFileWrapper[bytes]":
    """The content of a stream, which can be read once, in a file that lasts as long as this process."""
    spool = tempfile.NamedTemporaryFile(prefix="kest-record-")
    with open(source, "rb") as opened:
        shutil.copyfileobj(opened, spool)
    spool.flush()
    return spool


def _path(file: str) -> str:
    """A file that can be read twice and holds what `file` does: standard input, a pipe, or the file itself."""
    source = "/dev/stdin" if file == "-" else file
    is_stream = os.path.exists(source) and not os.path.isfile(source) and not os.path.isdir(source)
    return _spooled(source).name if is_stream else source


def _shown(text: str) -> str:
    """As a terminal can take it: what cannot be printed, such as bytes that are no UTF-8, is escaped."""
    return "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text)


def _is_given(value: Any) -> bool:
    return value is not None and (not isinstance(value, np.ndarray) or len(value) > 0)


def _plain(value: Any) -> Any:
    """For JSON. A float32 becomes the shortest number that reads back as it."""
    if isinstance(value, np.ndarray):
        return [_plain(item) for item in value]
    if isinstance(value, np.float32):
        return float(str(value))
    return int(value) if isinstance(value, np.integer) else value


def _plain_record(found: Record) -> dict[str, Any]:
    values = {name: getattr(found, name) for name in _FIELDS}
    return {"key": found.key} | {name: _plain(value) for name, value in values.items() if _is_given(value)}


def _print_json(value: Any) -> None:
    print(json.dumps(value, indent=2))


def _number(count: int, noun: str) -> str:
    return f"{count or 'no'} {noun}{'' if count == 1 else 's'}"


def _text(value: Any) -> str:
    if isinstance(value, (bool, np.bool_)):
        return "true" if value else "false"
    return _shown(str(value))


def _summary(value: Any) -> str:
    """A value in one cell: a list by its length and its ends."""
    if not _is_given(value):
        return ""
    if isinstance(value, np.float32):
        return f"{value:.6g}"
    if not isinstance(value, np.ndarray):
        return _text(value)
    low, high = _summary(value.min()), _summary(value.max())
    return low if len(value) == 1 else f"{len(value)} x {low}" if low == high else f"{len(value)}: {low} .. {high}"


def _print_table(records: Sequence[Record]) -> None:
    names = [name for name in _FIELDS if any(_is_given(getattr(found, name)) for found in records)]
    rows = [["layer", *names]] + [
        [_shown(found.key) or "(no key)", *(_summary(getattr(found, name)) for name in names)] for found in records
    ]
    widths = [max(map(len, column)) for column in zip(*rows, strict=True)]
    is_left = ["layer", "dst_type", "skip_fusion"]
    rows.insert(1, ["-" * width for width in widths])
    for row in rows:
        cells = [
            cell.ljust(width) if name in is_left else cell.rjust(width)
            for cell, width, name in zip(row, widths, rows[0], strict=True)
        ]
        print("  ".join(cells).rstrip())


def _print_values(values: Any) -> None:
    """A list in columns, the index of its first value before each row."""
    items = [_text(value) for value in values]
    width = max(map(len, items))
    index_width = len(str(len(items) - 1))
    columns = max(1, (shutil.get_terminal_size().columns - 8 - index_width) // (width + 2))
    for i in range(0, len(items), columns):
        row = "".join(f"  {item:>{width}}" for item in items[i : i + columns])
        print(f"    [{i:>{index_width}}]{row}")


def _print_layer(found: Record) -> None:
    print(_shown(found.key))
    for name in _FIELDS:
        value = getattr(found, name)
        if isinstance(value, np.ndarray) and len(value) > 1:
            print(f"  {name:<22}{_number(len(value), 'value')}")
            _print_values(value)
        elif _is_given(value):
            print(f"  {name:<22}{_text(value[0] if isinstance(value, np.ndarray) else value)}")


def _show(arguments: argparse.Namespace) -> int:
    content = _read(arguments.file)
    chosen = [found for found in content.records if not arguments.layer or found.key in arguments.layer]
    keys = [found.key for found in content.records]
    for layer in arguments.layer:
        if layer not in keys:
            near = difflib.get_close_matches(layer, keys, n=1)
            raise _Failure(f"{arguments.file}: no layer {layer}" + (f"; did you mean {near[0]}?" if near else ""))
    if arguments.json:
        pruned = [] if arguments.layer else list(content.prune_records)
        _print_json({"records": [_plain_record(found) for found in chosen], "prune_records": pruned})
    elif arguments.layer:
        for i, found in enumerate(chosen):
            print(end="\n" if i > 0 else "")
            _print_layer(found)
    else:
        if chosen:
            _print_table(chosen)
            print()
        print(_number(len(chosen), "record") + f", {_number(len(content.prune_records), 'prune record')}")
    return _NOTHING


def _check(arguments: argparse.Namespace) -> int:
    status = _NOTHING
    found: list[dict[str, Any]] = []
    for file in arguments.file:
        path = _path(file)
        try:
            findings = [replace(finding, file=file) for finding in check(path)]
        except RecordFileError as error:
            reason = replace(unreadable(path, error), file=file)
            _complain(str(reason))
            found.append(asdict(reason))
            status = _FAILED
            continue
        found += map(asdict, findings)
        if findings:
            status = max(status, _FOUND)
        if not arguments.json:
            for finding in findings:
                print(_shown(str(finding)))
            print(f"{_shown(file)}: {_number(len(findings), 'finding')}")
    if arguments.json:
        _print_json(found)
    return status


def _by_layer(content: RecordFile) -> dict[tuple[str, int], Record]:
    """The records by key, and by count among those of one key."""
    found: dict[tuple[str, int], Record] = {}
    counts: dict[str, int] = {}
    for entry in content.records:
        counts[entry.key] = counts.get(entry.key, 0) + 1
        found[entry.key, counts[entry.key]] = entry
    return found


def _change(a: Any, b: Any) -> str:
    """What became of a value, in a line."""
    if not (isinstance(a, np.ndarray) and len(a) == len(b) > 1):
        return f"{_summary(a) or '(none)'} -> {_summary(b) or '(none)'}"
    places = np.flatnonzero(a != b)
    shown = ", ".join(f"[{i}] {a[i]!s} -> {b[i]!s}" for i in places[:3])
    return f"{len(places)} of {len(a)} differ: {shown}" + (", ..." if len(places) > 3 else "")


def _diff(arguments: argparse.Namespace) -> int:
    content_a, content_b = _read(arguments.a), _read(arguments.b)
    a, b = _by_layer(content_a), _by_layer(content_b)
    names = {key: key[0] if key[1] == 1 else f"{key[0]} (record {key[1]})" for key in a | b}
    only_a = [names[key] for key in a if key not in b]
    only_b = [names[key] for key in b if key not in a]
    changed = [
        (names[key], name, getattr(a[key], name), getattr(b[key], name))
        for key in a
        if key in b
        for name in _FIELDS
        if not np.array_equal(getattr(a[key], name), getattr(b[key], name))
    ]
    pruned = (content_a.prune_records, content_b.prune_records)
    is_same = not (only_a or only_b or changed) and pruned[0] == pruned[1]
    if arguments.json:
        _print_json(
            {
                "only_in_a": only_a,
                "only_in_b": only_b,
                "changed": [
                    {"layer": layer, "field": name, "a": _plain(old), "b": _plain(new)}
                    for layer, name, old, new in changed
                ],
                "prune_records_differ": pruned[0] != pruned[1],
            }
        )
    elif not is_same:
        print(f"--- {_shown(arguments.a)}\n+++ {_shown(arguments.b)}")
        for sign, layers in (("-", only_a), ("+", only_b)):
            for layer in layers:
                print(f"{sign} {_shown(layer)}")
        last = None
        for layer, name, old, new in changed:
            if layer != last:
                print(f"! {_shown(layer)}")
            last = layer
            print(f"    {name:<22}{_change(old, new)}")
        if pruned[0] != pruned[1]:
            print(f"! prune_record blocks: {len(pruned[0])} -> {len(pruned[1])}, not the same texts")
    return _NOTHING if is_same else _FOUND


def _fmt(arguments: argparse.Namespace) -> int:
    path = _path(arguments.file)
    if arguments.write and path != arguments.file:
        raise _Failure(f"{arguments.file}: a stream, which fmt cannot replace")
    try:
        text = record.canonical_text(path).encode("utf-8", "surrogateescape")
        if not arguments.write:
            sys.stdout.buffer.write(text)
        else:
            with open(path, "rb") as opened:
                is_canonical = opened.read() == text
            if not is_canonical:
                record.rewrite(path)
    except RecordFileError as error:
        raise _failure(arguments.file, path, error) from error
    return _NOTHING


def _read(file: str) -> RecordFile:
    path = _path(file)
    try:
        return record.read(path)
    except RecordFileError as error:
        raise _failure(file, path, error) from error


def _failure(file: str, path: str, error: RecordFileError) -> _Failure:
    return _Failure(str(replace(unreadable(path, error), file=file)))


def _complain(message: str) -> None:
    print(f"kest-record: {_shown(message)}", file=sys.stderr)


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="kest-record",
        description="Looks at record files: the quantisation factors of a model, one record a layer.",
        epilog="Exit status: 0 nothing found, 1 findings or differences, 2 wrong usage or an unreadable file. "
        "No file is changed, except by fmt --write. A FILE of - is standard input.",
    )
    parser.add_argument("--version", action="version", version=f"kest {version('kest')}")
    commands = parser.add_subparsers(metavar="COMMAND", required=True)

    def command(name: str, run: Any, purpose: str, details: str) -> argparse.ArgumentParser:
        added = commands.add_parser(name, help=purpose, description=f"{purpose.capitalize()}. {details}")
        added.set_defaults(run=run)
        return added

    file = "a record file, or - for standard input"
    show = command("show", _show, "a table of all layers, or all values of some", "Lists show their lengths and ends.")
    show.add_argument("file", metavar="FILE", help=file)
    show.add_argument("layer", metavar="LAYER", nargs="*", help="show all values of these layers")

    checking = command(
        "check",
        _check,
        "say what is wrong with files",
        "With line numbers: text that cannot be read; scales that are zero, negative or too small; numbers that read "
        "as others; lists whose lengths differ; what is given twice or missing.",
    )
    checking.add_argument("file", metavar="FILE", nargs="+", help=file)

    diff = command(
        "diff",
        _diff,
        "compare two files by layer and field, whatever the order of the layers",
        "- marks a layer that only A has, + one that only B has, ! one whose fields differ.",
    )
    diff.add_argument("a", metavar="A", help=file)
    diff.add_argument("b", metavar="B", help=file)

    fmt = command(
        "fmt",
        _fmt,
        "print a file in canonical form, as an update writes it",
        "Numbers are what they read as: check says where that is another one.",
    )
    fmt.add_argument("file", metavar="FILE", help=file)
    fmt.add_argument(
        "--write",
        action="store_true",
        help="put it into the file instead, whole or not at all; a canonical file is left alone",
    )

    for reader in (show, checking, diff):
        reader.add_argument("--json", action="store_true", help="write JSON")
    return parser


def main(argv: Sequence[str] | None = None) -> int:
    # A stream that is closed is None.
    sys.stderr = sys.stderr or open(os.devnull, "w")
    if sys.stdout is None:
        _complain("standard output is closed")
        return _FAILED
    # Names of layers may hold what the terminal's encoding lacks.
    for stream in (sys.stdout, sys.stderr):
        stream.reconfigure(errors="backslashreplace")  # type: ignore[union-attr]
    arguments = _parser().parse_args(argv)
    try:
        status: int = arguments.run(arguments)
        sys.stdout.flush()
    except _Failure as failure:
        _complain(str(failure))
        return _FAILED
    except OSError as error:
        # What is still buffered cannot go out either, and must not fail again at exit.
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        if not isinstance(error, BrokenPipeError):  # else a reader, such as head, that has seen enough
            _complain(f"{error.filename or 'standard output'}: {error.strerror}")
        return _FAILED
    return status
