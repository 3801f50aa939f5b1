"""Fixtures for tests of programs, for pytest. In a conftest.py:

    pytest_plugins = ["tavix_settings.testing.pytest_plugin"]
"""

from __future__ import annotations

from typing import Dict, Iterator

import pytest

from .. import Store, connect
from . import FakeStore, RealDaemon

Defaults = Dict[str, Dict[str, str]]

_PATIENCE = 60.0  # machines of tests stand still at times


@pytest.fixture
def tavix_defaults() -> Defaults:
    """The default settings of the other fixtures: to be replaced by a test's own."""
    return {}


@pytest.fixture
def tavix_daemon(tavix_defaults: Defaults) -> Iterator[RealDaemon]:
    """A daemon on a free port, and with no settings but tavix_defaults: see RealDaemon."""
    with RealDaemon(tavix_defaults) as daemon:
        yield daemon


@pytest.fixture
def tavix_store(tavix_daemon: RealDaemon) -> Iterator[Store]:
    """A store that is connected to tavix_daemon."""
    with connect(tavix_daemon.address, timeout=_PATIENCE) as store:
        yield store


@pytest.fixture
def tavix_fake_store(tavix_defaults: Defaults) -> Iterator[FakeStore]:
    """A store in memory."""
    with FakeStore(tavix_defaults) as store:
        yield store
