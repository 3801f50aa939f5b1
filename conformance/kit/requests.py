"""Requests of the protocol as they arrive: bytes in, requests out."""

from __future__ import annotations

import re
from typing import Any, Iterable, List, NamedTuple, Tuple

from . import text
from .failure import Failure

_LIST, _PAYLOAD = "list", "payload"

# What follows each command.
PARTS = {
    b"get": (_LIST,),
    b"subscribe": (_LIST,),
    b"restore": (_LIST,),
    b"merge": (_PAYLOAD,),
    b"test-and-merge": (_PAYLOAD, _PAYLOAD),
    b"overwrite": (_LIST, _PAYLOAD),
    b"amend": (_PAYLOAD,) * 5,
    b"dump": (),
    b"info": (),
    b"serialize": (),
    b"quit": (),
}
WRITES = (b"merge", b"test-and-merge", b"overwrite", b"restore", b"amend")


class Request(NamedTuple):
    """words: of the command's line. parts: lists as sorted names, payloads as documents: two requests that mean the
    same are equal, however they are spelled."""

    words: Tuple[bytes, ...]
    parts: Tuple[Any, ...]
    text: bytes

    def means(self, other: Request) -> bool:
        return self.words == other.words and self.parts == other.parts

    @property
    def is_write(self) -> bool:
        return self.words[0] in WRITES


class RequestReader:
    """Of one connection."""

    def __init__(self) -> None:
        self._buffer = b""
        self._words: Tuple[bytes, ...] = ()
        self._lines: List[bytes] = []  # of the part that has begun
        self._parts: List[Any] = []
        self._text = b""

    @property
    def is_inside_request(self) -> bool:
        return bool(self._words or self._buffer)

    def receive(self, data: bytes) -> List[Request]:
        """Throws Failure for what is no request."""
        self._buffer += data
        *lines, self._buffer = self._buffer.split(b"\n")
        requests: List[Request] = []
        for line in lines:
            self._take_line(line)
            if self._words and len(self._parts) == len(PARTS[self._words[0]]):
                requests.append(Request(self._words, tuple(self._parts), self._text))
                self._words, self._parts, self._text = (), [], b""
        return requests

    def _take_line(self, line: bytes) -> None:
        self._text += line + b"\n"
        if self._words:
            if line == b".":
                self._parts.append(self._make_part(PARTS[self._words[0]][len(self._parts)]))
                self._lines = []
            else:
                self._lines.append(line)
            return
        words = tuple(line.split())
        if not words or words[0] not in PARTS:
            raise Failure(f"the client sent a line that is no command: {line!r}")
        self._words = words

    def _make_part(self, kind: str) -> Any:
        if kind == _LIST:
            return tuple(sorted(set(self._lines)))
        try:
            return text.parse(b"\n".join(self._lines))
        except ValueError as error:
            raise Failure(f"the client sent a payload that can't be read: {error}") from None


def parse_request(data: bytes) -> Request:
    """Throws Failure unless it is one whole request."""
    requests = RequestReader().receive(data)
    if len(requests) != 1:
        raise Failure(f"this is not one whole request: {data!r}")
    return requests[0]


def is_match(name: bytes, names_and_patterns: Iterable[bytes]) -> bool:
    """Each "*" of a pattern stands for any run of bytes."""
    for pattern in names_and_patterns:
        parts = [re.escape(part) for part in pattern.split(b"*")]
        if re.fullmatch(b".*".join(parts), name, re.DOTALL):
            return True
    return False
