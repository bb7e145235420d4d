"""Every array argument and whole number of every function."""

import numpy as np
import pytest
from kest import ActivationFactors, arq, balance, deployed, dump, fusion, half, hfmg, ifmr, masks, nuq, prune, record
from kest import shift, softmax, ulq

F32 = np.ones((2, 4), np.float32)
ROW, PAIR, INT, CODES = F32[0], F32[:, 0].copy(), np.ones(2, np.int32), np.ones((2, 4), np.int8)
ARQ, NUQ, BOUNDS = arq.Factors(PAIR, INT), nuq.Factors(PAIR, INT, INT), ulq.Bounds(clip_min=-1, clip_max=1)

ARRAYS = [
    (F32, arq.calibrate), (F32, arq.fake_quantise), (F32, lambda a: arq.codes(a, ARQ)), (F32, nuq.quantise),
    (PAIR, lambda a: arq.codes(F32, arq.Factors(a, INT))), (INT, lambda a: arq.codes(F32, arq.Factors(PAIR, a))),
    (F32, lambda a: nuq.fake_quantise(a, NUQ)), (F32, lambda a: nuq.codes(a, NUQ)), (F32, hfmg.Calibrator().add),
    (INT, lambda a: nuq.fake_quantise(F32, nuq.Factors(PAIR, INT, a))), (F32, ifmr.Calibrator().add),
    (F32, ifmr.percentile_bounds), (F32, lambda a: ifmr.fake_quantise(a, ActivationFactors(1, 0))), (F32, softmax.rows),
    (F32, lambda a: shift.search(a, ROW)), (ROW, lambda a: shift.search(F32, a)), (ROW, shift.Searcher),
    (F32, shift.Searcher(ROW).feed), (INT, shift.search_integers), (F32, lambda a: ulq.fake_quantise(a, BOUNDS)),
    (F32, lambda a: ulq.gradients(a, F32, BOUNDS, BOUNDS)), (F32, lambda a: ulq.gradients(F32, a, BOUNDS, BOUNDS)),
    (F32, ulq.initial_steps), (F32, lambda a: ulq.fake_quantise_weights(a, ROW)), (ROW, ulq.weight_factors),
    (ROW, lambda a: ulq.fake_quantise_weights(F32, a)), (F32, lambda a: deployed.quantise(a, 1)),
    (ROW, deployed.pack_words), (F32, lambda a: deployed.dequantise(a, np.ones(1, np.uint64))), (F32, half.to_float16),
    (np.ones(1, np.uint64), lambda a: deployed.dequantise(F32, a)), (F32, lambda a: deployed.anti_quantise(a, 1)),
    (CODES, lambda a: deployed.anti_quantise_weights(a, CODES[0, :1])), (F32.astype("e"), half.to_float32),
    (CODES[0, :1], lambda a: deployed.anti_quantise_weights(CODES, a)), (F32, lambda a: masks.n_of_m(a, 1, 2, axis=0)),
    (F32, lambda a: masks.apply(F32, a, row_axis=0, column_axis=1)),
    (PAIR > 0, lambda a: masks.n_of_m(F32, 1, 2, axis=0, selected=a)),
    (F32, lambda a: masks.apply(a, F32, row_axis=0, column_axis=1)),
    (ROW, lambda a: masks.from_rows_and_columns(a, ROW)), (ROW, lambda a: masks.from_rows_and_columns(ROW, a)),
    (F32, lambda a: prune.keep_mask([F32, a], [0, 0], [1])), (F32, lambda a: balance.dmq_factors(a, F32.T.copy())),
    (F32, lambda a: balance.dmq_factors(F32.T.copy(), a)), (PAIR, lambda a: fusion.fuse_weight_scales(a, PAIR, PAIR)),
    (PAIR, lambda a: fusion.fuse_weight_scales(PAIR, a, PAIR)),
    (PAIR, lambda a: fusion.fuse_weight_scales(PAIR, PAIR, a)),
]


@pytest.mark.parametrize("good, call", ARRAYS)
def test_arrays_are_checked_and_only_read(good, call):
    good = good.copy()
    before = good.tobytes()
    good.flags.writeable = False
    call(good)
    assert good.tobytes() == before
    bad = [3.5, good.tolist(), good.astype(np.int16), np.ma.array(good), np.repeat(good, 2, axis=-1)[..., ::2]]
    if good.size == 1:
        bad.pop()  # is in any order
    if good.itemsize > 1:
        unaligned = np.frombuffer(bytearray(good.nbytes + 1), np.uint8)[1:].view(good.dtype).reshape(good.shape)
        bad += [good.astype(good.dtype.newbyteorder()), unaligned]
    for array in bad:
        with pytest.raises((TypeError, ValueError), match="^[a-z]+ has to be "):
            call(array)


@pytest.mark.parametrize("call, name", [
    (lambda n: arq.codes(F32, ARQ, n), "num_bits"), (lambda n: nuq.fake_quantise(F32, NUQ, n), "num_bits"),
    (lambda n: nuq.quantise(F32, n), "num_clusters"), (hfmg.Calibrator, "num_bits"), (ifmr.Calibrator, "num_bits"),
    (lambda n: hfmg.Calibrator(num_bins=n), "num_bins"), (lambda n: hfmg.activation_arq(0, 1, n), "num_bits"),
    (lambda n: ifmr.fake_quantise(F32, ActivationFactors(1, 0), n), "num_bits"),
    (lambda n: ulq.fake_quantise(F32, BOUNDS, n), "num_bits"), (lambda n: ulq.initial_steps(F32, n), "num_bits"),
    (lambda n: ulq.grid_bounds(ulq.Grid(1, 0), n), "num_bits"), (lambda n: ulq.grid_bounds(ulq.Grid(1, n)), "offset"),
    (lambda n: arq.calibrate(F32, n), "num_bits"), (lambda n: ulq.fake_quantise_weights(F32, ROW, n), "num_bits"),
    (lambda n: deployed.quantise(F32, 1, 0, n), "num_bits"), (lambda n: masks.n_of_m(F32, n, 2, axis=0), "keep"),
    (lambda n: masks.n_of_m(F32, 1, n, axis=0), "group_size"), (lambda n: prune.prune_count(n, 0.5), "num_channels"),
    (lambda n: prune.prune_count(9, 0.5, num_groups=n), "num_groups"), (lambda n: dump.read("none", n), "num_dims"),
    (lambda n: prune.keep_mask([F32], [n], [1]), "channel_axes"), (lambda n: masks.n_of_m(F32, 1, 2, axis=n), "axis"),
    (lambda n: arq.calibrate(F32, channel_axis=n), "channel_axis"), (lambda n: dump.write(".", "a", n, F32), "batch"),
    (lambda n: shift.search(F32, ROW, channel_axis=n), "channel_axis"),
    (lambda n: record.update_data("none", "a", 1, n), "offset"),
    (lambda n: record.insert_data("none", "a", 1, 0, onnx_type=n), "onnx_type"),
    (lambda n: shift.search_integers(INT, channel_axis=n), "channel_axis"),
    (lambda n: prune.keep_mask([F32], [0], [n]), "prune_counts"),
    (lambda n: prune.keep_mask([F32], [0], [1, 1], group_sizes=[n, 1]), "group_sizes"),
])
def test_whole_numbers_are_checked(call, name):
    for bad, error in ((-(2**31) - 1, ValueError), (2**32, ValueError), (2**70, ValueError), (2.0, TypeError),
                       (np.float32(2), TypeError), ("2", TypeError)):
        with pytest.raises(error, match=f"^{name} has to be "):
            call(bad)
