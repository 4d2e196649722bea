#!/usr/bin/env python3
"""schema_page.py DESCRIPTION_SCHEMA MAP_SCHEMA PAGE: writes the reference of chassis descriptions,
made from their schemas, as Markdown."""

import contextlib
import json
import sys


def load(path):
    with open(path, encoding="utf-8") as file:
        return json.load(file)


def kind(member):
    """What a value of the member is."""
    if "$ref" in member:
        name = member["$ref"].rsplit("/", 1)[1]
        return f"[{name}](#{name})"
    if "enum" in member:
        return ", ".join(f"`{json.dumps(value)}`" for value in member["enum"])
    if "oneOf" in member:
        return " or ".join(kind(one) for one in member["oneOf"])
    if "const" in member:
        return f"`{json.dumps(member['const'])}`"
    if member.get("type") == "array":
        return "list of " + kind(member["items"])
    if member.get("type") == "object" and "properties" in member:
        return "object"
    if member.get("type") == "object":
        return "names with " + kind(member.get("additionalProperties", {"type": "any"}))
    low, high = member.get("minimum"), member.get("maximum")
    limits = ""
    if high is not None:
        limits = f", {low} to {high}"
    elif low is not None:
        limits = f", at least {low}"
    return member.get("type", "any") + limits


def rows(path, members, required):
    """A row for each member, and for those of objects in it."""
    for name, member in members.items():
        here = f"{path}{name}"
        text = member.get("description", "")
        if name in required:
            text += " (required)"
        yield f"| `{here}` | {kind(member)} | {text.strip()} |".replace("\n", " ")
        inner = member.get("items", member)
        if "properties" in inner:
            step = "[]." if inner is not member else "."
            yield from rows(here + step, inner["properties"], inner.get("required", []))


def table(schema):
    print("| Member | Value | |\n| --- | --- | --- |")
    for row in rows("", schema["properties"], schema.get("required", [])):
        print(row)
    print()


def definitions(schema):
    for name, definition in schema["$defs"].items():
        print(f"### {name}\n")
        if "properties" in definition:
            table(definition)
        else:
            text = definition.get("description", "")
            print(f"{text}{': ' if text else ''}{kind(definition)}\n")


def page():
    description, register_map = (load(path) for path in sys.argv[1:3])
    print("# Descriptions of a simulated chassis\n")
    print("`chassis-sim --description FILE` builds the chassis that the JSON text in FILE describes; "
          "`--describe` prints that of any chassis. Numbers may be written as texts with `0x`. "
          "Comments are allowed. The page is made from `chassis-sim.schema.json` and "
          "`register_map.schema.json`, which are installed, for editors that know schemas.\n")
    print("## A description\n")
    table(description)
    print("## Its parts\n")
    definitions(description)
    print("## A register map\n")
    print("A file of its own, which a window names as `register_map`; or its registers stand in the "
          "description.\n")
    table(register_map)
    definitions(register_map)


if __name__ == "__main__":
    with open(sys.argv[3], "w", encoding="utf-8") as out, contextlib.redirect_stdout(out):
        page()
