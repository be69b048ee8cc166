SUMMARY = "Remote-management agent of the Nimbra access-control panel"
DESCRIPTION = "Management applications read and change the panel's data through it: over TCP, \
through a cloud server, and with discovery on the local network."
SECTION = "net"
LICENSE = "CLOSED"

SRC_URI = "git://git.nimbra.example/nimbra-panel-agent.git;protocol=https;branch=main"
SRCREV = "${AUTOREV}"
S = "${WORKDIR}/git"

DEPENDS = "openssl sqlite3"

inherit cmake systemd update-rc.d

EXTRA_OECMAKE = "-DNIMBRA_TOOLS=OFF -DNIMBRA_UNIT_DIR=${systemd_system_unitdir} -DSCDOC=OFF"

# The classes remove the one that the distribution does not use.
SYSTEMD_SERVICE:${PN} = "nimbra-agent.service"
INITSCRIPT_NAME = "nimbra-agent"
INITSCRIPT_PARAMS = "defaults"

FILES:${PN} = " \
    ${sbindir}/nimbra-agent \
    ${sbindir}/nimbra-panel-check \
    ${systemd_system_unitdir}/nimbra-agent.service \
    ${sysconfdir}/init.d/nimbra-agent \
"
