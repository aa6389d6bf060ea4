# Yocto: put this file into a layer, and define VESK_REPOSITORY, the address of the repository, and VESK_REVISION.
SUMMARY = "Operating-system abstraction layer for embedded Linux"
SECTION = "libs"
LICENSE = "CLOSED"

SRC_URI = "git://${VESK_REPOSITORY};branch=main"
SRCREV = "${VESK_REVISION}"
S = "${WORKDIR}/git"

inherit cmake

EXTRA_OECMAKE = "-DVESK_TESTS=OFF -DVESK_EXAMPLES=OFF -DVESK_WERROR=OFF"

PACKAGECONFIG ??= ""
PACKAGECONFIG[avahi] = "-DVESK_AVAHI=ON,-DVESK_AVAHI=OFF,avahi,avahi-daemon"

# The plug-in for service discovery, and GDB's view of the types.
PACKAGES =+ "${PN}-avahi"
FILES:${PN}-avahi = "${libdir}/libvesk-avahi.so.*"
FILES:${PN}-dev += "${datadir}/gdb"
