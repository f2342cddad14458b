# Minimal stand-in for the OpenWrt build system's rules.mk, enough to
# evaluate the package Makefile on the host: install macros as OpenWrt
# defines them, directories from the make command line.
INCLUDE_DIR:=$(TOPDIR)/include
BUILD_DIR ?= $(TOPDIR)/build
STAGING_DIR ?= $(TOPDIR)/staging
DL_DIR ?= $(TOPDIR)/dl
CP:=cp -fpR
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
INSTALL_CONF:=install -m0600
