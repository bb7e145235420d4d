"""Record updates and dumps, eager and in functions, which for records several threads run, against the files."""

from concurrent.futures import ThreadPoolExecutor

import kest_tensorflow as kest
import numpy as np
import pytest
import tensorflow as tf


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
    kest.record_weights(record_file, "nuq", [2.0], [0])  # keeps the clusters
    assert fields(record_file) == [
        'key: "conv"', "scale_d: 0.25", "offset_d: -3", "scale_w: 0.5", "scale_w: 0.25", "offset_w: 0", "offset_w: 1",
        "shift_bit: 3", "shift_bit: 4", 'dst_type: "INT8"', "tensor_balance_factor: 1.5", "tensor_balance_factor: 2.5",
        'key: "nuq"', "scale_w: 2", "offset_w: 0", "cluster: -5", "cluster: 6"]


def test_threads(record_file):
    """No update of another thread is lost."""
    functions = [tf.function(lambda i=i: kest.record_data(record_file, f"layer{i}", float(i), i)) for i in range(16)]
    with ThreadPoolExecutor(8) as pool:
        list(pool.map(lambda function: function(), functions))
    found = fields(record_file)
    assert {f'key: "layer{i}"' for i in range(16)} | {f"offset_d: {i}" for i in range(16)} <= set(found)


@pytest.mark.parametrize("code, dtype", enumerate([np.float32, np.float64, np.int32, np.float16]))
def test_dump(tmp_path, code, dtype):
    x = np.array([[-9, 0, 2.5], [1, 7, 3]], dtype)
    kest.dump(x, tmp_path, "eager", 7)
    tf.function(lambda x: kest.dump(x, tmp_path, "graph"))(x)
    for file in "eager_batch7.bin", "graph_batch0.bin":
        assert (tmp_path / file).read_bytes() == np.float32([code, 2, 3]).tobytes() + x.tobytes()
