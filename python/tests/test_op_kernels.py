"""The operators of deployed models, dumps and half precision against hand-worked values and numpy."""

import functools
import os

import kest
import numpy as np
import pytest

equal, f32 = np.testing.assert_array_equal, np.float32
SCALE = f32([0.5, 3, 0.1, 2, 7, 0.3])


def test_quantise_rounds_halves_away_and_clamps_with_the_offset():
    values = np.array([[0.5, -0.5, 1.25], [np.nan, 100, -100]], f32)
    found = kest.deployed.quantise(values, 2, 3, 4)  # codes -8 to 7
    equal(found, np.array([[1, -1, 3], [np.nan, 4, -11]], f32), strict=True)


@pytest.mark.parametrize("axis", [0, 1, -1])
@pytest.mark.parametrize("kernel, dtype, factors", [
    (functools.partial(kest.deployed.dequantise, input_multiplier=3), f32, kest.deployed.pack_words(SCALE, range(6))),
    (kest.deployed.anti_quantise_weights, np.int8, np.arange(-3, 3, dtype=np.int8))])
def test_a_channel_along_any_axis_is_as_it_is_alone(kernel, dtype, factors, axis):
    values = np.arange(-60, 60).reshape(4, 5, 6).astype(dtype)
    alone = [kernel(part.copy(), factors[i : i + 1]) for i, part in enumerate(np.moveaxis(values, axis, 0))]
    equal(kernel(values, factors[: values.shape[axis]], channel_axis=axis), np.moveaxis(alone, 0, axis), strict=True)


def test_one_factor_for_all_and_words():
    values, codes = np.array([[3, 40000]], f32), np.array([-128, 127], np.int8)
    equal(kest.deployed.dequantise(values, kest.deployed.pack_words(SCALE[:1])), [[1.5, 20000]])
    shifted = kest.deployed.dequantise(values, kest.deployed.pack_words(SCALE[:1], 2), input_multiplier=-2)
    equal(shifted, [[2, 20000]])  # floor(-6 / 4) * (4 * 0.5) / -2
    equal(kest.deployed.anti_quantise(values, 0.1), values * f32(0.1))
    equal(kest.deployed.anti_quantise_weights(codes, np.array([-2], np.int8)), [-126, 129])
    equal(kest.deployed.pack_words(np.array([1, -0.5], f32), [7, 255]), [0x07_3F800000, 0xFF_BF000000])


@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_softmax_rows_along_the_last_axis(dtype):
    values = np.array([[[1, 2, 3], [-1, -1.5, 0]], [[5, 5, 5], [9, 7, 8]]], dtype)
    p = np.array([[[0, 1 / 3, 1], [1 / 3, 1 / 16, 1]], [[1, 1, 1], [1, 0, 1 / 3]]], dtype)
    np.testing.assert_allclose(kest.softmax.rows(values), p / p.sum(-1, keepdims=True), rtol=1e-6, strict=True)
    equal(kest.softmax.rows(values, square=0.5, cube=0.25, threshold=-3)[0, 0], [-4, 1, 4])  # -1, 1/4, 1 by their sum
    equal(kest.softmax.rows(values, cube=0.25, threshold=-2)[0, 0], np.array([0, 0.2, 0.8], dtype))
    assert kest.softmax.rows(values[..., :0].copy()).shape == (2, 2, 0)


def test_fused_scales():
    scale, gamma, variance = np.float32([[0.5, 3, 1e-7], [-2, 1, 1], [3.75, -4.25, 1]])
    found = kest.fusion.fuse_weight_scales(scale, gamma, variance, epsilon=0.25, multiplier=6)
    equal(found, np.float32([3, 9, 1]), strict=True)  # the small one becomes 1


def test_half_precision_rounds_toward_zero():
    halves = np.float16([[1.5, -0.25, 65504], [-np.inf, np.nan, 2**-14]])
    wide = kest.half.to_float32(halves)
    equal(wide, halves.astype(f32), strict=True)
    equal(kest.half.to_float16(wide), halves, strict=True)
    equal(kest.half.to_float16(f32([1 + 2**-11 + 2**-12, -1e-5, -1e30])), np.float16([1, -0.0, -65504]))


@pytest.mark.parametrize("code, dtype, shape", [
    (0, np.float32, (2, 3, 5)), (1, np.float64, (7,)), (2, np.int32, ()), (3, np.float16, (4, 0))])
def test_files_and_back(tmp_path, code, dtype, shape):
    values = np.asarray(np.random.default_rng(code).normal(scale=10, size=shape)).astype(dtype)
    directory = tmp_path / "d\udcff"  # a byte that is no UTF-8, as the system's functions have it
    directory.mkdir()
    (directory / "é\udcfe_batch4000000000.bin").write_bytes(b"x" * 999)  # is replaced
    given = [directory, str(directory), bytes(directory), os.fsencode(directory) + b"/"][code]
    path = kest.dump.write(given, "é\udcfe", 4000000000, values)
    assert path == directory / "é\udcfe_batch4000000000.bin"
    assert path.read_bytes() == np.array([code, *shape], np.float32).tobytes() + values.tobytes()
    back = kest.dump.read([path, str(path), bytes(path), path][code], len(shape))
    equal(back, values, strict=True)
    assert back.flags.writeable


def test_files_that_cannot_be_written(tmp_path, capfd):
    values = np.ones(5, np.float32)
    with pytest.raises(OSError, match=r"cannot be opened:\n\[ERROR\]\[DumpData\]"):
        kest.dump.write(tmp_path / "absent", "a", 0, values)
    assert capfd.readouterr().out == ""
    (tmp_path / "full_batch0.bin").symlink_to("/dev/full")
    with pytest.raises(OSError, match="not written whole"):
        kest.dump.write(tmp_path, "full", 0, values)


def test_files_that_are_no_such_tensor(tmp_path):
    path = tmp_path / "t.bin"
    for header, num_dims, message in (
        ([0, 2], 2, "at least 12 bytes"), ([0, 2], -1, "num_dims"), ([4, 1], 1, "unknown element type 4"),
        ([np.nan], 0, "unknown element type"), ([0, -1], 1, "no shape"), ([0, 1.5], 1, "no shape"),
        ([0, np.inf], 1, "no shape"), ([0, 0, 1e30], 2, "no shape"), ([0, 2, 1], 1, "does not fit"),
        ([1, 1, 0], 1, "does not fit")):
        path.write_bytes(f32(header).tobytes())
        with pytest.raises(ValueError, match=message):
            kest.dump.read(path, num_dims)
    pytest.raises(FileNotFoundError, kest.dump.read, tmp_path / "absent", 1)
