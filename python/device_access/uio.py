"""UIO devices: their register windows, interrupts and removal."""
from __future__ import annotations

import os
import time
from collections.abc import Iterator
from errno import EBADF, ECANCELED, EINTR, EINVAL, EIO, ENOENT, ETIMEDOUT
from pathlib import Path
from typing import Any

from . import _c
from .owner import Owner
from .raw import ask, ffi, text_of
from .registers import Window

# It has left during the wait; between an interrupt and the reading of its count; before.
_GONE = (ECANCELED, EIO, EBADF)
_LOOK_EVERY = 0.005  # seconds, as the library does


class DeviceRemoved(OSError):
    """The device has left; what is left to do is to close it."""


class Uio(Owner):
    """An open UIO device, or a register block "sysfs_pci:..." of a PCI device that has no driver.

    node:    its path, such as "/dev/uio0", or the pseudo node name.
    timeout: seconds to wait for it to appear; None waits for ever.

    with Uio("/dev/uio0", timeout=5) as device: device.window(0).read(0x10)

    One object must not be used from two threads at once.
    """

    _handle: Any = ffi.NULL

    def __init__(self, node: str | os.PathLike[str], timeout: float | None = 0) -> None:
        self.node = os.fspath(node)
        self._handle = _open(self.node, timeout)
        self._is_emulated = _is_emulated(self.node)
        self._is_gone = False

    def close(self) -> None:
        handle, self._handle = self._handle, ffi.NULL
        if handle:
            ask(_c.lib.libuio_close, handle)

    def __repr__(self) -> str:
        return f"<Uio {self.node}{'' if self._handle else ', closed'}>"

    @property
    def handle(self) -> Any:
        """For calls of device_access.raw; closed, a ValueError."""
        if not self._handle:
            raise ValueError(f"{self.node} is closed")
        return self._handle

    # --- registers

    def _find(self, number: int) -> Any:
        records = (self.handle.map[i] for i in range(self.handle.map_count))
        return next((each for each in records if each.index == number), None)

    def _base(self, number: int) -> Any:
        if not self._handle or self._is_gone:
            return None
        return _c.lib.libuio_get_mapinfo(self._handle, number, ffi.NULL)

    def window(self, number: int = 0) -> Window:
        """The window of a map, mapped if it is not yet. It lives until the device is closed."""
        record = self._find(number)
        if record is None:
            raise IndexError(f"{self.node} has no map {number}")
        if not record.addr:
            others = ~(1 << number) & 0xFFFF_FFFF_FFFF_FFFF
            answer = ask(_c.lib.libuio_mmap, self.handle, others)
            if not record.addr:
                raise answer.failure(f"{self.node} map {number}", answer.error or EBADF)
        return Window(lambda: self._base(number), int(record.size))

    def windows(self) -> Iterator[tuple[int, Window]]:
        """All maps, by their numbers."""
        numbers = sorted(self.handle.map[i].index for i in range(self.handle.map_count))
        for number in numbers:
            yield number, self.window(number)

    # --- interrupts

    def enable_interrupt(self, enable: bool = True) -> None:
        answer = ask(_c.lib.libuio_irqcontrol, self.handle, int(enable))
        if answer.result != 0:
            raise answer.failure(self.node)

    def wait(self, timeout: float | None = None) -> int:
        """Waits for an interrupt: the driver's count of them.

        timeout: seconds; None waits for ever, 0 only takes what has come.

        TimeoutError when none has come in time; DeviceRemoved when the device has left. Signals are
        handled meanwhile, so Ctrl-C ends it.
        """
        until, count = ffi.NULL, ffi.new("uint32_t *")
        if timeout is not None:
            until = ffi.new("struct timespec *")
            nanoseconds = time.monotonic_ns() + int(max(timeout, 0) * 1e9)
            until.tv_sec, until.tv_nsec = divmod(nanoseconds, 1_000_000_000)
        while True:
            answer = ask(_c.lib.libuio_irqwait, self.handle, until, count)
            if answer.result == 0:
                return int(count[0])
            if answer.error == ETIMEDOUT:
                raise TimeoutError(ETIMEDOUT, "no interrupt in time", self.node)
            if answer.error in _GONE and not self._is_emulated:
                self._is_gone = True
            if self._is_gone:
                raise DeviceRemoved(ECANCELED, "the device has been removed", self.node)
            if answer.error != EINTR:
                raise answer.failure(self.node)

    def interrupts(self, timeout: float | None = None) -> Iterator[int]:
        """Enables the interrupt and waits for it, again and again, until the device is removed.

        TimeoutError when none comes for so many seconds.
        """
        while True:
            try:
                self.enable_interrupt()
            except OSError:
                pass  # perhaps it has left: then the wait says so
            try:
                yield self.wait(timeout)
            except DeviceRemoved:
                return

    def fileno(self) -> int:
        """What an event loop watches for input: an interrupt then waits for wait(timeout=0)."""
        return int(_c.lib.libuio_get_uio_fd(self.handle))

    @property
    def removal_fileno(self) -> int | None:
        """What an event loop watches for select.POLLPRI: then the device has left."""
        descriptor = int(_c.lib.libuio_get_removed_fd(self.handle))
        return None if descriptor < 0 else descriptor

    # --- sysfs

    @property
    def device_dir(self) -> Path:
        """The directory of the device on its bus."""
        return Path(text_of(_c.lib.libuio_get_sys_device_dir(self.handle)))

    @property
    def class_dir(self) -> Path:
        """/sys/class/uio/uioN"""
        return Path(text_of(_c.lib.libuio_get_sys_class_dir(self.handle)))

    def open_attribute(self, name: str, flags: int = os.O_RDONLY) -> int:
        """Opens a file of device_dir: the descriptor, which the caller closes."""
        answer = ask(_c.lib.libuio_open_device_attr, self.handle, os.fsencode(name), flags)
        if answer.result < 0:
            raise answer.failure(f"{self.node} {name}")
        return int(answer.result)

    def attribute(self, name: str) -> str:
        """The text of a file of device_dir, without the line's end."""
        with open(self.open_attribute(name), encoding="utf-8", errors="backslashreplace") as file:
            return file.read().rstrip("\n")


def _is_emulated(node: str) -> bool:
    return bool(_c.lib.libuio_is_emul(os.fsencode(node)))


def _open(node: str, timeout: float | None) -> Any:
    """Looks itself instead of waiting in the library, so that Ctrl-C and fractions count."""
    name = os.fsencode(node)
    not_there = EINVAL if _is_emulated(node) else ENOENT
    until = None if timeout is None else time.monotonic() + timeout
    while True:
        answer = ask(_c.lib.libuio_open_timed, name, ffi.new("struct timespec *"))
        if answer.result:
            return answer.result
        late = until is not None and time.monotonic() >= until
        if answer.error != not_there or late:
            raise answer.failure(node)
        time.sleep(_LOOK_EVERY)
