# The recipe builds the tree that it lies in: name it in the BBFILES of a layer's layer.conf, or of
# local.conf. Needs meta-oe, for mbed TLS and what the tool is built with.

SUMMARY = "Key store, key driver and P-256 engine for a secure device's host"
DESCRIPTION = "A library that keeps the keys of device identities in XML key store files and uses them: \
HMAC-SHA256 tags, session keys, ECDSA signatures and ECDH on P-256. With a tool that looks after the stores."
SECTION = "libs"

# The tree states no licence. CLOSED is what BitBake calls that, and it asks for no licence file then.
LICENSE = "CLOSED"

DEPENDS = "libxml2 mbedtls"

inherit cmake externalsrc pkgconfig python3-dir

EXTERNALSRC = "${THISDIR}/../.."

PACKAGECONFIG ??= "tools xml-cleanup"
PACKAGECONFIG[tools] = "-DZENTRAVA_BUILD_TOOLS=ON,-DZENTRAVA_BUILD_TOOLS=OFF,cli11 nlohmann-json"
PACKAGECONFIG[static] = "-DZENTRAVA_BUILD_STATIC=ON,-DZENTRAVA_BUILD_STATIC=OFF"
PACKAGECONFIG[xml-cleanup] = "-DZENTRAVA_XML_CLEANUP=ON,-DZENTRAVA_XML_CLEANUP=OFF"
EXTRA_OECMAKE = "-DZENTRAVA_BUILD_EXAMPLES=OFF -DZENTRAVA_PYTHON_DIR=${PYTHON_SITEPACKAGES_DIR}"

# The library itself, its headers, its static form and the documentation are where BitBake looks for them.
PACKAGES =+ "zentrava-keystore python3-zentrava-keys"
FILES:zentrava-keystore = " \
    ${bindir}/zentrava-keystore \
    ${datadir}/zentrava \
    ${datadir}/bash-completion \
    ${datadir}/zsh \
    ${datadir}/fish \
"

FILES:python3-zentrava-keys = "${PYTHON_SITEPACKAGES_DIR}/zentrava_keys"
RDEPENDS:python3-zentrava-keys = "${PN} python3-core python3-ctypes"
