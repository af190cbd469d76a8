################################################################################
#
# gssip
#
################################################################################

GSSIP_VERSION = 1.0.0
# The sources are the tree that this folder is a part of.
GSSIP_SITE = $(BR2_EXTERNAL_GSSIP_PATH)/../..
GSSIP_SITE_METHOD = local
GSSIP_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build*
GSSIP_LICENSE = Apache-2.0
GSSIP_LICENSE_FILES = LICENSE
GSSIP_INSTALL_STAGING = YES

GSSIP_CONF_OPTS = \
	-DGSSIP_BUILD_TESTS=OFF \
	-DGSSIP_BUILD_EXAMPLES=OFF \
	-DGSSIP_WERROR=OFF \
	-DCMAKE_SKIP_INSTALL_RPATH=ON

ifeq ($(BR2_PACKAGE_GSSIP_TOOLS),y)
GSSIP_DEPENDENCIES += cli11
GSSIP_CONF_OPTS += -DGSSIP_BUILD_TOOLS=ON
else
GSSIP_CONF_OPTS += -DGSSIP_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
