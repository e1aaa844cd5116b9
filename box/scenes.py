"""./dev machine: what a box goes through, in a machine with a real kernel, as timelines. Each step is really observed,
from outside; the first one that is not ends its scene, and the program with exit code 1."""
import argparse
import concurrent.futures
import contextlib
import glob
import io
import json
import os
import random
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

from jeepney.io.common import RouterClosed

import elsewhere
import sticks
from box import BoxError, CONFIG, NoReply, ROOT, document_faults, u
from demo import FILES, PASSWORD, Timeline, USER
from machine import Machine, MEDIUM_MB, has_kvm, new_medium, outside_services, wait_for

FILE, TEXT = next(iter(FILES.items()))
MADE = os.path.join(ROOT, "build", "machine")
CUTS = 20
BIG = 80 << 20  # of a file: more than clients and servers read ahead
SMALLEST = {"amd64": 160, "armhf": 96}  # memory in MB with which shares are of use, near the smallest
OLD, NEW = "08.05.09", "08.05.10"  # of the two firmwares; the new one's daemon flushes what it writes


class Scene(Timeline):
    """A timeline that is held back until it is whole, since scenes run side by side; a place for files, machines.
    In the directory `kept` is what each firmware's first machine fell asleep with."""

    def __init__(self, title, firmwares, kept, place):
        super().__init__(io.StringIO())
        self.firmwares, self.kept, self.place, self.machine = firmwares, kept, place, None
        self.event(title)

    def file(self, name):
        return os.path.join(self.place, name)

    def boot(self, firmware=OLD, join=True, stick=False, **options):
        """A machine with the scene's medium, and its stick in it or not, which serves."""
        if not os.path.exists(self.file("medium")):
            new_medium(self.file("medium"))
        self.machine = Machine(self.firmwares[firmware], self.file("medium"), stick and self.file("stick"), **options)
        return self.machine.join() if join else self.machine

    def sleep(self, path):
        """Its memory goes to `path`, medium and stick beside it; any number of machines can go on from there."""
        self.machine.fall_asleep(path)
        for name in ("medium", "stick"):
            if os.path.exists(self.file(name)):
                shutil.copy(self.file(name), f"{path}.{name}")
        self.machine.close()

    def wake(self, path, firmware):
        for kept in glob.glob(path + ".*"):
            shutil.copy(kept, self.file(kept[len(path) + 1:]))
        return self.boot(firmware, stick=os.path.exists(path + ".stick"), asleep=path)

    def serving(self, firmware=OLD):
        """A machine that booted a while ago."""
        return self.wake(os.path.join(self.kept, firmware), firmware)

    def plug(self, *partitions, name="stick"):
        image, self.before = self.file(name), len(self.machine.console())
        if partitions:
            sticks.make_stick(image, *partitions)
        self.machine.plug(image, name)
        return image


def smbclient(machine, label, command, login=("-N",)):
    return ["smbclient", "-p", str(machine.smb), *login, "//127.0.0.1/" + label, "-c", command]


def share(*of_smbclient):
    """What smbclient says that it did, None when it could not."""
    done = subprocess.run(smbclient(*of_smbclient), capture_output=True, text=True, timeout=120)
    return done.stdout if done.returncode == 0 else None


def wait_share(scene, label, login=("-N",)):
    """The file on the share, once it can be read."""
    return wait_for(lambda: share(scene.machine, label, f"get {FILE} -", login), f"{label} can be read")


def displayed(scene, text):
    wait_for(lambda: text in scene.machine.console()[scene.before:], f"the display says {text!r}")
    scene.seen(True, f"the display says: {text}")


def power_on(scene, firmware):
    machine = scene.boot(firmware)
    uptime = float(machine.sh("cat /proc/uptime").split()[0])
    pid = machine.sh("s6-svstat -o pid /run/service/nimbrelc").strip()
    began = int(machine.sh(f"cut -d' ' -f22 /proc/{pid}/stat")) / 100
    scene.seen(uptime, f"the daemon serves {uptime:.1f} s after the kernel began; {uptime - began:.1f} s are its own")
    rss = machine.sh(f"grep VmRSS /proc/{pid}/status").split()[1]
    scene.seen(True, f"{machine.sh('uname -srm').strip()}; the daemon's memory: {rss} KB")
    names = machine.sh("dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.ListNames")
    scene.seen(all(f'"com.kelvanto.{name}"' in names for name in ("nimbrel", "pamauth", "nssauth", "firmware", "ddm")),
               "its four names and the disk daemon's are on the bus")
    down = wait_for(lambda: machine.sh("s6-svstat -u /run/service/syslogd-log").strip() == "true", "the log service")
    scene.seen(down and "Services started" in machine.log(), "its log goes where the log service keeps it")
    scene.sleep(os.path.join(scene.kept, firmware))


def usb_sticks(scene):
    machine = scene.serving()
    for kind, label in (("fat", "HOLIDAY"), ("ext4", "Photos"), ("ntfs", "Фото")):
        scene.event(f"A stick is plugged in: {kind}, called {label}")
        image = scene.plug((kind, label, FILES))
        displayed(scene, "USB device attached")
        scene.seen(wait_share(scene, label) == TEXT, f"a guest on the network reads {FILE}")
        with open(scene.file("up.txt"), "w") as file:
            file.write("from outside\n")
        scene.seen(share(machine, label, f"put {scene.file('up.txt')} up.txt") is not None, "and writes a file")
        entry, = json.loads(machine.ask("devices.list"))["data"]
        scene.seen(entry["supported"] and entry["label"] == label and 0 < entry["freeSpace"] <= entry["capacity"],
                   "the web front end's list: " + json.dumps(entry, ensure_ascii=False))
        time.sleep(5)
        machine.pull()
        machine.wait_up("smbd", up=False)
        scene.seen(sticks.file_on(image, kind, "up.txt") == "from outside\n",
                   "pulled out: Samba is down, the file is on the stick")

    scene.event("It is plugged in again; the web front end renames and unmounts it")
    machine.plug(image)
    wait_share(scene, label)
    machine.ask("devices.rename", entry["id"], "Лето")
    scene.seen(wait_share(scene, "Лето") == TEXT, f"a guest reads {FILE} under the new name")
    machine.ask("devices.unmount", entry["id"])
    machine.wait_up("smbd", up=False)
    scene.seen(json.loads(machine.ask("devices.list"))["data"] == [], "Samba is down, the stick is not listed any more")
    machine.pull()

    scene.event("Two partitions, of which the second has no file system")
    scene.plug(("fat", "ONE", {**FILES, "big": " " * BIG}), (None, "", {}))
    wait_share(scene, "ONE")
    entries = json.loads(machine.ask("devices.list"))["data"]
    scene.seen(sorted(entry["supported"] for entry in entries) == [False, True],
               "one is shared, the other listed as not supported")
    scene.event("It is pulled out while a file is being read, and plugged in again")
    reader = subprocess.Popen(smbclient(machine, "ONE", "get big -"), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    begun = len(reader.stdout.read(65536))
    machine.pull()
    rest = len(reader.stdout.read())
    scene.seen(begun == 65536 and begun + rest < BIG and reader.wait(120),
               f"the reader got {(begun + rest) >> 20} of {BIG >> 20} MB and an error")
    machine.wait_up("smbd", up=False)
    scene.seen(machine.serving(), "the daemon serves")
    machine.plug(scene.file("stick"))
    scene.seen(wait_share(scene, "ONE") == TEXT, f"{FILE} is back")
    machine.pull()
    scene.event("A stick without anything on it, and a keyboard")
    scene.plug((None, "", {}))
    displayed(scene, "USB device not supported")
    machine.pull()
    machine.do("device_add", driver="usb-kbd", id="keyboard", bus="usb.0")
    wait_for(lambda: "QEMU" in machine.ask("devices.list"), "the keyboard is listed")
    scene.seen(True, "the keyboard is listed as not supported: " + machine.ask("devices.list"))


def protect_and_upgrade(scene):
    machine = scene.serving()
    scene.plug(("ext4", "Photos", FILES))
    wait_share(scene, "Photos")
    login = ("-U", f"{USER}%{PASSWORD}")

    def check():
        scene.seen(wait_share(scene, "Photos", login) == TEXT, f"{USER} reads {FILE} with the password")
        scene.seen(share(scene.machine, "Photos", "ls") is None, "the guest is refused")
        scene.seen(share(scene.machine, "Photos", "ls", ("-U", USER + "%wrong")) is None, "so is a wrong password")
    scene.event(f"Share protection is switched on, for user {USER}; a setting is made")
    machine.ask("updateCredentialsForUserShares", True, USER, PASSWORD)
    machine.wait_up("smbd", up=False)
    machine.apply("DeviceInfo.ProvisioningCode", "mine")
    check()
    for version in (NEW, OLD):
        scene.event(f"The box is switched off, and on again with firmware {version}, the stick in it")
        machine.off()
        machine = scene.boot(version, stick=True)
        scene.seen(document(machine)["cpeDevice"]["deviceInfo"]["softwareVersion"] == version
                   and machine.get("DeviceInfo.SoftwareVersion") == version, "the document is one of " + version)
        scene.seen(machine.get("DeviceInfo.ProvisioningCode") == "mine", "the setting is as it was")
        check()


def ssh_banner(machine):
    """What comes from the forwarded port outside."""
    with socket.create_connection(("127.0.0.1", machine.ssh), timeout=3) as line, contextlib.suppress(OSError):
        return line.recv(100)
    return b""


def log_in(scene):
    def attempt():
        with contextlib.suppress(subprocess.TimeoutExpired):
            return subprocess.run(["dbclient", "-y", "-i", scene.file("key"), "-p", str(scene.machine.ssh),
                                   "root@127.0.0.1", "hostname"], capture_output=True, text=True, timeout=10).stdout
    return wait_for(attempt, "she logs in") == "gateway\n"


def activate(scene, minutes):
    key = scene.file("key")
    if not os.path.exists(key):
        subprocess.run(["dropbearkey", "-t", "ed25519", "-f", key], check=True, capture_output=True)
    text = subprocess.run(["dropbearkey", "-y", "-f", key], check=True, capture_output=True, text=True).stdout
    machine = scene.machine
    scene.seen(machine.set("SSH.ActivationDuration", u(minutes)) and not ssh_banner(machine), "nothing answers outside")
    machine.apply("SSH.AuthorizedKey", re.search("^ssh-.*", text, re.M)[0])
    machine.apply("SSH.Enable", True)
    wait_for(lambda: ssh_banner(machine).startswith(b"SSH-2.0"), "the port outside answers")
    scene.seen(True, f"activated for {minutes} min: the port outside answers")
    scene.seen(log_in(scene), "with the key she logs in from outside: the host says 'gateway'")


def document(machine):
    return json.loads(machine.read(CONFIG))


def ended(scene):
    wait_for(lambda: not document(scene.machine)["ssh"]["enable"], "the activation ends")
    scene.seen(not ssh_banner(scene.machine), "nothing answers outside any more")


def ssh(scene):
    machine = scene.serving()
    scene.event("A support engineer comes from outside")
    activate(scene, 1)
    scene.event("Her minute is over")
    ended(scene)
    scene.event("She comes for an hour; the box is switched off, and on again two hours later")
    activate(scene, 60)
    machine.off()
    scene.boot(clock=time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(time.time() + 7200)))
    ended(scene)


def clock(scene):
    machine = scene.serving()
    activate(scene, 60)
    scene.event("The box has no battery for its clock: it is switched off, and on again in 1970")
    machine.off()
    machine = scene.boot(clock="1970-01-01T00:00:00")
    scene.seen(machine.sh("date +%Y").strip() == "1970", "it is 1970")
    left = re.search(r"Continuing ssh session for next (-?\d+) sec", machine.log())
    scene.seen(left and log_in(scene), f"the activation goes on, for the next {left[1]} s as the log says")
    machine.apply("SSH.Enable", False)
    ended(scene)
    scene.event("She comes again, still in 1970")
    activate(scene, 60)
    scene.seen(document(machine)["ssh"]["activationDate"].startswith("1970-"), "the activation began in 1970")
    scene.event("The time is set")
    machine.sh(f"date -s @{int(time.time())}")
    scene.seen(log_in(scene), "she is still let in: the hour runs by the monotonic clock")
    scene.event("The daemon starts anew, the clock being right")
    machine.sh("s6-svc -r /run/service/nimbrelc")
    ended(scene)


def full_medium(scene):
    machine = scene.serving()
    machine.apply("DeviceInfo.ProvisioningCode", "before")
    scene.event("/media is full, and the box starts")
    machine.sh("cat /dev/zero >/media/fill || true; sync")
    machine.off()
    machine = scene.boot()
    scene.seen(machine.get("DeviceInfo.ProvisioningCode") == "before", "the daemon serves the document of before")
    scene.seen(machine.set("DeviceInfo.ProvisioningCode", "x" * 9000) is False, "a setting is answered with false")
    machine.sh("rm /media/fill")
    scene.seen(machine.set("DeviceInfo.ProvisioningCode", "roomy") and "roomy" in machine.read(CONFIG),
               "there is room again: it is taken, and in the document")
    scene.event("It is full again, and the firmware is a new one, so that the start has to save")
    machine.sh("cat /dev/zero >/media/fill || true; sync")
    machine.off()
    machine = scene.boot(NEW, join=False)
    wait_for(lambda: machine.log().count("Error saving migrated config") > 1, "the migration is tried again")
    scene.seen(document(machine)["cpeDevice"]["deviceInfo"]["softwareVersion"] == OLD,
               "the migration says 'Error saving migrated config' and is tried again; the document is as it was")
    machine.sh("rm /media/fill")
    machine.join()
    scene.seen(machine.get("DeviceInfo.ProvisioningCode") == "roomy" and machine.get("DeviceInfo.SoftwareVersion") == NEW,
               "there is room: the daemon serves the migrated document")


def read_only_medium(scene):
    machine = scene.serving()
    machine.apply("DeviceInfo.ProvisioningCode", "before")
    machine.off()
    scene.event("/media can only be read at the start")
    machine = scene.boot(medium_options=",readonly=on")
    scene.seen(machine.get("DeviceInfo.ProvisioningCode") == "before", "the daemon serves the document of before")
    scene.seen(machine.set("DeviceInfo.ProvisioningCode", "after") is False, "a setting is answered with false")
    machine.close()
    scene.event("The document is damaged")
    machine = scene.serving()
    machine.sh(f"head -c 500 {CONFIG} >/media/half; cat /media/half >{CONFIG}")
    machine.off()
    machine = scene.boot()
    scene.seen(machine.get("DeviceInfo.ProvisioningCode") == "", "the daemon serves the default")
    scene.seen("Cannot read configuration file" in machine.log()
               and machine.sh("cmp /media/half /media/nimbrelc.json.refused") == "",
               "the damaged one is aside; the log says: Cannot read configuration file")


def small(scene):
    memory = SMALLEST[os.path.basename(os.path.dirname(scene.firmwares[OLD]))]
    machine = scene.boot(memory=memory)
    scene.plug(("ext4", "Photos", FILES))
    wait_share(scene, "Photos")
    with open(scene.file("up.txt"), "wb") as file:
        file.write(os.urandom(8 << 20))
    for _ in range(3):
        both = f"put {scene.file('up.txt')} up.txt; get up.txt {scene.file('down.txt')}"
        scene.seen(share(machine, "Photos", both) is not None, "8 MB written and read")
    pid = machine.sh("s6-svstat -o pid /run/service/nimbrelc").strip()
    killed = machine.sh("dmesg | grep -ci 'out of memory' || true").strip()
    pss = machine.sh(f"awk '/^Pss:/ {{print $2}}' /proc/{pid}/smaps_rollup").strip()
    scene.seen(killed == "0", f"{memory} MB in all: nothing was killed for memory; the daemon's share: {pss} KB; "
               + machine.sh("grep -E 'MemTotal|MemAvailable' /proc/meminfo | xargs"))


def cuts(scene, firmware, kind):
    """Settings are made and a stick is written to without pause, and the machine is killed. Then it boots with the last
    medium, and all of them, on one disk behind a free megabyte, to see what each holds."""
    asleep, medium, media = scene.file("asleep"), scene.file("medium"), scene.file("media")
    scene.serving(firmware)
    scene.plug((kind, "STICK", FILES))
    wait_share(scene, "STICK")
    with open(scene.file("up"), "wb") as file:
        file.truncate(24 << 20)
    scene.sleep(asleep)
    acknowledged, places = [], range(1, CUTS * MEDIUM_MB, MEDIUM_MB)
    for number, place in enumerate(places):
        machine = scene.wake(asleep, firmware)
        writer = subprocess.Popen(smbclient(machine, "STICK", f"put {scene.file('up')} up"),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        made = int(machine.set("DeviceInfo.ProvisioningCode", "1"))
        end = threading.Timer(random.uniform(0, 5), machine.cut)
        end.start()
        with contextlib.suppress(NoReply, OSError, RouterClosed, KeyError):  # whichever it is for a bus that is gone
            while machine.set("DeviceInfo.ProvisioningCode", str(made + 1), timeout=10):
                made += 1
        end.join()
        machine.close()
        writer.kill()
        writer.wait()
        acknowledged.append(made)
        if sticks.file_on(scene.file("stick"), kind, FILE) != TEXT:
            raise BoxError(f"a stick of cut {number} has lost {FILE}")
        subprocess.run(["dd", "if=" + medium, "of=" + media, "bs=1M", f"seek={place}", "conv=sparse,notrunc",
                        "status=none"], check=True)
    scene.seen(min(acknowledged), f"{CUTS} cuts in the middle of settings, {min(acknowledged)} to {max(acknowledged)} of them "
               "acknowledged, while a client writes to a stick")
    machine = scene.boot(firmware, stick=True, more=["-drive", "if=virtio,format=raw,file=" + media])
    scene.seen(wait_share(scene, "STICK") == TEXT, "one of them boots: the stick that was written to is shared")
    machine.sh("modprobe loop")
    texts = [machine.sh(f"mount -o loop,offset={place << 20},sizelimit={MEDIUM_MB << 20} /dev/vdc /mnt;"
                        "cat /mnt/nimbrelc.json; umount /mnt") for place in places]
    scene.seen(not any(map(document_faults, texts)), "no document is torn: each is read, and as its schema says")
    lost = [made - int(json.loads(text)["cpeDevice"]["deviceInfo"]["provisioningCode"] or 0)
            for text, made in zip(texts, acknowledged)]
    cuts_with_loss = sum(many > 0 for many in lost)
    scene.seen(firmware == OLD or not cuts_with_loss,
               f"acknowledged settings lost: after {cuts_with_loss} of {CUTS} cuts, at most {max(0, *lost)} of them")


POWER = {version: (f"Power on, firmware {version}", lambda scene, version=version: power_on(scene, version))
         for version in (OLD, NEW)}
# They are begun in this order: the longest first.
SCENES = {
    "cuts": ("Power cuts, without NIMBRELC_SYNC_WRITES", lambda scene: cuts(scene, OLD, "fat")),
    "cuts-sync": ("Power cuts, with it", lambda scene: cuts(scene, NEW, "ext4")),
    "sticks": ("Sticks", usb_sticks),
    "ssh": ("SSH from outside", ssh),
    "upgrade": ("Share protection, upgrade and downgrade of the firmware", protect_and_upgrade),
    "full": ("A full medium", full_medium),
    "small": ("Little memory", small),
    "damaged": ("A medium that is read-only or damaged", read_only_medium),
    "clock": ("A clock that starts in 1970", clock),
}


def play(title, steps, firmwares, kept):
    """One scene: its text, and whether all was seen."""
    with tempfile.TemporaryDirectory(prefix="scene") as place:
        scene = Scene(title, firmwares, kept, place)
        try:
            steps(scene)
            return True, scene.out.getvalue()
        except Exception as error:  # the other scenes go on
            print(f"{scene.now():5.1f} s    NOT SEEN: {error!r}", file=scene.out)
            with contextlib.suppress(Exception):
                print(scene.machine.console()[-2000:] + scene.machine.log()[-4000:], file=scene.out)
            return False, scene.out.getvalue()
        finally:
            with contextlib.suppress(Exception):
                scene.machine.close()


def current(made, sources, *files):
    """Whether a file is younger than all it is made of: the repository's files below `sources`, and `files`."""
    tracked = subprocess.run(["git", "-C", ROOT, "ls-files", "-z", *sources],
                             check=True, capture_output=True, text=True).stdout.split("\0")[:-1]
    return os.path.exists(made) and all(os.path.getmtime(os.path.join(ROOT, file)) < os.path.getmtime(made)
                                        for file in (*tracked, *files))


def package(arch, name, sync_writes):
    """The release package, built again when something of it has changed."""
    directory, deb = os.path.join(MADE, arch, "package"), os.path.join(MADE, arch, name + ".deb")
    if current(deb, ("src", "data", "packaging", "CMakeLists.txt")):
        return deb
    print(f"Building the package {name}, log in build/machine/{arch}/package", flush=True)
    command = (f"DEB_BUILD_PROFILES=pkg.nimbrelc.release NIMBRELC_OPTIONS=-DNIMBRELC_SYNC_WRITES={sync_writes} "
               f"{ROOT}/packaging/build {directory}")
    if arch == "amd64":
        subprocess.run(command, shell=True, check=True, stdout=subprocess.DEVNULL)
    else:  # by the cross compiler that the daemon is tried elsewhere with
        place = elsewhere.Place(arch)
        place.dir = os.path.join(MADE, arch, "tools")
        place.root = place.dir + "/root"
        place.system = place.system._replace(packages=[*place.system.packages, "build-essential", "debhelper", "fakeroot", "git",
                                                       f"libgcc-s1:{arch}"])
        place.make_root()
        place.inside("package", f"git config --global --add safe.directory {ROOT}; {command} {arch}")
    return shutil.copy(glob.glob(directory + "/nimbrelc-release_*.deb")[0], deb)


def firmwares(arch):
    """Their files, by version: the same but for the daemon, and the new one's flushes what it writes."""
    made, place = {}, os.path.join(MADE, arch)
    build = [ROOT + "/machine/build", place, arch]
    os.makedirs(place, exist_ok=True)
    print(f"Making the root, log in build/machine/{arch}", flush=True)
    with open(place + "/root.log", "w") as log, subprocess.Popen(build, stdout=log, stderr=subprocess.STDOUT) as root:
        debs = [(OLD, package(arch, "plain", "OFF")), (NEW, package(arch, "sync", "ON"))]
    if root.returncode:
        raise BoxError("the root was not made")
    for version, deb in debs:
        made[version] = f"{place}/{version}.squashfs"
        if current(made[version], ("machine", "README.md", "docs/own-box.md", "box/machine.py"), place + "/made", deb):
            continue
        with tempfile.TemporaryDirectory() as files, open(f"{place}/{version}.log", "w") as log:
            outside_services(files)
            print(f"Making the firmware {version}", flush=True)
            subprocess.run([*build, version, deb, version, files], check=True, stdout=log, stderr=subprocess.STDOUT)
    return made


HELP = """Lines are run in the box as root, save these:
  plug fat|ext4|ntfs|empty   plugs a stick in          display   what the display says
  pull                       pulls it out              cut       a power cut, and power on
  share LABEL                reads from its share      help, Ctrl-D"""


def shell(made):
    """Leaves a person in a machine."""
    with tempfile.TemporaryDirectory(prefix="scene") as place:
        scene = Scene("shell", made, place, place)
        print(HELP, "\nBooting", flush=True)
        scene.boot()
        while line := sys.stdin.readline():
            word, *rest = line.split() or [""]
            try:
                if word == "plug":
                    kind = None if rest[0] == "empty" else rest[0]
                    scene.plug((kind, "STICK", FILES if kind else {}))
                elif word == "pull":
                    scene.machine.pull()
                elif word == "cut":
                    scene.machine.close()
                    scene.boot()
                elif word == "share":
                    print(share(scene.machine, rest[0], f"ls; get {FILE} -"))
                elif word == "display":
                    print("\n".join(re.findall(r"\[display\] .*", scene.machine.console())))
                else:
                    print(HELP if word == "help" else scene.machine.sh(line, check=False), flush=True)
            except (BoxError, IndexError, KeyError, subprocess.SubprocessError) as error:
                print(error)
        scene.machine.close()


def main():
    threading.excepthook = lambda _: None  # a machine that is gone takes its bus with it
    parser = argparse.ArgumentParser(prog="./dev machine")
    parser.add_argument("scenes", nargs="*", metavar="SCENE", help="all of them, or some of: " + ", ".join(SCENES))
    parser.add_argument("--shell", action="store_true", help="leaves you in it")
    parser.add_argument("--arm", dest="arch", action="store_const", const="armhf", default="amd64", help="another processor")
    options = parser.parse_args()
    if unknown := set(options.scenes) - SCENES.keys():
        parser.error("no scene is called " + ", ".join(unknown))
    began = time.monotonic()
    made = firmwares(options.arch)
    if options.shell:
        return shell(made)
    good = True
    at_once = len(SCENES) if has_kvm(options.arch) else os.cpu_count() + 1  # with a processor's help they mostly wait
    with tempfile.TemporaryDirectory(prefix="kept") as kept, concurrent.futures.ThreadPoolExecutor(at_once) as pool:
        for scenes in POWER.values(), [SCENES[name] for name in options.scenes or SCENES]:
            for seen, text in pool.map(lambda scene: play(*scene, made, kept), scenes if good else []):
                print(text, end="", flush=True)
                good &= seen
    print(f"\n{time.monotonic() - began:.0f} s in all. " + ("Every step was seen." if good else "NOT every step was seen."))
    return not good


if __name__ == "__main__":
    sys.exit(main())
