"""ARQ: weights to one scale and offset a channel by their extremes.

The affine scheme of Jacob et al., "Quantization and Training of Neural Networks for Efficient Integer-Arithmetic-Only
Inference", 2018. A scale below 2^-23 becomes 1: a channel of tiny weights becomes 0.
"""

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import Float, checked_int
from kest._channels import channels_of_weights, check_factors, to_first, to_last


@dataclass(frozen=True, eq=False)
class Factors:
    """A weight is about scale * (code - offset).

    Attributes:
        scale: float32, one a channel.
        offset: int32, one a channel.
    """

    scale: npt.NDArray[np.float32]
    offset: npt.NDArray[np.int32]


def calibrate(
    weights: npt.NDArray[Float], num_bits: int = 8, *, channel_axis: int | None = 0, with_offset: bool = False
) -> Factors:
    """Finds the scale and offset of every channel.

    Args:
        weights: float32 or float64, any shape.
        num_bits: the width of the grid, 2 to 31.
        channel_axis: 0 or -1; None for one scale and offset.
        with_offset: an asymmetric grid; without it offsets are 0.

    Raises:
        BadParamError: no weights, NaN among them, a bit width out of range.
        ScaleError: a channel with an infinite weight, or a range above 2^23 times the grid.
    """
    num_channels, channel_last = channels_of_weights(weights, channel_axis, np.float32, np.float64)
    factors = Factors(np.zeros(num_channels, np.float32), np.zeros(num_channels, np.int32))
    _core.arq_calibrate(
        weights, checked_int("num_bits", num_bits, 0), bool(with_offset), channel_last, factors.scale, factors.offset
    )
    return factors


def fake_quantise(
    weights: npt.NDArray[Float], num_bits: int = 8, *, channel_axis: int | None = 0, with_offset: bool = False
) -> tuple[npt.NDArray[Float], Factors]:
    """Calibrates, and replaces every weight by scale * (code - offset).

    Args:
        weights: float32 or float64, any shape.
        num_bits: the width of the grid, 2 to 31.
        channel_axis: 0 or -1; None for one scale and offset.
        with_offset: an asymmetric grid; without it offsets are 0.

    Returns:
        The weights on their grid, a new array, and the factors.

    Raises:
        BadParamError, ScaleError: as calibrate.
    """
    _, channel_last = channels_of_weights(weights, channel_axis, np.float32, np.float64)
    factors = calibrate(weights, num_bits, channel_axis=channel_axis, with_offset=with_offset)
    values = weights.copy()
    if channel_last:
        _core.arq_fake_quantise_last(values, num_bits, factors.scale, factors.offset)
    else:
        _core.arq_fake_quantise_first(values, num_bits, bool(with_offset), factors.scale, factors.offset)
    return values, factors


def codes(
    weights: npt.NDArray[Float], factors: Factors, num_bits: int = 8, *, channel_axis: int | None = 0
) -> npt.NDArray[np.int8]:
    """The codes round(weight / scale) + offset of weights on a grid of up to 8 bits, in their shape.

    Args:
        weights: float32 or float64, any shape.
        factors: one scale and offset for each channel.
        num_bits: the width of the grid, 2 to 8.
        channel_axis: 0 or -1; None for one scale and offset.

    Raises:
        BadParamError: no weights, NaN among them.
        ScaleError: an infinite scale or one above 2^23.
        ValueError: num_bits out of range, factors that do not fit the channels.
    """
    num_channels, channel_last = channels_of_weights(weights, channel_axis, np.float32, np.float64)
    check_factors(factors.scale, factors.offset, num_channels)
    first = to_first(weights, channel_last)
    found = np.empty(first.shape, np.int8)
    _core.arq_codes(first, checked_int("num_bits", num_bits, 2, 8), factors.scale, factors.offset, found)
    return to_last(found, channel_last)
