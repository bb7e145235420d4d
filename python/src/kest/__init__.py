"""Exact, fast CPU kernels that quantise TensorFlow models: numpy in, numpy out."""

from kest import arq, balance, deployed, dump, fusion, half, masks, prune, softmax
from kest._errors import BadParamError, KestError, RecordFileError, ScaleError

__all__ = [
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
    "masks",
    "prune",
    "softmax",
]
