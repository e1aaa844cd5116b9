"""./dev elsewhere [NAME...]: the daemon on other C libraries, compilers, processors and versions of its libraries:
built in a root of its own, tested there, started in a box; then what each wrote is read by each (travel.py)."""
import glob
import os
import re
import subprocess
import sys
import time
import zlib
from typing import NamedTuple

import travel
from box import Box, BoxError, BusError, NoReply, ROOT, wait_until

HERE = os.path.join(ROOT, "build", "elsewhere")
LIBRARIES = ["libevent-dev", "libdbus-1-dev", "libssl-dev", "libcjson-dev", "libgtest-dev"]
TOOLS = ["dbus", "mount", "cmake", "ninja-build", "pkg-config"]
NOT_EMULATED = "launcher.shell_results"  # an emulator does not tell who starts a program that it cannot
MODULES = ["libevent", "dbus-1", "libcrypto", "libcjson"]
CLANG = ["clang", "lld", "libc++-dev", "libc++abi-dev", "libclang-rt-14-dev"]
MUSL = ["clang", "lld", "llvm", "libclang-rt-14-dev", "musl-dev", "linux-libc-dev", "binutils", "make", "dpkg-dev",
        "googletest", "python3-minimal", "python3-distutils"]
with open(os.path.join(ROOT, "packaging", "musl")) as script:
    MUSL_TOOLCHAIN = script.read()
LOCALE = "/opt/foreign/usr/lib/locale"  # in the processor's byte order
FOREIGN_LOCALE = "cd /tmp; apt-get update -qq; apt-get download libc-bin:$ARCH; dpkg -x libc-bin_*.deb /opt/foreign"
LIBCXX_TESTS = """cp -r /usr/src/googletest /tmp && cd /tmp/googletest && cmake -G Ninja -B build -DBUILD_GMOCK=OFF \
-DCMAKE_CXX_COMPILER=clang++ -DCMAKE_CXX_FLAGS=-stdlib=libc++ && cmake --build build --target install"""


class System(NamedTuple):
    """Where the daemon is built. `packages`: the compiler and what is particular; `setup`: once, inside the root."""
    suite: str
    arch: str = "amd64"
    triplet: str = "x86_64-linux-gnu"
    emulator: str = ""
    packages: list = ["g++"]
    setup: str = ""
    options: list = []
    flags: str = ""
    static: bool = False
    narrow_times: bool = False  # time_t has 32 bits

    @property
    def foreign(self):
        return self.arch != "amd64"


def cross(suite, arch, triplet, emulator, **others):
    return System(suite, arch, triplet, f"/usr/bin/qemu-{emulator}-static", [f"g++-{triplet}", f"libstdc++6:{arch}"],
                  FOREIGN_LOCALE.replace("$ARCH", arch),
                  ["-DCMAKE_TOOLCHAIN_FILE=packaging/cross.cmake", f"-DNIMBRELC_CROSS={triplet}"], **others)


SYSTEMS = {
    "debian-11": System("bullseye"),
    "debian-12": System("bookworm"),
    "debian-13": System("trixie"),
    "clang": System("bookworm", packages=CLANG + ["binutils"], setup=LIBCXX_TESTS,
                    options=["-DCMAKE_CXX_COMPILER=clang++"], flags="-stdlib=libc++"),
    "musl": System("bookworm", packages=MUSL, setup=MUSL_TOOLCHAIN, static=True,
                   options=["-DCMAKE_CXX_COMPILER=/opt/musl/bin/musl-c++"]),
    "armhf": cross("bookworm", "armhf", "arm-linux-gnueabihf", "arm", narrow_times=True),
    "armhf-13": cross("trixie", "armhf", "arm-linux-gnueabihf", "arm"),
    "arm64": cross("bookworm", "arm64", "aarch64-linux-gnu", "aarch64"),
    "mipsel": cross("bookworm", "mipsel", "mipsel-linux-gnu", "mipsel", narrow_times=True),
    "s390x": cross("bookworm", "s390x", "s390x-linux-gnu", "s390x"),
}


class Place:
    """A system's folder below build/: its root, the build, what the daemon wrote there."""

    def __init__(self, name):
        self.name, self.system = name, SYSTEMS[name]
        self.dir = os.path.join(HERE, name)
        self.root, self.build = os.path.join(self.dir, "root"), os.path.join(self.dir, "build")

    def say(self, text):
        print(f"{self.name:10} {text}", flush=True)

    def make_root(self):
        """Once, from the archive that this machine's packages come from."""
        system = self.system
        packages = [*TOOLS, *system.packages]
        if not system.static:
            packages += [f"{name}:{system.arch}" for name in LIBRARIES]
        archive = subprocess.run(["apt-get", "indextargets", "--format", "$(REPO_URI)", "Created-By: Packages"],
                                 capture_output=True, text=True, check=True).stdout.split()
        archive = next(uri for uri in archive if uri.endswith("/debian/"))
        command = ["mmdebstrap", "--variant=apt", "--architectures=" + ",".join(dict.fromkeys(["amd64", system.arch])),
                   "--dpkgopt=force-unsafe-io", "--dpkgopt=path-exclude=/usr/share/doc/*",
                   "--include=" + ",".join(packages), system.suite, self.root,
                   *(f"{kind} {archive} {system.suite} main" for kind in ("deb", "deb-src"))]
        made = os.path.join(self.dir, f"made-{zlib.crc32(' '.join([*command, system.setup]).encode()):08x}")
        if os.path.exists(made):
            return
        self.say("making its root, log in " + os.path.relpath(self.dir, ROOT))
        subprocess.run(["rm", "-rf", "--one-file-system", self.dir], check=True)
        os.makedirs(self.dir)
        self.logged("root", command)
        os.makedirs(self.root + ROOT)
        if system.foreign:
            subprocess.run(["cp", system.emulator, self.root + "/usr/bin"], check=True)
        self.inside("setup", system.setup)
        open(made, "w").close()

    def logged(self, step, command):
        path = os.path.join(self.dir, step + ".log")
        with open(path, "w") as log:
            done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT, cwd=ROOT)
        with open(path, errors="replace") as log:
            text = log.read()
        if done.returncode:
            raise BoxError(f"{self.name}: {step} failed:\n" + "\n".join(text.splitlines()[-40:]))
        return text

    def inside(self, step, script):
        """Lines of shell in the root, which has the checkout where it is here: what they printed."""
        return self.logged(step, [
            "unshare", "--mount", "--pid", "--fork", "--kill-child", "sh", "-euc",
            'root=$1 tree=$2 script=$3; mount --bind "$root" "$root"; mount --rbind /dev "$root/dev"; '
            'mount -t proc proc "$root/proc"; mount --bind "$tree" "$root$tree"; '
            'cat /etc/resolv.conf >"$root/etc/resolv.conf"; cd "$root"; pivot_root . .; umount -l .; '
            'exec env -i -C "$tree" PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root sh -euc "$script"',
            "sh", self.root, ROOT, script])

    def compile(self):
        options = ["-DCMAKE_BUILD_TYPE=Release", "-DNIMBRELC_BUILD_FLAVOUR=release", "-DNIMBRELC_STATIC_RUNTIME=ON",
                   "-DNIMBRELC_TESTS=ON", f"-DCMAKE_CXX_FLAGS=-Werror -fstack-usage {self.system.flags}", *self.system.options]
        libraries = "/opt/musl/lib" if self.system.static else f"/usr/lib/{self.system.triplet}"
        text = self.inside("build", f"export PKG_CONFIG_LIBDIR={libraries}/pkgconfig CMAKE_PREFIX_PATH=/opt/musl:/usr/local; "
                           f"cmake -G Ninja -S . -B {self.build} {' '.join(map(repr, options))}; "
                           f"ninja -C {self.build} nimbrelc nimbrelc_tests nimbrelc_devel_tests nimbrelc_release_tests; "
                           f"{self.system.triplet}-strip -o {self.build}/stripped {self.build}/nimbrelc; "
                           f"pkg-config --modversion {' '.join(MODULES)}")
        with open(glob.glob(self.build + "/CMakeFiles/*/CMakeCXXCompiler.cmake")[0]) as found:
            self.compiler = " ".join(re.findall(r'CMAKE_CXX_COMPILER_(?:ID|VERSION) "(.*)"', found.read()))
        self.versions = " ".join(text.split()[-len(MODULES):])

    def test(self):
        """The unit tests and those in simulated time: how many passed."""
        chosen = f"--gtest_filter=-{NOT_EMULATED}" if self.system.foreign else ""
        locale = f"export LOCPATH={LOCALE}; " if self.system.foreign else ""
        text = self.inside("tests", locale + " && ".join(
            f"{self.system.emulator} {self.build}/tests/nimbrelc{kind}_tests --gtest_brief=1 {chosen}"
            for kind in ("", "_devel", "_release")))
        return sum(map(int, re.findall(r"  PASSED  \] (\d+)", text)))

    def box(self):
        """A box with this daemon, which finds the libraries that it was built with below /run/shared. What it
        starts (sudo, s6, Samba) is the host's own."""
        box = Box(self.build, shared=self.root)
        if self.system.foreign:
            box.environment["LOCPATH"] = "/run/shared" + LOCALE
        if not self.system.static:
            folder = f"lib/{self.system.triplet}"
            loader = os.path.basename(glob.glob(f"{self.root}/{folder}/ld*.so*")[0])
            box.run(["mv", "/usr/bin/nimbrelc", "/usr/bin/nimbrelc.elsewhere"])
            box.write("/usr/bin/nimbrelc", f"#!/bin/sh\nexec {self.system.emulator} /run/shared/{folder}/{loader} "
                      f"--library-path /run/shared/{folder}:/run/shared/usr/{folder} /usr/bin/nimbrelc.elsewhere \"$@\"\n",
                      0o755, "root")
        return box

    def serve(self):
        """A share is served and the bus answered; the daemon's resident kilobytes."""
        with self.box() as box:
            # It is the library that has to stop at words and go on behind them.
            box.run(box.daemon_command("-l", "enabled=true:syslog=yes:level=info", "word", "-m", "word"))
            box.wait_log("Migration succeeded")
            box.start_daemon()
            with open(f"/proc/{box.daemon_pid()}/status") as status:
                resident = int(re.search(r"VmRSS:\s+(\d+)", status.read())[1])
            assert box.get("LAN.MACAddress") == "02:00:5e:10:00:01"
            box.plug("sda")
            box.wait_up("smbd")
            guest = ["smbclient", "-N", "//127.0.0.1/sda1", "-c", "get hello.txt -"]
            wait_until(lambda: "Hello from sda1" in box.run(guest, check=False).stdout, "a guest reads the share")
            box.stop_daemon()
            assert not box.faults(), box.faults()
        return resident

    def largest_frame(self):
        """Bytes, and the function's place."""
        frames = []
        for path in glob.glob(f"{self.build}/CMakeFiles/**/*.su", recursive=True):
            with open(path) as file:
                frames += [(int(size), where) for where, size in (line.split("\t")[:2] for line in file)]
        size, where = max(frames)
        return size, re.sub(r".*/src/([^:]+:\d+).*", r"\1", where)


def main(names):
    unknown = set(names) - set(SYSTEMS)
    if unknown:
        sys.exit(f"The systems are {' '.join(SYSTEMS)}")
    places = [Place(name) for name in names or SYSTEMS]
    rows, failed = [], []
    for place in places:
        start = time.monotonic()
        try:
            place.make_root()
            place.compile()
            passed, resident = place.test(), place.serve()
            frame, where = place.largest_frame()
            kilobytes = os.path.getsize(place.build + "/stripped") / 1024
            rows.append((place.name, place.compiler, place.versions, f"{time.monotonic() - start:.0f} s",
                         f"{passed}, not {NOT_EMULATED}" if place.system.foreign else str(passed),
                         f"{kilobytes:.0f} KB", "not emulated" if place.system.foreign else f"{resident} KB",
                         f"{frame} ({where})", "serves"))
        except (AssertionError, BoxError, BusError, NoReply, subprocess.SubprocessError) as error:
            failed.append(place.name)
            rows.append((place.name, *["-"] * 7, "failed"))
            print(repr(error) if isinstance(error, AssertionError) else error)
        place.say(rows[-1][-1])
    columns = ["system", "compiler", "libevent, libdbus, libcrypto, cJSON", "time", "unit tests", "stripped", "resident",
               "largest frame", "verdict"]
    for row in columns, ["---"] * len(columns), *rows:
        print("| " + " | ".join(row) + " |")
    failed += travel.matrix([place for place in places if place.name not in failed])
    sys.exit(bool(failed))


if __name__ == "__main__":
    main(sys.argv[1:])
