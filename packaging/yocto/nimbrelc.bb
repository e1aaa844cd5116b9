SUMMARY = "Management daemon of a home gateway with network storage"
# The owner's to choose, see LICENSE.
LICENSE = "CLOSED"

inherit externalsrc cmake pkgconfig useradd

# The checkout that holds this file; a firmware's own recipe names a revision instead.
EXTERNALSRC = "${THISDIR}/../.."
EXTERNALSRC_BUILD = "${WORKDIR}/build"

DEPENDS = "cjson dbus libevent openssl"
RDEPENDS:${PN} = "dbus s6 sudo"

NIMBRELC_BUILD_FLAVOUR ?= "release"
EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=Release -DNIMBRELC_BUILD_FLAVOUR=${NIMBRELC_BUILD_FLAVOUR}"

USERADD_PACKAGES = "${PN}"
NO_HOME = "--system --user-group --no-create-home --home-dir /nonexistent --shell /sbin/nologin"
USERADD_PARAM:${PN} = "${NO_HOME} nimbrelc; ${NO_HOME} default"

do_install:append() {
    chmod 0440 ${D}${sysconfdir}/sudoers.d/nimbrelc
}

FILES:${PN} += "/opt/app ${datadir}/dbus-1 ${datadir}/nimbrelc ${nonarch_libdir}/sysusers.d"
