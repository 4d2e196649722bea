#!/usr/bin/python3
"""Makes one file of plain C declarations, without the preprocessor's, out of the public headers.

    generate_declarations.py OUTPUT COMPILER HEADER...

The file is what foreign-function interfaces read: cffi here, LuaJIT and others elsewhere. The POD
and the POST log have record types of the same names, which one file cannot hold: those of the POST
log get the prefix "postlog_". Calls that take a va_list are left out, since only C can make one.
"""
from __future__ import annotations

import re
import shlex
import subprocess
import sys
import tempfile
import textwrap
from pathlib import Path

INTRODUCTION = """\
/*
 * The interface of libcommon_device_access as plain declarations, for foreign-function interfaces
 * of other languages. Made from the public headers, which describe the calls. What the C library
 * has must be known: size_t, ssize_t, time_t, the types of stdint.h, and struct timespec.
 *
 * A type whose name begins with postlog_ has in its header the name without that.
 *
 * Left out, because they take a va_list:
 * {}.
 */
"""

Declarations = dict[str, list[str]]  # by the name of the header


def is_of_post_log(header: Path) -> bool:
    return header.name.startswith("post_log")


def preprocess(compiler: str, headers: list[Path]) -> str:
    """Expands the headers without those of the system."""
    sources = [header.read_text() for header in headers]
    system = set(re.findall(r"#include <((?!device_access/)[^>]+)>", "".join(sources)))
    with tempfile.TemporaryDirectory() as place:
        for name in system:
            (Path(place) / name).parent.mkdir(exist_ok=True)
            (Path(place) / name).touch()
        roots = sorted({str(header.parent.parent) for header in headers})
        command = [*shlex.split(compiler), "-E", "-x", "c", "-nostdinc", "-I", place,
                   *(f"-I{root}" for root in roots), "-"]
        lines = "".join(f'#include "{header}"\n' for header in headers)
        return subprocess.run(command, input=lines, text=True, check=True,
                              stdout=subprocess.PIPE).stdout


def by_header(expanded: str) -> dict[str, str]:
    """Sorts the lines of the compiler's output by the header that they come from."""
    texts: dict[str, str] = {}
    name = ""
    for line in expanded.splitlines():
        if marker := re.match(r'# \d+ "([^"]*)"', line):
            name = Path(marker[1]).name
        elif line.strip():
            texts[name] = texts.get(name, "") + line + "\n"
    return texts


def without_attributes(text: str) -> str:
    text = text.replace("__extension__", "")
    inside = r"(?:[^()]|\([^()]*\))*"
    return re.sub(rf"__attribute__\(\({inside}\)\)", "", text)


def statements(text: str) -> list[str]:
    """Splits declarations where they end, outside of braces."""
    found, begin, depth = [], 0, 0
    for place, character in enumerate(text):
        depth += {"{": 1, "}": -1}.get(character, 0)
        if character == ";" and depth == 0:
            found.append(tidy(text[begin:place + 1]))
            begin = place + 1
    return found


def tidy(statement: str) -> str:
    """One line; a record's members, and an enumeration's values, on lines of their own."""
    line = re.sub(r"\s+", " ", statement).strip()
    line = re.sub(r" (?=;)|(?<=[*(]) ", "", line)
    parts = re.fullmatch(r"(.*?) ?\{(.*)\}(.*)", line)
    if not parts:
        return line
    separator = "," if "enum" in parts[1] else ";"
    members = [member.strip() for member in parts[2].split(separator) if member.strip()]
    body = "".join(f"    {member}{separator}\n" for member in members)
    if separator == ",":
        body = body[:-2] + "\n"
    return f"{parts[1]} {{\n{body}}}{parts[3]}"


def wrapped(statement: str) -> str:
    if "\n" in statement:
        return statement
    return textwrap.fill(statement, 100, subsequent_indent="    ", break_long_words=False)


def constants(header: Path) -> list[str]:
    """The constants of a header, but for what differs with the width: the file is the same for all."""
    text = re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.DOTALL)
    found = re.findall(r"^#define (\w+) (\d\w*)[ \t]*$", text, re.MULTILINE)
    return [f"static const {'unsigned int' if value.endswith('u') else 'int'} {name} = {value};"
            for name, value in found if name != "DEVICE_ACCESS_TIME_BITS"]


def declarations(compiler: str, headers: list[Path]) -> Declarations:
    paths = {header.name: header for header in headers}
    texts = by_header(preprocess(compiler, headers))
    return {name: constants(paths[name]) + statements(without_attributes(text))
            for name, text in texts.items()} # what others need comes first


def type_names(families: Declarations) -> set[str]:
    everything = "\n".join(line for lines in families.values() for line in lines)
    return set(re.findall(r"^(?:typedef [^{\n]*|\}) ?\b(\w+);$", everything, re.MULTILINE))


def renamed(families: Declarations, names: set[str]) -> Declarations:
    words = re.compile(rf"\b({'|'.join(sorted(names))})\b")
    return {header: [words.sub(r"postlog_\1", line) for line in lines]
            for header, lines in families.items()}


def main() -> None:
    output, compiler, *paths = sys.argv[1:]
    headers = [Path(path).resolve() for path in paths]
    pod = declarations(compiler, [each for each in headers if not is_of_post_log(each)])
    post = declarations(compiler, [each for each in headers if is_of_post_log(each)])
    families = pod | renamed(post, type_names(pod) & type_names(post))

    left_out = [re.findall(r"(\w+)\(", line)[0]
                for lines in families.values() for line in lines if "va_list" in line]
    parts = [INTRODUCTION.format(", ".join(sorted(left_out)))]
    for header, lines in families.items():
        parts.append(f"\n/* {header} */\n")
        parts += [wrapped(line) + "\n" for line in lines if "va_list" not in line]
    Path(output).write_text("".join(parts))


if __name__ == "__main__":
    main()
