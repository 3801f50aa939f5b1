"""What tests of programs need: a store in memory, and a daemon of their own.

tavix_settings.testing.pytest_plugin has pytest fixtures of both.
"""

from __future__ import annotations

from ._async_fake_store import AsyncFakeStore
from ._fake_store import FakeStore
from ._real_daemon import RealDaemon

__all__ = ["AsyncFakeStore", "FakeStore", "RealDaemon"]
