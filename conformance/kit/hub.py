"""One loop over all that the runner reads: the client's answers, and the sockets of both sides. There are no threads."""

from __future__ import annotations

import selectors
import time
from typing import Any, Callable

from .failure import Failure

LIMIT = 100.0  # seconds that anything may take that has to happen; machines of tests stand still at times


class Hub:
    """Calls a function for each file that can be read, while somebody waits for something."""

    def __init__(self) -> None:
        self._selector = selectors.DefaultSelector()

    def add(self, file: Any, handle: Callable[[], None]) -> None:
        self._selector.register(file, selectors.EVENT_READ, handle)

    def remove(self, file: Any) -> None:
        self._selector.unregister(file)

    def run_once(self, timeout: float) -> None:
        """Waits until something can be read, for so many seconds at most."""
        for key, _ in self._selector.select(timeout):
            if self._selector.get_map().get(key.fd) is key:  # a handler before may have removed it, and closed it
                key.data()

    def run_for(self, seconds: float) -> None:
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            self.run_once(left)

    def run_until(self, is_done: Callable[[], bool], what: str, limit: float = LIMIT) -> None:
        """Throws Failure, which names what was waited for."""
        end = time.monotonic() + limit
        while not is_done():
            left = end - time.monotonic()
            if left <= 0:
                raise Failure(f"waited {limit:g} s for {what}")
            self.run_once(left)

    def close(self) -> None:
        self._selector.close()
