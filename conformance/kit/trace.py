"""The bytes of both sides of a case, which a failed one prints."""

from __future__ import annotations

from typing import List, Tuple

_MAX_PIECES = 60
_MAX_BYTES = 400


class Trace:
    """Keeps the last pieces. Pieces of one source and direction that follow each other are one."""

    def __init__(self) -> None:
        self._pieces: List[Tuple[str, bytearray, int]] = []  # label, the first bytes, how many there were

    def note(self, label: str, data: bytes) -> None:
        if self._pieces and self._pieces[-1][0] == label:
            _, first, count = self._pieces[-1]
            first += data[: max(0, _MAX_BYTES - len(first))]
            self._pieces[-1] = (label, first, count + len(data))
            return
        self._pieces.append((label, bytearray(data[:_MAX_BYTES]), len(data)))
        del self._pieces[:-_MAX_PIECES]

    def lines(self) -> List[str]:
        shown = []
        for label, first, count in self._pieces:
            text = first.decode("utf-8", "backslashreplace")
            more = f" ... {count} bytes" if count > len(first) else ""
            shown.append(f"{label} {ascii(text)}{more}")
        return shown
