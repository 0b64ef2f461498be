# SPDX-License-Identifier: Apache-2.0
SUMMARY = "Persistent log of the kernel and of Android's log"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# To be set by the integrator, see README.md of this layer. Until then the recipe is skipped, and says why when it is built.
VNLOG_GIT ??= ""
VNLOG_REV ??= ""
VNLOG_ANDROID ??= ""
VNLOG_ANDROID_BINDER ??= ""
python () {
    needed = ["VNLOG_GIT", "VNLOG_REV", "VNLOG_ANDROID"]
    if bb.utils.contains("PACKAGECONFIG", "platform-binder", True, False, d):
        needed.append("VNLOG_ANDROID_BINDER")
    unset = [name for name in needed if not d.getVar(name)]
    if unset:
        raise bb.parse.SkipRecipe("set %s, see README.md in the layer of vnlog" % ", ".join(unset))
}

# With this name, the source lies where the releases look for it by themselves.
SRC_URI = "${VNLOG_GIT};destsuffix=${BP}"
SRCREV = "${VNLOG_REV}"

DEPENDS = "zlib libdeflate nlohmann-json libpcre2 libarchive libmd ${VNLOG_ANDROID}"

inherit cmake pkgconfig bash-completion systemd update-rc.d

# The place of the Android libraries goes into the run path: on the device it is not below the sysroot.
EXTRA_OECMAKE = "-DCMAKE_SYSROOT=${STAGING_DIR_HOST} -DVNLOG_BUILD_TESTS=OFF"
PACKAGECONFIG ??= "platform-binder ${@bb.utils.filter('DISTRO_FEATURES', 'systemd', d)}"
PACKAGECONFIG[platform-binder] = "-DVNLOG_PLATFORM_BINDER=ON,-DVNLOG_PLATFORM_BINDER=OFF,${VNLOG_ANDROID_BINDER}"
PACKAGECONFIG[shell-file-work] = "-DVNLOG_FILE_WORK=shell,-DVNLOG_FILE_WORK=process,,gzip coreutils"
PACKAGECONFIG[manuals] = "-DVNLOG_MANUALS=ON,-DVNLOG_MANUALS=OFF,scdoc-native"
PACKAGECONFIG[systemd] = "-DVNLOG_SYSTEMD=ON,-DVNLOG_SYSTEMD=OFF,systemd"

do_install:append() {
    if ${@bb.utils.contains('PACKAGECONFIG', 'systemd', 'true', 'false', d)}; then
        ${S}/packaging/device/install --unit ${systemd_system_unitdir} ${D}
    else
        ${S}/packaging/device/install --init ${INIT_D_DIR}/vnlog ${D}
    fi
}

SYSTEMD_SERVICE:${PN} = "${@bb.utils.contains('PACKAGECONFIG', 'systemd', 'vnlog.service', '', d)}"
INHIBIT_UPDATERCD_BBCLASS = "${@bb.utils.contains('PACKAGECONFIG', 'systemd', '1', '', d)}"
INITSCRIPT_NAME = "vnlog"
INITSCRIPT_PARAMS = "defaults 20 80"

PACKAGES =+ "liblogservice"
FILES:liblogservice = "${libdir}/liblogservice.so.* ${libdir}/libvnlog_binder.so.*"
FILES:${PN} += "${systemd_system_unitdir}"
CONFFILES:${PN} = "${sysconfdir}/vnlog/log_default.cfg"

# The service ends its threads by cancellation, as glibc does it.
COMPATIBLE_HOST:libc-musl = "null"
