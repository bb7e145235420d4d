"""What is refused, and in which words: an error names the operator, its node, and what kest says."""

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf

Invalid, Precondition = tf.errors.InvalidArgumentError, tf.errors.FailedPreconditionError
X, ROW, PAIR, INT, ONE = np.ones((2, 3), "f"), np.ones(3, "f"), np.ones(2, "f"), np.ones(3, np.int32), np.float32(1)
CUBE, WORDS = np.ones((2, 3, 4), "f"), kest.dequantise_words([1.0, 2.0])


def after(make, *arguments):
    """What `make` makes, which has seen a batch of the arguments."""
    made = make()
    made.add(*arguments)
    return made


@pytest.mark.parametrize("message, call", [
    (r"KestArqWeights.* failed with status -65519 .*scale is illegal", lambda: kest.arq_weights([[np.inf, 1.0]])),
    ("KestArqWeights 'conv1/weights': failed with status -65519 .STATUS_SCALE_ERROR",
     lambda: tf.function(lambda w: kest.arq_weights(w, name="conv1/weights"))(tf.constant([np.inf]))),
    ("no weights", lambda: kest.arq_weights([])),
    ("at most 31", lambda: kest.arq_weights(X, 32)),
    ("codes of 9 bits", lambda: kest.arq_codes(X, ROW, INT, 9)),
    ("offset has to hold 3", lambda: kest.arq_codes(X, ROW, INT[1:])),
    ("steps has to hold 3 values", lambda: kest.fake_quantise_weights(X, PAIR)),
    ("variance has to hold 3 values", lambda: kest.fuse_batch_norm(ROW, ROW, PAIR)),
    ("failed with status 9", lambda: kest.fuse_batch_norm(ROW, ROW, [1.0, -0.01, 1.0], 0.01)),
    (r"KestDmqBalanceFactors.* failed with status -65530 .*igration", lambda: kest.dmq_balance_factors(X, X.T, 0.9)),
    ("3 channels do not go with weights of 4", lambda: kest.dmq_balance_factors(X, CUBE, weight_axis=-1)),
    ("KestNuqWeights.* failed with status -65530", lambda: kest.nuq_weights([[np.nan]])),
    ("no axis -1|at least rank 1", lambda: kest.nuq_weights(ONE)),
    ("offset has to", lambda: kest.fake_quantise_nuq(X, ROW, INT[:1], INT)),
    ("no clusters", lambda: kest.fake_quantise_nuq(X, ROW, INT, [])),
    ("scale has to be a scalar", lambda: kest.quantise(X, [50.0], 3.0)),
    ("scale has to be a scalar", lambda: kest.anti_quantise(X, [0.1])),
    ("words has to hold 3", lambda: kest.dequantise(X, WORDS)),
    ("no axis 1", lambda: kest.dequantise(PAIR, WORDS, axis=1)),
    ("multiplier must not be 0", lambda: kest.dequantise(X, WORDS[0], multiplier=0)),
    ("offset has to hold 3 values", lambda: kest.anti_quantise_weights(X.astype(np.int8), np.ones(2, np.int8))),
    ("no axis -1", lambda: kest.fast_softmax(ONE)),
    ("columns has to hold 1 values", lambda: kest.generate_mask(ROW, ONE)),
    ("failed with status 8", lambda: kest.generate_mask(ROW, ROW[:0])),
    (r"shape \[2,3\] and is of shape \[2,2\]", lambda: kest.apply_mask(X, X[:, :2])),
    ("no axis 3", lambda: kest.apply_mask(X, X, 3, 0)),
    ("select has to hold 3", lambda: kest.n_of_m_mask(CUBE, select=PAIR)),
    ("the groups hold", lambda: kest.n_of_m_mask(CUBE, group_size=2**30)),
    ("does not hold elements of 4 channels along axis 0", lambda: kest.channel_prune_mask([ROW], [0], [4], [1])),
    ("no axis 1", lambda: kest.channel_prune_mask([ROW], [1], [3], [1])),
    ("2 axes for 1 tensors", lambda: kest.channel_prune_mask([ROW], [0, 0], [3], [1])),
    ("2 prune_counts for 1 groups", lambda: kest.channel_prune_mask([ROW], [0], [3], [1, 1])),
    ("group 0 cannot prune 2 of 1", lambda: kest.channel_prune_mask([ROW], [0], [1, 2], [2, 0])),
    ("group 0 cannot prune 0 of -2", lambda: kest.channel_prune_mask([ROW], [0], [-2, 5], [0, 0])),
    (r"KestDump.* failed: \[ERROR\]", lambda: kest.dump(X, "/nowhere", "x")),
    ("batch is negative", lambda: kest.dump(X, "/nowhere", "x", -1)),
    ("clip_max has to be a scalar", lambda: kest.ulq(X, [1.0], 0.0)),
    ("'KestUlq': num_bits is 32", lambda: kest.ulq(X, 1.0, 0.0, 32)),
    ("scale has to hold 3 values", lambda: kest.shift_search(X, PAIR)),
    ("no accumulators", lambda: kest.shift_search(X[:0], ROW)),
    ("2 channels do not go with those before, of 3", lambda: after(kest.ShiftSearcher, X, ROW).add(X[:, :2], PAIR)),
    ("KestFakeQuantise.*STATUS_SCALE_ERROR", lambda: kest.fake_quantise(X, 0.0, 1)),
    ("KestPercentileBounds.*STATUS_BAD_PARAM", lambda: kest.percentile_bounds(X[:0])),
    ("failed with status -65530 .STATUS_BAD_PARAM.: .*NaN in input data",
     lambda: after(kest.IfmrCalibrator, [np.nan]).factors()),
    ("KestRecordData.* failed with status -?[1-9]", lambda: kest.record_data("/nowhere/none", "conv", 1.0, 0)),
    ("2 scales do not go with 1 offsets", lambda: kest.record_weights("/nowhere/none", "conv", [1.0, 2.0], [0])),
    ("shift_bits has to be a scalar or a vector", lambda: kest.record_shift_bits("/nowhere/none", "conv", INT[None])),
])
def test_arguments(message, call):
    with pytest.raises(Invalid, match=f"(?s){message}"):
        call()


@pytest.mark.parametrize("make", [kest.ActivationArqCalibrator, kest.HfmgCalibrator, kest.IfmrCalibrator])
def test_calibrators(make):
    with pytest.raises(Precondition, match="KestCalibratorFactors.* no batch was added"):
        make().factors()
    with pytest.raises(Invalid, match=r"KestCalibratorAdd.* failed with status 8 .EMPTY_INPUT_ERROR.\s"):
        make().add(ROW[:0])
    with pytest.raises(Invalid, match="at most 31"):
        make(32)


def test_before_a_batch_and_in_a_graph():
    with pytest.raises(Precondition, match="KestShiftErrorsFind.*no batch"):
        kest.ShiftSearcher().shift_bits()
    with pytest.raises(ValueError, match="must be equal"):
        tf.function(kest.dequantise)(tf.zeros([2, 3]), WORDS)
