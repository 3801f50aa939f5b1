"""Where the daemon is. No state, any thread."""

from __future__ import annotations

import os
from typing import NamedTuple, Optional

DEFAULT_PORT = 7211
VARIABLE = "TAVIX_SETTINGS_SERVER"
FILE_VARIABLE = "TAVIX_SETTINGS_LOCALFILE"
_LABEL = "tavix-settings-server"
_HOSTS = "/etc/hosts"
_UNIX = "unix:"
_MAX_PATH = 107  # sockaddr_un has 108 bytes, one of which ends the path
_MAX_PORT = 65535


class Address(NamedTuple):
    """A socket's path, or else host and port."""

    path: Optional[str]
    host: str
    port: int

    def __str__(self) -> str:
        if self.path is not None:
            return _UNIX + self.path
        return f"[{self.host}]:{self.port}" if ":" in self.host else f"{self.host}:{self.port}"


def find_address(text: Optional[str]) -> Address:
    """HOST, HOST:PORT, [V6], [V6]:PORT or unix:PATH. None: what the variable TAVIX_SETTINGS_SERVER or the hosts
    database say of the daemon, else 127.0.0.1. Throws ValueError, which names the source.

    TAVIX_SETTINGS_LOCALFILE sends programs to a file instead, which this package can't be a store of: without an
    address it is an error, as the daemon's settings are not to be touched then."""
    if text is not None:
        return _parse(text, "address")
    if FILE_VARIABLE in os.environ:
        file = os.environ[FILE_VARIABLE]
        raise ValueError(f"{FILE_VARIABLE} names file {file!r}, which Python can't use: unset it or give an address")
    from_environment = os.environ.get(VARIABLE)
    if from_environment is not None:
        return _parse(from_environment, VARIABLE)
    return Address(None, _find_in_hosts() or "127.0.0.1", DEFAULT_PORT)


def _parse(text: str, source: str) -> Address:
    start = f"{source}: {text!r} is not an endpoint"
    if text.startswith(_UNIX):
        path = text[len(_UNIX) :]
        if not 1 <= len(os.fsencode(path)) <= _MAX_PATH or "\0" in path:
            raise ValueError(f"{start}: the path must have 1 to {_MAX_PATH} bytes")
        return Address(path, "", 0)
    if text.startswith("["):
        host, bracket, rest = text[1:].partition("]")
        if not bracket or (rest and not rest.startswith(":")):
            raise ValueError(f"{start}: expected [ADDRESS] or [ADDRESS]:PORT")
        port = rest[1:] if rest else None
    elif text.count(":") == 1:
        host, _, port = text.partition(":")
    else:
        host, port = text, None  # several colons: a bare IPv6 address
    if port is not None and not (port.isascii() and port.isdigit() and len(port) <= 5 and 1 <= int(port) <= _MAX_PORT):
        raise ValueError(f"{start}: the port must be a number from 1 to {_MAX_PORT}")
    if not host:
        raise ValueError(f"{start}: no host")
    return Address(None, host, DEFAULT_PORT if port is None else int(port))


def _find_in_hosts() -> Optional[str]:
    try:
        with open(_HOSTS, encoding="utf-8", errors="surrogateescape") as hosts:
            lines = hosts.read().splitlines()
    except OSError:
        return None
    for line in lines:
        address, *names = line.partition("#")[0].split() or [""]
        if _LABEL in names:
            return address
    return None
