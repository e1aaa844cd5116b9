"""A whole machine in QEMU: a firmware made by machine/build, a medium of its own, USB sticks, a network."""
import base64
import functools
import json
import os
import re
import shutil
import socket
import subprocess
import tempfile
import time

from jeepney import message_bus
from jeepney.auth import Authenticator, BEGIN
from jeepney.io.threading import DBusConnection, DBusRouter

from box import Box, BoxError, wait_until

# Rarely, since asking costs the machine more than what it waits for.
wait_for = functools.partial(wait_until, timeout=300, every=0.5)

ARCHES = {
    "amd64": (["qemu-system-x86_64", "-M", "q35", "-cpu", "qemu64,svm=off"], "console=ttyS0 nokaslr mitigations=off"),
    "armhf": (["qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15"], "console=ttyAMA0"),
}
# What this program needs of a machine besides what it shows: its bus and a shell, on ports of their own.
OUTSIDE = {"bus": "UNIX-CONNECT:/run/dbus/system_bus_socket", "shell": "EXEC:sh"}
MEDIUM_MB = 64
END = "end of the command"


def has_kvm(arch):
    """A processor that says so: the device node alone promises nothing."""
    with open("/proc/cpuinfo") as info:
        return arch == "amd64" and os.access("/dev/kvm", os.W_OK) and re.search(r"\b(vmx|svm)\b", info.read())


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def outside_services(directory):
    """The services behind those ports, laid out for a firmware."""
    for port, to in OUTSIDE.items():
        service = os.path.join(directory, "etc/s6/box/outside-" + port)
        os.makedirs(service)
        with open(service + "/run", "w") as run:
            run.write(f"#!/bin/sh\ns6-svwait -U /run/service/dbus\nexec socat OPEN:/dev/virtio-ports/{port} {to}\n")
        os.chmod(service + "/run", 0o755)
    with open(os.path.join(directory, "etc/s6/box/outside-bus/down"), "w"):
        pass  # `join` starts it


def new_medium(path):
    with open(path, "wb") as file:
        file.truncate(MEDIUM_MB << 20)
    subprocess.run(["mke2fs", "-q", "-t", "ext4", "-L", "media", path], check=True)
    return path


def heard(line):
    if not (words := line.recv(65536)):
        raise BoxError("the machine is gone")
    return words


class Machine(Box):
    """One running machine, from power on to `cut` or `off`. `firmware` is a file of machine/build's, `medium` one of
    new_medium's, `stick` an image, `more` words for QEMU; `asleep` is what another one fell asleep with."""

    def __init__(self, firmware, medium, stick=None, memory=256, clock="utc", medium_options="", more=(), asleep=None):
        self.peers, self.client, self.shell = {}, None, None
        self.began = time.monotonic()
        self.dir = tempfile.mkdtemp(prefix="machine")
        self.smb, self.ssh = free_port(), free_port()
        made = os.path.dirname(firmware)
        program, kernel_options = ARCHES[os.path.basename(made)]
        # Programs lie at fixed addresses: emulation then translates what they share once. Room for a second processor:
        # only with that does it keep the guest's memory barriers, without which an interrupt of a disk gets lost.
        command = [
            *program, "-accel", "kvm" if has_kvm(os.path.basename(made)) else "tcg", "-m", str(memory), "-smp", "1,maxcpus=2",
            "-nodefaults", "-display", "none", "-no-reboot", "-rtc", "base=" + clock, "-kernel", made + "/kernel", "-initrd",
            made + "/initramfs", "-append", kernel_options + " norandmaps net.ifnames=0 panic=-1 loglevel=4 random.trust_cpu=on",
            "-serial", f"file:{self.dir}/console", "-qmp", f"unix:{self.dir}/qmp,server=on,wait=off",
            "-drive", f"if=virtio,format=raw,readonly=on,file={firmware}",
            "-drive", f"if=virtio,format=raw,file={medium}{medium_options}",
            "-netdev", f"user,id=wan,hostfwd=tcp:127.0.0.1:{self.ssh}-:2222", "-device", "virtio-net-pci,netdev=wan",
            "-netdev", f"user,id=lan,net=192.168.1.0/24,hostfwd=tcp:127.0.0.1:{self.smb}-192.168.1.1:445",
            "-device", "virtio-net-pci,netdev=lan", "-device", "qemu-xhci,id=usb", "-device", "virtio-serial-pci"]
        if stick:
            command += ["-blockdev", f"driver=raw,node-name=stick,file.driver=file,file.filename={stick}",
                        "-device", "usb-storage,id=stick,drive=stick,bus=usb.0"]
        command += more
        if asleep:
            command += ["-incoming", "exec:cat " + asleep]
        for port in OUTSIDE:
            command += ["-chardev", f"socket,id={port},path={self.dir}/{port},server=on,wait=off",
                        "-device", f"virtserialport,chardev={port},name={port}"]
        self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        try:
            self.qmp = self.connected("qmp").makefile("rw")
            self.qmp.readline()
            self.do("qmp_capabilities")
            self.shell = self.connected("shell")
            if asleep:
                wait_until(lambda: self.do("query-status")["status"] == "paused", "its memory is back", 60)
                self.do("cont")
        except BaseException:
            self.close()
            raise

    def connected(self, name, timeout=300):
        """A connection to one of QEMU's sockets."""
        line = socket.socket(socket.AF_UNIX)
        line.settimeout(timeout)

        def attempt():
            try:
                line.connect(f"{self.dir}/{name}")
            except (FileNotFoundError, ConnectionRefusedError):
                return self.process.poll()
            return line
        if wait_until(attempt, "QEMU") is not line:
            raise BoxError("QEMU did not start:\n" + self.process.stdout.read())
        return line

    def do(self, command, **arguments):
        """One command of QEMU's monitor protocol."""
        self.qmp.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self.qmp.flush()
        while True:
            answer = json.loads(self.qmp.readline())
            if "error" in answer:
                raise BoxError(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]

    def join(self):
        """Takes a place on the machine's bus; back when the daemon serves."""
        line = self.connected("bus")
        # Only now: a service that finds nobody here ends, and takes words along that came in the meantime.
        self.sh("s6-svc -o /run/service/outside-bus")
        words = Authenticator()
        for word in words:
            line.sendall(word)
            words.feed(heard(line))
        line.sendall(BEGIN)
        line.settimeout(None)
        self.client = DBusRouter(DBusConnection(line))
        self.client.send_and_get_reply(message_bus.Hello(), timeout=60)
        wait_for(self.serving, "the daemon serves")
        return self

    def sh(self, script, check=True):
        """Runs lines of shell in the machine, as root: what they printed."""
        packed = base64.b64encode(script.encode()).decode()
        self.shell.sendall(f"echo {packed} | base64 -d | sh -eu 2>&1; code=$?; echo; echo {END} $code\n".encode())
        answer = b""
        while not (end := re.search(f"\n{END} (\\d+)\n$".encode(), answer)):
            answer += heard(self.shell)
        if check and end[1] != b"0":
            raise BoxError(f"{script}\n{answer.decode(errors='replace')}")
        return answer[:end.start()].decode(errors="replace")

    def run(self, argv, check=True, **_):
        return subprocess.CompletedProcess(argv, 0, self.sh(" ".join(argv), check))

    def read(self, path):
        return self.sh("cat " + path)

    def wait_up(self, service, up=True):
        self.sh(f"s6-svwait -t 120000 {'-u' if up else '-d'} /run/service/{service}")

    def console(self):
        with open(self.dir + "/console", errors="replace") as file:
            return file.read()

    def log(self):
        return self.sh("cat /var/log/syslog/current /media/syslog/current 2>/dev/null", check=False)

    def plug(self, image, name="stick"):
        self.do("blockdev-add", **{"driver": "raw", "node-name": name, "file": {"driver": "file", "filename": image}})
        self.do("device_add", driver="usb-storage", id=name, drive=name, bus="usb.0")

    def pull(self, name="stick"):
        self.do("device_del", id=name)

        def attempt():
            try:
                self.do("blockdev-del", **{"node-name": name})
                return True
            except BoxError:
                return False
        wait_until(attempt, "the stick is out")

    def fall_asleep(self, path):
        """Its memory goes into a file, from which another machine goes on with copies of medium and stick as they are
        now."""
        self.leave_bus()
        self.wait_up("outside-bus", up=False)  # else the next one would talk into this connection
        self.do("stop")
        self.do("migrate", uri="exec:cat >" + path)
        wait_until(lambda: self.do("query-migrate")["status"] == "completed", "its memory is kept", 60)

    def off(self):
        """Switched off in good order."""
        self.sh("(sleep 0.1; s6-svscanctl -t /run/service) >/dev/null 2>&1 &")
        self.process.wait(120)
        self.close()

    def cut(self):
        """The power is cut. May come from another thread; what the machine was asked for fails then."""
        self.process.kill()

    def close(self):
        self.leave_bus()
        self.process.kill()
        self.process.wait()
        if self.shell:
            self.shell.close()
        self.process.stdout.close()
        shutil.rmtree(self.dir)
