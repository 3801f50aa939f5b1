"""The text form, and the patterns of the store for tests, against the vectors that the library makes."""

import base64
import json
from pathlib import Path

import pytest
from tavix_settings._errors import ParseError
from tavix_settings._json import document_to_json
from tavix_settings._text import format_text, parse_text
from tavix_settings.testing._daemon import _is_match

VECTORS = Path(__file__).parents[3] / "conformance"


def read_cases(name):
    return [json.loads(line) for line in (VECTORS / name).read_text(encoding="utf-8").splitlines()]


CASES = read_cases("text.jsonl")
PATTERNS = read_cases("patterns.jsonl")


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


def bytes_of(name):
    return base64.b64decode(name[7:]) if name.startswith("base64:") else name.encode()


def test_patterns_mean_to_the_store_in_memory_what_they_mean_to_the_library():
    assert PATTERNS
    for case in PATTERNS:
        assert _is_match(bytes_of(case["name"]), [bytes_of(case["pattern"])]) == case["match"], case
