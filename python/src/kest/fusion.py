"""Weight scales of layers whose batch normalisation is folded into the weights.

Jacob et al., "Quantization and Training of Neural Networks for Efficient Integer-Arithmetic-Only Inference", 2018.
"""

import numpy as np
import numpy.typing as npt

from kest import _core
from kest._arrays import check_shape, checked


def fuse_weight_scales(
    scale: npt.NDArray[np.float32],
    gamma: npt.NDArray[np.float32],
    variance: npt.NDArray[np.float32],
    *,
    epsilon: float = 1e-3,
    multiplier: float = 1,
) -> npt.NDArray[np.float32]:
    """The scales with which folded weights have the codes of the unfolded ones.

    |scale * gamma / sqrt(|variance + epsilon|) * multiplier|, 1 where that is below 1e-6. NaN passes.

    Args:
        scale: float32, one of each channel's weights.
        gamma: float32, one for each channel.
        variance: float32, one for each channel.
        epsilon: of the batch normalisation.
        multiplier: of every fused scale.

    Returns:
        float32, one scale for each channel.

    Raises:
        ScaleError: an infinite fused scale.
        ValueError: arrays of more than one axis, or of different lengths.
    """
    checked("scale", scale, np.float32)
    if scale.ndim != 1:
        raise ValueError("scale has to have one axis")
    for name, array in (("gamma", gamma), ("variance", variance)):
        check_shape(name, checked(name, array, np.float32), scale.shape)
    fused = np.empty_like(scale)
    _core.fusion_fuse_weight_scales(
        scale, gamma, variance, epsilon, multiplier, np.zeros(scale.shape, np.int32), fused
    )
    return fused
