#!/usr/bin/python3
"""Carries out docs/howto.md on the tree, in a view of it that is gone afterwards: howto.py [--check [TREE]], as root.
A line for each fault. The sections come one after the other and are checked one by one; one build does for all."""
import os
import re
import subprocess
import sys

import tree

PAGE = "docs/howto.md"
CHECKS = "rooms", "pages", "bus", "document"
# Own files over the tree at its own path: what the build directory knows stays true, and ninja builds what differs.
VIEW = """mount -t tmpfs howto /mnt && mkdir /mnt/upper /mnt/work &&
    mount -t overlay howto -o lowerdir="$0",upperdir=/mnt/upper,workdir=/mnt/work "$0" && cd "$0" && exec "$@" """
BUILD = """cmake --preset dev -G Ninja -DCMAKE_CXX_COMPILER_LAUNCHER=ccache && cmake --build --preset dev --target nimbrelc nimbrelc-release"""


def place(root, where, how, anchor, text):
    file = root / where
    if not how:
        return file.write_text(text)
    lines = file.read_text().splitlines(True)
    at = next((number for number, line in enumerate(lines) if anchor in line), None)
    if at is None:
        raise ValueError(f"{where} has no line with {anchor}")
    lines[at + (how == "after"):at + (how != "before")] = [text]
    return file.write_text("".join(lines))


def run(root, command):
    """The faults of one command line: none, or one."""
    done = subprocess.run(command, shell=True, cwd=root, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return [f"{command}: {done.stdout[-3000:]}"] if done.returncode else []


def carried_out(root):
    later = []
    for section in re.split("^## ", (root / PAGE).read_text(), flags=re.M)[1:]:
        title, touched = section.split("\n")[0], []
        blocks = r"(?:^ *<!-- (\S+?)(?:, (before|after|instead of): ([^\n]*))? -->\n)?^( *)```\w*\n(.*?)^ *```$"
        for where, how, anchor, indent, text in re.findall(blocks, section, re.M | re.S):
            text = re.sub(f"^{indent}", "", text, flags=re.M)
            if where:
                touched.append(where)
                place(root, where, how, anchor, text)
                continue
            commands = re.findall(r"^((?:tools/|/usr/bin/python3 ).*?)(?: +#.*)?$", text, re.M)
            later += [(title, command) for command in commands if "pytest" in command]
            for command in commands:
                if "pytest" not in command:
                    yield from (f"{title}: {fault}" for fault in run(root, command))
        sources, scripts = (" ".join({one for one in touched if one.endswith(ends)}) for ends in ((".cpp", ".h"), ".py"))
        checks = [f"tools/{check}.py --check" for check in CHECKS]
        checks += [f"clang-format --dry-run -Werror {sources}"] * bool(sources)
        checks += [f"flake8 --max-line-length 130 {scripts}"] * bool(scripts)
        yield from (f"{title}: {fault}" for check in checks for fault in run(root, check))
    if failed := run(root, BUILD):
        yield from failed
        return
    commands = dict((command, title) for title, command in later)
    yield from (f"{title}: {fault}" for command, title in commands.items()
                for fault in run(root, command + " -q -p no:cacheprovider"))


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
