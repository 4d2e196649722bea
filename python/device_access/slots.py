"""The slots of the chassis, by the stack type in force."""
from __future__ import annotations

from enum import IntEnum
from typing import NamedTuple

from .raw import lib, text_of


class UnknownName(KeyError):
    """The chassis has nothing of that name, or number."""

    def __str__(self) -> str:
        return str(self.args[0])


class Stack(IntEnum):
    """Chassis stack types."""

    FIRST = 0  # 6 slots
    SECOND = 1  # 12 slots; in force until another is selected


class SlotKind(IntEnum):
    LINE_CARD = 1
    ROUTE_PROCESSOR = 2
    SWITCH = 3
    OTHER = 4


class Slot(NamedTuple):
    number: int
    kind: SlotKind
    name: str


def select(stack: Stack) -> None:
    lib.SetChassisType(int(stack))


def selected() -> Stack:
    return Stack(lib.GetChassisType())


def find(key: str | int) -> Slot:
    """The slot of a name, in any case, or of a number; UnknownName when there is none."""
    row = lib.GetSlotByName(key.encode()) if isinstance(key, str) else lib.GetSlotById(key)
    if row.slotN == -1:
        raise UnknownName(f"the chassis has no slot {key!r}")
    return Slot(row.slotN, SlotKind(row.slotType), text_of(row.slot_name))
