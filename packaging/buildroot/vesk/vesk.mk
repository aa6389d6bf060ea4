################################################################################
#
# vesk
#
################################################################################

# VESK_REPOSITORY is the address of the repository, VESK_REVISION a revision.
VESK_VERSION = $(VESK_REVISION)
VESK_SITE = $(VESK_REPOSITORY)
VESK_SITE_METHOD = git
VESK_INSTALL_STAGING = YES
VESK_CONF_OPTS = \
	-DVESK_TESTS=OFF \
	-DVESK_EXAMPLES=OFF \
	-DVESK_WERROR=OFF

ifeq ($(BR2_PACKAGE_AVAHI_LIBAVAHI_CLIENT),y)
VESK_DEPENDENCIES += avahi
VESK_CONF_OPTS += -DVESK_AVAHI=ON
else
VESK_CONF_OPTS += -DVESK_AVAHI=OFF
endif

$(eval $(cmake-package))
