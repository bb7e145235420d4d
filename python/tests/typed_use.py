"""For the type checker alone: what a user's program gets, and what it is not let through with."""

from typing import assert_type

import kest
import numpy as np
import numpy.typing as npt

Singles = npt.NDArray[np.float32]


def check(x: Singles, d: npt.NDArray[np.float64], integers: npt.NDArray[np.int32]) -> None:
    assert_type(kest.softmax.rows(d), npt.NDArray[np.float64])
    on_grid, factors = kest.arq.fake_quantise(x, num_bits=4, channel_axis=-1)
    assert_type(on_grid, Singles)
    assert_type(kest.arq.codes(d, factors), npt.NDArray[np.int8])
    assert_type(kest.hfmg.Calibrator().factors().scale, float)
    record = kest.record.read(b"a")["conv1"]
    assert_type(record.scale_d, np.float32 | None)
    kest.record.update_data("b", "conv1", record.scale_d or 1, 0)
    assert_type(kest.shift.search(x, factors.scale, channel_axis=None), npt.NDArray[np.int32])
    kest.softmax.rows(integers)  # type: ignore[type-var]
    kest.arq.calibrate(x, "8")  # type: ignore[arg-type]
    kest.ulq.Bounds(1, -1)  # type: ignore[misc]
