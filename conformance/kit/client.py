"""The client under test: a program that reads a JSON request a line and writes a JSON answer a line."""

from __future__ import annotations

import json
import os
import subprocess
import tempfile
from typing import Any, Dict, List, Optional

from .failure import Failure
from .hub import LIMIT, Hub
from .trace import Trace

Json = Dict[str, Any]
_MAX_STDERR = 2000
_GRACE = 5.0  # seconds for the end of one that has failed


class Client:
    """Runs it until end(). trace: notes what the runner and it write; may be exchanged."""

    def __init__(self, hub: Hub, command: List[str], trace: Trace) -> None:
        self.trace = trace
        self.events: List[Json] = []  # that nobody has taken
        self._answers: Dict[int, Json] = {}
        self._hub = hub
        self._next_id = 0
        self._parts: List[bytes] = []  # of a line that has no end yet
        self._has_ended = False
        self._errors = tempfile.TemporaryFile()
        self._process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self._errors, bufsize=0
        )
        hub.add(self._process.stdout, self._receive)

    def require_end(self) -> None:
        """Its standard input ends, and so it does. Throws Failure if it does not, or ends with an error."""
        assert self._process.stdin
        try:
            self._process.stdin.close()
        except OSError:
            pass  # it has ended before
        self._hub.run_until(lambda: self._has_ended, "the client's end behind that of its standard input")
        if self._process.wait(LIMIT) != 0:
            self._fail_ended()

    def end(self) -> None:
        """The same for one that may hang."""
        assert self._process.stdin and self._process.stdout
        if not self._has_ended:
            self._has_ended = True
            self._hub.remove(self._process.stdout)
        try:
            self._process.stdin.close()
            self._process.wait(_GRACE)
        except (OSError, subprocess.TimeoutExpired):
            self._process.kill()
            self._process.wait()
        self._process.stdout.close()
        self._errors.close()

    def send(self, request: Json) -> int:
        """Returns the request's id."""
        self._next_id += 1
        line = (json.dumps({"id": self._next_id, **request}) + "\n").encode()
        self.trace.note("runner to client:", line)
        try:
            assert self._process.stdin
            self._process.stdin.write(line)
        except OSError:
            self._fail_ended()
        return self._next_id

    def has_answered(self, number: int) -> bool:
        return number in self._answers or self._has_ended

    def peek_answer(self, number: int) -> Optional[Json]:
        """The answer, if it has come; it stays."""
        return self._answers.get(number)

    def has_event(self, watch: int) -> bool:
        return self._has_ended or any(event.get("watch") == watch for event in self.events)

    def await_answer(self, number: int, what: str) -> Json:
        self._hub.run_until(lambda: self.has_answered(number), f"the answer to {what}")
        if number not in self._answers:
            self._fail_ended()
        return self._answers.pop(number)

    def ask(self, request: Json) -> Json:
        return self.await_answer(self.send(request), json.dumps(request))

    def require_ok(self, request: Json) -> Json:
        """Throws Failure if the answer is a failure."""
        answer = self.ask(request)
        if not answer["ok"]:
            raise Failure(f"asked:    {json.dumps(request)}\nanswered: {json.dumps(answer)}")
        return answer

    def await_event(self, watch: Optional[int], what: str) -> Json:
        """Takes the next event, of one watch if it is given."""

        def find() -> Optional[Json]:
            return next((event for event in self.events if watch is None or event.get("watch") == watch), None)

        self._hub.run_until(lambda: find() is not None or self._has_ended, what)
        event = find()
        if event is None:
            self._fail_ended()
        assert event is not None
        self.events.remove(event)
        return event

    def _receive(self) -> None:
        assert self._process.stdout
        data = os.read(self._process.stdout.fileno(), 1 << 16)
        if not data:
            self._has_ended = True
            self._hub.remove(self._process.stdout)
            return
        self.trace.note("client to runner:", data)
        *ends, rest = data.split(b"\n")
        for end in ends:
            line, self._parts = b"".join([*self._parts, end]), []
            self._take(line)
        if rest:
            self._parts.append(rest)

    def _take(self, line: bytes) -> None:
        try:
            message = json.loads(line)
        except ValueError as error:
            raise Failure(f"the client wrote a line that is no JSON: {line[:200]!r}: {error}") from None
        if not isinstance(message, dict):
            raise Failure(f"the client wrote a line that is no JSON object: {line[:200]!r}")
        if "event" in message:
            self.events.append(message)
        elif isinstance(message.get("id"), int) and isinstance(message.get("ok"), bool):
            self._answers[message["id"]] = message
        else:
            raise Failure(f'the client wrote an answer without "id" and "ok": {line[:200]!r}')

    def _fail_ended(self) -> None:
        status = self._process.wait(LIMIT)
        self._errors.seek(0)
        said = self._errors.read()[-_MAX_STDERR:].decode(errors="replace").strip()
        raise Failure(f"the client ended with status {status}" + (f", and wrote: {said}" if said else ""))
