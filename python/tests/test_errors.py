"""Arguments that do not fit, and what a caller sees of failures of the kernels."""

import kest
import numpy as np
import pytest
from kest import ActivationFactors, arq, balance, deployed, dump, fusion, hfmg, ifmr, masks, nuq, prune, record, report
from kest import shift, softmax, ulq

F32 = np.ones((2, 4), np.float32)
ROW, PAIR, INT, CODES = F32[0], F32[:, 0].copy(), np.ones(2, np.int32), np.ones((2, 4), np.int8)
ARQ, NUQ, ZERO = arq.Factors(PAIR, INT), nuq.Factors(PAIR, INT, INT), ActivationFactors(0, 0)
WORDS, NAN, BOUNDS = np.ones(3, np.uint64), float("nan"), ulq.Bounds(clip_min=-1, clip_max=1)


def fed(scale, channel_axis):
    return shift.Searcher(scale, channel_axis=channel_axis).feed(F32)


def ifmr_of_nan():
    calibrator = ifmr.Calibrator()
    calibrator.add(F32 * np.float32(NAN))
    return calibrator.factors()


@pytest.mark.parametrize("message, call", [
    ("channel_axis has to be the first or", lambda: arq.calibrate(np.ones((2, 3, 4)), channel_axis=1)),
    ("channel_axis has to be -2 to 1", lambda: arq.calibrate(F32, channel_axis=2)),
    (r"scale has to have the shape \(4,\)", lambda: arq.codes(F32, ARQ, channel_axis=-1)),
    ("num_bits has to be 2 to 8", lambda: arq.codes(F32, ARQ, 9)),
    ("weights have to have 4 channels along weight_axis", lambda: balance.dmq_factors(F32, F32)),
    ("activation_axis has to", lambda: balance.dmq_factors(F32, F32, activation_axis=2)),
    ("shift has to be of integers", lambda: deployed.pack_words(PAIR, [1.0, 2.0])),
    ("shift has to have the shape", lambda: deployed.pack_words(PAIR, [1])),
    ("shift has to be 0 to 255", lambda: deployed.pack_words(PAIR, [1, 256])),
    ("shift has to be 0 to 255", lambda: deployed.pack_words(PAIR, -1)),
    ("words has to", lambda: deployed.dequantise(F32, WORDS, channel_axis=1)),
    ("input_multiplier has to", lambda: deployed.dequantise(F32, WORDS[:1], input_multiplier=0)),
    ("offset has to", lambda: deployed.anti_quantise_weights(CODES, CODES[0])),
    ("name has to", lambda: dump.write(".", "a\0b", 0, F32)),
    ("values has to have dimensions", lambda: dump.write(".", "a", 0, np.ones((2**24 + 1, 0), np.float32))),
    ("values has to be float32", lambda: dump.write(".", "a", 0, np.ones(5, np.uint16))),
    ("scale has to have", lambda: fusion.fuse_weight_scales(F32, PAIR, PAIR)),
    ("gamma has to have", lambda: fusion.fuse_weight_scales(PAIR, ROW, PAIR)),
    ("variance has to have", lambda: fusion.fuse_weight_scales(PAIR, PAIR, ROW)),
    ("a calibrator has no histogram before the first batch", hfmg.Calibrator().histogram),
    ("minimum has to be at most", lambda: hfmg.activation_arq(0, NAN)),
    ("dtype has to be float32 or float64", lambda: hfmg.activation_arq(0, 1, dtype=np.int32)),
    ("dtype has to be float32 or float64", lambda: ifmr.Calibrator(dtype=np.float16)),
    ("a percentile has to be", lambda: ifmr.Calibrator(max_percentile=0)),
    ("a percentile has to be", lambda: ifmr.Calibrator(min_percentile=1.5)),
    ("a percentile has to be", lambda: ifmr.percentile_bounds(F32, max_percentile=NAN)),
    ("selected has", lambda: masks.n_of_m(F32, 2, 2, axis=0, selected=ROW > 0)),
    ("rows and columns have", lambda: masks.from_rows_and_columns(F32, F32)),
    ("row_axis and column_axis have", lambda: masks.apply(F32, F32, row_axis=0, column_axis=-2)),
    ("mask has", lambda: masks.apply(F32, F32, row_axis=1, column_axis=0)),
    (r"scale has .*\(4,\)", lambda: nuq.codes(F32, NUQ, channel_axis=-1)),
    ("offset has", lambda: nuq.fake_quantise(F32, nuq.Factors(PAIR, INT[:1], INT))),
    ("clusters has", lambda: nuq.fake_quantise(F32, nuq.Factors(PAIR, INT, INT[:0]))),
    ("num_groups has", lambda: prune.prune_count(4, 0.5, num_groups=5)),
    ("ratio has", lambda: prune.prune_count(4, 1.5)),
    ("channel_axes has", lambda: prune.keep_mask([], [], [1])),
    ("tensors have", lambda: prune.keep_mask([F32, F32], [0, 1], [1])),
    ("tensors has to be float32", lambda: prune.keep_mask([F32, F32.astype(float)], [0, 0], [1])),
    ("group_sizes has", lambda: prune.keep_mask([F32], [1], [1, 1], group_sizes=[1, 2])),
    ("prune_counts has", lambda: prune.keep_mask([F32], [0], [3])),
    ("prune_counts has", lambda: prune.keep_mask([F32], [0], [1, 1])),
    (r"scale has .*\(4,\), not \(2,\)", lambda: shift.search(F32, PAIR)),
    (r"scale has .*\(1,\)", lambda: fed(PAIR, None)),
    ("scale has .* one entry or more", lambda: shift.search(F32[:, :0].copy(), ROW[:0])),
    ("scale has .* one axis", lambda: fed(F32, -1)),
    ("threshold has to be negative, not nan", lambda: softmax.rows(F32, threshold=NAN)),
    ("threshold has to be negative", lambda: softmax.rows(F32, threshold=-1e-50)),
    ("the last axis has", lambda: softmax.rows(np.array(1.0))),
    ("upstream has", lambda: ulq.gradients(F32, F32[:1], BOUNDS, BOUNDS)),
    ("channel_axis has", lambda: ulq.initial_steps(F32[0, :1].reshape(()))),
    (r"learned has .*\(4,\)", lambda: ulq.fake_quantise_weights(F32, PAIR)),
    ("learned has", lambda: ulq.weight_factors(F32)),
    (r"Bounds.* positional", lambda: ulq.Bounds(-3, 5)),
    ("dst_type cannot", lambda: record.update_data("none", "a", 1, 0, dst_type="a b")),
    ("offset has to be as long", lambda: record.update_weights("none", "a", PAIR, INT[:1])),
    ("offset has to be as long", lambda: record.update_nuq("none", "a", PAIR[:0], INT, INT)),
    ("factors has to have one axis", lambda: record.update_balance_factors("none", "a", F32)),
    ("field has to be one of", lambda: record.insert_values("none", "a", "scale_d", ROW)),
    ("values has to be int32", lambda: record.insert_values("none", "a", "cluster", ROW)),
    ("file has to be without a NUL", lambda: record.read("a\0b")),
    ("result", lambda: report.compare([1, 2], [1])),
    ("reference", lambda: report.compare([], [])),
    ("channel_axis", lambda: report.compare([1, 2], [1, 2], channel_axis=1)),
    ("clip_range", lambda: report.compare([1, 2, 3], [1, 2, 3], channel_axis=0, clip_range=(0, [1, 2]))),
    ("clip_range", lambda: report.compare([1, 2], [1, 2], clip_range=(1, 0))),
    ("clip_range", lambda: report.compare([1, 2], [1, 2], clip_range=(0, NAN))),
    ("reference has to be of real numbers", lambda: report.compare(np.ma.masked_less([1, 2], 2), [1, 2])),
    ("result has to be of real numbers", lambda: report.compare([1, 2], [1, 2j])),
])
def test_arguments_that_do_not_fit(message, call):
    with pytest.raises((TypeError, ValueError), match=message):
        call()


@pytest.mark.parametrize("error, step, status, said, call", [
    (kest.BadParamError, "arq.calibrate", -65530, "[ERROR][CheckArqParams]", lambda: arq.calibrate(F32, 1)),
    (kest.ScaleError, "arq.calibrate", -65519, "[ProcessScale]", lambda: arq.calibrate(np.array([[1], [np.inf]]))),
    (kest.ScaleError, "fusion.fuse_weight_scales", 9, "a fused weight scale",
     lambda: fusion.fuse_weight_scales(PAIR, PAIR, 0 * PAIR, epsilon=0)),
    (kest.BadParamError, "hfmg.Calibrator.factors", 15, "no batch yet", hfmg.Calibrator().factors),
    (kest.BadParamError, "hfmg.Calibrator.add", 8, "no values", lambda: hfmg.Calibrator().add(F32[:0])),
    (kest.ScaleError, "hfmg.activation_arq", -65519, "[ERROR]", lambda: hfmg.activation_arq(0, np.inf)),
    (kest.BadParamError, "ifmr.Calibrator", -65530, "Exist NaN", ifmr_of_nan),
    (kest.BadParamError, "ifmr.Calibrator", -65530, "step = 0", lambda: ifmr.Calibrator(step=0)),  # before any batch
    (kest.ScaleError, "ifmr.fake_quantise", -65519, "scale value", lambda: ifmr.fake_quantise(F32, ZERO)),
    (kest.BadParamError, "ifmr.percentile_bounds", -65530, "no data", lambda: ifmr.percentile_bounds(F32[:0])),
    (kest.BadParamError, "masks.n_of_m", 8, "shape is 0", lambda: masks.n_of_m(np.ones((4, 0)), 2, 4, axis=0)),
    (kest.BadParamError, "masks.from_rows_and_columns", 8, "no", lambda: masks.from_rows_and_columns(ROW, ROW[:0])),
    (kest.BadParamError, "nuq.quantise", -65530, "[ERROR]", lambda: nuq.quantise(np.array([[1, np.inf]]), 2)),
    (kest.ScaleError, "nuq.quantise", -65519, "[ERROR]", lambda: nuq.quantise(np.full((1, 2), 1e10), 2)),
    (kest.BadParamError, "nuq.codes", -65530, "[ERROR]", lambda: nuq.codes(F32 * np.float32(NAN), NUQ)),
    (kest.BadParamError, "nuq.fake_quantise", -65530, "[ERROR]",
     lambda: nuq.fake_quantise(F32[:0], nuq.Factors(PAIR[:0], INT[:0], INT))),
])
def test_a_status_is_an_exception_with_the_log_lines(capfd, error, step, status, said, call):
    with pytest.raises(error) as raised:
        call()
    assert (raised.value.step, raised.value.status) == (step, status)
    assert str(raised.value).startswith(f"{step} failed with status {status}:") and said in str(raised.value)
    assert capfd.readouterr().out == ""
