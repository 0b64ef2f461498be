# SPDX-License-Identifier: Apache-2.0
VNLOG_VERSION = 0.1.0
VNLOG_SITE = $(call qstrip,$(BR2_PACKAGE_VNLOG_SITE))
VNLOG_SITE_METHOD = local
VNLOG_LICENSE = Apache-2.0
VNLOG_LICENSE_FILES = LICENSE
VNLOG_INSTALL_STAGING = YES
VNLOG_ANDROID = $(call qstrip,$(BR2_PACKAGE_VNLOG_ANDROID))
VNLOG_DEPENDENCIES = \
	host-pkgconf json-for-modern-cpp libarchive libdeflate libmd pcre2 zlib \
	$(VNLOG_ANDROID)
VNLOG_CONF_OPTS = \
	-DVNLOG_BUILD_TESTS=OFF \
	-DVNLOG_MANUALS=OFF \
	-DVNLOG_PLATFORM_BINDER=$(if $(BR2_PACKAGE_VNLOG_PLATFORM_BINDER),ON,OFF) \
	-DVNLOG_FILE_WORK=$(if $(BR2_PACKAGE_VNLOG_SHELL_FILE_WORK),shell,process)

ifeq ($(BR2_PACKAGE_SYSTEMD),y)
VNLOG_DEPENDENCIES += systemd
VNLOG_CONF_OPTS += -DVNLOG_SYSTEMD=ON
else
VNLOG_CONF_OPTS += -DVNLOG_SYSTEMD=OFF
endif

ifeq ($(BR2_PACKAGE_VNLOG)$(BR_BUILDING),yy)
ifeq ($(VNLOG_SITE),)
$(error BR2_PACKAGE_VNLOG_SITE is not set: it names a checkout of vnlog)
endif
ifeq ($(VNLOG_ANDROID),)
$(error BR2_PACKAGE_VNLOG_ANDROID is not set: it names your packages of the Android libraries)
endif
endif

define VNLOG_INSTALL_INIT_SYSTEMD
	$(@D)/packaging/device/install --unit /usr/lib/systemd/system $(TARGET_DIR)
endef

define VNLOG_INSTALL_INIT_SYSV
	$(@D)/packaging/device/install --init /etc/init.d/S20vnlog $(TARGET_DIR)
endef

$(eval $(cmake-package))
