"""Stands between the client under test and a real daemon: shows the bytes, and cuts the two apart."""

from __future__ import annotations

import os
import socket
import tempfile
from typing import Any, List, Optional

from .failure import Failure
from .hub import LIMIT, Hub
from .trace import Trace

_CHUNK = 1 << 18


class _Pair:
    """One connection of the client, and the one to the daemon that it goes on over."""

    def __init__(self, hub: Hub, near: socket.socket, far: socket.socket, label: str, trace: Trace) -> None:
        self._hub = hub
        self._trace = trace
        self._links = (near, far)
        self._labels = (f"{label} to daemon:", f"daemon to {label}:")
        self.is_open = True
        hub.add(near, lambda: self._pass_on(0))
        hub.add(far, lambda: self._pass_on(1))

    def close(self) -> None:
        if not self.is_open:
            return
        self.is_open = False
        for link in self._links:
            self._hub.remove(link)
            link.close()

    def _pass_on(self, index: int) -> None:
        """Throws Failure if the other side does not read."""
        try:
            data = self._links[index].recv(_CHUNK)
            if data:
                self._trace.note(self._labels[index], data)
                self._links[1 - index].sendall(data)
                return
        except socket.timeout:
            raise Failure(f"{self._labels[index]} nobody has read for {LIMIT:g} s") from None
        except OSError:
            pass
        self._trace.note(self._labels[index], b"<closed>")
        self.close()


class Relay:
    """Listens for the client: on a port of loopback that the kernel picks, or on a unix socket in a folder of its own.

    While it is cut, connections of the client wait to be accepted, as those to a busy daemon do.
    """

    def __init__(self, hub: Hub, trace: Trace, daemon_path: str, is_unix: bool) -> None:
        self._hub = hub
        self._trace = trace
        self._daemon_path = daemon_path
        self._pairs: List[_Pair] = []
        self._folder: Optional[tempfile.TemporaryDirectory[str]] = None
        self._is_cut = False
        if is_unix:
            self._folder = tempfile.TemporaryDirectory(prefix="tavix-relay.")
            path = os.path.join(self._folder.name, "socket")
            self._listener = socket.socket(socket.AF_UNIX)
            self._listener.bind(path)
            self._listener.listen()
            self.address = f"unix:{path}"
        else:
            self._listener = socket.create_server(("127.0.0.1", 0))
            self.address = "%s:%d" % self._listener.getsockname()
        self._listener.setblocking(False)
        hub.add(self._listener, self._accept)

    def __enter__(self) -> Relay:
        return self

    def __exit__(self, *_: Any) -> None:
        if not self._is_cut:
            self.cut()
        self._listener.close()
        if self._folder is not None:
            self._folder.cleanup()

    def cut(self) -> None:
        """Ends all connections of the client, and accepts none."""
        self._is_cut = True
        self._hub.remove(self._listener)
        for pair in self._pairs:
            pair.close()
        self._pairs.clear()

    def restore(self) -> None:
        self._is_cut = False
        self._hub.add(self._listener, self._accept)

    def _accept(self) -> None:
        try:
            near, _ = self._listener.accept()
        except OSError:
            return
        far = socket.socket(socket.AF_UNIX)
        try:
            far.connect(self._daemon_path)
        except OSError:
            far.close()
            near.close()
            return
        near.settimeout(LIMIT)
        far.settimeout(LIMIT)
        self._pairs.append(_Pair(self._hub, near, far, f"connection {len(self._pairs) + 1}", self._trace))
