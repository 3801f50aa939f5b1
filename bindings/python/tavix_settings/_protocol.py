"""The settings protocol (docs/protocol.md) without input and output: bytes in, events out. No socket, no clock.

A client's end of one connection: it knows which replies are due, and makes events of what arrives. The functions at the
end write requests.

Threads: one at a time.
Errors:  ParseError from receive(); the connection is of no use after that, as nobody knows where the next reply begins.
"""

from __future__ import annotations

import enum
from collections import deque
from typing import Deque, Iterable, List, NamedTuple, Optional, Tuple, Union

from ._errors import ParseError
from ._text import RawDocument, format_text, longest_line, parse_strings, parse_text

MAX_LINE = 16 * 1024 * 1024
MAX_REPLY = 64 * 1024 * 1024

_NOTICE = b"async change"
_NOTICE_LINE = b"async change\n"
_DATA = b"data\n"
_END = b".\n"
_END_OF_BLOCK = b"\n.\n"
_UNDERLINE = b"-"


class Form(enum.Enum):
    """What a request is answered with."""

    DATA = "data"  # a line "data", and a document
    STRINGS = "data as str"  # the same; its Reply has str for bytes
    RESULT = "result"  # a line "result", and "ok" or "failure"
    TEXT = "text"  # settings text, taken as it is
    INFO = "info"  # title, underline, lines, an empty line; an older daemon answers nothing. A DATA is due behind it


_DATA_FORMS = (Form.DATA, Form.STRINGS)


class Reply(NamedTuple):
    """value: a document, bool, bytes, or for INFO a tuple of lines, or None where there was no answer."""

    value: object


class Notice(NamedTuple):
    """Groups that have changed, and what they hold now. Those that settings lacks are gone."""

    groups: Tuple[bytes, ...]
    settings: RawDocument


Event = Union[Reply, Notice]


class _Part(enum.Enum):
    """Where in a message the next byte stands. A message is HEADER, then one of DOCUMENT, RESULT, TEXT and INFO, or
    NOTICE_LIST and NOTICE_DOCUMENT."""

    HEADER = 0
    DOCUMENT = 1
    RESULT = 2
    TEXT = 3
    INFO = 4
    NOTICE_LIST = 5
    NOTICE_DOCUMENT = 6


class Protocol:
    """source: where the bytes come from, for error texts. Bounds are in bytes; a reply is a notice, too."""

    def __init__(self, source: str, max_line: int = MAX_LINE, max_reply: int = MAX_REPLY) -> None:
        self.source = source
        self._max_line = max_line
        self._max_reply = max_reply
        self._max_whole = min(max_line, max_reply)
        self._due: Deque[Form] = deque()
        self._buffer = bytearray()
        self._part = _Part.HEADER
        self._searched = 0  # of the buffer, in which no end of the part was found
        self._unended = 0  # bytes since the last line feed
        self._part_bytes = 0  # of the message's parts that have left the buffer
        self._lines = 0  # that have left the buffer
        self._groups: Tuple[bytes, ...] = ()

    def expect(self, forms: Iterable[Form]) -> None:
        """Requests with these replies are sent next."""
        self._due.extend(forms)

    @property
    def due(self) -> int:
        """How many replies are to come."""
        return len(self._due)

    @property
    def is_inside_message(self) -> bool:
        """Whether a part of a message has arrived, and the rest has not."""
        return bool(self._buffer) or self._part is not _Part.HEADER

    @property
    def is_busy(self) -> bool:
        """Whether a reply is due, in part or whole."""
        return bool(self._due) or self.is_inside_message

    def receive(self, data: bytes) -> List[Event]:
        """Takes what has arrived; returns what it completes, in order."""
        events: List[Event] = []
        if self._part is _Part.HEADER and not self._buffer and len(data) <= self._max_whole:
            taken = self._take_whole_messages(data, events)
            if taken == len(data):
                return events
            data = data[taken:]
        newline = data.rfind(b"\n")
        if self._unended + (len(data) if newline < 0 else data.find(b"\n")) > self._max_line:
            raise self._failure(f"a line is longer than {self._max_line} bytes")
        self._unended = self._unended + len(data) if newline < 0 else len(data) - newline - 1
        self._buffer += data
        while self._take_part(events):
            pass
        self._require_bounded(len(self._buffer))
        if self._unended > self._max_line:
            raise self._failure(f"a line is longer than {self._max_line} bytes")
        return events

    def _take_whole_messages(self, data: bytes, events: List[Event]) -> int:
        """Documents and notices that have arrived whole, as nearly all do, between messages; no line or message of the
        data can be too long. Returns how much of the data they were."""
        begin = 0
        due = self._due
        while begin < len(data):
            end_of_list = begin
            if due and due[0] in _DATA_FORMS and data.startswith(_DATA, begin):
                start = begin + len(_DATA)
            elif data.startswith(_NOTICE_LINE, begin):
                end_of_list = data.find(_END_OF_BLOCK, begin + len(_NOTICE))
                start = end_of_list + len(_END_OF_BLOCK)
            else:
                break
            end = data.find(_END_OF_BLOCK, start - 1)
            if end < 0 or end_of_list < 0:
                break
            text = data[start : end + 1]
            first_line = self._lines + data.count(b"\n", begin, start) + 1
            if end_of_list > begin:
                groups = tuple(data[begin + len(_NOTICE_LINE) : end_of_list + 1].split(b"\n")[:-1])
                events.append(Notice(groups, parse_text(text, self.source, first_line)))
            else:
                parse = parse_strings if due.popleft() is Form.STRINGS else parse_text
                events.append(Reply(parse(text, self.source, first_line)))
            self._lines = first_line + text.count(b"\n")
            begin = end + len(_END_OF_BLOCK)
        return begin

    def _take_part(self, events: List[Event]) -> bool:
        part = self._part
        if part in (_Part.HEADER, _Part.RESULT):
            text = self._cut(b"\n", 1)
        elif part is _Part.INFO:
            text = self._cut_block(b"\n")
        else:
            text = self._cut_block(_END)
        if text is None:
            return False
        first_line = self._lines + 1
        if part is _Part.HEADER:
            self._take_header(text[:-1], events)
        elif part is _Part.NOTICE_LIST:
            self._groups = tuple(text.split(b"\n")[:-1])
            self._begin(_Part.NOTICE_DOCUMENT)
        else:
            events.append(self._take_last_part(part, text, first_line))
            self._part_bytes = 0
            self._begin(_Part.HEADER)
        # The line behind a block ends it and is not in its text.
        self._lines += 1 if part in (_Part.HEADER, _Part.RESULT) else text.count(b"\n") + 1
        return True

    def _take_header(self, line: bytes, events: List[Event]) -> None:
        if line == _NOTICE:
            self._begin(_Part.NOTICE_LIST)
            return
        if line == b"data" and self._due and self._due[0] is Form.INFO:
            # No title: the daemon does not know the word, and this is the reply of the request behind it.
            self._due.popleft()
            events.append(Reply(None))
        form = self._due[0] if self._due else None
        if form is Form.INFO:
            self._begin(_Part.INFO)
        elif form is Form.TEXT:
            self._uncut(line)
            self._begin(_Part.TEXT)
        elif form in _DATA_FORMS and line == b"data":
            self._begin(_Part.DOCUMENT)
        elif form is Form.RESULT and line == b"result":
            self._begin(_Part.RESULT)
        else:
            expected = '"data"' if form in _DATA_FORMS else f'"{form.value}"' if form else "a notice"
            raise self._failure(f"expected {expected}, found {_show(line)}")

    def _take_last_part(self, part: _Part, text: bytes, first_line: int) -> Event:
        if part is _Part.NOTICE_DOCUMENT:
            return Notice(self._groups, parse_text(text, self.source, first_line))
        form = self._due.popleft()
        if part is _Part.DOCUMENT:
            parse = parse_strings if form is Form.STRINGS else parse_text
            return Reply(parse(text, self.source, first_line))
        if part is _Part.TEXT:
            return Reply(text)
        if form is Form.INFO:
            return Reply(self._parse_info(text))
        if text not in (b"ok\n", b"failure\n"):
            raise self._failure(f'expected "ok" or "failure", found {_show(text[:-1])}')
        return Reply(text == b"ok\n")

    def _parse_info(self, text: bytes) -> Tuple[bytes, ...]:
        underline, *lines = (text or b"\n").split(b"\n")[:-1]
        if underline.strip(_UNDERLINE):
            raise self._failure(f"expected a line of dashes below a title, found {_show(underline)}")
        return tuple(lines)

    def _begin(self, part: _Part) -> None:
        self._part = part
        self._searched = 0

    def _cut(self, end: bytes, keep: int) -> Optional[bytes]:
        """Takes the text up to "end" off the buffer, with "keep" bytes of that."""
        found = self._buffer.find(end, self._searched)
        if found < 0:
            self._searched = max(0, len(self._buffer) - len(end) + 1)
            return None
        self._require_bounded(found + len(end))
        text = bytes(self._buffer[: found + keep])
        del self._buffer[: found + len(end)]
        self._part_bytes += found + len(end)
        self._searched = 0
        return text

    def _cut_block(self, end_line: bytes) -> Optional[bytes]:
        """Takes the lines before "end_line", which goes, too."""
        if self._buffer.startswith(end_line):
            del self._buffer[: len(end_line)]
            self._part_bytes += len(end_line)
            return b""
        text = self._cut(b"\n" + end_line, 1)
        if text is not None and len(text) > self._max_line and longest_line(text.split(b"\n")) > self._max_line:
            raise self._failure(f"a line is longer than {self._max_line} bytes")
        return text

    def _uncut(self, line: bytes) -> None:
        self._buffer[:0] = line + b"\n"
        self._part_bytes -= len(line) + 1
        self._lines -= 1

    def _require_bounded(self, size: int) -> None:
        if self._part_bytes + size > self._max_reply:
            raise self._failure(f"a reply is longer than {self._max_reply} bytes")

    def _failure(self, problem: str) -> ParseError:
        return ParseError(self.source, self._lines + 1, problem)


def _show(line: bytes) -> str:
    return ascii(line[:80].decode("utf-8", "replace"))


def list_lines(names: Iterable[bytes]) -> bytes:
    return b"\n".join([*names, _END])


def payload(document: RawDocument) -> bytes:
    return format_text(document) + _END


def get_request(names: Iterable[bytes]) -> bytes:
    return b"\n".join([b"get delimited", *names, _END])


def merge_request(change: RawDocument, persist: bool) -> bytes:
    return (b"merge\n" if persist else b"merge nopersist\n") + payload(change)


def test_and_merge_request(test: RawDocument, change: RawDocument) -> bytes:
    return b"test-and-merge\n" + payload(test) + payload(change)


def amend_request(parts: Iterable[RawDocument]) -> bytes:
    """parts: present, absent, set, unset, replace."""
    return b"amend\n" + b"".join(payload(part) for part in parts)


def overwrite_request(names: Iterable[bytes], change: RawDocument) -> bytes:
    return b"overwrite\n" + list_lines(names) + payload(change)


def restore_request(names: Iterable[bytes]) -> bytes:
    return b"restore\n" + list_lines(names)


def subscribe_request(names: Iterable[bytes]) -> bytes:
    return b"subscribe\n" + list_lines(names)


def info_request(word: bytes) -> bytes:
    """An older daemon does not answer: a request that it answers comes behind, which the caller adds."""
    return b"info " + word + b"\n"


END_OF_LIST = _END
DUMP_REQUEST = b"dump\n"
EMPTY_GET_REQUEST = get_request(())
