"""Record updates, eager and in functions that several threads run, against the text of the file."""

from concurrent.futures import ThreadPoolExecutor

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf

Invalid = tf.errors.InvalidArgumentError


@pytest.fixture
def record_file(tmp_path):
    path = tmp_path / "layers.record"
    path.touch()
    return path


def fields(path):
    """The fields of all records, in the order of the file."""
    return [line.strip() for line in path.read_text().splitlines() if ":" in line]


@pytest.mark.parametrize("in_graph", [False, True])
def test_each_update(record_file, in_graph):
    def update(scale):
        kest.record_data(record_file, "conv", scale, -3, "INT8")
        kest.record_weights(record_file, "conv", [0.5, scale], [0, 1])
        kest.record_shift_bits(record_file, "conv", [3, 4])
        kest.record_balance_factors(record_file, "conv", [1.5, 2.5])
        kest.record_weights(record_file, "nuq", scale, 7, [-5, 6])

    (tf.function(update) if in_graph else update)(tf.constant(0.25))
    found = fields(record_file)
    layer = found.index('key: "nuq"')
    assert found[0] == 'key: "conv"'
    assert sorted(found[1:layer]) == sorted([
        "scale_d: 0.25", "offset_d: -3", 'dst_type: "INT8"', "scale_w: 0.5", "scale_w: 0.25", "offset_w: 0",
        "offset_w: 1", "shift_bit: 3", "shift_bit: 4", "tensor_balance_factor: 1.5", "tensor_balance_factor: 2.5"])
    assert sorted(found[layer + 1:]) == sorted(["scale_w: 0.25", "offset_w: 7", "cluster: -5", "cluster: 6"])


def test_weights_keep_clusters(record_file):
    kest.record_weights(record_file, "nuq", [1.0], [0], [2])
    kest.record_weights(record_file, "nuq", [2.0], [0])
    assert "cluster: 2" in fields(record_file) and "scale_w: 2" in fields(record_file)


def test_threads(record_file):
    """No update of another thread is lost."""
    functions = [tf.function(lambda i=i: kest.record_data(record_file, f"layer{i}", float(i), i)) for i in range(16)]
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(lambda function: function(), functions))
    found = fields(record_file)
    assert {f'key: "layer{i}"' for i in range(16)} | {f"offset_d: {i}" for i in range(16)} <= set(found)


def test_errors(record_file, tmp_path):
    with pytest.raises(Invalid, match=r"KestRecordData.* failed with status -?[1-9]"):
        kest.record_data(tmp_path / "none", "conv", 1.0, 0)
    with pytest.raises(Invalid, match="2 scales do not go with 1 offsets"):
        kest.record_weights(record_file, "conv", [1.0, 2.0], [0])
    with pytest.raises(Invalid, match="shift_bits has to be a scalar or a vector"):
        kest.record_shift_bits(record_file, "conv", np.zeros((1, 2), np.int32))
    assert record_file.read_text() == ""
