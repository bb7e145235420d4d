"""The digits example: what it tells the user is true of this build, with each method, at few bits and with zeros."""

import os
import pathlib
import re
import subprocess

import numpy as np
import pytest

PROGRAM = os.environ["DIGITS_PROGRAM"]
DATA = pathlib.Path(__file__).parents[2] / "examples/digits/data"
LAYERS = ["conv1", "conv2", "conv3", "dense"]

NUM_CHANNELS = 8 + 16 + 16 + 10
MAIN = r"accuracy: float (\d+\.\d\d) %, quantised (\d+\.\d\d) %, deployed (\d+\.\d\d) %"
FEW_BITS = r"at \d bits: float (\d+\.\d\d) %, quantised (\d+\.\d\d) %, retrained (\d+\.\d\d) %"


def run(record, *options):
    """The accuracies of the two last lines, and the record file's text."""
    done = subprocess.run([PROGRAM, "--record", str(record), *options], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    *_, main, few = done.stdout.splitlines()
    match = re.fullmatch(MAIN, main), re.fullmatch(FEW_BITS, few)
    assert all(match), (main, few)
    return [float(text) for text in match[0].groups()], [float(text) for text in match[1].groups()], record.read_text()


# Points that quantisation may lose at 8 bits: NUQ knows 16 weights where ARQ knows 256.
@pytest.mark.parametrize("options, allowed", [
    ([], 1.0),
    (["--calibration", "hfmg"], 1.0),
    (["--weights", "nuq"], 4.0),
    (["--weights", "nuq", "--clusters", "64"], 1.5),
    (["--balance"], 0.5),
])
def test_quantised_network(tmp_path, options, allowed):
    (exact, quantised, deployed), _, record = run(tmp_path / "record", "--epochs", "1", *options)
    assert exact >= 96.0
    assert quantised >= exact - allowed and abs(deployed - quantised) <= 0.5
    assert record.count("shift_bit:") == NUM_CHANNELS
    assert record.count("scale_w:") == NUM_CHANNELS
    clusters = {"--weights nuq": 4 * 16, "--weights nuq --clusters 64": 4 * 64}.get(" ".join(options), 0)
    assert record.count("cluster:") == clusters
    assert record.count("tensor_balance_factor:") == (1 + 8 + 16 + 64 if "--balance" in options else 0)


@pytest.mark.parametrize("option", ["--calibration=ifmr", "--calibration=hfmg", "--balance"])
def test_retraining_wins_back_half_of_what_4_bits_lose(tmp_path, option):
    _, (exact, before, after), _ = run(tmp_path / "record", option)
    assert before <= exact - 1.0  # or there is nothing to win back
    assert after - before >= (exact - before) / 2


def run_dumping(tmp_path, *options):
    """What run tells and the dumped tensors by name."""
    directory = tmp_path / "new" / "dump"
    told = run(tmp_path / "record", "--retrain-bits", "8", "--epochs", "3", "--dump", str(directory), *options)
    tensors = {}
    for file in directory.iterdir():
        kind, *values = np.fromfile(file, np.float32)
        assert kind == 0
        tensors[file.name.removesuffix("_batch0.bin")] = np.array(values[4:]).reshape(np.array(values[:4], int))
    return *told, tensors


def test_dump_shows_the_deployed_network(tmp_path):
    *_, record, tensors = run_dumping(tmp_path)
    assert len(tensors) == 2 * len(LAYERS) + 1
    images = np.frombuffer((DATA / "images.bin").read_bytes()[24:], np.uint8).reshape(-1, 65)[-500:][:32, 1:]
    assert np.array_equal(tensors["conv1_input"], images.reshape(32, 8, 8, 1).astype(np.float32) / 16)
    scale, offset, scales, shifts = (np.array(re.findall(field + r": (\S+)", record.split('"dense"')[1]), np.float32)
                                     for field in ("scale_d", "offset_d", "scale_w", "shift_bit"))
    codes = np.clip(np.floor(tensors["dense_input"] * (1 / scale) + 0.5) + offset, -128, 127) - offset
    bias = np.rint(np.fromfile(DATA / "network.bin", np.float32)[-10:] / (scale * scales))
    shifted = np.floor((codes.reshape(32, 64) @ tensors["dense_weights"].reshape(64, 10) + bias) / 2**shifts)
    assert np.array_equal(tensors["scores"].reshape(32, 10), shifted * (2**shifts * (scale * scales)))


def test_pruned_channels_are_zeros_wherever_they_are(tmp_path):
    (exact, *_), (*_, retrained), record, tensors = run_dumping(tmp_path, "--prune", "0.25", "--balance")
    assert 40 <= exact <= 50 and retrained >= 85  # other channels would cost more, or less
    balanced = [True]
    for layer, reader in zip(LAYERS, LAYERS[1:]):
        weights, reading = tensors[layer + "_weights"], tensors[reader + "_weights"]
        kept = weights.any(axis=(0, 1, 2))
        assert np.count_nonzero(kept) == kept.size * 3 // 4
        assert np.array_equal(reading.reshape(-1, kept.size, reading.shape[3]).any(axis=(0, 2)), kept)
        assert np.array_equal(tensors[reader + "_input"].reshape(-1, kept.size).any(axis=0), kept)
        balanced += [*kept] * (reading.shape[2] // kept.size)  # nothing to balance has factor 1
    assert np.array_equal([text != "1" for text in re.findall(r"balance_factor: (\S+)", record)], balanced)


def test_sparse_weights_are_the_largest(tmp_path):
    (exact, *_), (*_, retrained), _, tensors = run_dumping(tmp_path, "--sparse", "2:4")
    assert exact >= 55 and retrained >= 94
    *_, plain = run_dumping(tmp_path)  # with the same weight scales: the largest weight of a channel is kept
    for name in (layer + "_weights" for layer in LAYERS):
        codes, all_codes = (np.sort(abs(np.moveaxis(of[name], 2, -1).reshape(-1, 4))) for of in (tensors, plain))
        if name != "conv1_weights":  # one input channel: left out
            all_codes[:, :2] = 0
        assert np.array_equal(codes, all_codes), name


def test_options_are_checked(tmp_path):
    for options in (["--weights", "other"], ["--clusters", "0"], ["--calibration"], ["--epochs", "-1"],
                    ["--prune", "1"], ["--prune", "0"], ["--prune", "nan"], ["--prune", "0.5x"], ["--sparse", "2"],
                    ["--sparse", "4:4"], ["--sparse", "0:4"], ["--sparse", "2:65"], ["--dump", ""]):
        done = subprocess.run([PROGRAM, "--record", str(tmp_path / "record"), *options], capture_output=True)
        assert done.returncode == 2 and done.stderr, options
