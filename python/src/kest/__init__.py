"""Exact, fast CPU kernels that quantise TensorFlow models: numpy in, numpy out."""

import os
from importlib.metadata import version

from kest import (
    _core,
    arq,
    balance,
    deployed,
    dump,
    fusion,
    half,
    hfmg,
    ifmr,
    masks,
    nuq,
    prune,
    record,
    report,
    shift,
    softmax,
    ulq,
)
from kest._activation import ActivationFactors
from kest._errors import BadParamError, KestError, RecordFileError, ScaleError

__version__ = version("kest")

# GCC's OpenMP hangs in a forked child whose thread had workers before; alone it works on.
os.register_at_fork(after_in_child=_core.use_one_thread)

__all__ = [
    "ActivationFactors",
    "BadParamError",
    "KestError",
    "RecordFileError",
    "ScaleError",
    "arq",
    "balance",
    "deployed",
    "dump",
    "fusion",
    "half",
    "hfmg",
    "ifmr",
    "masks",
    "nuq",
    "prune",
    "record",
    "report",
    "shift",
    "softmax",
    "ulq",
]
