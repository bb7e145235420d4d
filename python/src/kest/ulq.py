"""ULQ: retraining with quantised activations between learned bounds, and quantised weights with learned steps.

Trained thresholds: Jain et al., 2020. Learned step sizes: Esser et al., 2020.
"""

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import Float, check_shape, checked, checked_int, checked_offset
from kest._channels import channels_of_weights
from kest.arq import Factors


@dataclass(frozen=True, kw_only=True)
class Bounds:
    """A pair of values for the lower and the upper bound of activations: the bounds, or gradients for them."""

    clip_min: float
    clip_max: float


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


@dataclass(frozen=True, eq=False)
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
    checked("activations", activations, np.float32)
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
    clip_max, clip_min = _core.ulq_grid_bounds(grid.scale, checked_offset(grid.offset), num_bits)
    return Bounds(clip_min=clip_min, clip_max=clip_max)


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
    checked("activations", activations, np.float32, np.float64)
    check_shape("upstream", checked("upstream", upstream, activations.dtype), activations.shape)
    clip_max, clip_min = _core.ulq_gradients(
        activations, upstream, thresholds.clip_max, thresholds.clip_min, bounds.clip_max, bounds.clip_min
    )
    return Bounds(clip_min=clip_min, clip_max=clip_max)


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
    repaired, kept = Bounds(clip_min=clip_min, clip_max=clip_max), Bounds(clip_min=min_record, clip_max=max_record)
    return Repaired(repaired, kept, restored)


def _number_of_steps(weights: npt.NDArray[np.float32]) -> int:
    return channels_of_weights(weights, -1, np.float32)[0]


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
    _core.ulq_initial_steps(weights, num_bits, bool(reciprocal), highest, lowest, learned)
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
    check_shape("learned", checked("learned", learned, np.float32), (_number_of_steps(weights),))
    values = np.empty(weights.shape, np.float32)
    _core.ulq_fake_quantise_weights(weights, learned, num_bits, bool(reciprocal), values)
    return values


def weight_factors(learned: npt.NDArray[np.float32], *, reciprocal: bool = False) -> Factors:
    """What remains of learned steps after retraining: scales, for kest.arq.codes and kest.record, and offsets of 0.

    Args:
        learned: float32, a step a channel. The magnitude counts, 1e-6 more below 1e-6.
        reciprocal: what is learned is 1 / step.

    Raises:
        ValueError: learned has more than one axis.
    """
    check_shape("learned", checked("learned", learned, np.float32), (learned.size,))
    factors = Factors(np.empty(learned.size, np.float32), np.empty(learned.size, np.int32))
    _core.ulq_weight_factors(learned, bool(reciprocal), factors.scale, factors.offset)
    return factors
