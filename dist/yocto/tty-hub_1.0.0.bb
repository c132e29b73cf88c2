SUMMARY = "Serial link daemon of the S8137 audio SoC"
DESCRIPTION = "tty_hub carries the MCU's frames (/dev/ttyS1) and the DSP tuning \
tool's lines (/dev/ttyS2) to the DSP service, and runs the firmware upgrades."
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=ae5040b68fb55724d69c10103706f8b9"

# Built from a checkout of the repository: TTY_HUB_SRC (local.conf) names it,
# by default one beside the build directory. For a release, replace these
# lines with SRC_URI and SRCREV of the project's git server.
TTY_HUB_SRC ??= "${TOPDIR}/../tty_hub"
inherit externalsrc
EXTERNALSRC = "${TTY_HUB_SRC}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

inherit cmake systemd update-rc.d

# Signature checks of upgrade files (tty_hub -k) take libcrypto.
DEPENDS = "openssl"

# The daemon alone: no tests, no simulators on the target.
EXTRA_OECMAKE = "-DTTY_HUB_TESTS=OFF -DTTY_HUB_TOOLS=OFF -DTTY_HUB_SIGNING=ON \
    -DTTY_HUB_SYSTEMD_UNIT_DIR=${systemd_system_unitdir} \
    -DTTY_HUB_INSTALL_SYSTEMD=${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'ON', 'OFF', d)} \
    -DTTY_HUB_INSTALL_SYSV=${@bb.utils.contains('DISTRO_FEATURES', 'sysvinit', 'ON', 'OFF', d)}"

FILES:${PN} = "${bindir}/tty_hub ${sysconfdir}/init.d/S90tty_hub ${systemd_system_unitdir}/tty_hub@.service"

# One instance per port.
SYSTEMD_SERVICE:${PN} = "tty_hub@ttyS1.service tty_hub@ttyS2.service"
INITSCRIPT_NAME = "S90tty_hub"
INITSCRIPT_PARAMS = "defaults 90"
