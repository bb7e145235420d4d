"""A process that takes the steps it is told; each run prints a hash of the results: test_process.py."""

import ctypes
import hashlib
import multiprocessing
import os
import pathlib
import sys
from concurrent.futures import ThreadPoolExecutor

import numpy as np


def results(x):
    """Of operators most of which share work among threads, x being large enough for that."""
    import kest_tensorflow as kest
    import tensorflow as tf

    calibrator = kest.IfmrCalibrator(step=0.05)
    calibrator.add(x)
    found = [
        kest.apply_mask(x, kest.generate_mask(x[:, 0], x[0])),
        kest.n_of_m_mask(x),
        kest.channel_prune_mask([x], [0], [256, 256], [9, 99]),
        *kest.ulq(x, 2.0, -1.0),
        kest.dequantise(kest.quantise(x, 50.0, 3.0), kest.dequantise_words(tf.abs(x[0]) + 1)),
        kest.fast_softmax(x),
        kest.shift_search(x * 1e6, tf.ones([x.shape[1]])),
        *kest.arq_weights(x, with_offset=True),
        *calibrator.factors(),
    ]
    return tf.concat([tf.reshape(tf.cast(y, tf.float64), [-1]) for y in found], 0)


def run(in_graph=False):
    """In the main thread, and then in two at once."""
    import tensorflow as tf

    x = np.random.default_rng(0).normal(size=(512, 1024)).astype(np.float32)
    function = tf.function(results) if in_graph else results
    with ThreadPoolExecutor() as pool:
        found = [function(x), *pool.map(function, [x, x])]
    print(*{hashlib.sha256(values.numpy()).hexdigest() for values in found}, flush=True)


def child(method):
    process = multiprocessing.get_context(method).Process(target=run)
    process.start()
    process.join()
    assert process.exitcode == 0


def load_kest():
    """As ctypes does it."""
    library = next(pathlib.Path(os.environ["PYTHONPATH"]).rglob("libkest.so"))
    assert ctypes.CDLL(str(library)).ArqQuantFloatPython


def use_libomp():
    """Another OpenMP runtime, which offers its functions to libraries that are loaded later."""
    libomp, seen = ctypes.CDLL("libomp.so.5", ctypes.RTLD_GLOBAL), set()
    body = ctypes.CFUNCTYPE(None, ctypes.c_void_p)(lambda _: seen.add(libomp.omp_get_thread_num()))
    libomp.GOMP_parallel(body, None, 2, 0)
    assert seen == {0, 1}


for step in sys.argv[1:] if __name__ == "__main__" else []:
    name, *arguments = step.split(":")
    globals()[name](*arguments)
