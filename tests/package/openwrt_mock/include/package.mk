# Minimal stand-in for OpenWrt's include/package.mk: BuildPackage evaluates
# Package/<name> and makes three targets that expand the package's defines
# the way the build system does (call, then eval, then the recipe):
#   dumpinfo   prints the package fields and CMAKE_OPTIONS
#   prepare    runs Build/Prepare into PKG_BUILD_DIR
#   install    runs Package/<name>/install into $(ROOT)
PKG_BUILD_DIR ?= $(BUILD_DIR)/$(PKG_NAME)$(if $(PKG_VERSION),-$(PKG_VERSION))
PKG_INSTALL_DIR ?= $(PKG_BUILD_DIR)/ipkg-install

define MockTargets
dumpinfo:
	@echo 'Package: $(1)'
	@echo 'Version: $(PKG_VERSION)-$(PKG_RELEASE)'
	@echo 'License: $(PKG_LICENSE)'
	@echo 'Section: $(SECTION)'
	@echo 'Category: $(CATEGORY)'
	@echo 'Title: $(TITLE)'
	@echo 'Depends: $(DEPENDS)'
	@echo 'Install: $(PKG_INSTALL)'
	@echo 'CMake-Options: $(CMAKE_OPTIONS)'

prepare:
	rm -rf $(PKG_BUILD_DIR)
	mkdir -p $(PKG_BUILD_DIR)
	$(Build/Prepare)

install:
	mkdir -p $(ROOT)
	$(call Package/$(1)/install,$(ROOT))
endef

define BuildPackage
  $(eval $(Package/$(1)))
  $(call MockTargets,$(1))
endef
