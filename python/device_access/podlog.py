"""The POD (power-on diagnostics) logs of a chassis's cards, and the cards' status.

    logs = PodLogs("n20")
    for history in logs["SW1"].histories():
        for entry in history.entries():
            print(entry.time, entry.message)

The library keeps one registry of cards for the process: the last PodLogs made is the one in force.
Use the logs from one thread at a time.
"""
from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from enum import IntEnum
from errno import EBUSY, EINVAL
from functools import partial
from types import TracebackType
from typing import Any, NamedTuple

from . import _c
from .logs import Calls, Entry, History, Log
from .raw import ask, callback, ffi, text_of
from .slots import UnknownName

__all__ = ["Card", "Eeprom", "Entry", "History", "PodLog", "PodLogs", "Run", "Status", "Storage"]

_CHASSIS = {"n20": 0, "n10": 1, "n4": 2}
_FIRST_OWN_ID = 1000  # above all slot numbers
_STATUS_NVRAM = 0
_RAW_BYTES = 512  # more than an entry has


class Storage(IntEnum):
    NVRAM = 0
    FILE = 1
    EEPROM = 2


class Status(IntEnum):
    PASSED = 0
    FAILED = 0x0FFFFFFF
    INVALID = 0x80000000


class Card(NamedTuple):
    name: str
    id: int  # by which the library's calls reach it in this process
    storage: Storage
    storage_id: int
    eeprom: int | None  # that of its secondary storage


def _calls(storage: Storage, number: int) -> Calls:
    prefix = f"podlog_{storage.name.lower()}_"

    def of(name: str) -> Callable[..., Any]:
        return partial(getattr(_c.lib, prefix + name), number)

    def close_log(_history: int) -> None:
        of("close")()

    return Calls(of("open_dir"), of("read_dir"), of("close_dir"), of("open_log"), of("read_log"),
                 close_log)


class PodLog(Log):
    """A card's log in its primary storage."""

    def __init__(self, card: Card) -> None:
        self.card = card
        super().__init__(card.name, _calls(card.storage, card.storage_id))

    def reset(self) -> None:
        """Formats the storage: all entries are gone. In NVRAM, the cards' status is, too."""
        prefix = f"podlog_{self.card.storage.name.lower()}_"
        init, reset, close = (getattr(_c.lib, prefix + name) for name in ("init", "reset", "close"))
        with _opened(self.name, partial(init, self.card.storage_id, 0),
                     partial(close, self.card.storage_id)):
            answer = ask(reset, self.card.storage_id)
            if answer.result != 1:
                raise answer.failure(self.name)


@contextmanager
def _opened(name: str, init: Callable[[], int], close: Callable[[], Any]) -> Iterator[None]:
    answer = ask(init)
    if answer.result != 1:
        raise answer.failure(name)
    try:
        yield
    finally:
        ask(close)


class Run:
    """A run of a card's diagnostics, as "with logs.run(card) as run".

    At its end the card's next history becomes the current one. The run counts as failed when failed
    has been set, or an exception ends it.
    """

    def __init__(self, card: Card) -> None:
        self.card = card
        self.failed = False

    def __enter__(self) -> Run:
        if (active := int(_c.lib.podlog_get_active_inst_id())) != -1:
            raise OSError(EBUSY, f"the diagnostics of instance {active} run", self.card.name)
        answer = ask(_c.lib.podlog_set_curr_active_inst, self.card.id, 0)
        if answer.result != 0:
            raise answer.failure(self.card.name, EBUSY)
        answer = ask(_c.lib.podlog_init, self.card.id, 0)
        if answer.result != 1:
            ask(_c.lib.podlog_clr_curr_active_inst, self.card.id, 0)
            raise answer.failure(self.card.name)
        return self

    def add(self, diagnostic: str, result: str = "", text: str = "", level: str = "INFO") -> None:
        """Logs "LEVEL: DIAGNOSTIC  RESULT  TEXT", of which 63 bytes are kept."""
        words = [ffi.new("char[]", each.encode()) for each in
                 (level + ": " if level else "", diagnostic, result, "%s", text)]
        answer = ask(_c.lib.podlog_add, self.card.id, *words)
        if answer.result != 1:
            raise answer.failure(self.card.name)

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        ended = ask(_c.lib.podlog_use_nxt_log, self.card.id)
        ask(_c.lib.podlog_close, self.card.id)
        has_failed = self.failed or error is not None
        ask(_c.lib.podlog_clr_curr_active_inst, self.card.id, int(has_failed))
        if ended.result != 1 and error is None:
            raise ended.failure(self.card.name)


class Eeprom(Log):
    """The log in a card's EEPROM, while the functions that reach it are bound."""

    def __init__(self, card: Card, number: int) -> None:
        self.card = card
        self.number = number
        super().__init__(f"EEPROM of {card.name}", _calls(Storage.EEPROM, number))

    def copy_newest_history(self) -> int:
        """Copies the card's newest history, entry by entry: how many there were.

        Formats an EEPROM that holds no log, and makes its next history the current one in the end.
        """
        newest = next(PodLog(self.card).histories(), None)
        entries = [] if newest is None else _raw_entries(self.card, newest.number)
        with _opened(self.name, partial(_c.lib.podlog_eeprom_init, self.number, 0),
                     partial(_c.lib.podlog_eeprom_close, self.number)):
            answers = [ask(_c.lib.podlog_eeprom_add_raw_log, self.number, entry)
                       for entry in entries]
            answers.append(ask(_c.lib.podlog_eeprom_use_nxt_log, self.number))
        for answer in answers:
            if answer.result == -1:
                raise answer.failure(self.name)
        return len(entries)


def _raw_entries(card: Card, history: int) -> list[Any]:
    """Entries as they are stored, for podlog_eeprom_add_raw_log()."""
    calls = _calls(card.storage, card.storage_id)
    entries: list[Any] = []
    answer = ask(calls.open_log, history)
    try:
        while answer.result > 0:
            entry = ffi.new("uint8_t[]", _RAW_BYTES)
            read = getattr(_c.lib, f"podlog_{card.storage.name.lower()}_read_raw_log")
            answer = ask(read, card.storage_id, answer.result, entry)
            entries.append(entry)
    finally:
        ask(calls.close_log, history)
    if answer.result == -1:
        raise answer.failure(card.name)
    return entries


class PodLogs:
    """The logs of a chassis.

    chassis: "n20", "n10" or "n4".
    is_rp2:  whether this is RPSW2, whose own log is then that in NVRAM.
    """

    def __init__(self, chassis: str, is_rp2: bool = False) -> None:
        if chassis not in _CHASSIS:
            raise ValueError(f"'{chassis}' is not a chassis; there are {', '.join(_CHASSIS)}")
        ask(_c.lib.podlog_config_pod_storage_n20_n10, _CHASSIS[chassis], int(is_rp2))
        self.cards = _register_cards()

    def card(self, name: str) -> Card:
        try:
            return self.cards[name.upper()]
        except KeyError:
            raise UnknownName(f"{name}: the chassis has {', '.join(self.cards)}") from None

    def __getitem__(self, name: str) -> PodLog:
        return PodLog(self.card(name))

    def __iter__(self) -> Iterator[PodLog]:
        return (PodLog(card) for card in self.cards.values())

    def run(self, name: str) -> Run:
        return Run(self.card(name))

    def prepare(self) -> None:
        """Makes the storages that are missing or hold no log."""
        answer = ask(_c.lib.podlog_chk_storage_integrity)
        if answer.result != 1:
            raise answer.failure("the storages of all cards")

    @contextmanager
    def eeprom(self, name: str, read: Callable[[int, int], bytes],
               write: Callable[[int, bytes], int]) -> Iterator[Eeprom]:
        """A card's EEPROM, reached through two functions.

        read:  (offset, count) -> the bytes there.
        write: (offset, bytes) -> how many were written.

        An exception in them fails the call that needs them, and is the cause of its exception.
        """
        card = self.card(name)
        if card.eeprom is None:
            raise OSError(EINVAL, "the card has no EEPROM for its log", card.name)

        def read_into(offset: int, buffer: Any, count: int) -> int:
            got = read(offset, count)[:count]
            ffi.memmove(buffer, got, len(got))
            return len(got)

        def write_from(offset: int, buffer: Any, count: int) -> int:
            return write(offset, bytes(ffi.buffer(buffer, count)))

        bound = [callback("mem_access_fp_t", each) for each in (read_into, write_from)]
        answer = ask(_c.lib.podlog_bind_secondary_log_access_func, card.id, *bound)
        if answer.result != 1:
            raise answer.failure(card.name)
        try:
            yield Eeprom(card, card.eeprom)
        finally:
            ask(_c.lib.podlog_unbind_secondary_log_access_func, card.id)

    # --- status words and fault injection, in the NVRAM of the route processor

    def _in_nvram(self, name: str, call: Callable[..., Any], *arguments: Any) -> Any:
        card = self.card(name)
        read_only = int(call is _c.lib.podlog_get_pod_status)
        with _opened(name, partial(_c.lib.podlog_nvram_init, _STATUS_NVRAM, read_only),
                     partial(_c.lib.podlog_nvram_close, _STATUS_NVRAM)):
            answer = ask(call, card.id, *arguments)
        if answer.result in (-1, 0xFFFF_FFFF):
            raise answer.failure(name)
        return answer.result

    def status(self, name: str) -> Status:
        return Status(self._in_nvram(name, _c.lib.podlog_get_pod_status))

    def set_status(self, name: str, status: Status) -> None:
        word = ffi.cast("int", int(status))
        self._in_nvram(name, _c.lib.podlog_set_pod_status, int(word))

    def inject_fault(self, name: str, inject: bool = True) -> None:
        """Sets the card's flag for fault injection, or clears it."""
        self._in_nvram(name, _c.lib.podlog_faultinject_pod_status, int(not inject))


def _register_cards() -> dict[str, Card]:
    """Cards whose names the slot table lacks share an id; here each gets one of its own."""
    table = ffi.new("pod_storage_info_t *")
    _c.lib.podlog_get_pod_storage_table(table)
    cards = {}
    for place in range(table.num_storage):
        row = table.dev[place]
        if row.inst_id == -1:
            row.inst_id = _FIRST_OWN_ID + place
        has_eeprom = row.secondary_storage_type == _c.lib.POD2NDSTORAGE_EEPROM
        cards[text_of(row.inst_name)] = Card(
            text_of(row.inst_name), int(row.inst_id), Storage(row.type), int(row.storage_inst_id),
            int(row.secondary_storage_inst_id) if has_eeprom else None)
    _c.lib.podlog_config_pod_storage_info(table)

    words = ffi.new("pod_nvram_inst_map_t *")
    _c.lib.podlog_nvram_get_inst_mapping(_STATUS_NVRAM, words)
    for place in range(min(words.num_inst, len(words.index0))):
        card = cards.get(text_of(words.name0[place]))
        if card:
            words.index0[place] = card.id
    _c.lib.podlog_nvram_config_inst_mapping(_STATUS_NVRAM, words)
    return cards
