"""What cases of all kinds are given."""

from __future__ import annotations

from typing import NamedTuple

from .client import Client
from .hub import Hub
from .trace import Trace


class Surroundings(NamedTuple):
    """What a case may use. daemon: the program, or "" where there is none."""

    hub: Hub
    client: Client
    trace: Trace
    seed: int
    daemon: str
