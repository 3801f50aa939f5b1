"""Reads and runs live/*.json: operations of the client under test, and of others, on a real daemon.

An object with

    title       what the case is about
    needs       features of the client
    daemon      words of "info features" that the daemon has to know
    defaults, restricted
                what the daemon starts with
    unix        true: the client connects to a unix socket
    steps       a list of objects, each of one kind:

    {"do": REQUEST, "answer": ANSWER or [ANSWER, ...]}   what stands here, the answer has to hold
    {"event": EVENT}                the next event of its "watch": 1 is the first of the case, and the default
    {"events": [EVENT, ...]}        the next events, in any order
    {"other": "LINES"}              another client sends this, and waits until it is carried out
    {"others": COUNT, "group": G}   the same, COUNT times: a random key of a few gets a value that there never was
    {"sees": DOCUMENT, "names": []} another client reads this
    {"kept": DOCUMENT}              these are the user settings that are saved
    {"cut": true}, {"back": true}   the client loses its connections, and gets no new ones until it is back
    {"restart": "kill" or "stop"}   the daemon ends, as by a crash or in order, and starts again
    {"settles": "*", "watch": 1}    all events of a watch, put together, show what the store holds, "resync" or not
"""

from __future__ import annotations

import json
import random
import signal
from pathlib import Path
from typing import Any, Dict, FrozenSet, List, NamedTuple

from .byte_json import document_from_json, document_to_json, names_from_json
from .expect import holds, require_answer, require_event
from .failure import Failure, UsageError
from .real_daemon import Peer, RealDaemon
from .relay import Relay
from .surroundings import Surroundings

Json = Dict[str, Any]
_STEPS = ("do", "event", "events", "other", "others", "sees", "kept", "cut", "back", "restart", "settles")
_SIGNALS = {"kill": signal.SIGKILL, "stop": signal.SIGTERM}


class Live(NamedTuple):
    name: str
    title: str
    needs: FrozenSet[str]
    content: Json


class MissingOfDaemon(Exception):
    """The daemon lacks what the case needs: it is skipped. Its argument names that."""


def read_live(path: Path) -> Live:
    """Throws UsageError."""
    try:
        content = json.loads(path.read_text(encoding="utf-8"))
        for step in content["steps"]:
            if not any(kind in step for kind in _STEPS):
                raise UsageError(f"{path}: this is no step: {json.dumps(step)}")
        return Live(path.stem, content["title"], frozenset(content["needs"]), content)
    except (ValueError, KeyError) as error:
        raise UsageError(f"{path}: {error!r}") from None


def run_live(live: Live, parts: Surroundings) -> None:
    """Throws Failure, and MissingOfDaemon."""
    content = live.content
    defaults, restricted = (document_from_json(content.get(layer, {})) for layer in ("defaults", "restricted"))
    with RealDaemon(parts.daemon, defaults, restricted) as daemon:
        with Peer(daemon.path) as peer:
            missing = set(content.get("daemon", ())) - set(peer.features())
        if missing:
            raise MissingOfDaemon(", ".join(f"{word} of the daemon" for word in sorted(missing)))
        with Relay(parts.hub, parts.trace, daemon.path, content.get("unix", False)) as relay:
            try:
                _Run(parts, daemon, relay).run(content["steps"])
            except Failure as failure:
                raise Failure(f"{failure}\nthe daemon's log:\n{daemon.read_log()}") from None


class _Run:
    """One case."""

    def __init__(self, parts: Surroundings, daemon: RealDaemon, relay: Relay) -> None:
        self._client = parts.client
        self._hub = parts.hub
        self._daemon = daemon
        self._relay = relay
        self._random = random.Random(parts.seed)
        self._next_value = 1  # no state before the last write is what a watch settles on
        self._watches: List[int] = []
        self._settled = 0  # the last watch that did
        self._shown: Dict[int, Dict[Any, Any]] = {}  # what the events of each watch put together show

    def run(self, steps: List[Json]) -> None:
        self._client.require_ok({"do": "connect", "address": self._relay.address, "timeout_ms": 60000})
        for step in steps:
            kind = next(kind for kind in _STEPS if kind in step)
            getattr(self, f"_{kind}")(step)
        self._client.require_ok({"do": "close"})
        # Which events lead to what a watch settles on, and whether a mark comes behind them, is the client's affair.
        left = [event for event in self._client.events if event != {"event": "resync", "watch": self._settled}]
        self._client.events.clear()
        if left:
            raise Failure(f"the client wrote an event that nothing has caused: {json.dumps(left[0])}")

    def _do(self, step: Json) -> None:
        asked = dict(step["do"])
        if asked["do"] == "unwatch":
            asked["watch"] = self._watches[asked["watch"] - 1]
        expected = step.get("answer", {"ok": True})
        answer = require_answer(
            self._client.ask(asked), expected if isinstance(expected, list) else [expected], step["do"]
        )
        if asked["do"] == "watch" and answer["ok"]:
            self._watches.append(answer["watch"])
            self._shown[answer["watch"]] = {}

    def _event(self, step: Json) -> None:
        self._take(step["event"], [step["event"]])

    def _events(self, step: Json) -> None:
        left = list(step["events"])
        while left:
            left.remove(self._take(left[0], left))

    def _take(self, first: Json, expected: List[Json]) -> Json:
        watch = self._watches[first.get("watch", 1) - 1]
        event = self._client.await_event(watch, f"the event {json.dumps(first)}")
        for each in expected:
            wanted = {"event": "change", **each, "watch": watch}
            if holds(event, wanted):
                return each
        require_event(event, {**first, "watch": watch})
        return first

    def _other(self, step: Json) -> None:
        with Peer(self._daemon.path) as peer:
            peer.write(step["other"].encode())

    def _others(self, step: Json) -> None:
        with Peer(self._daemon.path) as peer:
            for _ in range(step["others"]):
                key = self._random.randrange(5)
                peer.write(f"merge\n[{step['group']}]\nkey{key}={self._next_value}\n.\n".encode())
                self._next_value += 1
                self._hub.run_once(0)  # the relay goes on meanwhile

    def _sees(self, step: Json) -> None:
        with Peer(self._daemon.path) as peer:
            seen = document_to_json(peer.get(names_from_json(step.get("names", ["*"]))))
        self._compare("another client reads", seen, step["sees"])

    def _kept(self, step: Json) -> None:
        with Peer(self._daemon.path) as peer:
            kept = document_to_json(peer.dump())
        self._compare("what is saved", kept, step["kept"])

    @staticmethod
    def _compare(what: str, found: Any, expected: Any) -> None:
        if found != expected:
            raise Failure(f"{what}:\nexpected: {json.dumps(expected)}\nfound:    {json.dumps(found)}")

    def _cut(self, _: Json) -> None:
        self._relay.cut()

    def _back(self, _: Json) -> None:
        self._relay.restore()

    def _restart(self, step: Json) -> None:
        self._daemon.end(_SIGNALS[step["restart"]])
        self._daemon.start()

    def _settles(self, step: Json) -> None:
        watch = self._watches[step["watch"] - 1]
        with Peer(self._daemon.path) as peer:
            store = peer.get([step["settles"].encode()])
        wanted = {
            (group, key): value
            for group, keys in document_to_json(store).items()
            for key, value in keys.items()
        }
        self._settled = watch
        shown = self._shown[watch]
        while shown != wanted:
            try:
                event = self._client.await_event(watch, "the events that lead to what the store holds")
            except Failure as failure:
                raise Failure(f"{failure}\nthe store: {wanted}\nthe events show: {shown}") from None
            self._apply(shown, event)

    @staticmethod
    def _apply(shown: Dict[Any, Any], event: Json) -> None:
        if event["event"] != "change" or event["key"] is None:
            return
        place = (event["group"], event["key"])
        if shown.get(place) != event["old"]:
            raise Failure(f"the event's old value is not the one before it, {shown.get(place)!r}: {json.dumps(event)}")
        if event["new"] is None:
            shown.pop(place)
        else:
            shown[place] = event["new"]
