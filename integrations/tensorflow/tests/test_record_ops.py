"""Record updates, eager and in functions that several threads run, against the text of the file."""

from concurrent.futures import ThreadPoolExecutor

import kest_tensorflow as kest
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
