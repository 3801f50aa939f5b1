"""The documents of text.jsonl over a connection: as replies to a read, and as payloads of a write."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any, Dict, List

from .byte_json import document_from_json
from .client import Client
from .expect import require_answer
from .failure import Failure
from .hub import Hub
from .played_daemon import PlayedDaemon

_READ, _WRITE = "every-document-is-read", "every-document-is-written"

# Name, title, needs.
VECTOR_CASES = (
    (_READ, "Each document of text.jsonl comes as a reply.", ("get",)),
    (_WRITE, "Each document of text.jsonl goes into a merge.", ("merge",)),
)


def run_vectors(name: str, path: Path, hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    """Throws Failure."""
    _connect(hub, client, daemon)
    check = _read if name == _READ else _write
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        vector = json.loads(line)
        if vector.get("document") and _can_stand_on_lines(vector):
            try:
                check(vector, hub, client, daemon)
            except Failure as failure:
                raise Failure(f"{path.name}:{number}: {failure}") from None
    client.require_ok({"do": "close"})


def _connect(hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    """Serves a client that reads nothing, to see whether there is a daemon."""
    asked = {"do": "connect", "address": daemon.address, "timeout_ms": 60000}
    number = client.send(asked)

    def is_connected() -> bool:
        while daemon.arrived:
            daemon.arrived.popleft()[0].send(b"data\n.\n")
        return client.has_answered(number)

    hub.run_until(is_connected, "the answer to connect")
    require_answer(client.await_answer(number, "connect"), [{"ok": True}], asked)


def _can_stand_on_lines(vector: Dict[str, Any]) -> bool:
    """Other names are never on a connection."""
    return not any(b"\n" in name or name == b"." for name in document_from_json(vector["document"]))


def _read(vector: Dict[str, Any], hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    asked = {"do": "get", "names": ["*"]}
    number = client.send(asked)
    hub.run_until(lambda: bool(daemon.arrived) or client.has_answered(number), "a request to read")
    if daemon.arrived:
        link, _ = daemon.arrived.popleft()
        link.send(b"data\n" + bytes.fromhex(vector["canonical"]) + b".\n")
    require_answer(client.await_answer(number, str(asked)), [{"ok": True, "groups": vector["document"]}], asked)


def _write(vector: Dict[str, Any], hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    wanted = document_from_json(vector["document"])
    asked = {"do": "merge", "change": vector["document"]}
    number = client.send(asked)
    found: List[Any] = []

    def serve() -> None:
        while daemon.arrived:
            link, request = daemon.arrived.popleft()
            if request.is_write:
                found.append(request)
            elif request.words[0] == b"get":  # the client compares, or reads back what it has written
                has_it = found and request.parts[0]
                link.send(b"data\n" + (bytes.fromhex(vector["canonical"]) if has_it else b"") + b".\n")

    def is_answered() -> bool:
        serve()
        return client.has_answered(number)

    def is_found() -> bool:
        serve()
        return bool(found)

    hub.run_until(is_answered, "the answer to a merge")
    require_answer(client.await_answer(number, str(asked)), [{"ok": True}], asked)
    hub.run_until(is_found, "the request to merge")
    if any(request.words != (b"merge",) or request.parts[0] != wanted for request in found) or len(found) > 1:
        raise Failure(f"expected one merge of {wanted}, found {[request.text for request in found]}")
