"""A store in memory with the interface of AsyncStore."""

from __future__ import annotations

from typing import Iterable, Optional

from .. import _link
from .._async_link import AsyncLink, OnData, OnEnd
from .._errors import ParseError
from .._names import AnyDocument
from .._sync import DEFAULT_TIMEOUT
from ..aio import AsyncStore
from ._fake_store import ADDRESS, SharedDaemon


class _MemoryAsyncLink(AsyncLink):
    """Bytes go straight to the daemon; what it has put here is handed on in the loop's next round."""

    def __init__(self, shared: SharedDaemon) -> None:
        super().__init__(ADDRESS)
        self._shared = shared
        self._received = bytearray()
        self._is_open = True
        self._session = shared.daemon.open_session(self._deliver)

    def start(self, on_data: OnData, on_end: OnEnd) -> None:
        self._on_data, self._on_end = on_data, on_end
        self._deliver(b"")

    def write(self, data: bytes) -> None:
        try:
            self._session.receive(data)
        except ParseError:
            self._session.close()
            self._deliver(b"")

    async def drain(self, deadline: Optional[float]) -> None:
        return None

    def receive_now(self) -> bool:
        if not self._is_open:
            return False
        data = bytes(self._received)
        self._received.clear()
        if data and self._on_data is not None:
            self._on_data(data)
        if self._is_open and not self._session.is_open:
            self._end(_link.lost(ADDRESS))
        return False

    def has_ended(self) -> bool:
        return not self._session.is_open

    def close(self) -> None:
        self._is_open = False
        self._session.close()

    def _deliver(self, data: bytes) -> None:
        self._received += data
        if not self._loop.is_closed():
            self._loop.call_soon(self.receive_now)


class AsyncFakeStore(AsyncStore):
    """FakeStore for an event loop, of one thread."""

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

    def connect(self) -> AsyncFakeStore:
        """A second store with the same content, as another program would have it."""
        other = AsyncFakeStore(timeout=self._timeout)
        other._shared = self._shared
        return other

    async def _open_link(self, deadline: Optional[float]) -> AsyncLink:
        return _MemoryAsyncLink(self._shared)
