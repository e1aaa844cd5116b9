#!/usr/bin/python3
"""Holds what the pages say against the code: pages.py --check [TREE]. A line for each fault."""
import re
import shlex

import rooms
import tree


def literals(code):
    """The string literals of a source file; pieces that stand one below the other are one."""
    code = re.sub(r'"\s*\n\s*"', "", code.replace("'\"'", ""))
    return [text.replace('\\"', '"') for text in re.findall(r'"((?:[^"\\\n]|\\.)*)"', code)]


def spans(text):
    return re.findall("`([^`\n]+)`", text)


def allowed(rule):
    """A command of the sudoers file as a pattern for what it allows. Its globs here are patterns too."""
    pattern = rule if " " in rule else rule + "( .*)?"
    return pattern.replace(' ""', "").replace(" ^", " ").rstrip("$").replace("\\,", ",")


def faults(root):
    def read(name):
        return (root / name).read_text()

    log, platform, known, logged, for_others = read("docs/log.md"), read("docs/platform.md"), [], {}, []
    for path in (root / "src").rglob("*.*"):
        known += literals(read(path))
        for_others += sum(map(literals, re.findall(r"\w+\((?:caller|module|found\.module), .*?;", read(path), re.S)), [])
        if category := re.search('log_category = "(.+)"', read(path)):
            logged.setdefault(category[1], []).extend(literals(read(path)))
            room = rooms.room_of(str(path.relative_to(root / "src")))
            if not re.search(rf"^\| `{category[1]}` \|.*`{room}`.*\|.*`{path.stem}`", log, re.M):
                yield f"docs/log.md: no row of the categories has {category[1]}, {room}, {path.stem}"
    quotes = [(text, sum((logged.get(category, []) for category in spans(under)), for_others), f"docs/log.md, {under}")
              for texts, under in re.findall(r"^\| (?:→ )?(`[^|]*) \| (`[^|]*) \| [^|]*\|$", log, re.M)
              for text in spans(texts)]
    quotes += [(text, known, "docs/log.md") for text in spans(log) if re.match("[A-Z].* ", text)]
    quotes += [(text, known, page) for page in ("FAULTS.md", "SECURITY.md")
               for text in re.findall('"(.+?)"', re.sub("`.*?`", "", read(page)))]
    yield from (f"{page}: no text of src/: {text}" for text, where, page in quotes if text not in "\n".join(where))
    sudoers = read("data/sudoers.d/nimbrelc").replace("\\\n", "")
    rules = re.split(r"(?<!\\), +", ", ".join(re.findall("^Cmnd_Alias .*? = *(.*)", sudoers, re.M)))
    words = [shlex.split(span)[1:] for span in spans(platform) if re.match("(/usr/bin/)?sudo .", span)]
    lines = ["/usr/bin/" * ("/" not in command[0]) + " ".join(command) for command in words]
    pairs = [(rule, line) for rule in rules for line in lines if re.fullmatch(allowed(rule), line)]
    names, named = (set(re.findall(r"com\.kelvanto(?:\.\w+)+", text)) for text in ("\n".join(known), platform))
    yield from (f"docs/platform.md: not there, or there alone: {one}"
                for one in [*({*rules, *lines} - {one for pair in pairs for one in pair}), *(names ^ named)])
    arrows = {(rooms.room_of(file), rooms.room_of(name)) for file, _, name in rooms.includes(root)}
    picture = read("ARCHITECTURE.md").split("```mermaid\nflowchart")[1].split("```")[0]
    room = dict(re.findall(r'^ +(\w+)\["([\w/]+)', picture, re.M))
    drawn = {(room.get(left), room.get(right)) for ends in re.findall(r"(\w.*) --> (.*)", picture)
             for left in ends[0].split(" & ") for right in ends[1].split(" & ")} - {(None, None)}
    upper = {"daemon", *rooms.SERVICES}
    wanted = {arrow for arrow in arrows if len(upper & set(arrow)) == 2}
    yield from (f"ARCHITECTURE.md: the picture and src/ differ: {fault}" for fault in
                [*(set(rooms.ROOMS) ^ set(room.values())), *(drawn - arrows), *(wanted - drawn)])


if __name__ == "__main__":
    tree.run(faults)
