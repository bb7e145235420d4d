"""The example, trained briefly: what its graphs compute, what its files hold."""

import digits
import numpy as np
import pytest
from kest.record import read
from matplotlib import colors, image


@pytest.fixture(scope="module")
def example(tmp_path_factory):
    options = digits.parse(["--epochs=2", "--retrain-epochs=1", f"--output={tmp_path_factory.mktemp('digits')}"])
    return digits.run(options, digits.Console(quiet=True)), options.output


def test_accuracies(example):
    found = digits.accuracies(example[0])
    assert (best := min(found["8 bits"])) > 93 and np.ptp(found["8 bits"]) < 2 and digits.table_of(found).row_count == 5
    for name in "4 bits", "4 bits, 2:4 sparse":  # retraining wins back half of a loss that is more than some images
        lost, left = (best - found[name + after][2] for after in ("", ", retrained"))
        assert left < max(2, lost / 2)


def test_layers(example):
    """A deployed layer has integer sums and differs from a fake-quantised one by what its bias and shift round off."""
    for name, layers in example[0].items():
        x = digits.read_images(digits.IMAGES)[0][0][:64]
        for layer in layers:
            sums = digits.accumulate(x, layer).numpy()
            assert (sums == np.rint(sums)).all() and np.abs(sums).max() < 2**24
            error = np.abs(digits.deployed(x, layer) - digits.fake_quantised(x, layer)) / (layer.scale * layer.steps)
            assert np.max(error - 2.0**layer.shifts) < -0.49
            assert "sparse" not in name or np.mean(layer.kernel == 0) == (0.5 if layer.name != "conv1" else 0)
            retrained = digits.Retrained(layer)
            y = digits.activate(digits.fake_quantised(x, retrained.learned()), layer)
            assert np.mean(np.isclose(y, x := retrained(x), atol=1e-5)) > 0.999


def test_files(example):
    """Each record file has all layers. Half of a figure has a clip range, the other one a worst channel, in red."""
    files = list(example[1].glob("*.record"))
    found = [(r.key, r.dst_type, len(r.scale_w) - len(r.shift_bit)) for f in files for r in read(f).records]
    assert found == [(layer, f"INT{f.name[0]}", 0) for f in files for layer in digits.NAMES] and len(files) == 5
    for half in [half for f in digits.NAMES for half in np.split(image.imread(example[1] / f"{f}.png"), 2, axis=1)]:
        assert np.isclose(half[..., :3], colors.to_rgb(digits.RED), atol=0.01).all(2).sum() > 1000
