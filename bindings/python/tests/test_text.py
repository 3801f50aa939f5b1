"""Settings text: the examples of its page, and documents of random bytes against the library."""

import random
import re
from pathlib import Path

import pytest
from conftest import PATIENCE, is_long_run, rounds

import tavix_settings
from tavix_settings._text import (
    _parse_lines,
    _parse_plain_bytes,
    _parse_plain_text,
    decode_document,
    format_text,
    parse_strings,
    parse_text,
)

PAGE = Path(__file__).parents[3] / "docs" / "settings-text.md"
BLOCK = re.compile(r"^```(ini|ini written|ini broken|text)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
BLOCKS = BLOCK.findall(PAGE.read_text(encoding="utf-8"))
PAIRS = list(zip(BLOCKS, BLOCKS[1:]))
WRITTEN = [(first[1], second[1]) for first, second in PAIRS if (first[0], second[0]) == ("ini", "ini written")]
BROKEN = [(first[1], second[1]) for first, second in PAIRS if (first[0], second[0]) == ("ini broken", "text")]
INTERESTING = [b"", *(bytes([byte]) for byte in b" \t\r\n=[]#;.\\\x00\xff"), b"\\x4", b"\\s"]


def test_the_page_has_examples_of_both():
    assert len(WRITTEN) == 2
    assert len(BROKEN) == 4


@pytest.mark.parametrize(["text", "written"], WRITTEN)
def test_is_read_and_written_as_the_page_shows(text, written):
    assert format_text(parse_text(text.encode(), "x")).decode() == written


@pytest.mark.parametrize(["text", "message"], BROKEN)
def test_errors_are_as_the_page_shows(text, message):
    with pytest.raises(tavix_settings.ParseError) as caught:
        parse_text(text.encode(), "site.ini")
    assert str(caught.value) == message.strip()
    assert caught.value.source == "site.ini"
    assert message.startswith(f"site.ini:{caught.value.line}:")


def test_only_the_first_byte_order_mark_and_one_carriage_return_are_dropped():
    assert parse_text(b"\xef\xbb\xbf[A]\r\nx=1\r\r\n", "x") == {b"A": {b"x": b"1\r"}}
    assert parse_text(b"[A]\n\xef\xbb\xbfx=1", "x") == {b"A": {b"\xef\xbb\xbfx": b"1"}}


def random_bytes(rng, is_name):
    parts = (rng.choice([rng.choice(INTERESTING), rng.randbytes(rng.randrange(4))]) for _ in range(rng.randrange(6)))
    text = b"".join(parts)
    return text.replace(b"\n", b"") + b"n" if is_name else text


def random_document(rng):
    return {
        random_bytes(rng, True): {
            random_bytes(rng, False): random_bytes(rng, False) for _ in range(rng.randrange(5))
        }
        for _ in range(rng.randrange(1, 5))
    }


def test_random_documents_survive():
    rng = random.Random(17)
    for _ in range(2000):
        document = random_document(rng)
        text = format_text(document)
        assert parse_text(text, "x") == document
        assert b"\n.\n" not in b"\n" + text


def test_random_documents_are_the_same_to_the_library(shared_daemon):
    rng = random.Random(18)
    with tavix_settings.connect(shared_daemon.address, timeout=PATIENCE) as store:
        for _ in range(10000 if is_long_run() else 200):
            document = random_document(rng)
            store.overwrite("*", document)
            assert store.groups("*", raw=True) == document
            kept = {**document, b"TavixSettings/Data/DeletedGroups": {b"*": b"*"}}
            assert store.dump(raw=True) == format_text(kept)


def test_random_bytes_are_a_document_or_a_parse_error():
    rng = random.Random(19)
    outcomes = set()
    for _ in rounds(5000):
        text = b"".join(rng.choice([*INTERESTING, b"[a]\n", b"k=v\n", b"\n"]) for _ in range(rng.randrange(12)))
        try:
            document = parse_text(text, "x")
            outcomes.add("document")
            assert parse_text(format_text(document), "x") == document == _parse_lines(text, "x", 1)
        except tavix_settings.ParseError:
            outcomes.add("error")
    assert outcomes == {"document", "error"}


def test_a_text_is_read_the_same_at_once_and_line_by_line():
    rng = random.Random(23)
    plain = 0
    for _ in range(200000 if is_long_run() else 20000):
        lines = [rng.choice([b"[a]", b"[b", b"k=v", b"l=v w", b"x =1", b"m", b"=", b"", b"#=", b" n=2", b"o=\\t"])]
        lines += [rng.choice([b"k=v", b"l==", b"[a]", b"[]", b"m=[n]", b";"]) for _ in range(rng.randrange(5))]
        text = b"\n".join([rng.choice([b"[a]", b"[c]d]"]), *lines, b""])
        document = _parse_plain_bytes(text)
        assert _parse_plain_text(text.decode()) == (None if document is None else decode_document(document))
        if document is not None:
            plain += 1
            assert document == _parse_lines(text, "x", 1)
    assert plain > 0


def test_strings_are_those_of_the_bytes():
    rng = random.Random(24)
    parts = [b"\xe9", b"\xc3\xa9", b"\xe2\x82", b"\xac", b"\\xc3\\xa9", b"\xf0\x9f\x92\xa9", b"a", b"\xed\xa0\x80"]
    for _ in range(2000):
        names = [b"".join(rng.choices(parts, k=rng.randrange(4))) for _ in range(4)]
        text = b"[%b]\n[%b]\nk%b=%b\n" % tuple(names)
        assert parse_strings(text, "x") == decode_document(parse_text(text, "x"))
