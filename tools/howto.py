#!/usr/bin/python3
"""Carries out docs/howto.md on the tree, in a view of it that is gone afterwards: howto.py [--check [TREE]], as root.
A line for each fault. The sections come one after the other and are checked one by one; one build does for all."""
import os
import re
import subprocess
import sys

import tree

PAGE = "docs/howto.md"
# Own files over the tree at its own path: what the build directory knows stays true, and ninja builds what differs.
VIEW = """mount -t tmpfs howto /mnt && mkdir /mnt/upper /mnt/work &&
    mount -t overlay howto -o lowerdir="$0",upperdir=/mnt/upper,workdir=/mnt/work "$0" && cd "$0" && exec "$@" """
BUILD = ("cmake --preset dev -G Ninja -DCMAKE_CXX_COMPILER_LAUNCHER=ccache && "
         "cmake --build --preset dev --target nimbrelc nimbrelc-release")
BLOCK = r"(?:^ *<!-- (\S+?)(?:, (before|after|instead of): ([^\n]*))? -->\n)?^( *)```\w*\n(.*?)^ *```$"


def place(file, how, anchor, text):
    if how:
        lines = file.read_text().splitlines(True)
        at = next((number for number, line in enumerate(lines) if anchor in line), None)
        if at is None:
            sys.exit(f"{PAGE}: no line of {file} has {anchor}")
        lines[at + (how == "after"):at + (how != "before")] = [text]
        text = "".join(lines)
    file.write_text(text)


def run(root, title, commands):
    """The faults of command lines."""
    for command in commands:
        done = subprocess.run(command, shell=True, cwd=root, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        if done.returncode:
            yield f"{title}: {command}: {done.stdout[-3000:]}"


def carried_out(root):
    tests = {}
    for section in re.split("^## ", (root / PAGE).read_text(), flags=re.M)[1:]:
        title, touched, commands = section.split("\n")[0], [], []
        for where, how, anchor, indent, text in re.findall(BLOCK, section, re.M | re.S):
            text = re.sub(f"^{indent}", "", text, flags=re.M)
            if where:
                touched.append(where)
                place(root / where, how, anchor, text)
            else:
                commands += re.findall("^(tools/.*)", text, re.M)
                tests.update((test, title) for test in re.findall("^(/usr/bin/python3 -m pytest .*?) *#", text, re.M))
        commands += [f"tools/{check}.py --check" for check in ("rooms", "pages", "bus", "document")]
        for check, kinds in ("clang-format --dry-run -Werror", (".cpp", ".h")), ("flake8 --max-line-length 130", ".py"):
            commands += [f"{check} {file}" for file in touched if file.endswith(kinds)]
        yield from run(root, title, commands)
    if failed := list(run(root, PAGE, [BUILD])):
        yield from failed
        return
    for test, title in tests.items():
        yield from run(root, title, [test + " -q -p no:cacheprovider"])


def faults(root):
    """In a view of the tree, in a process of its own."""
    if os.environ.get("HOWTO_VIEW"):
        return carried_out(root)
    view = ["unshare", "--mount", "sh", "-c", VIEW, root, sys.executable, __file__, "--check", root]
    done = subprocess.run(view, env={**os.environ, "HOWTO_VIEW": "1", "PYTHONDONTWRITEBYTECODE": "1"},
                          text=True, stderr=subprocess.PIPE)
    return [done.stderr or f"exit code {done.returncode}"] * bool(done.returncode)


if __name__ == "__main__":
    tree.run(faults)
