"""Registers in mapped memory."""
from __future__ import annotations

from collections.abc import Callable
from typing import Any

from . import _c

_READ = {8: _c.lib.ioread8, 16: _c.lib.ioread16, 32: _c.lib.ioread32, 64: _c.lib.ioread64}
_WRITE = {8: _c.lib.iowrite8, 16: _c.lib.iowrite16, 32: _c.lib.iowrite32, 64: _c.lib.iowrite64}


class Window:
    """A mapped range of registers. Each access is one of the width; of 64 bits, two of 32.

    Usable as long as what mapped it is open; after that, a ValueError. Offsets are bytes, multiples
    of the width; others, and those beyond the end, are an IndexError.

    Of a device that has left its bus, registers read as all ones; where the kernel has taken the
    mapping back, an access ends the process (SIGBUS).
    """

    def __init__(self, base: Callable[[], Any], size: int) -> None:
        self._base = base
        self._size = size

    def __len__(self) -> int:
        return self._size

    def __repr__(self) -> str:
        return f"<{type(self).__name__} of {self._size} bytes>"

    def _at(self, offset: int, width: int) -> Any:
        if width not in _READ:
            raise ValueError(f"no register has {width} bits; 8, 16, 32 and 64 are there")
        if offset < 0 or offset % (width // 8) or offset + width // 8 > self._size:
            raise IndexError(f"no register of {width} bits at {offset:#x} of {self._size:#x} bytes")
        base = self._base()
        if not base:
            raise ValueError("the window is no longer mapped")
        return _c.ffi.cast("char *", base) + offset

    def read(self, offset: int, width: int = 32) -> int:
        at = self._at(offset, width)
        return int(_READ[width](at))

    def write(self, offset: int, value: int, width: int = 32) -> None:
        at = self._at(offset, width)
        _WRITE[width](value, at)

    def update(self, offset: int, value: int, mask: int, width: int = 32) -> None:
        """Changes the bits of the mask: reads, then writes."""
        self.write(offset, self.read(offset, width) & ~mask | value & mask, width)
