#!/usr/bin/python3
"""Writes docs/bus.md, the reference of the bus, from the installed descriptions: bus.py [--check [TREE]]. With
--check nothing is written: a line for each thing in which the pages of the bus and the sources differ."""
import textwrap

import tree

PAGE = "docs/bus.md"
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


def row(method):
    takes, gives = (", ".join("a value" if kind == "v" else f"`{kind}` {name}" for kind, name in args)
                    for args in (method.takes, method.gives))
    return f"| `{method.name}` | {takes} | {gives} | {method.wrong} | {method.meaning} |\n"


def page(root):
    text = INTRODUCTION
    for interface in tree.interfaces(root):
        about = textwrap.fill(interface.about, 110)
        text += f"\n## `{interface.name}`\n\nObject `{interface.path}`. {about}\n\n"
        text += "| method | takes | gives | wrong arguments | meaning |\n|---|---|---|---|---|\n"
        text += "".join(map(row, interface.methods))
        if interface.name.endswith(".datamodel"):
            text += "\n[parameters.md](parameters.md) has the parameters.\n"
    return text


def faults(root):
    if (root / PAGE).read_text() != page(root):
        yield f"{PAGE} is not what tools/bus.py writes"
    table = {(row.name, row.set) for row in tree.parameters(root)}
    for name, settable in sorted(table ^ {(name, settable) for name, _, settable in tree.told_parameters(root)}):
        yield f"{tree.PARAMETERS} and src/datamodel/datamodel.cpp differ about {name}, settable: {settable}"


if __name__ == "__main__":
    tree.run(faults, PAGE, page)
