"""What a store can be asked for, each as one Call: the bytes to send, the replies that are due, and what they mean.

Both stores send Calls and add nothing to their meaning. No state, any thread.
"""

from __future__ import annotations

import functools
from typing import Callable, Generic, List, Optional, Sequence, Tuple, TypeVar, Union, cast

from . import _protocol as protocol
from ._errors import ConditionFailedError, ConnectionLostError, RefusedError
from ._names import (
    AnyDocument,
    AnyKeys,
    AnyValues,
    Name,
    Names,
    is_restricted,
    to_bytes,
    to_document,
    to_keys,
    to_name,
    to_names,
    to_values,
)
from ._protocol import Form
from ._text import Document, RawDocument, to_text

T = TypeVar("T")
Replies = Sequence[object]
Groups = Document
RawGroups = RawDocument

AMEND = b"amend"
_REASON = b"reason="
_MAX_KEPT = 256  # of the names whose requests are kept


class Missing:
    """The default that is no default."""


MISSING = Missing()


class Call(Generic[T]):
    """Requests that are sent in one go, over one connection.

    is_write: sent once at most. feature: what the daemon has to know for this, None for what all know.
    finish:   makes the result of the replies, or throws what they say.
    """

    __slots__ = ("request", "forms", "finish", "is_write", "feature")

    def __init__(
        self,
        request: bytes,
        forms: Tuple[Form, ...],
        finish: Callable[[Replies], T],
        is_write: bool = False,
        feature: Optional[bytes] = None,
    ) -> None:
        self.request = request
        self.forms = forms
        self.finish = finish
        self.is_write = is_write
        self.feature = feature


_DATA = (Form.DATA,)
_STRINGS = (Form.STRINGS,)
_RESULT = (Form.RESULT,)


def _ignore(_: Replies) -> None:
    return None


def _take_document(replies: Replies) -> Union[Groups, RawGroups]:
    return cast(Union[Groups, RawGroups], replies[0])


def get(group: Name, key: Name, default: object, raw: bool) -> Call[object]:
    name, raw_key = to_name(group), to_bytes(key, f"a key of group {group!r}")

    def finish(replies: Replies) -> object:
        if raw:
            value: object = cast(RawDocument, replies[0]).get(name, {}).get(raw_key)
        else:
            value = cast(Document, replies[0]).get(to_text(name), {}).get(to_text(raw_key))
        if value is not None:
            return value
        if default is MISSING:
            raise KeyError(f"[{to_text(name)}]{to_text(raw_key)}")
        return default

    return Call(protocol.get_request([name]), _DATA if raw else _STRINGS, finish)


def groups(patterns: Names, raw: bool) -> Call[Union[Groups, RawGroups]]:
    if isinstance(patterns, str) and len(patterns) <= _MAX_KEPT:
        return _groups_of(patterns, raw)
    return _make_groups(patterns, raw)


def _make_groups(patterns: Names, raw: bool) -> Call[Union[Groups, RawGroups]]:
    return Call(protocol.get_request(to_names(patterns)), _DATA if raw else _STRINGS, _take_document)


# Programs read the same groups again and again.
_groups_of = functools.lru_cache(maxsize=64)(_make_groups)


def set_values(group: Name, values: AnyValues, expect: Optional[AnyValues]) -> Call[None]:
    """The group is read behind the change: its reply proves that the change was carried out or refused."""
    name = to_name(group)
    change = {name: to_values(group, values)}
    if is_restricted(name):
        raise RefusedError(f"group {group!r} is restricted: only the device's own files set it")
    behind = protocol.info_request(b"refused") + protocol.get_request([name])
    forms_behind = (Form.INFO, Form.DATA)
    if expect is None:
        request = protocol.merge_request(change, persist=True)
        return Call(request + behind, forms_behind, _require_not_refused, is_write=True)

    def finish(replies: Replies) -> None:
        if not replies[0]:
            _raise_failed(to_text(name), replies[1])

    request = protocol.test_and_merge_request({name: to_values(group, expect)}, change)
    return Call(request + behind, _RESULT + forms_behind, finish, is_write=True)


def merge(document: AnyDocument, persist: bool) -> Call[None]:
    return Call(protocol.merge_request(to_document(document), persist), (), _ignore, is_write=True)


def test_and_merge(test: AnyDocument, change: AnyDocument) -> Call[bool]:
    request = protocol.test_and_merge_request(to_document(test), to_document(change))
    return Call(request, _RESULT, lambda replies: bool(replies[0]), is_write=True)


def amend(
    present: Optional[AnyDocument],
    absent: Optional[AnyKeys],
    set: Optional[AnyDocument],
    unset: Optional[AnyKeys],
    replace: Optional[AnyDocument],
) -> Call[bool]:
    parts = [to_document(present), to_keys(absent), to_document(set), to_keys(unset), to_document(replace)]
    request = protocol.amend_request(parts)
    return Call(request, _RESULT, lambda replies: bool(replies[0]), is_write=True, feature=AMEND)


def overwrite(names: Names, document: Optional[AnyDocument]) -> Call[None]:
    return Call(protocol.overwrite_request(to_names(names), to_document(document)), (), _ignore, is_write=True)


def restore(names: Names) -> Call[None]:
    return Call(protocol.restore_request(to_names(names)), (), _ignore, is_write=True)


def flush() -> Call[None]:
    return Call(protocol.EMPTY_GET_REQUEST, _DATA, _ignore)


def dump(raw: bool) -> Call[Union[str, bytes]]:
    def finish(replies: Replies) -> Union[str, bytes]:
        text = cast(bytes, replies[0])
        return text if raw else to_text(text)

    return Call(protocol.DUMP_REQUEST, (Form.TEXT,), finish)


def features() -> Call[frozenset[bytes]]:
    """The first words of what the daemon says that it has; an older one says nothing."""

    def finish(replies: Replies) -> frozenset[bytes]:
        lines = cast(Optional[Tuple[bytes, ...]], replies[0]) or ()
        return frozenset(line.split(b" ")[0] for line in lines)

    return Call(protocol.info_request(b"features") + protocol.EMPTY_GET_REQUEST, (Form.INFO, Form.DATA), finish)


def unproven(address: object) -> ConnectionLostError:
    problem = f"the connection to {address} was lost before the daemon had carried out what was sent"
    return ConnectionLostError(problem, outcome_unknown=True)


def _find_reason(reply: object) -> Optional[str]:
    lines = cast(Optional[Tuple[bytes, ...]], reply) or ()
    reasons: List[bytes] = [line[len(_REASON) :] for line in lines if line.startswith(_REASON)]
    return to_text(reasons[0]) if reasons else None


def _require_not_refused(replies: Replies) -> None:
    reason = _find_reason(replies[0])
    if reason is not None:
        raise RefusedError(f"the daemon has refused the change: {reason}")


def _raise_failed(group: str, reply: object) -> None:
    reason = _find_reason(reply)
    if reason is not None and not reason.startswith("condition"):
        raise RefusedError(f"the daemon has refused the change: {reason}")
    raise ConditionFailedError(f"condition failed: group {group!r} holds something else")
