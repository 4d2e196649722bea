"""The firmware's POST logs."""
from __future__ import annotations

from enum import IntEnum
from functools import partial
from typing import Any

from . import _c_post
from .logs import Calls, Entry, History, Log
from .raw import ask

__all__ = ["Block", "Entry", "History", "PostLog", "use_controller", "use_device_files"]

_post = _c_post.lib
_state: dict[str, Any] = {"mapped": None}


class Block(IntEnum):
    EVENT = 0
    TEST = 1
    ERROR = 2


def use_device_files() -> None:
    """Reads the logs through the kernel's device files, which is the default."""
    ask(_post.postlog_map_def_nvram_access)
    _state["mapped"] = True


def use_controller(base: Any) -> None:
    """Reads them through a PCIe NVRAM controller.

    base: where its registers are mapped, at least 0xF00C bytes, for as long as logs are read.
    """
    ask(_post.postlog_map_pcie_nvram_access, base)
    _state["mapped"] = base


class PostLog(Log):
    """One of the three logs."""

    def __init__(self, block: Block) -> None:
        if _state["mapped"] is None:
            use_device_files()
        self.block = Block(block)
        super().__init__(f"POST {self.block.name.lower()} log", Calls(
            partial(_post.postlog_nvram_open_dir, int(block)),
            partial(_post.postlog_nvram_read_dir, int(block)),
            partial(_post.postlog_nvram_close_dir, int(block)),
            partial(_post.postlog_nvram_open_log, int(block)),
            partial(_post.postlog_nvram_read_log, int(block)),
            partial(_post.postlog_nvram_close_log, int(block))))
