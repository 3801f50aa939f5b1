"""The store for programs with an event loop of asyncio: see connect()."""

from __future__ import annotations

import asyncio
import os
from collections import deque
from typing import (
    Any,
    AsyncIterator,
    Awaitable,
    Callable,
    Deque,
    FrozenSet,
    Generator,
    Generic,
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
from ._async_link import AsyncLink, fail, within
from ._calls import MISSING, Call, Groups, RawGroups
from ._closing import AsyncClosing
from ._errors import (
    ClosedError,
    ConnectionLostError,
    ParseError,
    SettingsError,
    SettingsTimeoutError,
    UnsupportedError,
)
from ._names import AnyDocument, AnyKeys, AnyValues, Name, Names, to_names
from ._protocol import MAX_LINE, MAX_REPLY, Protocol, Reply
from ._sync import DEFAULT_TIMEOUT
from ._watching import Backoff, Change, WatchState
from ._writes import Writes

__all__ = ["AsyncStore", "AsyncWatch", "connect"]

T = TypeVar("T")
S = TypeVar("S", bound="AsyncStore")
C = TypeVar("C", Change[str], Change[bytes])
OpenLink = Callable[[Optional[float]], Awaitable[AsyncLink]]

_CHANGES_BETWEEN_PAUSES = 64


def connect(
    address: Optional[str] = None,
    *,
    timeout: Optional[float] = DEFAULT_TIMEOUT,
    max_line: int = MAX_LINE,
    max_reply: int = MAX_REPLY,
) -> AsyncStore:
    """Connects, as tavix_settings.connect() does, when it is awaited or entered:

        store = await connect()
        async with connect() as store: ...
    """
    return AsyncStore(find_address(address), timeout, max_line, max_reply)


class _Waiter:
    """A call that was sent, and its replies so far. deadline: of the loop. has_begun: whether any byte of them had
    arrived at the end."""

    __slots__ = ("call", "number", "future", "deadline", "replies", "has_begun")

    def __init__(
        self, call: Call[Any], number: int, future: asyncio.Future[None], deadline: Optional[float]
    ) -> None:
        self.call = call
        self.number = number
        self.future = future
        self.deadline = deadline
        self.replies: List[object] = []
        self.has_begun = False


class _Connection:
    """One connection, and the calls whose replies are due, in their order. One timer ends those that are out of time:
    most calls need none of their own, as their replies come before that of an earlier one has fired."""

    def __init__(
        self, loop: asyncio.AbstractEventLoop, link: AsyncLink, protocol: Protocol, writes: Writes
    ) -> None:
        self.link = link
        self.features: Optional[FrozenSet[bytes]] = None
        self.is_open = True
        self.received = 0  # how often anything has arrived
        self._loop = loop
        self._timer: Optional[asyncio.TimerHandle] = None
        self._protocol = protocol
        self._writes = writes
        self._waiting: Deque[_Waiter] = deque()
        link.start(self._take, self.end)

    def submit(self, waiter: _Waiter) -> None:
        if waiter.call.forms:
            self._protocol.expect(waiter.call.forms)
            self._waiting.append(waiter)
            self._wake_at(waiter.deadline)
        self.link.write(waiter.call.request)

    def end(self, error: SettingsError) -> None:
        """The call whose reply is due next gets the error; those behind it only that the connection is lost, or that
        the store was closed."""
        if not self.is_open:
            return
        self.is_open = False
        self.link.close()
        if self._timer is not None:
            self._timer.cancel()
        self._writes.note_connection_gone()
        waiting, self._waiting = self._waiting, deque()
        for place, waiter in enumerate(waiting):
            waiter.has_begun = place == 0 and (bool(waiter.replies) or self._protocol.is_inside_message)
            fail(waiter.future, error if place == 0 else self._error_for_others(error))

    def _error_for_others(self, error: SettingsError) -> SettingsError:
        return ClosedError(str(error)) if isinstance(error, ClosedError) else _link.lost(self._protocol.source)

    def _wake_at(self, deadline: Optional[float]) -> None:
        """Unless it does before."""
        if deadline is None:
            return
        if self._timer is not None:
            if self._timer.when() <= deadline:
                return
            self._timer.cancel()
        self._timer = self._loop.call_at(deadline, self._expire)

    def _expire(self) -> None:
        assert self._timer is not None
        now = max(self._timer.when(), self._loop.time())
        self._timer = None
        waiting = [each for each in self._waiting if each.deadline is not None and not each.future.done()]
        for waiter in waiting:
            if cast(float, waiter.deadline) <= now:
                fail(waiter.future, _link.silent(self._protocol.source))
            else:
                self._wake_at(waiter.deadline)

    def _take(self, data: bytes) -> None:
        self.received += 1
        try:
            events = self._protocol.receive(data)
        except ParseError as error:
            return self.end(error)
        for event in events:
            if isinstance(event, Reply):
                self._take_reply(event)

    def _take_reply(self, reply: Reply) -> None:
        waiter = self._waiting[0]
        waiter.replies.append(reply.value)
        if len(waiter.replies) < len(waiter.call.forms):
            return
        self._waiting.popleft()
        self._writes.note_answered(waiter.number)
        # The reply to a call that was cancelled, or is out of time, is dropped here.
        if not waiter.future.done():
            waiter.future.set_result(None)


class AsyncStore(AsyncClosing):
    """tavix_settings.Store for an event loop: the same calls, awaited.

    Tasks:  calls of many tasks are sent without waiting for each other, and answered in their order. A task that is
            cancelled leaves the calls of others alone; the reply to its own is read and dropped.
    Time:   no call takes longer than the time-out. A call that runs out of time while nothing at all arrives ends the
            connection; the next makes a new one.
    Loops:  one, that of the first call; RuntimeError in another.
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
        self._loop: Optional[asyncio.AbstractEventLoop] = None
        self._is_closed = False
        self._is_connecting = False
        self._connected: List[asyncio.Future[None]] = []  # of calls that wait for another's attempt to connect
        self._connection: Optional[_Connection] = None
        self._writes = Writes()

    async def open(self: S) -> S:
        """Connects unless there is a connection."""
        await self._connect(self._begin())
        return self

    async def close(self) -> None:
        """Ends the connection. Calls that wait get a ClosedError; later calls do, too."""
        self._is_closed = True
        connection, self._connection = self._connection, None
        if connection is not None and self._process != os.getpid():
            connection.link.close()
        elif connection is not None:
            connection.end(self._closed())

    def __await__(self: S) -> Generator[Any, None, S]:
        return self.open().__await__()

    async def __aenter__(self: S) -> S:
        return await self.open()

    def __repr__(self) -> str:
        return f"<tavix_settings.aio.{type(self).__name__} {self._address}{' closed' if self._is_closed else ''}>"

    @overload
    async def get(self, group: Name, key: Name, *, raw: Literal[False] = ...) -> str: ...

    @overload
    async def get(self, group: Name, key: Name, *, raw: Literal[True]) -> bytes: ...

    @overload
    async def get(self, group: Name, key: Name, default: T, *, raw: Literal[False] = ...) -> Union[str, T]: ...

    @overload
    async def get(self, group: Name, key: Name, default: T, *, raw: Literal[True]) -> Union[bytes, T]: ...

    async def get(self, group: Name, key: Name, default: object = MISSING, *, raw: bool = False) -> object:
        """See Store.get()."""
        return await self._run(calls.get(group, key, default, raw))

    @overload
    async def groups(self, patterns: Names, *, raw: Literal[False] = ...) -> Groups: ...

    @overload
    async def groups(self, patterns: Names, *, raw: Literal[True]) -> RawGroups: ...

    async def groups(self, patterns: Names, *, raw: bool = False) -> Union[Groups, RawGroups]:
        """See Store.groups()."""
        return await self._run(calls.groups(patterns, raw))

    async def set(self, group: Name, values: AnyValues, expect: Optional[AnyValues] = None) -> None:
        """See Store.set()."""
        await self._run(calls.set_values(group, values, expect))

    async def merge(self, document: AnyDocument, persist: bool = True) -> None:
        """See Store.merge()."""
        await self._run(calls.merge(document, persist))

    async def test_and_merge(self, test: AnyDocument, change: AnyDocument) -> bool:
        """See Store.test_and_merge()."""
        return await self._run(calls.test_and_merge(test, change))

    async def amend(
        self,
        present: Optional[AnyDocument] = None,
        absent: Optional[AnyKeys] = None,
        set: Optional[AnyDocument] = None,
        unset: Optional[AnyKeys] = None,
        replace: Optional[AnyDocument] = None,
    ) -> bool:
        """See Store.amend()."""
        return await self._run(calls.amend(present, absent, set, unset, replace))

    async def overwrite(self, names: Names, document: AnyDocument) -> None:
        """See Store.overwrite()."""
        await self._run(calls.overwrite(names, document))

    async def erase(self, names: Names) -> None:
        """See Store.erase()."""
        await self._run(calls.overwrite(names, None))

    async def restore(self, names: Names) -> None:
        """See Store.restore()."""
        await self._run(calls.restore(names))

    async def flush(self) -> None:
        """See Store.flush()."""
        reported = self._writes.reported
        try:
            await self._exchange(calls.flush(), self._begin())
        except SettingsError as error:
            error.outcome_unknown = self._writes.has_lost_since(reported)
            if isinstance(error, ConnectionLostError):
                self._writes.note_reported()  # a time-out reports no loss: the next flush does
            raise
        if self._writes.has_lost_since(reported):
            self._writes.note_reported()
            raise calls.unproven(self._address)

    @overload
    async def dump(self, *, raw: Literal[False] = ...) -> str: ...

    @overload
    async def dump(self, *, raw: Literal[True]) -> bytes: ...

    async def dump(self, *, raw: bool = False) -> Union[str, bytes]:
        """See Store.dump()."""
        return await self._run(calls.dump(raw))

    @overload
    def watch(
        self, patterns: Names, *, initial: bool = ..., timeout: Optional[float] = ..., raw: Literal[False] = ...
    ) -> AsyncWatch[Change[str]]: ...

    @overload
    def watch(
        self, patterns: Names, *, initial: bool = ..., timeout: Optional[float] = ..., raw: Literal[True]
    ) -> AsyncWatch[Change[bytes]]: ...

    def watch(
        self, patterns: Names, *, initial: bool = False, timeout: Optional[float] = None, raw: bool = False
    ) -> Union[AsyncWatch[Change[str]], AsyncWatch[Change[bytes]]]:
        """See Store.watch(). It connects when it is entered, or else when its first change is asked for; only what
        changes after that is returned."""
        self._require_usable()
        engine = _WatchEngine(
            WatchState(to_names(patterns), initial, raw),
            self._address,
            self._open_link,
            self._make_protocol,
            self._timeout,
        )
        return AsyncWatch(engine, timeout)

    # What follows is for the store alone.

    async def _run(self, call: Call[T]) -> T:
        return call.finish(await self._exchange(call, self._begin()))

    def _begin(self) -> Optional[float]:
        """The call's deadline."""
        self._require_usable()
        loop = asyncio.get_running_loop()
        if self._loop is None:
            self._loop = loop
        elif self._loop is not loop:
            raise RuntimeError(f"the store {self._address} belongs to another event loop")
        return None if self._timeout is None else loop.time() + self._timeout

    async def _exchange(self, call: Call[T], deadline: Optional[float]) -> List[object]:
        connection = await self._connect(deadline)
        if call.feature is not None:
            connection = await self._require_feature(connection, call.feature, deadline)
        waiter = self._submit(connection, call, deadline)
        try:
            return await self._finish(connection, waiter)
        except ConnectionLostError:
            if call.is_write or waiter.has_begun or self._is_closed:
                raise
        connection = await self._connect(deadline)
        return await self._finish(connection, self._submit(connection, call, deadline))

    def _submit(self, connection: _Connection, call: Call[Any], deadline: Optional[float]) -> _Waiter:
        future: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        waiter = _Waiter(call, self._writes.note_sent(has_reply=bool(call.forms)), future, deadline)
        connection.submit(waiter)
        return waiter

    async def _finish(self, connection: _Connection, waiter: _Waiter) -> List[object]:
        received = connection.received
        try:
            if waiter.call.forms:
                await waiter.future
            else:
                await connection.link.drain(waiter.deadline)
        except SettingsError as error:
            if isinstance(error, SettingsTimeoutError) and connection.received == received:
                connection.end(_link.lost(self._address, "the daemon is silent"))
            error.outcome_unknown = waiter.call.is_write
            raise
        return waiter.replies

    async def _require_feature(
        self, connection: _Connection, feature: bytes, deadline: Optional[float]
    ) -> _Connection:
        """The connection that has said so."""
        if connection.features is None:
            question = calls.features()
            waiter = self._submit(connection, question, deadline)
            connection.features = question.finish(await self._finish(connection, waiter))
        if feature not in connection.features:
            raise UnsupportedError(f"the daemon at {self._address} is too old: it does not know {feature.decode()}")
        if not connection.is_open:
            raise _link.lost(self._address)
        return connection

    async def _connect(self, deadline: Optional[float]) -> _Connection:
        while True:
            connection = self._connection
            if connection is not None and connection.is_open and connection.link.has_ended():
                connection.link.receive_now()
            if self._is_closed:
                raise self._closed()
            if connection is not None and connection.is_open:
                return connection
            if self._is_connecting:
                await self._wait_for_other_attempt(deadline)
                continue
            self._is_connecting = True
            try:
                link = await self._open_link(deadline)
                loop = asyncio.get_running_loop()
                self._connection = _Connection(loop, link, self._make_protocol(), self._writes)
            finally:
                self._is_connecting = False
                for future in self._connected:
                    if not future.done():
                        future.set_result(None)
            if self._is_closed:
                await self.close()

    async def _wait_for_other_attempt(self, deadline: Optional[float]) -> None:
        future: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._connected.append(future)
        try:
            await within(future, deadline, self._address)
        finally:
            self._connected.remove(future)

    async def _open_link(self, deadline: Optional[float]) -> AsyncLink:
        return await AsyncLink.open(self._address, deadline)

    def _make_protocol(self) -> Protocol:
        return Protocol(str(self._address), self._max_line, self._max_reply)

    def _closed(self) -> ClosedError:
        return ClosedError(f"the store {self._address} was closed")

    def _require_usable(self) -> None:
        if self._is_closed:
            raise self._closed()
        if self._process != os.getpid():
            raise ClosedError(f"the store {self._address} belongs to the process that this one was forked from")


class _WatchEngine:
    """What the loop knows of a watch. The loop's callbacks hold it, not the watch, so that a watch that nobody holds
    ends."""

    def __init__(
        self,
        state: WatchState,
        address: Address,
        open_link: OpenLink,
        make_protocol: Callable[[], Protocol],
        call_timeout: Optional[float],
    ) -> None:
        self.state = state
        self.address = address
        self.is_closed = False
        self.has_begun = False
        self._open_link = open_link
        self._make_protocol = make_protocol
        self._call_timeout = call_timeout
        self._backoff = Backoff()
        self._link: Optional[AsyncLink] = None
        self._error: Optional[ParseError] = None
        self._news: Optional[asyncio.Future[None]] = None

    def close(self) -> None:
        self.is_closed = True
        self.drop()
        self._wake()

    def drop(self) -> None:
        link, self._link = self._link, None
        if link is not None:
            link.close()

    def take_what_is_there(self) -> bool:
        """True: there may be more. Throws ParseError, too, if what has arrived before was none."""
        has_more = self._link is not None and self._link.receive_now()
        if self._error is not None:
            raise self._error
        return has_more

    async def advance(self, deadline: Optional[float]) -> None:
        """Waits for something to arrive, or for a new connection. Throws SettingsTimeoutError at the deadline alone."""
        try:
            if self._link is not None:
                await self._wait(deadline)
            else:
                await self._reconnect(deadline)
        except ConnectionLostError:
            self.drop()
        except SettingsTimeoutError:
            if deadline is not None and asyncio.get_running_loop().time() >= deadline:
                raise
            self.drop()

    async def synchronise(self, deadline: Optional[float]) -> None:
        """Connects and reads what there is."""
        loop = asyncio.get_running_loop()
        limit = None if self._call_timeout is None else loop.time() + self._call_timeout
        limits = [each for each in (deadline, limit) if each is not None]
        first = min(limits) if limits else None
        link = await self._open_link(first)
        if self.is_closed:
            link.close()
            return
        self._link = link
        request = self.state.begin(self._make_protocol())
        link.start(self._take, self._end)
        link.write(request)
        while not self.state.is_synchronised and not self.is_closed:
            if self._link is None:
                raise _link.lost(self.address)
            await self._wait(first)
            if self._error is not None:
                raise self._error
        self.has_begun = True
        self._backoff.reset()

    async def _reconnect(self, deadline: Optional[float]) -> None:
        loop = asyncio.get_running_loop()
        until = loop.time() + self._backoff.next_delay()
        try:
            await self._wait(until if deadline is None else min(until, deadline))
        except SettingsTimeoutError:
            if deadline is not None and loop.time() >= deadline:
                raise
        if not self.is_closed:
            await self.synchronise(deadline)

    async def _wait(self, deadline: Optional[float]) -> None:
        self._news = asyncio.get_running_loop().create_future()
        try:
            await within(self._news, deadline, self.address)
        finally:
            self._news = None

    def _take(self, data: bytes) -> None:
        try:
            self.state.receive(data)
        except ParseError as error:
            self._error = error
            self.drop()
        self._wake()

    def _end(self, error: ConnectionLostError) -> None:
        self._link = None
        self._wake()

    def _wake(self) -> None:
        news = self._news
        if news is not None and not news.done() and not news.get_loop().is_closed():
            news.set_result(None)


class AsyncWatch(AsyncClosing, Generic[C], AsyncIterator[C]):
    """tavix_settings.Watch for an event loop.

    It ends by close(), by leaving the loop, by its time-out, by an error, or by the cancellation of the task that waits
    for it; then nothing of it is left. One task iterates.
    """

    def __init__(self, engine: _WatchEngine, timeout: Optional[float]) -> None:
        self._engine = engine
        self._timeout = timeout
        self._process = os.getpid()
        self._returned = 0  # changes since the loop had its turn

    async def close(self) -> None:
        """Ends the iteration, of another task, too."""
        self._engine.close()

    async def __aenter__(self) -> AsyncWatch[C]:
        try:
            await self._begin()
        except BaseException:
            self._engine.close()
            raise
        return self

    def __del__(self) -> None:
        self._engine.close()

    def __aiter__(self) -> AsyncWatch[C]:
        return self

    async def __anext__(self) -> C:
        if self._process != os.getpid():
            message = f"the watch of {self._engine.address} belongs to the process that this one was forked from"
            raise ClosedError(message)
        try:
            change = await self._next()
        except BaseException:
            self._engine.close()
            raise
        if change is None:
            self._engine.close()
            raise StopAsyncIteration
        return change

    async def _begin(self) -> None:
        if not self._engine.has_begun and not self._engine.is_closed:
            await self._engine.synchronise(None)

    async def _next(self) -> Optional[C]:
        """None: it was closed, or the time is over."""
        await self._begin()
        self._returned += 1
        if self._returned % _CHANGES_BETWEEN_PAUSES == 0:
            await asyncio.sleep(0)
        deadline = None if self._timeout is None else asyncio.get_running_loop().time() + self._timeout
        while not self._engine.is_closed:
            if self._engine.take_what_is_there():
                await asyncio.sleep(0)
                if self._engine.is_closed:
                    break
            change = self._engine.state.next_change()
            if change is not None:
                return cast(C, change)
            if deadline is not None and asyncio.get_running_loop().time() >= deadline:
                return None
            try:
                await self._engine.advance(deadline)
            except SettingsTimeoutError:
                return None
        return None
