"""PCI functions: their attributes, configuration space, capabilities, links, bridges and memory."""
from __future__ import annotations

import os
import re
from collections.abc import Iterator
from enum import IntEnum
from errno import ENODEV, EIO
from pathlib import Path
from typing import Any, NamedTuple

from . import _c
from .owner import Owner
from .raw import Answer, ask, ffi, lib, text_of
from .registers import Window

_ADDRESS = re.compile(r"(?:[0-9a-f]{4}:)?[0-9a-f]{2}:[0-9a-f]{2}\.[0-7]", re.IGNORECASE)
BARS = 6


def _identities(answer: Answer, subject: str | None = None) -> Iterator[Function]:
    """Those of an array that the library gave, which ends with an empty one."""
    if not answer.result:
        raise answer.failure(subject)
    array = ffi.gc(answer.result, _c.lib.free)
    place = 0
    while array[place].str[0] != b"\0":
        yield Function(text_of(array[place].str))
        place += 1


def functions() -> Iterator[Function]:
    """The functions of the machine, in the order of their addresses."""
    return _identities(ask(_c.lib.sysfs_pci_list))


class Function:
    """A PCI function by its address: "0000:03:00.0", or "03:00.0" in domain 0."""

    def __init__(self, address: str) -> None:
        if not _ADDRESS.fullmatch(address):
            raise ValueError(f"'{address}' is not a PCI address, such as 0000:03:00.0")
        self.address = (address if len(address) == 12 else "0000:" + address).lower()
        self.identity = ffi.new("sysfs_pci_identity_t *", {"str": self.address.encode()})

    def __repr__(self) -> str:
        return f"Function('{self.address}')"

    def __str__(self) -> str:
        return self.address

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Function) and self.address == other.address

    def __lt__(self, other: Function) -> bool:
        return self.address < other.address

    def __hash__(self) -> int:
        return hash(self.address)

    def _checked(self, answer: Answer, succeeded: bool, error: int = 0) -> Answer:
        if not succeeded:
            raise answer.failure(self.address, error)
        return answer

    # --- attributes

    @property
    def path(self) -> Path:
        """Its directory in sysfs."""
        answer = ask(_c.lib.sysfs_pci_abspath, ffi.NULL, 0, ffi.NULL, self.identity)
        self._checked(answer, bool(answer.result))
        return Path(text_of(ffi.gc(answer.result, _c.lib.free)))

    def attribute(self, name: str) -> str:
        """The text of an attribute file, without the line's end."""
        answer = ask(_c.lib.sysfs_pci_show, ffi.NULL, 0x10000, ffi.NULL, name.encode(),
                     self.identity)
        if not answer.result:
            raise answer.failure(f"{self.address} {name}")
        return text_of(ffi.gc(answer.result, _c.lib.free)).rstrip("\n")

    def numbers(self, name: str, count: int) -> list[int]:
        """The numbers at the beginning of an attribute file, so many at most."""
        values = ffi.new("int64_t[]", max(count, 1))
        answer = ask(_c.lib.sysfs_pci_show_nums, values, count, name.encode(), self.identity)
        if answer.result < 0:
            raise answer.failure(f"{self.address} {name}")
        return [int(values[i]) for i in range(answer.result)]

    def number(self, name: str) -> int:
        found = self.numbers(name, 1)
        if not found:
            raise OSError(EIO, "it does not begin with a number", f"{self.address} {name}")
        return found[0]

    def set_attribute(self, name: str, value: str | int) -> None:
        """Writes an attribute file; a number as the library writes numbers."""
        if isinstance(value, int):
            answer = ask(_c.lib.sysfs_pci_store_num, value, name.encode(), self.identity)
        else:
            answer = ask(_c.lib.sysfs_pci_store, value.encode(), name.encode(), self.identity)
        if answer.result != 0:
            raise answer.failure(f"{self.address} {name}")

    @property
    def vendor(self) -> int:
        return self.number("vendor")

    @property
    def device(self) -> int:
        return self.number("device")

    @property
    def class_code(self) -> int:
        return self.number("class")

    # --- what is in it

    def children(self) -> Iterator[Function]:
        """The functions in a bridge's directory."""
        return _identities(ask(_c.lib.sysfs_pci_children_list, self.identity), self.address)

    def config(self) -> Config:
        """Its configuration space, to be closed, as with "with"."""
        return Config(self)

    def memory(self, *bars: int) -> Memory:
        """Its memory, of these base address registers or all, mapped until it is closed."""
        return Memory(self, bars)

    # --- ports and bridges

    def wait_for_link(self) -> None:
        """Waits half a second at most until the link of this PCI Express port is up."""
        answer = ask(_c.lib.pcie_config_wait_link_up, self.identity)
        if answer.result != 0:
            number = answer.result if answer.result > 0 else answer.error or ENODEV
            reason = text_of(_c.lib.pcie_config_link_strerror(number))
            raise OSError(number, reason, self.address)

    @property
    def is_switchable(self) -> bool:
        """Whether it is a hot-swap bridge that can be switched."""
        return int(ask(_c.lib.qel_pci_hotswap_bridge_usable, self.identity).result) == 0

    def switch_on(self) -> list[Function]:
        """Switches a hot-swap bridge on; the functions that appear below it in half a second."""
        answer = ask(_c.lib.qel_pci_hotswap_bridge_enable, self.identity)
        return list(_identities(answer, self.address))

    def switch_off(self) -> None:
        answer = ask(_c.lib.qel_pci_hotswap_bridge_disable, self.identity)
        self._checked(answer, answer.result == 0)


class HotswapBridges(IntEnum):
    """Those that the kernel's module for hot-swap bridges manages."""

    ALL = 0
    PCIE = 1
    PCIE_HOTPLUG = 2


def load_hotswap_module(bridges: HotswapBridges = HotswapBridges.ALL) -> None:
    answer = ask(_c.lib.qel_pci_hotswap_install, int(bridges))
    if answer.result != 0:
        raise OSError(EIO, "modprobe has failed; the system's log tells why", "qel_pci_hotswap")


class Capability(NamedTuple):
    id: int
    offset: int


class Config(Owner):
    """A function's configuration space. Offsets are bytes, multiples of the width.

    Without special rights the kernel shows the first 64 bytes.
    """

    _handle: Any = ffi.NULL

    def __init__(self, function: Function) -> None:
        self.function = function
        answer = ask(_c.lib.pci_config_open, function.identity)
        if not answer.result:
            raise answer.failure(function.address)
        self._handle = answer.result

    def close(self) -> None:
        handle, self._handle = self._handle, ffi.NULL
        if handle:
            _c.lib.pci_config_close(handle)

    @property
    def handle(self) -> Any:
        """For calls of device_access.raw; closed, a ValueError."""
        if not self._handle:
            raise ValueError(f"the configuration space of {self.function} is closed")
        return self._handle

    def _failure(self, offset: int, error: int) -> OSError:
        # An access beyond the end moves too few bytes and leaves errno alone.
        number = error or EIO
        reason = os.strerror(error) if error else "there are no such bytes"
        return OSError(number, reason, f"{self.function} register {offset:#x}")

    def _call(self, what: str, width: int) -> Any:
        if width not in (8, 16, 32):
            raise ValueError(f"no access has {width} bits; 8, 16 and 32 are there")
        return getattr(_c.lib, f"pci_config_{what}{width}")

    def read(self, offset: int, width: int = 32) -> int:
        call = self._call("read", width)
        ffi.errno = -1  # to tell a short access from a value of all ones
        value = int(call(offset, self.handle))
        if value == 0xFFFF_FFFF and ffi.errno != 0:
            raise self._failure(offset, max(ffi.errno, 0))
        return value

    def _change(self, what: str, offset: int, value: int, width: int) -> None:
        call = self._call(what, width)
        ffi.errno = 0
        if call(value, offset, self.handle) != 0:
            raise self._failure(offset, ffi.errno)

    def write(self, offset: int, value: int, width: int = 32) -> None:
        self._change("write", offset, value, width)

    def set_bits(self, offset: int, mask: int, width: int = 32) -> None:
        """Reads, then writes."""
        self._change("bitset", offset, mask, width)

    def clear_bits(self, offset: int, mask: int, width: int = 32) -> None:
        """Reads, then writes."""
        self._change("bitclr", offset, mask, width)

    def capabilities(self) -> Iterator[Capability]:
        """The list of capabilities in its order. One in a circle ends, too."""
        if not self.read(0x06, 16) & 0x10:  # status: has a list
            return
        is_cardbus = self.read(0x0E, 8) & 0x7F == 2
        offset = self.read(0x14 if is_cardbus else 0x34, 8) & 0xFC
        seen: set[int] = set()
        while offset and offset not in seen:
            seen.add(offset)
            entry = self.read(offset, 16)
            if entry & 0xFF == 0xFF:  # it has left
                return
            yield Capability(entry & 0xFF, offset)
            offset = entry >> 8 & 0xFC

    def find_capability(self, capability: int) -> int | None:
        """The offset of the first with this id; 0x10 is PCI Express."""
        found = (each.offset for each in self.capabilities() if each.id == capability)
        return next(found, None)

    @property
    def has_hotplug_slot(self) -> bool:
        return int(ask(_c.lib.pcie_config_is_hotplug, self.handle).result) == 1


class Memory(Owner):
    """The memory of a function's base address registers, mapped while this is open."""

    _is_open = False

    def __init__(self, function: Function, bars: tuple[int, ...] = ()) -> None:
        self.function = function
        self._bases: Any = ffi.new("void *[]", BARS)
        lines = function.numbers("resource", 3 * BARS)  # start, end, flags
        starts, ends = lines[0::3], lines[1::3]
        self._sizes = [end - start + 1 for start, end in zip(starts, ends)]
        left_out = sum(1 << bar for bar in range(BARS) if bars and bar not in bars)
        answer = ask(_c.lib.sysfs_pci_mmap, self._bases, left_out, function.identity)
        if answer.result != 0:
            raise answer.failure(function.address)
        self._is_open = True

    def close(self) -> None:
        if self._is_open:
            ask(_c.lib.sysfs_pci_munmap, self._bases, self.function.identity)
        self._is_open = False

    def bars(self) -> Iterator[tuple[int, Window]]:
        """Those that are mapped, with their windows."""
        for number, size in enumerate(self._sizes):
            if self._is_open and self._bases[number]:
                yield number, self._window(number, size)

    def bar(self, number: int) -> Window:
        for mapped, window in self.bars():
            if mapped == number:
                return window
        raise IndexError(f"base address register {number} of {self.function} is not mapped")

    def _window(self, number: int, size: int) -> Window:
        return Window(lambda: self._bases[number] if self._is_open else None, size)


class Resource(NamedTuple):
    base: int
    size: int  # of windows that end at or above 2 GiB only the low 32 bits count
    flags: int  # the kernel's


class Scanned(NamedTuple):
    """What the library's scan has of a function; what could not be read is 0."""

    function: Function
    vendor: int
    device: int
    subsystem_vendor: int
    subsystem_device: int
    resources: tuple[Resource, ...]


def scan() -> Iterator[Scanned]:
    """Scans all functions at once. The library keeps the result of each scan for ever."""
    if (answer := ask(_c.lib.sysfs_pci_info_init)).result != 0:
        raise answer.failure("/sys/bus/pci/devices", ENODEV)
    walk = ffi.new("sysfs_pci_get_next_element_t *")
    lib.sysfs_pci_info_fetch_init(walk)
    while record := lib.sysfs_pci_info_fetch_next(walk):
        found = record.id
        address = text_of(found.sys_fs).rpartition("/")[2]
        resources = tuple(Resource(each.base, each.size, each.flags)
                          for each in record.resource_bar if each.size > 1)
        yield Scanned(Function(address), found.vendor, found.device, found.subsystem_vendor,
                      found.subsystem_device, resources)
