"""Hardware access for modular chassis control planes: the library's calls for scripts.

    from device_access import Uio, pci

    with Uio("/dev/uio0", timeout=5) as device:
        print(hex(device.window(0).read(0x10)))

Failures are OSError, with the library's own line as the reason. Durations are seconds; moments are
datetime in UTC. What the library prints goes to the logger "device_access". device_access.raw has
every call of the C interface as it is.
"""
from __future__ import annotations

from . import inventory, pci, podlog, postlog, raw, slots
from .logs import Entry, History, Log
from .memory import PhysicalMemory
from .podlog import PodLogs
from .postlog import PostLog
from .registers import Window
from .slots import UnknownName
from .uio import DeviceRemoved, Uio

__version__: str = raw.text_of(raw.lib.device_access_version())

__all__ = ["DeviceRemoved", "Entry", "History", "Log", "PhysicalMemory", "PodLogs", "PostLog",
           "Uio", "UnknownName", "Window", "inventory", "pci", "podlog", "postlog", "raw", "slots"]
