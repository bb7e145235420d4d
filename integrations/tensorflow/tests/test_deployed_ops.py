"""The deployed operators, eager and in graphs, against numpy."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf


def both_ways(function, *inputs):
    """The result, which is the same in eager mode and in a graph that does not know the shapes' first dimension."""
    eager = function(*inputs)
    signature = [tf.TensorSpec([None, *np.shape(x)[1:]] if np.ndim(x) else [], tf.as_dtype(np.asarray(x).dtype)) for x in inputs]
    graph = tf.function(function, input_signature=signature)(*inputs)
    np.testing.assert_array_equal(eager, graph)
    return eager.numpy()


def test_quantise():
    x = np.random.default_rng(0).normal(size=(7, 5)).astype(np.float32)
    codes = both_ways(lambda x: kest.quantise(x, 50.0, 3.0), x)
    np.testing.assert_array_equal(codes, np.clip(np.trunc(x * 50 + np.copysign(0.5, x)) + 3, -128, 127) - 3)
    with pytest.raises(tf.errors.InvalidArgumentError, match="scale has to be a scalar"):
        kest.quantise(x, [50.0], 3.0)
