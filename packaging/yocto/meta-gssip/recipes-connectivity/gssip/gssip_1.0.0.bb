SUMMARY = "GSSIP messages over a serial line"
DESCRIPTION = "Frames messages, checks them, acknowledges them, and resends once what was not acknowledged"
SECTION = "libs"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

inherit cmake pkgconfig externalsrc

# The sources are the tree that this layer is a part of.
EXTERNALSRC = "${@os.path.abspath(os.path.join(d.getVar('THISDIR'), '../../../../..'))}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

EXTRA_OECMAKE = "\
    -DGSSIP_BUILD_TESTS=OFF \
    -DGSSIP_BUILD_EXAMPLES=OFF \
    -DGSSIP_WERROR=OFF \
    -DCMAKE_SKIP_INSTALL_RPATH=ON \
"

# The programs gssip-demo and gssip-conformance; CLI11 comes from meta-oe.
PACKAGECONFIG ??= ""
PACKAGECONFIG[tools] = "-DGSSIP_BUILD_TOOLS=ON,-DGSSIP_BUILD_TOOLS=OFF,cli11"

# A package for each library; ${PN} brings both.
PACKAGES =+ "libgssipport libgssipsupport ${PN}-tools"
FILES:libgssipport = "${libdir}/libgssipport.so.*"
FILES:libgssipsupport = "${libdir}/libgssipsupport.so.*"
FILES:${PN}-tools = "${bindir}/gssip-* ${datadir}/gssip"
ALLOW_EMPTY:${PN} = "1"
RDEPENDS:${PN} = "libgssipport libgssipsupport"
