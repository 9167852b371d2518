# The location service for a Yocto image: daemon, platform libraries, lsctl. Put it into a layer that depends on
# openembedded-core and meta-oe (cli11, nlohmann-json), and name a checkout of the project in the
# configuration:
#     EXTERNALSRC:pn-location-service = "<directory of the checkout>"
SUMMARY = "GNSS location service of the terminal"
DESCRIPTION = "Owns the terminal's satellite receiver and answers the other services over the message bus."
SECTION = "net"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=5005e8a491fd6235ead895e8375a8855"

DEPENDS = "glib-2.0 sqlite3 cli11 nlohmann-json ncurses"

inherit cmake pkgconfig python3-dir systemd useradd externalsrc features_check

REQUIRED_DISTRO_FEATURES = "systemd"

python () {
    if not d.getVar("EXTERNALSRC"):
        raise bb.parse.SkipRecipe("EXTERNALSRC:pn-location-service must name a checkout of the project")
}

EXTRA_OECMAKE = "\
    -DLS_ROOT= \
    -DLS_CLIENT=ON \
    -DLS_MANUALS=OFF \
    -DLS_UNIT_DIR=${systemd_system_unitdir} \
    -DLS_UDEV_DIR=${nonarch_base_libdir}/udev/rules.d \
    -DLS_PYTHON_DIR=${PYTHON_SITEPACKAGES_DIR} \
"

PACKAGES =+ "terminal-platform liblocation-client lsctl python3-location-client"

# The libraries' names have no version: they belong to the image, not to the development package.
FILES_SOLIBSDEV = "${libdir}/liblocation_client.so"
FILES:terminal-platform = "\
    ${libdir}/libmqutils.so \
    ${libdir}/libdbhandler.so \
    ${libdir}/libdbhandler_admin.so \
    ${libdir}/libzukhal.so \
    ${nonarch_libdir}/sysusers.d/terminal-platform.conf \
    ${nonarch_libdir}/tmpfiles.d/terminal-platform.conf \
    ${sysconfdir}/terminal.conf \
    ${sysconfdir}/terminal-bus.policy \
"
FILES:liblocation-client = "${libdir}/liblocation_client.so.*"
FILES:lsctl = "${bindir}/lsctl ${datadir}/bash-completion ${datadir}/zsh"
FILES:python3-location-client = "${PYTHON_SITEPACKAGES_DIR}/location_client"
FILES:${PN} = "\
    ${sbindir}/location_service \
    ${libexecdir}/location_service \
    ${systemd_system_unitdir}/location_service.service \
    ${systemd_system_unitdir}/location-service-health.service \
    ${systemd_system_unitdir}/location-service-health.timer \
    ${nonarch_libdir}/systemd/system-preset/80-location-service-health.preset \
    ${nonarch_base_libdir}/udev/rules.d/60-location_service.rules \
    ${nonarch_libdir}/sysusers.d/location_service.conf \
    ${nonarch_libdir}/tmpfiles.d/location_service.conf \
"
FILES:${PN}-dev += "${libdir}/cmake"
CONFFILES:terminal-platform = "${sysconfdir}/terminal.conf ${sysconfdir}/terminal-bus.policy"

RDEPENDS:${PN} = "terminal-platform"
RRECOMMENDS:${PN} = "lsctl"
RDEPENDS:python3-location-client = "python3-modules"
RDEPENDS:${PN}-dev = "terminal-platform liblocation-client"

SYSTEMD_SERVICE:${PN} = "location_service.service"

# As the two sysusers.d files say, for images whose root is read-only at the first boot already.
USERADD_PACKAGES = "terminal-platform ${PN}"
GROUPADD_PARAM:terminal-platform = "--system terminal-bus; --system terminal-tools; --system terminal-data"
NO_LOGIN = "--system --no-create-home --home-dir / --shell /sbin/nologin --user-group"
USERADD_PARAM:terminal-platform = "\
    ${NO_LOGIN} --groups terminal-bus terminal-sal; \
    ${NO_LOGIN} --groups terminal-bus terminal-voip; \
    ${NO_LOGIN} --groups terminal-bus,terminal-data terminal-ws; \
    ${NO_LOGIN} --groups terminal-bus terminal-client9; \
    ${NO_LOGIN} --groups terminal-bus terminal-ta \
"
USERADD_PARAM:${PN} = "${NO_LOGIN} --groups terminal-data,terminal-bus,terminal-tools terminal-location"
GROUPADD_PARAM:${PN} = "--system terminal-data; --system terminal-bus; --system terminal-tools"
