"""A connection to a daemon whose calls wait, with a deadline: seconds of time.monotonic(), None for ever.

Threads: one at a time, but for shutdown() and Waker.wake().
Errors:  ConnectionLostError and SettingsTimeoutError, which name the address.
Fork:    descriptors are closed on exec. A child may call close() alone, which the parent does not notice.
"""

from __future__ import annotations

import errno
import os
import select
import socket
import time
from typing import Any, Callable, List, Optional, Tuple, Union

from ._address import Address
from ._errors import ClosedError, ConnectionLostError, SettingsTimeoutError

_CHUNK = 64 * 1024  # the C library maps memory anew for twice as much, each time
MAX_CHUNKS_AT_ONCE = 16  # of what has arrived: a fast writer may send more than can be parsed
_IN_PROGRESS = (errno.EINPROGRESS, errno.EALREADY)
_QUEUE_FULL_DELAY = 0.02
_MAX_POLL = 24 * 60 * 60.0  # seconds; poll() takes milliseconds, of which a C int holds 24 days
_MAX_POLL_MS = 24 * 60 * 60 * 1000
_FLAGS = socket.SOCK_NONBLOCK | socket.SOCK_CLOEXEC

Candidate = Tuple[int, Any]  # family, and what connect() takes


def numeric_candidates(address: Address) -> Optional[List[Candidate]]:
    """Where to connect to, if that is known without a resolver."""
    if address.path is not None:
        return [(socket.AF_UNIX, address.path)]
    try:
        found = socket.getaddrinfo(address.host, address.port, type=socket.SOCK_STREAM, flags=socket.AI_NUMERICHOST)
    except socket.gaierror:
        return None
    return [(family, place) for family, _, _, _, place in found]


def make_socket(family: int) -> socket.socket:
    made = socket.socket(family, socket.SOCK_STREAM | _FLAGS)
    if family != socket.AF_UNIX:
        made.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        # A peer that vanished without a word is noticed in the end, although nothing is sent to it.
        made.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
    return made


def is_connected_to_itself(connected: socket.socket) -> bool:
    """A socket that the kernel gives the very port that it connects to, while nobody listens there, is its own peer."""
    return connected.family != socket.AF_UNIX and connected.getsockname() == connected.getpeername()


def unreachable(address: object, problem: str) -> ConnectionLostError:
    return ConnectionLostError(f"no server at {address}: {problem}")


def lost(address: object, problem: str = "the daemon has ended it") -> ConnectionLostError:
    return ConnectionLostError(f"the connection to {address} is lost: {problem}")


def silent(address: object) -> SettingsTimeoutError:
    return SettingsTimeoutError(f"no answer from {address} in time")


class Waker:
    """Ends a wait of another thread, once and for all. The thread that waits gets a ClosedError."""

    def __init__(self) -> None:
        self.is_awake = False
        self.on_wake: Optional[Callable[[], None]] = None  # for waits that are not for descriptors
        self._receiver, self._sender = socket.socketpair()

    def fileno(self) -> int:
        return self._receiver.fileno()

    def wake(self) -> None:
        self.is_awake = True
        self._sender.send(b"w")
        if self.on_wake is not None:
            self.on_wake()

    def close(self) -> None:
        self._receiver.close()
        self._sender.close()

    def sleep(self, until: float, address: object) -> None:
        """Returns at that time, or throws ClosedError."""
        _wait(_make_poll(None, 0, self), until, self, address)


def _make_poll(what: Optional[socket.socket], events: int, waker: Optional[Waker]) -> select.poll:
    poll = select.poll()
    if what is not None:
        poll.register(what, events)
    if waker is not None:
        poll.register(waker.fileno(), select.POLLIN)
    return poll


def _wait(poll: select.poll, deadline: Optional[float], waker: Optional[Waker], address: object) -> bool:
    """False: the deadline has passed."""
    while True:
        milliseconds = None
        if deadline is not None:
            left = deadline - time.monotonic()
            # Rounded up: a wait that ends too early would be repeated with nothing left to wait for.
            milliseconds = 0 if left <= 0 else int(left * 1000) + 1 if left < _MAX_POLL else _MAX_POLL_MS
        ready = poll.poll(milliseconds)
        if waker is not None and any(descriptor == waker.fileno() for descriptor, _ in ready):
            raise ClosedError(f"the watch of {address} was closed")
        if ready:
            return True
        if deadline is not None and time.monotonic() >= deadline:
            return False


class Link:
    """Connects when it is made, by one attempt at each of the host's addresses.

    The resolver of the system, which finds the address of a host's name, keeps to no deadline.
    """

    def __init__(self, address: Address, deadline: Optional[float], waker: Optional[Waker] = None) -> None:
        self._address = address
        self._waker = waker
        self._socket: Optional[socket.socket] = None
        self._readable: Optional[select.poll] = None  # made once, as each call waits for a reply
        problem: Optional[ConnectionLostError] = None
        for candidate in self._find_candidates():
            try:
                self._connect(candidate, deadline)
                return
            except OSError as error:
                if isinstance(error, SettingsTimeoutError):
                    self.close()
                    raise
                problem = unreachable(address, error.strerror or str(error))
                self.close()
            except BaseException:
                self.close()
                raise
        raise problem or unreachable(address, "the host has no address")

    def send(self, data: bytes, deadline: Optional[float]) -> None:
        rest: Union[bytes, memoryview] = data
        while True:
            try:
                sent = (self._socket or self._open()).send(rest, socket.MSG_NOSIGNAL)
                if sent == len(rest):
                    return
                rest = memoryview(rest)[sent:]
            except (BlockingIOError, InterruptedError):
                self._wait_for(self._make_poll(select.POLLOUT), deadline)
            except OSError as error:
                raise lost(self._address, error.strerror or str(error)) from None

    def receive(self, deadline: Optional[float]) -> bytes:
        """At least one byte; nothing at the connection's end."""
        while True:
            if self._readable is None:
                self._readable = self._make_poll(select.POLLIN)
            if not _wait(self._readable, deadline, self._waker, self._address):
                raise silent(self._address)
            try:
                return (self._socket or self._open()).recv(_CHUNK)
            except (BlockingIOError, InterruptedError):
                continue
            except OSError as error:
                raise lost(self._address, error.strerror or str(error)) from None

    def has_news(self) -> bool:
        """Whether receive() returns at once."""
        if self._socket is None or self._readable is None:
            self._readable = self._make_poll(select.POLLIN)
        return bool(self._readable.poll(0))

    def shutdown(self) -> None:
        """Ends a wait of another thread, as if the daemon had ended the connection."""
        connected = self._socket
        if connected is not None:
            try:
                connected.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # it has ended already

    def close(self) -> None:
        connected, self._socket = self._socket, None
        if connected is not None:
            connected.close()

    def _open(self) -> socket.socket:
        connected = self._socket
        if connected is None:
            raise lost(self._address, "it was closed")
        return connected

    def _make_poll(self, events: int) -> select.poll:
        connected = self._open()
        try:
            return _make_poll(connected, events, self._waker)
        except ValueError:  # a signal's handler has closed it in between
            raise lost(self._address, "it was closed") from None

    def _wait_for(self, poll: select.poll, deadline: Optional[float]) -> None:
        if not _wait(poll, deadline, self._waker, self._address):
            raise silent(self._address)

    def _find_candidates(self) -> List[Candidate]:
        known = numeric_candidates(self._address)
        if known is not None:
            return known
        try:
            found = socket.getaddrinfo(self._address.host, self._address.port, type=socket.SOCK_STREAM)
        except OSError as error:
            raise unreachable(self._address, error.strerror or str(error)) from None
        return [(family, place) for family, _, _, _, place in found]

    def _connect(self, candidate: Candidate, deadline: Optional[float]) -> None:
        family, place = candidate
        self._socket = make_socket(family)
        while True:
            failure = self._socket.connect_ex(place)
            if failure != errno.EAGAIN:
                break
            # The queue of a unix socket is full; nothing tells when it is not.
            until = time.monotonic() + _QUEUE_FULL_DELAY
            if deadline is not None and until >= deadline:
                raise silent(self._address)
            _wait(_make_poll(None, 0, self._waker), until, self._waker, self._address)
        if failure in _IN_PROGRESS:
            self._wait_for(_make_poll(self._socket, select.POLLOUT, self._waker), deadline)
            failure = self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        if not failure and is_connected_to_itself(self._socket):
            failure = errno.ECONNREFUSED
        if failure:
            raise OSError(failure, os.strerror(failure))
