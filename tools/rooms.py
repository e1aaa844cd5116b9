#!/usr/bin/python3
"""Holds the includes of src/ against the plan of the rooms: rooms.py [TREE]. A line for each fault."""
import os
import re
import sys

# From top to bottom; an include points into its own room or into one below it.
ROOMS = ("daemon", "datamodel", "maintenance", "sharing", "disks", "remote_access", "migration",
         "platform", "config", "common/msg_bus", "common")
# Entered by src/ROOM/ROOM.h alone. The other rooms below the daemon are libraries, open to all above.
SERVICES = ROOMS[1:ROOMS.index("platform")]
DOOR_LINES = 60


def room_of(file):
    return os.path.dirname(file).removesuffix("/unused")


def includes_of(src):
    """{file: [(line number, included file)]}, of the tree's own files, as paths below src."""
    found = {}
    for folder, _, names in os.walk(src):
        for name in sorted(names):
            if name.endswith((".cpp", ".h")):
                path = os.path.join(folder, name)
                with open(path) as file:
                    quoted = (re.match(r'\s*#\s*include\s*"(.+)"', line) for line in file)
                    found[os.path.relpath(path, src)] = [
                        (number, match[1]) for number, match in enumerate(quoted, 1) if match]
    return dict(sorted(found.items()))


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


def circles(includes):
    """(file, line number, text) for every include that is part of a circle. A source file and its header
    count as one."""
    arrows = {}
    for file, rows in includes.items():
        targets = arrows.setdefault(os.path.splitext(file)[0], {})
        targets.update({os.path.splitext(included)[0]: (file, number) for number, included in rows})

    for module, targets in arrows.items():
        for target, place in targets.items():
            way = way_back(arrows, target, module) if target != module else None
            if way:
                yield *place, "goes round in a circle: " + " > ".join([module] + way)


def way_back(arrows, start, end):
    """The modules of the shortest way along the arrows, or None."""
    ways = [[start]]
    reached = {start}
    for way in ways:
        if way[-1] == end:
            return way
        new = [target for target in arrows.get(way[-1], {}) if target not in reached]
        reached.update(new)
        ways += [way + [target] for target in new]
    return None


def faults(src):
    includes = includes_of(src)
    for file, rows in includes.items():
        if room_of(file) not in ROOMS:
            yield file, 1, "lies in no room"
            continue
        for number, included in rows:
            if text := bad_arrow(file, included):
                yield file, number, text
    yield from circles(includes)
    for room in SERVICES:
        door = f"{room}/{room}.h"
        if door not in includes:
            yield door, 1, "is missing, the room has no door"
            continue
        with open(os.path.join(src, door)) as file:
            lines = len(file.readlines())
        if lines > DOOR_LINES:
            yield door, lines, f"is a door of more than {DOOR_LINES} lines"


def main():
    tree = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..")
    found = [f"src/{file}:{line}: {text}" for file, line, text in
             faults(os.path.join(tree, "src"))]
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
