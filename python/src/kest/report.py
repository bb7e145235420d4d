"""How far a tensor is from its reference, in all and channel by channel."""

from dataclasses import dataclass

import numpy as np
import numpy.typing as npt

from kest._arrays import axis_of, check_shape

_MOST_ROWS = 8


@dataclass(frozen=True)
class Errors:
    """Figures of a tensor or of one channel; NaN where a value of either tensor is NaN.

    With an infinite value they are infinite or NaN, as double precision has it.

    Attributes:
        snr_db: 10 log10(sum of reference^2 / sum of error^2); inf without an error.
        cosine: of the angle between the two, -1 to 1; 1 if both are zero, 0 if one is.
        largest_error: the largest |result - reference|.
        clipped: the share of reference values outside the clip range, 0 to 1; None without a range.
    """

    snr_db: float
    cosine: float
    largest_error: float
    clipped: float | None

    def __str__(self) -> str:
        clipped = "-" if self.clipped is None else f"{100 * self.clipped:.3f} %"
        return f"{self.snr_db:9.2f} {self.cosine:10.6f} {self.largest_error:14.6g} {clipped:>10}"


@dataclass(frozen=True)
class Report:
    """The figures of a pair of tensors. Its text has a row for the tensor and for its worst channels."""

    overall: Errors
    channels: tuple[Errors, ...]

    def worst_channels(self) -> list[int]:
        """The channels by signal-to-noise ratio, the smallest first; NaN before all."""
        ratios = np.array([errors.snr_db for errors in self.channels])
        order: list[int] = np.argsort(np.where(np.isnan(ratios), -np.inf, ratios), kind="stable").tolist()
        return order

    def __str__(self) -> str:
        heading = f"{'':14}{'SNR (dB)':>9} {'cosine':>10} {'largest error':>14} {'clipped':>10}"
        rows = [heading, f"{'overall':14}{self.overall}"]
        rows += [f"{f'channel {i}':14}{self.channels[i]}" for i in self.worst_channels()[:_MOST_ROWS]]
        if len(self.channels) > _MOST_ROWS:
            rows.append(f"({len(self.channels) - _MOST_ROWS} better channels)")
        return "\n".join(rows)


def _signal_to_noise(signal: float, noise: float) -> float:
    if np.isnan(signal) or np.isnan(noise):
        return float("nan")
    if noise == 0:
        return float("inf")
    return float(10 * np.log10(signal / noise))


def _cosine(dot: float, first: float, second: float) -> float:
    if first == 0 or second == 0:
        return float(first == second)
    return float(np.clip(dot / (np.sqrt(first) * np.sqrt(second)), -1, 1))


def _bound_per_channel(bound: npt.ArrayLike, num_channels: int) -> npt.NDArray[np.float64]:
    column = np.asarray(bound, np.float64).reshape(-1, 1)
    if len(column) not in (1, num_channels):
        raise ValueError("clip_range has to have one bound, or one for every channel")
    return column


def _values(name: str, tensor: npt.ArrayLike) -> npt.NDArray[np.float64]:
    if isinstance(tensor, np.ma.MaskedArray) or np.iscomplexobj(tensor):
        raise TypeError(f"{name} has to be of real numbers, without a mask")
    return np.asarray(tensor, np.float64)


def compare(
    reference: npt.ArrayLike,
    result: npt.ArrayLike,
    *,
    channel_axis: int | None = None,
    clip_range: tuple[npt.ArrayLike, npt.ArrayLike] | None = None,
) -> Report:
    """Reports the error of a tensor, in double precision, whose range the squares of values and errors must not leave.

    Args:
        reference: what it should be, any real dtype and shape.
        result: what it is, in the same shape.
        channel_axis: the axis whose indices get figures of their own.
        clip_range: the smallest and the largest value on the grid: one of each, or one for every channel.

    Raises:
        TypeError: complex numbers or a mask.
        ValueError: shapes that differ, no elements, an axis that is none, bounds that do not fit the channels, are NaN,
            or the lower above the upper.
    """
    expected, found = _values("reference", reference), _values("result", result)
    check_shape("result", found, expected.shape)
    if expected.size == 0:
        raise ValueError("reference has to have elements")
    if channel_axis is None:
        expected, found = expected.reshape(1, -1), found.reshape(1, -1)
    else:
        count, _ = axis_of("channel_axis", expected, channel_axis)
        expected, found = (np.moveaxis(tensor, channel_axis, 0).reshape(count, -1) for tensor in (expected, found))

    with np.errstate(all="ignore"):  # infinite and NaN values become figures
        error = found - expected
        sums = [(a * b).sum(1) for a, b in ((expected, expected), (error, error), (expected, found), (found, found))]
        largest = np.abs(error).max(1)
        shares: list[float] | None = None
        if clip_range is not None:
            low, high = (_bound_per_channel(bound, len(expected)) for bound in clip_range)
            if not np.all(low <= high):
                raise ValueError("clip_range has to have a lower bound that is not above the upper one")
            outside = np.where(np.isnan(expected), np.nan, (expected < low) | (expected > high))
            shares = outside.mean(1).tolist()

        def errors_of(channels: slice) -> Errors:
            signal, noise, dot, power = (float(part[channels].sum()) for part in sums)
            clipped = None if shares is None else float(np.mean(shares[channels]))
            return Errors(
                _signal_to_noise(signal, noise), _cosine(dot, signal, power), float(largest[channels].max()), clipped
            )

        channels = range(0 if channel_axis is None else len(expected))
        return Report(errors_of(slice(None)), tuple(errors_of(slice(i, i + 1)) for i in channels))
