"""ULQ: retraining with quantised activations between learned bounds, and quantised weights with learned steps."""

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._channels import Float, number_of_channels, one_a_channel
from kest._tensors import checked_int, checked_tensor


@dataclass(frozen=True)
class Bounds:
    """A pair of values for the upper and the lower bound of activations: the bounds, or gradients for them."""

    clip_max: float
    clip_min: float


@dataclass(frozen=True)
class Grid:
    """A code is round(activation / scale) + offset, on the signed grid; the scale is a float32 value."""

    scale: float
    offset: int


@dataclass(frozen=True)
class Repaired:
    """What clip_check makes of bounds.

    Attributes:
        bounds: to go on with.
        record: the last good ones from now on.
        restored: both bounds are those of the record.
    """

    bounds: Bounds
    record: Bounds
    restored: bool


@dataclass(frozen=True)
class Steps:
    """What initial_steps finds, float32, one a channel.

    Attributes:
        learned: steps, or their reciprocals.
        highest: the largest weight, 0 or more.
        lowest: the smallest weight, 0 or less.
    """

    learned: npt.NDArray[np.float32]
    highest: npt.NDArray[np.float32]
    lowest: npt.NDArray[np.float32]


def fake_quantise(
    activations: npt.NDArray[np.float32], bounds: Bounds, num_bits: int = 8
) -> tuple[npt.NDArray[np.float32], Grid]:
    """Replaces every activation by the nearest multiple of the scale between the bounds.

    The scale is (clip_max - clip_min) / (2^num_bits - 1) + 1e-6, and the bounds are rounded to multiples of it:
    clip_min to the nearest one, clip_max to the one 2^num_bits - 1 steps above.

    Args:
        activations: float32, any shape; NaN stays.
        bounds: clip_max above clip_min; clip_check sees to it.
        num_bits: the width of the grid, 2 to 31.

    Returns:
        A new array in the shape of the activations, and the grid.

    Raises:
        ValueError: num_bits out of range.
    """
    num_bits = checked_int("num_bits", num_bits, 2, 31)
    checked_tensor("activations", activations, np.float32)
    values = np.empty(activations.shape, np.float32)
    grid = Grid(*_core.ulq_fake_quantise(activations, bounds.clip_max, bounds.clip_min, num_bits, values))
    return values, grid


def grid_bounds(grid: Grid, num_bits: int = 8) -> Bounds:
    """The bounds of a grid: scale * (code - offset) of its last and its first code.

    Beyond them fake_quantise clips, which makes them the thresholds of gradients; and they are what retraining begins
    with on the grid of a calibration.

    Raises:
        ValueError: num_bits out of 2 to 31, or the offset out of 32 bits.
    """
    num_bits = checked_int("num_bits", num_bits, 2, 31)
    if not -(2**31) <= grid.offset < 2**31:
        raise ValueError("offset has to fit 32 bits")
    return Bounds(*_core.ulq_grid_bounds(grid.scale, grid.offset, num_bits))


def gradients(
    activations: npt.NDArray[Float], upstream: npt.NDArray[Float], bounds: Bounds, thresholds: Bounds
) -> Bounds:
    """The gradients of the loss with respect to the bounds.

    Rounding errors count on a grid of 255 steps, whatever the forward pass used.

    Args:
        activations: float32 or float64, any shape: what was fake-quantised.
        upstream: of the same type and shape: the gradients of the loss with respect to the results.
        bounds: the learned ones.
        thresholds: those beyond which the forward pass clipped.

    Raises:
        ValueError: upstream does not fit the activations.
    """
    checked_tensor("activations", activations, np.float32, np.float64)
    if checked_tensor("upstream", upstream, activations.dtype).shape != activations.shape:
        raise ValueError(f"upstream has to have the shape {activations.shape}, not {upstream.shape}")
    return Bounds(
        *_core.ulq_gradients(
            activations, upstream, thresholds.clip_max, thresholds.clip_min, bounds.clip_max, bounds.clip_min
        )
    )


def clip_check(bounds: Bounds, record: Bounds) -> Repaired:
    """Repairs bounds after a step of training.

    Both are restored from the record if clip_max is not above clip_min. Else a negative clip_max or, failing that, a
    positive clip_min is restored, and the record takes what is good.

    Args:
        bounds: after the step.
        record: the last good ones.
    """
    clip_max, clip_min, max_record, min_record, restored = _core.ulq_clip_check(
        bounds.clip_max, bounds.clip_min, record.clip_max, record.clip_min
    )
    return Repaired(Bounds(clip_max, clip_min), Bounds(max_record, min_record), restored)


def _number_of_steps(weights: npt.NDArray[np.float32]) -> int:
    return number_of_channels(weights, -1, np.float32)[0]


def initial_steps(weights: npt.NDArray[np.float32], num_bits: int = 8, *, reciprocal: bool = False) -> Steps:
    """The steps with which the extremes of each channel just fit the grid.

    Args:
        weights: float32, the channels are the last axis. NaN is passed over.
        num_bits: the width of the grid, 2 to 31.
        reciprocal: what is learned is 1 / step.

    Returns:
        Steps, 1 in place of one below 1e-6.

    Raises:
        ValueError: weights without an axis, or num_bits out of range.
    """
    num_bits = checked_int("num_bits", num_bits, 2, 31)
    highest, lowest, learned = np.zeros((3, _number_of_steps(weights)), np.float32)
    _core.ulq_initial_steps(weights, num_bits, reciprocal, highest, lowest, learned)
    return Steps(learned, highest, lowest)


def fake_quantise_weights(
    weights: npt.NDArray[np.float32], learned: npt.NDArray[np.float32], num_bits: int = 8, *, reciprocal: bool = False
) -> npt.NDArray[np.float32]:
    """Replaces every weight by its nearest code times the step of its channel.

    Args:
        weights: float32, the channels are the last axis; NaN stays.
        learned: float32, a step a channel. One below 1e-6, negative ones included, counts 1e-6 more.
        num_bits: the width of the grid, 2 to 31.
        reciprocal: what is learned is 1 / step.

    Returns:
        A new array in the shape of the weights.

    Raises:
        ValueError: learned does not fit the channels, weights without an axis, or num_bits out of range.
    """
    num_bits = checked_int("num_bits", num_bits, 2, 31)
    one_a_channel("learned", learned, np.float32, _number_of_steps(weights))
    values = np.empty(weights.shape, np.float32)
    _core.ulq_fake_quantise_weights(weights, learned, num_bits, reciprocal, values)
    return values
