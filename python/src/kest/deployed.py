"""The operators between the integer and the floating-point stages of a deployed model, simulated."""

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import checked, checked_int
from kest._channels import channels_of


def quantise(
    values: npt.NDArray[np.float32], scale: float, offset: float = 0, num_bits: int = 8
) -> npt.NDArray[np.float32]:
    """clamp(round(value * scale) + offset, -m, m - 1) - offset with m = 2^(num_bits - 1): codes without zero point.

    Halves are rounded away from zero; NaN stays.

    Args:
        values: float32, any shape.
        scale: what a value is multiplied by, 1 / step.
        offset: in codes.
        num_bits: 1 to 32.

    Returns:
        Integers in float32, in the shape of `values`.

    Raises:
        ValueError: a bit width out of range.
    """
    checked("values", values, np.float32)
    num_bits = checked_int("num_bits", num_bits, 1, 32)
    found = np.empty_like(values)
    _core.deployed_quantise(values, scale, offset, num_bits, found)
    return found


def pack_words(scale: npt.NDArray[np.float32], shift: npt.ArrayLike = 0) -> npt.NDArray[np.uint64]:
    """The words that dequantise takes: the scale's bits in 0 to 31, the shift in 32 to 39.

    Args:
        scale: float32, one entry a channel: that of the activations times that of the weights.
        shift: integers from 0 to 255: one for each channel, or one for all.

    Raises:
        TypeError: shifts that are no integers.
        ValueError: shifts out of range, or of another shape.
    """
    checked("scale", scale, np.float32)
    shifts = np.asarray(shift)
    if shifts.dtype.kind not in "iu":
        raise TypeError(f"shift has to be of integers, not {shifts.dtype.name}")
    if shifts.shape not in ((), scale.shape):
        raise ValueError(f"shift has to have the shape {scale.shape} or none, not {shifts.shape}")
    if np.any(shifts < 0) or np.any(shifts > 255):
        raise ValueError("shift has to be 0 to 255")
    return scale.view(np.uint32).astype(np.uint64) | shifts.astype(np.uint64) << np.uint64(32)


def dequantise(
    values: npt.NDArray[np.float32],
    words: npt.NDArray[np.uint64],
    *,
    channel_axis: int | None = None,
    input_multiplier: int = 1,
) -> npt.NDArray[np.float32]:
    """Accumulator values to real ones.

    y = input_multiplier * value; with a shift N other than 0, y = floor(y / 2^N), clamped to [-32768, 32767]; then
    y * (2^N * scale) / input_multiplier, all in single precision.

    Args:
        values: whole numbers as float32, any shape.
        words: uint64, one for each channel, from pack_words.
        channel_axis: any axis of `values`; None for one word.
        input_multiplier: a 32-bit integer, not 0.

    Raises:
        ValueError: words that do not fit the channels, a multiplier out of range.
    """
    checked("values", values, np.float32)
    count, stride = channels_of(values, channel_axis, "words", words, np.uint64)
    input_multiplier = checked_int("input_multiplier", input_multiplier, -(2**31))
    if input_multiplier == 0:
        raise ValueError("input_multiplier has to be other than 0")
    found = np.empty_like(values)
    _core.deployed_dequantise(values, words, count, stride, input_multiplier, found)
    return found


def anti_quantise(values: npt.NDArray[np.float32], scale: float) -> npt.NDArray[np.float32]:
    """value * scale, in single precision: codes without zero point to real values.

    Args:
        values: float32, any shape.
        scale: the step.
    """
    checked("values", values, np.float32)
    found = np.empty_like(values)
    _core.deployed_anti_quantise(values, scale, found)
    return found


def anti_quantise_weights(
    codes: npt.NDArray[np.int8], offset: npt.NDArray[np.int8], *, channel_axis: int | None = None
) -> npt.NDArray[np.float32]:
    """code - offset of the channel, as float32.

    Args:
        codes: int8, any shape.
        offset: int8, one for each channel.
        channel_axis: any axis of `codes`; None for one offset.

    Raises:
        ValueError: offsets that do not fit the channels.
    """
    checked("codes", codes, np.int8)
    count, stride = channels_of(codes, channel_axis, "offset", offset, np.int8)
    found = np.empty(codes.shape, np.float32)
    _core.deployed_anti_quantise_weights(codes, offset, count, stride, found)
    return found
