#!/usr/bin/python3
"""Holds the recipes of packaging/ against what is built and installed: recipes.py --check [TREE]. A line for each
fault. What `packaging/musl` builds is what the daemon needed without anything else of a distribution."""
import re

import tree

# What CMake asks for, as each names it.
NAMES = ("OpenWrt", "Buildroot", "Yocto", "Debian", "packaging/musl")
LIBRARIES = {"libevent_core": ("libevent2-core", "LIBEVENT", "libevent", "libevent-dev", "libevent"),
             "dbus-1": ("libdbus", "DBUS", "dbus", "libdbus-1-dev", "dbus"),
             "libcrypto": ("libopenssl", "OPENSSL", "openssl", "libssl-dev", "openssl"),
             "libcjson": ("cJSON", "CJSON", "cjson", "libcjson-dev", "cjson")}
AT_RUN_TIME = {"dbus", "s6", "sudo"}
# What a Yocto package takes without being told, the manual's page into one of its own.
YOCTO_DEFAULTS = ["/usr/bin", "/etc", "/usr/share/man"]
YOCTO_PLACES = {"${datadir}": "/usr/share", "${nonarch_libdir}": "/usr/lib"}


def installed(cmake):
    """The places where files are installed, with the usual prefix."""
    places = {"${CMAKE_INSTALL_BINDIR}": "/usr/bin", "${CMAKE_INSTALL_MANDIR}": "/usr/share/man",
              "${CMAKE_INSTALL_DATADIR}": "/usr/share"}
    for files, place in re.findall(r"^install\(\w+ (.*?) DESTINATION ([^\s)]+)", cmake, re.M):
        for name, meant in places.items():
            place = place.replace(name, meant)
        for file in files.replace(" RUNTIME", "").split():
            yield place if file.endswith("/") else place + "/" + file.split("/")[-1]


def below(path, places):
    return any(path == place or path.startswith(place + "/") for place in places)


def faults(root):
    def read(name):
        return (root / name).read_text()

    cmake, readme = read("CMakeLists.txt"), read("README.md")
    openwrt, config, buildroot, yocto, debian, musl = (read("packaging/" + name) for name in (
        "openwrt/Makefile", "buildroot/Config.in", "buildroot/external.mk", "yocto/nimbrelc.bb", "debian/control", "musl"))
    modules = {words.split()[0].split(">")[0]
               for words in re.findall(r"^pkg_\w+_modules?\(\w+ REQUIRED IMPORTED_TARGET (.*)\)", cmake, re.M)}
    wanted = [{LIBRARIES[module][index] for module in modules & set(LIBRARIES)} for index in range(len(NAMES))]
    yield from (f"tools/recipes.py: not asked for, or unknown: {one}" for one in modules ^ set(LIBRARIES))
    named = [set(re.search("DEPENDS:=(.*)", openwrt)[1].replace("+", "").split()) - AT_RUN_TIME,
             {name.upper() for name in re.search("DEPENDENCIES = host-pkgconf (.*)", buildroot)[1].split()},
             set(re.search('^DEPENDS = "(.*)"', yocto, re.M)[1].split()),
             set(re.findall(r"^ +(lib\S+-dev),?$", debian, re.M)),
             set(re.search("apt-get source -qq ([a-z].*)", musl)[1].split())]
    yield from (f"{name}: missing, or there alone: {one}"
                for name, ours, theirs in zip(NAMES, wanted, named) for one in ours ^ theirs)
    selected = set(re.findall(r"select BR2_PACKAGE_(\w+)", config)) - {"OPENSSL_FORCE_LIBOPENSSL"}
    yield from (f"Buildroot: missing, or there alone: {one}"
                for one in selected ^ {*wanted[1], *(name.upper() for name in AT_RUN_TIME)})
    for name, text in (("OpenWrt", re.search("DEPENDS:=(.*)", openwrt)[1]), ("Yocto", re.search('RDEPENDS.*"(.*)"', yocto)[1]),
                       *(("Debian", line) for line in re.findall("^Depends: (.*)", debian, re.M))):
        yield from (f"{name}: missing: {one}" for one in AT_RUN_TIME if not re.search(rf"\b{one}\b", text))
    known = dict(re.findall(r"^option\((NIMBRELC_\w+)() ", cmake, re.M))
    known |= dict(re.findall(r"^set_property\(CACHE (NIMBRELC_\w+) PROPERTY STRINGS (.*)\)", cmake, re.M))
    for name, value in re.findall(r"-D(NIMBRELC_\w+)=(\w*)", openwrt + buildroot + yocto + read("packaging/debian/rules")):
        if name not in known or value and value not in (known[name].split() or ("ON", "OFF")):
            yield f"packaging/: not an option, or not its value: {name}={value}"
    if "libstdcpp" in openwrt or "STATIC_RUNTIME=ON" not in openwrt or "INSTALL_LIBSTDCPP" not in config:
        yield "OpenWrt links the C++ runtime statically, Buildroot installs it"
    if re.search(r"g\+\+ (\d+) or later", readme)[1] != re.search(r"GCC_AT_LEAST_(\d+)", config)[1]:
        yield "Buildroot: another compiler than README's"
    accounts = set(re.findall(r"^u (\w+)", read("data/sysusers.d/nimbrelc.conf"), re.M))
    for name, theirs in (("OpenWrt", re.findall(r"(\w+)=\d+:", re.search("USERID:=(.*)", openwrt)[1])),
                         ("Buildroot", re.findall(r"^\t(\w+) -1", buildroot, re.M)),
                         ("Yocto", re.findall(r"NO_HOME\} (\w+)", yocto))):
        yield from (f"{name}: missing, or there alone: account {one}" for one in accounts ^ set(theirs))
    files = [*installed(read("data/install.cmake"))]
    places = re.search('FILES.*"(.*)"', yocto)[1]
    for name, meant in YOCTO_PLACES.items():
        places = places.replace(name, meant)
    yield from (f"Yocto: in no package: {file}" for file in files if not below(file, [*YOCTO_DEFAULTS, *places.split()]))
    yield from (f"Yocto: holds nothing: {place}" for place in places.split() if not any(below(file, [place]) for file in files))
    said = re.findall(r"^(/etc/\S+)$", openwrt, re.M) + re.findall(r"^\t(/etc/\S+) f", buildroot, re.M)
    said += re.findall(r"chmod \d+ \$[^/]*[})](/etc/\S+)", (openwrt + yocto).replace("${sysconfdir}", "/etc"))
    yield from (f"packaging/: not installed: {path}" for path in said if path not in files)
    modes = re.findall(r"sudoers.d/nimbrelc f (\d+)|chmod (\d+) \S*sudoers.d/nimbrelc", buildroot + openwrt + yocto)
    if {"".join(mode) for mode in modes} != {"0440"} or len(modes) != 3:
        yield "packaging/: sudo's rules are 0440 everywhere"


if __name__ == "__main__":
    tree.run(faults)
