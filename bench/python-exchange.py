#!/usr/bin/env python3
"""Measures gets of the Python package beside bare exchanges of the same bytes in Python, for bench/PythonBench.cpp.

    python-exchange.py sync|asyncio ADDRESS GROUP KEY VALUE TURNS TIMES
    python-exchange.py pipelined ADDRESS GROUP KEY VALUE TURNS TIMES

Prints a line "ours MICROSECONDS" or "bare MICROSECONDS" an exchange, the two taking turns; pipelined: "ours" for TIMES
gets at once, "bare" for as many exchanges one after the other. Each reply is checked, outside of the time.
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
        if self.buffer.endswith(END, 0, self.size):
            self.whole.set_result(None)

    async def exchange(self, loop):
        self.size = 0
        self.whole = loop.create_future()
        self.transport.write(REQUEST)
        await self.whole
        return bytes(self.buffer[: self.size])


def exchange(connection):
    connection.send(REQUEST)
    received = connection.recv(65536)
    while not received.endswith(END):
        received += connection.recv(65536)
    return received


def measure_sync():
    with tavix_settings.connect(ADDRESS) as store, socket.create_connection((HOST, int(PORT))) as connection:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
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
                received = await bare.exchange(loop)
                show("bare", start, time.perf_counter(), VALUE.encode() in received)
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
                received = await bare.exchange(loop)
            show("bare", start, time.perf_counter(), VALUE.encode() in received)
    transport.close()


if KIND == "sync":
    measure_sync()
else:
    asyncio.run(measure_asyncio() if KIND == "asyncio" else measure_pipelined())
