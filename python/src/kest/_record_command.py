"""The command kest-record."""

import argparse
import difflib
import json
import os
import shutil
import sys
from collections.abc import Sequence
from dataclasses import asdict
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
    return str(value)


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
        [found.key or "(no key)", *(_summary(getattr(found, name)) for name in names)] for found in records
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
    print(found.key)
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
        try:
            findings = check(file)
        except RecordFileError as error:
            reason = unreadable(file, error)
            _complain(str(reason))
            found.append(asdict(reason))
            status = _FAILED
            continue
        found += map(asdict, findings)
        if findings:
            status = max(status, _FOUND)
        if not arguments.json:
            for finding in findings:
                print(finding)
            print(f"{file}: {_number(len(findings), 'finding')}")
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
        print(f"--- {arguments.a}\n+++ {arguments.b}")
        for sign, layers in (("-", only_a), ("+", only_b)):
            for layer in layers:
                print(f"{sign} {layer}")
        last = None
        for layer, name, old, new in changed:
            if layer != last:
                print(f"! {layer}")
            last = layer
            print(f"    {name:<22}{_change(old, new)}")
        if pruned[0] != pruned[1]:
            print(f"! prune_record blocks: {len(pruned[0])} -> {len(pruned[1])}, not the same texts")
    return _NOTHING if is_same else _FOUND


def _fmt(arguments: argparse.Namespace) -> int:
    try:
        text = record.canonical_text(arguments.file).encode("utf-8", "surrogateescape")
        if not arguments.write:
            sys.stdout.buffer.write(text)
        else:
            with open(arguments.file, "rb") as opened:
                is_canonical = opened.read() == text
            if not is_canonical:
                record.rewrite(arguments.file)
    except RecordFileError as error:
        raise _Failure(str(unreadable(arguments.file, error))) from error
    return _NOTHING


def _read(file: str) -> RecordFile:
    try:
        return record.read(file)
    except RecordFileError as error:
        raise _Failure(str(unreadable(file, error))) from error


def _complain(message: str) -> None:
    print(f"kest-record: {message}", file=sys.stderr)


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="kest-record",
        description="Looks at record files: the quantisation factors of a model, one record a layer.",
        epilog="Exit status: 0 nothing found, 1 findings or differences, 2 wrong usage or an unreadable file. "
        "No file is changed, except by fmt --write.",
    )
    commands = parser.add_subparsers(metavar="COMMAND", required=True)

    show = commands.add_parser("show", help="a table of all layers, or all values of some")
    show.add_argument("file", metavar="FILE")
    show.add_argument("layer", metavar="LAYER", nargs="*", help="show all values of these layers")
    show.set_defaults(run=_show)

    checking = commands.add_parser("check", help="say what is wrong with files")
    checking.add_argument("file", metavar="FILE", nargs="+")
    checking.set_defaults(run=_check)

    diff = commands.add_parser("diff", help="compare two files by layer and field, whatever the order of the layers")
    diff.add_argument("a", metavar="A")
    diff.add_argument("b", metavar="B")
    diff.set_defaults(run=_diff)

    fmt = commands.add_parser("fmt", help="print a file in canonical form, as an update writes it")
    fmt.add_argument("file", metavar="FILE")
    fmt.add_argument("--write", action="store_true", help="replace the file instead, unless it is canonical")
    fmt.set_defaults(run=_fmt)

    for command in (show, checking, diff):
        command.add_argument("--json", action="store_true", help="write JSON")
    return parser


def main(argv: Sequence[str] | None = None) -> int:
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
            _complain(f"cannot write: {error.strerror}")
        return _FAILED
    return status
