"""Which writes without a reply are proven to be carried out. No input and output.

Threads: one at a time.
"""

from __future__ import annotations


class Writes:
    """Calls of one store have numbers in the order in which they were sent. The reply to one proves the writes before
    it, since a daemon carries out the requests of a connection in their order. A connection that goes with writes that
    nothing proves is a loss, which stays until a flush has reported it."""

    def __init__(self) -> None:
        self._sent = 0
        self._last_write = 0
        self._proved = 0
        self._losses = 0
        self._reported = 0  # of the losses

    def note_sent(self, has_reply: bool) -> int:
        self._sent += 1
        if not has_reply:
            self._last_write = self._sent
        return self._sent

    def note_answered(self, number: int) -> None:
        if number > self._proved:
            self._proved = number

    def note_connection_gone(self) -> None:
        if self._last_write > self._proved:
            self._losses += 1
        self._proved = self._sent

    @property
    def reported(self) -> int:
        """For a flush that begins, which is to report each loss behind these, even if another one reports it, too."""
        return self._reported

    def has_lost_since(self, reported: int) -> bool:
        """Whether there is a loss that a flush did not know as reported when it began."""
        return self._losses > reported

    def note_reported(self) -> None:
        self._reported = self._losses
