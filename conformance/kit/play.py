"""Plays a transcript: the runner is the daemon, and asks the client under test."""

from __future__ import annotations

import random
from typing import Any, Callable, Dict, List, Optional, Tuple

from . import text
from .client import Client
from .expect import holds, require_answer, require_event
from .failure import Failure
from .hub import LIMIT, Hub
from .played_daemon import Connection, PlayedDaemon, cut_in_pieces
from .requests import Request, is_match
from .transcript import DEFAULT_TIMEOUT, Step, Transcript, requests_before_next_do

_MAX_ENDLESS = 320 * 1024 * 1024
_ENDLESS_PIECE = b"a" * (1 << 20)
_LONGER = (1, 8, 64)  # times a short time-out: a machine that stands still is no mistake of the client


class _TooEarly(Failure):
    """The time was over where nothing was late but the machine. A longer one shows whether that is so."""


class _Play:
    """One way through a transcript. timeout: of each call. cut: after how many bytes of the last message the connection ends; None: never."""

    def __init__(
        self,
        script: Transcript,
        timeout: int,
        hub: Hub,
        client: Client,
        daemon: PlayedDaemon,
        seed: int,
        cut: Optional[int] = None,
    ) -> None:
        self._script = script
        self._timeout = timeout
        self._hub = hub
        self._client = client
        self._daemon = daemon
        self._random = random.Random(seed)
        self._cut = cut
        self._last_output = max((i for i, step in enumerate(script.steps) if step.kind in "<!"), default=-1)
        self._holds: text.Document = {}
        self._links: Dict[str, Connection] = {}  # "<" and "!"
        self._pending: List[Tuple[Connection, bytes]] = []  # output that may be one packet
        self._request: Optional[Request] = None  # that was matched last
        self._reply_data = b""  # that it got
        self._is_cut = False  # whether the connection ended behind that
        self._write_link: Optional[Connection] = None  # of the last write
        self._is_proven = False  # whether a request behind that was replied to
        self._asked: Dict[str, Any] = {}
        self._asked_id = 0
        self._watches: List[int] = []

    def run(self) -> None:
        connect = {"do": "connect", "address": self._daemon.address, "timeout_ms": self._timeout}
        self._asked_id = self._client.send(connect)
        self._take_answer(0, [{"ok": True}])
        for index, step in enumerate(self._script.steps):
            if step.kind not in "<!":
                self._flush()
            self._take_step(index, step)
        self._flush()
        self._end()

    def _take_step(self, index: int, step: Step) -> None:
        if step.kind == "=":
            self._holds = text.parse(step.value)
        elif step.kind == "do":
            self._asked = step.value
            self._request = None  # what comes from here on repeats nothing
            self._asked_id = self._client.send(self._with_watch(step.value))
        elif step.kind == ">":
            self._await_request(index, step.value)
        elif step.kind in "<!":
            self._output(index, step)
        elif step.kind == "answer":
            self._take_answer(index, step.value)
        elif step.kind == "event":
            self._take_event(index, step.value)
        elif step.kind == "close":
            self._links[step.value].close()
        elif step.kind == "proven":
            self._require_proven()
        else:
            self._send_endless()

    def _with_watch(self, request: Dict[str, Any]) -> Dict[str, Any]:
        if request["do"] == "unwatch":
            return {**request, "watch": self._watches[request["watch"] - 1]}
        return request

    def _await_request(self, index: int, wanted: Request) -> None:
        found: List[Connection] = []

        number = self._asked_id

        def is_there() -> bool:
            link = self._daemon.take(wanted)
            if link is not None:
                found.append(link)
                return True
            self._serve_others(index)
            self._require_in_time(self._client.peek_answer(number), [], f"the request {wanted.text!r}")
            for _, other in self._daemon.arrived:  # what comes later in the transcript, too, is out of order
                raise Failure(f"expected the request: {wanted.text!r}\nfound the request:    {other.text!r}")
            return False

        self._hub.run_until(is_there, f"the request {wanted.text!r}")
        self._request, self._reply_data = wanted, b""
        self._links["<"] = found[0]
        if wanted.is_write:
            self._write_link, self._is_proven = found[0], False
        if wanted.words[0] == b"subscribe":
            self._links["!"] = found[0]

    def _output(self, index: int, step: Step) -> None:
        link = self._links.get(step.kind)
        if link is None:
            raise Failure("there is no connection that was subscribed")
        data = step.value
        if index == self._last_output and self._cut is not None:
            data = data[: self._cut]
            self._is_cut = True
        self._pending.append((link, data))
        if step.kind == "<":
            self._reply_data += data
        if self._is_cut:
            self._flush()
            link.close()

    def _flush(self) -> None:
        pending, self._pending = self._pending, []
        whole: List[Tuple[Connection, bytes]] = []
        for link, data in pending:
            if whole and whole[-1][0] is link:
                whole[-1] = (link, whole[-1][1] + data)
            else:
                whole.append((link, data))
        for link, data in whole:
            pieces = cut_in_pieces(data, self._script.play[0], self._random)
            if len(pieces) == 1:
                link.send(data)
            else:
                link.send_in_pieces(pieces)

    def _take_answer(self, index: int, alternatives: List[Dict[str, Any]]) -> None:
        number = self._asked_id
        self._wait(index, lambda: self._client.has_answered(number), f"the answer to {self._asked}")
        answer = self._client.await_answer(number, "")
        self._require_in_time(answer, alternatives, f"one of {alternatives}")
        require_answer(answer, alternatives, self._asked)
        if self._asked.get("do") == "watch" and answer["ok"]:
            if not isinstance(answer.get("watch"), int):
                raise Failure(f"the answer to a watch has no number: {answer}")
            self._watches.append(answer["watch"])

    def _require_in_time(self, answer: Optional[Dict[str, Any]], alternatives: List[Dict[str, Any]], what: str) -> None:
        is_timeout = answer is not None and not answer["ok"] and answer.get("error") == "TIMEOUT"
        if is_timeout and not any(holds(answer or {}, each) for each in alternatives):
            raise _TooEarly(f"asked:    {self._asked}\nexpected: {what}\nanswered: {answer}")

    def _take_event(self, index: int, expected: Dict[str, Any]) -> None:
        watch = self._watches[expected.get("watch", 1) - 1]
        self._wait(index, lambda: self._client.has_event(watch), f"the event {expected}")
        require_event(self._client.await_event(watch, ""), {**expected, "watch": watch})

    def _wait(self, index: int, is_done: Callable[[], bool], what: str) -> None:
        def is_done_or_served() -> bool:
            self._serve_others(index)
            return is_done()

        self._hub.run_until(is_done_or_served, what, LIMIT + min(LIMIT, self._timeout / 1000))

    def _serve_others(self, index: int) -> None:
        """Answers reads that the transcript does not show, as an older daemon with these settings does."""
        expected = requests_before_next_do(self._script.steps, index)
        for entry in list(self._daemon.arrived):
            link, request = entry
            if request.words[0] == b"subscribe" or any(request.means(each) for each in expected):
                continue
            elif request.is_write:
                is_again = self._request is not None and request.means(self._request)
                how = "sent a write again" if is_again else "sent a write that nobody asked for"
                raise Failure(f"the client {how}: {request.text!r}")
            elif request.words[0] == b"quit":
                link.close()
            elif self._request is not None and request.means(self._request):
                self._reply_again(link)
            else:
                self._prove(link)
                link.send(self._reply(request))
            self._daemon.arrived.remove(entry)

    def _prove(self, link: Connection) -> None:
        """Before a reply: a client that has answered already did not wait for it."""
        if link is self._write_link and not self._client.has_answered(self._asked_id):
            self._is_proven = True

    def _require_proven(self) -> None:
        if not self._is_proven:
            raise Failure(f"the client answered {self._asked} before a reply showed that the write was carried out")

    def _reply_again(self, link: Connection) -> None:
        """A client may repeat a read that failed: it fails again."""
        link.send(self._reply_data)
        if self._is_cut:
            link.close()

    def _reply(self, request: Request) -> bytes:
        if request.words[0] == b"get":
            chosen = {group: keys for group, keys in self._holds.items() if is_match(group, request.parts[0])}
            return b"data\n" + text.write(chosen) + b".\n"
        if request.words[0] == b"dump":
            return text.write(self._holds) + b".\n"
        if request.words[:2] == (b"info", b"features") and self._script.features:
            lines = "".join(f"{feature}\n" for feature in self._script.features)
            return f"Features\n--------\n{lines}\n".encode()
        return b""

    def _send_endless(self) -> None:
        link = self._links["<"]
        sent = 0
        while link.is_open:  # each piece has a limit of its own
            if sent >= _MAX_ENDLESS:
                raise Failure(f"the client took {sent} bytes of one line and did not give up")
            link.send(_ENDLESS_PIECE)
            self._hub.run_once(0)
            sent += len(_ENDLESS_PIECE)

    def _end(self) -> None:
        self._asked = {"do": "close"}
        self._asked_id = self._client.send(self._asked)
        self._take_answer(len(self._script.steps), [{"ok": True}])
        if self._client.events:
            raise Failure(f"the client wrote an event that nothing has caused: {self._client.events[0]}")
        for _, request in self._daemon.arrived:
            if request.is_write:
                raise Failure(f"the client sent a request that nobody asked for: {request.text!r}")


def play(script: Transcript, hub: Hub, client: Client, daemon: PlayedDaemon, seed: int) -> None:
    """Throws Failure."""
    if script.play[0] != "cut":
        _play_in_time(script, hub, client, daemon, seed)
        return
    last = [step for step in script.steps if step.kind in "<!"][-1]
    for cut in range(0, len(last.value), int(script.play[1])):
        try:
            _Play(script, script.timeout, hub, client, daemon, seed, cut).run()
        except Failure as failure:
            raise Failure(f"cut after {cut} of {len(last.value)} bytes:\n{failure}") from None
        daemon.close_connections()


def _play_in_time(script: Transcript, hub: Hub, client: Client, daemon: PlayedDaemon, seed: int) -> None:
    """Plays again with a longer time-out if a call ended by time that should not have."""
    for factor in _LONGER:
        try:
            _Play(script, script.timeout * factor, hub, client, daemon, seed).run()
            return
        except _TooEarly:
            if factor == _LONGER[-1] or script.timeout >= DEFAULT_TIMEOUT:
                raise
        client.ask({"do": "close"})
        client.events.clear()
        daemon.close_connections()
