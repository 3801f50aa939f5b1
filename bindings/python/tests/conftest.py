"""One suite for all stores: each is driven through the calls of the one that waits."""

import asyncio
import functools
import itertools
import os
import signal
import time

import pytest

import tavix_settings.aio
from tavix_settings.aio import AsyncWatch
from tavix_settings.testing import AsyncFakeStore, FakeStore, RealDaemon

DEFAULTS = {
    "Device/Identity": {"model": "NC-240", "name": "Camera"},
    "Network/Eth0": {"address": "192.168.0.90", "dhcp": "true"},
    "Network/Wlan0": {"enabled": "false"},
}
RESTRICTED = {"Secure/Wlan0": {"passphrase": "example"}}
for variable in ("TAVIX_SETTINGS_SERVER", "TAVIX_SETTINGS_LOCALFILE"):  # of whoever runs the tests
    os.environ.pop(variable, None)
signal.signal(signal.SIGINT, signal.default_int_handler)  # a shell has what it starts in the background ignore it

PATIENCE = 60.0  # seconds that an event may take; machines of tests stand still at times


def is_long_run():
    return os.environ.get("TAVIX_TEST_LONG") == "1"


def rounds(count):
    """So many of them at least; in a long run for a minute."""
    end = time.monotonic() + 60
    number = 0
    while number < count or is_long_run() and time.monotonic() < end:
        yield number
        number += 1


@pytest.fixture(scope="session")
def shared_daemon():
    """For tests that need nothing of it but that it runs, and that its replies don't wait for the disk."""
    with RealDaemon(options=["--durability", "none"]) as daemon:
        yield daemon


@pytest.fixture
def daemon():
    with RealDaemon(DEFAULTS, RESTRICTED) as running:
        yield running


class Driver:
    """Calls an asyncio store, or a watch of it, as if it waited."""

    def __init__(self, driven, loop):
        self.driven = driven
        self._loop = loop

    def __getattr__(self, name):
        call = getattr(self.driven, name)

        def wait(*arguments, **options):
            result = call(*arguments, **options)
            if asyncio.iscoroutine(result):
                return self._loop.run_until_complete(result)
            return Driver(result, self._loop).__enter__() if isinstance(result, AsyncWatch) else result

        return wait

    def __enter__(self):
        self._loop.run_until_complete(self.driven.__aenter__())
        return self

    def __exit__(self, *_):
        self._loop.run_until_complete(self.driven.close())

    def __repr__(self):
        return repr(self.driven)

    def __iter__(self):
        return self

    def __next__(self):
        try:
            return self._loop.run_until_complete(self.driven.__anext__())
        except StopAsyncIteration:
            raise StopIteration from None


@pytest.fixture
def loop():
    made = asyncio.new_event_loop()
    yield made
    assert asyncio.all_tasks(made) == set()
    made.run_until_complete(made.shutdown_default_executor())
    made.close()


class Stores:
    """Opens stores that are closed with the test."""

    def __init__(self, open_first, open_more):
        self._open_first = open_first
        self._open_more = open_more
        self._opened = []

    def open(self, *arguments, **options):
        open_one = self._open_more if self._opened else self._open_first
        self._opened.append(open_one(*arguments, **options))
        return self._opened[-1]

    def close(self):
        for store in self._opened:
            store.close()


def connect_sync(address, **options):
    options.setdefault("timeout", PATIENCE)
    return tavix_settings.connect(address, **options)


def connect_async(loop, address, **options):
    options.setdefault("timeout", PATIENCE)
    return Driver(tavix_settings.aio.connect(address, **options), loop).__enter__()


@pytest.fixture(params=["sync", "aio"])
def connect(request):
    """Connects stores of either kind."""
    open_one = connect_sync
    if request.param == "aio":
        open_one = functools.partial(connect_async, request.getfixturevalue("loop"))
    made = Stores(open_one, open_one)
    yield made.open
    made.close()


@pytest.fixture(params=["sync", "aio", "fake", "aio-fake"])
def stores(request):
    """Opens stores that share one content."""
    loop = request.getfixturevalue("loop") if "aio" in request.param else None
    if request.param == "sync":
        open_one = functools.partial(connect_sync, request.getfixturevalue("daemon").address)
        made = Stores(open_one, open_one)
    elif request.param == "aio":
        open_one = functools.partial(connect_async, loop, request.getfixturevalue("daemon").address)
        made = Stores(open_one, open_one)
    elif request.param == "fake":
        fake = FakeStore(DEFAULTS, RESTRICTED, timeout=PATIENCE)
        made = Stores(lambda: fake, fake.connect)
    else:
        fake = AsyncFakeStore(DEFAULTS, RESTRICTED, timeout=PATIENCE)
        made = Stores(lambda: Driver(fake, loop), lambda: Driver(fake.connect(), loop))
    yield made
    made.close()


@pytest.fixture
def store(stores):
    return stores.open()


@pytest.fixture
def nonce():
    """Values that nobody else has written."""
    counter = itertools.count()
    return lambda: f"{os.getpid()}-{next(counter)}"
