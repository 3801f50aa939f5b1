"""Settings text (docs/settings-text.md), as bytes.

Documents are dictionaries of groups, each a dictionary of keys with values, all of them bytes, or str where that is
said. No state, any thread.
"""

from __future__ import annotations

import re
from typing import AnyStr, Callable, Dict, Iterable, Match, Optional

from ._errors import ParseError

RawGroup = Dict[bytes, bytes]
RawDocument = Dict[bytes, RawGroup]
Document = Dict[str, Dict[str, str]]

_BLANKS = b" \t"
_BYTE_ORDER_MARK = b"\xef\xbb\xbf"
_MAX_SHOWN = 80

_escape = re.compile(rb"\\(?:([\\nrts])|x([0-9A-Fa-f]{2}))")
_unescaped = {b"\\": b"\\", b"n": b"\n", b"r": b"\r", b"t": b"\t", b"s": b" "}
_key_before_equals = re.compile(rb"([^\\=]*(?:\\.[^\\=]*)*)=", re.DOTALL)

_named_escapes = {b"\\": b"\\\\", b"\n": b"\\n", b"\r": b"\\r", b"\t": b"\\t"}
_special_of_values = re.compile(rb"[\x00-\x1f\x7f\\]|^ | \Z")
_special_of_names = re.compile(rb"[\x00-\x1f\x7f\\\]]")
_special_of_keys = re.compile(rb"[\x00-\x1f\x7f\\=]|^[ \[#;]| \Z")


def parse_text(text: bytes, source: str, first_line: int = 1) -> RawDocument:
    """Reads a whole text. Throws ParseError, which names source and line and counts from first_line on."""
    plain = _parse_plain_bytes(text)
    return _parse_lines(text, source, first_line) if plain is None else plain


def parse_strings(text: bytes, source: str, first_line: int = 1) -> Document:
    """The same as str, in which each byte survives."""
    plain = _parse_plain_text(text.decode("utf-8", "surrogateescape"))
    return decode_document(_parse_lines(text, source, first_line)) if plain is None else plain


def to_text(raw: bytes) -> str:
    """Every byte survives, and comes back by encoding it likewise."""
    return raw.decode("utf-8", "surrogateescape")


def decode_document(document: RawDocument) -> Document:
    return {
        to_text(name): {to_text(key): to_text(value) for key, value in values.items()}
        for name, values in document.items()
    }


def _make_plain_parser(
    convert: Callable[[str], AnyStr]
) -> Callable[[AnyStr], Optional[Dict[AnyStr, Dict[AnyStr, AnyStr]]]]:
    """What reads a text without escapes, comments, and blanks that belong to no value, as most are. It returns None for
    one that is not so plain, or no settings text. convert: spells its constants."""
    backslash, tab, carriage_return = map(convert, ("\\", "\t", "\r"))
    line_feed, next_header, end_of_header = map(convert, ("\n", "\n[", "]"))
    first, last = convert("[")[0], line_feed[0]
    setting = convert(r"^([^ #;=\n][^=\n]*(?<! ))=(?! )([^\n]*)(?<! )$")
    find_settings = re.compile(setting, re.MULTILINE).findall

    def parse(text: AnyStr) -> Optional[Dict[AnyStr, Dict[AnyStr, AnyStr]]]:
        document: Dict[AnyStr, Dict[AnyStr, AnyStr]] = {}
        if not text:
            return document
        if text[0] != first or text[-1] != last or backslash in text or tab in text or carriage_return in text:
            return None
        for part in text[1:-1].split(next_header):
            head, separator, body = part.partition(line_feed)
            settings = find_settings(body)
            if not head.endswith(end_of_header) or (separator and len(settings) != body.count(line_feed) + 1):
                return None
            document.setdefault(head[:-1], {}).update(settings)
        return document

    return parse


_parse_plain_bytes = _make_plain_parser(str.encode)
_parse_plain_text = _make_plain_parser(str)


def _parse_lines(text: bytes, source: str, first_line: int) -> RawDocument:
    document: RawDocument = {}
    group = None
    has_escapes = b"\\" in text  # rare: looked for once, not in every line
    if text.startswith(_BYTE_ORDER_MARK):
        text = text[len(_BYTE_ORDER_MARK) :]
    for number, whole in enumerate(text.split(b"\n"), first_line):
        line = (whole[:-1] if whole.endswith(b"\r") else whole).strip(_BLANKS)
        if not line or line[0] in b"#;":
            continue
        if line[0] == ord("["):
            if not line.endswith(b"]"):
                raise ParseError(source, number, f'expected "[group]" or "key=value", found "{_show(line)}"')
            group = document.setdefault(_unescape(line[1:-1]), {})
            continue
        key, separator, value = _split_escaped(line) if has_escapes and b"\\" in line else line.partition(b"=")
        if not separator:
            raise ParseError(source, number, f'expected "[group]" or "key=value", found "{_show(line)}"')
        if group is None:
            raise ParseError(source, number, f'expected "[group]" before the first "key=value", found "{_show(line)}"')
        key, value = key.rstrip(_BLANKS), value.lstrip(_BLANKS)
        if has_escapes:
            key, value = _unescape(key), _unescape(value)
        group[key] = value
    return document


def format_text(document: RawDocument) -> bytes:
    """The canonical text, which every document survives. No line of it is a single dot."""
    lines = []
    for name in sorted(document):
        lines.append(b"[%b]\n" % _special_of_names.sub(_escape_match, name))
        group = document[name]
        for key in sorted(group):
            value = _special_of_values.sub(_escape_blank_or_byte, group[key])
            lines.append(b"%b=%b\n" % (_special_of_keys.sub(_escape_blank_or_byte, key), value))
    return b"".join(lines)


def longest_line(lines: Iterable[bytes]) -> int:
    """In bytes, 0 where there is none."""
    return max(map(len, lines), default=0)


def _split_escaped(line: bytes) -> tuple[bytes, bytes, bytes]:
    # A "=" behind a backslash does not end the key, whether the two are an escape or not.
    found = _key_before_equals.match(line)
    return (found.group(1), b"=", line[found.end() :]) if found else (line, b"", b"")


def _unescape(text: bytes) -> bytes:
    return _escape.sub(_unescape_match, text) if b"\\" in text else text


def _unescape_match(found: Match[bytes]) -> bytes:
    named = found.group(1)
    return _unescaped[named] if named else bytes((int(found.group(2), 16),))


def _escape_match(found: Match[bytes]) -> bytes:
    byte = found.group()
    return _named_escapes.get(byte) or b"\\x%02x" % ord(byte)


def _escape_blank_or_byte(found: Match[bytes]) -> bytes:
    return b"\\s" if found.group() == b" " else _escape_match(found)


def _show(line: bytes) -> str:
    shown = line[:_MAX_SHOWN].decode("utf-8", "backslashreplace") + ("..." if len(line) > _MAX_SHOWN else "")
    return "".join(f"\\x{ord(c):02x}" if ord(c) < 0x20 or ord(c) == 0x7F else c for c in shown)
