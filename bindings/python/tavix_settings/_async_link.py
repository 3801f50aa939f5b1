"""A connection to a daemon for an event loop. Deadlines are times of the loop, None for ever.

Threads: the loop's.
Errors:  ConnectionLostError and SettingsTimeoutError, which name the address.
Tasks:   none; what arrives is handed on by callbacks of the loop.
"""

from __future__ import annotations

import asyncio
import errno
import os
import select
import socket
from typing import Callable, List, Optional, TypeVar

from . import _link
from ._address import Address
from ._errors import ConnectionLostError
from ._link import Candidate

T = TypeVar("T")

_CHUNK = 64 * 1024  # the C library maps memory anew for twice as much, each time
_QUEUE_FULL_DELAY = 0.02

OnData = Callable[[bytes], None]
OnEnd = Callable[[ConnectionLostError], None]


async def within(future: asyncio.Future[T], deadline: Optional[float], address: object) -> T:
    """The future's result, or SettingsTimeoutError at the deadline. Cancelling the caller cancels the future."""
    if deadline is None:
        return await future
    timer = future.get_loop().call_at(deadline, _expire, future, address)
    try:
        return await future
    finally:
        timer.cancel()


def fail(future: asyncio.Future[T], error: Exception) -> None:
    """Unless it is done. Nobody has to fetch the error: a caller that is cancelled at that moment does not."""
    if not future.done():
        future.set_exception(error)
        future.exception()


def ignore_error(future: asyncio.Future[T]) -> None:
    if not future.cancelled():
        future.exception()


def _expire(future: asyncio.Future[T], address: object) -> None:
    fail(future, _link.silent(address))


def _finish(future: asyncio.Future[None]) -> None:
    if not future.done():
        future.set_result(None)


class AsyncLink:
    """Made by open(). Nothing is read before start()."""

    def __init__(self, address: Address) -> None:
        self._address = address
        self._loop = asyncio.get_running_loop()
        self._process = os.getpid()
        self._socket: Optional[socket.socket] = None
        self._readable = select.poll()
        self._unsent = bytearray()
        self._drained: List[asyncio.Future[None]] = []
        self._on_data: Optional[OnData] = None
        self._on_end: Optional[OnEnd] = None

    @classmethod
    async def open(cls, address: Address, deadline: Optional[float]) -> AsyncLink:
        """One attempt at each of the host's addresses."""
        link = cls(address)
        problem: Optional[ConnectionLostError] = None
        try:
            for candidate in await link._find_candidates(deadline):
                problem = await link._connect(candidate, deadline)
                if problem is None:
                    return link
        except BaseException:
            link.close()
            raise
        raise problem or _link.unreachable(address, "the host has no address")

    def start(self, on_data: OnData, on_end: OnEnd) -> None:
        """on_end is called once, and never after close()."""
        self._on_data, self._on_end = on_data, on_end
        if self._socket is not None:
            self._readable.register(self._socket.fileno(), select.POLLIN)
            self._loop.add_reader(self._socket.fileno(), self.receive_now)

    def write(self, data: bytes) -> None:
        """Takes it all; what the kernel does not take at once goes later."""
        connected = self._socket
        if connected is None:
            return
        if not self._unsent:
            try:
                data = data[connected.send(data, socket.MSG_NOSIGNAL) :]
            except (BlockingIOError, InterruptedError):
                pass
            except OSError:
                return  # reading tells the reason, too, behind what has arrived before
        if data:
            if not self._unsent:
                self._loop.add_writer(connected.fileno(), self._send_more)
            self._unsent += data

    async def drain(self, deadline: Optional[float]) -> None:
        """Returns when the kernel has all that was written."""
        if not self._unsent:
            return
        drained: asyncio.Future[None] = self._loop.create_future()
        self._drained.append(drained)
        await within(drained, deadline, self._address)

    def receive_now(self) -> bool:
        """Hands on what has arrived. True: not all of it, so that others have their turn."""
        for _ in range(_link.MAX_CHUNKS_AT_ONCE):
            if not self._receive_chunk():
                return False
        return True

    def _receive_chunk(self) -> bool:
        """Whether there may be more."""
        if self._socket is None:
            return False
        try:
            data = self._socket.recv(_CHUNK)
        except (BlockingIOError, InterruptedError):
            return False
        except OSError as error:
            self._end(_link.lost(self._address, error.strerror or str(error)))
            return False
        if not data:
            self._end(_link.lost(self._address))
            return False
        if self._on_data is not None:
            self._on_data(data)
        return len(data) == _CHUNK

    def has_ended(self) -> bool:
        """Whether the daemon has ended it, although the loop has not noticed yet."""
        if self._socket is None:
            return True
        if not self._readable.poll(0):
            return False
        try:
            return not self._socket.recv(1, socket.MSG_PEEK)
        except (BlockingIOError, InterruptedError):
            return False
        except OSError:
            return True

    def close(self) -> None:
        connected, self._socket = self._socket, None
        if connected is None:
            return
        # A child shares its parent's selector.
        if self._process == os.getpid() and not self._loop.is_closed():
            self._loop.remove_reader(connected.fileno())
            self._loop.remove_writer(connected.fileno())
        connected.close()
        drained, self._drained = self._drained, []
        if not self._loop.is_closed():
            for future in drained:
                fail(future, _link.lost(self._address))

    def _end(self, error: ConnectionLostError) -> None:
        self.close()
        if self._on_end is not None:
            self._on_end(error)

    def _send_more(self) -> None:
        connected = self._socket
        if connected is None:
            return
        try:
            del self._unsent[: connected.send(self._unsent, socket.MSG_NOSIGNAL)]
        except (BlockingIOError, InterruptedError):
            return
        except OSError as error:
            return self._end(_link.lost(self._address, error.strerror or str(error)))
        if not self._unsent:
            self._loop.remove_writer(connected.fileno())
            drained, self._drained = self._drained, []
            for future in drained:
                _finish(future)

    async def _find_candidates(self, deadline: Optional[float]) -> List[Candidate]:
        known = _link.numeric_candidates(self._address)
        if known is not None:
            return known
        question = self._loop.getaddrinfo(self._address.host, self._address.port, type=socket.SOCK_STREAM)
        try:
            answer = asyncio.ensure_future(question)
            answer.add_done_callback(ignore_error)
            found = await within(answer, deadline, self._address)
        except OSError as error:
            if isinstance(error, TimeoutError):
                raise
            raise _link.unreachable(self._address, error.strerror or str(error)) from None
        return [(family, place) for family, _, _, _, place in found]

    async def _connect(self, candidate: Candidate, deadline: Optional[float]) -> Optional[ConnectionLostError]:
        """None, or why not."""
        family, place = candidate
        try:
            self._socket = connecting = _link.make_socket(family)
            while (failure := connecting.connect_ex(place)) == errno.EAGAIN:
                if deadline is not None and self._loop.time() + _QUEUE_FULL_DELAY >= deadline:
                    raise _link.silent(self._address)
                await asyncio.sleep(_QUEUE_FULL_DELAY)
            if failure in (errno.EINPROGRESS, errno.EALREADY):
                await self._wait_until_writable(connecting, deadline)
                failure = connecting.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
            if not failure and _link.is_connected_to_itself(connecting):
                failure = errno.ECONNREFUSED
        except TimeoutError:
            raise
        except OSError as error:
            failure = error.errno or errno.EIO
        if not failure:
            return None
        self.close()
        return _link.unreachable(self._address, os.strerror(failure))

    async def _wait_until_writable(self, connecting: socket.socket, deadline: Optional[float]) -> None:
        writable: asyncio.Future[None] = self._loop.create_future()
        self._loop.add_writer(connecting.fileno(), _finish, writable)
        try:
            await within(writable, deadline, self._address)
        finally:
            if connecting.fileno() >= 0:
                self._loop.remove_writer(connecting.fileno())
