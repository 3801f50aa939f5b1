"""amend(): asked for first, sent as five payloads, and not at all to an older daemon."""

import pytest
from conftest import DEFAULTS, PATIENCE, RESTRICTED
from peers import FakeServer

import tavix_settings
from tavix_settings.testing import FakeStore, RealDaemon

QUESTION = b"info features\nget delimited\n.\n"
REQUEST = (
    b"amend\n[A]\nx=1\n.\n[A]\ny=\n[C]\n.\n[A]\ny=2\n.\n[A]\nz=\n[D]\n.\n[B]\nw=3\n.\n"
)


def amend(store):
    return store.amend(
        present={"A": {"x": "1"}},
        absent={"A": ["y"], "C": []},
        set={"A": {"y": "2"}},
        unset={"A": "z", "D": []},
        replace={"B": {"w": "3"}},
    )


def test_is_sent_as_five_payloads_after_the_daemon_was_asked_once(connect):
    with FakeServer() as server:
        store = connect(server.address)
        assert amend(store)
        assert not amend(store)
        assert server.requests == QUESTION + REQUEST * 2
        assert store.groups("*") == {"A": {"x": "1", "y": "2"}, "B": {"w": "3"}}


def test_is_asked_for_again_after_a_reconnection(connect):
    with FakeServer() as server:
        store = connect(server.address)
        assert amend(store)
        server.end_connections()
        assert not amend(store)
        assert server.requests == (QUESTION + REQUEST) * 2


def test_nothing_of_it_is_sent_to_an_older_daemon(connect):
    with FakeServer(features=()) as server:
        store = connect(server.address)
        with pytest.raises(tavix_settings.UnsupportedError, match=f"{server.address} is too old.*amend"):
            amend(store)
        assert store.groups("A") == {"A": {"x": "1"}}
        assert server.requests == QUESTION + b"get delimited\nA\n.\n"


def test_a_daemon_with_other_features_does_not_know_it(connect):
    with FakeServer(features=("trial", "history 1 9")) as server:
        with pytest.raises(tavix_settings.UnsupportedError):
            amend(connect(server.address))
        assert server.requests == QUESTION


@pytest.fixture(params=["fake", "real"])
def store(request):
    """Both do the same."""
    if request.param == "fake":
        with FakeStore(DEFAULTS, RESTRICTED, timeout=PATIENCE) as fake:
            yield fake
        return
    with RealDaemon(DEFAULTS, RESTRICTED, options=["--durability", "none"]) as daemon:
        with tavix_settings.connect(daemon.address, timeout=PATIENCE) as real:
            yield real


def test_conditions_that_fail_change_nothing(store):
    before = store.groups("*")
    for condition in (
        {"present": {"Network/Eth0": {"dhcp": "false"}}},
        {"absent": {"Network/Eth0": ["dhcp"]}},
        {"absent": {"Network/Eth0": []}},
    ):
        assert not store.amend(set={"A": {"x": "1"}}, **condition)
    assert store.groups("*") == before
    assert store.amend(absent={"A": [], "Network/Eth0": ["mtu"]}, set={"A": {"x": "1"}})


def test_unset_shows_defaults_again(store):
    store.set("Network/Eth0", {"dhcp": "false", "mtu": "9000"})
    assert store.amend(unset={"Network/Eth0": ["dhcp"]})
    assert store.groups("Network/Eth0")["Network/Eth0"] == {"address": "192.168.0.90", "dhcp": "true", "mtu": "9000"}
    store.erase("Network/Eth0")
    assert store.amend(unset={"Network/Eth0": []})
    assert store.groups("Network/Eth0") == {"Network/Eth0": DEFAULTS["Network/Eth0"]}


def test_unset_of_a_group_that_a_recorded_pattern_hides_fails_unless_the_pattern_is_named(store):
    store.erase("Network/*")
    assert not store.amend(unset={"Network/Eth0": []})
    assert store.amend(unset={"Network/Eth0": [], "Network/*": []})
    assert store.groups("Network/*").keys() == {"Network/Eth0", "Network/Wlan0"}


def test_replace_leaves_exactly_what_stands_there(store):
    assert store.amend(replace={"Network/Eth0": {"mtu": "1"}, "Network/Wlan0": {}, "Secure/Wlan0": {"x": "1"}})
    assert store.groups(["Network/*", "Secure/*"]) == {"Network/Eth0": {"mtu": "1"}, **RESTRICTED}


def test_a_key_in_two_places_fails(store):
    for parts in (
        {"set": {"A": {"x": "1"}}, "unset": {"A": ["x"]}},
        {"set": {"A": {"x": "1"}}, "replace": {"A": {}}},
        {"unset": {"A": ["x"]}, "replace": {"A": {}}},
    ):
        assert not store.amend(**parts)


def test_a_group_without_keys_that_is_to_be_present_asks_for_nothing(store):
    assert store.amend(present={"Network/Gone": {}}, set={"A": {"x": "1"}})


def test_a_pattern_is_never_replaced(store):
    before = store.groups("*")
    assert not store.amend(replace={"Network/*": {}})
    assert store.groups("*") == before


def test_one_condition_of_many_that_fails_changes_nothing_of_anything(store):
    before = store.groups("*")
    parts = {"set": {"A": {"x": "1"}}, "unset": {"Network/Wlan0": []}, "replace": {"Network/Eth0": {"mtu": "1"}}}
    assert not store.amend(present={"Network/Eth0": {"dhcp": "true"}}, absent={"Network/Eth0": ["address"]}, **parts)
    assert store.groups("*") == before
