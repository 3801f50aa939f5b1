"""Settings text (docs/settings-text.md), as the runner reads and writes it itself."""

from __future__ import annotations

import re
from typing import Dict, List, Match

Document = Dict[bytes, Dict[bytes, bytes]]

_escape = re.compile(rb"\\(?:([\\nrts])|x([0-9A-Fa-f]{2}))")
_named = {b"\\": b"\\", b"n": b"\n", b"r": b"\r", b"t": b"\t", b"s": b" "}
_setting = re.compile(rb"((?:[^\\=]|\\.)*?)=(.*)", re.DOTALL)
_special = re.compile(rb"[\x00-\x20\x7f\\=\[\]#;]")


def parse(text: bytes) -> Document:
    """Throws ValueError."""
    document: Document = {}
    group = None
    if text.startswith(b"\xef\xbb\xbf"):
        text = text[3:]
    for number, whole in enumerate(text.split(b"\n"), 1):
        line = (whole[:-1] if whole.endswith(b"\r") else whole).strip(b" \t")
        if not line or line[:1] in b"#;":
            continue
        if line.startswith(b"["):
            if not line.endswith(b"]"):
                raise ValueError(f"line {number} of a payload is no settings text: {line!r}")
            group = document.setdefault(_unescape(line[1:-1]), {})
            continue
        found = _setting.fullmatch(line)
        if not found or group is None:
            raise ValueError(f"line {number} of a payload is no settings text: {line!r}")
        group[_unescape(found[1].rstrip(b" \t"))] = _unescape(found[2].lstrip(b" \t"))
    return document


def write(document: Document) -> bytes:
    """Escapes more than the daemon does: all that may mean anything."""
    lines: List[bytes] = []
    for name in sorted(document):
        lines.append(b"[%b]\n" % _spell(name))
        lines += [b"%b=%b\n" % (_spell(key), _spell(value)) for key, value in sorted(document[name].items())]
    return b"".join(lines)


def _spell(text: bytes) -> bytes:
    return _special.sub(lambda found: b"\\x%02x" % found[0][0], text)


def _unescape(text: bytes) -> bytes:
    return _escape.sub(_unescape_match, text)


def _unescape_match(found: Match[bytes]) -> bytes:
    return _named[found[1]] if found[1] else bytes((int(found[2], 16),))
