"""What every store does, whatever is below it."""

import itertools

import pytest
from conftest import PATIENCE

import tavix_settings


def test_reads_a_value(store):
    assert store.get("Network/Eth0", "address") == "192.168.0.90"


def test_a_missing_value_is_the_default_or_a_key_error(store):
    assert store.get("Network/Eth0", "mtu", default="1500") == "1500"
    assert store.get("Network/Eth0", "mtu", None) is None
    with pytest.raises(KeyError, match=r"\[Network/Eth0\]mtu"):
        store.get("Network/Eth0", "mtu")


def test_reads_groups_by_names_and_patterns(store):
    expected = {"Network/Eth0": {"address": "192.168.0.90", "dhcp": "true"}, "Network/Wlan0": {"enabled": "false"}}
    assert store.groups("Network/*") == expected
    assert store.groups(["Network/Eth0", "Network/W*", "Nothing"]) == expected
    assert store.groups([]) == {}


def test_raw_gives_bytes(store):
    assert store.get("Network/Eth0", "dhcp", raw=True) == b"true"
    assert store.groups(b"Network/W*", raw=True) == {b"Network/Wlan0": {b"enabled": b"false"}}


def test_every_byte_survives(store):
    value = bytes(range(256))
    store.set("Bytes", {b"k\xff=[": value})
    assert store.get("Bytes", b"k\xff=[", raw=True) == value
    text = store.get("Bytes", b"k\xff=[")
    store.set("Bytes", {"copy": text})
    assert store.get("Bytes", "copy", raw=True) == value


def test_sets_values_and_leaves_the_others(store):
    store.set("Network/Eth0", {"mtu": "9000"})
    assert store.groups("Network/Eth0")["Network/Eth0"] == {
        "address": "192.168.0.90",
        "dhcp": "true",
        "mtu": "9000",
    }


def test_sets_only_if_the_group_holds_what_is_expected(store):
    store.set("Network/Eth0", {"mtu": "9000"}, expect={"dhcp": "true"})
    with pytest.raises(tavix_settings.ConditionFailedError, match="Network/Eth0"):
        store.set("Network/Eth0", {"mtu": "1500"}, expect={"dhcp": "false"})
    assert store.get("Network/Eth0", "mtu") == "9000"


@pytest.mark.parametrize("group", ["Secure/Wlan0", "My/Trusted", b"Secure\xff"])
def test_a_restricted_group_is_refused(store, group):
    with pytest.raises(tavix_settings.RefusedError, match="restricted"):
        store.set(group, {"passphrase": "mine"})
    assert store.get("Secure/Wlan0", "passphrase") == "example"


def test_a_merge_is_there_for_all_after_a_flush(stores):
    writer, reader = stores.open(), stores.open()
    writer.merge({"A": {"x": "1"}, "B": {}, "Secure/C": {"y": "2"}})
    writer.flush()
    assert reader.groups(["A", "B", "Secure/C"]) == {"A": {"x": "1"}, "B": {}}


def test_what_does_not_persist_is_in_no_dump(store):
    store.merge({"A": {"x": "1"}}, persist=False)
    assert store.get("A", "x") == "1"
    assert store.dump() == ""
    store.merge({"A": {"y": "2"}})
    assert store.dump() == "[A]\ny=2\n"
    assert store.dump(raw=True) == b"[A]\ny=2\n"


def test_tests_and_merges(store):
    assert store.test_and_merge({"Network/Eth0": {"dhcp": "true"}}, {"Network/Eth0": {"dhcp": "false"}})
    assert not store.test_and_merge({"Network/Eth0": {"dhcp": "true"}}, {"Network/Eth0": {"dhcp": "maybe"}})
    assert store.get("Network/Eth0", "dhcp") == "false"


def test_overwrites_erases_and_restores(store):
    store.overwrite("Network/*", {"Network/Eth1": {"dhcp": "true"}})
    assert store.groups("Network/*") == {"Network/Eth1": {"dhcp": "true"}}
    store.erase(["Network/Eth1", "Device/Identity"])
    assert store.groups("*") == {"Secure/Wlan0": {"passphrase": "example"}}
    store.restore("Network/W*")
    assert store.groups("Network/*") == {"Network/Wlan0": {"enabled": "false"}}


def test_a_value_of_another_type_is_named(store):
    with pytest.raises(TypeError, match="'Network/Eth0'.*'mtu'.*int"):
        store.set("Network/Eth0", {"mtu": 9000})
    with pytest.raises(TypeError, match="'A'.*'x'.*NoneType"):
        store.merge({"A": {"x": None}})
    with pytest.raises(TypeError, match="name.*int"):
        store.groups([5])


@pytest.mark.parametrize("name", ["two\nlines", "."])
def test_a_name_that_no_line_can_hold_is_a_value_error_and_nothing_is_sent(store, name):
    for attempt in (
        lambda: store.get(name, "x"),
        lambda: store.merge({"A": {"x": "1"}, name: {"x": "1"}}),
        lambda: store.erase(["A", name]),
        lambda: store.watch(name),
    ):
        with pytest.raises(ValueError):
            attempt()
    assert store.dump() == ""


def test_a_closed_store_raises_and_says_where_it_was(store):
    assert "closed" not in repr(store)
    store.close()
    store.close()
    with pytest.raises(tavix_settings.ClosedError):
        store.get("Network/Eth0", "dhcp")
    with pytest.raises(tavix_settings.ClosedError):
        store.watch("*")
    assert repr(store).endswith(" closed>")


def test_it_shows_no_values(store):
    store.set("A", {"x": "hidden"})
    assert "hidden" not in repr(store)


def test_a_watch_shows_changes_of_others_and_of_oneself(stores):
    store, other = stores.open(), stores.open()
    with store.watch("Network/*", timeout=PATIENCE) as watch:
        other.merge({"Network/Eth0": {"dhcp": "false"}, "Device/Identity": {"name": "Entrance"}})
        assert next(watch) == tavix_settings.Change("Network/Eth0", "dhcp", "true", "false")
        store.merge({"Network/Eth0": {"mtu": "1500"}})
        assert next(watch) == tavix_settings.Change("Network/Eth0", "mtu", None, "1500")


def test_a_watch_begins_with_what_there_is_if_asked_to(store):
    with store.watch("Network/*", initial=True, timeout=PATIENCE) as watch:
        changes = list(itertools.islice(watch, 3))
    assert [(change.group, change.key, change.old, change.new) for change in changes] == [
        ("Network/Eth0", "address", None, "192.168.0.90"),
        ("Network/Eth0", "dhcp", None, "true"),
        ("Network/Wlan0", "enabled", None, "false"),
    ]


def test_a_watch_shows_groups_that_go_and_groups_without_settings(store):
    with store.watch(["Network/Wlan0", "Empty"], timeout=PATIENCE) as watch:
        store.erase("Network/Wlan0")
        assert next(watch) == tavix_settings.Change("Network/Wlan0", "enabled", "false", None, gone=True)
        store.merge({"Empty": {}})
        assert next(watch) == tavix_settings.Change("Empty", None)
        store.erase("Empty")
        assert next(watch) == tavix_settings.Change("Empty", None, gone=True)


def test_a_raw_watch_gives_bytes(store):
    with store.watch(b"A", raw=True, timeout=PATIENCE) as watch:
        store.set("A", {"x": b"\xff"})
        assert next(watch) == tavix_settings.Change(b"A", b"x", None, b"\xff")


def test_silence_ends_a_watch(store):
    assert list(store.watch("Network/*", timeout=0.05)) == []


def test_a_watch_that_was_closed_is_over(store):
    watch = store.watch("Network/*")
    watch.close()
    watch.close()
    assert list(watch) == []
