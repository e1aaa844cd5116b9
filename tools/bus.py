#!/usr/bin/python3
"""Writes docs/bus.md, the reference of the bus, from the installed descriptions: bus.py [--check]. With --check
nothing is written: a line for each thing in which the pages of the bus and the sources differ."""
import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree as ElementTree

TREE = pathlib.Path(__file__).resolve().parent.parent
PAGE, PARAMETERS = "docs/bus.md", "docs/parameters.md"
INTRODUCTION = """# The bus

Every object, method, argument, answer and silence, as the daemon's own descriptions in `data/interfaces/` have
them, which are installed and which `busctl introspect` shows; `tools/bus.py` makes this page from them. The tests
call every method with right and with wrong arguments. All of it is served on the system bus under the four names
`com.kelvanto.nimbrel`, `com.kelvanto.pamauth`, `com.kelvanto.nssauth` and `com.kelvanto.firmware`; which caller
may use what, the installed bus policy says ([SECURITY.md](../SECURITY.md)).

- Types are the bus's letters: `s` text, `b` true or false, `u` and `i` numbers without and with a sign.
- *Wrong arguments* are of another number or type: the daemon logs them, changes nothing, and gives the answer that
  the table says: an empty one (a return without values), `false`, or none, so that the caller waits for its
  time-out. *As usual*: arguments are not looked at.
- There are no error replies but the bus library's own: `UnknownMethod` for what is in no table.
- A text that is not UTF-8 (of a script, a disk) is made so before it is sent.
- The daemon serves one call after the other, and nobody while a script runs ([platform.md](platform.md)).
"""


def methods(path):
    """(name, takes, gives, for wrong arguments, meaning) of each method of a description."""
    parser = ElementTree.XMLParser(target=ElementTree.TreeBuilder(insert_comments=True))
    said = ""
    for element in ElementTree.parse(path, parser).getroot().find("interface"):
        if element.tag is ElementTree.Comment:
            said = " ".join(element.text.split())
        else:
            args = [[f"`{arg.get('type')}` {arg.get('name')}" for arg in element.findall("arg")
                     if arg.get("direction") == way] for way in ("in", "out")]
            yield (element.get("name"), *map(", ".join, args), element.find("annotation").get("value"), said)
            said = ""


def page():
    text = INTRODUCTION
    for path in sorted((TREE / "data" / "interfaces").glob("*.xml")):
        description = path.read_text()
        about = re.search("<!-- (.*?) -->\n<node", description, re.S)[1]
        node, = re.findall('<node name="(.*?)"', description)
        text += f"\n## `{path.stem}`\n\nObject `{node}`. {textwrap.fill(' '.join(about.split()), 110)}\n\n"
        text += "| method | takes | gives | wrong arguments | meaning |\n|---|---|---|---|---|\n"
        for name, takes, gives, wrong, meaning in methods(path):
            if path.stem.endswith(".datamodel"):  # of any of four types: the description cannot say so
                takes += ", a value" * (name == "SetValue")
                gives = gives or "a value"
            text += f"| `{name}` | {takes} | {gives} | {wrong} | {meaning} |\n"
        if path.stem.endswith(".datamodel"):
            text += "\n[parameters.md](parameters.md) has the parameters.\n"
    return text


def parameter_rows():
    """(name, the rest of its row) of each parameter in the daemon's table; %u stands for an index."""
    source = (TREE / "src" / "datamodel" / "datamodel.cpp").read_text()
    return re.findall(r'\{\.name(?:_format)? = "([^"]+)"([^}]*)\}', source)


def faults():
    if (TREE / PAGE).read_text() != page():
        yield f"{PAGE} is not what tools/bus.py writes"
    table = [(name.replace("%u", "*"), "yes" if re.search(r"\.set =|config_writable", row) else "no")
             for name, row in parameter_rows()]
    told = re.findall(r"^\| `([\w.*-]+)` \| [^|]* \| (\w+) \|", (TREE / PARAMETERS).read_text(), re.M)
    told = [(name if name.startswith("Device.") else "Device.X_KELVANTO-COM_DeviceManagement." + name, writable)
            for name, writable in told]
    for row in table + told:
        if row not in table or row not in told:
            yield f"{PARAMETERS} and src/datamodel/datamodel.cpp differ about {row[0]}, settable: {row[1]}"


if __name__ == "__main__":
    if sys.argv[1:] == ["--check"]:
        sys.exit("\n".join(faults()) or None)
    (TREE / PAGE).write_text(page())
