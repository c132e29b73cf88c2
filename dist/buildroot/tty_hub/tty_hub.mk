################################################################################
#
# tty_hub
#
################################################################################

TTY_HUB_VERSION = 1.0.0
# A checkout beside the Buildroot tree; TTY_HUB_OVERRIDE_SRCDIR in local.mk
# points elsewhere, or set SITE to the project's git server.
TTY_HUB_SITE = $(TOPDIR)/../tty_hub
TTY_HUB_SITE_METHOD = local
TTY_HUB_LICENSE = MIT
TTY_HUB_LICENSE_FILES = LICENSE

# Signature checks of upgrade files (tty_hub -k) take libcrypto.
TTY_HUB_DEPENDENCIES = openssl

# The daemon alone: no tests, no simulators on the target.
TTY_HUB_CONF_OPTS = -DTTY_HUB_TESTS=OFF -DTTY_HUB_TOOLS=OFF -DCMAKE_INSTALL_SYSCONFDIR=/etc \
	-DTTY_HUB_SIGNING=ON

# What the install puts on the target (checked after it, and by the
# project's CI against its own cmake --install).
TTY_HUB_TARGET_FILES = /usr/bin/tty_hub
ifeq ($(BR2_INIT_SYSTEMD),y)
TTY_HUB_CONF_OPTS += -DTTY_HUB_INSTALL_SYSV=OFF
TTY_HUB_TARGET_FILES += /usr/lib/systemd/system/tty_hub@.service
else
TTY_HUB_CONF_OPTS += -DTTY_HUB_INSTALL_SYSTEMD=OFF
TTY_HUB_TARGET_FILES += /etc/init.d/S90tty_hub
endif

define TTY_HUB_CHECK_TARGET_FILES
	$(foreach f,$(TTY_HUB_TARGET_FILES),test -e $(TARGET_DIR)$(f) || { echo "tty_hub: $(f) not installed"; exit 1; }$(sep))
endef
TTY_HUB_POST_INSTALL_TARGET_HOOKS += TTY_HUB_CHECK_TARGET_FILES

# One instance per port.
define TTY_HUB_INSTALL_INIT_SYSTEMD
	mkdir -p $(TARGET_DIR)/usr/lib/systemd/system/multi-user.target.wants
	ln -sf ../tty_hub@.service $(TARGET_DIR)/usr/lib/systemd/system/multi-user.target.wants/tty_hub@ttyS1.service
	ln -sf ../tty_hub@.service $(TARGET_DIR)/usr/lib/systemd/system/multi-user.target.wants/tty_hub@ttyS2.service
endef

$(eval $(cmake-package))
