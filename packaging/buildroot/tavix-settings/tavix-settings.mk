################################################################################
#
# tavix-settings
#
################################################################################

TAVIX_SETTINGS_VERSION = 0.1.0
TAVIX_SETTINGS_SITE = $(call qstrip,$(BR2_PACKAGE_TAVIX_SETTINGS_SITE))
TAVIX_SETTINGS_SITE_METHOD = local
TAVIX_SETTINGS_LICENSE = MIT
TAVIX_SETTINGS_LICENSE_FILES = LICENSE
TAVIX_SETTINGS_INSTALL_STAGING = YES
TAVIX_SETTINGS_SUPPORTS_IN_SOURCE_BUILD = NO
TAVIX_SETTINGS_CONF_OPTS = \
	-DTAVIX_BUILD_TESTS=OFF \
	-DTAVIX_BUILD_EXAMPLES=OFF \
	-DSCDOC=OFF

ifeq ($(BR2_PACKAGE_TAVIX_SETTINGS_SERVER),y)
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_PROGRAMS=ON

define TAVIX_SETTINGS_USERS
	tavix-settings -1 tavix-settings -1 * /var/lib/tavix-settings - - Settings of this device
endef

define TAVIX_SETTINGS_PERMISSIONS
	/var/lib/tavix-settings d 700 tavix-settings tavix-settings - - - - -
endef

# "cmake --install" has put the units and /etc/init.d/tavix-settings-server in place; Buildroot's init scripts have
# numbers, and a system with systemd has none.
define TAVIX_SETTINGS_INSTALL_INIT_SYSV
	mv $(TARGET_DIR)/etc/init.d/tavix-settings-server \
		$(TARGET_DIR)/etc/init.d/S20tavix-settings-server
	$(TAVIX_SETTINGS_INSTALL_WEB_INIT_SYSV)
endef

define TAVIX_SETTINGS_INSTALL_INIT_SYSTEMD
	rm -f $(TARGET_DIR)/etc/init.d/tavix-settings-server \
		$(TARGET_DIR)/etc/default/tavix-settings-server \
		$(TARGET_DIR)/etc/init.d/tavix-settings-web
endef
else
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_PROGRAMS=OFF
endif

ifeq ($(BR2_PACKAGE_TAVIX_SETTINGS_COMMAND),y)
TAVIX_SETTINGS_DEPENDENCIES += cli11 json-for-modern-cpp
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_CLI=ON
else
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_CLI=OFF
endif

# Its page holds htm, which is under Apache-2.0, and preact, which is under MIT.
ifeq ($(BR2_PACKAGE_TAVIX_SETTINGS_WEB),y)
TAVIX_SETTINGS_LICENSE += , Apache-2.0 (htm)
TAVIX_SETTINGS_LICENSE_FILES += \
	programs/web/page/vendor/LICENSE-htm.txt \
	programs/web/page/vendor/LICENSE-preact.txt
TAVIX_SETTINGS_DEPENDENCIES += json-for-modern-cpp libargon2 libevent zlib
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_WEB=ON

define TAVIX_SETTINGS_INSTALL_WEB_INIT_SYSV
	mv $(TARGET_DIR)/etc/init.d/tavix-settings-web \
		$(TARGET_DIR)/etc/init.d/S30tavix-settings-web
endef
else
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_WEB=OFF
endif

ifeq ($(BR2_PACKAGE_TAVIX_SETTINGS_BRIDGE_MQTT),y)
TAVIX_SETTINGS_DEPENDENCIES += json-for-modern-cpp mosquitto sqlite
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_BRIDGE_MQTT=ON
else
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_BRIDGE_MQTT=OFF
endif

ifeq ($(BR2_PACKAGE_TAVIX_SETTINGS_BRIDGE_ETCD),y)
TAVIX_SETTINGS_DEPENDENCIES += json-for-modern-cpp libcurl sqlite
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_BRIDGE_ETCD=ON
else
TAVIX_SETTINGS_CONF_OPTS += -DTAVIX_BUILD_BRIDGE_ETCD=OFF
endif

$(eval $(cmake-package))
