"""Compares what the client wrote with what it should have written."""

from __future__ import annotations

import json
from typing import Any, Dict, List

from .failure import Failure

Json = Dict[str, Any]

_MAX_SHOWN = 2000

ERRORS = (
    "NOT_SET",
    "CONDITION",
    "TIMEOUT",
    "LOST",
    "REFUSED",
    "PARSE",
    "USAGE",
    "NO_MEMORY",
    "BUSY",
    "UNSUPPORTED",
    "INTERNAL",
)


def holds(answer: Json, expected: Json) -> bool:
    """Whether the answer has all that is expected of it."""
    for name, value in expected.items():
        if name == "error" and isinstance(value, list):
            if answer.get(name) not in value:
                return False
        elif name not in answer or answer[name] != value:
            return False
    return True


def require_answer(answer: Json, alternatives: List[Json], asked: Json) -> Json:
    """Throws Failure, which shows both."""
    if not answer["ok"]:
        if answer.get("error") not in ERRORS:
            raise Failure(f"the answer's \"error\" is none of the protocol's: {json.dumps(answer)}")
        if not isinstance(answer.get("text"), str) or not answer["text"]:
            raise Failure(f"the answer has an \"error\" and no \"text\" for people: {json.dumps(answer)}")
    if not any(holds(answer, each) for each in alternatives):
        expected = " or ".join(_show(each) for each in alternatives)
        raise Failure(f"asked:    {_show(asked)}\nexpected: {expected}\nanswered: {_show(answer)}")
    return answer


def require_event(event: Json, expected: Json) -> None:
    """Throws Failure, which shows both."""
    wanted = {"event": "change", **expected}
    if wanted["event"] == "change":
        for name in ("group", "key", "old", "new", "gone"):
            if name not in event:
                raise Failure(f"an event of a change lacks \"{name}\": {json.dumps(event)}")
    if not holds(event, wanted):
        raise Failure(f"expected the event: {json.dumps(wanted)}\nfound the event:    {json.dumps(event)}")


def _show(message: Json) -> str:
    shown = json.dumps(message)
    return shown if len(shown) <= _MAX_SHOWN else f"{shown[:_MAX_SHOWN]} ... {len(shown)} bytes"
