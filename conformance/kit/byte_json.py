"""Settings as JSON, as the adapters' protocol has them (docs/clients.md).

A value that is not UTF-8 is {"base64": "..."}; a name or key that is not, or that begins with "base64:", is "base64:"
with its base64 behind.
"""

from __future__ import annotations

import base64
from typing import Any, Dict, Iterable, List

from .text import Document

_PREFIX = "base64:"


def name_to_json(name: bytes) -> str:
    try:
        text = name.decode()
    except UnicodeDecodeError:
        text = _PREFIX
    return _PREFIX + base64.b64encode(name).decode() if text.startswith(_PREFIX) else text


def name_from_json(name: str) -> bytes:
    return base64.b64decode(name[len(_PREFIX) :]) if name.startswith(_PREFIX) else name.encode()


def value_to_json(value: bytes) -> Any:
    try:
        return value.decode()
    except UnicodeDecodeError:
        return {"base64": base64.b64encode(value).decode()}


def value_from_json(value: Any) -> bytes:
    return base64.b64decode(value["base64"]) if isinstance(value, dict) else str(value).encode()


def document_to_json(document: Document) -> Dict[str, Dict[str, Any]]:
    return {
        name_to_json(group): {name_to_json(key): value_to_json(value) for key, value in keys.items()}
        for group, keys in document.items()
    }


def document_from_json(document: Dict[str, Dict[str, Any]]) -> Document:
    return {
        name_from_json(group): {name_from_json(key): value_from_json(value) for key, value in keys.items()}
        for group, keys in document.items()
    }


def names_from_json(names: Iterable[str]) -> List[bytes]:
    return [name_from_json(name) for name in names]
