"""Exact, fast CPU kernels that quantise TensorFlow models: numpy in, numpy out."""

from kest import arq, hfmg, ifmr, nuq, report, shift, ulq
from kest._activation import ActivationFactors
from kest._errors import BadParamError, KestError, RecordFileError, ScaleError

__all__ = [
    "ActivationFactors",
    "BadParamError",
    "KestError",
    "RecordFileError",
    "ScaleError",
    "arq",
    "hfmg",
    "ifmr",
    "nuq",
    "report",
    "shift",
    "ulq",
]
