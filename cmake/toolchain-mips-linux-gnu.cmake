# CMake toolchain for the access point target: 32-bit big-endian MIPS, glibc,
# using Debian's mips-linux-gnu cross compilers (gcc-mips-linux-gnu,
# g++-mips-linux-gnu).
#
# Libraries (cJSON, OpenSSL, miniupnpc) come from the target library sysroot
# made by target/build-sysroot.sh. Its location is the cache variable
# KORVAT_MIPS_SYSROOT, else the environment variable of the same name, else
# /var/cache/korvat-cloud/mips-sysroot.
#
# Usage:
#   cmake -S . -B build-mips \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mips-linux-gnu.cmake
#
# CMAKE_SYSROOT is deliberately left unset: Debian's cross gcc is built with
# sysroot "/" and keeps its C library in /usr/mips-linux-gnu/{include,lib};
# passing --sysroot=<anything else> makes the linker look for
# <sysroot>/usr/mips-linux-gnu/lib/libc.so.6 and fail. Both the toolchain's
# own target tree and the library sysroot are searched through
# CMAKE_FIND_ROOT_PATH instead, and pkg-config is pointed at the library
# sysroot only.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

set(KORVAT_MIPS_TRIPLE mips-linux-gnu)
set(KORVAT_MIPS_TOOLCHAIN_ROOT /usr/${KORVAT_MIPS_TRIPLE})

# Library sysroot: cache variable > environment > default.
if(NOT KORVAT_MIPS_SYSROOT)
  if(DEFINED ENV{KORVAT_MIPS_SYSROOT} AND NOT "$ENV{KORVAT_MIPS_SYSROOT}" STREQUAL "")
    set(KORVAT_MIPS_SYSROOT "$ENV{KORVAT_MIPS_SYSROOT}")
  else()
    set(KORVAT_MIPS_SYSROOT /var/cache/korvat-cloud/mips-sysroot)
  endif()
endif()
set(KORVAT_MIPS_SYSROOT "${KORVAT_MIPS_SYSROOT}" CACHE PATH
    "Target library sysroot made by target/build-sysroot.sh")
# try_compile() projects re-read this file; hand the value over to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KORVAT_MIPS_SYSROOT)

if(NOT EXISTS "${KORVAT_MIPS_SYSROOT}/usr/lib/pkgconfig")
  message(WARNING
    "MIPS library sysroot not found at ${KORVAT_MIPS_SYSROOT}; "
    "run target/build-sysroot.sh first (or set KORVAT_MIPS_SYSROOT).")
endif()

set(CMAKE_C_COMPILER   ${KORVAT_MIPS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KORVAT_MIPS_TRIPLE}-g++)
find_program(CMAKE_AR      ${KORVAT_MIPS_TRIPLE}-ar)
find_program(CMAKE_RANLIB  ${KORVAT_MIPS_TRIPLE}-ranlib)
find_program(CMAKE_STRIP   ${KORVAT_MIPS_TRIPLE}-strip)
find_program(CMAKE_OBJCOPY ${KORVAT_MIPS_TRIPLE}-objcopy)

# Target headers/libraries only from these trees; programs from the host.
set(CMAKE_FIND_ROOT_PATH "${KORVAT_MIPS_SYSROOT}" "${KORVAT_MIPS_TOOLCHAIN_ROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Indirect shared-library dependencies (libssl -> libcrypto) resolve at link
# time from the library sysroot.
set(CMAKE_EXE_LINKER_FLAGS_INIT    "-Wl,-rpath-link,${KORVAT_MIPS_SYSROOT}/usr/lib")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${KORVAT_MIPS_SYSROOT}/usr/lib")

# pkg-config: see only the target .pc files, and prefix their -I/-L paths
# with the sysroot (the .pc files say prefix=/usr, as on the device).
set(ENV{PKG_CONFIG_LIBDIR} "${KORVAT_MIPS_SYSROOT}/usr/lib/pkgconfig:${KORVAT_MIPS_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KORVAT_MIPS_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")
set(PKG_CONFIG_USE_CMAKE_PREFIX_PATH OFF)

# Target programs built here (the unit tests) run under qemu-mips user
# emulation; CTest and gtest_discover_tests prefix them with this.
find_program(KORVAT_QEMU_MIPS NAMES qemu-mips qemu-mips-static)
if(KORVAT_QEMU_MIPS)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${KORVAT_QEMU_MIPS}
      -L ${KORVAT_MIPS_TOOLCHAIN_ROOT}
      -E LD_LIBRARY_PATH=${KORVAT_MIPS_SYSROOT}/usr/lib)
endif()
