"""The operators, eager and in graphs, give the bits of the Python package, whose tests have numbers worked by hand."""

import dataclasses

import kest_tensorflow as ops
import numpy as np
import pytest
import tensorflow as tf
from kest import ActivationFactors, arq, balance, deployed, fusion, ifmr, masks, nuq, prune, shift, softmax, ulq

rng = np.random.default_rng(0)
X, W = (rng.normal(0.5, size=shape).astype("f") for shape in [(3, 4, 5), (4, 5, 3)])
SUMS = (X * [2**16, 2**18, 2**23, 3, 2**20]).astype("f").round()
CODES, OFFSETS = (rng.integers(-128, 128, shape, np.int8) for shape in [(3, 4, 5), 5])
SCALE, SHIFT, OFFSET = np.float32([0.5, 0.01, 2, 0.25, 1e-7]), np.int32([0, 4, 9, 0, 255]), np.int32([3, 0, -2, 1, 0])
GRID, BOUNDS = ActivationFactors(0.5, 1), ulq.Bounds(clip_max=1.03, clip_min=-0.72)


def arrays(found):
    """What a result of the package is made of, one after the other."""
    if dataclasses.is_dataclass(found):
        found = tuple(vars(found).values())
    return [array for part in found for array in arrays(part)] if isinstance(found, tuple) else [found]


def assert_same(operator, function, *inputs):
    """In the graph the inputs have an unknown first dimension."""
    shapes = [[None, *np.shape(x)[1:]] if np.ndim(x) else [] for x in inputs]
    signature = [tf.TensorSpec(shape, x.dtype) for shape, x in zip(shapes, inputs)]
    wanted = arrays(function(*inputs))
    for run in operator, tf.function(operator, input_signature=signature):
        for got, want in zip(tf.nest.flatten(run(*inputs)), wanted, strict=True):
            np.testing.assert_array_equal(got, want)
            assert got.shape == np.shape(want)


@pytest.mark.parametrize("operator, function, inputs", [
    (lambda x: ops.quantise(x, 5.0, 3.0, 4), lambda x: deployed.quantise(x, 5, 3, 4), [X]),
    (lambda x: ops.anti_quantise(x, 0.1), lambda x: deployed.anti_quantise(x, 0.1), [X]),
    (lambda x, *factors: ops.dequantise(x, ops.dequantise_words(*factors)),
     lambda x, *factors: deployed.dequantise(x, deployed.pack_words(*factors), channel_axis=-1), [SUMS, SCALE, SHIFT]),
    (lambda x, *factors: ops.dequantise(x, ops.dequantise_words(*factors), 1, -2),
     lambda x, *factors: deployed.dequantise(x, deployed.pack_words(*factors), channel_axis=1, input_multiplier=-2),
     [SUMS, SCALE[:4], SHIFT[:4]]),
    (lambda x: ops.dequantise(x, ops.dequantise_words(0.1, 7)),
     lambda x: deployed.dequantise(x, deployed.pack_words(np.float32([0.1]), 7)), [SUMS]),
    (ops.anti_quantise_weights, lambda w, offset: deployed.anti_quantise_weights(w, offset, channel_axis=-1),
     [CODES, OFFSETS]),
    (lambda w, offset: ops.anti_quantise_weights(w, offset, 1),
     lambda w, offset: deployed.anti_quantise_weights(w, offset, channel_axis=1), [CODES, OFFSETS[:4]]),
    (ops.anti_quantise_weights, lambda w, offset: deployed.anti_quantise_weights(w, offset[np.newaxis]),
     [CODES, OFFSETS[0]]),
    (lambda x: ops.fake_quantise(x, 0.5, 1, 3), lambda x: ifmr.fake_quantise(x, GRID, 3), [X]),
    (ops.fuse_batch_norm, fusion.fuse_weight_scales, list(X[0, :3])),
    (lambda *x: ops.fuse_batch_norm(*x, 0.25, 6.0),
     lambda *x: fusion.fuse_weight_scales(*x, epsilon=0.25, multiplier=6), list(X[0, :3])),
    (ops.arq_weights, lambda w: arq.fake_quantise(w, channel_axis=-1), [X]),
    (lambda w: ops.arq_weights(w, 4, True), lambda w: arq.fake_quantise(w, 4, channel_axis=-1, with_offset=True), [X]),
    (lambda w, *factors: ops.arq_codes(w, *factors, 4),
     lambda w, *factors: arq.codes(w, arq.Factors(*factors), 4, channel_axis=-1), [X, SCALE, OFFSET]),
    (lambda w: ops.nuq_weights(w, 5, num_iterations=2),
     lambda w: nuq.quantise(w, 5, num_iterations=2, channel_axis=-1), [X]),
    (lambda w: ops.nuq_weights(w, with_offset=True), lambda w: nuq.quantise(w, channel_axis=-1, with_offset=True), [X]),
    (lambda w, *factors: ops.fake_quantise_nuq(w, *factors, [10, 9, -3], 4),
     lambda w, *factors: nuq.fake_quantise(w, nuq.Factors(*factors, np.int32([10, 9, -3])), 4, channel_axis=-1),
     [X, SCALE, OFFSET]),
    (ops.fake_quantise_weights, ulq.fake_quantise_weights, [X, SCALE]),
    (lambda w, steps: ops.fake_quantise_weights(w, steps, 3, True),
     lambda w, steps: ulq.fake_quantise_weights(w, steps, 3, reciprocal=True), [X, SCALE]),
    (ops.initial_steps, lambda w: ulq.initial_steps(w).learned, [X]),
    (lambda w: ops.initial_steps(w, 4, True), lambda w: ulq.initial_steps(w, 4, reciprocal=True).learned, [X]),
    (ops.step_scales, ulq.weight_factors, [-SCALE]),
    (lambda steps: ops.step_scales(steps, True), lambda steps: ulq.weight_factors(steps, reciprocal=True), [-SCALE]),
    (lambda x: ops.ulq(x, 1.03, -0.72, 4), lambda x: ulq.fake_quantise(x, BOUNDS, 4), [X]),
    (lambda x, w: ops.dmq_balance_factors(x, w, 0.3), lambda x, w: balance.dmq_factors(x, w, 0.3), [X, W]),
    (lambda x, w: ops.dmq_balance_factors(x, w, 0.5, 0, -1),
     lambda x, w: balance.dmq_factors(x, w, activation_axis=0, weight_axis=-1), [X, W]),
    (ops.shift_search, shift.search, [SUMS, SCALE]),
    (lambda x, scale: ops.shift_search(x, scale, 1, True),
     lambda x, scale: shift.search(x, scale, channel_axis=1, per_tensor=True), [SUMS, SCALE[:4]]),
])
def test_single_precision(operator, function, inputs):
    assert_same(operator, function, *inputs)


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
@pytest.mark.parametrize("operator, function, inputs", [
    (ops.fast_softmax, lambda x: softmax.rows(x, threshold=-1.5), [X]),
    (lambda x: ops.fast_softmax(x, 1 / 4, 1 / 8, -1), lambda x: softmax.rows(x, square=1 / 4, cube=1 / 8, threshold=-1),
     [X]),
    (lambda x: ops.percentile_bounds(x, 0.9, 0.7),
     lambda x: ifmr.percentile_bounds(x, max_percentile=0.9, min_percentile=0.7)[::-1], [X]),
    (ops.generate_mask, masks.from_rows_and_columns, [np.array([1, 0, 0.5]), np.array([0, 1, -2, np.nan])]),
    (ops.apply_mask, lambda x, mask: masks.apply(mask, x, row_axis=-2, column_axis=-1), [X, W[:, :, 0]]),
    (lambda x, mask: ops.apply_mask(x, mask, 2, 0), lambda x, mask: masks.apply(mask, x, row_axis=2, column_axis=0),
     [X, W[0]]),
    (ops.n_of_m_mask, lambda w: masks.n_of_m(w, 2, 4, axis=-2), [X]),
    (lambda w, select: ops.n_of_m_mask(w, 1, 3, 2, select),
     lambda w, select: masks.n_of_m(w, 1, 3, axis=2, selected=select >= 1), [X, np.array([1, 1, 0.5, 1, 2])]),
    (lambda *x: ops.channel_prune_mask(x, [-2, 0], [3, 1], [2, 0]),
     lambda *x: prune.keep_mask(x, [-2, 0], [2, 0], group_sizes=[3, 1]), [X, W]),
    (lambda *x: ops.channel_prune_mask(x, [1, 0], [4], [1]), lambda *x: prune.keep_mask(x, [1, 0], [1]), [X, W]),
])
def test_either_precision(dtype, operator, function, inputs):
    assert_same(operator, function, *(x.astype(dtype) for x in inputs))


def test_ulq_clip_check():
    for bounds, expected in ((-1, -2), (9, -2)), ((3, 1), (3, -9)):
        np.testing.assert_array_equal(ops.ulq_clip_check(*np.float32([*bounds, 9, -9])), expected * 2)
    np.testing.assert_array_equal(ops.ulq_clip_check(3.0, 1.0, 9.0, -9.0, reset_min=True), [3, 0, 3, 0])


def test_no_elements():
    assert ops.fast_softmax(X[..., :0]).shape == (3, 4, 0) and ops.n_of_m_mask(X[:0]).shape == (0, 4, 5)
