#!/usr/bin/python3
"""Writes docs/document.md, the reference of the configuration document, from its schema: document.py [--check
[TREE]]. With --check nothing is written: a line for each thing in which schema, page, default and sources differ."""
import json
import re
import textwrap

from jsonschema import Draft202012Validator

import tree

SCHEMA, DEFAULT, PAGE = "data/nimbrelc.schema.json", "data/default_config/nimbrelc.json", "docs/document.md"
TEXTS = "description", "x-writer", "x-wrong"
TABLE = "\n\n| member | kind | default | meaning | written by | missing or wrong |\n|---|---|---|---|---|---|\n"
KINDS = {"boolean": "true or false", "integer": "number", "array": "list", "string": "text"}
# Dotted names in the sources that only look like the document's: members of backups, a key of the logger.
ELSEWHERE = {"storage.password", "vpn.password", "vpn.presharedkey", "syslog.ident"}


def members(node, section="", lists=""):
    """(section, name, member) of every member, of lists' entries too; objects stand last in their section."""
    for name, member in node.get("properties", {}).items():
        yield section, lists + name, member
        if member["type"] == "object":
            yield from members(member, f"{section}{name}.")
        yield from members(member.get("items", {}), section, f"{name}[].")


def leaves(value, path=""):
    """[(path, JSON text)] of everything in a document that is no object."""
    if not isinstance(value, dict):
        return [(path, json.dumps(value))]
    return [leaf for name, member in value.items() for leaf in leaves(member, f"{path}.{name}".strip("."))]


def row(name, member):
    kind = " or ".join(KINDS.get(word, word) for word in re.findall(r"\w+", str(member["type"])))
    kind = kind.replace("text", member.get("$ref", "/text").rsplit("/", 1)[1])
    kind += f" from {member['minimum']}" if "minimum" in member else ""
    kind += f" to {member['maximum']}" if "maximum" in member else ""
    default = json.dumps(member["default"]) if "default" in member else ""
    default = f"{len(member['default'])} entries" if default.startswith("[") else default
    return f"| `{name}` | {kind} | {default} | " + " | ".join(member[text] for text in TEXTS) + " |\n"


def page(root):
    schema = json.loads((root / SCHEMA).read_text())
    text = "# The configuration document\n\n"
    for line in schema["description"].split("\n"):
        text += textwrap.fill(line, 110, subsequent_indent="  " if line.startswith("- ") else "") + "\n"
    for section, name, member in members(schema):
        if member["type"] != "object":
            text += row(name, member)
        elif "description" in member:
            said = f"{member['description']} {member.get('x-wrong', '')}"
            text += f"\n## `{section}{name}`\n\n{textwrap.fill(said, 110)}{TABLE}"
    return text


def faults(root):
    schema, default = (json.loads((root / name).read_text()) for name in (SCHEMA, DEFAULT))
    for error in Draft202012Validator(schema).iter_errors(default):
        yield f"{DEFAULT}: {error.json_path}: {error.message}"
    known = {section + name: member for section, name, member in members(schema)}
    told = leaves({path: member["default"] for path, member in known.items() if "default" in member})
    for path, value in sorted({*told} ^ {*leaves(default)}):
        yield f"{path} is {value} in only one of {SCHEMA} and {DEFAULT}"
    # Paths in the sources stand in the schema; names and quoted texts of the schema stand in the sources.
    texts = {file: file.read_text() for file in (root / "src").rglob("*.[ch]*")}
    running = "".join(text for file, text in texts.items() if "migration" not in file.parts)
    for path in re.findall(rf'" ?((?:{"|".join(schema["properties"])})[. ][\w. ]+)"', running):
        if path.replace(" ", ".") not in {*known, *ELSEWHERE}:
            yield f"{path} stands in the sources, not in {SCHEMA}"
    source = re.sub(r'"\s*"', "", "".join(texts.values()))
    said = " ".join(member.get(text, "") for member in known.values() for text in TEXTS)
    names = {name.rsplit(".", 1)[-1] + '"' for _, name, member in members(schema) if member["type"] != "object"}
    for text in sorted({*names, *re.findall(r'["`](.+?)["`]', said)}):
        if text not in source:
            yield f"{text} stands in {SCHEMA}, not in the sources"
    for row in tree.parameters(root):
        name = row.name.removeprefix(tree.MAKER).removeprefix(tree.DEVICE)
        if row.config_path and f"`{name}`" not in said:
            yield f"The agent's parameter {name} is not in {SCHEMA}"
    if (root / PAGE).read_text() != page(root):
        yield f"{PAGE} is not what tools/document.py writes"


if __name__ == "__main__":
    tree.run(faults, PAGE, page)
