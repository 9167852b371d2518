################################################################################
#
# location_service
#
################################################################################

LOCATION_SERVICE_VERSION = 3.0
LOCATION_SERVICE_SITE = $(call qstrip,$(BR2_PACKAGE_LOCATION_SERVICE_SOURCE))
LOCATION_SERVICE_SITE_METHOD = local
LOCATION_SERVICE_LICENSE = MIT
LOCATION_SERVICE_LICENSE_FILES = LICENSE
LOCATION_SERVICE_INSTALL_STAGING = YES
LOCATION_SERVICE_DEPENDENCIES = host-pkgconf libglib2 sqlite

LOCATION_SERVICE_CONF_OPTS = \
	-DLS_ROOT= \
	-DLS_MANUALS=OFF

ifeq ($(BR2_PACKAGE_LOCATION_SERVICE_LSCTL),y)
LOCATION_SERVICE_DEPENDENCIES += cli11 json-for-modern-cpp ncurses
LOCATION_SERVICE_CONF_OPTS += -DLS_CLIENT=ON \
	-DLS_PYTHON_DIR=$(if $(BR2_PACKAGE_PYTHON3),lib/python$(PYTHON3_VERSION_MAJOR)/site-packages)
else
LOCATION_SERVICE_CONF_OPTS += -DLS_CLIENT=OFF
endif

# As the two sysusers.d files say.
define LOCATION_SERVICE_USERS
	- -1 terminal-bus -1 - - - - Senders on the bus
	- -1 terminal-tools -1 - - - - Tools of the bus
	- -1 terminal-data -1 - - - - Data in /user
	terminal-sal -1 terminal-sal -1 * / - terminal-bus Terminal service 2
	terminal-voip -1 terminal-voip -1 * / - terminal-bus Terminal service 3
	terminal-ws -1 terminal-ws -1 * / - terminal-bus,terminal-data Terminal service 6
	terminal-location -1 terminal-location -1 * / - terminal-data,terminal-bus,terminal-tools Terminal service 8
	terminal-client9 -1 terminal-client9 -1 * / - terminal-bus Terminal service 9
	terminal-ta -1 terminal-ta -1 * / - terminal-bus Terminal service 12
endef

# What is in /run and /user is made at every boot, by the tmpfiles.d files.
define LOCATION_SERVICE_PERMISSIONS
	/etc/terminal.conf f 644 0 0 - - - - -
	/etc/terminal-bus.policy f 644 0 0 - - - - -
	/usr/libexec/location_service/power-lines f 755 0 0 - - - - -
	/usr/libexec/location_service/history-ring f 755 0 0 - - - - -
	/usr/libexec/location_service/health-check f 755 0 0 - - - - -
endef

# CMake installs it, too; this is where Buildroot looks for a service.
define LOCATION_SERVICE_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 644 $(@D)/packaging/systemd/location_service.service \
		$(TARGET_DIR)/usr/lib/systemd/system/location_service.service
endef

$(eval $(cmake-package))
