"""Which writes a lost connection took along."""

from tavix_settings._writes import Writes


def lose_a_write(writes):
    writes.note_sent(has_reply=False)
    writes.note_connection_gone()


def test_a_write_that_nothing_proves_is_lost_with_its_connection():
    writes = Writes()
    lose_a_write(writes)
    assert writes.has_lost_since(0)


def test_a_reply_to_a_later_call_proves_a_write():
    writes = Writes()
    writes.note_sent(has_reply=False)
    writes.note_answered(writes.note_sent(has_reply=True))
    writes.note_connection_gone()
    assert not writes.has_lost_since(writes.reported)


def test_a_loss_is_there_until_it_is_reported():
    writes = Writes()
    lose_a_write(writes)
    lose_a_write(writes)
    writes.note_reported()
    assert not writes.has_lost_since(writes.reported)
    lose_a_write(writes)
    assert writes.has_lost_since(writes.reported)


def test_two_flushes_at_once_both_report_a_loss():
    writes = Writes()
    first, second = writes.reported, writes.reported
    lose_a_write(writes)
    assert writes.has_lost_since(first)
    writes.note_reported()
    assert writes.has_lost_since(second)
