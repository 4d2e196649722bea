#!/usr/bin/python3
"""Makes the manual pages of section 3 from the public headers.

header_pages.py VERSION OUTPUT_DIRECTORY EXAMPLES_DIRECTORY HEADER...

The first comment of a header describes its family and becomes the family's page, with the types and a
list of the calls. Each later comment belongs to the declarations below it, up to the next empty line;
they become a page that opens at that call. The lines of EXAMPLES are those of the example programs. What
would be wider than a terminal of 80 columns is an error: the header's lines have to be shorter then.
"""
import pathlib
import re
import sys
import textwrap
from dataclasses import dataclass, field

COLUMNS = 72  # a terminal has 80, and man indents by 7
NAME_OF_FAMILY = [(r"_x86$|_tmp$|_access$", ""), ("pod_log", "podlog"), ("post_log_nvram", "postlog")]
MARKS = r"DEVICE_ACCESS_API |DEVICE_ACCESS_API$| ?DEVICE_ACCESS_INT_ENUM"
PARAMETERS = r"\([^()]*(?:\([^()]*\)[^()]*)*\)"  # which may be pointers to functions
ABOUT_ERRNO = r"\bE[A-Z]{3,}\b|errno (is|has|as|of|that)\b|leaves errno|with errno|'s errno"
ATTRIBUTE = r"\s*(?:__attribute__\(\(.*?\)\)\))?"


@dataclass
class Entry:
    """A comment and the declarations that it belongs to."""
    title: str = ""  # of the section of the header
    comment: list[str] = field(default_factory=list)
    code: list[str] = field(default_factory=list)

    def names(self):
        """The functions that are declared."""
        text = " " + " ".join(re.sub(MARKS, "", line) for line in self.code)
        if re.match(r" (#|typedef)", text) or "{" in text:
            return []
        return re.findall(r"[ *](\w+)" + PARAMETERS + ATTRIBUTE + ";", text)


def family_of(header):
    """The page of a header's family: podlog for pod_log.h."""
    name = header.stem
    for pattern, by in NAME_OF_FAMILY:
        name = re.sub(pattern, by, name)
    return name


def parts_of(text):
    """The comments and declarations of a header, in their order; the first is about the family."""
    text = re.sub(r"(?ms)^#if.*?__cplusplus.*?^#endif.*?\n", "", text)
    entries, entry, title, inside = [], Entry(), "", False
    for line in text.splitlines():
        if inside or (line.startswith("/*") and not re.match(r"/\*[-*]", line)):
            inside = not line.endswith("*/")
            line = re.sub(r"^(/\*| \*) ?", "", re.sub(r" ?\*/$", "", line))
            entry.comment += [line] if line or entry.comment else []
            if not inside and not entries:  # the family's
                entries, entry = [entry], Entry()
        elif match := re.match(r"/\*[-*]+ ?(.*?) ?[-*]*\*/$", line):
            title = match[1]
        elif not line:
            if entry.comment or entry.code:
                entries.append(entry)
            entry = Entry(title)
        elif line.startswith("#define ") and not line.endswith("_H") or not re.match(
                r"#|DEVICE_ACCESS_(BEGIN|END)_DECLS", line):
            entry.code.append(line)
        entry.title = title
    return entries + [entry] if entry.comment or entry.code else entries


def roff(text):
    """Text as man shows it."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq")
    return "\\&" + text if text.startswith((".", "'")) else text


def paragraphs(lines):
    """The paragraphs of a comment, as lists of lines."""
    return [part.split("\n") for part in re.split(r"\n\n+", "\n".join(lines).strip("\n")) if part]


def shown(lines, place):
    """Lines as they stand."""
    for line in lines:
        if len(line) > COLUMNS:
            sys.exit(f"{place}: wider than a manual page: {line}")
    return [".nf", *map(roff, lines), ".fi"]


def tagged(pattern, lines):
    """Paragraphs with a tag, of lines that begin with what the pattern matches."""
    made = []
    for line in lines:
        if match := re.match(pattern, line):
            made += [".TP", ".B " + roff(match[1]), roff(line[match.end():].strip())]
        else:
            made.append(roff(line.strip()))
    return made


def body(lines, place):
    """A paragraph: its text, a list of parameters, or what is laid out already."""
    tag = r"(\w[\w, ]*): +"
    match = re.match(tag, lines[0])
    is_list = all(re.match(tag, line) or line.startswith("    ") for line in lines)
    if match and (lines[0][0].islower() or (is_list and len(match[1]) < 12)):
        return tagged(tag, lines)
    first = next((i for i, line in enumerate(lines) if line.startswith("  ")), len(lines))
    text = [".PP", *(roff(line) for line in lines[:first])]
    table = lines[first:]
    if table and all(re.match(r"  \S+(  |$)|   ", line) for line in table):
        return text + tagged(r"  (\S+)(?:  +|$)", table) + [".PP"]
    return text + (shown(table, place) if table else [])


def sentences(paragraph):
    """Those of a paragraph that speak of errors."""
    text = " ".join(paragraph)
    pieces = re.split(r"(?<=[.;]) (?=[A-Z\-0-9N])|(?<=[.]) ", text)
    return [piece for piece in pieces if re.search(ABOUT_ERRNO, piece)]


def has_error_table(paragraph):
    """Whether it ends in a list of errors."""
    return any(re.match(r"  E[A-Z]{3,} ", line) for line in paragraph)


def without_errors(paragraph):
    """A result whose list of errors stands in a section of its own."""
    if not has_error_table(paragraph):
        return paragraph
    text = [line for line in paragraph if not line.startswith("  ")]
    return [*text[:-1], re.sub(r":$", ".", text[-1])]


def is_result(paragraph):
    """Whether a paragraph tells what a call returns."""
    return re.match(r"((All|Both|Each|Reads|Writes|They) )?[Rr]eturns?\b", paragraph[0])


def summary(comment):
    """The first sentence, as NAME wants it."""
    first = " ".join(paragraphs(comment)[0])
    return re.split(r"[.:;](?: |$)", first)[0]


def declaration(text):
    """A declaration on lines that fit, broken between parameters."""
    lines = [""]
    text = re.sub(r"\s+", " ", re.sub(MARKS, "", text)).strip()
    text = re.sub(r"\* (?=\w+\()", "*", text)
    for piece in re.split(r"(?<=,) ", text if len(text) <= COLUMNS else text.replace("(", "(, ", 1)):
        if len(lines[-1]) + len(piece) >= COLUMNS or lines[-1].endswith("(,"):
            lines.append("       ")
        lines[-1] += (" " if lines[-1] else "") + piece
    return [line.replace("(,", "(") for line in lines]


def synopsis(header, entry):
    """What to include, and the declarations."""
    lines = [f"#include <device_access/{header.name}>", ""]
    for text in re.findall(r"[^;]+;", " ".join(entry.code)):
        lines += declaration(text)
    return [".nf", *(f"\\fB{roff(line)}\\fP" if line else "" for line in lines), ".fi"]


def example(names, programs):
    """The first statement of an example program that makes one of the calls."""
    for program in programs:
        lines = program.read_text(encoding="utf-8").splitlines()
        for number, line in enumerate(lines):
            if not re.search(r"\b(" + "|".join(names) + r")\(", line) or line.startswith((" *", "/*")):
                continue
            last = number
            while last + 1 < len(lines) and not re.search(r"[;{]$", lines[last]):
                last += 1
            if last + 1 < len(lines) and lines[last + 1].strip().startswith("return"):
                last += 1
            text = textwrap.dedent("\n".join(lines[number:last + 1])).split("\n")
            if max(map(len, text)) <= COLUMNS - 4:
                return [".PP", f"From the example program {roff(program.name)}:", ".PP", ".RS 4", ".nf",
                        *map(roff, text), ".fi", ".RE"]
    return []


class Pages:
    """All pages of a run."""

    def __init__(self, version, output, examples, headers):
        self.version, self.output = version, pathlib.Path(output)
        self.programs = sorted(pathlib.Path(examples).glob("*.c"))
        self.families = [family_of(header) for header in headers]
        for header in headers:
            self.header(header)

    def write(self, name, title, text):
        """A page, with head and the way to the others."""
        head = f'.TH {name} 3 "" "common_device_access {self.version}" "{title}"'
        (self.output / f"{name}.3").write_text("\n".join([head, ".nh", ".ad l", *text]) + "\n", encoding="utf-8")

    def see_also(self, own):
        """The last section."""
        others = [f"{name}(3)" for name in self.families if name != own]
        return [".SH SEE ALSO", "device_access(7), " + ", ".join(map(roff, others))]

    def call(self, header, family, entry):
        """The page of some calls that are described together."""
        names = entry.names()
        described = paragraphs(entry.comment)
        result = [part for part in described if is_result(part)]
        rest = [part for part in described if part not in result]
        page = [".SH NAME", roff(", ".join(names)) + " \\- " + roff(summary(entry.comment)),
                ".SH SYNOPSIS", *synopsis(header, entry), ".PP",
                "Link with \\fI\\-lcommon_device_access\\fP.", ".SH DESCRIPTION"]
        for part in rest:
            page += [] if part[0].startswith("errno") else body(part, f"{header.name}: {names[0]}")
        page += [".SH RETURN VALUE"] if result else []
        for part in result:
            page += body(without_errors(part), f"{header.name}: {names[0]}")
        errors = [piece for part in rest + result if not any(line.startswith("  ") for line in part)
                  for piece in sentences(part)]
        page.append(".SH ERRORS")
        if result and has_error_table(result[0]):
            page += body(["errno is then:", *[line for line in result[0] if line.startswith("  ")]],
                         header.name)
        page += [piece for error in errors for piece in (".PP", roff(error))]
        if page[-1] == ".SH ERRORS":
            page.append("The result tells whether the call succeeded; nothing is promised about errno.")
        if shown_example := example(names, self.programs):
            page += [".SH EXAMPLES", *shown_example]
        self.write(names[0], header.name, page + [
            ".SH SEE ALSO", f"{roff(family)}(3), device_access(7)"])
        for name in names[1:]:
            if name != family:
                (self.output / f"{name}.3").write_text(f".so man3/{names[0]}.3\n", encoding="utf-8")

    def header(self, header):
        """The pages of a header."""
        family, (about, *entries) = family_of(header), parts_of(header.read_text(encoding="utf-8"))
        page = [".SH NAME", f"{roff(family)} \\- {roff(summary(about.comment))}", ".SH SYNOPSIS", ".nf",
                f".B #include <device_access/{header.name}>", ".fi", ".PP",
                "Link with \\fI\\-lcommon_device_access\\fP.", ".SH DESCRIPTION"]
        for part in paragraphs(about.comment):
            page += body(part, header.name)
        calls, types = [], []
        for entry in entries:
            names = entry.names()
            if not names:
                types.append(entry)
            elif family in names:
                calls.append((entry, names))
                page += synopsis(header, entry)
                for part in paragraphs(entry.comment):
                    page += body(part, f"{header.name}: {family}")
            else:
                calls.append((entry, names))
                self.call(header, family, entry)
        page += self.calls(calls) + self.types(header, types)
        self.write(family, header.name, page + self.see_also(family))

    @staticmethod
    def calls(calls):
        """The list of a family's calls, by the header's sections."""
        made, title = [".SH CALLS"] if calls else [], None
        for entry, names in calls:
            if entry.title != title:
                title = entry.title
                made += [".SS " + roff(title[:1].upper() + title[1:])] if title else []
            made += [".TP", ", ".join(f"\\fB{roff(name)}\\fP(3)" for name in names),
                     roff(summary(entry.comment) if entry.comment else "")]
        return made

    @staticmethod
    def types(header, types):
        """Types and constants, as the header has them."""
        made = [".SH TYPES AND CONSTANTS"] if types else []
        for entry in types:
            for part in paragraphs(entry.comment):
                made += body(part, header.name)
            code = []
            for line in entry.code:
                line = re.sub(MARKS, "", line).rstrip()
                text, remark = re.match(r"(.*?)\s*(/\*.*\*/)?$", line).groups()
                if remark and len(line) > COLUMNS:
                    indent = " " * (len(text) - len(text.lstrip()))
                    code += textwrap.wrap(remark, COLUMNS, initial_indent=indent,
                                          subsequent_indent=indent + "   ")
                    line = text
                code += [line] if len(line) <= COLUMNS else textwrap.wrap(
                    line, COLUMNS, subsequent_indent="        ")
            made += [".PP", *shown(code, header.name)] if code else []
        return made


if __name__ == "__main__":
    Pages(sys.argv[1], sys.argv[2], sys.argv[3], [pathlib.Path(name) for name in sys.argv[4:]])
