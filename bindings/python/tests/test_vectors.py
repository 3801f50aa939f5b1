"""The text form against the vectors that the library makes."""

import json
from pathlib import Path

import pytest
from tavix_settings._errors import ParseError
from tavix_settings._json import document_to_json
from tavix_settings._text import format_text, parse_text

VECTORS = Path(__file__).parents[3] / "conformance" / "text.jsonl"
CASES = [json.loads(line) for line in VECTORS.read_text(encoding="utf-8").splitlines()]


@pytest.mark.parametrize("vector", [case for case in CASES if "document" in case], ids=lambda case: case["text"][:40])
def test_reads_and_writes_text_as_the_library_does(vector):
    document = parse_text(bytes.fromhex(vector["text"]), "text")
    assert document_to_json(document) == vector["document"]
    assert format_text(document).hex() == vector["canonical"]


@pytest.mark.parametrize("vector", [case for case in CASES if "error" in case], ids=lambda case: case["text"][:40])
def test_refuses_text_that_the_library_refuses_and_names_the_line(vector):
    with pytest.raises(ParseError) as caught:
        parse_text(bytes.fromhex(vector["text"]), "text")
    assert caught.value.line == vector["error"]["line"]
