"""Fuzzes the daemon in a box from everywhere that the bus, its peers and its scripts reach it, and watches
what must hold whatever comes. usage: bus_fuzzer.py [--seed N] [--build DIR] [SECONDS]; see README.md."""
import argparse
import collections
import fnmatch
import functools
import glob
import hashlib
import json
import os
import random
import re
import subprocess
import sys
import threading
import time
import xml.etree.ElementTree as ElementTree

import jeepney
from jeepney import HeaderFields

from box import ROOT, CONFIG, Box, BoxError, notation, wait_until

ROUND = 30  # seconds; a round has a box and a seed of its own, so that it can be repeated alone
PATIENCE = 20  # seconds in which a call is answered behind many others, under sanitizers
CANARY = "/tmp/pwn"
PIECES = r"""| |`touch /tmp/pwn`|$(touch /tmp/pwn)|$(>/tmp/pwn)1a|;touch /tmp/pwn;|&touch /tmp/pwn&|' ; touch /tmp/pwn '|'|
" ; touch /tmp/pwn "|\"$(touch /tmp/pwn)|"|\|%n%s%99999d|-h|--|../../../../etc/passwd|]|#|*|~root|{a,b}|null|0v|-1e999|
homes|printers|IPC$|glob al|Globals|/media/sda1|STORAGE|USB|SD|LTE|UNRECOGNIZED|', mount_point: '/'|{x: 'y', z: [1]}|
{"service":"Samba","enabled":true}|{"service":[],"enabled":{"a":null}}|{"service":"AFP"}|{"a":"\ud800"}|QUJD|08.05.09|
alice|passw0rd|passw0rd-2|photos2024|ssh-rsa AAAAC3Nz user@host|2024-02-30T25:61:61|2024-01-01T00:00:00|d9jrV2d9sU|
GLdRwc9b93""".replace("\n", "").split("|")
PIECES += ["\n", "\ntouch /tmp/pwn\n", "|touch /tmp/pwn|", "\t\x01\x1b\x7f", "é\U0001f600\u202e\ufeff\U0010ffff",
           "[global]\npreexec = touch /tmp/pwn", "]\n[x]", "\\\n"]
PIECES += ["{" * 3000, "[" * 1100, '{"a":' * 990, "9" * 400, "a" * 33, "\\" * 200, "\n" * 100, "'" * 99]
NUMBERS = [0, 1, 2, -1, 22, 99, 100, 1440, 65534, 65535, 2**31 - 1, 2**31, -2**31, 2**32 - 1, 2**63 - 1]
STAND_INS = ["s6-rc", "dmesg", "firewallctl", "remove_afp_cnid_dir.sh", "set_auth_key.sh", "set_port_forwarding.sh",
             "delete_port_forwarding.sh", "updateConfig.sh", "getPortForwardingStatus.sh", "getConnectedDevices.sh"]
SHARES = {  # of each generated file: the global section, its own keys, the list of directives, a share's keys
    "samba": ("global", ["server string", "workgroup", "max connections", "guest account", "username map"],
              "defaultGlobalSettings", ["path", "guest ok", "guest only", "writeable", "oplocks"]),
    "afp": ("Global", ["uam list", "guest account"], "defaultServerOptions",
            ["path", "time machine", "unix priv", "read only"])}


def source(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


KEYS = re.findall(r'\.name(?:_format)? = "([^"]+)"', source("src/datamodel/datamodel.cpp"))
SAVED = re.findall(r'^    "([\w.]+)",$', source("src/maintenance/backup.cpp"), re.M)
SIGNALS = re.findall(r'\{"(com[\w.]+)", "(\w+)"', source("src/daemon/dbus_signals.cpp")) + [
    ("com.kelvanto.ddm", member) for member in
    re.findall(r'\{"(\w+)", \w+_callback\}', source("src/disks/removable_devices_manager.cpp")) * 4]
METHODS = [(node.get("name"), interface.get("name"), method.get("name"),
            [(arg.get("name"), arg.get("type")) for arg in method if arg.get("direction") == "in"])
           for file in sorted(glob.glob(os.path.join(ROOT, "data/interfaces/*.xml")))
           for node in [ElementTree.parse(file).getroot()] for interface in node for method in interface]
METHODS += [row for row in METHODS if row[2] in ("GetValue", "SetValue", "GetObject")] * 6


def complete_types(signature):
    """A signature's parts, each one complete type."""
    parts, start, depth = [], 0, 0
    for end, letter in enumerate(signature, 1):
        depth += (letter in "({") - (letter in ")}")
        if depth == 0 and letter != "a":
            parts.append(signature[start:end])
            start = end
    return parts


def sudo_rules():
    """What the installed rules allow, each (command, regular expression of its arguments)."""
    text = re.sub(r"^#.*\n|\\\n", "", source("data/sudoers.d/nimbrelc"), flags=re.M)
    for alias in re.findall(r"^Cmnd_Alias \w+ = (.*)", text, re.M):
        for command in re.split(r"(?<!\\),\s*", alias):
            name, _, args = command.strip().partition(" ")
            if "^" in args:  # what stands before the expression is text
                before, _, args = args.partition("^")
                args = re.escape(before) + args.rstrip("$").replace("\\,", ",")
            else:
                args = {"": ".*", '""': ""}.get(args, fnmatch.translate(args))
            yield name, re.compile(args, re.S)


def no_member_twice(pairs):
    if len(dict(pairs)) != len(pairs):
        raise ValueError("a member stands twice")
    return dict(pairs)


def shape(item, path=""):
    """Every member's path and kind."""
    yield path, type(item).__name__.replace("int", "float")
    for name, member in (item.items() if isinstance(item, dict) else
                         enumerate(item) if isinstance(item, list) else ()):
        yield from shape(member, f"{path}.{name}")


class Round:
    def __init__(self, build, seed):
        self.seed, self.findings, self.counts = seed, [], collections.Counter()
        self.history = collections.deque(maxlen=60)
        self.random = random.Random(seed)
        self.null = open("/dev/null")
        self.slowest = self.sudo_seen = self.logged = 0
        self.keys = {""}
        self.box = Box(build)
        self.shape = dict(shape(self.box.config()))
        self.document_text = None
        self.watched = threading.Event()

    # What is sent ---------------------------------------------------------------------------------

    def text(self):
        chance = self.random.random()
        if chance < 0.003:
            return self.random.choice(PIECES + ["x", "é"]) * self.random.choice([9999, 99999])
        if chance < 0.05:
            return "".join(chr(self.random.choice([self.random.randint(1, 127), 0x1F4A9])) for _ in range(40))
        return "".join(self.random.choices(PIECES, k=self.random.choice([1, 1, 1, 2, 3])))[:9999]

    def type(self, depth=0):
        letter = self.random.choice("ybnqiuxtdsoghv" + "aer" * (depth < 3))
        if letter == "a":
            return "a" + self.type(depth + 1)
        if letter == "e":
            return "a{" + self.random.choice("ybnqiuxtdsog") + self.type(depth + 1) + "}"
        if letter == "r":
            return "(" + self.signature(self.random.randint(1, 4), depth + 1) + ")"
        return letter

    def signature(self, count, depth=0):
        return "".join(self.type(depth) for _ in range(count))

    def value(self, kind):
        """A hostile value of one complete type."""
        letter, choice = kind[0], self.random.choice
        if kind.startswith("a{"):
            key, item = complete_types(kind[2:-1])
            return {self.value(key): self.value(item) for _ in range(choice([0, 1, 3]))}
        if letter == "a":
            return [self.value(kind[1:]) for _ in range(choice([0, 1, 2, 500 if kind in ("ay", "as") else 3]))]
        if letter == "(":
            return tuple(map(self.value, complete_types(kind[1:-1])))
        if letter == "v":
            kind = self.type(2)
            return kind, self.value(kind)
        bits = {"y": 8, "n": 16, "q": 16, "i": 32, "u": 32, "x": 64, "t": 64}.get(letter)
        if bits:
            number = choice([choice(NUMBERS), self.random.getrandbits(bits)]) % 2**bits
            return number - 2**bits if letter in "nix" and number >= 2**(bits - 1) else number
        return {"b": lambda: choice([True, False]), "d": lambda: choice([0.0, -1e308, float("inf"), float("nan")]),
                "s": self.text, "o": lambda: choice(["/", "/a/b", "/ws/vpn"]), "h": lambda: self.null,
                "g": lambda: choice(["", "s", "a{sv}"])}[letter]()

    def key(self):
        key = self.random.choice(KEYS)
        key = key.replace("%u", self.random.choice(["0", "1", "2", "-1", "4294967297", "1.Name", "1x", ""]))
        if self.random.random() < 0.15:
            at = self.random.randint(0, len(key))
            key = self.random.choice([key[:at], key + self.text(), key[:at] + self.text() + key[at:], key.upper()])
        return key

    def argument(self, member, name, kind):
        """A signature and a value for a declared argument: the right type, a hostile value."""
        if kind == "v":  # passed plain
            kind = self.random.choice(["s", "s", "u", "u", "i", "b", "b", self.type()])
        value = self.value(kind)
        if name == "key":
            value = self.key()
        elif name == "path":  # callers say where a backup lies
            value = f"/tmp/fuzz/{member}/" + self.random.choice(["a", "b", "directory", "pipe", value])
        elif name == "json" and self.random.random() < 0.5:
            value = json.dumps({"service": self.random.choice(["Samba", "AFP", "Avahi", value]),
                                "enabled": self.random.choice([True, True, False, None, value])})
        return kind, value

    def call(self, right):
        path, interface, member, declared = self.random.choice(METHODS)
        if right:
            pairs = [self.argument(member, *row) for row in declared]
            if member == "SetValue" and pairs[0][1].endswith("AuthorizedKey"):
                self.keys.add(pairs[1][1] if pairs[1][0] == "s" else "")
        else:
            count = self.random.choice([0, 1, 1, 2, 2, 3, 4, 5, 40])
            pairs = [(kind, self.value(kind)) for kind in complete_types(self.signature(count))]
            wanted = "".join(kind for _, kind in declared)
            if "".join(kind for kind, _ in pairs) == wanted or member == "SetValue" and \
                    len(pairs) == 2 and pairs[0][0] == "s":
                return self.call(right)
            if self.random.random() < 0.1:
                path, interface = self.random.choice(["/", "/ws/vpn", path]), self.random.choice([None, "a.b", interface])
        if sum(kind.count("h") for kind, _ in pairs) > 1:
            return self.call(right)  # the bus passes on only a few descriptors
        address = jeepney.DBusAddress(path, bus_name="com.kelvanto.nimbrel", interface=interface)
        message = jeepney.new_method_call(address, member, "".join(kind for kind, _ in pairs) or None,
                                          tuple(value for _, value in pairs))
        self.count("calls, right" if right else "calls, wrong", member, *pairs)
        self.client.send(message)

    def record(self):
        """The text of a disk daemon's record, more or less."""
        disk = "/sys/block/" + self.random.choice(["sda", "sdb", "x"])
        record = {"syspath": disk + self.random.choice(["", "/1", "/2"]), "disk_syspath": disk, "label": self.text(),
                  "mount_point": self.random.choice(["", "/media/x", self.text()]), "type": "vfat", "uuid": "u",
                  "capacity": self.random.choice(NUMBERS), "free": 1, "read_only": False, "device_type": "STORAGE",
                  "connection_type": self.random.choice(["USB", "SD"]), "partitions_count": 1}
        for name in self.random.sample(sorted(record), self.random.choice([0, 0, 1, 3])):
            record[name] = self.random.choice([None, [], {}, True, -1e300, 10**400, self.text(), [{"a": [1]}]])
        text = notation(self.random.choice([record, record, record, [record] * 3, list(record.values())]))
        if self.random.random() < 0.3:
            at = self.random.randint(0, len(text))
            text = text[:at] + self.random.choice([self.text(), text, ""]) + text[at + self.random.randint(0, 9):]
        return text

    def signal(self):
        interface, member = self.random.choice(SIGNALS)
        if interface.endswith("ddm") and self.random.random() < 0.8:
            pairs = [("s", self.record())]
        else:
            pairs = [(kind, self.value(kind)) for kind in
                     complete_types(self.signature(self.random.choice([0, 0, 1, 2, 20]))) if "h" not in kind]
        self.count("signals", member, *pairs)
        self.box.signal(interface, member, *pairs, path=self.random.choice(["/status", "/"]))

    def disk(self):
        name = self.random.choice(["sda", "sdb", "sdc"])
        self.count("plugs", name)
        if name in self.box.disks:
            self.box.unplug(name)
        else:
            self.box.plug(name, self.random.choice(["USB", "SD"]),
                          [{"label": self.random.choice(["Data", self.text()])}, {"mount_point": None}])

    def peer(self):
        name, view = self.random.choice(sorted(self.box.peers.items()))
        member = self.random.choice(sorted(view.defaults) + ["set", "clearEvent", "UnmountDevice"])
        acts = ["answer", "answer", "fail", "leave", "join", "join", "clear"] + ["mute", "hold"] * (name != "agent")
        act = self.random.choice(acts)  # the daemon waits for the agent's answer: that one always comes
        values = [self.random.choice([("s", self.record()), ("s", notation([{"label": "x"}] * 999))] +
                                     [(kind, self.value(kind))] * ("h" not in kind))
                  for kind in complete_types(self.signature(self.random.choice([0, 1, 1, 1, 3])))]
        self.count("peers", name, act, member)
        for held in list(view.held):
            view.release(held)
        getattr(view, act)(*[[], [member]][act in ("answer", "fail", "mute", "hold")], *(values if act == "answer" else []))

    def script(self):
        name, out = self.random.choice(STAND_INS), self.random.choice(["", "1;minutes;10.0.0.2", self.text(), "x;" * 99999])
        code = self.random.choice([0, 0, 1, 255])
        self.count("scripts", name, code, out)
        self.box.script(name, code, out, sleep=self.random.choice([0, 0, 0, 0.2]), kill=self.random.choice([0, 0, 0, 9]))
        name = self.text().replace("/", "_")[:99]  # a directory that AFP no longer needs
        os.makedirs(os.path.join(self.box.path("/var/netatalk/CNID"), name), exist_ok=True)

    def count(self, kind, *what):
        self.counts[kind] += 1
        self.history.append(f"{kind}: " + " ".join(repr(part)[:200] for part in what))

    # What must hold -------------------------------------------------------------------------------

    def found(self, what):
        if what not in self.findings:
            self.findings.append(what)

    def expect(self, holds, what):
        if not holds:
            self.found(what)

    def watch(self):
        """Reads the document whenever it changes: it is whole at every moment."""
        seen = None
        while not self.watched.wait(0.005):
            try:
                info = os.stat(self.box.path(CONFIG))
                if (info.st_ino, info.st_mtime_ns) != seen:
                    seen = info.st_ino, info.st_mtime_ns
                    self.check_document()
            except OSError as error:
                self.found(f"document: {error}")

    def check_document(self, kinds=True):
        try:
            now = dict(shape(json.loads(self.box.read(CONFIG), object_pairs_hook=no_member_twice)))
        except ValueError as error:
            return self.found(f"document: {error}")
        self.expect(now.keys() == self.shape.keys(), f"document: members {set(now) ^ set(self.shape)}")
        for path, kind in now.items() if kinds else ():
            was = self.shape.get(path)
            self.expect(kind == was or was == "NoneType" and kind in ("str", "float") or path.startswith(".segfault.dumps."),
                        f"document: {path} became {kind}")

    def check(self):
        self.expect(not self.box.exits(), f"the daemon ended: {self.box.exits()}")
        self.expect(not glob.glob(self.box.path(CANARY) + "*"), "a text from outside was run as a command")
        for text in self.box.faults():
            self.found(text)
        sudo = self.box.sudo()
        for line in sudo[self.sudo_seen:]:
            name, _, args = line.partition(" ")
            self.expect(any(name == rule and args_rule.fullmatch(args) for rule, args_rule in sudo_rules()), "sudo: " + line)
        self.sudo_seen = len(sudo)
        commands = self.box.commands()
        for argv in commands[self.logged:]:
            self.expect(os.path.basename(argv[0]) in STAND_INS, f"command {argv}")
            if argv[0].endswith("set_auth_key.sh"):
                self.expect(len(argv) == 2 and argv[1] in self.keys, f"a key that nobody set: {argv}")
        self.logged = len(commands)
        for service in SHARES:
            self.check_shares(service)

    def check_shares(self, service):
        section, keys, directives, share = SHARES[service]
        path = f"/tmp/nimbrel/configs/{service}.config"
        if not self.box.exists(path):
            return
        text = self.box.read(path)
        settings = self.box.config()["nas"]["fileServices"][service]["daemonConfig"][directives]
        keys = "|".join(map(re.escape, keys + [row["directive"] for row in settings]))
        lines = "".join(f"  {key} = .*\n" for key in share)
        self.expect(re.fullmatch(rf"\[{section}\]\n(  ({keys}) = .*\n)+\n(\n?\[[^]\n]+\]\n{lines})*\n", text)
                    and not re.search(r"[\x00-\x09\x0b-\x1f\x7f]|^\[ *g *l *o *b *a *l *s? *\]", text.split("\n", 1)[1], re.M | re.I),
                    f"{path}: {text}")
        if service == "samba":
            done = self.box.run(["testparm", "-s", path], check=False)
            self.expect(done.returncode == 0 and "nknown parameter" not in done.stderr, f"testparm: {done.stderr}\n{text}")
            self.counts["testparm"] += 1

    # One round ------------------------------------------------------------------------------------

    def start(self):
        self.box.start_daemon()
        for name in ("store", "restore", "restore/directory"):
            os.makedirs(self.box.path("/tmp/fuzz/" + name), exist_ok=True)
        self.box.chown("/tmp/fuzz/store", "nimbrelc")
        self.box.write("/tmp/fuzz/restore/a", self.random.randbytes(4096))
        self.box.write("/tmp/fuzz/restore/b", "")
        if not self.box.exists("/tmp/fuzz/restore/pipe"):
            os.mkfifo(self.box.path("/tmp/fuzz/restore/pipe"))

    def batch(self):
        """Many messages in flight, then one that must be answered."""
        nothing_valid = self.random.random() < 0.3
        acts = [self.signal] * 6 + [self.peer, self.script, self.disk, functools.partial(self.call, False)] + \
            [functools.partial(self.call, not nothing_valid)] * 20
        before = self.box.read(CONFIG)
        self.client = Box._connect("unix:path=" + self.box.path("/run/dbus/system_bus_socket"))
        for _ in range(self.random.randint(5, 50)):
            self.random.choice(acts)()
        began = time.monotonic()
        address = jeepney.DBusAddress("/com/kelvanto/nimbrel", "com.kelvanto.nimbrel", "com.kelvanto.nimbrel.datamodel")
        serial = 1 << 20
        self.client.send(jeepney.new_method_call(address, "GetValue", "s", ("Device.DeviceInfo.SoftwareVersion",)), serial)
        try:
            answered = None
            while answered != serial:
                reply = self.client.receive(timeout=began + PATIENCE - time.monotonic())
                answered = reply.header.fields.get(HeaderFields.reply_serial)
                self.counts[reply.header.message_type.name] += 1
            self.expect(reply.body == ("08.05.09",), f"wrong answer: {reply.body}")
        except TimeoutError:
            self.found(f"no answer within {PATIENCE} s")
        self.slowest = max(self.slowest, time.monotonic() - began)
        self.client.close()
        self.check()
        self.counts["batches"] += 1
        if nothing_valid:
            self.counts["batches without a valid call"] += 1
            self.expect(self.box.read(CONFIG) == before, "calls that are all refused changed the document")
        for view in self.box.peers.values():
            view.forget()

    def clear(self):
        for view in self.box.peers.values():
            view.clear()
            view.join()
        for path in glob.glob(self.box.path("/run/box/reply/*")):
            os.unlink(path)

    def restore(self):
        """A backup with odd values: the daemon ends in good order, and runs again on what it was given."""
        self.clear()
        values = {path: self.random.choice([None, True, 2.7, {}, [], self.text()])
                  for path in self.random.sample(SAVED + ["storage.password", "vpn.password", "x.y", "storage"], 5)}
        self.history.append(f"restore: {values!r}"[:400])
        key = hashlib.sha1(b"7v!n5&s7").digest()[:16].hex()
        text = json.dumps({"version": self.text(), "config": values}).encode()
        self.box.write("/tmp/fuzz/backup", subprocess.run(["openssl", "enc", "-aes-128-ecb", "-K", key], input=text,
                                                          stdout=subprocess.PIPE, check=True).stdout)
        self.box.run(["s6-svc", "-O", "/run/service/nimbrelc"])
        self.expect(self.box.call("/backup", "com.kelvanto.nimbrel.backup", "restore", "/tmp/fuzz/backup") == (True,), "restore")
        wait_until(self.box.exits, "the daemon ends after a restore")
        self.expect(self.box.exits() == [(0, 0)], f"the end after a restore: {self.box.exits()}")

    def run(self, seconds):
        self.start()
        pid = self.box.daemon_pid()
        deadline = time.monotonic() + seconds
        watcher = threading.Thread(target=self.watch)
        watcher.start()
        try:
            while time.monotonic() < deadline and not self.findings:
                self.batch()
        finally:
            self.watched.set()
            watcher.join()
        self.expect(self.box.daemon_pid() == pid, "another process")
        if not self.findings:
            self.restore()
        os.unlink(self.box.path("/run/box/exits")) if not self.findings else None
        if not self.findings:
            self.start()
            self.batch()
            self.clear()
            self.box.end_daemon()
            self.expect(self.box.exits() == [(0, 0)], f"the end: {self.box.exits()}")
            self.check_document(kinds=False)
        for text in self.box.faults():
            self.found(text)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("seconds", nargs="?", type=int, default=60)
    parser.add_argument("--seed", type=int, default=random.randrange(10**6))
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "asan"))
    options = parser.parse_args()
    began, seed, counts, slowest = time.monotonic(), options.seed, collections.Counter(), 0
    while True:
        left = options.seconds - (time.monotonic() - began)
        round = Round(options.build, seed)
        try:
            round.run(min(ROUND, left))
        except (BoxError, OSError, jeepney.wrappers.DBusErrorResponse) as error:
            round.found(f"{type(error).__name__}: {error}")
        finally:
            round.box.close()
        counts += round.counts
        slowest = max(slowest, round.slowest)
        if round.findings or time.monotonic() - began >= options.seconds:
            break
        seed += 1
    calls, replies, errors = counts["calls, right"] + counts["calls, wrong"], counts["method_return"], counts["error"]
    print(f"seeds {options.seed} to {seed}, {time.monotonic() - began:.0f} s: {calls} calls, {replies} replies, "
          f"{errors} errors, {calls + counts['batches'] - replies - errors} silences, slowest answer {slowest:.1f} s")
    print(", ".join(f"{kind} {number}" for kind, number in sorted(counts.items())))
    for finding in round.findings:
        print("FOUND", finding[:5000])
    if round.findings:
        print(f"the last of seed {seed}:", *round.history, sep="\n  ")
    sys.exit(bool(round.findings))


if __name__ == "__main__":
    main()
