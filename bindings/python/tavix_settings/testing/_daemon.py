"""A daemon in memory, without input and output: requests in, replies and notices out.

It is for tests of programs, not for programs: it looks at each group for each request, keeps no bounds and no files.

Threads: one at a time.
"""

from __future__ import annotations

import re
from typing import Callable, Dict, Iterable, List, Optional, Set, Tuple

from .._names import is_restricted
from .._text import RawDocument, RawGroup, format_text, parse_text

_RECORD = b"TavixSettings/Data/DeletedGroups"
_LIST, _PAYLOAD = "list", "payload"
_Part = List[bytes]  # lines
_Names = List[bytes]


def _expression(pattern: bytes) -> re.Pattern[bytes]:
    return re.compile(b".*".join(re.escape(part) for part in pattern.split(b"*")), re.DOTALL)


def _is_match(name: bytes, patterns: Iterable[bytes]) -> bool:
    return any(_expression(pattern).fullmatch(name) for pattern in patterns)


class Layers:
    """What a store consists of. What readers see: restricted over volatile over user settings over defaults, but for
    those of deleted groups."""

    def __init__(self, defaults: RawDocument, restricted: RawDocument) -> None:
        self.defaults = defaults
        self.restricted = restricted
        self.user: RawDocument = {}
        self.volatile: RawDocument = {}
        self.deleted: Set[bytes] = set()

    def effective(self) -> RawDocument:
        seen = {name: dict(keys) for name, keys in self.defaults.items() if not _is_match(name, self.deleted)}
        for layer in (self.user, self.volatile, self.restricted):
            for name, keys in layer.items():
                seen.setdefault(name, {}).update(keys)
        return seen

    def merge(self, change: RawDocument, persist: bool = True) -> None:
        layer = self.user if persist else self.volatile
        for name, keys in _unrestricted(change).items():
            layer.setdefault(name, {}).update(keys)
            if persist and name in self.volatile:
                for key in keys:
                    self.volatile[name].pop(key, None)

    def remove(self, names: Iterable[bytes]) -> None:
        patterns = [name for name in names if not is_restricted(name)]
        self.deleted.update(patterns)
        for layer in (self.user, self.volatile):
            for name in [each for each in layer if _is_match(each, patterns)]:
                del layer[name]

    def restore(self, names: List[bytes]) -> None:
        for layer in (self.user, self.volatile):
            for name in [each for each in layer if _is_match(each, names)]:
                del layer[name]
        self.user.update({name: dict(keys) for name, keys in self.defaults.items() if _is_match(name, names)})

    def amend(
        self, present: RawDocument, absent: RawDocument, set: RawDocument, unset: RawDocument, replace: RawDocument
    ) -> bool:
        if not self.holds(present, absent) or _is_contradiction(set, unset, replace) or not self._can_unset(unset):
            return False
        for name, keys in _unrestricted(replace).items():
            self.remove([name])
            if keys:
                self.user[name] = dict(keys)
        self.merge(set)
        for name, keys in _unrestricted(unset).items():
            self._unset(name, keys)
        return True

    def dump(self) -> RawDocument:
        shown = dict(self.user)
        if self.deleted:
            shown[_RECORD] = {name: name for name in self.deleted}
        return shown

    def holds(self, present: RawDocument, absent: RawDocument) -> bool:
        seen = self.effective()
        for name, keys in present.items():
            if any(seen.get(name, {}).get(key) != value for key, value in keys.items()):
                return False
        return not any(name in seen and (not keys or keys.keys() & seen[name].keys()) for name, keys in absent.items())

    def _can_unset(self, unset: RawDocument) -> bool:
        for name, keys in unset.items():
            others = [pattern for pattern in self.deleted if b"*" in pattern and pattern not in unset]
            if not keys and name not in self.deleted and _is_match(name, others):
                return False
        return True

    def _unset(self, name: bytes, keys: RawGroup) -> None:
        if not keys:
            self.deleted.discard(name)
        for layer in (self.user, self.volatile):
            if not keys:
                layer.pop(name, None)
            for key in keys:
                layer.get(name, {}).pop(key, None)
            if name in layer and not layer[name]:
                del layer[name]


class Session:
    """One client's connection. deliver: takes what is sent to it."""

    def __init__(self, daemon: FakeDaemon, deliver: Callable[[bytes], None]) -> None:
        self.deliver = deliver
        self.patterns: Set[bytes] = set()
        self.is_open = True
        self._daemon = daemon
        self._buffer = b""
        self._words: List[bytes] = []
        self._parts: List[_Part] = []
        self._wanted: Tuple[str, ...] = ()

    def receive(self, data: bytes) -> None:
        """Carries out what is whole. Throws ParseError for a payload that is none: the daemon ends the connection."""
        self._buffer += data
        *lines, self._buffer = self._buffer.split(b"\n")
        for line in lines:
            if self.is_open:
                self._take_line(line)

    def close(self) -> None:
        self.is_open = False
        self._daemon.sessions.discard(self)

    def _take_line(self, line: bytes) -> None:
        if self._parts and len(self._parts) <= len(self._wanted):
            if line != b".":
                self._parts[-1].append(line)
                return
            self._parts.append([])
        else:
            self._words = line.split()
            command = self._words[0] if self._words else b""
            wanted = self._daemon.parts_of(command)
            if wanted is None:
                return  # an unknown command is dropped
            self._wanted = wanted
            self._parts = [[]]
        if len(self._parts) > len(self._wanted):
            parts, self._parts = self._parts, []
            self._daemon.carry_out(self, self._words, parts)


class FakeDaemon:
    """features: what it knows beyond the oldest daemon, as "info features" has it."""

    def __init__(self, defaults: RawDocument, restricted: RawDocument, features: Iterable[bytes] = (b"amend",)) -> None:
        self.layers = Layers(defaults, restricted)
        self.features = tuple(features)
        self.sessions: Set[Session] = set()
        self._commands: Dict[bytes, Tuple[Tuple[str, ...], Callable[[Session, List[bytes], List[_Part]], None]]] = {
            b"get": ((_LIST,), self._get),
            b"merge": ((_PAYLOAD,), self._merge),
            b"test-and-merge": ((_PAYLOAD, _PAYLOAD), self._test_and_merge),
            b"overwrite": ((_LIST, _PAYLOAD), self._overwrite),
            b"restore": ((_LIST,), self._restore),
            b"subscribe": ((_LIST,), self._subscribe),
            b"dump": ((), self._dump),
            b"info": ((), self._info),
            b"quit": ((), self._quit),
        }
        if b"amend" in self.features:
            self._commands[b"amend"] = ((_PAYLOAD,) * 5, self._amend)

    def open_session(self, deliver: Callable[[bytes], None]) -> Session:
        session = Session(self, deliver)
        self.sessions.add(session)
        return session

    def parts_of(self, command: bytes) -> Optional[Tuple[str, ...]]:
        known = self._commands.get(command)
        return known[0] if known else None

    def carry_out(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        self._commands[words[0]][1](session, words, parts)

    def _get(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        chosen = _select(self.layers.effective(), parts[0])
        session.deliver(b"data\n" + format_text(chosen) + b".\n")

    def _merge(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        change = _document(parts[0])
        self.layers.merge(change, persist=words[1:2] != [b"nopersist"])
        self._announce(_unrestricted(change))

    def _test_and_merge(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        test, change = _document(parts[0]), _document(parts[1])
        is_done = self.layers.holds(test, {})
        if is_done:
            self.layers.merge(change)
            self._announce(_unrestricted(change))
        session.deliver(_result(is_done))

    def _amend(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        before = self.layers.effective()
        is_done = self.layers.amend(*(_document(part) for part in parts[:5]))
        self._announce_difference(before)
        session.deliver(_result(is_done))

    def _overwrite(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        before = self.layers.effective()
        change = _document(parts[1])
        self.layers.remove(parts[0])
        self.layers.merge(change)
        self._announce_difference(before)

    def _restore(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        before = self.layers.effective()
        self.layers.restore(parts[0])
        self._announce_difference(before)

    def _subscribe(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        session.patterns.update(parts[0])

    def _dump(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        shown = self.layers.effective() if words[1:2] == [b"all"] else self.layers.dump()
        session.deliver(format_text(shown) + b".\n")

    def _info(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        if words[1:2] == [b"features"] and self.features:
            session.deliver(b"Features\n--------\n" + b"".join(line + b"\n" for line in self.features) + b"\n")

    def _quit(self, session: Session, words: List[bytes], parts: List[_Part]) -> None:
        session.close()
        session.deliver(b"")

    def _announce_difference(self, before: RawDocument) -> None:
        after = self.layers.effective()
        self._announce(name for name in before.keys() | after.keys() if before.get(name) != after.get(name))

    def _announce(self, changed: Iterable[bytes]) -> None:
        names = sorted(changed)
        effective = self.layers.effective()
        for session in list(self.sessions):
            heard = [name for name in names if _is_match(name, session.patterns)]
            if heard:
                now = {name: effective[name] for name in heard if name in effective}
                text = b"".join(name + b"\n" for name in heard)
                session.deliver(b"async change\n" + text + b".\n" + format_text(now) + b".\n")


def _select(document: RawDocument, patterns: _Names) -> RawDocument:
    return {name: keys for name, keys in document.items() if _is_match(name, patterns)}


def _document(lines: _Part) -> RawDocument:
    return parse_text(b"\n".join(lines), "payload")


def _unrestricted(document: RawDocument) -> RawDocument:
    return {name: keys for name, keys in document.items() if not is_restricted(name)}


def _is_contradiction(set: RawDocument, unset: RawDocument, replace: RawDocument) -> bool:
    for name, keys in unset.items():
        if name in set and (not keys or keys.keys() & set[name].keys()):
            return True
    return any(name in set or name in unset or b"*" in name for name in replace)


def _result(is_done: bool) -> bytes:
    return b"result\n" + (b"ok\n" if is_done else b"failure\n")
