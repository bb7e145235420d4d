"""What sums up batches."""

import threading
from typing import Any


class Accumulator:
    """Threads may add to one; copies and pickles are snapshots that go on by themselves.

    A subclass adds while it holds `_lock`, and replaces its state without ever changing it in place: so a reader needs
    no lock, and a copy may share it.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()

    def __getstate__(self) -> dict[str, Any]:
        state = self.__dict__.copy()
        del state["_lock"]
        return state

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.__dict__.update(state)
        self._lock = threading.Lock()
