################################################################################
#
# nimbra-agent
#
################################################################################

NIMBRA_AGENT_VERSION = 5.0.5
NIMBRA_AGENT_SITE = https://git.nimbra.example/nimbra-panel-agent.git
NIMBRA_AGENT_SITE_METHOD = git
NIMBRA_AGENT_LICENSE = PROPRIETARY
NIMBRA_AGENT_LICENSE_FILES = LICENSE
NIMBRA_AGENT_REDISTRIBUTE = NO
NIMBRA_AGENT_DEPENDENCIES = openssl sqlite
NIMBRA_AGENT_CONF_OPTS = -DNIMBRA_TOOLS=OFF -DSCDOC=OFF

define NIMBRA_AGENT_INSTALL_TARGET_CMDS
	$(INSTALL) -D -m 0755 $(NIMBRA_AGENT_BUILDDIR)/bin/nimbra-agent \
		$(TARGET_DIR)/usr/sbin/nimbra-agent
	$(INSTALL) -D -m 0755 $(NIMBRA_AGENT_BUILDDIR)/bin/nimbra-panel-check \
		$(TARGET_DIR)/usr/sbin/nimbra-panel-check
endef

define NIMBRA_AGENT_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(NIMBRA_AGENT_BUILDDIR)/packaging/nimbra-agent.service \
		$(TARGET_DIR)/usr/lib/systemd/system/nimbra-agent.service
endef

define NIMBRA_AGENT_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(NIMBRA_AGENT_BUILDDIR)/packaging/nimbra-agent.init \
		$(TARGET_DIR)/etc/init.d/S90nimbra-agent
endef

$(eval $(cmake-package))
