"""Exact, fast CPU kernels that quantise TensorFlow models: numpy in, numpy out."""

from importlib.metadata import version

from kest import (
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
