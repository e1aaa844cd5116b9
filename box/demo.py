"""./dev demo: the daemon's main job in a box, as a timeline. Each step is really observed; the first
one that is not ends the demo with exit code 1."""
import json
import sys
import time

from box import CONFIG, Box, BoxError, BusError, NoReply, field_document, wait_until

DISK = "sda"
LABEL = "Photos"
FILES = {"holiday.txt": "Sand, sea and sun.\n"}
USER, PASSWORD = "alice", "summer-2026"


class NotSeen(Exception):
    """A step did not come about."""


class Timeline:
    def __init__(self, out=sys.stdout):
        self.start, self.out = time.monotonic(), out

    def now(self):
        return time.monotonic() - self.start

    def event(self, text):
        """Something that the demo does."""
        print(f"\n{self.now():5.1f} s  {text}", file=self.out, flush=True)

    def seen(self, condition, text):
        """Something that came of it: the condition says whether it was really observed."""
        if not condition:
            raise NotSeen(text)
        print(f"{self.now():5.1f} s    - {text}", file=self.out, flush=True)


def smbclient(box, share, *login):
    """What a client on the network gets when it reads the file from the share."""
    command = f"get {next(iter(FILES))} -"
    return box.run(["smbclient", *login, f"//127.0.0.1/{share}", "-c", command], check=False)


def wait_read(box, *login):
    """The file's text, once the share can be read with that login (the servers need a moment)."""
    def attempt():
        result = smbclient(box, LABEL, *login)
        return result.stdout if result.returncode == 0 else None
    return wait_until(attempt, "the share is readable")


def may_enter(box, user, password):
    """What the daemon tells the PAM module."""
    return box.ask("AuthRequest", user, password) == 1


def start(box, line):
    line.event("A gateway in software: system bus, s6, sudo, disk daemon, front display, media server.")
    line.event("s6 starts the daemon.")
    box.start_daemon()
    status = open(f"/proc/{box.daemon_pid()}/status").read()
    line.seen("\nUid:\t7001\t7001\t7001\t" in status, "it runs as the unprivileged user nimbrelc")
    names = ["com.kelvanto." + name for name in ("nimbrel", "pamauth", "nssauth", "firmware")]
    for name in names:
        box.ask("getApplicationStatus", name=name)
    line.seen(True, "it owns and serves " + ", ".join(names))
    line.seen(not box.is_up("smbd"), "no disk, no share: smbd is down")


def plug(box, line):
    line.event(f"A USB disk is plugged in: partition 1 is mounted as {LABEL!r}, partition 2 is not mountable.")
    box.plug(DISK, partitions=[{"label": LABEL, "type": "ntfs", "files": FILES}, {"mount_point": None, "type": "hfs"}])
    plugged = line.now()
    event = box.peer("lcd").wait_calls("addEvent")[0]
    texts = {text["Language"]: text["Description"] for text in json.loads(event[1])}
    line.seen(texts.get("en") == "USB device attached",
              "the front display says: " + ", ".join(f"{text} ({code})" for code, text in texts.items()))
    box.wait_up("smbd")
    waited = line.now() - plugged
    line.seen(2.9 <= waited, f"{waited:.1f} s later (3 s for the dust to settle) s6 runs smbd and nmbd on "
              "the generated configuration")
    line.seen(box.is_up("nmbd") and f"[{LABEL}]" in box.read("/tmp/nimbrel/configs/samba.config"),
              f"which holds the share [{LABEL}] and nothing of partition 2")
    text = wait_read(box, "-N")
    line.seen(text == FILES["holiday.txt"], f"a guest reads holiday.txt with smbclient: {text.strip()!r}")


def web(box, line):
    line.event("The web front end asks what is plugged in.")
    entries = json.loads(box.ask("devices.list"))["data"]
    for entry in entries:
        line.seen(True, json.dumps(entry))
    line.seen([entry["supported"] for entry in entries] == [True, False], "one of the two is supported")


def agent(box, line):
    line.event("The management agent reads the data model.")
    for key in ("Device.DeviceInfo.SoftwareVersion", "Device.LAN.IPAddress",
                "Device.StorageService.1.LogicalVolumeNumberOfEntries"):
        value = box.get(key)
        line.seen(value is not None, f"{key} = {value}")
    volume = box.object("Device.StorageService.1.LogicalVolume.1")
    line.seen(json.loads(volume)["Name"] == LABEL, f"Device.StorageService.1.LogicalVolume.1 = {volume}")


def protect(box, line):
    line.event(f"Share protection is switched on over the bus, for user {USER}.")
    box.ask("updateCredentialsForUserShares", True, USER, PASSWORD)
    stored = box.config()["storage"]
    line.seen(stored["enabled"] and PASSWORD not in json.dumps(stored), "the password is stored encrypted")
    line.seen(may_enter(box, USER, PASSWORD) and not may_enter(box, USER, "wrong"),
              "PAM may let the user in, and nobody with another password")
    box.wait_up("smbd", up=False)
    line.seen(True, "Samba goes down to learn of it")
    box.wait_up("smbd")
    text = wait_read(box, "-U", f"{USER}%{PASSWORD}")
    line.seen(text == FILES["holiday.txt"], f"and is back: {USER} reads holiday.txt with the password")
    line.seen(smbclient(box, LABEL, "-N").returncode != 0, "the guest is refused")
    line.seen(smbclient(box, LABEL, "-U", f"{USER}%wrong").returncode != 0, "so is a wrong password")


def pull(box, line):
    line.event("The disk is pulled out.")
    box.unplug(DISK)
    box.wait_up("smbd", up=False)
    box.wait_up("nmbd", up=False)
    line.seen(True, "smbd and nmbd are down")
    line.seen(smbclient(box, LABEL, "-U", f"{USER}%{PASSWORD}").returncode != 0, "the share is gone")


def forwarding(box):
    """What the scripts that forward and unforward a port were told, in order."""
    return [" ".join(command).replace("_port_forwarding.sh", "")
            for command in box.commands("set_port_forwarding.sh", "delete_port_forwarding.sh")]


def ssh(box, line):
    line.event("The agent opens SSH for a support engineer: her key, then the switch.")
    box.run(["dropbearkey", "-t", "ed25519", "-f", "/tmp/key"])
    key = next(text for text in box.run(["dropbearkey", "-y", "-f", "/tmp/key"]).stdout.splitlines()
               if text.startswith("ssh-"))
    for parameter, value in (("SSH.AuthorizedKey", key), ("SSH.Enable", True)):
        line.seen(box.set(parameter, value), f"{parameter} = {value}")
    wait_until(lambda: forwarding(box)[-1].startswith("set"), "a port is forwarded")
    line.seen(True, "a port is forwarded: " + forwarding(box)[-1])
    box.wait_up("dropbear")
    login = box.run(["dbclient", "-y", "-i", "/tmp/key", "root@192.168.1.1", "hostname"], check=False)
    line.seen(login.stdout == "box\n", "she logs in, dropbear is real: the host says 'box'")


def ssh_ends(box, line):
    line.event("The box is switched off; an hour and a half later it comes back.")
    box.stop_daemon()
    late = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.localtime(time.time() - 5400))
    box.start_daemon(ssh={"activationDate": late, "activationDuration": 60})
    wait_until(lambda: not box.config()["ssh"]["enable"], "the activation ends")
    line.seen(box.config()["ssh"]["activationDate"] is None, "her hour is over: SSH is disabled")
    line.seen(forwarding(box)[-1] == "delete internal 100", "the forwarding is gone")


def backup(box, line):
    line.event("The settings are backed up.")
    box.ask("store", "/media/backup")
    stored = box.run(["od", "-An", "-tx1", "-N16", "/media/backup"]).stdout.strip()
    line.seen(stored, f"the backup is encrypted: {stored} ...")
    with Box(box.build) as other, open(box.path("/media/backup"), "rb") as file:
        other.start_daemon(dlna={"mediaStreamingEnabled": False})
        other.write("/media/backup", file.read())
        line.event(f"It is restored on another box, which does not know {USER} and does not stream.")
        line.seen(not may_enter(other, USER, PASSWORD), f"{USER} is not let in")
        line.seen(other.ask("restore", "/media/backup"), "the daemon took it and will start anew")
        wait_until(other.exits, "the daemon ends")
        line.seen(other.exits() == [(0, 0)], "3 s later it ended by itself, with exit code 0")
        wait_until(other.serving, "the daemon serves again")
        state = json.loads(other.ask("getMediaStreamingState"))
        line.seen(state["data"]["mediaStreamingEnabled"], "s6 started it again: streaming is on")
        line.seen(may_enter(other, USER, PASSWORD), f"and {USER} is let in")


def migrate(box, line):
    line.event("A box with firmware 08.04.99 gets this one: one run of the daemon with -m.")
    box.stop_daemon()
    box.write(CONFIG, field_document("08.04.99"))
    line.seen(box.migrate().returncode == 0, "exit code 0")
    config = box.config()
    version = config["cpeDevice"]["deviceInfo"]["softwareVersion"]
    line.seen(version == "08.05.09", f"the configuration is one of {version} now")
    line.seen(config["nas"]["fileServices"]["samba"]["daemonConfig"]["serverName"] == "Attic",
              "the shares' settings are as they were")
    box.start_daemon()
    line.seen(may_enter(box, "family", "photos2024"), "the daemon serves with it, and the share's old password works")


STEPS = [start, plug, web, agent, protect, ssh, pull, ssh_ends, backup, migrate]


def main():
    line = Timeline()
    with Box() as box:
        try:
            for step in STEPS:
                step(box, line)
            if box.faults():
                raise NotSeen("a daemon without faults: " + "\n".join(box.faults()))
        except (NotSeen, BoxError, BusError, NoReply) as error:
            print(f"{line.now():5.1f} s    NOT SEEN: {error}\n\nThe box's log:\n{box.log()}", file=sys.stderr)
            return 1
    print(f"\n{line.now():5.1f} s  Every step was seen. The box is gone, the host is as it was.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
