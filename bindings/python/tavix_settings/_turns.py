"""Taking turns, by threads that may be interrupted anywhere.

threading.Condition is of no use here: an exception that a signal's handler raises inside of its __exit__ leaves its
lock held for ever. A with statement over a plain lock has no such moment.
"""

from __future__ import annotations

import time
from collections import deque
from sys import _getframe
from threading import TIMEOUT_MAX, Lock, get_ident
from types import FrameType
from typing import Deque, Dict, Optional


class Ticket:
    """One call's place in the queue, made by the call and kept in a variable of it until it ends."""

    __slots__ = ("thread", "ready", "_call")
    ready: Lock  # of a call that waits, from then on: held until it is its turn

    def __init__(self) -> None:
        self.thread = get_ident()
        self._call = _getframe(1).f_code

    def is_call_on_stack(self) -> bool:
        """Whether its call has not ended, for the thread of that call. No flag could tell: an interrupt may come before
        the call's end has set it."""
        frame: Optional[FrameType] = _getframe(1)
        while frame is not None:
            if frame.f_code is self._call and any(value is self for value in frame.f_locals.values()):
                return True
            frame = frame.f_back
        return False


class Turns:
    """Calls come to their turn in the order in which they asked.

    Threads: any. A call from inside another one of its thread, by a signal's handler or a __del__, is refused.
    Locks:   "gate" guards owner and queue; nothing waits while it is held. The turn itself is no lock.
    """

    def __init__(self) -> None:
        self._gate = Lock()
        self._owner: Optional[Ticket] = None
        self._queue: Deque[Ticket] = deque()
        self._calls: Dict[int, Ticket] = {}  # by thread, which changes its own alone; no lock

    def take(self, ticket: Ticket, deadline: Optional[float]) -> bool:
        """False: the deadline, of time.monotonic(), has passed. Throws RuntimeError within a call of the thread."""
        outer = self._calls.get(ticket.thread)
        if outer is not None and outer.is_call_on_stack():
            raise RuntimeError("a signal's handler or __del__ can't use a store whose call it has interrupted")
        self._calls[ticket.thread] = ticket
        with self._gate:
            # A turn that this thread still has was cut short while it was given back.
            if self._owner is None or self._owner.thread == ticket.thread:
                self._owner = ticket
                return True
            ticket.ready = ready = Lock()
            ready.acquire()
            self._queue.append(ticket)
        if deadline is None:
            return ready.acquire()
        return ready.acquire(timeout=min(max(0.0, deadline - time.monotonic()), TIMEOUT_MAX))

    def give_back(self, ticket: Ticket) -> None:
        """To be called whatever take() has returned or thrown."""
        if self._calls.get(ticket.thread) is not ticket:
            return  # take() has refused it, and the gate may be held by the call that it was inside of
        with self._gate:
            if self._queue:
                self._leave(ticket)
            elif self._owner is ticket:
                self._owner = None
        del self._calls[ticket.thread]

    def _leave(self, ticket: Ticket) -> None:
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
        return owner is not None and owner.thread != get_ident()
