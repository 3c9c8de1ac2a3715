################################################################################
#
# varnix
#
################################################################################

VARNIX_VERSION = 1.0.0
VARNIX_SITE = $(call qstrip,$(BR2_PACKAGE_VARNIX_SOURCE_DIRECTORY))
VARNIX_SITE_METHOD = local
# No licence has been chosen yet: everything is reserved by the authors.
VARNIX_LICENSE = PROPRIETARY
VARNIX_REDISTRIBUTE = NO
VARNIX_INSTALL_STAGING = YES
VARNIX_SUPPORTS_IN_SOURCE_BUILD = NO
VARNIX_CONF_OPTS = -DVARNIX_TESTS=OFF -DVARNIX_EXAMPLES=OFF

$(eval $(cmake-package))
