"""Connections that are lost, silent, wrong or somebody else's."""

import math
import os
import threading
import time

import pytest
from conftest import PATIENCE
from peers import Peer, read_request, wait_for_end

import tavix_settings

READ = b"get delimited\nA\n.\n"
REPLY = b"data\n[A]\nx=1\n.\n"


def unused_address():
    with Peer(lambda connection, number: None) as peer:
        return peer.address


def test_an_unreachable_daemon_is_named(connect, tmp_path):
    for address in (unused_address(), f"unix:{tmp_path}/none"):
        with pytest.raises(tavix_settings.ConnectionLostError, match=f"no server at {address}: "):
            connect(address)


@pytest.mark.parametrize(
    ["address", "problem"],
    [
        ("host:0", "the port must be a number from 1 to 65535"),
        ("host:x", "the port must be"),
        (":7211", "no host"),
        ("unix:", "the path must have 1 to 107 bytes"),
        ("unix:/" + "x" * 107, "the path must have"),
        ("[::1", r"expected \[ADDRESS\]"),
    ],
)
def test_an_address_that_is_none_is_a_value_error(connect, address, problem, monkeypatch):
    with pytest.raises(ValueError, match=f"address: .*{problem}"):
        connect(address)
    monkeypatch.setenv("TAVIX_SETTINGS_SERVER", address)
    with pytest.raises(ValueError, match=f"TAVIX_SETTINGS_SERVER: .*{problem}"):
        connect(None)


def test_a_file_in_the_place_of_the_daemon_is_a_value_error(connect, daemon, monkeypatch):
    monkeypatch.setenv("TAVIX_SETTINGS_LOCALFILE", "/some/file.ini")
    monkeypatch.setenv("TAVIX_SETTINGS_SERVER", daemon.address)
    with pytest.raises(ValueError, match="TAVIX_SETTINGS_LOCALFILE names file '/some/file.ini'"):
        connect(None)
    assert connect(daemon.address).get("Network/Eth0", "dhcp") == "true"


@pytest.mark.parametrize("timeout", [30 * 24 * 60 * 60, math.inf])
def test_a_call_may_have_more_time_than_the_system_waits_at_once(connect, daemon, timeout):
    assert connect(daemon.address, timeout=timeout).get("Network/Eth0", "dhcp") == "true"


def test_silence_ends_with_the_time_out(connect):
    with Peer(lambda connection, number: wait_for_end(connection)) as peer:
        store = connect(peer.address, timeout=0.1)
        with pytest.raises(tavix_settings.SettingsTimeoutError, match=peer.address) as caught:
            store.get("A", "x")
        assert isinstance(caught.value, TimeoutError) and not caught.value.outcome_unknown
        with pytest.raises(tavix_settings.SettingsTimeoutError) as caught:
            store.set("A", {"x": "1"})
        assert caught.value.outcome_unknown


def test_a_late_reply_is_given_to_nobody(connect):
    is_late = threading.Event()

    def serve(connection, number):
        read_request(connection)
        if number == 0:
            assert is_late.wait(PATIENCE)
            connection.sendall(b"data\n[A]\nx=late\n.\n")
        else:
            connection.sendall(REPLY)
        wait_for_end(connection)

    with Peer(serve) as peer:
        store = connect(peer.address, timeout=0.1)
        with pytest.raises(tavix_settings.SettingsTimeoutError):
            store.get("A", "x")
        is_late.set()
        deadline = time.monotonic() + PATIENCE
        while (value := read_unless_late(store)) != "1":
            assert value is None
            assert time.monotonic() < deadline


def read_unless_late(store):
    try:
        return store.get("A", "x")
    except tavix_settings.SettingsTimeoutError:
        return None


@pytest.mark.parametrize("begun", [b"", b"d", REPLY[:-1]])
def test_a_read_is_repeated_once_if_its_reply_has_not_begun(connect, begun):
    def serve(connection, number):
        assert read_request(connection) == READ
        connection.sendall(begun if number == 0 else REPLY)
        if number > 0:
            wait_for_end(connection)

    with Peer(serve) as peer:
        store = connect(peer.address)
        if begun:
            with pytest.raises(tavix_settings.ConnectionLostError, match=peer.address) as caught:
                store.get("A", "x")
            assert not caught.value.outcome_unknown
        assert store.get("A", "x") == "1"
        assert peer.count == 2


def test_a_read_is_not_repeated_twice(connect):
    with Peer(lambda connection, number: read_request(connection)) as peer:
        store = connect(peer.address)
        with pytest.raises(tavix_settings.ConnectionLostError):
            store.get("A", "x")
        assert peer.count == 2


@pytest.mark.parametrize(
    "write",
    [
        lambda store: store.set("A", {"x": "1"}),
        lambda store: store.set("A", {"x": "1"}, expect={"x": "0"}),
        lambda store: store.test_and_merge({}, {"A": {"x": "1"}}),
    ],
)
def test_a_write_is_sent_once_and_its_outcome_is_unknown(connect, write):
    with Peer(lambda connection, number: read_request(connection)) as peer:
        store = connect(peer.address)
        with pytest.raises(tavix_settings.ConnectionLostError) as caught:
            write(store)
        assert caught.value.outcome_unknown
        assert peer.count == 1


def test_a_flush_reports_writes_that_a_connection_took_along(connect):
    def serve(connection, number):
        if number == 0:
            read_request(connection)
        else:
            while read_request(connection) == b"get delimited\n.\n":
                connection.sendall(b"data\n.\n")

    with Peer(serve) as peer:
        store = connect(peer.address)
        store.merge({"A": {"x": "1"}})
        with pytest.raises(tavix_settings.ConnectionLostError) as caught:
            store.flush()
        assert caught.value.outcome_unknown
        store.flush()


def test_a_flush_that_runs_out_of_time_leaves_the_report_to_the_next(connect):
    def serve(connection, number):
        if number == 0:
            wait_for_end(connection)
        else:
            while read_request(connection) == b"get delimited\n.\n":
                connection.sendall(b"data\n.\n")

    with Peer(serve) as peer:
        store = connect(peer.address, timeout=0.1)
        store.merge({"A": {"x": "1"}})
        with pytest.raises(tavix_settings.SettingsTimeoutError) as caught:
            store.flush()
        assert caught.value.outcome_unknown
        with pytest.raises(tavix_settings.ConnectionLostError) as caught:
            flush_until_in_time(store)
        assert caught.value.outcome_unknown
        flush_until_in_time(store)


def flush_until_in_time(store):
    deadline = time.monotonic() + PATIENCE
    while True:
        try:
            return store.flush()
        except tavix_settings.SettingsTimeoutError:
            assert time.monotonic() < deadline


def test_a_reply_proves_the_writes_before_it(connect):
    def serve(connection, number):
        if number == 0:
            assert read_request(connection) == b"merge\n[A]\nx=1\n.\n"
            assert read_request(connection) == READ
            connection.sendall(REPLY)
        else:
            while read_request(connection) == b"get delimited\n.\n":
                connection.sendall(b"data\n.\n")

    with Peer(serve) as peer:
        store = connect(peer.address)
        store.merge({"A": {"x": "1"}})
        assert store.get("A", "x") == "1"
        store.flush()


def test_a_reason_of_the_daemon_is_a_refusal(connect):
    reason = b"Refused\n-------\nreason=the store is full\n\n"

    def serve(connection, number):
        read_request(connection, b"get delimited\nA\n.\n")
        connection.sendall(reason + REPLY)
        read_request(connection, b"get delimited\nA\n.\n")
        connection.sendall(b"result\nfailure\nRefused\n-------\nreason=condition\n\n" + REPLY)
        wait_for_end(connection)

    with Peer(serve) as peer:
        store = connect(peer.address)
        with pytest.raises(tavix_settings.RefusedError, match="the store is full"):
            store.set("A", {"x": "2"})
        with pytest.raises(tavix_settings.ConditionFailedError):
            store.set("A", {"x": "2"}, expect={"x": "3"})


@pytest.mark.parametrize("expected", [None, {"x": "0"}])
def test_set_does_not_mind_what_a_second_writer_has_made(connect, expected):
    def serve(connection, number):
        read_request(connection, b"get delimited\nA\n.\n")
        connection.sendall((b"result\nok\n" if expected else b"") + b"data\n[A]\nx=somebody's\n.\n")
        wait_for_end(connection)

    with Peer(serve) as peer:
        connect(peer.address).set("A", {"x": "1"}, expect=expected)


@pytest.mark.parametrize(
    "nonsense", [b"what?\n", b"data\n[A]\nx\n.\n", b"data\n[A]\nx=" + b"v" * 1000, REPLY + b"[A]\n" * 300]
)
def test_what_is_no_reply_is_a_parse_error_and_closes_the_connection(connect, nonsense):
    def serve(connection, number):
        read_request(connection)
        connection.sendall(nonsense if number == 0 else REPLY)
        wait_for_end(connection)

    with Peer(serve) as peer:
        store = connect(peer.address, max_line=500, max_reply=900)
        with pytest.raises(tavix_settings.ParseError) as caught:
            store.get("A", "x")
            store.get("A", "x")
        assert caught.value.source == peer.address
        assert store.get("A", "x") == "1"


def test_a_store_comes_back_after_its_daemon(connect, daemon):
    store = connect(daemon.address)
    for number in range(3):
        store.set("A", {"x": str(number)})
        daemon.stop()
        daemon.start()
        assert store.get("A", "x") == str(number)


def test_a_child_gets_an_error_and_the_parent_its_replies(connect, daemon):
    store = connect(daemon.address)
    child = os.fork()
    if child == 0:
        status = 1
        try:
            store.groups("*")
        except tavix_settings.ClosedError as error:
            status = 0 if "forked" in str(error) else 2
        store.close()
        os._exit(status)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
    assert store.get("Network/Eth0", "dhcp") == "true"


def test_restarts_of_the_daemon_lose_no_last_state_and_double_no_write(connect, daemon):
    """A writer counts up on the condition of what it wrote last; a watcher sees the last count."""
    store = connect(daemon.address)
    store.set("Counter", {"x": "0"})
    with store.watch("Counter", timeout=PATIENCE) as watch:
        count = 0
        for _ in range(100):
            daemon.kill()
            is_back = threading.Event()
            restarter = threading.Thread(target=lambda: (daemon.start(), is_back.set()))
            restarter.start()
            count = count_up(store, count, is_back)
            restarter.join()
        count = count_up(store, count, is_back)
        while next(watch).new != str(count):
            pass


def count_up(store, count, is_back):
    """A write that was sent twice, or a lost one that was taken for done, would fail the condition of the next."""
    for _ in range(3):  # once while the daemon is away, once over a connection of before
        try:
            store.set("Counter", {"x": str(count + 1)}, expect={"x": str(count)})
            return count + 1
        except tavix_settings.ConnectionLostError as error:
            assert is_back.wait(PATIENCE)
            if error.outcome_unknown and store.get("Counter", "x") == str(count + 1):
                return count + 1
    raise AssertionError("the daemon did not come back")
