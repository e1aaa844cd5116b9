"""Fuzzes the daemon in a box from everywhere that its bus, its peers and its scripts reach it, and watches
what holds whatever comes. usage: bus_fuzzer.py [--seed N] [--build DIR] [SECONDS]"""
import argparse
import collections
import functools
import glob
import json
import os
import random
import re
import sys
import threading
import time

import jeepney
from jeepney import HeaderFields

from box import CONFIG, ROOT, STAND_INS, Box, BoxError, BusError, NoReply, notation, wait_until, tree

ROUND = 60  # seconds; each round has a box and a seed of its own, so that it can be repeated alone
PATIENCE = 20  # seconds for the answer to a call behind many others, under sanitizers
PIECES = r"""| |`touch /tmp/pwn`|$(touch /tmp/pwn)|$(>/tmp/pwn)1a|;touch /tmp/pwn;|&touch /tmp/pwn&|' ; touch /tmp/pwn '|'|
" ; touch /tmp/pwn "|\"$(touch /tmp/pwn)|"|\|%n%s%99999d|-h|--|../../../../etc/passwd|]|#|*|~root|{a,b}|null|0v|-1e999|
homes|printers|IPC$|glob al|Globals|/media/sda1|STORAGE|USB|SD|LTE|UNRECOGNIZED|', mount_point: '/'|{x: 'y', z: [1]}|
{"service":"Samba","enabled":true}|{"service":[],"enabled":{"a":null}}|{"service":"AFP"}|{"a":"\ud800"}|QUJD|08.05.09|
alice|passw0rd|passw0rd-2|photos2024|ssh-rsa AAAAC3Nz user@host|2024-02-30T25:61:61|2024-01-01T00:00:00|d9jrV2d9sU|
GLdRwc9b93""".replace("\n", "").split("|") + [
    "\n", "\ntouch /tmp/pwn\n", "|touch /tmp/pwn|", "[global]\npreexec = touch /tmp/pwn", "]\n[x]", "\\\n", "é\U0010ffff",
    "\U0001f600\u202e\ufeff", "".join(map(chr, range(1, 128))), "{" * 3000, "[" * 1100, '{"a":' * 990, "9" * 400, "'" * 99]
NUMBERS = [0, 1, 2, -1, 22, 99, 100, 1440, 65534, 65535, 2**31 - 1, 2**31, 2**32 - 1, 2**63]
BITS = {"y": 8, "n": 16, "q": 16, "i": 32, "u": 32, "x": 64, "t": 64}
NULL = open("/dev/null")
SHARES = {  # of each generated file: its global keys, the list of further ones, the keys of a share
    "samba": ("server string|workgroup|max connections|guest account|username map", "defaultGlobalSettings",
              ["path", "guest ok", "guest only", "writeable", "oplocks"]),
    "afp": ("uam list|guest account", "defaultServerOptions", ["path", "time machine", "unix priv", "read only"])}
SHARES_FILE = "/tmp/nimbrel/configs/{}.config"
SIGNALS = [("com.kelvanto.systemcalls", "IPAddressChanged"), ("com.kelvanto.nimbrel.upgrade", "ShowUpgradeMessage"),
           ("com.kelvanto.nimbrel.upgrade", "HideUpgradeMessage")] + 4 * [("com.kelvanto.ddm", member) for member in (
               "DeviceAttached", "DeviceDetached", "PartitionConnected", "PartitionDisconnected")]
METHODS = tree.methods() + 6 * [method for method in tree.methods() if method.name.endswith(("Value", "State"))]
with open(os.path.join(ROOT, "data/default_config/nimbrelc.json")) as config_file:
    DOCUMENT = json.load(config_file)
rng = random.Random()
pick = rng.choice


# What is sent

def text():
    size = pick([9999, 200000, 3000000]) if rng.random() < 0.003 else 0
    return ((pick(PIECES) or "x") * size)[:size] or "".join(rng.choices(PIECES, k=pick([1, 1, 1, 2, 3])))[:9999]


def pair(letter=None, depth=0):
    """A type, of the bus's any unless its letter is given, and a hostile value of it."""
    letter = letter or pick("ybnqiuxtdsoghv" + "aer" * (depth < 3))
    if letter in BITS:
        number = pick(NUMBERS + [rng.getrandbits(64)]) % 2**BITS[letter]
        return letter, number - 2**BITS[letter] if letter in "nix" and number >= 2**BITS[letter] // 2 else number
    if letter == "a":
        kind, item = pair(None, depth + 1)
        several = pick([0, 1, 3, 5000 if kind in BITS else 2])
        return "a" + kind, [item] * (1 if "h" in kind or len(repr(item)) > 9999 else several)  # the bus has limits
    if letter == "e":
        (key, name), (kind, item) = pair(pick("ybnqiuxtsog")), pair(None, depth + 1)
        return "a{" + key + kind + "}", {name: item}
    if letter == "r":
        kinds, items = zip(*pairs(pick([1, 2, 4]), depth + 1))
        return "(" + "".join(kinds) + ")", items
    if letter == "v":
        return "v", pair(None, 2)
    return letter, {"b": pick([True, False]), "d": pick([0.0, -1e308, float("inf"), float("nan")]), "s": text(), "h": NULL,
                    "o": pick(["/", "/a/b", "/ws/vpn"]), "g": pick(["", "s", "a{sv}"])}[letter]


def pairs(count, depth=0):
    """That many, with at most one descriptor: the bus passes on only a few."""
    found = [pair(None, depth) for _ in range(count)]
    return found if repr(found).count("/dev/null") < 2 else pairs(count, depth)


def arguments(member, declared):
    """What the method declares, with hostile values."""
    row = pick(tree.parameters())
    key, item = row.name, functools.reduce(dict.get, filter(None, row.config_path.split(".")), DOCUMENT)
    letter = {bool: "b", int: "u"}.get(type(item), "b" if key.endswith("Enabled") else "s")
    letter = pick([letter, letter, letter, "s", "i", "u", "b", None])
    key = key.replace("%u", pick(["0", "1", "2", "-1", "4294967297", "1.Name", "1x", ""]))
    at = rng.randint(0, len(key))
    key = pick([key] * 30 + [key[:at], key + text(), key[:at] + text() + key[at:], key.upper()])
    for kind, name in declared:
        kind, value = pair(letter if kind == "v" else kind)
        if name == "json":
            wanted = {"service": pick(["Samba", "AFP", "Avahi", value]), "enabled": pick([True, True, False, value])}
            value = pick([value, json.dumps(wanted)])
        files = pick(["a", "directory", "pipe", value])  # callers say where a backup lies
        yield kind, {"key": key, "path": f"/tmp/fuzz/{member}/{files}"}.get(name, value)


def record():
    """A disk daemon's record, more or less, in its notation."""
    disk = "/sys/block/" + pick(["sda", "sdb", "x"])
    fields = {"syspath": disk + pick(["", "/1", "/2"]), "disk_syspath": disk, "label": text(), "type": "vfat", "uuid": "u",
              "mount_point": pick(["", "/media/x", text()]), "capacity": pick(NUMBERS), "free": 1, "read_only": False,
              "device_type": "STORAGE", "connection_type": pick(["USB", "SD"]), "partitions_count": 1}
    for name in rng.sample(sorted(fields), pick([0, 0, 1, 3])):
        fields[name] = pick([None, [], {}, True, -1e300, 10**400, text(), [{"a": [1]}]])
    several = [fields] * (3 if len(str(fields)) > 9999 else 500)
    good = notation(pick([fields, fields, fields, several, list(fields.values())]))
    at = rng.randint(0, len(good))
    return pick([good, good, good[:at] + pick([text(), good, ""]) + good[at + rng.randint(0, 9):]])


def shape(item, path=""):
    """Every member's path and kind."""
    yield path, type(item).__name__.replace("int", "float")
    for name, member in item.items() if isinstance(item, dict) else enumerate(item) if isinstance(item, list) else ():
        yield from shape(member, f"{path}.{name}")


class Round:
    def __init__(self, build):
        self.findings, self.counts, self.history = [], collections.Counter(), collections.deque(maxlen=60)
        self.slowest, self.keys = 0, {""}
        self.box = Box(build)
        self.box.run(["mkdir", "-p", "/tmp/fuzz/store", "/tmp/fuzz/restore/directory"])
        self.box.run(["mkfifo", "/tmp/fuzz/restore/pipe"])
        self.box.chown("/tmp/fuzz/store", "nimbrelc")
        self.box.write("/tmp/fuzz/restore/a", rng.randbytes(4096))

    def note(self, kind, *what):
        self.counts[kind] += 1
        self.history.append(f"{kind}: " + " ".join(repr(part)[:200] for part in what))

    def call(self, right):
        path, interface, member, declared, *_ = pick(METHODS)
        given = list(arguments(member, declared))
        if not right:
            given = pick([given + pairs(1), given[1:], pairs(1) + given[1:], pairs(pick([0, 1, 2, 3, 4, 5, 40]))])
        signature = "".join(kind for kind, _ in given)
        if not right:
            if signature == "".join(kind for kind, _ in declared) or member == "SetValue" and len(given) == 2:
                return
            path, interface = pick([(path, interface)] * 9 + [("/ws/vpn", interface), ("/", None), (path, "a.b")])
        elif member == "SetValue":
            self.keys.add(given[1][1] if signature == "ss" else "")
        self.note("right calls" if right else "wrong calls", member, *given)
        address = jeepney.DBusAddress(path, bus_name="com.kelvanto.nimbrel", interface=interface)
        self.client.send(jeepney.new_method_call(address, member, signature or None, tuple(value for _, value in given)))

    def signal(self):
        interface, member = pick(SIGNALS)
        given = pick([[("s", record())]] * 4 * interface.endswith("ddm") + [pairs(pick([0, 0, 1, 2, 20]))])
        self.note("signals", member, *given)
        self.box.signal(interface, member, *given, path=pick(["/status", "/"]))

    def disk(self):
        name = pick(["sda", "sdb", "sdc"])
        self.note("plugs", name)
        if name in self.box.disks:
            self.box.unplug(name)
        else:
            self.box.plug(name, pick(["USB", "SD"]), [{"label": text()}, {"label": "Data"}, {"mount_point": None}])

    def peer(self):
        name, view = pick(sorted(self.box.peers.items()))
        member = pick(sorted(view.defaults) + ["set", "clearEvent", "UnmountDevice"])
        # The daemon waits for the agent's answer: that one always comes.
        act = pick(["answer", "answer", "fail", "leave", "join", "join", "clear"] + ["mute", "hold"] * (name != "agent"))
        values = pick([[("s", record())], [("s", notation([{"label": "x"}] * 999))], pairs(pick([0, 1, 1, 3]))])
        self.note("peers", name, act, member)
        for held in list(view.held):
            view.release(held)
        getattr(view, act)(*[member] * (act in ("answer", "fail", "mute", "hold")), *values * (act == "answer"))

    def script(self):
        name, out = pick(sorted(STAND_INS)), pick(["", "1;minutes;10.0.0.2", text(), "x;" * 99999])
        self.note("scripts", name, out)
        self.box.script(name, pick([0, 0, 1, 255]), out, sleep=pick([0, 0, 0, 0.2]), kill=pick([0, 0, 0, 9]))
        directory = text().replace("/", "_")[:60]  # one that AFP no longer needs
        os.makedirs(os.path.join(self.box.path("/var/netatalk/CNID"), directory), exist_ok=True)

    # What must hold

    def expect(self, holds, what):
        if not holds:
            self.findings.append(what)

    def watch(self, stop):
        """Reads the document whenever it changes: it is whole at every moment, and no member comes, goes or
        becomes another kind of value."""
        before, seen = dict(shape(DOCUMENT)), None
        while not stop.wait(0.005):
            try:
                info = os.stat(self.box.path(CONFIG))
                if (info.st_ino, info.st_mtime_ns) == seen:
                    continue
                seen = info.st_ino, info.st_mtime_ns
                members = list(shape(json.loads(self.box.read(CONFIG), object_pairs_hook=lambda members: dict(members)
                                                if len(dict(members)) == len(members) else "a member twice")))
            except (OSError, ValueError) as error:
                members = [(str(error), "")]
            wrong = [member for member in members if before.get(member[0]) not in (member[1], "NoneType")]
            self.expect(not wrong and len(members) == len(before), f"document: {wrong}")

    def check(self):
        self.expect(not self.box.exits(), f"the daemon ended: {self.box.exits()}")
        self.expect(not glob.glob(self.box.path("/tmp/pwn*")), "a text from outside was run")
        self.expect(not self.box.faults(), self.box.faults())
        refused = [line for line in self.box.sudo() if line.startswith("refused: ")]  # the rules hold the patterns
        self.expect(not refused, refused)
        keys = [argv[1:] for argv in self.box.commands("set_auth_key.sh")]
        self.expect(all(len(key) == 1 and key[0] in self.keys for key in keys), f"keys that nobody set: {keys}")
        for service, (keys, further, share) in SHARES.items():
            path = SHARES_FILE.format(service)
            if self.box.exists(path):
                rows = DOCUMENT["nas"]["fileServices"][service]["daemonConfig"][further]
                keys += "".join("|" + row["directive"] for row in rows)
                lines = "".join(f"  {key} = .*\n" for key in share)
                written = self.box.read(path)
                good = re.fullmatch(rf"\[[Gg]lobal\]\n(  ({keys}) = .*\n)+\n(\n?\[[^]\n]+\]\n{lines})*\n", written)
                bad = re.search(r"[\x00-\x09\x0b-\x1f\x7f]|\n\[ *g *l *o *b *a *l *s? *\]", written, re.I)
                self.expect(good and not bad, f"{path}: {written}")
        if self.box.exists(SHARES_FILE.format("samba")):
            done = self.box.run(["testparm", "-s", SHARES_FILE.format("samba")], check=False)
            self.counts["runs of testparm"] += 1
            self.expect(done.returncode == 0 and "nknown param" not in done.stderr, f"testparm: {done.stderr}")

    def batch(self):
        """Many messages in flight, then one that must be answered."""
        refused = rng.random() < 0.3
        acts = [self.signal] * 6 + [self.peer, self.script, self.disk] + [functools.partial(self.call, False)] * 4 + \
            [functools.partial(self.call, not refused)] * 18
        before = self.box.read(CONFIG)
        self.client = self.box.connect()
        for _ in range(rng.randint(5, 50)):
            pick(acts)()
        began, last, answered = time.monotonic(), 1 << 20, 0
        address = jeepney.DBusAddress("/com/kelvanto/nimbrel", "com.kelvanto.nimbrel", "com.kelvanto.nimbrel.datamodel")
        self.client.send(jeepney.new_method_call(address, "GetValue", "s", ("Device.DeviceInfo.SoftwareVersion",)), last)
        try:
            while answered != last:
                reply = self.client.receive(timeout=max(0, began + PATIENCE - time.monotonic()))
                answered = reply.header.fields.get(HeaderFields.reply_serial)
                self.counts[reply.header.message_type.name] += answered is not None
            self.expect(reply.body == ("08.05.09",), f"wrong answer: {reply.body}")
        except TimeoutError:
            self.expect(False, f"no answer within {PATIENCE} s")
        self.slowest = max(self.slowest, time.monotonic() - began)
        self.client.close()
        time.sleep(pick([0] * 15 + [4]))  # the file services act once it is quiet
        self.note("heartbeats", refused)
        self.counts["batches of refused calls"] += refused
        self.expect(not refused or self.box.read(CONFIG) == before, "calls that are all refused changed the document")
        self.check()
        for view in self.box.peers.values():
            view.forget()

    def end(self):
        """In good order, so that leaks are looked for."""
        for view in self.box.peers.values():
            view.clear()
            view.join()
        self.box.run(["sh", "-c", "rm -f /run/box/reply/*"])
        self.box.end_daemon(orderly=True)
        self.expect(self.box.exits() == [(0, 0)], f"the end: {self.box.exits()}")
        self.expect(not self.box.faults(), self.box.faults())

    def start_again(self):
        """On what callers stored, with all kinds of labels to share."""
        self.box.run(["rm", "-f", "/run/box/exits", *map(SHARES_FILE.format, SHARES)])
        self.box.enable_services(*SHARES)
        self.box.disks.clear()
        # Numbers that callers may store among these keep it from starting.
        self.box.start_daemon(syslog=DOCUMENT["syslog"], centralStorage={"enabled": True})
        self.box.wait_log("Update file services on startup", count=2)
        self.box.plug("sda", partitions=[{"label": label} for label in rng.sample(PIECES, 25)])
        for service in SHARES:
            wait_until(lambda: self.box.exists(SHARES_FILE.format(service)), "shares of " + service)
        self.check()
        self.batch()

    def run(self, seconds):
        self.box.start_daemon()
        pid, deadline, stop = self.box.daemon_pid(), time.monotonic() + seconds, threading.Event()
        opened = len(os.listdir(f"/proc/{pid}/fd"))
        watcher = threading.Thread(target=self.watch, args=[stop])
        watcher.start()
        try:
            while time.monotonic() < deadline and not self.findings:
                self.batch()
        finally:
            stop.set()
            watcher.join()
        self.expect(self.box.daemon_pid() == pid, "another process")
        self.expect(self.findings or len(os.listdir(f"/proc/{pid}/fd")) <= opened, "descriptors are left open")
        for stage in (self.end, self.start_again, self.end):
            if not self.findings:
                stage()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("seconds", nargs="?", type=int, default=60)
    parser.add_argument("--seed", type=int, default=random.randrange(10**6))
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "asan"))
    options = parser.parse_args()
    began, seed, counts, slowest, findings = time.monotonic(), options.seed, collections.Counter(), 0, []
    while not findings and time.monotonic() - began < options.seconds:
        rng.seed(seed)
        round = Round(options.build)
        try:
            round.run(min(ROUND, options.seconds - (time.monotonic() - began)))
        except (BoxError, BusError, NoReply, OSError) as error:
            round.expect(False, f"{type(error).__name__}: {error}\n{round.box.log()[-3000:]}")
        finally:
            round.box.close()
        counts, slowest, findings, seed = counts + round.counts, max(slowest, round.slowest), round.findings, seed + 1
    counts["silences"] = counts["right calls"] + counts["wrong calls"] + counts["heartbeats"] - \
        counts["method_return"] - counts["error"]
    print(f"seeds {options.seed} to {seed - 1}, {time.monotonic() - began:.0f} s, slowest heartbeat {slowest:.1f} s:",
          ", ".join(f"{number} {kind}" for kind, number in sorted(counts.items())))
    for finding in findings:
        print("FOUND", str(finding)[:5000])
    if findings:
        print(f"the last of --seed {seed - 1}:", *round.history, sep="\n  ")
    sys.exit(bool(findings))


if __name__ == "__main__":
    main()
