"""Shift bits: by how much a layer shifts its 32-bit accumulators right so that they fit 16 bits.

For integers q = round(accumulator / scale) the error of a shift by N bits, 1 to 16, is the sum of
(clip(floor(q / 2^N), -32768, 32767) * 2^N - q)^2. The N with the smallest error wins, the smallest of equal ones.
"""

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._accumulator import Accumulator
from kest._arrays import axis_of, checked
from kest._channels import channels_of


_NUM_SHIFTS = 16


def _checked_scale(scale: npt.NDArray[np.float32]) -> npt.NDArray[np.float32]:
    """A copy of the scales, which have to be one or more."""
    checked("scale", scale, np.float32)
    if scale.ndim != 1 or scale.size == 0:
        raise ValueError("scale has to have one axis and one entry or more")
    return scale.copy()


def _inner_size(
    accumulators: npt.NDArray[np.float32], channel_axis: int | None, scale: npt.NDArray[np.float32]
) -> int:
    """How many values of a channel lie side by side."""
    checked("accumulators", accumulators, np.float32)
    return channels_of(accumulators, channel_axis, "scale", scale, np.float32)[1]


def search(
    accumulators: npt.NDArray[np.float32],
    scale: npt.NDArray[np.float32],
    *,
    channel_axis: int | None = -1,
    per_tensor: bool = False,
) -> npt.NDArray[np.int32]:
    """Finds the shifts for accumulators that are kept.

    Args:
        accumulators: float32, any shape.
        scale: float32, accumulator units in one integer, an entry a channel.
        channel_axis: any axis; None for one channel.
        per_tensor: one shift for all channels together, each with its own scale.

    Returns:
        A shift a channel, or one for all of them; 1 without accumulators.

    Raises:
        ValueError: scale does not fit the channels or has no entries, or channel_axis is no axis.
    """
    scale = _checked_scale(scale)
    inner = _inner_size(accumulators, channel_axis, scale)
    shift_bits = np.ones(scale.size, np.int32)
    if accumulators.size > 0:
        _core.shift_search(accumulators, inner, bool(per_tensor), scale, shift_bits, np.empty_like(scale))
    return shift_bits[:1] if per_tensor else shift_bits


def search_integers(
    accumulators: npt.NDArray[np.int32], *, channel_axis: int | None = -1
) -> npt.NDArray[np.int32]:
    """Finds the shifts for integers q that are kept; unlike search's, their shift truncates toward zero.

    Args:
        accumulators: int32, any shape.
        channel_axis: any axis; None for one channel.

    Returns:
        A shift a channel; 1 for one without accumulators.

    Raises:
        ValueError: channel_axis is no axis.
    """
    checked("accumulators", accumulators, np.int32)
    if channel_axis is None:
        rows: npt.NDArray[np.int32] = accumulators.reshape(1, -1)
    else:
        axis_of("channel_axis", accumulators, channel_axis)
        rows = np.ascontiguousarray(np.moveaxis(accumulators, channel_axis, 0))
    shift_bits = np.ones(len(rows), np.int32)
    if rows.size > 0:
        _core.shift_search_integers(rows, shift_bits)
    return shift_bits


class Searcher(Accumulator):
    """Finds the shifts for accumulators that come in batches and are not kept.

    The measure is that of search, the errors of each batch summed in single precision and added up. Threads may share
    a searcher; the order of their batches can then change the last bits of an error. Copies and pickles are snapshots
    that go on by themselves.
    """

    def __init__(
        self, scale: npt.NDArray[np.float32], *, channel_axis: int | None = -1, per_tensor: bool = False
    ) -> None:
        """Begins without accumulators.

        Args:
            scale: float32, accumulator units in one integer, an entry a channel.
            channel_axis: any axis of the batches; None for one channel.
            per_tensor: one shift for all channels together, each with its own scale.

        Raises:
            ValueError: scale has no entries, or more than one axis.
        """
        super().__init__()
        self._scale = _checked_scale(scale)
        self._channel_axis = channel_axis
        self._per_tensor = bool(per_tensor)
        self._errors = np.zeros((scale.size, _NUM_SHIFTS), np.float32)

    def feed(self, accumulators: npt.NDArray[np.float32]) -> None:
        """Adds the errors of a batch.

        Args:
            accumulators: float32, any shape with as many channels as there are scales.

        Raises:
            ValueError: the channels do not fit the scales, or the batch lacks the axis.
        """
        inner = _inner_size(accumulators, self._channel_axis, self._scale)
        if accumulators.size > 0:
            with self._lock:
                errors = self._errors.copy()
                _core.shift_add_errors(accumulators, inner, self._per_tensor, self._scale, errors)
                self._errors = errors

    def shift_bits(self) -> npt.NDArray[np.int32]:
        """The shifts for all batches so far, int32: one a channel, or one for all; 1 before the first batch."""
        shift_bits = np.empty(1 if self._per_tensor else self._scale.size, np.int32)
        _core.shift_find_best(self._errors, shift_bits)
        return shift_bits
