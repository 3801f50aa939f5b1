"""A daemon of a test's own."""

from __future__ import annotations

import os
import select
import shutil
import signal
import subprocess
import tempfile
import time
from pathlib import Path
from types import TracebackType
from typing import List, Optional, Type

from .._names import AnyDocument, to_document
from .._text import format_text

PROGRAM_VARIABLE = "TAVIX_SETTINGS_SERVER_PROGRAM"
_PROGRAM = "tavix-settings-server"
_LISTENING = b"tavix-settings-server: listening on "
_EXIT_ADDRESS_IN_USE = 69
_LIMIT = 60.0  # seconds for its start and its end; generous, since machines of tests stand still at times


class RealDaemon:
    """Runs tavix-settings-server on a free port of loopback, with its files in a folder that goes with it.

    defaults, restricted: the device's settings. options: more of the daemon's own.
    program: the daemon; None: what the variable TAVIX_SETTINGS_SERVER_PROGRAM says, or what PATH finds.

    Use it in a with statement. Threads: one at a time. Errors: OSError; RuntimeError with what the daemon printed.
    """

    def __init__(
        self,
        defaults: Optional[AnyDocument] = None,
        restricted: Optional[AnyDocument] = None,
        *,
        options: Optional[List[str]] = None,
        program: Optional[str] = None,
    ) -> None:
        self._program = program or os.environ.get(PROGRAM_VARIABLE) or shutil.which(_PROGRAM) or _PROGRAM
        self._documents = {"defaults": to_document(defaults), "restricted": to_document(restricted)}
        self._options = options or []
        self._folder: Optional[str] = None
        self._process: Optional[subprocess.Popen[bytes]] = None
        self._port = 0
        self.address = ""  # as connect() takes it; the same after a restart

    @staticmethod
    def is_installed() -> bool:
        """Whether there is a daemon to run."""
        return bool(os.environ.get(PROGRAM_VARIABLE) or shutil.which(_PROGRAM))

    def __enter__(self) -> RealDaemon:
        self._folder = tempfile.mkdtemp(prefix="tavix-settings.")
        try:
            for name, document in self._documents.items():
                (Path(self._folder) / f"{name}.ini").write_bytes(format_text(document))
            self.start()
        except BaseException:
            self._clean_up()
            raise
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self._clean_up()

    def start(self) -> None:
        """Starts it again after stop() or kill(); what users set is still there."""
        assert self._folder is not None, "use it in a with statement"
        folder = Path(self._folder)
        command = [self._program, "--config", os.devnull, "--listen", f"127.0.0.1:{self._port}"]
        command += ["--defaults", str(folder / "defaults.ini"), "--restricted", str(folder / "restricted.ini")]
        command += ["--user-settings", str(folder / "user.ini"), *self._options]
        deadline = time.monotonic() + _LIMIT
        while True:
            with open(folder / "log", "ab") as log:
                self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log)
            address = self._read_address(deadline)
            if address is not None:
                break
            # Any connection of the machine may have been given the port meanwhile.
            status = self._end(signal.SIGKILL)
            if status != _EXIT_ADDRESS_IN_USE or not self._port or time.monotonic() >= deadline:
                raise RuntimeError(f"{self._program} does not say where it listens: {self._read_log()}")
            time.sleep(0.1)  # nobody tells when a port is free again
        self.address = address
        self._port = int(address.rpartition(":")[2])

    def stop(self) -> None:
        """Ends it in order."""
        self._end(signal.SIGTERM)

    def kill(self) -> None:
        """Ends it as a crash would."""
        self._end(signal.SIGKILL)

    def pause(self) -> None:
        """It stands still until resume()."""
        assert self._process is not None
        self._process.send_signal(signal.SIGSTOP)

    def resume(self) -> None:
        assert self._process is not None
        self._process.send_signal(signal.SIGCONT)

    def _read_address(self, deadline: float) -> Optional[str]:
        assert self._process is not None and self._process.stdout is not None
        output = self._process.stdout
        line = b""
        while not line.endswith(b"\n"):
            ready, _, _ = select.select([output], [], [], max(0.0, deadline - time.monotonic()))
            byte = os.read(output.fileno(), 1) if ready else b""
            if not byte:
                return None
            line += byte
        return line[len(_LISTENING) :].decode().strip() if line.startswith(_LISTENING) else None

    def _read_log(self) -> str:
        assert self._folder is not None
        return (Path(self._folder) / "log").read_text(errors="replace")

    def _end(self, number: int) -> int:
        """Returns the exit status, 0 where nothing ran."""
        process, self._process = self._process, None
        if process is None:
            return 0
        process.send_signal(number)
        process.send_signal(signal.SIGCONT)
        try:
            return process.wait(_LIMIT)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
            raise
        finally:
            assert process.stdout is not None
            process.stdout.close()

    def _clean_up(self) -> None:
        try:
            self.kill()
        finally:
            if self._folder is not None:
                shutil.rmtree(self._folder, ignore_errors=True)
                self._folder = None
