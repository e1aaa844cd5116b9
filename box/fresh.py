"""A bare Debian 12, with nothing in it but what the daemon's package would bring along: where the steps of an
installation are tried. Made once below build/, unpacked into memory for each use."""
import os
import re
import subprocess
import zlib

from box import Box, DBusRouter, HERE, ROOT

PACKAGES = ["dbus", "s6", "sudo", "libevent-core-2.1-7", "libcjson1", "libssl3", "libdbus-1-3", "libstdc++6",
            "mount", "systemd-standalone-sysusers"]


def archive():
    """The packed root. The packages come from where this machine's come."""
    path = os.path.join(ROOT, "build", f"fresh-{zlib.crc32(' '.join(PACKAGES).encode()):08x}.tar")
    if not os.path.exists(path):
        sources = [name for name in ("/etc/apt/sources.list.d/debian.sources", "/etc/apt/sources.list")
                   if os.path.exists(name) and os.path.getsize(name)]
        os.makedirs(os.path.dirname(path), exist_ok=True)
        subprocess.run(["mmdebstrap", "--quiet", "--variant=essential", "--include=" + ",".join(PACKAGES),
                        "--dpkgopt=force-unsafe-io", "--dpkgopt=path-exclude=/usr/share/locale/*",
                        "--dpkgopt=path-exclude=/usr/share/doc/*", "bookworm", path + ".tmp.tar", *sources[:1]],
                       check=True)
        os.rename(path + ".tmp.tar", path)
    return path


def readme_steps():
    """The README's steps from an installed tree to a daemon that serves, as lines of shell."""
    with open(os.path.join(ROOT, "README.md")) as page:
        return re.findall(r"^```sh\n(.*?)^```", page.read(), re.M | re.S)


class FreshRoot(Box):
    """Like a box, but with no bus, no supervisor and no daemon yet."""

    def __init__(self):
        self.peers, self.client = {}, None
        self.start(os.path.join(HERE, "fresh"), archive())

    def copy(self, stage):
        """What was installed below a directory comes into the root, as root's."""
        subprocess.run(["cp", "-R", stage + "/.", self.root], check=True)

    def sh(self, script):
        """Runs lines of shell as root, which must all succeed; what they printed."""
        done = self.run(["sh", "-euc", script], check=False, timeout=120)
        assert done.returncode == 0, f"{script}\n{done.stdout}{done.stderr}"
        return done.stdout

    def files(self):
        """The name of everything in it."""
        return set(self.sh("find / -xdev").split("\n"))

    def start_system(self):
        """What a box has before the daemon comes: a system bus and a supervisor without services."""
        self.sh("mkdir -p /run/dbus /run/service; dbus-daemon --system --fork --nopidfile")
        subprocess.Popen(self.command(["s6-svscan", "/run/service"]), stdin=subprocess.DEVNULL,
                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        self.client = DBusRouter(self.connect())
