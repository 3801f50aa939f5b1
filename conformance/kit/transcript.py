"""Reads transcripts/*.txt: what the client under test is asked, and both sides of its conversation with the daemon.

Its head is a comment, which says what the case is about, and lines "WORD: ...":

    needs: FEATURE...      the client's, without which the case is skipped
    play: whole            what the daemon sends at once is one packet (the usual way)
          bytes            each byte by itself
          random           pieces of random length
          cut N            the case runs again and again: the daemon's last message is cut after 0, N, 2 N, ... bytes
    timeout: MILLISECONDS  what "connect" is given. With a shorter one than usual the case runs again with a longer one
                           if a call ends by time where it should not
    features: WORD...      what the daemon lists for "info features"; without it, it is older than that

Then come steps, each when the one before is done:

    = LINE                 from now on reads that the transcript does not show get these lines
    do JSON                a request to the client under test
    > LINE                 the client sends this request to the daemon; payloads and lists count by what they mean
    < LINE                 the daemon sends this over the connection of that request
    ! LINE                 the daemon sends this over the connection that was subscribed last
    < "x=" 1000 * "a"      the same, for a long line
    answer JSON            the client answers; what stands here, it has to hold. An array as "error" lists what may be
    or JSON                or this. "<1000 * a>" is a long value
    event JSON             the next event of the client. "watch": 1 is the first watch of the case, and the default
    close <, close !       the daemon closes that connection
    proven                 the daemon has replied to a request behind the last write, before the client gave its answer
    endless                the daemon sends a line without an end, until the client closes the connection
"""

from __future__ import annotations

import ast
import json
import re
from pathlib import Path
from typing import Any, Dict, List, NamedTuple, Tuple

from .failure import Failure, UsageError
from .requests import Request, parse_request

DEFAULT_TIMEOUT = 60000  # milliseconds that no machine stands still
_OUTPUT = ("<", "!")
_long_value = re.compile(r'"<([0-9]+) \* (.)>"')
_long_line = re.compile(r"(\"[^\"]*\") ([0-9]+) \* (\"[^\"]*\")")


class Step(NamedTuple):
    """kind: the word that begins its line. value: bytes, a Request, JSON, or what JSON may be."""

    kind: str
    value: Any


class Transcript(NamedTuple):
    name: str
    title: str
    needs: Tuple[str, ...]
    play: Tuple[str, ...]
    timeout: int
    features: Tuple[str, ...]
    steps: Tuple[Step, ...]


def read_transcript(path: Path) -> Transcript:
    """Throws UsageError."""
    head: Dict[str, str] = {}
    title: List[str] = []
    steps: List[Step] = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        word, _, rest = line.partition(" ")
        try:
            if word == "#":
                title.append(rest)
            elif word.endswith(":") and not steps:
                head[word[:-1]] = rest
            elif word:
                _add_step(steps, word, rest)
        except (ValueError, SyntaxError) as error:
            raise UsageError(f"{path}:{number}: {error}") from None
    try:
        steps = [Step(">", parse_request(step.value)) if step.kind == ">" else step for step in steps]
    except Failure as failure:
        raise UsageError(f"{path}: {failure}") from None
    return Transcript(
        path.stem,
        " ".join(title),
        tuple(head.get("needs", "").split()),
        tuple(head.get("play", "whole").split()),
        int(head.get("timeout", DEFAULT_TIMEOUT)),
        tuple(head.get("features", "").split()),
        tuple(steps),
    )


def _add_step(steps: List[Step], word: str, rest: str) -> None:
    if word in (">", "=") or word in _OUTPUT:
        data = _make_line(rest)
        if steps and steps[-1].kind == word and not (word == ">" and _is_whole(steps[-1].value)):
            data = steps.pop().value + data
        steps.append(Step(word, data))
    elif word in ("do", "event"):
        steps.append(Step(word, json.loads(rest)))
    elif word == "answer":
        steps.append(Step(word, [_read_answer(rest)]))
    elif word == "or" and steps and steps[-1].kind == "answer":
        steps[-1].value.append(_read_answer(rest))
    elif word == "close" and rest in _OUTPUT:
        steps.append(Step(word, rest))
    elif word in ("endless", "proven") and not rest:
        steps.append(Step(word, None))
    else:
        raise ValueError(f'expected a step, found "{word} {rest}"')


def _make_line(rest: str) -> bytes:
    found = _long_line.fullmatch(rest)
    if found:
        rest = ast.literal_eval(found[1]) + int(found[2]) * ast.literal_eval(found[3])
    return rest.encode() + b"\n"


def _read_answer(rest: str) -> Any:
    return json.loads(_long_value.sub(lambda found: json.dumps(int(found[1]) * found[2]), rest))


def _is_whole(data: bytes) -> bool:
    try:
        parse_request(data)
    except Failure:
        return False
    return True


def requests_before_next_do(steps: Tuple[Step, ...], start: int) -> List[Request]:
    """What the client is still to send before it is asked for something else."""
    found: List[Request] = []
    for step in steps[start:]:
        if step.kind == "do":
            break
        if step.kind == ">":
            found.append(step.value)
    return found
