"""A user's program, for the type checker and for the interpreter."""

from pathlib import Path

import kest
import numpy as np
import numpy.typing as npt


def quantise_layer(
    file: Path, layer: str, weights: npt.NDArray[np.float32], batches: list[npt.NDArray[np.float32]]
) -> kest.report.Report:
    calibrator: kest.hfmg.Calibrator = kest.hfmg.Calibrator(num_bits=8)
    for batch in batches:
        calibrator.add(batch)
    inputs: kest.ActivationFactors = calibrator.factors()
    on_grid, factors = kest.arq.fake_quantise(weights, num_bits=8, channel_axis=-1)
    file.touch()
    kest.record.update_data(file, layer, inputs.scale, inputs.offset)
    kest.record.update_weights(str(file).encode(), layer, factors.scale, factors.offset)
    stored: kest.record.Record = kest.record.read(file)[layer]
    assert stored.scale_d == np.float32(inputs.scale)
    codes: npt.NDArray[np.int8] = kest.arq.codes(weights, factors, channel_axis=-1)
    again: npt.NDArray[np.float32] = codes * stored.scale_w
    np.testing.assert_array_equal(on_grid, again)
    low, high = kest.ifmr.percentile_bounds(batches[0])
    return kest.report.compare(weights, on_grid, channel_axis=-1, clip_range=(min(low, -1), max(high, 1)))


def test_a_layer(tmp_path: Path) -> None:
    random = np.random.default_rng(1)
    weights = random.normal(size=(3, 3, 4, 8)).astype(np.float32)
    batches = [random.normal(size=(16, 4)).astype(np.float32) for _ in range(3)]
    worst: int = quantise_layer(tmp_path / "model.record", "conv1", weights, batches).worst_channels()[0]
    assert 0 <= worst < 8
    try:
        kest.arq.calibrate(weights * np.float32(np.nan))
    except kest.KestError as error:
        status: int = error.status
        assert isinstance(error, ValueError) and status == -65530 and "NaN" in error.log
