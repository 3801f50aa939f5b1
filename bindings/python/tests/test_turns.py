"""Turns that interrupts cut short."""

import threading

import pytest
from conftest import PATIENCE

from tavix_settings._turns import Ticket, Turns


def call(turns, inside=lambda: None):
    ticket = Ticket()
    try:
        assert turns.take(ticket, None)
        inside()
    finally:
        turns.give_back(ticket)


def cut_short(turns):
    """A call that an interrupt ends before it can give back its turn; the error keeps its variables."""
    ticket = Ticket()
    assert turns.take(ticket, None)
    raise KeyboardInterrupt


def test_a_turn_of_a_call_that_was_cut_short_goes_to_the_next_call_of_its_thread():
    turns = Turns()
    with pytest.raises(KeyboardInterrupt) as kept:
        cut_short(turns)
    call(turns)
    assert not turns.is_taken_by_others()
    another = threading.Thread(target=call, args=(turns,))
    another.start()
    another.join(PATIENCE)
    assert not another.is_alive()
    del kept


def test_a_call_inside_of_a_call_is_refused_and_changes_nothing():
    def call_again():
        with pytest.raises(RuntimeError):
            call(turns)
        with pytest.raises(RuntimeError):
            call(turns)

    turns = Turns()
    call(turns, call_again)
    call(turns)


def test_a_call_inside_of_one_that_holds_the_gate_is_refused_and_does_not_wait_for_it():
    class Deque(list):
        def __len__(self):  # give_back() asks it
            with pytest.raises(RuntimeError):
                call(turns)
            refused.append(True)
            return 0

    refused = []
    turns = Turns()
    turns._queue = Deque()
    call(turns)
    assert refused == [True]
