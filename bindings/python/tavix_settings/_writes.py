"""Which writes without a reply are proven to be carried out. No input and output.

Threads: one at a time.
"""

from __future__ import annotations


class Writes:
    """Calls of one store have numbers in the order in which they were sent. The reply to one proves the writes before
    it, since a daemon carries out the requests of a connection in their order."""

    def __init__(self) -> None:
        self._sent = 0
        self._last_write = 0
        self._proved = 0
        self._has_lost = False

    def note_sent(self, has_reply: bool) -> int:
        self._sent += 1
        if not has_reply:
            self._last_write = self._sent
        return self._sent

    def note_answered(self, number: int) -> None:
        self._proved = max(self._proved, number)

    def note_connection_gone(self) -> None:
        if self._last_write > self._proved:
            self._has_lost = True
        self._proved = self._sent

    @property
    def has_lost(self) -> bool:
        """Whether a connection has gone with writes that nothing proves."""
        return self._has_lost

    def forget_lost(self) -> None:
        self._has_lost = False
