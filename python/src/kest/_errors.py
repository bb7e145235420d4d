"""What a status other than 0 becomes."""


class KestError(RuntimeError):
    """A kernel failed.

    Attributes:
        status: what it returned; docs/statuses.md lists the values.
        step: the function of this package that called it.
        log: kest's own log lines, innermost first; empty where the kernel prints none.
    """

    def __init__(self, status: int, step: str, log: str) -> None:
        super().__init__(status, step, log)
        self.status = status
        self.step = step
        self.log = log

    def __str__(self) -> str:
        return f"{self.step} failed with status {self.status}" + (f":\n{self.log.rstrip()}" if self.log else "")


class BadParamError(KestError, ValueError):
    """Invalid arguments: no elements, NaN, lengths that do not fit, a bit width out of range."""


class ScaleError(KestError, ArithmeticError):
    """An illegal scale: infinite, too large or too small to divide by."""


class RecordFileError(KestError):
    """A record file that cannot be found, read, parsed or written."""


_CLASSES: dict[int, type[KestError]] = {
    -65530: BadParamError,
    -65529: RecordFileError,
    -65519: ScaleError,
    2: ScaleError,
    5: RecordFileError,
    6: RecordFileError,
    8: BadParamError,
    9: ScaleError,
    10: ScaleError,
    13: RecordFileError,
    14: RecordFileError,
    15: BadParamError,
    17: ScaleError,
}


def error_of(status: int, step: str, log: bytes) -> KestError:
    return _CLASSES.get(status, KestError)(status, step, log.decode(errors="backslashreplace"))
