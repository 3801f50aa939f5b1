"""What the adapters of the Python package share: errors, and JSON of requests and changes."""

from __future__ import annotations

import json
import sys
import threading
from pathlib import Path
from typing import Any, Dict, List

_TREE = Path(__file__).resolve().parents[2]
sys.dont_write_bytecode = True
sys.path[:0] = [str(_TREE / "bindings" / "python"), str(_TREE / "conformance")]

import tavix_settings
from kit.byte_json import document_from_json, name_to_json, names_from_json, value_to_json

FEATURES = [
    *("get", "merge", "test-and-merge", "overwrite", "amend", "restore", "watch", "unwatch", "flush"),
    *("nopersist", "initial", "resync", "once", "timeout", "bounded"),
]
ERRORS = (
    (tavix_settings.SettingsTimeoutError, "TIMEOUT"),
    (tavix_settings.ConditionFailedError, "CONDITION"),
    (tavix_settings.RefusedError, "REFUSED"),
    (tavix_settings.ParseError, "PARSE"),
    (tavix_settings.UnsupportedError, "UNSUPPORTED"),
    (tavix_settings.SettingsError, "LOST"),
    (MemoryError, "NO_MEMORY"),
    (ValueError, "USAGE"),
    (TypeError, "USAGE"),
    (OSError, "LOST"),
)
_output = threading.Lock()


def write(message: Dict[str, Any]) -> None:
    line = json.dumps(message) + "\n"
    with _output:
        sys.stdout.write(line)
        sys.stdout.flush()


def write_answer(number: int, result: Dict[str, Any]) -> None:
    write({"id": number, "ok": True, **result})


def write_failure(number: int, error: Exception) -> None:
    code = next((code for kind, code in ERRORS if isinstance(error, kind)), "INTERNAL")
    write({"id": number, "ok": False, "error": code, "text": str(error) or repr(error)})


def write_change(watch: int, change: Any) -> None:
    if change.resync:
        write({"event": "resync", "watch": watch})
        return
    write(
        {
            "event": "change",
            "watch": watch,
            "group": name_to_json(change.group),
            "key": None if change.key is None else name_to_json(change.key),
            "old": None if change.old is None else value_to_json(change.old),
            "new": None if change.new is None else value_to_json(change.new),
            "gone": change.gone,
        }
    )


def amend_arguments(request: Dict[str, Any]) -> Dict[str, Any]:
    arguments: Dict[str, Any] = {}
    for part in ("present", "set", "replace"):
        arguments[part] = document_from_json(request.get(part) or {})
    for part in ("absent", "unset"):
        arguments[part] = {
            names_from_json([group])[0]: names_from_json(keys) for group, keys in (request.get(part) or {}).items()
        }
    return arguments


def seconds(request: Dict[str, Any]) -> float:
    return float(request["timeout_ms"]) / 1000


def document(request: Dict[str, Any], part: str) -> Dict[bytes, Dict[bytes, bytes]]:
    return document_from_json(request[part])


def names(request: Dict[str, Any]) -> List[bytes]:
    return names_from_json(request["names"])
