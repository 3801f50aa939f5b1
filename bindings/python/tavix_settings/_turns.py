"""Taking turns, by threads that may be interrupted anywhere.

threading.Condition is of no use here: an exception that a signal's handler raises inside of its __exit__ leaves its
lock held for ever. A with statement over a plain lock has no such moment.
"""

from __future__ import annotations

import threading
import time
from collections import deque
from typing import Deque, Optional


class Ticket:
    """One call's place in the queue. "ready" is held until it is its turn."""

    def __init__(self) -> None:
        self.thread = threading.get_ident()
        self.ready = threading.Lock()
        self.ready.acquire()


class Turns:
    """Calls come to their turn in the order in which they asked.

    Threads: any.
    Locks:   "gate" guards owner and queue; nothing waits while it is held. The turn itself is no lock.
    """

    def __init__(self) -> None:
        self._gate = threading.Lock()
        self._owner: Optional[Ticket] = None
        self._queue: Deque[Ticket] = deque()

    def take(self, ticket: Ticket, deadline: Optional[float]) -> bool:
        """False: the deadline, of time.monotonic(), has passed."""
        with self._gate:
            # A turn that this thread still has was cut short while it was given back.
            if self._owner is None or self._owner.thread == ticket.thread:
                self._owner = ticket
                return True
            self._queue.append(ticket)
        if deadline is None:
            return ticket.ready.acquire()
        return ticket.ready.acquire(timeout=min(max(0.0, deadline - time.monotonic()), threading.TIMEOUT_MAX))

    def give_back(self, ticket: Ticket) -> None:
        """To be called whatever take() has returned or thrown."""
        with self._gate:
            if ticket in self._queue:
                self._queue.remove(ticket)
            if self._owner is not ticket:
                return
            if not self._queue:
                self._owner = None
                return
            # It leaves the queue last: an interrupt before that changes nothing, and one behind it nothing any more.
            self._owner = self._queue[0]
            self._owner.ready.release()
            self._queue.popleft()

    def has(self, ticket: Ticket) -> bool:
        return self._owner is ticket

    def is_taken_by_others(self) -> bool:
        owner = self._owner
        return owner is not None and owner.thread != threading.get_ident()
