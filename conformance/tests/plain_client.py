#!/usr/bin/env python3
"""A small client under test, and seven ways in which clients go wrong: plain_client.py [DEFECT].

Without a defect it passes the kit. With one it makes the mistake that a case of the kit is there to find; the tests
make sure that the case does. It has one connection for all, and reads whenever something arrives.

    notice-as-reply        takes the first message for the reply, be it a notice
    read-before-subscribe  reads what is watched, and subscribes behind that
    resend-write           sends a request again whose reply was lost, a write, too
    first-bracket          ends a group's name at the first "]"
    flush-at-once          answers flush and waits for nothing
    deaf-unwatch           answers unwatch, and goes on with the watch
    mixed-replies          goes on with its connection after a time-out, so that a late reply meets the next request
"""

from __future__ import annotations

import json
import os
import select
import socket
import sys
import time
from pathlib import Path
from typing import Any, Dict, List, Optional, Tuple

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from kit import text
from kit.byte_json import document_from_json, document_to_json, name_to_json, names_from_json, value_to_json
from kit.requests import is_match

Json = Dict[str, Any]
MAX_LINE = 32 * 1024 * 1024
RETRY = 0.05  # seconds
FEATURES = [
    *("get", "merge", "test-and-merge", "overwrite", "restore", "watch", "unwatch", "flush"),
    *("nopersist", "initial", "resync", "once", "timeout", "bounded"),
]


class Lost(Exception):
    """The connection has ended."""


class Timeout(Exception):
    """The time is over."""


class Unreadable(Exception):
    """What came is no reply."""


CODES = ((Timeout, "TIMEOUT"), (Unreadable, "PARSE"), (Lost, "LOST"), (OSError, "LOST"), (ValueError, "USAGE"))


class Connection:
    """Bytes and messages of one connection. notices: that have come, oldest first."""

    def __init__(self, address: str) -> None:
        if address.startswith("unix:"):
            self.link = socket.socket(socket.AF_UNIX)
            self.link.connect(address[5:])
        else:
            host, _, port = address.rpartition(":")
            self.link = socket.create_connection((host, int(port)))
        self.notices: List[Tuple[List[bytes], text.Document]] = []
        self._buffer = b""
        self._chunks: List[bytes] = []  # of a line without an end yet
        self._lines: List[bytes] = []
        self._message: List[bytes] = []

    def receive(self, until: float) -> None:
        """Waits for bytes."""
        ready, _, _ = select.select([self.link], [], [], max(0.0, until - time.monotonic()))
        if not ready:
            raise Timeout("the daemon is silent")
        data = self.link.recv(1 << 20)
        if not data:
            raise Lost("the daemon has ended the connection")
        self._chunks.append(data)
        if b"\n" in data:
            *lines, rest = b"".join(self._chunks).split(b"\n")
            self._lines += lines
            self._chunks = [rest]
        elif sum(map(len, self._chunks)) > MAX_LINE:
            raise Unreadable("a line is too long")

    def take_message(self) -> Optional[List[bytes]]:
        """The lines of the next message that is whole, without those of its ends."""
        while self._lines:
            self._message.append(self._lines.pop(0))
            head = self._message[0]
            if head not in (b"async change", b"data", b"result"):
                raise Unreadable(f"expected a reply, found {head[:80]!r}")
            ends = self._message.count(b".")
            if len(self._message) == 2 if head == b"result" else ends == (2 if head == b"async change" else 1):
                message, self._message = self._message, []
                return message
        return None


def parse(lines: List[bytes], defect: str) -> text.Document:
    if defect == "first-bracket":
        lines = [line[: line.index(b"]") + 1] if line.startswith(b"[") else line for line in lines]
    try:
        return text.parse(b"\n".join(lines))
    except ValueError as error:
        raise Unreadable(str(error)) from None


def list_of(names: List[bytes]) -> bytes:
    if any(b"\n" in name or name == b"." for name in names):
        raise ValueError("a name with a line break can't be sent")
    return b"".join(name + b"\n" for name in names) + b".\n"


def payload_of(document: text.Document) -> bytes:
    list_of(list(document))
    return text.write(document) + b".\n"


class Watch:
    """known: what it holds as far as events have shown."""

    def __init__(self, names: List[bytes], known: Optional[text.Document]) -> None:
        self.names = names
        self.known = known


class Client:
    """Requests of the kit on one side, the daemon on the other."""

    def __init__(self, defect: str) -> None:
        self._defect = defect
        self._address = ""
        self._timeout = 0.0
        self._connection: Optional[Connection] = None
        self._has_lost_write = False
        self._unproven = False  # whether a write was sent that no reply has followed
        self._watches: Dict[int, Watch] = {}
        self._next_watch = 1
        self._must_resync = False

    def run(self) -> None:
        """Until standard input ends."""
        pending = b""
        while True:
            self._follow()
            files: List[Any] = [0] + ([self._connection.link] if self._connection else [])
            ready, _, _ = select.select(files, [], [], RETRY if self._must_resync else None)
            if 0 in ready:
                data = os.read(0, 1 << 20)
                if not data:
                    return
                *lines, pending = (pending + data).split(b"\n")
                for line in lines:
                    self._answer(json.loads(line))
            elif ready:
                self._guard(lambda: self._connection.receive(time.monotonic()))

    def _answer(self, request: Json) -> None:
        try:
            result = getattr(self, "do_" + request["do"].replace("-", "_"))(request)
            answer = {"id": request["id"], "ok": True, **(result or {})}
        except Exception as error:
            code = next((code for kind, code in CODES if isinstance(error, kind)), "INTERNAL")
            answer = {"id": request["id"], "ok": False, "error": code, "text": str(error) or repr(error)}
        self._write(answer)

    @staticmethod
    def _write(message: Json) -> None:
        sys.stdout.write(json.dumps(message) + "\n")
        sys.stdout.flush()

    def do_hello(self, _: Json) -> Json:
        return {"features": FEATURES}

    def do_connect(self, request: Json) -> None:
        self._address = request["address"]
        self._timeout = request["timeout_ms"] / 1000
        self._connection = Connection(self._address)

    def do_close(self, _: Json) -> None:
        self._watches.clear()
        self._drop()
        self._must_resync = self._has_lost_write = False

    def do_get(self, request: Json) -> Json:
        return {"groups": document_to_json(self._read(names_from_json(request["names"])))}

    def do_merge(self, request: Json) -> None:
        word = b"merge\n" if request.get("persist", True) else b"merge nopersist\n"
        self._send_write(word + payload_of(document_from_json(request["change"])))

    def do_overwrite(self, request: Json) -> None:
        change = payload_of(document_from_json(request["change"]))
        self._send_write(b"overwrite\n" + list_of(names_from_json(request["names"])) + change)

    def do_restore(self, request: Json) -> None:
        self._send_write(b"restore\n" + list_of(names_from_json(request["names"])))

    def do_test_and_merge(self, request: Json) -> Json:
        test, change = (payload_of(document_from_json(request[part])) for part in ("test", "change"))
        return {"done": self._exchange(b"test-and-merge\n" + test + change, b"result")[1] == b"ok"}

    def do_flush(self, _: Json) -> None:
        if self._defect == "flush-at-once":
            return
        try:
            self._exchange(b"get delimited\n.\n", b"data")
            if self._has_lost_write:
                raise Lost("a write may be lost")
        except (Lost, OSError):
            self._has_lost_write = False
            raise

    def do_watch(self, request: Json) -> Json:
        names = names_from_json(request["names"])
        watch = Watch(names, None)
        self._synchronise(watch, announce=False)
        number = self._next_watch
        self._next_watch += 1
        self._watches[number] = watch
        if request.get("initial"):
            content, watch.known = watch.known or {}, {}
            self._compare(number, content)
        return {"watch": number}

    def do_unwatch(self, request: Json) -> None:
        if self._defect != "deaf-unwatch":
            del self._watches[request["watch"]]

    def _synchronise(self, watch: Watch, announce: bool, number: int = 0) -> None:
        subscribe = b"subscribe\n" + list_of(watch.names)
        if self._defect == "read-before-subscribe":
            content = self._read(watch.names)
            self._send(subscribe)
        else:
            self._send(subscribe)
            content = self._read(watch.names)
        if announce:
            self._compare(number, content)
        else:
            watch.known = content

    def _follow(self) -> None:
        """Announces what has come; subscribes and reads again after a loss."""
        if self._must_resync:
            self._guard(self._resync)
        if self._connection:
            self._guard(self._take_notices)
        while self._connection and self._connection.notices:
            groups, settings = self._connection.notices.pop(0)
            for number, watch in self._watches.items():
                content = {name: keys for name, keys in (watch.known or {}).items() if name not in groups}
                changed = {name: keys for name, keys in settings.items() if is_match(name, watch.names)}
                self._compare(number, {**content, **changed})

    def _resync(self) -> None:
        if self._connection is None:
            self._connection = Connection(self._address)
        for number, watch in self._watches.items():
            self._synchronise(watch, announce=True, number=number)
            self._write({"event": "resync", "watch": number})
        self._must_resync = False

    def _compare(self, number: int, content: text.Document) -> None:
        watch = self._watches[number]
        known, watch.known = watch.known or {}, content
        for group in sorted({*known, *content}):
            old, new = known.get(group, {}), content.get(group, {})
            for key in sorted({*old, *new}):
                if old.get(key) != new.get(key):
                    self._announce(number, group, key, old.get(key), new.get(key), group not in content)

    def _announce(
        self, number: int, group: bytes, key: bytes, old: Optional[bytes], new: Optional[bytes], gone: bool
    ) -> None:
        values = {name: None if value is None else value_to_json(value) for name, value in (("old", old), ("new", new))}
        place = {"group": name_to_json(group), "key": name_to_json(key)}
        self._write({"event": "change", "watch": number, **place, **values, "gone": gone})

    def _read(self, names: List[bytes]) -> text.Document:
        message = self._exchange(b"get delimited\n" + list_of(names), b"data")
        return parse(message[1:-1], self._defect)

    def _send_write(self, request: bytes) -> None:
        self._notice_end()
        self._send(request)
        self._unproven = True

    def _exchange(self, request: bytes, head: bytes) -> List[bytes]:
        try:
            return self._exchange_once(request, head)
        except Lost:
            if self._defect != "resend-write":
                raise
        return self._exchange_once(request, head)

    def _exchange_once(self, request: bytes, head: bytes) -> List[bytes]:
        self._notice_end()
        until = time.monotonic() + self._timeout
        try:
            self._send(request)
            assert self._connection
            while True:
                message = self._take(head)
                if message is not None:
                    self._unproven = False
                    return message
                self._connection.receive(until)
        except Timeout:
            if self._defect != "mixed-replies":
                self._drop()
            raise
        except BaseException:
            self._drop()
            raise

    def _take(self, head: bytes) -> Optional[List[bytes]]:
        """The reply, if it has come; notices before it are kept."""
        assert self._connection
        while (message := self._connection.take_message()) is not None:
            if message[0] == b"async change" and self._defect != "notice-as-reply":
                self._keep(message)
            elif message[0] == head or self._defect == "notice-as-reply":
                return message
            else:
                raise Unreadable(f"expected {head!r}, found {message[0]!r}")
        return None

    def _take_notices(self) -> None:
        """Between calls nothing else is due."""
        assert self._connection
        if self._defect == "mixed-replies":
            return  # a late reply stays for the next call, whenever it comes
        while (message := self._connection.take_message()) is not None:
            if message[0] == b"async change":
                self._keep(message)

    def _keep(self, message: List[bytes]) -> None:
        assert self._connection
        end = message.index(b".")
        self._connection.notices.append((message[1:end], parse(message[end + 1 : -1], self._defect)))

    def _send(self, request: bytes) -> None:
        if self._connection is None:
            self._connection = Connection(self._address)
        try:
            self._connection.link.sendall(request)
        except OSError as error:
            self._drop()
            raise Lost(str(error)) from None

    def _notice_end(self) -> None:
        """Takes what has come: a connection that has ended carries no request."""
        while self._connection and select.select([self._connection.link], [], [], 0)[0]:
            self._guard(lambda: self._connection.receive(time.monotonic()))

    def _guard(self, action: Any) -> None:
        try:
            action()
        except (Lost, Unreadable, Timeout, OSError):
            self._drop()

    def _drop(self) -> None:
        if self._connection is not None:
            self._connection.link.close()
            self._connection = None
        self._has_lost_write = self._has_lost_write or self._unproven
        self._unproven = False
        self._must_resync = bool(self._watches)


if __name__ == "__main__":
    Client(sys.argv[1] if len(sys.argv) > 1 else "").run()
