#!/usr/bin/python3
"""Holds the includes of src/ against the plan of the rooms: rooms.py --check [TREE]. A line for each fault."""
import graphlib
import re

import tree

# From top to bottom; an include points into its own room or into one below it.
ROOMS = ("daemon", "datamodel", "maintenance", "sharing", "disks", "remote_access", "migration",
         "platform", "config", "common/msg_bus", "common")
# Entered by src/ROOM/ROOM.h alone. The other rooms below the daemon are libraries, open to all above.
SERVICES = ROOMS[1:ROOMS.index("platform")]
DOOR_LINES = 60


def room_of(file):
    return file.rpartition("/")[0].removesuffix("/unused")


def files(root):
    """The sources and headers, as paths below src."""
    return sorted(str(path.relative_to(root / "src")) for path in (root / "src").rglob("*")
                  if path.suffix in (".cpp", ".h"))


def includes(root):
    """(file, line number, included file) of the tree's own files, as paths below src."""
    for file in files(root):
        for number, line in enumerate((root / "src" / file).read_text().split("\n"), 1):
            if match := re.match(r'\s*#\s*include\s*"(.+)"', line):
                yield file, number, match[1]


def bad_arrow(file, included):
    """What is wrong with one include, or None."""
    room, below = room_of(file), room_of(included)
    if below not in ROOMS:
        return f"{included} lies in no room"
    if ROOMS.index(below) < ROOMS.index(room):
        return f"points up: {room} lies below {included}"
    if below in SERVICES and below != room and included != f"{below}/{below}.h":
        return f"reaches past a door: {below}/{below}.h instead of {included}"
    return None


def faults(root):
    modules = graphlib.TopologicalSorter()  # a source file and its header count as one
    for file in files(root):
        if room_of(file) not in ROOMS:
            yield f"src/{file}: lies in no room"
    for file, number, included in includes(root):
        if room_of(file) in ROOMS and (text := bad_arrow(file, included)):
            yield f"src/{file}:{number}: {text}"
        module, below = file.rpartition(".")[0], included.rpartition(".")[0]
        if module != below:
            modules.add(module, below)
    try:
        modules.prepare()
    except graphlib.CycleError as error:
        yield "src: goes round in a circle: " + " > ".join(error.args[1][::-1])
    for room in SERVICES:
        door = root / "src" / room / f"{room}.h"
        if not door.exists():
            yield f"src/{room}: has no door, {door.name}"
        elif (lines := len(door.read_text().splitlines())) > DOOR_LINES:
            yield f"src/{room}/{door.name}: is a door of {lines} lines, more than {DOOR_LINES}"


if __name__ == "__main__":
    tree.run(faults)
