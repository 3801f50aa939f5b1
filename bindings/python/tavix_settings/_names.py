"""What callers pass and get: str or bytes, checked and converted. No state, any thread."""

from __future__ import annotations

from typing import Iterable, List, Mapping, Optional, Union

from ._text import RawDocument, RawGroup

Name = Union[str, bytes]
Names = Union[str, bytes, Iterable[Name]]
# The keys of a Mapping are of one type, so that each kind of dictionary is named.
AnyValues = Union[Mapping[str, Name], Mapping[bytes, Name]]
AnyDocument = Union[Mapping[str, AnyValues], Mapping[bytes, AnyValues]]
AnyKeys = Union[Mapping[str, Names], Mapping[bytes, Names]]

MAX_LINE = 16 * 1024 * 1024
_RESTRICTED = (b"Secure", b"Trusted")


def to_bytes(text: Name, what: str) -> bytes:
    """Throws TypeError, which says what it is that is neither str nor bytes."""
    if isinstance(text, str):
        return text.encode("utf-8", "surrogateescape")
    if isinstance(text, bytes):
        return text
    raise TypeError(f"{what} must be str or bytes, not {type(text).__name__}")


def to_name(name: Name) -> bytes:
    """A group's name or a pattern, as it stands on a line. Throws ValueError for what no line can hold."""
    raw = to_bytes(name, "a group's name")
    if b"\n" in raw or raw == b".":
        raise ValueError(f"the name {name!r} can't be sent: it can't stand on a line of its own")
    if len(raw) > MAX_LINE:
        raise ValueError(f"a name of {len(raw)} bytes can't be sent: a line has {MAX_LINE} at most")
    return raw


def to_names(names: Names) -> List[bytes]:
    """One name, or several; each once, in order."""
    if isinstance(names, (str, bytes)):
        return [to_name(names)]
    return list(dict.fromkeys(map(to_name, names)))


def to_values(group: Name, values: AnyValues) -> RawGroup:
    """Throws TypeError, which names group and key, for a value that is neither str nor bytes."""
    raw: RawGroup = {}
    for key, value in values.items():
        raw_key = to_bytes(key, f"a key of group {group!r}")
        raw[raw_key] = to_bytes(value, f"the value of group {group!r}, key {key!r},")
        if len(raw_key) + len(raw[raw_key]) >= MAX_LINE:
            raise ValueError(f"group {group!r}, key {key!r} can't be sent: a line has {MAX_LINE} bytes at most")
    return raw


def to_document(document: Optional[AnyDocument]) -> RawDocument:
    return {to_name(group): to_values(group, values) for group, values in (document or {}).items()}


def to_keys(groups: Optional[AnyKeys]) -> RawDocument:
    """Groups with keys alone, as the payloads that look at no value have them."""
    return {
        to_name(group): {
            to_bytes(key, f"a key of group {group!r}"): b""
            for key in ([keys] if isinstance(keys, (str, bytes)) else keys)
        }
        for group, keys in (groups or {}).items()
    }


def is_restricted(group: bytes) -> bool:
    """Whether only the device's own files set this group."""
    return any(word in group for word in _RESTRICTED)
