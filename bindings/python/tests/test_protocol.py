"""The protocol without a socket: bytes in, events out."""

import random
import time

import pytest
from conftest import is_long_run

from tavix_settings import ParseError
from tavix_settings._protocol import Form, Notice, Protocol, Reply

NOTICE = b"async change\nA\nGone\n.\n[A]\nx=2\n.\n"
NOTICE_EVENT = Notice((b"A", b"Gone"), {b"A": {b"x": b"2"}})
DATA = b"data\n[A]\nx=1\n[B]\n.\n"
DATA_EVENT = Reply({b"A": {b"x": b"1"}, b"B": {}})
FEATURES = b"Features\n--------\namend\nhistory 1 9\n\ndata\n.\n"

TRANSCRIPTS = {
    "a reply": ([Form.DATA], DATA, [DATA_EVENT]),
    "a reply as str": ([Form.STRINGS] * 2, DATA * 2, [Reply({"A": {"x": "1"}, "B": {}})] * 2),
    "an empty reply": ([Form.DATA], b"data\n.\n", [Reply({})]),
    "a notice before the reply": ([Form.DATA], NOTICE + DATA, [NOTICE_EVENT, DATA_EVENT]),
    "two notices and no reply": ([], NOTICE + NOTICE, [NOTICE_EVENT, NOTICE_EVENT]),
    "a notice of nothing that is left": ([], b"async change\nA\n.\n.\n", [Notice((b"A",), {})]),
    "a notice of the empty name": ([], b"async change\n\n.\n.\n", [Notice((b"",), {})]),
    "results": ([Form.RESULT] * 2, b"result\nok\nresult\nfailure\n", [Reply(True), Reply(False)]),
    "a dump": ([Form.TEXT], b"[A]\nx=1\n.\n", [Reply(b"[A]\nx=1\n")]),
    "an empty dump": ([Form.TEXT], b".\n", [Reply(b"")]),
    "a dump behind a notice": ([Form.TEXT], NOTICE + b"[A]\n.\n", [NOTICE_EVENT, Reply(b"[A]\n")]),
    "features": ([Form.INFO, Form.DATA], FEATURES, [Reply((b"amend", b"history 1 9")), Reply({})]),
    "no features": ([Form.INFO, Form.DATA], b"data\n.\n", [Reply(None), Reply({})]),
    "info of nothing": ([Form.INFO, Form.DATA], b"Refused\n-------\n\ndata\n.\n", [Reply(()), Reply({})]),
    "all in a row": (
        [Form.RESULT, Form.INFO, Form.DATA, Form.TEXT],
        b"result\nok\n" + NOTICE + b"Refused\n-------\nreason=x\n\n" + NOTICE + DATA + b".\n",
        [Reply(True), NOTICE_EVENT, Reply((b"reason=x",)), NOTICE_EVENT, DATA_EVENT, Reply(b"")],
    ),
}


@pytest.mark.parametrize("name", TRANSCRIPTS)
def test_makes_events_however_the_bytes_arrive(name):
    forms, received, expected = TRANSCRIPTS[name]
    for split in range(len(received) + 1):
        protocol = Protocol("x")
        protocol.expect(forms)
        events = protocol.receive(received[:split]) + protocol.receive(received[split:])
        assert events == expected
        assert not protocol.is_busy
    protocol = Protocol("x")
    protocol.expect(forms)
    assert [event for byte in received for event in protocol.receive(bytes([byte]))] == expected


def test_says_whether_a_reply_is_due():
    protocol = Protocol("x")
    assert not protocol.is_busy
    protocol.expect([Form.DATA])
    assert protocol.is_busy and not protocol.is_inside_message
    protocol.receive(DATA[:-1])
    assert protocol.is_busy and protocol.is_inside_message
    protocol.receive(DATA[-1:])
    assert not protocol.is_busy


@pytest.mark.parametrize(
    ["forms", "received", "message"],
    [
        ([], b"data\n.\n", "x:1: expected a notice, found 'data'"),
        ([Form.DATA], b"\n", "x:1: expected \"data\", found ''"),
        ([Form.DATA], b"result\nok\n", "x:1: expected \"data\", found 'result'"),
        ([Form.RESULT], b"result\nmaybe\n", "expected \"ok\" or \"failure\", found 'maybe'"),
        ([Form.DATA], b"data\n[A]\nx\n.\n", 'x:3: expected "[group]" or "key=value", found "x"'),
        ([Form.DATA] * 2, DATA + b"data\nx=1\n.\n", "x:7: expected \"[group]\" before"),
        ([], NOTICE + b"async change\nA\n.\n[A]\nx\n.\n", 'x:12: expected "[group]" or "key=value", found "x"'),
        ([Form.STRINGS], NOTICE + b"data\n[A]\nx\n.\n", 'x:10: expected "[group]" or "key=value", found "x"'),
        ([Form.INFO], b"Features\namend\n\n", "expected a line of dashes below a title, found 'amend'"),
    ],
)
def test_says_what_is_no_reply_and_where(forms, received, message):
    protocol = Protocol("x")
    protocol.expect(forms)
    with pytest.raises(ParseError) as caught:
        protocol.receive(received)
    assert message in str(caught.value)


@pytest.mark.parametrize("size", [1, 7, 1000])
def test_bounds_lines(size):
    fits, is_longer = b"data\n[A]\nx=" + b"v" * 98, b"data\n[A]\nx=" + b"v" * 99
    protocol = Protocol("x", max_line=100)
    protocol.expect([Form.DATA])
    assert receive_in_parts(protocol, fits + b"\n.\n", size) == [Reply({b"A": {b"x": b"v" * 98}})]
    for endless in (is_longer, is_longer + b"\n.\n"):
        protocol = Protocol("x", max_line=100)
        protocol.expect([Form.DATA])
        with pytest.raises(ParseError, match="a line is longer than 100 bytes"):
            receive_in_parts(protocol, endless, size)


@pytest.mark.parametrize("size", [1, 7, 1000])
def test_bounds_replies_one_by_one(size):
    reply = b"data\n[A]\n" + b"".join(b"%d=v\n" % number for number in range(20)) + b".\n"
    protocol = Protocol("x", max_reply=len(reply))
    protocol.expect([Form.DATA] * 3)
    assert len(receive_in_parts(protocol, reply * 3, size)) == 3
    protocol = Protocol("x", max_reply=len(reply) - 1)
    protocol.expect([Form.DATA])
    with pytest.raises(ParseError, match="a reply is longer"):
        receive_in_parts(protocol, reply, size)


def test_random_bytes_are_events_or_a_parse_error():
    rng = random.Random(22)
    pieces = [NOTICE, DATA, FEATURES, b"data\n", b"result\nok\n", b".\n", b"\n", b"[A]\n", b"x=1\n", b"\\x", b"\xff"]
    deadline = time.monotonic() + (60 if is_long_run() else 0)
    outcomes = set()
    while outcomes != {"events", "error"} or time.monotonic() < deadline:
        protocol = Protocol("x", max_line=200, max_reply=300)
        protocol.expect(rng.choices(list(Form), k=rng.randrange(5)))
        received = b"".join(rng.choices(pieces, k=rng.randrange(9)))
        try:
            receive_in_parts(protocol, received, rng.randrange(1, 30))
            outcomes.add("events")
        except ParseError:
            outcomes.add("error")


def receive_in_parts(protocol, data, size):
    return [event for at in range(0, len(data), size) for event in protocol.receive(data[at : at + size])]
