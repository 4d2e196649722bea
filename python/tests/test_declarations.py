"""The declarations are those of the headers, of all calls, in one file."""
import re
import subprocess
from pathlib import Path

import device_access
from cffi import FFI  # type: ignore[import]
from device_access.raw import lib

SOURCE = Path(__file__).resolve().parents[2]
HEADERS = sorted((SOURCE / "lib/device_access").glob("*.h"))
DECLARATIONS = Path(device_access.__file__).parents[1] / "device_access.cdef.h"


def exported() -> set[str]:
    listed = (SOURCE / "lib/exports.map").read_text()
    return set(re.findall(r"^\s+(\w+);$", listed, re.MULTILINE))


def takes_va_list(name: str) -> bool:
    text = "".join(header.read_text() for header in HEADERS)
    return bool(re.search(rf"\b{name}\([^;]*\bva_list\b", text))


def test_every_call_without_va_list_can_be_made() -> None:
    missing = {name for name in exported() if not hasattr(lib, name)}
    assert missing == {"podlog_eeprom_add", "podlog_file_add", "podlog_nvram_add"}
    assert all(takes_va_list(name) for name in missing)


def test_the_file_serves_readers_that_have_no_preprocessor() -> None:
    reader = FFI()
    reader.cdef("typedef long time_t;" + DECLARATIONS.read_text())
    assert reader.sizeof("nvram_log_t") == 16 and reader.sizeof("postlog_nvram_log_t") == 40
    assert reader.sizeof("diag_inventory_t") == 29


def test_the_file_is_c() -> None:
    includes = "".join(f"#include <{name}.h>\n" for name in ("stdint", "sys/types", "time"))
    command = ["cc", "-fsyntax-only", "-Wall", "-Werror", "-Wno-unused", "-x", "c", "-"]
    subprocess.run(command, input=includes + DECLARATIONS.read_text(), text=True, check=True)
