# Copy recipes-support/ into a layer of yours, and say in its configuration, or in a .bbappend, where the sources are:
# TAVIX_SETTINGS_SOURCE, a git repository as SRC_URI takes it, and TAVIX_SETTINGS_REVISION, the commit.
SUMMARY = "One store of settings for the processes of a device"
DESCRIPTION = "A library, a daemon that keeps settings in layers and tells who subscribed of changes, and a command; \
on demand an HTTP interface with a page, and bridges to MQTT and etcd."
SECTION = "base"
# The page of the HTTP interface holds htm, which is under Apache-2.0, and preact, which is under MIT.
LICENSE = "MIT & Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=dbb303dc6dfa9c5d243dfb02376cdb38 \
    file://programs/web/page/vendor/LICENSE-htm.txt;md5=fbfb239b0ca40731658f9df604717c4d \
    file://programs/web/page/vendor/LICENSE-preact.txt;md5=11497b3621048be9724baca2ec0d85ee \
"

TAVIX_SETTINGS_SOURCE ??= ""
TAVIX_SETTINGS_REVISION ??= "INVALID"
SRC_URI = "${TAVIX_SETTINGS_SOURCE}"
SRCREV = "${TAVIX_SETTINGS_REVISION}"
S = "${WORKDIR}/git"

python () {
    if not d.getVar("TAVIX_SETTINGS_SOURCE"):
        raise bb.parse.SkipRecipe("TAVIX_SETTINGS_SOURCE does not tell where the sources are")
}

inherit cmake pkgconfig systemd useradd update-rc.d

# CLI11, nlohmann-json and argon2 are of meta-oe, mosquitto is of meta-networking; man pages need scdoc of the building
# machine.
PACKAGECONFIG ??= "command"
PACKAGECONFIG[command] = "-DTAVIX_BUILD_CLI=ON,-DTAVIX_BUILD_CLI=OFF,cli11 nlohmann-json"
PACKAGECONFIG[web] = "-DTAVIX_BUILD_WEB=ON,-DTAVIX_BUILD_WEB=OFF,libevent argon2 zlib nlohmann-json"
PACKAGECONFIG[bridge-mqtt] = "-DTAVIX_BUILD_BRIDGE_MQTT=ON,-DTAVIX_BUILD_BRIDGE_MQTT=OFF,mosquitto sqlite3 nlohmann-json"
PACKAGECONFIG[bridge-etcd] = "-DTAVIX_BUILD_BRIDGE_ETCD=ON,-DTAVIX_BUILD_BRIDGE_ETCD=OFF,curl sqlite3 nlohmann-json"
PACKAGECONFIG[man] = ",-DSCDOC=OFF,scdoc-native"

EXTRA_OECMAKE = "-DCMAKE_BUILD_TYPE=Release -DTAVIX_BUILD_TESTS=OFF -DTAVIX_BUILD_EXAMPLES=OFF"

# Distributions without a merged /usr look for units elsewhere.
do_install:append() {
    if [ "${systemd_system_unitdir}" != "${nonarch_libdir}/systemd/system" ]; then
        install -d ${D}${systemd_system_unitdir}
        mv ${D}${nonarch_libdir}/systemd/system/* ${D}${systemd_system_unitdir}/
        rm -r ${D}${nonarch_libdir}/systemd
    fi
}

# "tavix-settings-server" holds the daemon and what starts it, "tavix-settings" the command, "libtavix-settings" the
# library; "tavix-settings-web", "tavix-settings-bridge-mqtt" and "tavix-settings-bridge-etcd" hold these programs and what
# starts them. The daemon's package also makes the bridges' user and has their directory of configurations.
PACKAGE_BEFORE_PN = "libtavix-settings ${PN}-web ${PN}-bridge-mqtt ${PN}-bridge-etcd ${PN}-server"
FILES:libtavix-settings = "${libdir}/libtavix-settings.so.*"
FILES:${PN}-web = "\
    ${bindir}/tavix-settings-web \
    ${sysconfdir}/init.d/tavix-settings-web \
    ${sysconfdir}/default/tavix-settings-web \
    ${systemd_system_unitdir}/tavix-settings-web.service \
    ${systemd_system_unitdir}/tavix-settings-web.socket \
"
FILES:${PN}-bridge-mqtt = "\
    ${bindir}/tavix-settings-bridge-mqtt \
    ${systemd_system_unitdir}/tavix-settings-bridge-mqtt@.service \
"
FILES:${PN}-bridge-etcd = "\
    ${bindir}/tavix-settings-bridge-etcd \
    ${systemd_system_unitdir}/tavix-settings-bridge-etcd@.service \
"
FILES:${PN}-server = "\
    ${bindir}/tavix-settings-server \
    ${sysconfdir} \
    ${systemd_system_unitdir} \
    ${nonarch_libdir}/sysusers.d \
    ${nonarch_libdir}/tmpfiles.d \
"
FILES:${PN} += "${datadir}/zsh ${datadir}/fish ${datadir}/bash-completion"
ALLOW_EMPTY:${PN} = "1"
CONFFILES:${PN}-server = "${sysconfdir}/tavix-settings/server.conf ${sysconfdir}/default/tavix-settings-server"
CONFFILES:${PN}-web = "${sysconfdir}/default/tavix-settings-web"
LICENSE:${PN}-web = "MIT & Apache-2.0"
LICENSE:${PN}-server = "MIT"
LICENSE:${PN} = "MIT"
LICENSE:libtavix-settings = "MIT"
LICENSE:${PN}-bridge-mqtt = "MIT"
LICENSE:${PN}-bridge-etcd = "MIT"
RDEPENDS:${PN}-bridge-mqtt = "${PN}-server"
RDEPENDS:${PN}-bridge-etcd = "${PN}-server"

# The HTTP interface is left to the device to enable: it decides who gets in. A bridge is enabled by the name of its
# configuration.
SYSTEMD_PACKAGES = "${PN}-server ${@bb.utils.contains('PACKAGECONFIG', 'web', '${PN}-web', '', d)}"
SYSTEMD_SERVICE:${PN}-server = "tavix-settings-server.socket tavix-settings-server.service"
SYSTEMD_SERVICE:${PN}-web = "tavix-settings-web.socket tavix-settings-web.service"
SYSTEMD_AUTO_ENABLE:${PN}-web = "disable"
INITSCRIPT_PACKAGES = "${PN}-server ${@bb.utils.contains('PACKAGECONFIG', 'web', '${PN}-web', '', d)}"
INITSCRIPT_NAME:${PN}-server = "tavix-settings-server"
INITSCRIPT_PARAMS:${PN}-server = "defaults 20"
INITSCRIPT_NAME:${PN}-web = "tavix-settings-web"
INITSCRIPT_PARAMS:${PN}-web = "defaults 30"

USERADD_PACKAGES = "${PN}-server"
USERADD_PARAM:${PN}-server = "--system --user-group --no-create-home --home-dir /var/lib/tavix-settings \
    --shell /sbin/nologin tavix-settings"
