# Builds the tree that this recipe belongs to: add the layer packaging/yocto of it.
SUMMARY = "Local broker of a router's security agent"
DESCRIPTION = "Router software connects to the daemon's Unix socket, sends commands and is told of events."
SECTION = "net"
LICENSE = "CLOSED"

DEPENDS = "dbus fmt jansson lmdb"
# Without it neither orvctl nor orvagentsim is built, and CLI11 is not needed.
PACKAGECONFIG ??= "tools"
PACKAGECONFIG[tools] = "-DORV_BUILD_TOOLS=ON,-DORV_BUILD_TOOLS=OFF,cli11"

inherit cmake pkgconfig systemd externalsrc

EXTERNALSRC = "${@os.path.normpath(d.getVar('THISDIR') + '/../../../..')}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

ORV_ROOT = "/opt/orvane"
EXTRA_OECMAKE = " \
    -DCMAKE_BUILD_TYPE=Release \
    -DORV_ROOT=${ORV_ROOT} \
    -DORV_BUILD_TESTS=OFF \
    -DORV_STATIC_LIBRARIES=OFF \
"

do_install:append() {
    install -d ${D}${systemd_system_unitdir} ${D}${nonarch_libdir}/tmpfiles.d
    install -m 0644 ${D}${ORV_ROOT}/share/orvbrokerd/systemd/orvbrokerd.service ${D}${systemd_system_unitdir}
    install -m 0644 ${D}${ORV_ROOT}/share/orvbrokerd/systemd/orvexchanged.service ${D}${systemd_system_unitdir}
    install -m 0644 ${D}${ORV_ROOT}/share/orvbrokerd/systemd/orvbrokerd.tmpfiles.conf \
        ${D}${nonarch_libdir}/tmpfiles.d/orvbrokerd.conf
    rm -r ${D}${ORV_ROOT}/share/orvbrokerd
}

# orvbrokerd is all that a router needs, orvbrokerd-tools what its administrator is glad of, orvbrokerd-sim what only a
# developer's machine has.
PACKAGES =+ "${PN}-tools ${PN}-sim"

FILES:${PN} = " \
    ${ORV_ROOT}/bin/orvbrokerd \
    ${ORV_ROOT}/bin/orvexchanged \
    ${ORV_ROOT}/etc \
    ${ORV_ROOT}/share/doc/orvbrokerd/NOTICES \
    ${systemd_system_unitdir} \
    ${nonarch_libdir}/tmpfiles.d \
"
FILES:${PN}-tools = " \
    ${ORV_ROOT}/bin/orvctl \
    ${ORV_ROOT}/share/bash-completion \
    ${ORV_ROOT}/share/zsh \
    ${ORV_ROOT}/share/fish \
"
FILES:${PN}-sim = "${ORV_ROOT}/bin/orvagentsim"
FILES:${PN}-doc = "${ORV_ROOT}/share/man"
FILES:${PN}-dev = "${ORV_ROOT}/include ${ORV_ROOT}/lib*/pkgconfig"
FILES:${PN}-staticdev = "${ORV_ROOT}/lib*/*.a"

CONFFILES:${PN} = "${ORV_ROOT}/etc/exchange.conf"
RDEPENDS:${PN} = "dbus util-linux-flock"
SYSTEMD_PACKAGES = "${PN}"
SYSTEMD_SERVICE:${PN} = "orvexchanged.service orvbrokerd.service"
