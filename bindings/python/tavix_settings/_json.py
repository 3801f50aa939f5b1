"""Settings as JSON, as the command tavix-settings has them.

A value that is not UTF-8 is {"base64": "..."}, and a name or key that is not, or that begins with "base64:", is
"base64:" with its base64 behind. No state, any thread.
"""

from __future__ import annotations

import base64
from typing import Dict, Optional, Union

from ._text import RawDocument
from ._watching import Change

_PREFIX = "base64:"

JsonValue = Union[str, Dict[str, str], None]


def name_to_json(name: bytes) -> str:
    try:
        text = name.decode()
    except UnicodeDecodeError:
        text = _PREFIX
    return _PREFIX + base64.b64encode(name).decode() if text.startswith(_PREFIX) else text


def value_to_json(value: Optional[bytes]) -> JsonValue:
    if value is None:
        return None
    try:
        return value.decode()
    except UnicodeDecodeError:
        return {"base64": base64.b64encode(value).decode()}


def document_to_json(document: RawDocument) -> Dict[str, Dict[str, JsonValue]]:
    return {
        name_to_json(group): {name_to_json(key): value_to_json(value) for key, value in values.items()}
        for group, values in document.items()
    }


def change_to_json(change: Change[bytes]) -> Dict[str, object]:
    if change.resync or change.group is None:
        return {"resync": True}
    return {
        "group": name_to_json(change.group),
        "key": None if change.key is None else name_to_json(change.key),
        "old": value_to_json(change.old),
        "new": value_to_json(change.new),
        "gone": change.gone,
    }
