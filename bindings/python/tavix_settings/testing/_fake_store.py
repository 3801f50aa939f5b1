"""A store in memory with the interface of Store."""

from __future__ import annotations

import threading
import time
from typing import Iterable, Optional

from .. import _link
from .._address import Address
from .._errors import ClosedError, ParseError
from .._link import Link, Waker
from .._names import AnyDocument, to_bytes, to_document
from .._sync import DEFAULT_TIMEOUT, Store
from ._daemon import FakeDaemon

ADDRESS = Address("in memory", "", 0)


class SharedDaemon:
    """A FakeDaemon for links of several threads.

    Locks: "arrived" is held while a request is carried out; it wakes links that wait for what others' requests send.
    """

    def __init__(
        self, defaults: Optional[AnyDocument], restricted: Optional[AnyDocument], features: Iterable[str]
    ) -> None:
        known = [to_bytes(feature, "a feature") for feature in features]
        self.daemon = FakeDaemon(to_document(defaults), to_document(restricted), known)
        self.arrived = threading.Condition(threading.RLock())


class _MemoryLink(Link):
    """Bytes go straight to the daemon, and come from where it has put them."""

    def __init__(self, shared: SharedDaemon, waker: Optional[Waker]) -> None:
        self._shared = shared
        self._received = bytearray()
        self._memory_waker = waker
        if waker is not None:
            waker.on_wake = self._wake
        with shared.arrived:
            self._session = shared.daemon.open_session(self._deliver)

    def send(self, data: bytes, deadline: Optional[float]) -> None:
        with self._shared.arrived:
            if not self._session.is_open:
                raise _link.lost(ADDRESS)
            try:
                self._session.receive(data)
            except ParseError:
                self._session.close()
                self._shared.arrived.notify_all()

    def receive(self, deadline: Optional[float]) -> bytes:
        with self._shared.arrived:
            left = None if deadline is None else min(deadline - time.monotonic(), threading.TIMEOUT_MAX)
            if not self._shared.arrived.wait_for(self._can_receive, left):
                raise _link.silent(ADDRESS)
            if self._memory_waker is not None and self._memory_waker.is_awake:
                raise ClosedError("the watch was closed")
            data = bytes(self._received)
            self._received.clear()
            return data

    def has_news(self) -> bool:
        with self._shared.arrived:
            return bool(self._received) or not self._session.is_open

    def shutdown(self) -> None:
        self.close()

    def close(self) -> None:
        with self._shared.arrived:
            self._session.close()
            self._shared.arrived.notify_all()

    def _can_receive(self) -> bool:
        is_awake = self._memory_waker is not None and self._memory_waker.is_awake
        return is_awake or bool(self._received) or not self._session.is_open

    def _deliver(self, data: bytes) -> None:
        self._received += data
        self._shared.arrived.notify_all()

    def _wake(self) -> None:
        with self._shared.arrived:
            self._shared.arrived.notify_all()


class FakeStore(Store):
    """A store that lives in memory and ends with its last object, with the interface of Store.

    It speaks to a daemon that is a part of it, so that conditions, restricted groups, watches and errors are as with a
    real one.

    defaults, restricted: what the device's files would hold. features: () is a daemon that knows no amend().
    """

    def __init__(
        self,
        defaults: Optional[AnyDocument] = None,
        restricted: Optional[AnyDocument] = None,
        *,
        timeout: Optional[float] = DEFAULT_TIMEOUT,
        features: Iterable[str] = ("amend",),
    ) -> None:
        super().__init__(ADDRESS, timeout)
        self._shared = SharedDaemon(defaults, restricted, features)

    def connect(self) -> Store:
        """A second store with the same content, as another program would have it."""
        other = FakeStore(timeout=self._timeout)
        other._shared = self._shared
        return other

    def _open_link(self, deadline: Optional[float], waker: Optional[Waker]) -> Link:
        return _MemoryLink(self._shared, waker)
