"""What a watch knows, without input and output: bytes in, changes out.

Threads: one at a time.
"""

from __future__ import annotations

import random
from collections import OrderedDict
from dataclasses import dataclass
from typing import AnyStr, Generic, List, Optional, Tuple, Union, cast

from . import _protocol as protocol
from ._protocol import Form, Notice, Protocol, Reply
from ._text import RawDocument, RawGroup, to_text

_FIRST_DELAY = 0.1
_MAX_DELAY = 5.0


@dataclass(frozen=True)
class Change(Generic[AnyStr]):
    """One setting that readers see differently.

    old, new: the values; None where there is none.
    gone:     the group does not exist any longer.
    key:      None where a group without settings came or went.
    resync:   no setting: the connection was lost, and all that differs since has been returned before this. group is
              None.
    """

    group: Optional[AnyStr]
    key: Optional[AnyStr] = None
    old: Optional[AnyStr] = None
    new: Optional[AnyStr] = None
    gone: bool = False
    resync: bool = False


AnyChange = Union[Change[str], Change[bytes]]
_Place = Tuple[bytes, Optional[bytes]]  # group and key


class WatchState:
    """The watched groups as they were last received, and what has changed since the last next_change().

    Changes of one setting that wait together are one, from the first old value to the newest; those that cancel out are
    none. So what waits is bounded by what is watched.
    """

    def __init__(self, names: List[bytes], initial: bool, raw: bool) -> None:
        self._request = protocol.subscribe_request(names) + protocol.get_request(names)
        self._initial = initial
        self._raw = raw
        self._protocol: Optional[Protocol] = None
        self._content: Optional[RawDocument] = None
        self._pending: OrderedDict[Optional[_Place], Optional[bytes]] = OrderedDict()  # None: a resynchronisation

    def begin(self, connection: Protocol) -> bytes:
        """A new connection, on which these bytes are sent: subscribe first, then read, so that nothing is missed."""
        self._protocol = connection
        connection.expect([Form.DATA])
        return self._request

    @property
    def is_synchronised(self) -> bool:
        """Whether this connection's first reading has arrived."""
        return self._protocol is not None and self._protocol.due == 0

    def receive(self, data: bytes) -> None:
        """Throws ParseError."""
        assert self._protocol is not None
        is_read = self.is_synchronised
        for event in self._protocol.receive(data):
            if isinstance(event, Reply):
                is_read = True
                self._take_reading(cast(RawDocument, event.value))
            elif is_read:  # what comes before the reading is older than it
                self._take_notice(event)

    def next_change(self) -> Optional[AnyChange]:
        """None: nothing waits."""
        while self._pending:
            place, old = self._pending.popitem(last=False)
            if place is None:
                return Change[str](None, resync=True)
            assert self._content is not None
            group, key = place
            values = self._content.get(group)
            if key is None:
                return self._make(group, None, None, None, values is None)
            return self._make(group, key, old, (values or {}).get(key), values is None)
        return None

    def _make(
        self, group: bytes, key: Optional[bytes], old: Optional[bytes], new: Optional[bytes], gone: bool
    ) -> AnyChange:
        # Change[str](...) would take four times as long.
        if self._raw:
            return Change(group, key, old, new, gone)
        return Change(to_text(group), _text(key), _text(old), _text(new), gone)

    def _take_reading(self, groups: RawDocument) -> None:
        is_first = self._content is None
        if is_first and not self._initial:
            self._content = groups
            return
        self._content = self._content or {}
        for group in list(self._content):
            if group not in groups:
                self._take_group(group, None)
        for group, values in groups.items():
            self._take_group(group, values)
        if not is_first:
            self._pending.pop(None, None)
            self._pending[None] = None

    def _take_notice(self, notice: Notice) -> None:
        for group in notice.groups:
            self._take_group(group, notice.settings.get(group))

    def _take_group(self, group: bytes, new: Optional[RawGroup]) -> None:
        assert self._content is not None
        old = self._content.get(group)
        if new is None:
            self._content.pop(group, None)
        else:
            self._content[group] = new
        for key in _find_changed(old or {}, new or {}):
            self._note((group, key), (old or {}).get(key), (new or {}).get(key))
        if not old and not new and (old is None) != (new is None):
            if (group, None) in self._pending:
                del self._pending[group, None]  # came and went
            else:
                self._pending[group, None] = None

    def _note(self, place: _Place, old: Optional[bytes], new: Optional[bytes]) -> None:
        if self._pending.setdefault(place, old) == new:
            del self._pending[place]


def _find_changed(old: RawGroup, new: RawGroup) -> List[bytes]:
    """Keys with another value, in ascending order."""
    if old == new:
        return []
    return sorted([key for key in old.keys() | new.keys() if old.get(key) != new.get(key)])


class Backoff:
    """How long to wait before each attempt to connect, in seconds: from 0.1 doubling to 5, up to a half less at random,
    so that clients that were disconnected together don't come back together."""

    def __init__(self) -> None:
        self._delay = _FIRST_DELAY

    def next_delay(self) -> float:
        delay = self._delay
        self._delay = min(2 * delay, _MAX_DELAY)
        return delay * random.uniform(0.5, 1.0)

    def reset(self) -> None:
        self._delay = _FIRST_DELAY


def _text(raw: Optional[bytes]) -> Optional[str]:
    return None if raw is None else to_text(raw)
