"""Test Anything Protocol: a line a case on standard output."""

from __future__ import annotations

import sys
from collections import Counter
from typing import Iterable, List, Set


class Tap:
    """Prints, and counts."""

    def __init__(self, count: int) -> None:
        self._number = 0
        self._failed: List[str] = []
        self._skipped: Counter[str] = Counter()
        self._needed_by_passed: Set[str] = set()
        self._needed_by_failed: Set[str] = set()
        self._print("TAP version 13")
        self._print(f"1..{count}")

    @property
    def has_failed(self) -> bool:
        return bool(self._failed)

    def passed(self, name: str, needs: Iterable[str]) -> None:
        """needs: the features that the case needs."""
        self._number += 1
        self._needed_by_passed.update(needs)
        self._print(f"ok {self._number} - {name}")

    def skipped(self, name: str, missing: Iterable[str]) -> None:
        """missing: the features that the case needs and the client does not have."""
        self._number += 1
        features = sorted(missing)
        self._skipped.update(features)
        self._print(f"ok {self._number} - {name} # SKIP without {', '.join(features)}")

    def failed(self, name: str, needs: Iterable[str], problem: str, details: Iterable[str]) -> None:
        self._number += 1
        self._failed.append(name)
        self._needed_by_failed.update(needs)
        self._print(f"not ok {self._number} - {name}")
        for line in [problem, *details]:
            for part in line.split("\n"):
                self._print(f"# {part}")

    def comment(self, text: str) -> None:
        self._print(f"# {text}")

    def summarise(self) -> None:
        """Proven are the features that a case has needed, while none that needs them has failed."""
        for feature, count in sorted(self._skipped.items()):
            self._print(f"# skipped for want of {feature}: {count}")
        proven = self._needed_by_passed - self._needed_by_failed
        self._print(f"# proven: {' '.join(sorted(proven)) or 'none'}")
        self._print(f"# failed: {', '.join(self._failed) or 'none'}")

    def _print(self, line: str) -> None:
        sys.stdout.write(line + "\n")
        sys.stdout.flush()
