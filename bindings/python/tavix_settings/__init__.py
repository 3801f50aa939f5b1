"""The settings of a device: read groups, change them, change them if a condition still holds, and follow changes.

    import tavix_settings

    with tavix_settings.connect() as store:
        mtu = store.get("Network/Eth0", "mtu", default="1500")
        store.set("Network/Eth0", {"mtu": "9000"}, expect={"dhcp": "false"})
        for change in store.watch("Network/*", initial=True, timeout=30):
            print(change.group, change.key, change.old, change.new)

tavix_settings.aio has the same for asyncio, tavix_settings.testing what tests of programs need. docs/python.md tells it
all.
"""

from ._errors import (
    ClosedError,
    ConditionFailedError,
    ConnectionLostError,
    ParseError,
    RefusedError,
    SettingsError,
    SettingsTimeoutError,
    UnsupportedError,
)
from ._sync import Store, Watch, connect
from ._watching import Change

__all__ = [
    "Change",
    "ClosedError",
    "ConditionFailedError",
    "ConnectionLostError",
    "ParseError",
    "RefusedError",
    "SettingsError",
    "SettingsTimeoutError",
    "Store",
    "UnsupportedError",
    "Watch",
    "connect",
]

__version__ = "0.1.0"
