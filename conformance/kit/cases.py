"""The cases there are: a file each of transcripts and live, and those made of the vectors."""

from __future__ import annotations

from pathlib import Path
from typing import Callable, FrozenSet, List, NamedTuple, Tuple

from .live import Live, read_live, run_live
from .play import play
from .played_daemon import PlayedDaemon
from .surroundings import Surroundings
from .transcript import Transcript, read_transcript
from .vector_cases import VECTOR_CASES, run_vectors


class Case(NamedTuple):
    """needs: features of the client. run: throws Failure."""

    name: str
    title: str
    needs: FrozenSet[str]
    needs_daemon: bool
    run: Callable[[Surroundings], None]


def find_cases(folder: Path) -> List[Case]:
    """In the order in which they run. Throws UsageError for a file that can't be read."""
    cases = [_of_transcript(read_transcript(path)) for path in sorted((folder / "transcripts").glob("*.txt"))]
    for path in sorted((folder / "live").glob("*.json")):
        cases.append(_of_live(read_live(path)))
    for name, title, needs in VECTOR_CASES:
        cases.append(_of_vectors(folder, name, title, needs))
    return cases


def _of_transcript(script: Transcript) -> Case:
    def run(parts: Surroundings) -> None:
        with PlayedDaemon(parts.hub, parts.trace) as daemon:
            play(script, parts.hub, parts.client, daemon, parts.seed)

    return Case(script.name, script.title, frozenset(script.needs), False, run)


def _of_live(live: Live) -> Case:
    return Case(live.name, live.title, live.needs, True, lambda parts: run_live(live, parts))


def _of_vectors(folder: Path, name: str, title: str, needs: Tuple[str, ...]) -> Case:
    def run(parts: Surroundings) -> None:
        with PlayedDaemon(parts.hub, parts.trace) as daemon:
            run_vectors(name, folder / "text.jsonl", parts.hub, parts.client, daemon)

    return Case(name, title, frozenset(needs), False, run)
