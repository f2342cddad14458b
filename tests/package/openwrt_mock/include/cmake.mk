# Minimal stand-in for OpenWrt's include/cmake.mk: CMake packages install
# into PKG_INSTALL_DIR, build in CMAKE_BINARY_DIR (PKG_BUILD_DIR, or its
# CMAKE_BINARY_SUBDIR), and Build/Configure/Default runs cmake there with
# CMAKE_OPTIONS (here with the host's compilers and libraries).
PKG_INSTALL:=1
CMAKE_BINARY_DIR = $(PKG_BUILD_DIR)$(if $(CMAKE_BINARY_SUBDIR),/$(CMAKE_BINARY_SUBDIR))
CMAKE_SOURCE_DIR = $(PKG_BUILD_DIR)$(if $(CMAKE_SOURCE_SUBDIR),/$(CMAKE_SOURCE_SUBDIR))

define Build/Configure/Default
	mkdir -p $(CMAKE_BINARY_DIR)
	cmake -S $(CMAKE_SOURCE_DIR) -B $(CMAKE_BINARY_DIR) \
		-DCMAKE_INSTALL_PREFIX=/usr $(CMAKE_OPTIONS)
endef

define Build/Configure
	$(call Build/Configure/Default)
endef
