NIMBRELC_VERSION = local
NIMBRELC_SITE = $(BR2_EXTERNAL_NIMBRELC_PATH)/../..
NIMBRELC_SITE_METHOD = local
NIMBRELC_DEPENDENCIES = host-pkgconf cjson dbus libevent openssl
NIMBRELC_CONF_OPTS = -DNIMBRELC_BUILD_FLAVOUR=$(if $(BR2_PACKAGE_NIMBRELC_DEVEL),devel,release)

define NIMBRELC_USERS
	nimbrelc -1 nimbrelc -1 * - - - Gateway management
	default -1 default -1 * - - - Shares of the gateway
endef

define NIMBRELC_PERMISSIONS
	/etc/sudoers.d/nimbrelc f 0440 0 0 - - - - -
	/media d 0755 nimbrelc nimbrelc - - - - -
endef

$(eval $(cmake-package))
