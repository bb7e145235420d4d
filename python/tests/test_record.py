"""Record files against texts written by hand, and the command through its own process."""

import json
import os
import pickle
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import kest
import numpy as np
import pytest
from kest._record_check import check, unreadable

f32, i32 = np.float32, np.int32


def layer(key, *fields):
    return "\n".join([f'record {{\n  key: "{key}"\n  value {{', *("    " + field for field in fields), "  }\n}\n"])


CONV1 = layer("conv1", "scale_d: 0.0392156877", "offset_d: -128", "scale_w: 0.00249999994", "scale_w: 0.100000001",
              "offset_w: 0", "offset_w: 3", "shift_bit: 1", "shift_bit: 18446744073709551615", "cluster: -7",
              'dst_type: "INT8"', "tensor_balance_factor: 2")
FC = layer("fc", "skip_fusion: true")
PRUNE = "prune_record { raw: {1} }\n"
# The same as CONV1 + FC + PRUNE.
UNTIDY = PRUNE + CONV1.replace('  key: "conv1"\n', "").replace("0.100000001", "1e-1")[:-2] + "key: conv1 }" + FC


@pytest.fixture
def file(tmp_path):
    path = tmp_path / "factors.txt"
    path.touch()
    return path


def command(*arguments, **options):
    return subprocess.run([Path(sys.executable).parent / "kest-record", *arguments], capture_output=True, text=True,
                          env=os.environ | {"COLUMNS": "60"}, **options)


def test_read_and_canonical_text(file):
    file.write_text(UNTIDY)
    content = kest.record.read(str(file))
    assert [found.key for found in content.records] == ["conv1", "fc"] and content.prune_records == (" raw: {1} ",)
    conv, fc = content.records[0], content["fc"]
    assert conv.scale_d == np.float32(0.0392156877) and conv.scale_d.dtype == np.float32 and conv.offset_d == -128
    for name, wanted in (("scale_w", f32([0.0025, 0.1])), ("offset_w", i32([0, 3])), ("cluster", i32([-7])),
                         ("shift_bit", np.array([1, 2**64 - 1], np.uint64)), ("tensor_balance_factor", f32([2]))):
        np.testing.assert_array_equal(getattr(conv, name), wanted, strict=True)
        assert not getattr(conv, name).flags.writeable
        assert getattr(fc, name).shape == (0,) and getattr(fc, name).dtype == wanted.dtype
    assert (conv.dst_type, conv.skip_fusion) == ("INT8", None)
    assert (fc.scale_d, fc.offset_d, fc.dst_type, fc.skip_fusion) == (None, None, None, True)
    assert kest.record.canonical_text(file) == CONV1 + FC + PRUNE and file.read_text() == UNTIDY
    kest.record.rewrite(file)
    assert file.read_text() == CONV1 + FC + PRUNE
    pytest.raises(KeyError, content.__getitem__, "conv2")


def test_updates_make_the_file(file):
    kest.record.update_data(file, "conv1", 0.0392156877, -128, dst_type="INT8")
    kest.record.update_nuq(file, "conv1", f32([0.5]), i32([9]), i32([-7]))
    kest.record.update_weights(file, "conv1", f32([0.0025, 0.1]), i32([0, 3]))
    kest.record.update_shift_bits(file, "conv1", i32([1, -1]))
    kest.record.update_balance_factors(file, "conv1", f32([2]))
    assert file.read_text() == CONV1
    kest.record.update_data(file, "bytes\udcff{é", 1, 0)
    kest.record.update_data(file, "conv1", 2, 1, dst_type="INT4")
    assert b'key: "bytes\xff{\xc3\xa9"\n  value {\n    scale_d: 1\n    offset_d: 0\n  }' in file.read_bytes()
    assert kest.record.read(file).records[1].key == "bytes\udcff{é"
    assert kest.record.read(file)["conv1"].dst_type == "INT8" and kest.record.read(file)["conv1"].scale_d == 2


def test_insertions_stand_first_and_remove_only_balance_factors(file):
    file.write_text(layer("a", "tensor_balance_factor: 9", "scale_d: 5"))
    kest.record.insert_values(file, "a", "tensor_balance_factor", f32([0.1, 2]))
    assert kest.record.read(file)["a"].tensor_balance_factor.tolist() == f32([0.1, 2]).tolist()
    kest.record.insert_values(file, "a", "shift_bit", i32([3, 4]))
    kest.record.insert_weights(file, "a", 0.25, -1)
    kest.record.insert_data(file, "a", 0.1, 7)
    assert file.read_text().splitlines()[3:9] == ["    scale_d: 0.1000000015", "    offset_d: 7", "    scale_w: 0.25",
                                                  "    offset_w: -1", "    shift_bit: 3", "    shift_bit: 4"]
    assert kest.record.read(file)["a"].scale_d == 5
    kest.record.insert_data(file, "a", 1, 0, onnx_type=1)
    with pytest.raises(kest.RecordFileError, match="status 14"):
        kest.record.read(file)
    with pytest.raises(kest.KestError, match='Cannot find "b"'):
        kest.record.insert_weights(file, "b", 1, 0)


def test_statuses_and_arguments(file, capfd):
    file.write_text(CONV1[:-2])
    for path, status in ((file.parent / "none\udcff", 5), (bytes(file.parent), 6), (str(file), 13)):
        for call in (kest.record.read, kest.record.canonical_text, kest.record.rewrite,
                     lambda path: kest.record.update_weights(path, "a", f32([1]), i32([0]))):
            with pytest.raises(kest.RecordFileError) as raised:
                call(path)
            error = pickle.loads(pickle.dumps(raised.value))
            assert (error.status, error.file) == (status, os.fsdecode(path)) and error.meaning in str(error)
    for name in ("", "a b", "a\tb", "a\nb", "a\rb", 'a"b', "a\0b"):
        for call in (kest.record.update_weights, kest.record.insert_weights):
            with pytest.raises(ValueError, match="layer cannot"):
                call(file, name, f32([1]), i32([0]))
    assert file.read_text() == CONV1[:-2] and capfd.readouterr().out == ""


def test_threads_lose_no_update(file):
    def work(i):
        kest.record.update_data(file, f"layer{i}", i + 1, i)
        for _ in range(5):
            kest.record.insert_weights(file, f"layer{i}", 1, i)

    with ThreadPoolExecutor(6) as threads:
        list(threads.map(work, range(6)))
    content = kest.record.read(file)
    assert all(content[f"layer{i}"].offset_w.tolist() == [i] * 5 for i in range(6))


def test_show(file):
    file.write_text(UNTIDY)
    assert command("show", file).stdout.splitlines() == [
        "layer  dst_type  skip_fusion    scale_d  offset_d           scale_w   offset_w                     shift_bit"
        "  cluster  tensor_balance_factor",
        "-----  --------  -----------  ---------  --------  ----------------  ---------  ----------------------------"
        "  -------  ---------------------",
        "conv1  INT8                   0.0392157      -128  2: 0.0025 .. 0.1  2: 0 .. 3  2: 1 .. 18446744073709551615"
        "       -7                      2",
        "fc               true", "", "2 records, 1 prune record"]
    one = command("show", file, "conv1").stdout.splitlines()
    assert one[:6] == ["conv1", "  dst_type              INT8", "  scale_d               0.039215688",
                       "  offset_d              -128", "  scale_w               2 values", "    [0]  0.0025     0.1"]
    assert json.loads(command("show", "--json", file).stdout) == {"prune_records": [" raw: {1} "], "records": [
        {"key": "conv1", "dst_type": "INT8", "scale_d": 0.039215688, "offset_d": -128, "scale_w": [0.0025, 0.1],
         "offset_w": [0, 3], "shift_bit": [1, 2**64 - 1], "cluster": [-7], "tensor_balance_factor": [2.0]},
        {"key": "fc", "skip_fusion": True}]}
    missing = command("show", file, "conv2")
    assert missing.returncode == 2 and "no layer conv2; did you mean conv1?" in missing.stderr


@pytest.mark.parametrize("text, found", [
    (CONV1.replace("18446744073709551615", "31") + FC, []),
    (layer("a", "scale_d: 0 ", "offset_d: 0"), [(4, "scale_d is zero")]),
    (layer("a", "scale_d: inf", "offset_d: 3.7"), [(4, "scale_d is inf, no finite number, and reads as 0.0"),
                                                   (5, "offset_d is 3.7, no whole number, and reads as 3")]),
    (layer("a", "scale_d: 1e400", "offset_d: 2147483648"),
     [(4, "scale_d is 1e400, out of range, and reads as 3.4028235e+38"),
      (5, "offset_d is 2147483648, out of range, and reads as 2147483647")]),
    (layer("a", "cluster: " + "9" * 5000),
     [(4, f"cluster[0] is {'9' * 5000}, out of range, and reads as 2147483647")]),
    (layer("a", "scale_w: 1", "scale_w: -0.5", "scale_w: 1e-40", "scale_w: -3", "offset_w: 0"),
     [(5, "scale_w[1] is negative: -0.5, and 1 more like it"), (6, "scale_w[2] is too small to divide by: 1e-40"),
      (3, "scale_w has 4 values, offset_w 1 value")]),
    (layer("a", "tensor_balance_factor: nan", "shift_bit: 32", "skip_fusion: yes", "scale_d: 2"),
     [(4, "tensor_balance_factor[0] is nan, no finite number, and reads as 0.0"), (5, "shift_bit[0] is 32, beyond 31"),
      (6, "skip_fusion is yes, which reads as false"), (7, "scale_d without offset_d")]),
    (layer("a", "scale_d: 1", "offset_d: 0", "scale_d: -2"),
     [(4, "scale_d is given again; the last one, on line 6, counts"), (6, "scale_d is negative: -2.0")]),
    (layer("a", "scale_d: 0").replace("value", "value { scale_w: 0 }\nvalue { }\nvalue", 1),
     [(3, "value is given again; the last one, on line 5, counts"), (6, "scale_d is zero"),
      (6, "scale_d without offset_d")]),
    (FC + FC, [(7, "a second record of this layer; updates change the first, on line 1")]),
    ("record { }\n", [(1, "a record without a key"), (1, "a record without a value block")]),
])
def test_check_finds(file, text, found):
    file.write_text(text)
    checked = command("check", "--json", file)
    assert [(one["line"], one["message"]) for one in json.loads(checked.stdout)] == found
    assert checked.returncode == bool(found) and file.read_text() == text


@pytest.mark.parametrize("text, status, line, message", [
    ("\n" + layer("a", "scale_x: 1"), 14, 5, 'unknown field "scale_x" in a value block'),
    (FC + "records { }", 14, 7, 'unknown field "records" in a record file'),
    (FC + "record: { }", 14, 7, '"record: {" has to be "record {", without the colon'),
    (FC + "record { key: a", 13, 7, "the brace behind record is not closed"),
    (layer("a", 'dst_type: "a'), 13, 4, "a quote is not closed"),
    ("record {\nkey: a}", 13, 2, "no blank or line end behind the value of key"),
    ("record {\nkey }", 13, 2, "no colon or brace behind key"),
    ("record {\n key:\n}", 13, 2, "no value behind key"),
])
def test_an_unreadable_file_is_explained(file, text, status, line, message):
    file.write_text(text)
    with pytest.raises(kest.RecordFileError) as raised:
        kest.record.read(file)
    assert raised.value.status == status
    for arguments in (("show",), ("check",), ("diff", file), ("fmt",), ("fmt", "--write")):
        failed = command(*arguments, file)
        assert (failed.returncode, failed.stdout) == (2, "")
        assert failed.stderr == f"kest-record: {file}:{line}: {message}\n"
    assert file.read_text() == text


def test_the_lines_are_those_of_the_parser(file):
    """What the library reads, check can place, and what it refuses, check explains: texts with a byte changed."""
    random = np.random.default_rng(6)
    read = 0
    for _ in range(600):
        text = bytearray((CONV1 + PRUNE + FC).encode())
        place = random.integers(len(text))
        text[place : place + random.integers(2)] = random.choice(list(b'{}": \nake1')).tobytes()[:1]
        file.write_bytes(text)
        try:
            assert all(finding.line for finding in check(str(file))), text
            read += 1
        except kest.RecordFileError as error:
            assert unreadable(str(file), error).line, text
    assert 100 < read < 500


def test_check_of_several_files(file):
    other = file.parent / "other.txt"
    other.write_text(layer("a", "scale_d: 0", "offset_d: 1"))
    checked = command("check", file, other)
    assert checked.returncode == 1 and checked.stdout.splitlines() == [
        f"{file}: no findings", f"{other}:4: a: scale_d is zero", f"{other}: 1 finding"]
    failed = command("check", "none", other)
    assert failed.returncode == 2 and failed.stderr == "kest-record: none: no such file\n"
    assert f"{other}: 1 finding" in failed.stdout


def test_diff(file):
    other = file.parent / "other.txt"
    file.write_text(CONV1 + FC)
    other.write_text(FC.replace("fc", "fc2") + CONV1.replace("scale_w: 0.1", "scale_w: 0.2").replace("INT8", "INT4")
                     .replace("    offset_w: 3\n", "") + PRUNE)
    found = command("diff", file, other)
    assert found.returncode == 1 and found.stdout.splitlines() == [
        f"--- {file}", f"+++ {other}", "- fc", "+ fc2", "! conv1", "    dst_type              INT8 -> INT4",
        "    scale_w               1 of 2 differ: [1] 0.1 -> 0.2", "    offset_w              2: 0 .. 3 -> 0",
        "! prune_record blocks: 0 -> 1, not the same texts"]
    assert json.loads(command("diff", "--json", file, other).stdout) == {
        "only_in_a": ["fc"], "only_in_b": ["fc2"], "prune_records_differ": True, "changed": [
            {"layer": "conv1", "field": "dst_type", "a": "INT8", "b": "INT4"},
            {"layer": "conv1", "field": "scale_w", "a": [0.0025, 0.1], "b": [0.0025, 0.2]},
            {"layer": "conv1", "field": "offset_w", "a": [0, 3], "b": [0]}]}
    other.write_text(FC + CONV1 + FC)
    assert command("diff", file, other).stdout.splitlines()[2:] == ["+ fc (record 2)"]
    other.write_text(FC + CONV1)
    same = command("diff", file, other)
    assert (same.returncode, same.stdout) == (0, "")


def test_fmt_writes_only_when_asked(file):
    file.write_text(UNTIDY)
    file.chmod(0o640)
    before = file.stat()
    assert command("fmt", file).stdout == CONV1 + FC + PRUNE
    assert (file.stat().st_ino, file.stat().st_mtime_ns) == (before.st_ino, before.st_mtime_ns)
    assert command("fmt", "--write", file).returncode == 0
    canonical = file.stat()
    assert file.read_text() == CONV1 + FC + PRUNE and canonical.st_mode == before.st_mode
    assert canonical.st_ino != before.st_ino and os.listdir(file.parent) == [file.name]
    command("fmt", "--write", file)
    assert file.stat().st_ino == canonical.st_ino and file.stat().st_mtime_ns == canonical.st_mtime_ns


def test_usage_and_a_reader_that_stops(file):
    for arguments in ((), ("show",), ("fmt", "--json", file), ("check", "--write", file)):
        assert command(*arguments).returncode == 2
    file.write_text("".join(FC.replace("fc", f"fc{i}") for i in range(9999)))
    pipe = f"'{Path(sys.executable).parent / 'kest-record'}' show '{file}' | head -n 1"
    stopped = subprocess.run(["bash", "-c", pipe], capture_output=True, text=True)
    assert (stopped.stdout, stopped.stderr) == ("layer   skip_fusion\n", "")
    with open("/dev/full", "w") as full:
        failed = subprocess.run([Path(sys.executable).parent / "kest-record", "fmt", file], stdout=full,
                                stderr=subprocess.PIPE, text=True)
    assert (failed.returncode, failed.stderr) == (2, "kest-record: standard output: No space left on device\n")


def test_streams_and_what_a_terminal_cannot_take(file):
    file.write_text(layer("\x1b[1m\udcff", "scale_d: 0", "offset_d: 1"), errors="surrogateescape")
    with file.open() as given:
        found = command("check", "-", file, stdin=given).stdout.splitlines()
    assert found[::2] == [f"{name}:4: \\x1b[1m\\udcff: scale_d is zero" for name in ("-", file)]
    for arguments, text, status, said in (
        (("check", "-"), FC + FC, 1, "-:7: fc: a second record of this layer; updates change the first, on line 1\n"),
        (("fmt", "-"), FC, 0, FC), (("diff", "-", "-"), FC, 0, ""),
        (("fmt", "--write", "-"), FC, 2, "kest-record: -: a stream"),
        (("show", "-"), "key: {", 2, "kest-record: -:1: unknown field")):
        ran = command(*arguments, input=text)
        assert ran.returncode == status and (ran.stdout or ran.stderr).startswith(said)
    closed = command("show", file, preexec_fn=lambda: os.close(1))
    assert (closed.returncode, closed.stderr) == (2, "kest-record: standard output is closed\n")
