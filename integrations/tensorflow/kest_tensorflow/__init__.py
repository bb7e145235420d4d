"""kest's kernels as TensorFlow operators, on the CPU.

Each function takes what TensorFlow can make a tensor of and works eagerly and in graphs. An operator that fails raises a
TensorFlow error whose text names it, the status and kest's own log lines.
"""

import pathlib

import tensorflow as tf

_ops = tf.load_op_library(str(pathlib.Path(__file__).parent / "kest_ops.so"))


def quantise(x, scale, offset, num_bits=8, name=None):
    """The deployed quantise operator: clamp(round(x * scale) + offset) - offset, halves away from zero.

    Args:
        x: float32, any shape.
        scale: a float32 scalar, 1 / step.
        offset: a float32 scalar, the zero point, a whole number.
        num_bits: the width of the signed grid.
        name: of the operator.

    Returns:
        float32 of the shape of x: codes without their zero point.
    """
    return _ops.kest_quantise(x=x, scale=scale, offset=offset, num_bits=num_bits, name=name)
