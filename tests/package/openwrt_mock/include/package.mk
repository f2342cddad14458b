# Minimal stand-in for OpenWrt's include/package.mk: BuildPackage evaluates
# Package/<name> and makes targets that expand the package's defines the
# way the build system does (call, then eval, then the recipe):
#   dumpinfo   prints the package fields and CMAKE_OPTIONS
#   prepare    runs Build/Prepare: by default (Build/Prepare/Default) the
#              release tarball $(DL_DIR)/$(PKG_SOURCE) unpacked into
#              PKG_BUILD_DIR, or with USE_SOURCE_DIR=<checkout> a link to
#              the checkout, as OpenWrt's unpack.mk does
#   configure  runs Build/Configure
#   install    runs Package/<name>/install into $(ROOT)
PKG_BUILD_DIR ?= $(BUILD_DIR)/$(PKG_NAME)$(if $(PKG_VERSION),-$(PKG_VERSION))
PKG_INSTALL_DIR ?= $(PKG_BUILD_DIR)/ipkg-install
PKG_SOURCE_SUBDIR ?= $(PKG_NAME)-$(PKG_VERSION)
PKG_SOURCE ?= $(PKG_SOURCE_SUBDIR).tar.xz

ifdef USE_SOURCE_DIR
define Build/Prepare/Default
	rm -rf $(PKG_BUILD_DIR)
	$(if $(wildcard $(USE_SOURCE_DIR)/*),,@echo "Error: USE_SOURCE_DIR=$(USE_SOURCE_DIR) path not found"; false)
	ln -snf $(USE_SOURCE_DIR) $(PKG_BUILD_DIR)
	touch $(PKG_BUILD_DIR)/.source_dir
endef
else
define Build/Prepare/Default
	mkdir -p $(PKG_BUILD_DIR)
	tar -C $(PKG_BUILD_DIR)/.. -xf $(DL_DIR)/$(PKG_SOURCE)
endef
endif

define Build/Prepare
	$(call Build/Prepare/Default)
endef

define MockTargets
dumpinfo:
	@echo 'Package: $(1)'
	@echo 'Version: $(PKG_VERSION)-$(PKG_RELEASE)'
	@echo 'Source-Proto: $(PKG_SOURCE_PROTO)'
	@echo 'Source-URL: $(PKG_SOURCE_URL)'
	@echo 'Source-Version: $(PKG_SOURCE_VERSION)'
	@echo 'Source: $(PKG_SOURCE)'
	@echo 'Mirror-Hash: $(PKG_MIRROR_HASH)'
	@echo 'Maintainer: $(PKG_MAINTAINER)'
	@echo 'License: $(PKG_LICENSE)'
	@echo 'License-Files: $(PKG_LICENSE_FILES)'
	@echo 'Build-Flags: $(PKG_BUILD_FLAGS)'
	@echo 'Section: $(SECTION)'
	@echo 'Category: $(CATEGORY)'
	@echo 'Title: $(TITLE)'
	@echo 'Depends: $(DEPENDS)'
	@echo 'Install: $(PKG_INSTALL)'
	@echo 'CMake-Binary-Dir: $(CMAKE_BINARY_DIR)'
	@echo 'CMake-Options: $(CMAKE_OPTIONS)'

prepare:
	mkdir -p $(BUILD_DIR)
	rm -rf $(PKG_BUILD_DIR)
	$(Build/Prepare)

configure:
	$(Build/Configure)

install:
	mkdir -p $(ROOT)
	$(call Package/$(1)/install,$(ROOT))
endef

define BuildPackage
  $(eval $(Package/$(1)))
  $(call MockTargets,$(1))
endef
