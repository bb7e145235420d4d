"""What threads share: the interpreter while a kernel runs, and objects that sum up batches."""

import copy
import pickle
import sys
import threading

import kest
import numpy as np
import pytest

BATCH = np.linspace(-40000, 70000, 3000, dtype=np.float32).reshape(1000, 3)
HALVES = kest.half.to_float16(BATCH)


def searcher(per_tensor):
    return kest.shift.Searcher(np.float32([1, 2, 0.25]), per_tensor=per_tensor)


# How to make one, how to add to it, and what it has seen: something of all batches, too.
ACCUMULATORS = [
    (lambda: kest.ifmr.Calibrator(4), "add", lambda c: (c.factors(), sum(map(np.size, c._batches)))),
    (lambda: kest.hfmg.Calibrator(num_bins=64, dtype=np.float32), "add",
     lambda c: (c.factors(), *map(tuple, (c.histogram().counts, c.histogram().edges)))),
    (lambda: searcher(False), "feed", lambda s: (tuple(s.shift_bits()), s._errors.tobytes())),
    (lambda: searcher(True), "feed", lambda s: (tuple(s.shift_bits()), s._errors.tobytes())),
]


@pytest.mark.parametrize("make, add, result", ACCUMULATORS)
def test_threads_may_share_what_sums_up_batches(make, add, result):
    def work():
        for _ in range(20):
            getattr(shared, add)(BATCH)
            result(shared)

    shared, alone, interval = make(), make(), sys.getswitchinterval()
    for _ in range(80):
        getattr(alone, add)(BATCH)
    threads = [threading.Thread(target=work) for _ in range(4)]
    sys.setswitchinterval(1e-6)
    try:
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    finally:
        sys.setswitchinterval(interval)
    assert result(shared) == result(alone)


@pytest.mark.parametrize("copied", [copy.copy, copy.deepcopy, lambda given: pickle.loads(pickle.dumps(given))])
@pytest.mark.parametrize("make, add, result", ACCUMULATORS)
def test_copies_are_snapshots_that_go_on_by_themselves(make, add, result, copied):
    original, other, both = make(), BATCH[:100] * np.float32(1000), make()
    early = copied(original)
    getattr(original, add)(BATCH)
    seen = result(original)
    snapshot = copied(original)
    getattr(original, add)(other)
    assert result(snapshot) == seen != result(original)
    getattr(snapshot, add)(other)
    for batch in (BATCH, other):
        getattr(early, add)(batch)
        getattr(both, add)(batch)
    assert result(snapshot) == result(original) == result(early) == result(both)


@pytest.mark.parametrize("call", [
    lambda: kest.softmax.rows(BATCH), lambda: kest.half.to_float16(BATCH), lambda: kest.half.to_float32(HALVES),
    lambda: kest.ulq.weight_factors(BATCH[0]), lambda: kest._core.record_read(b"/dev/null"),
    lambda: kest._core.dump_write(BATCH, b"/nowhere", b"a", 0, BATCH[0])])
def test_another_thread_runs_while_a_kernel_does(call):
    def wait():
        begin.wait()
        ran.append(True)

    begin, ran, interval = threading.Event(), [], sys.getswitchinterval()
    sys.setswitchinterval(1000)  # nobody takes the lock: only a call that releases it lets the other thread run
    try:
        thread = threading.Thread(target=wait)
        thread.start()
        begin.set()
        for _ in range(100_000):
            if ran:
                break
            call()
        assert ran
    finally:
        sys.setswitchinterval(interval)
        thread.join()
