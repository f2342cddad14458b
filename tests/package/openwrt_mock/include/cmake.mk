# Minimal stand-in for OpenWrt's include/cmake.mk (CMake packages install
# into PKG_INSTALL_DIR).
PKG_INSTALL:=1
