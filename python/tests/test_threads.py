"""What threads share: the interpreter while a kernel runs, and objects that sum up batches."""

import copy
import os
import pickle
import subprocess
import sys
import threading
from concurrent.futures import ThreadPoolExecutor

import kest
import numpy as np
import pytest

BATCH = np.linspace(-40000, 70000, 3000, dtype=np.float32).reshape(1000, 3)
HALVES, OTHER, SCALE = kest.half.to_float16(BATCH), BATCH[:100] * np.float32(1000), np.float32([1, 2, 0.25])

# How to make one, how to add to it, and what it has seen: something of all batches, too.
ACCUMULATORS = pytest.mark.parametrize("make, add, seen", [
    (lambda: kest.ifmr.Calibrator(4), kest.ifmr.Calibrator.add, lambda c: (c.factors(), sum(map(np.size, c._batches)))),
    (lambda: kest.hfmg.Calibrator(num_bins=64), kest.hfmg.Calibrator.add,
     lambda c: (c.factors(), c.histogram().counts.tolist(), c.histogram().edges.tolist()))] + [
    (lambda each=each: kest.shift.Searcher(SCALE, per_tensor=each), kest.shift.Searcher.feed,
     lambda s: (s.shift_bits().tolist(), s._errors.tolist())) for each in (False, True)])


@pytest.fixture
def switch_interval():
    before = sys.getswitchinterval()
    yield sys.setswitchinterval
    sys.setswitchinterval(before)


@ACCUMULATORS
def test_threads_may_share_what_sums_up_batches(make, add, seen, switch_interval):
    def work(accumulator):
        for _ in range(20):
            add(accumulator, BATCH)
            seen(accumulator)

    shared, alone = make(), make()
    list(map(work, [alone] * 4))
    switch_interval(1e-6)
    with ThreadPoolExecutor(4) as threads:
        list(threads.map(work, [shared] * 4))
    assert seen(shared) == seen(alone)


@pytest.mark.parametrize("copied", [copy.copy, copy.deepcopy, lambda given: pickle.loads(pickle.dumps(given))])
@ACCUMULATORS
def test_copies_are_snapshots_that_go_on_by_themselves(make, add, seen, copied):
    original = make()
    early = copied(original)
    add(original, BATCH)
    before, late = seen(original), copied(original)
    add(original, OTHER)
    assert seen(late) == before != seen(original)
    for given, batch in ((late, OTHER), (early, BATCH), (early, OTHER)):
        add(given, batch)
    assert seen(late) == seen(early) == seen(original)


@pytest.mark.parametrize("call", [
    lambda: kest.softmax.rows(BATCH), lambda: kest.half.to_float16(BATCH), lambda: kest.half.to_float32(HALVES),
    lambda: kest.ulq.weight_factors(SCALE), lambda: kest._core.record_read(b"/dev/null"),
    lambda: kest._core.dump_write(BATCH, b"/nowhere", b"a", 0, SCALE)])
def test_another_thread_runs_while_a_kernel_does(call, switch_interval):
    begin, ran = threading.Event(), threading.Event()
    switch_interval(1000)  # nobody takes the lock: only a call that releases it lets the other thread run
    thread = threading.Thread(target=lambda: begin.wait() and ran.set())
    thread.start()
    begin.set()
    for _ in range(100_000):
        if ran.is_set():
            break
        call()
    assert ran.is_set()
    thread.join()


FORKING = """
import os, signal, kest, numpy as np
rows = np.linspace(-1, 1, 1 << 18, dtype=np.float32).reshape(-1, 64)
wanted = kest.softmax.rows(rows)
child = os.fork()
if child == 0:
    signal.alarm(30)
    os._exit(int((kest.softmax.rows(rows) != wanted).any()))
raise SystemExit(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))
"""


def test_a_forked_child_computes():
    subprocess.run([sys.executable, "-c", FORKING], env={**os.environ, "OMP_NUM_THREADS": "3"}, check=True)
