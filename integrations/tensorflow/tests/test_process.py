"""Operators in processes of their own: loaded before and after others, many threads, children."""

import os
import pathlib
import subprocess
import sys

worker = pathlib.Path(__file__).with_name("worker.py")


def printed(steps, omp="2", inter="1", intra="1"):
    """The lines of a worker. One that hangs is a failure."""
    threads = {"OMP_NUM_THREADS": omp, "TF_NUM_INTEROP_THREADS": inter, "TF_NUM_INTRAOP_THREADS": intra}
    command = [sys.executable, worker, *steps.split()]
    return subprocess.check_output(command, env=os.environ | threads, text=True, timeout=600).splitlines()


def test_no_hang_and_no_changed_bit():
    expected = printed("run", omp="1")
    for steps, threads in [
        ("run run:graph", {"inter": "4", "intra": "2"}),
        ("load_kest run use_libomp run child:spawn", {"omp": "5"}),
        ("use_libomp run load_kest run:graph", {"inter": "4"}),
        ("run child:fork run:graph", {}),
    ]:
        assert printed(steps, **threads) == expected * (steps.count("run") + steps.count("child")), steps
