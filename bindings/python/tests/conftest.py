"""One suite for all stores: each is driven through the calls of the one that waits."""

import itertools
import os

import pytest

import tavix_settings
from tavix_settings.testing import FakeStore, RealDaemon

DEFAULTS = {
    "Device/Identity": {"model": "NC-240", "name": "Camera"},
    "Network/Eth0": {"address": "192.168.0.90", "dhcp": "true"},
    "Network/Wlan0": {"enabled": "false"},
}
RESTRICTED = {"Secure/Wlan0": {"passphrase": "example"}}
PATIENCE = 60.0  # seconds that an event may take; machines of tests stand still at times


def is_long_run():
    return os.environ.get("TAVIX_TEST_LONG") == "1"


@pytest.fixture(scope="session")
def shared_daemon():
    """For tests that need nothing of it but that it runs."""
    with RealDaemon() as daemon:
        yield daemon


@pytest.fixture
def daemon():
    with RealDaemon(DEFAULTS, RESTRICTED) as running:
        yield running


class RealStores:
    def __init__(self, daemon):
        self._daemon = daemon
        self._opened = []

    def open(self, **options):
        options.setdefault("timeout", PATIENCE)
        self._opened.append(tavix_settings.connect(self._daemon.address, **options))
        return self._opened[-1]

    def close(self):
        for store in self._opened:
            store.close()


class FakeStores:
    def __init__(self):
        self._first = FakeStore(DEFAULTS, RESTRICTED, timeout=PATIENCE)
        self._opened = [self._first]

    def open(self):
        self._opened.append(self._first.connect())
        return self._opened[-1]

    def close(self):
        for store in self._opened:
            store.close()


@pytest.fixture(params=["sync", "fake"])
def stores(request):
    """Opens stores that share one content."""
    made = FakeStores() if request.param == "fake" else RealStores(request.getfixturevalue("daemon"))
    yield made
    made.close()


@pytest.fixture
def store(stores):
    return stores.open()


@pytest.fixture
def connect():
    """Connects stores that the test's end closes."""
    opened = []

    def open_store(address, **options):
        options.setdefault("timeout", PATIENCE)
        opened.append(tavix_settings.connect(address, **options))
        return opened[-1]

    yield open_store
    for each in opened:
        each.close()


@pytest.fixture
def nonce():
    """Values that nobody else has written."""
    counter = itertools.count()
    return lambda: f"{os.getpid()}-{next(counter)}"
