"""Exact, fast CPU kernels that quantise TensorFlow models: numpy in, numpy out."""

from kest import arq, record
from kest._errors import BadParamError, KestError, RecordFileError, ScaleError

__all__ = ["BadParamError", "KestError", "RecordFileError", "ScaleError", "arq", "record"]
