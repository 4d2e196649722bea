"""Physical memory, through /dev/mem."""
from __future__ import annotations

from types import TracebackType
from typing import Any

from . import _c
from .raw import ask, ffi
from .registers import Window


class PhysicalMemory:
    """A range of physical memory, mapped while this is open; address: a multiple of the page size.

    with PhysicalMemory(0xfed00000, 4096) as window: window.read(0)
    """

    def __init__(self, address: int, size: int) -> None:
        answer = ask(_c.lib.mmap_device_open, address, size)
        if answer.result in (ffi.NULL, ffi.cast("void *", -1)):
            raise answer.failure(f"physical address {address:#x}")
        self._base: Any = answer.result
        self.window = Window(lambda: self._base, size)

    def close(self) -> None:
        base, self._base = self._base, None
        if base:
            ask(_c.lib.mmap_device_close, base, len(self.window))

    def __enter__(self) -> Window:
        return self.window

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()
