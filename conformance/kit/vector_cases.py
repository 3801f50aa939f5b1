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

_READ, _WRITE, _BROKEN = "every-document-is-read", "every-document-is-written", "every-broken-text-is-an-error"

# Name, title, needs.
VECTOR_CASES = (
    (_READ, "Each document of text.jsonl comes as a reply.", ("get",)),
    (_WRITE, "Each document of text.jsonl goes into a merge.", ("merge",)),
    (_BROKEN, "Each text of text.jsonl that is no settings text comes as a reply.", ("get",)),
)


def run_vectors(name: str, path: Path, hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    """Throws Failure."""
    _connect(hub, client, daemon)
    check, member = {_READ: (_read, "document"), _WRITE: (_write, "document"), _BROKEN: (_refuse, "error")}[name]
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        vector = json.loads(line)
        if member in vector and _can_stand_on_lines(vector):
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
    """Others are never on a connection: a name is a line of requests, and a line of one dot ends a document."""
    if "error" in vector:
        return b"." not in bytes.fromhex(vector["text"]).split(b"\n")
    return not any(b"\n" in name or name == b"." for name in document_from_json(vector["document"]))


def _read(vector: Dict[str, Any], hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    _get(bytes.fromhex(vector["canonical"]), {"ok": True, "groups": vector["document"]}, hub, client, daemon)


def _refuse(vector: Dict[str, Any], hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    text = bytes.fromhex(vector["text"])
    expected = {"ok": False, "error": ["PARSE", "LOST"]}  # the connection is of no use any more
    _get(text if text.endswith(b"\n") else text + b"\n", expected, hub, client, daemon)


def _get(text: bytes, expected: Dict[str, Any], hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    """All requests to read get the text: a client may ask more than once."""
    asked = {"do": "get", "names": ["*"]}
    number = client.send(asked)

    def is_answered() -> bool:
        while daemon.arrived:
            daemon.arrived.popleft()[0].send(b"data\n" + text + b".\n")
        return client.has_answered(number)

    hub.run_until(is_answered, "the answer to a request to read")
    require_answer(client.await_answer(number, str(asked)), [expected], asked)


def _write(vector: Dict[str, Any], hub: Hub, client: Client, daemon: PlayedDaemon) -> None:
    wanted = document_from_json(vector["document"])
    asked = {"do": "merge", "change": vector["document"]}
    number = client.send(asked)
    found: List[Any] = []

    def serve() -> None:
        while daemon.arrived:
            link, request = daemon.arrived.popleft()
            if request.is_write and (request.parts[0] or not wanted):  # late ones of empty documents are none
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
    if wanted:  # a client may have nothing to send
        hub.run_until(is_found, "the request to merge")
    if any(request.words != (b"merge",) or request.parts[0] != wanted for request in found) or (wanted and len(found) > 1):
        raise Failure(f"expected one merge of {wanted}, found {[request.text for request in found]}")
