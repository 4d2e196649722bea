"""What the POD and the POST logs have in common: histories, and entries in them."""
from __future__ import annotations

from collections.abc import Callable, Iterator
from datetime import datetime, timezone
from typing import Any, NamedTuple

from .raw import ask, ffi

_MESSAGE_BYTES = 256


class Entry(NamedTuple):
    time: datetime  # UTC
    message: str


class Calls(NamedTuple):
    """A storage's own calls, on one device."""

    open_dir: Callable[[], int]
    read_dir: Callable[[int, Any], int]
    close_dir: Callable[[], Any]
    open_log: Callable[[int], int]
    read_log: Callable[[int, Any, Any, int], int]
    close_log: Callable[[int], Any]


def _moment(seconds: Any) -> datetime:
    return datetime.fromtimestamp(int(seconds[0]) & 0xFFFF_FFFF, timezone.utc)


class History:
    """One run's entries; time: of the first of them."""

    def __init__(self, log: Log, number: int, time: datetime) -> None:
        self.log = log
        self.number = number
        self.time = time

    def __repr__(self) -> str:
        return f"<history {self.number} of {self.log.name}, {self.time:%Y-%m-%d %H:%M:%S}>"

    def entries(self) -> Iterator[Entry]:
        """Oldest first. An OSError, after those before it, when one cannot be read."""
        calls = self.log.calls
        found: list[Entry] = []
        answer = ask(calls.open_log, self.number)
        if answer.result <= 0:
            raise answer.failure(f"{self.log.name} history {self.number}")
        # The storage is closed again before anything is handed out: only one may use it at a time.
        try:
            seconds = ffi.new("time_t *")
            while answer.result > 0:
                text = ffi.new("char[]", _MESSAGE_BYTES + 1)
                answer = ask(calls.read_log, answer.result, seconds, text, _MESSAGE_BYTES)
                if answer.result != -1:
                    message = bytes(ffi.string(text)).decode(errors="backslashreplace")
                    found.append(Entry(_moment(seconds), message))
        finally:
            ask(calls.close_log, self.number)
        yield from found
        if answer.result == -1:
            raise answer.failure(f"{self.log.name} history {self.number}")


class Log:
    """A log: a ring of histories. Each call opens its storage for itself, and closes it."""

    def __init__(self, name: str, calls: Calls) -> None:
        self.name = name
        self.calls = calls

    def __repr__(self) -> str:
        return f"<{type(self).__name__} {self.name}>"

    def histories(self) -> Iterator[History]:
        """Those that hold entries, newest first."""
        found: list[History] = []
        answer = ask(self.calls.open_dir)
        if answer.result < 0:
            if answer.result == -1:
                raise answer.failure(self.name)
            return
        try:
            seconds = ffi.new("time_t *")
            while answer.result >= 0:
                number = int(answer.result)
                answer = ask(self.calls.read_dir, number, seconds)
                if answer.result != -1:
                    found.append(History(self, number, _moment(seconds)))
        finally:
            ask(self.calls.close_dir)
        yield from found
        if answer.result == -1:
            raise answer.failure(self.name)

    def entries(self) -> Iterator[Entry]:
        """All entries, oldest first."""
        for history in reversed(list(self.histories())):
            yield from history.entries()
