################################################################################
#
# zentrava-keys
#
################################################################################

# The tree that this directory lies in. It states no licence, hence is not redistributed.
ZENTRAVA_KEYS_VERSION = 1.0.0
ZENTRAVA_KEYS_SITE = $(BR2_EXTERNAL_ZENTRAVA_PATH)/../..
ZENTRAVA_KEYS_SITE_METHOD = local
ZENTRAVA_KEYS_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
ZENTRAVA_KEYS_REDISTRIBUTE = NO
ZENTRAVA_KEYS_INSTALL_STAGING = YES
ZENTRAVA_KEYS_DEPENDENCIES = libxml2 mbedtls
ZENTRAVA_KEYS_CONF_OPTS = \
	-DZENTRAVA_BUILD_EXAMPLES=OFF \
	-DZENTRAVA_BUILD_STATIC=$(if $(BR2_SHARED_STATIC_LIBS),ON,OFF) \
	-DZENTRAVA_XML_CLEANUP=$(if $(BR2_PACKAGE_ZENTRAVA_KEYS_XML_CLEANUP),ON,OFF)

ifeq ($(BR2_PACKAGE_ZENTRAVA_KEYS_TOOL),y)
ZENTRAVA_KEYS_DEPENDENCIES += cli11 json-for-modern-cpp
ZENTRAVA_KEYS_CONF_OPTS += -DZENTRAVA_BUILD_TOOLS=ON \
	-DZENTRAVA_PYTHON_DIR=lib/python$(PYTHON3_VERSION_MAJOR)/site-packages
else
ZENTRAVA_KEYS_CONF_OPTS += -DZENTRAVA_BUILD_TOOLS=OFF
endif

$(eval $(cmake-package))
