"""The inventory: each card slot's serial number and product code."""
from __future__ import annotations

from errno import ENOENT
from typing import NamedTuple

from . import _c
from .raw import Answer, ask, ffi

_SERIAL_BYTES = 14
_PRODUCT_BYTES = 5


class Record(NamedTuple):
    serial: str
    product: str


def _checked(answer: Answer, slot: str) -> None:
    if answer.result != 1:
        raise answer.failure(slot, answer.error or ENOENT)


def _bytes(text: str, size: int, what: str) -> bytes:
    encoded = text.encode("ascii")
    if len(encoded) > size:
        raise ValueError(f"{what} '{text}' is longer than {size} characters")
    return encoded.ljust(size, b"\0")


def _text(field: bytes) -> str:
    return field.split(b"\0")[0].decode("ascii", "backslashreplace")


def read(slot: str) -> Record:
    """A slot's record; an OSError when it has none that is whole."""
    record = ffi.new("diag_inventory_t *")
    _checked(ask(_c.lib.diag_inventory_get_all, slot.encode(), record), slot)
    return Record(_text(bytes(record.serNo)), _text(bytes(record.prodCode)))


def store(slot: str, serial: str, product: str) -> None:
    """Records a slot's card: 14 characters at most of serial number, 5 of product code."""
    record = ffi.new("diag_inventory_t *")
    record.serNo = list(_bytes(serial, _SERIAL_BYTES, "serial number"))
    record.prodCode = list(_bytes(product, _PRODUCT_BYTES, "product code"))
    _checked(ask(_c.lib.diag_inventory_store, slot.encode(), record), slot)


def clear(slot: str) -> None:
    """Deletes a slot's record, if there is one."""
    ask(_c.lib.diag_inventory_clear, slot.encode())


def clear_all() -> None:
    """Makes the directories, and deletes the records of route processors, ALSW and SW cards."""
    ask(_c.lib.diag_inventory_clear_all)
