"""The digits example: what it tells the user is true of this build, with each method and at few bits."""

import os
import re
import subprocess

import pytest

PROGRAM = os.environ["DIGITS_PROGRAM"]

NUM_CHANNELS = 8 + 16 + 16 + 10
MAIN = r"accuracy: float (\d+\.\d\d) %, quantised (\d+\.\d\d) %"
FEW_BITS = r"at 4 bits: float (\d+\.\d\d) %, quantised (\d+\.\d\d) %, retrained (\d+\.\d\d) %"


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
])
def test_quantised_network(tmp_path, options, allowed):
    (exact, quantised), _, record = run(tmp_path / "record", "--epochs", "1", *options)
    assert exact >= 96.0
    assert quantised >= exact - allowed
    assert record.count("shift_bit:") == NUM_CHANNELS
    assert record.count("scale_w:") == NUM_CHANNELS
    clusters = {"--weights nuq": 4 * 16, "--weights nuq --clusters 64": 4 * 64}.get(" ".join(options), 0)
    assert record.count("cluster:") == clusters


@pytest.mark.parametrize("calibration", ["ifmr", "hfmg"])
def test_retraining_wins_back_half_of_what_4_bits_lose(tmp_path, calibration):
    _, (exact, before, after), _ = run(tmp_path / "record", "--calibration", calibration)
    assert before <= exact - 1.0  # or there is nothing to win back
    assert after - before >= (exact - before) / 2


def test_options_are_checked(tmp_path):
    for options in (["--weights", "other"], ["--clusters", "0"], ["--calibration"], ["--epochs", "-1"]):
        done = subprocess.run([PROGRAM, "--record", str(tmp_path / "record"), *options], capture_output=True)
        assert done.returncode == 2 and done.stderr, options
