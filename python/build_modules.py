#!/usr/bin/python3
"""Writes the C sources of the package's two extension modules, out of the declarations.

    build_modules.py device_access.cdef.h DIRECTORY

There are two because the headers of the POD log's NVRAM and of the POST log do not go into one C
file. Each is compiled against the headers, so a declaration that is not theirs does not compile.
"""
from __future__ import annotations

import re
import sys
from pathlib import Path

from cffi import FFI  # type: ignore[import]

# What the declarations take for granted, and what the package adds.
SYSTEM = """
typedef int... time_t;
struct timespec { time_t tv_sec; long tv_nsec; ...; };
"""
OWN = """
void free(void *);
size_t keep_output(void);
char *kept_output(size_t mark, size_t *length);
"""
PREFIX = "postlog_"


def sections(declarations: str) -> dict[str, str]:
    """What the file has of each header."""
    parts = re.split(r"^/\* (\w+\.h) \*/$", declarations, flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def source(headers: list[str], text: str) -> str:
    includes = "".join(f"#include <device_access/{name}>\n" for name in headers)
    types = sorted(set(re.findall(rf"\b{PREFIX}(nvram\w+_t)\b", text)))
    aliases = "".join(f"typedef {name} {PREFIX}{name};\n" for name in types)
    return f"#include <stdlib.h>\n#include <time.h>\n{includes}{aliases}"


def write_module(name: str, declared: dict[str, str], own: str, place: Path) -> None:
    text = "".join(declared.values())
    builder = FFI()
    builder.cdef(SYSTEM + text.replace("struct timespec;", "") + own)
    own_header = '#include "keep_output.h"\n' if own else ""
    builder.set_source(f"device_access.{name}", source(list(declared), text) + own_header)
    builder.emit_c_code(str(place / f"{name}.c"))


def main() -> None:
    declared = sections(Path(sys.argv[1]).read_text())
    place = Path(sys.argv[2])
    post = {name: text for name, text in declared.items() if name.startswith("post_log")}
    others = {name: text for name, text in declared.items() if name not in post}
    write_module("_c", others, OWN, place)
    write_module("_c_post", post, "", place)


if __name__ == "__main__":
    main()
