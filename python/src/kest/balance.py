"""DMQ balancing: activations and weights share the difficulty of a channel's range.

Xiao et al., "Accurate and Efficient Post-Training Quantization for Large Language Models", 2023.
"""

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import axis_of, checked


def dmq_factors(
    activations: npt.NDArray[np.float32],
    weights: npt.NDArray[np.float32],
    strength: float = 0.5,
    *,
    activation_axis: int = -1,
    weight_axis: int = -2,
) -> npt.NDArray[np.float32]:
    """A factor for each input channel: divide its activations by it and multiply its weights by it.

    factor = largest activation^strength / largest weight^(1 - strength), in magnitudes. Channels of zeros on one side
    take a factor from the other channels; every factor is 1 where all activations or all weights are 0. NaN is passed
    over.

    Args:
        activations: float32, any shape.
        weights: float32, any shape.
        strength: how much of the difficulty goes to the weights, 0.2 to 0.8.
        activation_axis: that of the input channels.
        weight_axis: that of the input channels.

    Returns:
        float32, one factor for each channel.

    Raises:
        BadParamError: no values, infinite ones, a strength out of range.
        ScaleError: a factor outside [2^-23, 2^23].
        ValueError: axes that are not there or differ in length.
    """
    checked("activations", activations, np.float32)
    checked("weights", weights, np.float32)
    num_channels, _ = axis_of("activation_axis", activations, activation_axis)
    if axis_of("weight_axis", weights, weight_axis)[0] != num_channels:
        raise ValueError(f"weights have to have {num_channels} channels along weight_axis, as activations do")
    factors = np.empty(num_channels, np.float32)
    _core.balance_dmq_factors(
        np.ascontiguousarray(np.moveaxis(activations, activation_axis, 0)),
        np.ascontiguousarray(np.moveaxis(weights, weight_axis, 0)),
        strength,
        factors,
        np.empty_like(factors),
    )
    return factors
