"""./dev soak [MINUTES] [--seed N]: a compressed day of a household's life with the daemon, and what
goes wrong around it. Fails when a setting is lost, something grows, or the daemon does not get over
a fault."""
import argparse
import contextlib
import json
import os
import random
import re
import signal
import sys
import threading
import time

from box import Box, BoxError, BusError, NoReply, ROOT, u, wait_until

DEVICE = "Device.X_KELVANTO-COM_DeviceManagement."
SERVICES = ("/ws/nas/fileservices", "com.kelvanto.nimbrel.nas.fileservices")
CENTRAL = ("/ws/centralstorage", "com.kelvanto.nimbrel.centralstorage")
# Values that are read back: their place in the document.
TEXTS = {"Device.DeviceInfo.ProvisioningCode": ("cpeDevice", "deviceInfo", "provisioningCode"),
         DEVICE + "MinimumFWVersion": ("upgradeConfig", "minimumFirmwareVersion"),
         DEVICE + "SSH.AuthorizedKey": ("ssh", "authorizedKey")}
PEERS = {"ddm": ["DeviceList", "PartitionList", "IsDiskSleepEnabled"], "lcd": ["addEvent", "removeEvent"],
         "agent": ["set"], "dlna": ["DmsStreamingState"], "hardware": ["HardwareInfoRequest"]}
SCRIPTS = {name: "/usr/bin/scripts/" + path + name for path, name in [
    ("", "firewallctl"), ("", "remove_afp_cnid_dir.sh"), ("ssh/", "set_auth_key.sh"),
    ("firewall/", "set_port_forwarding.sh"), ("firewall/", "delete_port_forwarding.sh"),
    ("vpn/", "updateConfig.sh"), ("vpn/", "getPortForwardingStatus.sh"), ("vpn/", "getConnectedDevices.sh")]}
COMMANDS = {**SCRIPTS, "s6-rc": "/usr/bin/s6-rc", "dmesg": "/usr/bin/dmesg"}
FAKETIME = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1"


class Soak:
    def __init__(self, box, seed):
        self.box, self.random = box, random.Random(seed)
        self.operations, self.faults, self.kills, self.findings = 0, {}, 0, []
        self.kept = {}  # key: the value that was answered with true, or None when the last answer was no
        self.members = self.shape(box.config())

    def shape(self, item):
        if isinstance(item, dict):
            return {name: self.shape(member) for name, member in item.items()}
        return [None] * len(item) if isinstance(item, list) else None

    def find(self, text):
        self.findings.append(text)
        print("FOUND:", text, flush=True)

    # Life ---------------------------------------------------------------------------------------

    def set_text(self):
        key = self.random.choice(list(TEXTS))
        value = f"value {self.random.random()} " + "x" * self.random.randrange(2000)
        self.kept[key] = None
        if self.box.data_model("SetValue", key, value) == (True,):
            self.kept[key] = value

    def plug(self):
        name = self.random.choice("abcd")
        if name in self.box.disks:
            self.box.unplug(name)
        else:
            self.box.plug(name, self.random.choice(["USB", "SD"]), [
                {"label": self.random.choice(["Films", "films", "", "global", "a]b", "50% off"]),
                 "mount_point": f"/mnt/{name}{number}"} for number in range(self.random.randrange(4))])

    def act(self):
        box, choice, flag = self.box, self.random.choice, self.random.random() < 0.5
        acts = [
            self.set_text, self.set_text, self.plug, self.plug,
            lambda: box.call(*SERVICES, "setState", json.dumps(
                {"service": choice(["Samba", "AFP", "Avahi"]), "enabled": flag})),
            lambda: box.call(*CENTRAL, "SetState", flag),
            lambda: box.call(*SERVICES, "updateCredentialsForUserShares", flag, "alice", "passw0rd"),
            lambda: box.call("/ws/dlna", "com.kelvanto.nimbrel.dlna", "setMediaStreamingState", flag),
            lambda: box.data_model("SetValue", DEVICE + "SSH.Enable", flag),
            lambda: box.data_model("SetValue", DEVICE + "SSH.ActivationDuration", u(choice([0, 1, 60]))),
            lambda: box.data_model("SetValue", DEVICE + "VPN.GlobalEnable", flag),
            lambda: box.call("/ws/vpn", "com.kelvanto.nimbrel.vpn", "updateConfig", flag, "bob", "passw0rd",
                             "presharedk3y"),
            lambda: box.call("/ws/vpn", "com.kelvanto.nimbrel.vpn", "getConfig"),
            lambda: box.data_model("SetValue", DEVICE + "Syslog.Persistent", flag),
            lambda: box.data_model("SetValue", DEVICE + "SerialConsole.LoginEnabled", flag),
            lambda: box.call("/debug/segfault", "com.kelvanto.nimbrel.debug.segfault", "AddDump", "smbd"),
            lambda: box.call("/backup", "com.kelvanto.nimbrel.backup", "store", "/tmp/backup"),
            lambda: box.call("/ws/nas/devices", "com.kelvanto.nimbrel.nas.devices", "list"),
            lambda: box.data_model("GetObject", "Device.StorageService.1.PhysicalMedium.1"),
            lambda: box.signal("com.kelvanto.network", "StateChanged", "up"),
        ] + [lambda: box.data_model("GetValue", "Device.DeviceInfo.SoftwareVersion")] * 20
        with contextlib.suppress(BusError, NoReply):
            choice(acts)()
        self.operations += 1

    def live(self, count):
        for _ in range(count):
            self.act()

    # What must hold -----------------------------------------------------------------------------

    def check_document(self):
        try:
            document = self.box.config()
        except ValueError as error:
            self.find(f"the document is broken: {error}")
            return
        if self.shape(document) != self.members:
            self.find("members were lost or added")
        for key, value in self.kept.items():
            item = document
            for name in TEXTS[key]:
                item = item[name]
            if value is not None and item != value:
                self.find(f"lost: {key}")

    def check_service(self):
        """The daemon answers, saves, and brings up what is wanted when it is asked for the next time."""
        box = self.box
        wait_until(box.serving, "the daemon serves", 60)
        for key in TEXTS:
            self.kept[key] = f"checked {self.random.random()}"
            if box.data_model("SetValue", key, self.kept[key], timeout=60) != (True,):
                self.find(f"{key} cannot be set")
        for name in "Samba", "AFP", "Avahi":
            box.call(*SERVICES, "setState", json.dumps({"service": name, "enabled": True}), timeout=60)
        if "z" not in box.disks:
            box.plug("z", partitions=[{"mount_point": "/mnt/z1"}])
        box.call(*CENTRAL, "SetState", False, timeout=60)
        box.call(*CENTRAL, "SetState", True, timeout=60)
        for service in "nmbd", "smbd", "netatalk", "avahi":
            try:
                wait_until(lambda: box.is_up(service), service, 90)
            except BoxError:
                self.find(f"{service} stays down")
        self.check_document()

    def measure(self):
        pid = self.box.daemon_pid()
        with open(f"/proc/{pid}/status") as status:
            memory = int(re.search(r"VmRSS:\s+(\d+)", status.read())[1])
        bus = {"name": "org.freedesktop.DBus", "timeout": 60}
        (owner,) = self.box.call("/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner", "com.kelvanto.nimbrel", **bus)
        (stats,) = self.box.call("/org/freedesktop/DBus", "org.freedesktop.DBus.Debug.Stats", "GetConnectionStats", owner, **bus)
        children = self.box.run(["ps", "-o", "pid=", "--ppid", self.box.run(
            ["s6-svstat", "-o", "pid", "/run/service/nimbrelc"]).stdout.strip()], check=False).stdout.split()
        files = self.box.run(["find", "/tmp/nimbrel", "/media", "-name", "*.tmp"]).stdout.split()
        return {"resident memory, KB": memory, "descriptors": len(os.listdir(f"/proc/{pid}/fd")),
                "match rules": stats["MatchRules"][1] if isinstance(stats["MatchRules"], tuple) else stats["MatchRules"], "children": len(children), "temporary files": len(files)}

    def wakeups(self, seconds=10):
        def switches():
            with open(f"/proc/{self.box.daemon_pid()}/status") as status:
                return int(re.search(r"\nvoluntary_ctxt_switches:\s+(\d+)", status.read())[1])
        before = switches()
        time.sleep(seconds)
        return switches() - before

    # Faults: entered, lived with, undone ----------------------------------------------------------

    @contextlib.contextmanager
    def peer_fault(self, kind):
        name = self.random.choice(list(PEERS))
        peer = self.box.peer(name)
        change = {"absent": lambda member: None, "late": peer.hold, "hung": peer.mute, "failing": peer.fail,
                  "wrong": lambda member: peer.answer(member, *self.random.choice([[], [u(3)], ["{'"], ["", ""]]))}
        if kind == "absent":
            peer.leave()
        for member in PEERS[name]:
            change[kind](member)
        yield
        if kind == "absent":
            peer.join()
        if kind == "late":
            for member in PEERS[name]:
                peer.release(member)
        peer.clear()

    @contextlib.contextmanager
    def command_fault(self, kind):
        name = self.random.choice(list(COMMANDS))
        path = self.box.path(COMMANDS[name])
        if kind == "missing":
            os.rename(path, path + ".gone")
        else:
            self.box.script(name, **{"failing": {"code": 3}, "killed": {"kill": signal.SIGKILL},
                                     "hanging": {"sleep": 3}, "chatty": {"out": "x" * 1000000},
                                     "leaving": {"leave": True}}[kind])
        yield
        if kind == "missing":
            os.rename(path + ".gone", path)
        else:
            os.remove(self.box.path(f"/run/box/reply/{name}.json"))

    @contextlib.contextmanager
    def medium_fault(self, kind):
        enter, leave = {
            "full": ("mount -o remount,size=1m /media; cat /dev/zero >/media/full; true",
                     "rm -f /media/full; mount -o remount,size=64m /media"),
            "read-only": ("mount -o remount,ro /media", "mount -o remount,rw /media"),
            "vanished": ("mount -t tmpfs -o mode=755 none /media", "umount -l /media"),
        }[kind]
        self.box.run(["sh", "-c", enter], check=False)
        yield
        self.box.run(["sh", "-c", leave])

    def suffer(self, family, kind, count):
        with getattr(self, family + "_fault")(kind):
            self.live(count)
        what = f"{family} {kind}"
        self.faults[what] = self.faults.get(what, 0) + 1
        self.check_service()

    # Ends of the daemon -------------------------------------------------------------------------

    def kill_during_save(self):
        """A signal that nobody can catch, at some moment of a save."""
        key, value = "Device.DeviceInfo.ProvisioningCode", f"killed {self.kills} " + "k" * 3000
        before = self.kept.get(key)
        pid = self.box.daemon_pid()
        killer = threading.Timer(self.random.random() * 0.01, os.kill, (pid, signal.SIGKILL))
        killer.start()
        answered = False
        with contextlib.suppress(BusError, NoReply):
            answered = self.box.data_model("SetValue", key, value, timeout=10) == (True,)
        killer.join()
        self.kills += 1
        saved = self.box.config()["cpeDevice"]["deviceInfo"]["provisioningCode"]
        if saved != value and (answered or saved != before):
            self.find("a kill lost " + ("an answered value" if answered else "the value before"))
        self.kept[key] = saved
        self.check_document()
        wait_until(lambda: self.box.daemon_pid() not in (None, pid) and self.box.serving(), "a new daemon", 60)

    def restart_bus(self):
        ends = len(self.box.exits())
        self.box.leave_bus()
        self.box.run(["s6-svc", "-r", "/run/service/dbus"])
        wait_until(lambda: len(self.box.exits()) > ends, "the daemon ends with the bus")
        self.box.join_bus()
        self.check_service()

    def set_clock(self):
        """The wall clock goes ten days ahead, and back, during an activation of SSH."""
        box = self.box
        box.stop_daemon()
        box.write("/run/box/clock", "+0d", 0o644)
        box.environment = {"LD_PRELOAD": FAKETIME, "FAKETIME_TIMESTAMP_FILE": "/run/box/clock",
                           "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
        box.start_daemon()
        for offset in "+10d", "-10d":
            box.data_model("SetValue", DEVICE + "SSH.ActivationDuration", u(1))
            box.data_model("SetValue", DEVICE + "SSH.Enable", True)
            box.write("/run/box/clock", offset, 0o644)
            wait_until(lambda: box.config()["ssh"]["enable"] is False, "the activation ends in time", 75)
            self.check_service()
        box.stop_daemon()
        box.environment = {}
        box.start_daemon()


def main():
    parser = argparse.ArgumentParser(prog="./dev soak")
    parser.add_argument("minutes", nargs="?", type=float, default=10)
    parser.add_argument("--seed", type=int, default=random.randrange(1000000))
    options = parser.parse_args()
    print(f"{options.minutes:g} minutes, seed {options.seed}", flush=True)
    begin = time.monotonic()

    def left(share):
        return time.monotonic() - begin < options.minutes * 60 * share

    kinds = [("peer", kind) for kind in ("absent", "late", "wrong", "failing", "hung")]
    kinds += [("command", kind) for kind in ("missing", "failing", "killed", "hanging", "chatty", "leaving")]
    kinds += [("medium", kind) for kind in ("full", "read-only", "vanished")]
    with Box(os.path.join(ROOT, "build", "release")) as box:
        soak = Soak(box, options.seed)
        box.start_daemon()
        soak.check_service()
        soak.live(200)
        soak.check_service()
        first, done = soak.measure(), soak.operations
        while left(0.6):
            soak.random.shuffle(kinds)
            for family, kind in kinds:
                if left(0.65):
                    print(f"{time.monotonic() - begin:5.0f} s  {family} {kind}", flush=True)
                    soak.suffer(family, kind, 30)
        time.sleep(20)  # verifications and retries run down
        last, done = soak.measure(), soak.operations - done
        idle = soak.wakeups()
        print(f"{time.monotonic() - begin:5.0f} s  kills", flush=True)
        while left(0.85):
            soak.kill_during_save()
        for name in "restart_bus", "set_clock":
            print(f"{time.monotonic() - begin:5.0f} s  {name}", flush=True)
            getattr(soak, name)()
        box.stop_daemon()
        for fault in box.faults():
            soak.find(fault)

    print(f"\n{'':24}{'before':>8}{'after':>8}   for {done} operations")
    for name, value in first.items():
        print(f"{name:24}{value:8}{last[name]:8}")
        limit = value + (256 if "memory" in name else 0)
        if last[name] > limit:
            soak.find(f"{name}: {value} grew to {last[name]}")
    print(f"{'wake-ups, idle 10 s':24}{'':8}{idle:8}")
    if idle > 5:
        soak.find(f"{idle} wake-ups in ten idle seconds")
    print("faults: " + ", ".join(f"{count} {name}" for name, count in sorted(soak.faults.items())))
    print(f"{soak.operations} operations, {sum(soak.faults.values())} faults, {soak.kills} kills during saves, "
          f"{len(soak.findings)} findings")
    return 1 if soak.findings else 0


if __name__ == "__main__":
    sys.exit(main())
