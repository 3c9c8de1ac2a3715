# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

SUMMARY = "Shared key/value tables for the processes and devices of a local network"
DESCRIPTION = "A process makes tables, sets rows in them, and watches single keys or whole tables. The tables of a \
database are shared with the other members of its group, which find each other by UDP broadcast and need no server."
SECTION = "libs"

LICENSE = "BSD-3-Clause"
LIC_FILES_CHKSUM = "file://LICENSE;md5=9fcb23296aa4d286ebaf1af2e04df839"

SRC_URI = "file://varnix-${PV}.tar.gz"

inherit cmake

EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=MinSizeRel -DBUILD_TESTING=OFF -DVARNIX_EXAMPLES=OFF -DVARNIX_C=OFF -DVARNIX_TOOLS=OFF -DVARNIX_WIRESHARK=OFF"

# The file finds its prefix from its own place, and pkg-config would put the sysroot before that once more.
do_install:append() {
    sed -i 's|^prefix=.*|prefix=${prefix}|' ${D}${libdir}/pkgconfig/varnix.pc
}
