"""What with-statements close. No state, any thread."""

from __future__ import annotations

from types import TracebackType
from typing import Optional, Type, TypeVar

S = TypeVar("S", bound="Closing")


class Closing:
    """Is closed behind a with statement, however that ends."""

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self: S) -> S:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()


class AsyncClosing:
    """The same behind async with; what enters it is the class's own."""

    async def close(self) -> None:
        raise NotImplementedError

    async def __aexit__(
        self,
        kind: Optional[Type[BaseException]],
        error: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        await self.close()
