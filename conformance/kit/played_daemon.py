"""The daemon's end of connections that the runner plays itself."""

from __future__ import annotations

import random
import socket
import time
from collections import deque
from typing import Any, Deque, List, Optional, Tuple

from .failure import Failure
from .hub import LIMIT, Hub
from .requests import Request, RequestReader
from .trace import Trace

_BETWEEN_BYTES = 0.0005  # seconds, so that the client has a chance to see the bytes apart


class Connection:
    """One of the client's connections."""

    def __init__(self, hub: Hub, link: socket.socket, label: str, trace: Trace, arrived: Deque[Tuple[Any, Any]]) -> None:
        self.is_open = True
        self.has_peer_closed = False
        self._hub = hub
        self._link = link
        self._label = label
        self._trace = trace
        self._arrived = arrived
        self._reader = RequestReader()
        link.setblocking(False)
        link.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        hub.add(link, self._receive)

    def send(self, data: bytes, limit: float = LIMIT) -> None:
        """Sends all, or as much as the client takes before it closes the connection."""
        self._trace.note(f"daemon to {self._label}:", data)
        rest = memoryview(data)
        end = time.monotonic() + limit
        while rest and self.is_open:
            try:
                rest = rest[self._link.send(rest) :]
                end = time.monotonic() + limit
            except BlockingIOError:
                if time.monotonic() > end:
                    raise Failure(f"the client has not read for {limit:g} s") from None
                self._hub.run_once(0.01)
            except OSError:
                self._end_of_peer()

    def send_in_pieces(self, pieces: List[bytes]) -> None:
        for piece in pieces:
            self.send(piece)
            self._hub.run_for(_BETWEEN_BYTES)

    def close(self) -> None:
        if self.is_open:
            self._trace.note(f"daemon to {self._label}:", b"<closed>")
            self._drop()

    def _drop(self) -> None:
        self.is_open = False
        self._hub.remove(self._link)
        # What was sent still arrives: it is not to be reset for want of a reader.
        try:
            self._link.shutdown(socket.SHUT_WR)
        except OSError:
            pass
        self._link.close()

    def _end_of_peer(self) -> None:
        if self.is_open:
            self._trace.note(f"{self._label} to daemon:", b"<closed>")
            self.has_peer_closed = True
            self._drop()

    def _receive(self) -> None:
        try:
            data = self._link.recv(1 << 20)
        except BlockingIOError:
            return
        except OSError:
            data = b""
        if not data:
            self._end_of_peer()
            return
        self._trace.note(f"{self._label} to daemon:", data)
        self._arrived.extend((self, request) for request in self._reader.receive(data))


class PlayedDaemon:
    """Listens on a port of loopback that the kernel picks, and keeps the requests that arrive."""

    def __init__(self, hub: Hub, trace: Trace) -> None:
        self.arrived: Deque[Tuple[Connection, Request]] = deque()
        self._connections: List[Connection] = []
        self._hub = hub
        self._trace = trace
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.setblocking(False)
        hub.add(self._listener, self._accept)

    def __enter__(self) -> PlayedDaemon:
        return self

    def __exit__(self, *_: Any) -> None:
        self.close_connections()
        self._hub.remove(self._listener)
        self._listener.close()

    @property
    def address(self) -> str:
        return "%s:%d" % self._listener.getsockname()

    def close_connections(self) -> None:
        for connection in self._connections:
            connection.close()
        self._connections.clear()
        self.arrived.clear()

    def take(self, wanted: Request) -> Optional[Connection]:
        """Takes the oldest request that means this."""
        for entry in self.arrived:
            if entry[1].means(wanted):
                self.arrived.remove(entry)
                return entry[0]
        return None

    def _accept(self) -> None:
        try:
            link, _ = self._listener.accept()
        except OSError:
            return
        label = f"connection {len(self._connections) + 1}"
        self._connections.append(Connection(self._hub, link, label, self._trace, self.arrived))


def cut_in_pieces(data: bytes, play: str, numbers: random.Random) -> List[bytes]:
    """Whole, single bytes, or pieces of random length."""
    if play == "bytes":
        return [data[at : at + 1] for at in range(len(data))]
    if play != "random":
        return [data]
    pieces: List[bytes] = []
    while data:
        size = numbers.randint(1, 9)
        pieces.append(data[:size])
        data = data[size:]
    return pieces
