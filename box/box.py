"""The virtual box: the daemon's whole gateway in software, made in well under a second and gone with
the process that made it. Needs root, Linux namespaces and Debian's own packages; see README.md."""
import fcntl
import functools
import glob
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from contextlib import suppress

import jeepney
from jeepney.io.threading import DBusRouter, open_dbus_connection

from peers import DEFAULT_PEERS, Peer, BoxError, BusError, NoReply, signature_of, u, i, wait_until  # noqa: F401

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.append(os.path.join(ROOT, "tools"))
import tree  # noqa: E402

DEFAULT_BUILD = os.path.join(ROOT, "build", "dev")
CONFIG = "/media/nimbrelc.json"
NO_BACKUP = bytes.fromhex("28a2e59122046a8788324a2f6754957c")  # an encrypted "[]", which ends the daemon
FAKETIME, = glob.glob("/usr/lib/*/faketime/libfaketime.so.1")
PATH = "/usr/sbin:/usr/bin:/sbin:/bin"
with open(os.path.join(HERE, "standins")) as names:
    STAND_INS = {os.path.basename(path): path for path in names.read().split()}


@functools.lru_cache(None)
def staged(build):
    """The daemon as it is installed, below the build directory."""
    if not os.path.exists(os.path.join(build, "nimbrelc")):
        raise BoxError(f"no daemon in {build}: ./dev build makes it")
    stage = os.path.join(build, "stage")
    owner = os.stat(build)  # root leaves no files of its own in somebody's build directory
    lock = os.open(build, os.O_RDONLY)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX)
        done = subprocess.run(["cmake", "--install", build, "--prefix", "/usr"], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              env={**os.environ, "DESTDIR": stage},
                              user=owner.st_uid, group=owner.st_gid, extra_groups=[])
    finally:
        os.close(lock)
    if done.returncode:
        raise BoxError(f"{build} cannot be installed:\n{done.stdout}")
    return stage


@functools.lru_cache(None)
def schema():
    import jsonschema  # takes a while, and a box without a fault never asks
    with open(os.path.join(ROOT, "data", "nimbrelc.schema.json"), encoding="utf-8") as file:
        return jsonschema.Draft202012Validator(json.load(file))


def document_faults(text):
    """Where a configuration document is not as its schema says: a set of texts. Entries of a list move, so
    their places are left out."""
    return {re.sub(r"\[\d+\]", "[]", error.json_path) + ": " + error.message
            for error in schema().iter_errors(json.loads(text))}


def field_document(name):
    """The document of a box in the field."""
    with open(os.path.join(ROOT, "tests", "boxes", name + ".json"), encoding="utf-8") as file:
        return json.load(file)


class Box:
    """One running box. A context manager; `close()` takes everything away. `flavour`: the daemon's, unless it is
    the build's. `shared`: a directory of the host that the box has as /run/shared."""

    def __init__(self, build=DEFAULT_BUILD, flavour=None, shared=None):
        self.build = os.path.abspath(build)
        self.flavour = flavour or self._build_option("NIMBRELC_BUILD_FLAVOUR")
        self.peers = {}
        self.client = None
        self.disks = {}
        self.asked = 0  # about that many commands
        self.environment = {}  # of the daemon, besides what its service gives it
        if self.counts_lines:
            shared = self.build
            self.environment.update(GCOV_PREFIX="/run/shared", GCOV_PREFIX_STRIP=str(self.build.count("/")))
        self.start(os.path.join(HERE, "init"), HERE, staged(self.build), *filter(None, [shared]))
        try:
            if flavour:
                shutil.copy(os.path.join(build, "nimbrelc-" + flavour), self.path("/usr/bin/nimbrelc"))
            self.given = self.read(CONFIG)  # the document as it was last written from outside
            self.join_bus()
        except BaseException:
            self.close()
            raise

    def start(self, *first):
        """Starts the first process in namespaces of its own; it says its number when its root stands."""
        # --kill-child and setpriv: the box ends with the process that holds it, however that ends.
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--uts", "--ipc", "--net",
             "--pid", "--fork", "--kill-child=KILL", *first],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        if not line:
            error = self.process.stderr.read()
            self.close()
            raise BoxError("the box did not start:\n" + error)
        self.pid = int(line)
        self.root = f"/proc/{self.pid}/root"

    def connect(self):
        """A connection to the system bus, once somebody listens there."""
        def attempt():
            with suppress(ConnectionError, FileNotFoundError):
                return open_dbus_connection("unix:path=" + self.path("/run/dbus/system_bus_socket"), enable_fds=True)
        return wait_until(attempt, "the system bus")

    def join_bus(self):
        """The peers and this client take their places on the system bus."""
        self.client = DBusRouter(self.connect())
        for names in DEFAULT_PEERS:
            peer = Peer(self.connect(), names, self)
            self.peers.update(peer.views)

    def leave_bus(self):
        for peer in {view.peer for view in self.peers.values()}:
            peer.close()
        self.peers = {}
        if self.client:
            self.client.close()
            self.client.conn.close()
            self.client = None

    def close(self):
        self.leave_bus()
        try:  # the first process takes all others along and is waited for by its parent
            os.kill(self.pid, signal.SIGKILL)
        except (AttributeError, ProcessLookupError):
            self.process.kill()
        self.process.wait()
        self.process.stdout.close()
        self.process.stderr.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    # Files and commands -------------------------------------------------------------------------

    def path(self, path):
        """Where the host finds a file of the box."""
        return self.root + path

    def read(self, path):
        with open(self.path(path), encoding="utf-8", errors="replace") as file:
            return file.read()

    def write(self, path, text, mode=0o644, owner="nimbrelc"):
        """Writes a text, bytes, or whatever else as JSON."""
        text = text if isinstance(text, (str, bytes)) else json.dumps(text, indent="\t", ensure_ascii=False)
        data = text if isinstance(text, bytes) else text.encode()
        self.given = text if path == CONFIG else self.given
        with open(self.path(path), "wb") as file:
            file.write(data)
        os.chmod(self.path(path), mode)
        self.chown(path, owner)

    def chown(self, path, owner):
        entry = re.search(rf"^{owner}:[^:]*:(\d+):(\d+):", self.read("/etc/passwd"), re.M)
        os.chown(self.path(path), int(entry[1]), int(entry[2]))

    def exists(self, path):
        return os.path.lexists(self.path(path))

    def command(self, argv):
        """The host's command line that runs `argv` inside, as root."""
        return ["nsenter", "-t", str(self.pid), "-m", "-u", "-i", "-n", "-p", "--",
                "env", "-i", "-C", "/", f"PATH={PATH}", "HOME=/root", "TERM=" + os.environ.get("TERM", "dumb"),
                *argv]

    def run(self, argv, input=None, check=True, timeout=60):
        """Runs a command inside and returns the completed process, with both outputs as text."""
        return subprocess.run(self.command(argv), input=input, check=check, timeout=timeout,
                              stdin=subprocess.DEVNULL if input is None else None,
                              capture_output=True, encoding="utf-8", errors="replace")

    def fill_medium(self):
        """Leaves no byte free where the configuration is stored."""
        self.run(["mount", "-o", "remount,size=1m", "/media"])
        self.run(["sh", "-c", "cat /dev/zero >/media/full"], check=False)

    # The daemon ---------------------------------------------------------------------------------

    def config(self):
        return json.loads(self.read(CONFIG))

    def configure(self, **members):
        """Merges members into the document of the stopped daemon."""
        self.edit_config(lambda document: merge(document, members))

    def enable_services(self, *names):
        """Leaves these file services enabled, of "samba", "afp", "avahi", and no others."""
        self.configure(nas={"fileServices": {name: {"enabled": name in names} for name in ("samba", "afp", "avahi")}})

    def edit_config(self, change):
        """Hands the document of the stopped daemon to `change`, writes what it left."""
        document = self.config()
        change(document)
        self.write(CONFIG, document)

    def daemon_command(self, *options):
        return ["env", "ASAN_OPTIONS=log_path=/run/box/sanitizer:detect_leaks=1",
                "UBSAN_OPTIONS=log_path=/run/box/sanitizer:print_stacktrace=1",
                *(f"{name}={value}" for name, value in self.environment.items()),
                "/etc/s6/sv/nimbrelc/run", *options]

    def start_daemon(self, *options, wait=True, **members):
        """Starts the daemon under s6, with these members in its document, and, unless told otherwise, waits
        until it serves."""
        if members:
            self.configure(**members)
        line = " ".join("'" + word.replace("'", r"'\''") + "'" for word in self.daemon_command(*options))
        self.write("/run/service/nimbrelc/run", f"#!/bin/sh\nexec {line}\n", 0o755, "root")
        self.run(["s6-svc", "-u", "/run/service/nimbrelc"])
        if wait:
            wait_until(self.serving, "the daemon serves")

    def hurry(self, times=5):
        """From the next start on, the daemon's clock and its waits run that many times as fast; not under the
        sanitizers, which want to be the first library."""
        if not self.sanitized:
            self.environment.update(LD_PRELOAD=FAKETIME, FAKETIME=f"+0 x{times}")

    def serving(self):
        try:
            return self.ask("getApplicationStatus", timeout=10)
        except (BusError, NoReply):
            return None

    def stop_daemon(self):
        self.run(["s6-svc", "-d", "-wD", "-T", "30000", "/run/service/nimbrelc"])

    def restart_daemon(self, **members):
        self.stop_daemon()
        self.start_daemon(**members)

    def end_daemon(self, orderly=False):
        """Stops the daemon for good. Under the sanitizers it ends by itself where it still listens: only
        then are leaks looked for, and lines counted."""
        if (orderly or self.sanitized or self.counts_lines) and self.daemon_pid():
            self.run(["s6-svc", "-O", "/run/service/nimbrelc"])  # not started again
            self.write("/run/box/no-backup", NO_BACKUP)
            try:
                self.ask("restore", "/run/box/no-backup")
                self.run(["s6-svc", "-wD", "-T", "30000", "/run/service/nimbrelc"], check=False)
            except (BusError, NoReply):
                pass
        self.stop_daemon()

    def migrate(self):
        """One run in migration mode: the completed process."""
        return self.run(self.daemon_command("-m"), check=False)

    def daemon_pid(self):
        """The running daemon's process number on the host, None when it is down."""
        inside = self.run(["s6-svstat", "-o", "pid", "/run/service/nimbrelc"]).stdout.strip()
        if inside == "-1":
            return None
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:
                with open(f"/proc/{pid}/status") as status:
                    numbers = re.search(r"^NSpid:\s+(.*)$", status.read(), re.M)
                if (numbers and numbers[1].split()[-1] == inside
                        and os.readlink(f"/proc/{pid}/ns/pid") == os.readlink(f"/proc/{self.pid}/ns/pid")):
                    return int(pid)
            except OSError:
                continue
        return None

    def exits(self):
        """How the daemon ended so far: (exit code, signal), 256 as code when a signal ended it."""
        if not self.exists("/run/box/exits"):
            return []
        return [tuple(map(int, line.split())) for line in self.read("/run/box/exits").splitlines()]

    def faults(self):
        """Deaths that no test asks for and reports of the sanitizers, leaks too: texts, empty when all is well."""
        found = [f"the daemon died by signal {number}" for code, number in self.exits()
                 if code == 256 and number not in (signal.SIGTERM, signal.SIGKILL)]
        for name in sorted(os.listdir(self.path("/run/box"))):
            if name.startswith("sanitizer"):
                found.append(self.read("/run/box/" + name))
        return found

    def _build_option(self, name):
        with open(os.path.join(self.build, "CMakeCache.txt")) as cache:
            return re.search(rf"^{name}:\w+=([\w-]*)", cache.read(), re.M)[1]

    @property
    def syncs_writes(self):
        return self._build_option("NIMBRELC_SYNC_WRITES") == "ON"

    @property
    def counts_lines(self):
        return self._build_option("CMAKE_CXX_FLAGS") == "--coverage"

    @property
    def sanitized(self):
        return self._build_option("NIMBRELC_SANITIZE") == "ON"

    # The bus ------------------------------------------------------------------------------------

    def call(self, path, interface, method, *args, timeout=30, name="com.kelvanto.nimbrel"):
        """Calls the daemon (or another owner of `name`) and returns the reply's values. Arguments:
        str -> s, bool -> b, u(5) -> u, i(-1) -> i, ("ay", value) for any other signature. Raises
        NoReply when none comes in time, BusError for an error reply."""
        signature, values = signature_of(args)
        address = jeepney.DBusAddress(path, bus_name=name, interface=interface)
        message = jeepney.new_method_call(address, method, signature or None, values)
        try:
            reply = self.client.send_and_get_reply(message, timeout=timeout)
        except TimeoutError:
            raise NoReply(f"{method} was not answered within {timeout} s") from None
        if reply.header.message_type is jeepney.MessageType.error:
            name = reply.header.fields[jeepney.HeaderFields.error_name]
            text = reply.body[0] if reply.body else ""
            if name == "org.freedesktop.DBus.Error.NoReply":
                raise NoReply(text)
            raise BusError(name, text)
        return reply.body

    def signal(self, interface, member, *args, path="/box"):
        """Emits a signal; it comes from the disk daemon's connection."""
        self.peers["ddm"].peer.signal(path, interface, member, *args)

    def peer(self, name):
        return self.peers[name]

    def ask(self, method, *args, **options):
        """Calls a method that the daemon describes, by the end of its full name: "getConfig", "devices.list".
        Returns the reply's value, None for an empty reply, a tuple of several values."""
        (path, interface, member), = [row[:3] for row in tree.methods()
                                      if f".{row.interface}.{row.name}".endswith("." + method)]
        reply = self.call(path, interface, member, *args, **options)
        return reply if len(reply) > 1 else reply[0] if reply else None

    def get(self, key, **options):
        """A parameter of the data model, None for an empty reply. Keys may be short: "SSH.Enable"."""
        return self.ask("GetValue", tree.full_key(key), **options)

    def object(self, key, **options):
        return self.ask("GetObject", tree.full_key(key), **options)

    def set(self, key, value, **options):
        """Whether the daemon took the value; None for an empty reply."""
        return self.ask("SetValue", tree.full_key(key), value, **options)

    def apply(self, key, value):
        """Sets what must be taken; back when it is applied too, which comes after the answer."""
        assert self.set(key, value) is True, key
        self.ask("getApplicationStatus")

    # What happened ------------------------------------------------------------------------------

    def log(self):
        """The system log: every line of every process of the box."""
        return self.read("/var/log/messages")

    def wait_log(self, text, count=1):
        """Waits until the log holds the text (`count` times)."""
        wait_until(lambda: self.log().count(text) >= count, f"log line {text!r}")

    def logged(self, text):
        """When the daemon wrote each line with the text, in whole seconds of the year."""
        stamps = re.findall(rf": (\w+ +\d+ [\d:]+) .*{re.escape(text)}", self.log())
        return [time.mktime(time.strptime("2000 " + stamp, "%Y %b %d %H:%M:%S")) for stamp in stamps]

    def commands(self, *names):
        """The command lines of the stand-ins (scripts, s6-rc, dmesg), or of these, in order, each as its argv
        with the command's name alone."""
        if not self.exists("/run/box/commands"):
            return []
        lines = [json.loads(line) for line in self.read("/run/box/commands").splitlines()]
        return [line for line in ([os.path.basename(path), *args] for path, *args in lines)
                if not names or line[0] in names]

    def new_commands(self, *names):
        """Those since this was asked the last time."""
        before, self.asked = self.asked, len(self.commands())
        return [line for line in self.commands()[before:] if not names or line[0] in names]

    def sudo(self):
        """Every command run through sudo, in order, as one text each (s6-svc and s6-svstat too);
        those that sudo refused begin with "refused: "."""
        if not self.exists("/run/box/sudo"):
            return []
        lines = re.findall(r" : \S+ : (.*?)(?:TTY=\S+ ; )?PWD=.*?COMMAND=(.*)", self.read("/run/box/sudo"))
        return [("refused: " if reason else "") + command for reason, command in lines]

    def script(self, name, code=0, out="", sleep=0, kill=0, leave=False):
        """What the stand-in of that file name does from now on: exit code, standard output, seconds
        before the end, signal to die by; leave: something that goes on printing for a minute."""
        self.write(f"/run/box/reply/{name}.json",
                   json.dumps({"code": code, "out": out, "sleep": sleep, "kill": kill, "leave": leave}))

    def is_up(self, service):
        return self.run(["s6-svstat", "-u", "/run/service/" + service]).stdout.strip() == "true"

    def wait_up(self, service, up=True):
        wait_until(lambda: self.is_up(service) == up, f"{service} {'up' if up else 'down'}")

    # Disks --------------------------------------------------------------------------------------

    def plug(self, name, kind="USB", partitions=None, device_type="STORAGE", **fields):
        """Plugs a disk in: the disk daemon lists it, then signals the device and each partition.
        `partitions`: one dict of record fields per partition; None as "mount_point" leaves it
        unmounted, "files" ({name: text}) is what is on it. Further keywords are fields of the device.
        Returns the partition records."""
        if partitions is None:
            partitions = [{}] if device_type == "STORAGE" else []
        syspath = f"/sys/block/{name}"
        records = []
        for number, wanted in enumerate(partitions, 1):
            wanted = dict(wanted)
            files = wanted.pop("files", {"hello.txt": f"Hello from {name}{number}\n"})
            record = {"syspath": f"{syspath}/{name}{number}", "disk_syspath": syspath,
                      "mount_point": f"/media/{name}{number}", "label": f"{name}{number}",
                      "type": "vfat", "uuid": f"uuid-{name}{number}", "capacity": 1000000,
                      "free": 750000, "read_only": False, **wanted}
            if record["mount_point"]:
                self.fill(record["mount_point"], files)
            else:
                record["mount_point"] = ""
            records.append(record)
        device = {"syspath": syspath, "device_type": device_type, "connection_type": kind,
                  "vendor": "Acme", "model": "Stick", "serial": f"serial-{name}",
                  "partitions_count": len(records), **fields}
        self.disks[name] = (device, records)
        self.disk_signal("DeviceAttached", device)
        for record in records:
            self.disk_signal("PartitionConnected", record)
        return records

    def unplug(self, name):
        """Pulls a disk out: each partition goes, then the device."""
        device, records = self.disks.pop(name)
        for record in records:
            if record["mount_point"]:
                shutil.rmtree(self.path(record["mount_point"]), ignore_errors=True)
            self.disk_signal("PartitionDisconnected", record)
        self.disk_signal("DeviceDetached", device)

    def disk_signal(self, member, record):
        """One signal of the disk daemon; `record` is a dict, or a text that is sent as it is."""
        text = record if isinstance(record, str) else notation(record)
        self.signal("com.kelvanto.ddm", member, text, path="/status")

    def fill(self, directory, files):
        host = self.path(directory)
        os.makedirs(host, exist_ok=True)
        self.chown(directory, "default")
        for name, text in files.items():
            self.write(f"{directory}/{name}", text, owner="default")

    def device_list(self):
        return notation([device for device, _ in list(self.disks.values())])

    def partition_list(self):
        return notation([record for _, records in list(self.disks.values()) for record in records])


def merge(document, members):
    for name, value in members.items():
        if isinstance(value, dict) and isinstance(document.get(name), dict):
            merge(document[name], value)
        else:
            document[name] = value


def notation(value):
    """The disk daemon's way to write records: bare keys, single quotes. A list has no blank between
    its records: there a blank would announce a key."""
    if isinstance(value, list):
        return "[" + ",".join(map(notation, value)) + "]"
    if isinstance(value, dict):
        return "{" + ", ".join(f"{key}: {notation(item)}" for key, item in value.items()) + "}"
    return f"'{value}'" if isinstance(value, str) else json.dumps(value)
