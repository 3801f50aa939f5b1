#!/usr/bin/env python3
"""Measures gets and watches of the Python package beside bare exchanges of the same bytes in Python, for
bench/PythonBench.cpp.

    python-exchange.py sync|asyncio ADDRESS GROUP KEY VALUE TURNS TIMES
    python-exchange.py sync-watch|asyncio-watch ADDRESS GROUP KEY VALUE TURNS TIMES
    python-exchange.py pipelined ADDRESS GROUP KEY VALUE TURNS TIMES

Prints a line "ours MICROSECONDS" or "bare MICROSECONDS" an exchange, the two taking turns; watches: from the first byte
of a change until the watcher has it; pipelined: "ours" for TIMES gets at once, "bare" for as many exchanges one after
the other. What is read is checked, outside of the time.
"""

import asyncio
import socket
import sys
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "bindings" / "python"))

import tavix_settings
import tavix_settings.aio

KIND, ADDRESS, GROUP, KEY, VALUE = sys.argv[1:6]
TURNS, TIMES = map(int, sys.argv[6:])
HOST, PORT = ADDRESS.rsplit(":", 1)
REQUEST = b"get delimited\n%b\n.\n" % GROUP.encode()
END = b"\n.\n"
# A watcher and the bare one beside it have a group each, so that the one's notices don't delay the other's.
OTHER_GROUP = GROUP[:-1] + ("0" if GROUP[-1] == "1" else "1")


def show(name, start, end, is_right):
    if not is_right:
        sys.exit(f"{KIND}, {name}: read something else")
    print(name, (end - start) * 1e6)


class Bare(asyncio.BufferedProtocol):
    """One exchange at a time. It has one buffer: with a new one for each reply the allocator's luck would be measured."""

    def connection_made(self, transport):
        self.transport = transport
        self.buffer = bytearray(65536)

    def get_buffer(self, _):
        return memoryview(self.buffer)[self.size :]

    def buffer_updated(self, size):
        self.size += size
        if self.buffer.endswith(self.end, 0, self.size):
            self.whole.set_result(None)

    async def exchange(self, loop, send, end=END):
        self.size = 0
        self.end = end
        self.whole = loop.create_future()
        send()
        await self.whole
        return bytes(self.buffer[: self.size])

    def ask(self):
        self.transport.write(REQUEST)


class Writer:
    """Sets the last key of a group to one value after the other, over a connection of its own."""

    def __init__(self, group):
        self.connection = connect()
        self.group = group
        self.number = 0

    def prepare(self):
        """The next change; values are equally long."""
        self.number = (self.number + 1) % 10
        self.value = f"{VALUE}{self.number}"
        self.end_of_notice = self.value.encode() + END
        self.change = f"merge nopersist\n[{self.group}]\n{KEY}={self.value}\n.\n".encode()

    def send(self):
        self.connection.send(self.change)


def connect():
    connection = socket.create_connection((HOST, int(PORT)))
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return connection


def subscribe(connection):
    connection.send(b"subscribe\n%b\n.\nget delimited\n.\n" % OTHER_GROUP.encode())
    receive(connection, b"data\n.\n")


def exchange(connection):
    connection.send(REQUEST)
    return receive(connection, END)


def receive(connection, end):
    received = connection.recv(65536)
    while not received.endswith(end):
        received += connection.recv(65536)
    return received


def measure_sync():
    with tavix_settings.connect(ADDRESS) as store, connect() as connection:
        for _ in range(TURNS):
            for _ in range(TIMES):
                start = time.perf_counter()
                groups = store.groups(GROUP)
                show("ours", start, time.perf_counter(), groups[GROUP][KEY] == VALUE)
            for _ in range(TIMES):
                start = time.perf_counter()
                received = exchange(connection)
                show("bare", start, time.perf_counter(), VALUE.encode() in received)


async def measure_asyncio():
    loop = asyncio.get_running_loop()
    transport, bare = await loop.create_connection(Bare, HOST, int(PORT))
    async with tavix_settings.aio.connect(ADDRESS) as store:
        for _ in range(TURNS):
            for _ in range(TIMES):
                start = time.perf_counter()
                groups = await store.groups(GROUP)
                show("ours", start, time.perf_counter(), groups[GROUP][KEY] == VALUE)
            for _ in range(TIMES):
                start = time.perf_counter()
                received = await bare.exchange(loop, bare.ask)
                show("bare", start, time.perf_counter(), VALUE.encode() in received)
    transport.close()


def measure_sync_watch():
    ours, bare = Writer(GROUP), Writer(OTHER_GROUP)
    with tavix_settings.connect(ADDRESS) as store, store.watch(GROUP) as watch, connect() as connection:
        subscribe(connection)
        for _ in range(TURNS):
            for _ in range(TIMES):
                ours.prepare()
                start = time.perf_counter()
                ours.send()
                change = next(watch)
                show("ours", start, time.perf_counter(), change.new == ours.value)
            for _ in range(TIMES):
                bare.prepare()
                start = time.perf_counter()
                bare.send()
                received = receive(connection, bare.end_of_notice)
                show("bare", start, time.perf_counter(), received.startswith(b"async change\n"))


async def measure_asyncio_watch():
    loop = asyncio.get_running_loop()
    ours, writer = Writer(GROUP), Writer(OTHER_GROUP)
    with connect() as connection:
        subscribe(connection)
        transport, bare = await loop.create_connection(Bare, sock=connection)
        async with tavix_settings.aio.connect(ADDRESS) as store, store.watch(GROUP) as watch:
            for _ in range(TURNS):
                for _ in range(TIMES):
                    ours.prepare()
                    start = time.perf_counter()
                    ours.send()
                    change = await watch.__anext__()
                    show("ours", start, time.perf_counter(), change.new == ours.value)
                for _ in range(TIMES):
                    writer.prepare()
                    start = time.perf_counter()
                    received = await bare.exchange(loop, writer.send, writer.end_of_notice)
                    show("bare", start, time.perf_counter(), received.startswith(b"async change\n"))
        transport.close()


async def measure_pipelined():
    loop = asyncio.get_running_loop()
    transport, bare = await loop.create_connection(Bare, HOST, int(PORT))
    async with tavix_settings.aio.connect(ADDRESS, timeout=None) as store:
        for _ in range(TURNS):
            start = time.perf_counter()
            values = await asyncio.gather(*[store.get(GROUP, KEY) for _ in range(TIMES)])
            show("ours", start, time.perf_counter(), set(values) == {VALUE})
            start = time.perf_counter()
            for _ in range(TIMES):
                received = await bare.exchange(loop, bare.ask)
            show("bare", start, time.perf_counter(), VALUE.encode() in received)
    transport.close()


if KIND == "sync":
    measure_sync()
elif KIND == "sync-watch":
    measure_sync_watch()
elif KIND == "asyncio-watch":
    asyncio.run(measure_asyncio_watch())
else:
    asyncio.run(measure_asyncio() if KIND == "asyncio" else measure_pipelined())
