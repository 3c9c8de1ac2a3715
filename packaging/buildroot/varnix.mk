# SPDX-FileCopyrightText: 2026 the Varnix authors
# SPDX-License-Identifier: BSD-3-Clause

################################################################################
#
# varnix
#
################################################################################

VARNIX_VERSION = 1.0.0
VARNIX_SITE = $(call qstrip,$(BR2_PACKAGE_VARNIX_SOURCE_DIRECTORY))
VARNIX_SITE_METHOD = local
VARNIX_LICENSE = BSD-3-Clause
VARNIX_LICENSE_FILES = LICENSE
VARNIX_INSTALL_STAGING = YES
VARNIX_SUPPORTS_IN_SOURCE_BUILD = NO
VARNIX_CONF_OPTS = -DVARNIX_EXAMPLES=OFF -DVARNIX_C=OFF -DVARNIX_TOOLS=OFF -DVARNIX_WIRESHARK=OFF

$(eval $(cmake-package))
