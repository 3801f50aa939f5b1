"""What a watch makes of readings and notices, without a connection."""

import pytest

from tavix_settings import Change
from tavix_settings._protocol import Protocol
from tavix_settings._watching import Backoff, WatchState

REQUEST = b"subscribe\nA\n.\nget delimited\nA\n.\n"


def make_state(reading, initial=False):
    state = WatchState([b"A"], initial, raw=False)
    connect(state, reading)
    return state


def connect(state, reading):
    assert state.begin(Protocol("x")) == REQUEST
    assert not state.is_synchronised
    state.receive(b"data\n" + reading + b".\n")
    assert state.is_synchronised


def notify(state, settings, group=b"A"):
    state.receive(b"async change\n" + group + b"\n.\n" + settings + b".\n")


def changes_of(state):
    changes = []
    while (change := state.next_change()) is not None:
        changes.append(change)
    return changes


def test_changes_of_a_setting_that_wait_together_are_one():
    state = make_state(b"[A]\nx=0\n")
    for value in b"123":
        notify(state, b"[A]\nx=%c\n" % value)
    assert changes_of(state) == [Change("A", "x", "0", "3")]


def test_changes_that_cancel_out_are_none():
    state = make_state(b"[A]\nx=0\n")
    notify(state, b"[A]\nx=1\ny=1\n")
    notify(state, b"[A]\nx=0\n")
    assert changes_of(state) == []


def test_a_notice_without_a_difference_is_no_change():
    state = make_state(b"[A]\nx=0\n")
    notify(state, b"[A]\nx=0\n")
    assert changes_of(state) == []


def test_a_notice_before_the_reading_is_older_than_it():
    state = WatchState([b"A"], initial=False, raw=False)
    state.begin(Protocol("x"))
    notify(state, b"[A]\nx=older\n")
    state.receive(b"data\n[A]\nx=0\n.\n")
    assert changes_of(state) == []
    notify(state, b"[A]\nx=1\n")
    assert changes_of(state) == [Change("A", "x", "0", "1")]


@pytest.mark.parametrize("initial", [False, True])
def test_a_new_connection_yields_what_differs_and_then_the_mark(initial):
    state = make_state(b"[A]\ngone=1\nx=0\n", initial)
    changes_of(state)
    connect(state, b"[A]\nx=1\n")
    assert changes_of(state) == [Change("A", "gone", "1", None), Change("A", "x", "0", "1"), Change(None, resync=True)]


def test_marks_that_wait_together_are_one():
    state = make_state(b"[A]\nx=0\n")
    connect(state, b"[A]\nx=1\n")
    connect(state, b"")
    assert changes_of(state) == [Change("A", "x", "0", None, gone=True), Change(None, resync=True)]


def test_a_reading_that_was_cut_off_changes_nothing():
    state = make_state(b"[A]\nx=0\n")
    state.begin(Protocol("x"))
    state.receive(b"data\n[A]\nx=1\n")
    assert changes_of(state) == []
    connect(state, b"[A]\nx=0\n")
    assert changes_of(state) == [Change(None, resync=True)]


def test_a_group_without_settings_that_comes_and_goes_is_no_change():
    state = make_state(b"")
    notify(state, b"[A]\n")
    assert changes_of(state) == [Change("A")]
    notify(state, b"")
    notify(state, b"[A]\n")
    assert changes_of(state) == []


def test_attempts_to_connect_are_further_and_further_apart():
    backoff = Backoff()
    delays = [backoff.next_delay() for _ in range(9)]
    for delay, limit in zip(delays, [0.1, 0.2, 0.4, 0.8, 1.6, 3.2, 5, 5, 5]):
        assert limit / 2 <= delay <= limit
    backoff.reset()
    assert backoff.next_delay() <= 0.1
