# Copy recipes-support/ into a layer of yours, and say in its configuration, or in a .bbappend, where the sources are:
# TAVIX_SETTINGS_SOURCE, a git repository as SRC_URI takes it, and TAVIX_SETTINGS_REVISION, the commit.
SUMMARY = "One store of settings for the processes of a device"
DESCRIPTION = "A library, a daemon that keeps settings in layers and tells who subscribed of changes, and a command."
SECTION = "base"
LICENSE = "MIT"
LIC_FILES_CHKSUM = "file://LICENSE;md5=dbb303dc6dfa9c5d243dfb02376cdb38"

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

# The command needs CLI11 and nlohmann-json of meta-oe; man pages need scdoc of the building machine.
PACKAGECONFIG ??= "command"
PACKAGECONFIG[command] = "-DTAVIX_BUILD_CLI=ON,-DTAVIX_BUILD_CLI=OFF,cli11 nlohmann-json"
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
# library.
PACKAGE_BEFORE_PN = "libtavix-settings ${PN}-server"
FILES:libtavix-settings = "${libdir}/libtavix-settings.so.*"
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

SYSTEMD_PACKAGES = "${PN}-server"
SYSTEMD_SERVICE:${PN}-server = "tavix-settings-server.socket tavix-settings-server.service"
INITSCRIPT_PACKAGES = "${PN}-server"
INITSCRIPT_NAME:${PN}-server = "tavix-settings-server"
INITSCRIPT_PARAMS:${PN}-server = "defaults 20"

USERADD_PACKAGES = "${PN}-server"
USERADD_PARAM:${PN}-server = "--system --user-group --no-create-home --home-dir /var/lib/tavix-settings \
    --shell /sbin/nologin tavix-settings"
