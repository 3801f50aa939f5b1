"""The store for programs that wait: see connect()."""

from __future__ import annotations

import os
import threading
import time
from typing import (
    Callable,
    FrozenSet,
    Generic,
    Iterator,
    List,
    Literal,
    Optional,
    TypeVar,
    Union,
    cast,
    overload,
)

from . import _calls as calls
from . import _link
from ._address import Address, find_address
from ._calls import MISSING, Call, Groups, Missing, RawGroups
from ._closing import Closing
from ._errors import ClosedError, ConnectionLostError, SettingsError, SettingsTimeoutError, UnsupportedError
from ._link import Link, Waker
from ._names import AnyDocument, AnyKeys, AnyValues, Name, Names, to_names
from ._protocol import MAX_LINE, MAX_REPLY, Protocol, Reply
from ._turns import Ticket, Turns
from ._watching import Backoff, Change, WatchState
from ._writes import Writes

T = TypeVar("T")
A = TypeVar("A")
C = TypeVar("C", Change[str], Change[bytes])
OpenLink = Callable[[Optional[float], Optional[Waker]], Link]

DEFAULT_TIMEOUT = 10.0


def connect(
    address: Optional[str] = None,
    *,
    timeout: Optional[float] = DEFAULT_TIMEOUT,
    max_line: int = MAX_LINE,
    max_reply: int = MAX_REPLY,
) -> Store:
    """Connects to the daemon.

    address: HOST, HOST:PORT, [V6]:PORT or unix:PATH; None: what the variable TAVIX_SETTINGS_SERVER says.
    timeout: seconds that each call may take, this one included; None: for ever. Only the system's resolver, which finds
             the address of a host's name, does not keep to it.
    max_line, max_reply: bytes that the daemon may send as a line and as a reply; beyond: ParseError.

    Throws ConnectionLostError or SettingsTimeoutError, which name the address, and ValueError for what is none.
    """
    store = Store(find_address(address), timeout, max_line, max_reply)
    store.open()
    return store


class _Connection:
    """One connection, and what it was asked."""

    def __init__(self, link: Link, protocol: Protocol) -> None:
        self.link = link
        self.protocol = protocol
        self.features: Optional[FrozenSet[bytes]] = None
        self.has_answered = False  # whether anything has arrived since the last request was sent

    def exchange(self, call: Call[T], deadline: Optional[float]) -> List[object]:
        replies: List[object] = []
        self.has_answered = False
        self.protocol.expect(call.forms)
        self.link.send(call.request, deadline)
        while len(replies) < len(call.forms):
            data = self.link.receive(deadline)
            if not data:
                raise _link.lost(self.protocol.source)
            self.has_answered = True
            for event in self.protocol.receive(data):
                if isinstance(event, Reply):
                    replies.append(event.value)
        return replies


class Store(Closing):
    """A store of settings, over one connection, which is made anew when it is lost.

    Values and names are str, in which each byte survives (UTF-8 with surrogateescape); raw=True gives bytes. Both are
    taken. Names are names or patterns, in which each "*" stands for any run of characters; one, or several.

    Threads:  calls of several threads take turns. close() may be called at any time, by any thread. A signal's handler
              or __del__ that interrupts a call gets a RuntimeError from all but close().
    Time:     no call takes longer than the time-out.
    Errors:   SettingsError and its kinds; TypeError and ValueError for what can't be sent. A call that was cut short,
              by an error, the time-out or Ctrl-C, closes the connection; the next call makes a new one. So no call gets
              the reply of another.
    Repeats:  no write is sent twice. A read is sent once more if the connection was lost before its reply began.
    Fork:     a child gets a ClosedError from all but close().
    """

    def __init__(
        self, address: Address, timeout: Optional[float], max_line: int = MAX_LINE, max_reply: int = MAX_REPLY
    ) -> None:
        """Does not connect; the first call does."""
        self._address = address
        self._timeout = timeout
        self._max_line = max_line
        self._max_reply = max_reply
        self._process = os.getpid()
        self._is_closed = False
        self._turns = Turns()  # of what follows
        self._connection: Optional[_Connection] = None
        self._writes = Writes()

    def open(self) -> None:
        """Connects unless there is a connection."""
        self._in_turn(lambda _, deadline: self._connect(deadline), None)

    def close(self) -> None:
        """Ends the connection. A call of another thread that waits gets a ClosedError, with outcome_unknown if its
        change may have been made; later calls get one, too."""
        self._is_closed = True
        connection = self._connection
        if connection is None:
            return
        if self._process == os.getpid() and self._turns.is_taken_by_others():
            connection.link.shutdown()  # the owner closes it
        else:
            self._connection = None
            connection.link.close()

    def __repr__(self) -> str:
        return f"<tavix_settings.{type(self).__name__} {self._address}{' closed' if self._is_closed else ''}>"

    @overload
    def get(self, group: Name, key: Name, *, raw: Literal[False] = ...) -> str: ...

    @overload
    def get(self, group: Name, key: Name, *, raw: Literal[True]) -> bytes: ...

    @overload
    def get(self, group: Name, key: Name, default: T, *, raw: Literal[False] = ...) -> Union[str, T]: ...

    @overload
    def get(self, group: Name, key: Name, default: T, *, raw: Literal[True]) -> Union[bytes, T]: ...

    def get(self, group: Name, key: Name, default: object = MISSING, *, raw: bool = False) -> object:
        """One value. Where there is none: the default, or else KeyError."""
        return self._run(calls.get(group, key, default, raw))

    @overload
    def groups(self, patterns: Names, *, raw: Literal[False] = ...) -> Groups: ...

    @overload
    def groups(self, patterns: Names, *, raw: Literal[True]) -> RawGroups: ...

    def groups(self, patterns: Names, *, raw: bool = False) -> Union[Groups, RawGroups]:
        """All groups that match, as they are at one moment. A name that matches nothing is just not there."""
        return self._run(calls.groups(patterns, raw))

    def set(self, group: Name, values: AnyValues, expect: Optional[AnyValues] = None) -> None:
        """Sets values of one group, if it holds what is expected, and returns when the daemon has done it.

        Throws ConditionFailedError, and RefusedError for a restricted group or a bound of the daemon. Where the
        outcome_unknown of ConnectionLostError or SettingsTimeoutError is set, the change may have been made.
        """
        self._run(calls.set_values(group, values, expect))

    def merge(self, document: AnyDocument, persist: bool = True) -> None:
        """Sends values to set. flush() waits until the daemon has set them; restricted groups are dropped.

        persist: False: not saved; all readers see the values until the daemon ends.
        """
        self._run(calls.merge(document, persist))

    def test_and_merge(self, test: AnyDocument, change: AnyDocument) -> bool:
        """Sets values if readers see those of the test, as one step. False: nothing was changed."""
        return self._run(calls.test_and_merge(test, change))

    def amend(
        self,
        present: Optional[AnyDocument] = None,
        absent: Optional[AnyKeys] = None,
        set: Optional[AnyDocument] = None,
        unset: Optional[AnyKeys] = None,
        replace: Optional[AnyDocument] = None,
    ) -> bool:
        """Changes the store in one step, if readers see all values of "present" and no key of "absent".

        absent, unset: groups with lists of keys; an empty list is the whole group.
        unset:         takes users' values away, so that defaults show again. replace: groups become exactly this.
        False: nothing was changed. Throws UnsupportedError, with nothing sent, if the daemon does not know this.
        """
        return self._run(calls.amend(present, absent, set, unset, replace))

    def overwrite(self, names: Names, document: AnyDocument) -> None:
        """Sends: remove all groups that match, then set these values. Defaults of what was removed don't come back."""
        self._run(calls.overwrite(names, document))

    def erase(self, names: Names) -> None:
        """Sends: remove all groups that match."""
        self._run(calls.overwrite(names, None))

    def restore(self, names: Names) -> None:
        """Sends: give all groups that match their defaults again."""
        self._run(calls.restore(names))

    def flush(self) -> None:
        """Returns when the daemon has carried out all that was sent.

        Throws ConnectionLostError with outcome_unknown if a connection was lost since the last flush() before anything
        proved that the writes sent over it were carried out.
        """
        self._in_turn(self._flush, self._writes.reported)

    @overload
    def dump(self, *, raw: Literal[False] = ...) -> str: ...

    @overload
    def dump(self, *, raw: Literal[True]) -> bytes: ...

    def dump(self, *, raw: bool = False) -> Union[str, bytes]:
        """What users have set, with the record of deleted groups, as settings text."""
        return self._run(calls.dump(raw))

    @overload
    def watch(
        self, patterns: Names, *, initial: bool = ..., timeout: Optional[float] = ..., raw: Literal[False] = ...
    ) -> Watch[Change[str]]: ...

    @overload
    def watch(
        self, patterns: Names, *, initial: bool = ..., timeout: Optional[float] = ..., raw: Literal[True]
    ) -> Watch[Change[bytes]]: ...

    def watch(
        self, patterns: Names, *, initial: bool = False, timeout: Optional[float] = None, raw: bool = False
    ) -> Union[Watch[Change[str]], Watch[Change[bytes]]]:
        """Returns an iterator over changes, which has a connection of its own. No change from now on is missed.

        initial: begin with all values that there are, as changes from None.
        timeout: the longest silence in seconds, which ends the iteration; None: for ever.
        """
        self._require_usable()
        state = WatchState(to_names(patterns), initial, raw)
        return Watch(state, self._address, self._open_link, self._make_protocol, self._timeout, timeout)

    # What follows is for the store alone.

    def _run(self, call: Call[T]) -> T:
        return call.finish(self._in_turn(self._exchange, call))

    def _in_turn(self, action: Callable[[A, Optional[float]], T], argument: A) -> T:
        self._require_usable()
        deadline = None if self._timeout is None else time.monotonic() + self._timeout
        ticket = Ticket()
        try:
            if not self._turns.take(ticket, deadline):
                raise SettingsTimeoutError(f"calls of other threads to {self._address} took all the time")
            return action(argument, deadline)
        except BaseException as error:
            if self._turns.has(ticket):
                self._drop_if_cut_short()
            # An interrupt, or what a signal's handler raises, is for the caller whether the store is open or not.
            if self._is_closed and isinstance(error, SettingsError):
                raise self._closed(outcome_unknown=error.outcome_unknown) from None
            raise
        finally:
            if self._is_closed and self._turns.has(ticket):
                self._drop()
            self._turns.give_back(ticket)

    def _exchange(self, call: Call[T], deadline: Optional[float]) -> List[object]:
        connection = self._connect(deadline)
        if call.feature is not None:
            self._require_feature(connection, call.feature, deadline)
        try:
            return self._exchange_once(connection, call, deadline)
        except ConnectionLostError:
            if call.is_write or connection.has_answered or self._is_closed:
                raise
        return self._exchange_once(self._connect(deadline), call, deadline)

    def _exchange_once(self, connection: _Connection, call: Call[T], deadline: Optional[float]) -> List[object]:
        number = self._writes.note_sent(has_reply=bool(call.forms))
        try:
            replies = connection.exchange(call, deadline)
        except SettingsError as error:
            self._drop()
            error.outcome_unknown = call.is_write
            raise
        except BaseException:
            self._drop()
            raise
        if call.forms:
            self._writes.note_answered(number)
        return replies

    def _require_feature(self, connection: _Connection, feature: bytes, deadline: Optional[float]) -> None:
        if connection.features is None:
            question = calls.features()
            connection.features = question.finish(self._exchange_once(connection, question, deadline))
        if feature not in connection.features:
            raise UnsupportedError(f"the daemon at {self._address} is too old: it does not know {feature.decode()}")

    def _flush(self, reported: int, deadline: Optional[float]) -> None:
        try:
            self._exchange(calls.flush(), deadline)
        except SettingsError as error:
            error.outcome_unknown = self._writes.has_lost_since(reported)
            if isinstance(error, ConnectionLostError):
                self._writes.note_reported()  # a time-out reports no loss: the next flush does
            raise
        if self._writes.has_lost_since(reported):
            self._writes.note_reported()
            raise calls.unproven(self._address)

    def _connect(self, deadline: Optional[float]) -> _Connection:
        connection = self._connection
        # Nothing is due between calls: what comes then is the connection's end, or means nothing.
        if connection is not None and (connection.protocol.due or connection.link.has_news()):
            self._drop()
        if self._connection is None:
            self._connection = _Connection(self._open_link(deadline, None), self._make_protocol())
        if self._is_closed:  # while it connected
            self._drop()
            raise self._closed()
        return self._connection

    def _open_link(self, deadline: Optional[float], waker: Optional[Waker]) -> Link:
        return Link(self._address, deadline, waker)

    def _make_protocol(self) -> Protocol:
        return Protocol(str(self._address), self._max_line, self._max_reply)

    def _drop_if_cut_short(self) -> None:
        if self._connection is not None and self._connection.protocol.is_busy:
            self._drop()

    def _drop(self) -> None:
        connection, self._connection = self._connection, None
        if connection is not None:
            connection.link.close()
            self._writes.note_connection_gone()

    def _closed(self, *, outcome_unknown: bool = False) -> ClosedError:
        return ClosedError(f"the store {self._address} was closed", outcome_unknown=outcome_unknown)

    def _require_usable(self) -> None:
        if self._is_closed:
            raise self._closed()
        if self._process != os.getpid():
            raise ClosedError(f"the store {self._address} belongs to the process that this one was forked from")


class Watch(Closing, Generic[C], Iterator[C]):
    """An iterator over changes (see Store.watch), and a context manager.

    It ends by close(), by leaving the loop, by its time-out, or by an error or Ctrl-C while it waits; then nothing of
    it is left. A lost connection is made again, first after 0.1 s, then after up to 5 s; what differs then is returned,
    and behind it a change whose "resync" is set. Changes of one setting that wait together are one.

    Threads: one iterates; close() may come from any, and ends the iteration.
    Locks:   "lock" is held while a call reads. close() interrupts that before it takes the lock.
    Errors:  ConnectionLostError and SettingsTimeoutError from Store.watch alone; ParseError; ClosedError in a child.
    """

    def __init__(
        self,
        state: WatchState,
        address: Address,
        open_link: OpenLink,
        make_protocol: Callable[[], Protocol],
        call_timeout: Optional[float],
        timeout: Optional[float],
    ) -> None:
        self._lock = threading.RLock()  # a signal's handler may call close()
        self._is_closed = False
        self._process = os.getpid()
        self._link: Optional[Link] = None
        self._state = state
        self._address = address
        self._open_link = open_link
        self._make_protocol = make_protocol
        self._call_timeout = call_timeout
        self._timeout = timeout
        self._backoff = Backoff()
        self._waker = Waker()
        try:
            self._synchronise(None)
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        """Ends the iteration."""
        is_first = not self._is_closed
        self._is_closed = True
        if not is_first:
            return
        if self._process == os.getpid():  # the waker is the parent's, too
            self._waker.wake()
            self._lock.acquire()
        try:
            self._drop()
            self._waker.close()
        finally:
            if self._process == os.getpid():
                self._lock.release()

    def __del__(self) -> None:
        if hasattr(self, "_waker"):
            self.close()

    def __iter__(self) -> Watch[C]:
        return self

    def __next__(self) -> C:
        if self._process != os.getpid():
            raise ClosedError(f"the watch of {self._address} belongs to the process that this one was forked from")
        deadline = None if self._timeout is None else time.monotonic() + self._timeout
        try:
            with self._lock:
                change = None if self._is_closed else self._next(deadline)
        except BaseException as error:
            was_closed = self._is_closed
            self.close()
            if was_closed and isinstance(error, Exception):
                raise StopIteration from None
            raise
        if change is None:
            self.close()
            raise StopIteration
        return change

    def _next(self, deadline: Optional[float]) -> Optional[C]:
        """None: the time is over."""
        self._take_what_is_there()
        while True:
            change = self._state.next_change()
            if change is not None:
                return cast(C, change)
            if deadline is not None and time.monotonic() >= deadline:
                return None
            try:
                if self._link is None:
                    self._reconnect(deadline)
                else:
                    self._receive(self._link, deadline)
            except ConnectionLostError:
                self._drop()
            except SettingsTimeoutError:
                if deadline is not None and time.monotonic() >= deadline:
                    return None
                self._drop()

    def _take_what_is_there(self) -> None:
        try:
            for _ in range(_link.MAX_CHUNKS_AT_ONCE):
                if self._link is None or not self._link.has_news():
                    return
                self._receive(self._link, None)
        except ConnectionLostError:
            self._drop()

    def _receive(self, link: Link, deadline: Optional[float]) -> None:
        data = link.receive(deadline)
        if not data:
            raise _link.lost(self._address)
        self._state.receive(data)

    def _reconnect(self, deadline: Optional[float]) -> None:
        until = time.monotonic() + self._backoff.next_delay()
        if deadline is not None and until > deadline:
            until = deadline
        self._waker.sleep(until, self._address)
        if deadline is not None and time.monotonic() >= deadline:
            raise _link.silent(self._address)
        self._synchronise(deadline)

    def _synchronise(self, deadline: Optional[float]) -> None:
        """Connects and reads what there is."""
        limit = None if self._call_timeout is None else time.monotonic() + self._call_timeout
        limits = [each for each in (deadline, limit) if each is not None]
        first = min(limits) if limits else None
        self._link = self._open_link(first, self._waker)
        self._link.send(self._state.begin(self._make_protocol()), first)
        while not self._state.is_synchronised:
            self._receive(self._link, first)
        self._backoff.reset()

    def _drop(self) -> None:
        link, self._link = self._link, None
        if link is not None:
            link.close()
