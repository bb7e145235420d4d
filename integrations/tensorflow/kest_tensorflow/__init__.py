"""kest's kernels as TensorFlow operators, on the CPU.

Each function takes what TensorFlow can make a tensor of and works eagerly and in graphs. An operator that fails raises
a TensorFlow error whose text names it and its node, the status and kest's own log lines. An operator without a gradient
raises LookupError where one is asked for; x + tf.stop_gradient(f(x) - x) takes f for the identity.
"""

import ctypes
import os
import pathlib

import tensorflow as tf

_library = pathlib.Path(__file__).parent / "kest_ops.so"
_ops = tf.load_op_library(str(_library))

# GCC's OpenMP hangs in a forked child whose thread had workers before; alone it works on.
os.register_at_fork(after_in_child=lambda: ctypes.CDLL(str(_library)).omp_set_num_threads(1))


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


def dequantise_words(scale, shift=0):
    """The words that dequantise takes: the bits of the scale, and above them the shift.

    Args:
        scale: float32, a scalar or one a channel.
        shift: integers from 0 to 255, a scalar or one a channel.

    Returns:
        uint64 of the shape that both broadcast to.
    """
    bits = tf.cast(tf.bitcast(tf.convert_to_tensor(scale, tf.float32), tf.uint32), tf.uint64)
    return tf.bitwise.bitwise_or(bits, tf.bitwise.left_shift(tf.cast(shift, tf.uint64), tf.constant(32, tf.uint64)))


def dequantise(x, words, axis=-1, multiplier=1, name=None):
    """The deployed dequantise operator: accumulators to real values.

    multiplier * x, with a shift N other than 0 then floor(... / 2^N) clamped to 16 signed bits; times 2^N * scale /
    multiplier.

    Args:
        x: float32, whole numbers, any shape.
        words: uint64, scale and shift (dequantise_words) of all channels as a scalar, or one word for each.
        axis: of the channels, if there is a word for each.
        multiplier: a whole number other than 0.
        name: of the operator.

    Returns:
        float32 of the shape of x.
    """
    return _ops.kest_dequantise(x=x, words=words, axis=axis, multiplier=multiplier, name=name)


def anti_quantise(x, scale, name=None):
    """The deployed anti-quantise operator: x * scale.

    Args:
        x: float32, codes without their zero point, any shape.
        scale: a float32 scalar, the step.
        name: of the operator.

    Returns:
        float32 of the shape of x.
    """
    return _ops.kest_anti_quantise(x=x, scale=scale, name=name)


def anti_quantise_weights(codes, offset, axis=-1, name=None):
    """The deployed weight operator: codes - offset, weights without their zero point.

    Args:
        codes: int8, any shape.
        offset: int8, one for all channels as a scalar, or one for each.
        axis: of the channels, if there is an offset for each.
        name: of the operator.

    Returns:
        float32 of the shape of codes.
    """
    return _ops.kest_anti_quantise_weights(codes=codes, offset=offset, axis=axis, name=name)


def fast_softmax(x, coeff_square=1 / 2, coeff_cube=1 / 6, threshold=-1.5, name=None):
    """Softmax over the last axis with a polynomial in place of the exponential.

    Of d = x - the row's maximum: coeff_cube * d^3 + coeff_square * d^2 + d + 1, and 0 for d up to the threshold,
    divided by the row's sum. The default polynomial, the Taylor series, is negative below -1.596.

    Args:
        x: float32 or float64, of rank 1 or more.
        coeff_square: a number.
        coeff_cube: a number.
        threshold: a negative number.
        name: of the operator.

    Returns:
        A tensor of the type and shape of x.
    """
    return _ops.kest_fast_softmax(
        x=x, coeff_square=coeff_square, coeff_cube=coeff_cube, threshold=threshold, name=name
    )


def fake_quantise(x, scale, offset, num_bits=8, name=None):
    """Fake-quantises activations with the factors of a calibration.

    scale * (code - offset), code = clamp(round(x / scale) + offset), halves away from zero; NaN counts as 0. The
    gradient passes to x from scale times the lowest code - offset to scale times the highest one; the factors have
    none.

    Args:
        x: float32, any shape.
        scale: a float32 scalar, 2^-52 or more.
        offset: an int32 scalar.
        num_bits: the width of the signed grid, 2 to 31.
        name: of the operator.

    Returns:
        float32 of the shape of x.
    """
    return _ops.kest_fake_quantise(x=x, scale=scale, offset=offset, num_bits=num_bits, name=name)


def percentile_bounds(x, max_percentile=0.999999, min_percentile=0.999999, name=None):
    """Bounds values by two percentiles; a bound on the wrong side of zero is zero.

    Args:
        x: float32 or float64, any shape, not empty, without NaN.
        max_percentile: the share of values at or below the upper bound, in (0, 1]; 1: the largest value.
        min_percentile: the share of values at or above the lower bound, in (0, 1]; 1: the smallest value.
        name: of the operator.

    Returns:
        The upper and the lower bound, scalars of the type of x.
    """
    return _ops.kest_percentile_bounds(x=x, max_percentile=max_percentile, min_percentile=min_percentile, name=name)


def arq_weights(weights, num_bits=8, with_offset=False, name=None):
    """ARQ of weights: one scale and one offset for each channel of the last axis, so that its extremes are kept.

    Args:
        weights: float32, of rank 1 or more, not empty; NaN is passed over.
        num_bits: the width of the signed grid, 2 to 31.
        with_offset: the range from the smallest weight to the largest, zero included, covers the grid; without it the
            larger magnitude is at its end.
        name: of the operator.

    Returns:
        The fake-quantised weights, scale * (code - offset), code = clamp(round(weights / scale) + offset); the scales,
        float32; the offsets, int32, 0 without with_offset.
    """
    return _ops.kest_arq_weights(weights=weights, num_bits=num_bits, with_offset=with_offset, name=name)


def arq_codes(weights, scale, offset, num_bits=8, name=None):
    """The codes of weights with the factors of arq_weights: clamp(round(weights / scale) + offset).

    Args:
        weights: float32, of rank 1 or more, not empty, without NaN; the channels are the last axis.
        scale: float32, one a channel.
        offset: int32, one a channel.
        num_bits: the width of the signed grid, 2 to 8.
        name: of the operator.

    Returns:
        int8 of the shape of weights; anti_quantise_weights takes them.
    """
    return _ops.kest_arq_codes(weights=weights, scale=scale, offset=offset, num_bits=num_bits, name=name)


def nuq_weights(weights, num_clusters=16, with_offset=False, num_iterations=0, name=None):
    """NUQ of weights: scale * (centre + offset), with integer centres that all weights share.

    The weights on the 8-bit grid of ARQ are clustered, a channel weighing by the square of its scale. Rounds of a
    least-squares fit of scales and offsets and a new clustering follow.

    Args:
        weights: float32, of rank 1 or more, not empty, finite; the channels are the last axis.
        num_clusters: of centres.
        with_offset: ARQ's grid is asymmetric.
        num_iterations: rounds.
        name: of the operator.

    Returns:
        The fake-quantised weights; the scales, float32, 1 in place of one below 1e-6, and the offsets, int32, one a
        channel; the centres, int32, in no order.
    """
    return _ops.kest_nuq_weights(
        weights=weights, num_clusters=num_clusters, with_offset=with_offset, num_iterations=num_iterations, name=name
    )


def fake_quantise_nuq(weights, scale, offset, clusters, num_bits=8, name=None):
    """Fake-quantises weights with the factors and centres of nuq_weights: scale * (centre + offset).

    The centre is the first of those whose distance to clamp(weights / scale - offset), less its fraction, is smallest.

    Args:
        weights: float32, of rank 1 or more, not empty; the channels are the last axis.
        scale: float32, one a channel.
        offset: int32, one a channel.
        clusters: int32, a vector, not empty.
        num_bits: the width of the signed grid, 2 to 31.
        name: of the operator.

    Returns:
        float32 of the shape of weights.
    """
    return _ops.kest_fake_quantise_nuq(
        weights=weights, scale=scale, offset=offset, clusters=clusters, num_bits=num_bits, name=name
    )


def fake_quantise_weights(weights, steps, num_bits=8, reciprocal=False, name=None):
    """Fake-quantises weights with a learned step for each channel of the last axis.

    step * clamp(round(weights / step)), halves away from zero. Gradients take the rounding for the identity:
    weights that the grid clips have none, and a step has the sum over its channel of the gradient times code - weight /
    step, the code alone where clipped.

    Args:
        weights: float32, of rank 1 or more.
        steps: float32, one a channel; below 1e-6 a step counts 1e-6 more.
        num_bits: the width of the signed grid, 2 to 31.
        reciprocal: what is learned is 1 / step.
        name: of the operator.

    Returns:
        float32 of the shape of weights.
    """
    return _ops.kest_fake_quantise_weights(
        weights=weights, steps=steps, num_bits=num_bits, reciprocal=reciprocal, name=name
    )


def initial_steps(weights, num_bits=8, reciprocal=False, name=None):
    """The steps to begin to learn with: those whose grid just fits the extremes of each channel of the last axis.

    Args:
        weights: float32, of rank 1 or more; NaN is passed over.
        num_bits: the width of the signed grid, 2 to 31.
        reciprocal: what is learned is 1 / step.
        name: of the operator.

    Returns:
        float32, one a channel, for fake_quantise_weights: 1 for a step below 1e-6.
    """
    return _ops.kest_initial_steps(weights=weights, num_bits=num_bits, reciprocal=reciprocal, name=name)


def step_scales(steps, reciprocal=False, name=None):
    """The factors to deploy of learned steps.

    Args:
        steps: float32, any shape.
        reciprocal: what is learned is 1 / step.
        name: of the operator.

    Returns:
        The scales, float32: magnitudes of the steps, or 1 over these, a magnitude below 1e-6 counting 1e-6 more; the
        offsets, int32, 0. Both of the shape of steps.
    """
    return _ops.kest_step_scales(steps=steps, reciprocal=reciprocal, name=name)


def ulq(x, clip_max, clip_min, num_bits=8, name=None):
    """ULQ: fake-quantises activations between learned bounds.

    The scale is (clip_max - clip_min) / (2^num_bits - 1) + 1e-6, and the bounds are rounded to multiples of it:
    clip_min to the nearest one, clip_max to the one 2^num_bits - 1 steps above. Gradients pass to x where it is not
    clipped. Those of the bounds add up, times the gradient, clip_max's f and clip_min's -f for each value, with f its
    rounding error in units of clip_max - clip_min on a grid of 255 steps whatever num_bits is; where x is clipped f is
    that of clip_min, and there is 1 more for the bound that clips.

    Args:
        x: float32, any shape; NaN stays.
        clip_max: a float32 scalar, above clip_min.
        clip_min: a float32 scalar.
        num_bits: the width of the signed grid, 2 to 31.
        name: of the operator.

    Returns:
        The fake-quantised values, float32 of the shape of x; the scale, a float32 scalar, and the offset, an int32
        scalar, of the codes round(x / scale) + offset, which have no gradients.
    """
    return _ops.kest_ulq(x=x, clip_max=clip_max, clip_min=clip_min, num_bits=num_bits, name=name)


def ulq_clip_check(clip_max, clip_min, last_max, last_min, reset_min=False, name=None):
    """Repairs the bounds of ulq after a step of training from the last good ones.

    Both bounds are restored if clip_max is not above clip_min. Else a negative clip_max or, failing that, a positive
    clip_min is restored, and the bounds that are good become the last good ones.

    Args:
        clip_max: a float32 scalar.
        clip_min: a float32 scalar.
        last_max: a float32 scalar, the last good clip_max.
        last_min: a float32 scalar, the last good clip_min.
        reset_min: clip_min is set to 0 before.
        name: of the operator.

    Returns:
        The bounds to go on with, clip_max and clip_min; the last good ones from now on, float32 scalars.
    """
    return _ops.kest_ulq_clip_check(
        clip_max=clip_max, clip_min=clip_min, last_max=last_max, last_min=last_min, reset_min=reset_min, name=name
    )


def fuse_batch_norm(scale, gamma, variance, epsilon=1e-3, multiplier=1.0, name=None):
    """The weight scales of a layer once the batch normalisation behind it is folded into its weights.

    |scale * gamma / sqrt(|variance + epsilon|) * multiplier|, 1 where that is below 1e-6.

    Args:
        scale: float32, one a channel.
        gamma: float32, one a channel.
        variance: float32, one a channel.
        epsilon: a float32 scalar, that of the batch normalisation.
        multiplier: a float32 scalar.
        name: of the operator.

    Returns:
        float32, one a channel.
    """
    return _ops.kest_fuse_batch_norm(
        scale=scale, gamma=gamma, variance=variance, epsilon=epsilon, multiplier=multiplier, name=name
    )


def dmq_balance_factors(activations, weights, migration_strength=0.5, activation_axis=-1, weight_axis=-2, name=None):
    """DMQ: a factor for each input channel, by which its activations are to be divided and its weights multiplied.

    The largest magnitude of its activations ^ migration_strength / that of its weights ^ (1 - migration_strength).

    Args:
        activations: float32 of known rank, not empty.
        weights: float32 of known rank, not empty.
        migration_strength: from 0.2 to 0.8.
        activation_axis: of the input channels.
        weight_axis: of the input channels; the default is that of weights with the output channel last.
        name: of the operator.

    Returns:
        float32, one an input channel.
    """
    return _ops.kest_dmq_balance_factors(
        activations=_channel_first(activations, activation_axis),
        weights=_channel_first(weights, weight_axis),
        migration_strength=migration_strength,
        name=name,
    )


def generate_mask(rows, columns, name=None):
    """The mask of two axes: 1 where neither the row nor the column is 0, else 0.

    Args:
        rows: float32 or float64, a vector.
        columns: the same, not empty.
        name: of the operator.

    Returns:
        A matrix of their type, an entry for each pair.
    """
    return _ops.kest_generate_mask(rows=rows, columns=columns, name=name)


def apply_mask(x, mask, row_axis=-2, column_axis=-1, name=None):
    """x times the entry of the mask for its places along two axes.

    Args:
        x: float32 or float64, of rank 1 or more.
        mask: a matrix of the type of x, as long and wide as the axes; it has no gradient.
        row_axis: the axis of x along which the rows lie.
        column_axis: that of the columns.
        name: of the operator.

    Returns:
        A tensor of the type and shape of x.
    """
    return _ops.kest_apply_mask(x=x, mask=mask, row_axis=row_axis, column_axis=column_axis, name=name)


def n_of_m_mask(weights, keep=2, group_size=4, axis=-2, select=None, name=None):
    """Masks the weights of smallest magnitude in groups of consecutive channels, at each place of the other axes.

    Of equal magnitudes the lower channel is kept; NaN counts as the largest. A last group that is not full is filled up
    with zeros, which count as pruned first.

    Args:
        weights: float32 or float64, of rank 1 or more.
        keep: weights of a group to keep.
        group_size: channels of a group.
        axis: of the channels; the default is the input channel of weights with the output channel last.
        select: of the type of weights, one a channel: those of magnitude 1 and more take part, the others are kept and
            skipped. All take part by default.
        name: of the operator.

    Returns:
        A tensor of the type and shape of weights, 1 where kept, else 0.
    """
    weights = tf.convert_to_tensor(weights)
    if select is None:
        select = tf.ones(tf.shape(weights)[axis, tf.newaxis], weights.dtype)
    return _ops.kest_n_of_m_mask(
        weights=weights, select=select, keep=keep, group_size=group_size, axis=axis, name=name
    )


def channel_prune_mask(tensors, axes, group_sizes, prune_counts, name=None):
    """Masks the channels whose filters have the smallest L2 norms.

    Each tensor adds its norms, mapped to [0, 1] within each group. Of equal scores the lower channel is pruned first;
    a NaN score counts as the largest.

    Args:
        tensors: a list of tensors of the same channels, float32 or float64, not empty.
        axes: of the channels, one for each tensor.
        group_sizes: the numbers of consecutive channels that form a group, all channels in total.
        prune_counts: how many of them to prune, one for each group.
        name: of the operator.

    Returns:
        A vector of the type of the tensors, 1 for channels to keep, else 0.
    """
    return _ops.kest_channel_prune_mask(
        tensors=tensors, axes=axes, group_sizes=group_sizes, prune_counts=prune_counts, name=name
    )


def dump(x, directory, tensor_name, batch=0, name=None):
    """Writes a tensor to the file <directory>/<tensor_name>_batch<batch>.bin, which is replaced.

    In native byte order: the element type as a float (0 float32, 1 float64, 2 int32, 3 float16), the shape as floats,
    the elements. In a tf.function it runs whether or not anything depends on it.

    Args:
        x: float32, float64, int32 or float16, any shape.
        directory: of the file, which has to exist.
        tensor_name: a Python string.
        batch: an int32 scalar, not negative.
        name: of the operator.
    """
    _ops.kest_dump(x=x, batch=batch, directory=str(directory), tensor_name=tensor_name, name=name)


def shift_search(x, scale, axis=-1, per_tensor=False, name=None):
    """The number of bits, 1 to 16, by which accumulators are to be shifted right to fit 16 bits.

    That with the smallest squared error of clamp(floor(q / 2^N)) * 2^N, q = round(x / scale); the smallest of equal
    ones.

    Args:
        x: float32, of rank 1 or more, not empty: the accumulators.
        scale: float32, one a channel: what one integer is worth.
        axis: of the channels.
        per_tensor: one shift for all channels together.
        name: of the operator.

    Returns:
        int32, one a channel or one for all, a vector.
    """
    return _ops.kest_shift_search(x=x, scale=scale, axis=axis, per_tensor=per_tensor, name=name)


def record_data(record_file, layer, scale, offset, dst_type="hide", name=None):
    """Writes the activation factors of a layer to a record file, as do the functions below with others.

    The file has to exist and may be empty. The record of the layer is changed, or appended if there is none; all else
    in the file keeps its values. In a tf.function it runs whether or not anything depends on it. Updates exclude each
    other within the process.

    Args:
        record_file: a Python string or path.
        layer: a Python string, without white space and double quotes.
        scale: a float32 scalar.
        offset: an int32 scalar.
        dst_type: a Python string: the type that a new record names, "hide" for none.
        name: of the operator.
    """
    _ops.kest_record_data(
        scale=scale, offset=offset, record_file=str(record_file), layer=layer, dst_type=dst_type, name=name
    )


def record_weights(record_file, layer, scale, offset, clusters=(), name=None):
    """Writes the weight factors of a layer to a record file (record_data).

    Args:
        record_file: a Python string or path.
        layer: a Python string.
        scale: float32, one for all channels or one for each.
        offset: int32, as many.
        clusters: int32, the centres of NUQ; without them those in the file stay.
        name: of the operator.
    """
    _ops.kest_record_weights(
        scale=scale, offset=offset, clusters=clusters, record_file=str(record_file), layer=layer, name=name
    )


def record_shift_bits(record_file, layer, shift_bits, name=None):
    """Writes the shift bits of a layer to a record file (record_data).

    Args:
        record_file: a Python string or path.
        layer: a Python string.
        shift_bits: int32, one for all channels or one for each.
        name: of the operator.
    """
    _ops.kest_record_shift_bits(shift_bits=shift_bits, record_file=str(record_file), layer=layer, name=name)


def record_balance_factors(record_file, layer, factors, name=None):
    """Writes the balance factors of a layer to a record file (record_data).

    Args:
        record_file: a Python string or path.
        layer: a Python string.
        factors: float32, one an input channel.
        name: of the operator.
    """
    _ops.kest_record_balance_factors(factors=factors, record_file=str(record_file), layer=layer, name=name)


class Calibrator:
    """Sees batches of an activation tensor and finds one scale and one offset for all of them.

    What it has seen is a TensorFlow resource, which lives as long as this object or a graph that uses it. Threads may
    share a calibrator, and call functions that use it. In a tf.function it is used in the order of the program. It can
    be made within one too: then once, as the function is traced.
    """

    def __init__(self, operator, **settings):
        with tf.init_scope(), tf.device("CPU:0"):
            self._handle = operator(**settings)

    def add(self, batch, name=None):
        """Sees a batch. In a tf.function it does so whether or not anything depends on it.

        Args:
            batch: float32, any shape.
            name: of the operator.
        """
        _ops.kest_calibrator_add(calibrator=self._handle, batch=batch, name=name)

    def factors(self, name=None):
        """The factors of the batches so far; more may follow.

        Args:
            name: of the operator.

        Returns:
            The scale, a float32 scalar; the offset, an int32 scalar: code = round(x / scale) + offset.
        """
        return _ops.kest_calibrator_factors(calibrator=self._handle, name=name)


class ActivationArqCalibrator(Calibrator):
    """Activation ARQ: keeps the extremes, zero included; NaN is passed over."""

    def __init__(self, num_bits=8, with_offset=True):
        """Starts without extremes.

        Args:
            num_bits: the width of the signed grid, 2 to 31.
            with_offset: an asymmetric grid; without it the offset is 0, and the larger magnitude counts as positive.
        """
        super().__init__(_ops.kest_arq_calibrator, num_bits=num_bits, with_offset=with_offset)


class HfmgCalibrator(Calibrator):
    """HFMG: counts every batch into a histogram that widens as it has to, so that batches need not be kept.

    The sparse tails are trimmed bin by bin into a row of clip ranges, of which the one with the smallest squared error
    wins. A batch with an infinite value, or that takes a bin to 2^32 values, is refused. NaN counts in the first bin.
    Counts of bins that widen depend on the order of the batches.
    """

    def __init__(self, num_bits=8, with_offset=True, num_bins=4096):
        """Starts without a histogram.

        Args:
            num_bits: the width of the signed grid, 2 to 31.
            with_offset: an asymmetric grid; without it the offset is 0.
            num_bins: those of the histogram.
        """
        super().__init__(_ops.kest_hfmg_calibrator, num_bits=num_bits, with_offset=with_offset, num_bins=num_bins)


class IfmrCalibrator(Calibrator):
    """IFMR: keeps a copy of every batch.

    Two percentiles bound the values. Of the clip ranges that a grid of ratios makes of the bound, the one whose
    fake-quantised values have the smallest mean squared error wins, the first of equal ones.
    """

    def __init__(
        self,
        num_bits=8,
        with_offset=True,
        start_ratio=0.7,
        end_ratio=1.3,
        step=0.01,
        max_percentile=0.999999,
        min_percentile=0.999999,
    ):
        """Starts without a value.

        Args:
            num_bits: the width of the signed grid, 2 to 31.
            with_offset: an asymmetric grid; without it the offset is 0.
            start_ratio: the first ratio.
            end_ratio: the last one, or the end of a step before it.
            step: from a ratio to the next.
            max_percentile: the share of values at or below the upper bound, in (0, 1].
            min_percentile: the share of values at or above the lower bound, in (0, 1].
        """
        super().__init__(
            _ops.kest_ifmr_calibrator,
            num_bits=num_bits,
            with_offset=with_offset,
            start_ratio=start_ratio,
            end_ratio=end_ratio,
            step=step,
            max_percentile=max_percentile,
            min_percentile=min_percentile,
        )


class ShiftSearcher:
    """shift_search over batches of accumulators, which it does not keep: each adds the errors of the sixteen shifts.

    The errors are a TensorFlow resource, which behaves as that of a Calibrator. They are summed in single precision.
    """

    def __init__(self, axis=-1, per_tensor=False):
        """Starts without an error.

        Args:
            axis: of the channels.
            per_tensor: one shift for all channels together.
        """
        self._axis = axis
        self._per_tensor = per_tensor
        with tf.init_scope(), tf.device("CPU:0"):
            self._errors = _ops.kest_shift_errors()

    def add(self, x, scale, name=None):
        """Adds a batch. In a tf.function it does so whether or not anything depends on it.

        Args:
            x: float32, of rank 1 or more, not empty, of as many channels as those before.
            scale: float32, one a channel: what one integer is worth.
            name: of the operator.
        """
        _ops.kest_shift_errors_add(
            errors=self._errors, x=x, scale=scale, axis=self._axis, per_tensor=self._per_tensor, name=name
        )

    def shift_bits(self, name=None):
        """The shifts for the batches so far; more may follow.

        Args:
            name: of the operator.

        Returns:
            int32, one a channel or one for all, a vector.
        """
        return _ops.kest_shift_errors_find(errors=self._errors, per_tensor=self._per_tensor, name=name)


@tf.RegisterGradient("KestApplyMask")
def _apply_mask_gradient(op, grad):
    return apply_mask(grad, op.inputs[1], op.get_attr("row_axis"), op.get_attr("column_axis")), None


@tf.RegisterGradient("KestFakeQuantise")
def _fake_quantise_gradient(op, grad):
    x, scale, offset = op.inputs
    half = 2.0 ** (op.get_attr("num_bits") - 1)
    moved = tf.cast(offset, tf.float32)
    inside = (x >= scale * (-half - moved)) & (x <= scale * (half - 1 - moved))
    return tf.where(inside, grad, tf.zeros_like(grad)), None, None


@tf.RegisterGradient("KestFakeQuantiseWeights")
def _fake_quantise_weights_gradient(op, grad):
    weights, learned = op.inputs
    half = 2.0 ** (op.get_attr("num_bits") - 1)
    reciprocal = op.get_attr("reciprocal")
    learned = tf.where(learned < 1e-6, learned + 1e-6, learned)
    step = 1 / learned if reciprocal else learned
    quotient = weights / step
    inside = tf.cast((quotient > -half - 0.5) & (quotient < half - 0.5), tf.float32)
    to_step = (op.outputs[0] / step - quotient * inside) * grad
    to_step = tf.reduce_sum(to_step, tf.range(tf.rank(to_step) - 1))
    return grad * inside, -to_step * step * step if reciprocal else to_step


@tf.RegisterGradient("KestUlq")
def _ulq_gradient(op, grad, *_):
    return _ops.kest_ulq_gradient(grad, *op.inputs, *op.outputs[1:], num_bits=op.get_attr("num_bits"))


def _channel_first(x, axis):
    x = tf.convert_to_tensor(x, tf.float32)
    axes = list(range(x.shape.rank))
    return tf.transpose(x, [axes.pop(axis), *axes])
