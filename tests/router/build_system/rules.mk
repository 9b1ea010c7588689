# Takes the place of a router's build system: just what the package's Makefile uses.
INCLUDE_DIR := $(TOPDIR)/include
CP := cp -fpR
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_DATA := install -m0644
INSTALL_CONF := install -m0600
