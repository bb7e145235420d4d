"""What a status other than 0 becomes."""

import os


class KestError(RuntimeError):
    """A kernel failed.

    Attributes:
        status: what it returned; docs/statuses.md lists the values.
        step: the function of this package that called it.
        log: kest's own log lines, innermost first; empty where the kernel prints none.
        file: the path of the record file, as os.fsdecode has it; None where there is none.
    """

    def __init__(self, status: int, step: str, log: str, file: str | None = None) -> None:
        super().__init__(status, step, log, file)
        self.status = status
        self.step = step
        self.log = log
        self.file = file

    @property
    def meaning(self) -> str:
        """What the status stands for, in a few words."""
        return _STATUSES.get(self.status, (KestError, "a failure"))[1]

    def __str__(self) -> str:
        place = "" if self.file is None else f" on {self.file!r}"
        lines = f"\n{self.log.rstrip()}" if self.log else f" {self.meaning}"
        return f"{self.step} failed{place} with status {self.status}:{lines}"


class BadParamError(KestError, ValueError):
    """Invalid arguments: no elements, NaN, lengths that do not fit, a bit width out of range."""


class ScaleError(KestError, ArithmeticError):
    """An illegal scale: infinite, too large or too small to divide by."""


class RecordFileError(KestError):
    """A record file that cannot be found, read, parsed or written."""


_STATUSES: dict[int, tuple[type[KestError], str]] = {
    -65536: (KestError, "no result"),
    -65530: (BadParamError, "invalid arguments"),
    -65529: (RecordFileError, "the file cannot be worked on"),
    -65528: (KestError, "no such layer, or a write that failed"),
    -65519: (ScaleError, "an illegal scale"),
    2: (ScaleError, "a dequantisation scale that is zero, subnormal or infinite"),
    5: (RecordFileError, "no such file"),
    6: (RecordFileError, "the file cannot be opened, read or written"),
    8: (BadParamError, "no values"),
    9: (ScaleError, "a fused weight scale that is zero, subnormal or infinite"),
    10: (ScaleError, "a data scale that is zero, subnormal or infinite"),
    13: (RecordFileError, "a text that breaks off"),
    14: (RecordFileError, "a field that record files do not have"),
    15: (BadParamError, "no batch yet"),
    17: (ScaleError, "a balance factor out of range"),
}


def error_of(status: int, step: str, log: bytes, file: bytes) -> KestError:
    kind, _ = _STATUSES.get(status, (KestError, None))
    return kind(status, step, log.decode(errors="backslashreplace"), os.fsdecode(file) if file else None)
