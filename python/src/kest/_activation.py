"""What the calibrations of activations have in common."""

from dataclasses import dataclass
from typing import Any

import numpy as np
import numpy.typing as npt

from kest._arrays import checked, checked_int, checked_offset

MOST_VALUES = 2**32 - 1  # of one call


@dataclass(frozen=True)
class ActivationFactors:
    """The one scale and offset of a tensor: a value is about scale * (code - offset)."""

    scale: float
    offset: int

    def clip_range(self, num_bits: int = 8) -> tuple[float, float]:
        """The smallest and the largest value of the signed grid of `num_bits` bits."""
        half = 2 ** (checked_int("num_bits", num_bits, 1, 32) - 1)
        return self.scale * (-half - self.offset), self.scale * (half - 1 - self.offset)


class FactorArrays:
    """Room for a scale and an offset, as kernels write and read them."""

    def __init__(self, factors: ActivationFactors = ActivationFactors(0, 0)) -> None:
        self.scale = np.array([factors.scale], np.float32)
        self.offset = np.array([checked_offset(factors.offset)], np.int32)

    def factors(self) -> ActivationFactors:
        return ActivationFactors(float(self.scale[0]), int(self.offset[0]))


def checked_values(name: str, values: npt.NDArray[Any], *dtypes: npt.DTypeLike) -> npt.NDArray[Any]:
    """`checked`, for lengths of 32 bits."""
    return checked(name, values, *dtypes, longest=MOST_VALUES)


def float_dtype(dtype: npt.DTypeLike) -> np.dtype[Any]:
    found = np.dtype(dtype)
    if found not in (np.dtype(np.float32), np.dtype(np.float64)):
        raise TypeError(f"dtype has to be float32 or float64, not {found.name}")
    return found
