"""What can go wrong, as exceptions. ValueError, TypeError and KeyError are the caller's own mistakes."""

from __future__ import annotations


class SettingsError(Exception):
    """Base of all errors of this package.

    outcome_unknown: a change was sent, and nothing proves whether the daemon has carried it out. It is never sent a
    second time by itself: read, then decide.
    """

    def __init__(self, text: str, *, outcome_unknown: bool = False) -> None:
        super().__init__(text)
        self.outcome_unknown = outcome_unknown


class ConnectionLostError(SettingsError):
    """The daemon can't be reached, or has ended the connection. The text names the address."""


class SettingsTimeoutError(SettingsError, TimeoutError):
    """The daemon did not answer in time. The connection is closed; the next call makes a new one."""


class ConditionFailedError(SettingsError):
    """The store does not hold what a change was conditional on. Nothing was changed."""


class RefusedError(SettingsError):
    """The daemon does not carry the change out: a restricted group, or a bound. Nothing was changed."""


class ParseError(SettingsError):
    """A text is no settings text, or a reply no reply. source: a file, or the daemon's address; line: from 1 on."""

    def __init__(self, source: str, line: int, problem: str) -> None:
        super().__init__(f"{source}:{line}: {problem}")
        self.source = source
        self.line = line


class UnsupportedError(SettingsError):
    """The daemon is older than what was asked of it. Nothing of the change was sent."""


class ClosedError(SettingsError):
    """The store was closed, or it belongs to the process that this one was forked from."""
