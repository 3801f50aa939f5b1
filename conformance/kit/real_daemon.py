"""A daemon of the runner's own: in its own temporary folder, on a unix socket there."""

from __future__ import annotations

import ctypes
import os
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path
from typing import Any, List, Optional, Tuple

from . import text
from .failure import Failure
from .hub import LIMIT


_PR_SET_PDEATHSIG = 1
_prctl = getattr(ctypes.CDLL(None), "prctl", None)  # Linux's


def _end_with_parent() -> None:
    """In the child: a runner that is killed leaves no daemon."""
    if _prctl is not None:
        _prctl(_PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


class RealDaemon:
    """Runs it. Use it in a with statement."""

    def __init__(self, program: str, defaults: text.Document, restricted: text.Document) -> None:
        self._program = program
        self._process: Optional[subprocess.Popen[bytes]] = None
        self._folder = Path(tempfile.mkdtemp(prefix="tavix-conformance."))
        (self._folder / "defaults.ini").write_bytes(text.write(defaults))
        (self._folder / "restricted.ini").write_bytes(text.write(restricted))
        self.path = str(self._folder / "socket")

    def __enter__(self) -> RealDaemon:
        try:
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: Any) -> None:
        try:
            self.end(signal.SIGKILL)
        finally:
            shutil.rmtree(self._folder, ignore_errors=True)

    def start(self) -> None:
        """Starts it again after end(); what clients set to be kept is still there. Throws Failure."""
        folder = self._folder
        command = [self._program, "--config", os.devnull, "--listen", f"unix:{self.path}"]
        command += ["--defaults", str(folder / "defaults.ini"), "--restricted", str(folder / "restricted.ini")]
        command += ["--user-settings", str(folder / "user.ini"), "--durability", "none"]
        with open(folder / "log", "ab") as log:
            self._process = subprocess.Popen(
                command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log, preexec_fn=_end_with_parent
            )
        assert self._process.stdout
        ready, _, _ = select.select([self._process.stdout], [], [], LIMIT)
        if not ready or not self._process.stdout.readline().startswith(b"tavix-settings-server: listening on "):
            raise Failure(f"{self._program} does not start:\n{self.read_log()}")

    def end(self, number: int) -> None:
        process, self._process = self._process, None
        if process is None:
            return
        process.send_signal(number)
        try:
            process.wait(LIMIT)
        finally:
            process.kill()
            process.wait()
            assert process.stdout
            process.stdout.close()

    def read_log(self) -> str:
        return (self._folder / "log").read_text(errors="replace")


class Peer:
    """Another client of the daemon: the runner's own connection, on which it waits for each reply."""

    def __init__(self, path: str) -> None:
        self._link = socket.socket(socket.AF_UNIX)
        self._link.settimeout(LIMIT)
        self._link.connect(path)
        self._file = self._link.makefile("rb")

    def __enter__(self) -> Peer:
        return self

    def __exit__(self, *_: Any) -> None:
        self._file.close()
        self._link.close()

    def write(self, requests: bytes) -> None:
        """Returns when the daemon has carried them out. None of them has a reply."""
        self._link.sendall(requests)
        self.get([])

    def get(self, names: List[bytes]) -> text.Document:
        self._link.sendall(b"get delimited\n" + b"".join(name + b"\n" for name in names) + b".\n")
        self._require(b"data")
        return self._read_document()

    def dump(self) -> text.Document:
        self._link.sendall(b"dump\n")
        return self._read_document()

    def features(self) -> Tuple[str, ...]:
        """Of the daemon; an older one has none."""
        self._link.sendall(b"info features\nget delimited\n.\n")
        found: List[str] = []
        line = self._line()
        if line != b"data":  # a title, and dashes
            self._line()
            while line := self._line():
                found.append(line.split()[0].decode())
            self._require(b"data")
        self._read_document()
        return tuple(found)

    def _require(self, wanted: bytes) -> None:
        line = self._line()
        if line != wanted:
            raise Failure(f"the daemon answered {line!r} where {wanted!r} was due")

    def _read_document(self) -> text.Document:
        lines: List[bytes] = []
        while (line := self._line()) != b".":
            lines.append(line)
        return text.parse(b"\n".join(lines))

    def _line(self) -> bytes:
        line = self._file.readline()
        if not line.endswith(b"\n"):
            raise Failure("the daemon has ended the runner's connection")
        return line[:-1]


def wait_until(is_done: Any, what: str) -> None:
    """Asks again and again: for what the daemon announces to nobody."""
    end = time.monotonic() + LIMIT
    while not is_done():
        if time.monotonic() > end:
            raise Failure(f"waited {LIMIT:g} s for {what}")
        time.sleep(0.01)
