"""./dev box [COMMANDS]: a shell in a running box, or the given commands in one. Its own commands reach
this process, which holds the box and its peers, through a socket of the box."""
import difflib
import json
import os
import re
import shutil
import signal
import socketserver
import subprocess
import sys
import threading
from contextlib import suppress
from functools import partial

from jeepney.io.common import RouterClosed

from box import HERE, Box, BoxError, BusError, NoReply, i, u, tree

STATES = 'cd /run/service; for name in *; do echo "$name $(s6-svstat -o up,wantedup,updownfor "$name")"; done'
INTERFACES = "com.kelvanto.nimbrel."
LOCK = threading.Lock()


class Refusal(Exception):
    """What a command says that cannot do its work: one sentence."""


def short(name):
    return name.removeprefix(tree.MAKER).removeprefix(tree.DEVICE).removeprefix(INTERFACES)


# The names that each command takes; 1 is for any index.
PARAMETERS = {command: [row.name.replace("%u", "1") for row in tree.parameters() if getattr(row, command)]
              for command in ("get", "object", "set")}
NAMES = set().union(*PARAMETERS.values())
METHODS = [(row.path, short(row.interface), row.name) for row in tree.methods()]


def interface(text):
    return text if text.startswith("com.") else INTERFACES + text


def value(text):
    if text[:2] in ("u:", "i:"):
        kind, lowest = (u, 0) if text[0] == "u" else (i, -2**31)
        if not re.fullmatch("-?[0-9]{1,10}", text[2:]) or not lowest <= int(text[2:]) < lowest + 2**32:
            raise Refusal(f"{text} is no number from {lowest} to {lowest + 2**32 - 1}")
        return kind(text[2:])
    return {"true": True, "false": False}.get(text, text)


def one_of(what, name, names):
    if name not in names:
        raise Refusal(f"no {what} {name}; there is {', '.join(sorted(names)) or 'none'}")


def why_not(command, name):
    """Why the daemon had no answer to get, set or object."""
    uses = [each for each in PARAMETERS if re.sub(r"\d+$", "1", name) in PARAMETERS[each]]
    if command in uses:
        return f"{name} " + ("did not take that; numbers are u:5, and the log may say why" if command == "set"
                             else "has no value here")
    if uses:
        return f"{name} is for {' and '.join(uses)}, not for {command}"
    shorts = {short(other).lower(): short(other) for other in NAMES}
    wanted = short(name).lower()
    near = [each for each in shorts if f".{each}".endswith(f".{wanted}")]
    near = [shorts[each] for each in near or difflib.get_close_matches(wanted, shorts, 1, 0.75)]
    return f"no parameter {name}" + (f"; did you mean {' or '.join(sorted(near))}?" if near else "")


def plug(box, name, kind="USB", count="1"):
    if not re.fullmatch("[A-Za-z0-9]+ (USB|SD) [0-9]{1,2}", f"{name} {kind.upper()} {count}"):
        raise Refusal("a disk is a name like sda, USB or SD, and 0 to 99 partitions")
    with LOCK:
        if name in box.disks:
            raise Refusal(f"{name} is plugged in already")
        records = box.plug(name, kind=kind.upper(), partitions=[{}] * int(count))
    return [f"{record['label']} on {record['mount_point']}" for record in records]


def unplug(box, name):
    with LOCK:
        one_of("disk", name, box.disks)
        box.unplug(name)
    return []


def call(box, path, name, method, *values):
    word = r"[A-Za-z_]\w*"
    for text, shape in ((path, r"/|(/\w+)+"), (interface(name), rf"{word}(\.{word})+"), (method, word)):
        if not re.fullmatch(shape, text, re.ASCII) or len(text) > 255:
            raise Refusal(f"'{text[:60]}' cannot be a name on the bus")
    return box.call(path, interface(name), method, *map(value, values))


def calls(box, peer):
    one_of("peer", peer, box.peers)
    return [" ".join([member, *(json.dumps(value, ensure_ascii=False) for value in values)])
            for member, *values in box.peer(peer).calls()]


def parameter(command, box, name, *values):
    reply = getattr(box, command)(name, *map(value, values))
    if reply is None or command == "set" and not reply:
        raise Refusal(why_not(command, tree.full_key(name)))
    return [reply]


def services(box, *names):
    """The services and their states, as s6 tells them."""
    states = {}
    for name, *state in map(str.split, box.run(["sh", "-c", STATES], check=False).stdout.splitlines()):
        up, wanted, seconds = state or ("false", "false", "0")
        time = f"{seconds} s" if int(seconds) < 120 else f"{int(seconds) // 60} min"
        states[name] = f"{'up' if up == 'true' else 'down':<4} {time}" + ", wanted up" * (up < wanted)
    for name in names:
        one_of("service", name, states)
    return [f"{name:<25}  {states[name]}" for name in names or states]


def help_text(box):
    rows = services(box)
    half = (len(rows) + 1) // 2
    return [
        f"A box with firmware {box.read('/etc/version').strip()}. Its services:",
        *(f"  {left:<44}{right}".rstrip() for left, right in zip(rows[:half], [*rows[half:], ""])),
        "Besides everything that a shell knows, TAB completing their words:",
        *(f"  {name + ' ' + usage:<37}{what}" for name, (usage, what, _) in COMMANDS.items()),
        'Values: true, false, u:5, i:-1, all else is text. Keys may lack "Device." and the maker\'s part,',
        'interfaces "com.kelvanto.nimbrel.". Ctrl-D leaves, and everything is gone.']


# What follows each command, what it does or how it looks, the function for it.
COMMANDS = {
    "plug": ("NAME [USB|SD] [PARTITIONS]", "plug a disk in: plug sda", plug),
    "unplug": ("NAME", "pull it out", unplug),
    "call": ("PATH INTERFACE METHOD [ARG...]", "call /ws/nas/devices nas.devices list", call),
    "calls": ("PEER", "the calls that ddm, lcd, agent, dlna or hardware got", calls),
    "get": ("KEY", "the data model: get LAN.IPAddress", partial(parameter, "get")),
    "set": ("KEY VALUE", "set Syslog.NumberOfFiles u:5", partial(parameter, "set")),
    "object": ("KEY", "object StorageService.1.LogicalVolume.1", partial(parameter, "object")),
    "log": ("[-f] [LINES]", "the system log", None),
    "services": ("[NAME...]", "their states", services),
    "help": ("", "this text", help_text),
}


def complete(box, name, *words):
    """What the last word may become; for parameters and interfaces in full where that is how it begins."""
    *before, word = words
    names, longer = (), str
    if name == "call":
        before, longer = tuple(map(short, before)), interface
        names = {row[len(before)] for row in METHODS if row[:len(before)] == before and len(before) < 3}
    elif name == "plug":
        names = ("USB", "SD") if len(before) == 1 else ()
    elif name == "services":
        names = [each for each in os.listdir(box.path("/run/service")) if each[0] != "."]
    elif not before:
        names = {"unplug": box.disks, "calls": box.peers}.get(name) or map(short, PARAMETERS.get(name, ()))
        longer = tree.full_key if name in PARAMETERS else str
    names = sorted(names)
    return [each for each in names if each.startswith(word)] or [
        each for each in map(longer, names) if each.startswith(word)]


def attempt(box, work):
    """What the work returns, and what went wrong or None."""
    client = box.client
    try:
        return work(), None
    except (RouterClosed, ConnectionError):
        with LOCK:
            if box.client is client:  # nobody was faster
                box.leave_bus()
                box.join_bus()
        return None, "the bus was gone; the peers are back on it"
    except (Refusal, BusError, NoReply, BoxError, OSError) as error:
        return None, " ".join((getattr(error, "strerror", None) or str(error)).split())


def perform(box, name, *words):
    """One command: the lines to print, and what went wrong or None."""
    words = [word.encode(errors="replace").decode() for word in words]
    if name == "complete":
        return complete(box, *words), None
    usage = COMMANDS[name][0]
    least = sum(word[0] != "[" for word in usage.split())
    if len(words) < least or len(words) > len(usage.split()) and "..." not in usage:
        return [], f"usage: {name} {usage}".rstrip()
    lines, error = attempt(box, lambda: COMMANDS[name][2](box, *words))
    return [each if isinstance(each, str) else json.dumps(each, default=str) for each in lines or []], error


def serve(box):
    class Handler(socketserver.StreamRequestHandler):
        def handle(self):
            reply = perform(box, *json.loads(self.rfile.readline()))
            with suppress(BrokenPipeError):  # Ctrl-C
                self.wfile.write(json.dumps(reply).encode())

    server = socketserver.ThreadingUnixStreamServer(box.path("/run/box/console"), Handler)
    server.daemon_threads = True  # what still waits for an answer does not keep the box
    threading.excepthook = lambda _: None  # the bus went: the next command says so
    threading.Thread(target=server.serve_forever, daemon=True).start()


def main(words, beside=None):
    """`beside` is called with the running box; without a terminal and commands it alone is served."""
    with Box() as box:
        os.mkdir(box.path("/run/box/bin"))
        for name in ("console.rc", "console_ask.py"):
            shutil.copy(os.path.join(HERE, name), box.path("/run/box"))
        for name in (*COMMANDS, "complete"):
            os.symlink("/run/box/console_ask.py", box.path("/run/box/bin/" + name))
        serve(box)
        try:
            box.start_daemon()
        except BoxError as error:
            print(f"The daemon does not serve ({error}); its log:\n{box.log()}", file=sys.stderr)
        shell = ["env", "BASH_ENV=/run/box/console.rc", "bash"]
        terminal = os.isatty(0) and os.isatty(1) and not words
        if words:
            shell += ["-c", " ".join(words), "box"]
        elif terminal:  # a terminal of the box's own, for job control
            print("\n".join(help_text(box)), flush=True)
            shell = ["script", "-qec", "bash --rcfile /run/box/console.rc", "/dev/null"]
        if beside:
            beside(box)
            shell = shell if words or terminal else ["sleep", "infinity"]
        signal.signal(signal.SIGINT, lambda *_: None)  # Ctrl-C is for the commands
        code = subprocess.run(box.command(shell)).returncode
        return code if code >= 0 else 128 - code


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except BoxError as error:
        sys.exit(str(error))
    except KeyboardInterrupt:
        sys.exit(130)
