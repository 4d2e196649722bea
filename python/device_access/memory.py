"""Physical memory, through /dev/mem."""
from __future__ import annotations

from typing import Any

from . import _c
from .owner import Owner
from .raw import ask, ffi
from .registers import Window


class PhysicalMemory(Owner):
    """A range of physical memory, mapped while this is open; address: a multiple of the page size.

    with PhysicalMemory(0xfed00000, 4096) as memory: memory.window.read(0)
    """

    _base: Any = None

    def __init__(self, address: int, size: int) -> None:
        answer = ask(_c.lib.mmap_device_open, address, size)
        if answer.result in (ffi.NULL, ffi.cast("void *", -1)):
            raise answer.failure(f"physical address {address:#x}")
        self._base = answer.result
        self._size = size

    @property
    def window(self) -> Window:
        return Window(lambda: self._base, self._size)

    def close(self) -> None:
        base, self._base = self._base, None
        if base:
            ask(_c.lib.mmap_device_close, base, self._size)

