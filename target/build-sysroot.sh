#!/usr/bin/env bash
# Builds the MIPS (32-bit big-endian, glibc) library sysroot that the daemon
# links against: cJSON, OpenSSL and miniupnpc, cross-compiled with Debian's
# mips-linux-gnu toolchain from Debian's own source packages (apt-get source).
#
# Result: $KORVAT_MIPS_SYSROOT/usr/{include,lib,lib/pkgconfig}, .pc files with
# prefix=/usr (use PKG_CONFIG_SYSROOT_DIR, as cmake/toolchain-mips-linux-gnu.cmake
# does). Idempotent: a complete sysroot (stamp file + key files) is left alone.
# From an empty cache: about 3 minutes on two idle cores (5.5 minutes of
# CPU, OpenSSL most of it), 16 MB of Debian sources (apt-get source), 140 MB
# of scratch space removed at the end, 17 MB kept.  When apt has no deb-src
# entry it adds /etc/apt/sources.list.d/korvat-cloud-src.sources and runs
# apt-get update (about 10 MB of source indexes).
#
# Usage: target/build-sysroot.sh        (settings in the environment)
#
# Environment:
#   KORVAT_MIPS_SYSROOT  output dir   (default /var/cache/korvat-cloud/mips-sysroot)
#   KORVAT_MIPS_WORKDIR  scratch dir  (default <sysroot>.work, removed on success)
#   KORVAT_MIPS_CFLAGS   target flags (default -march=mips32r2)
#   KORVAT_KEEP_WORKDIR=1  keep sources/objects after a successful build
#   JOBS                 parallel make jobs (default: nproc)
#   FORCE=1              rebuild even if the sysroot is complete
set -euo pipefail
case "${1:-}" in
-h | --help) sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'; exit 0 ;;
esac

SYSROOT=${KORVAT_MIPS_SYSROOT:-/var/cache/korvat-cloud/mips-sysroot}
SYSROOT=${SYSROOT%/}
WORK=${KORVAT_MIPS_WORKDIR:-$SYSROOT.work}
TRIPLE=mips-linux-gnu
TARGET_CFLAGS=${KORVAT_MIPS_CFLAGS:--march=mips32r2}
JOBS=${JOBS:-$(nproc 2>/dev/null || echo 2)}
STAMP=$SYSROOT/.korvat-sysroot.stamp
# Bump when the recipe changes so existing caches get rebuilt.
RECIPE=3

T0=$(date +%s)
say() { printf '[sysroot %4ss] %s\n' "$(( $(date +%s) - T0 ))" "$*"; }
die() { say "ERROR: $*" >&2; exit 1; }

# Runs a build step with its output in a log file; shows the tail on failure.
step() {
    local log=$1; shift
    if ! "$@" >"$log" 2>&1; then
        say "step failed: $*"
        tail -n 40 "$log" >&2 || true
        die "see $log"
    fi
}

key_files() {
    echo "$SYSROOT/usr/include/cjson/cJSON.h"
    echo "$SYSROOT/usr/include/openssl/ssl.h"
    echo "$SYSROOT/usr/include/miniupnpc/miniupnpc.h"
    echo "$SYSROOT/usr/lib/libcjson.so"
    echo "$SYSROOT/usr/lib/libssl.so"
    echo "$SYSROOT/usr/lib/libcrypto.so"
    echo "$SYSROOT/usr/lib/libminiupnpc.so"
    echo "$SYSROOT/usr/lib/pkgconfig/libcjson.pc"
    echo "$SYSROOT/usr/lib/pkgconfig/openssl.pc"
    echo "$SYSROOT/usr/lib/pkgconfig/miniupnpc.pc"
}

sysroot_complete() {
    [ -f "$STAMP" ] || return 1
    grep -qx "recipe=$RECIPE" "$STAMP" || return 1
    grep -qx "cflags=$TARGET_CFLAGS" "$STAMP" || return 1
    local f
    for f in $(key_files); do [ -e "$f" ] || return 1; done
}

if [ "${FORCE:-0}" != 1 ] && sysroot_complete; then
    say "sysroot up to date: $SYSROOT ($(grep '^sources=' "$STAMP" | cut -d= -f2-))"
    exit 0
fi

mkdir -p "$(dirname "$SYSROOT")"
# One builder at a time (a developer shell and CI may share the cache).
if command -v flock >/dev/null 2>&1; then
    exec 9>"$SYSROOT.lock"
    say "waiting for lock $SYSROOT.lock"
    flock 9
    if [ "${FORCE:-0}" != 1 ] && sysroot_complete; then
        say "sysroot became complete while waiting: $SYSROOT"
        exit 0
    fi
fi

say "building MIPS sysroot in $SYSROOT (jobs=$JOBS, cflags=$TARGET_CFLAGS)"

# --- host tools ------------------------------------------------------------
need_pkgs=""
command -v $TRIPLE-gcc >/dev/null || need_pkgs+=" gcc-$TRIPLE"
command -v $TRIPLE-g++ >/dev/null || need_pkgs+=" g++-$TRIPLE"
command -v cmake       >/dev/null || need_pkgs+=" cmake"
command -v make        >/dev/null || need_pkgs+=" make"
command -v perl        >/dev/null || need_pkgs+=" perl"
command -v pkg-config  >/dev/null || need_pkgs+=" pkg-config"
command -v dpkg-source >/dev/null || need_pkgs+=" dpkg-dev"
if [ -n "$need_pkgs" ]; then
    [ "$(id -u)" = 0 ] || die "missing host packages:$need_pkgs (install them as root)"
    say "installing host packages:$need_pkgs"
    apt-get update -q >/dev/null
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $need_pkgs >/dev/null
fi

# --- deb-src ---------------------------------------------------------------
have_deb_src() {
    grep -qsE '^[[:space:]]*deb-src[[:space:]]' /etc/apt/sources.list /etc/apt/sources.list.d/*.list && return 0
    grep -qsE '^[[:space:]]*Types:.*deb-src' /etc/apt/sources.list.d/*.sources && return 0
    return 1
}
if ! have_deb_src; then
    [ "$(id -u)" = 0 ] || die "no deb-src entry in apt sources; add one (as root) and re-run"
    src_list=/etc/apt/sources.list.d/korvat-cloud-src.sources
    if [ -f /etc/apt/sources.list.d/debian.sources ]; then
        say "enabling deb-src: $src_list (from debian.sources)"
        sed -E 's/^Types:.*/Types: deb-src/' /etc/apt/sources.list.d/debian.sources >"$src_list"
    elif grep -qsE '^[[:space:]]*deb[[:space:]]' /etc/apt/sources.list; then
        src_list=/etc/apt/sources.list.d/korvat-cloud-src.list
        say "enabling deb-src: $src_list (from sources.list)"
        grep -E '^[[:space:]]*deb[[:space:]]' /etc/apt/sources.list | sed -E 's/^[[:space:]]*deb[[:space:]]/deb-src /' >"$src_list"
    else
        die "cannot find a Debian apt source to derive a deb-src entry from"
    fi
    say "apt-get update"
    apt-get update -q >/dev/null
fi
src_index=$(apt-cache showsrc cjson 2>/dev/null || true)
if ! grep -q '^Package:' <<<"$src_index"; then
    [ "$(id -u)" = 0 ] || die "apt source index empty; run apt-get update as root"
    say "apt-get update (no source index yet)"
    apt-get update -q >/dev/null
fi

# --- fetch ------------------------------------------------------------------
# Staging tree: built into $SYSROOT.new, moved into place at the end, so a
# half-built sysroot never looks complete.
STAGE=$SYSROOT.new
# Per-package "done" markers only count together with the stage they went into.
[ -d "$STAGE" ] || rm -f "$WORK"/build/*.done
mkdir -p "$WORK/src" "$WORK/build" "$WORK/logs" "$STAGE"
LOGS=$WORK/logs
SRC_VERSIONS=""

# fetch PKG -> sets SRCDIR. Tries the default candidate first, then every
# source version apt knows about (newest first): a mirror may lack the
# newest one.
fetch() {
    local pkg=$1 dir ver extracted
    dir=$WORK/src/$pkg
    if [ -f "$dir/.fetched" ]; then
        SRCDIR=$(cat "$dir/.fetched")
        SRC_VERSIONS+=" $(basename "$SRCDIR")"
        return 0
    fi
    rm -rf "$dir"; mkdir -p "$dir"
    say "fetching $pkg source (apt-get source)"
    if ! (cd "$dir" && apt-get source -q "$pkg" >"$LOGS/$pkg-fetch.log" 2>&1); then
        local ok=0
        for ver in $(apt-cache showsrc "$pkg" | awk '/^Version:/{print $2}' | sort -Vru); do
            say "  default $pkg source unavailable, trying $pkg=$ver"
            find "$dir" -mindepth 1 -delete
            if (cd "$dir" && apt-get source -q "$pkg=$ver" >>"$LOGS/$pkg-fetch.log" 2>&1); then
                ok=1; break
            fi
        done
        [ $ok = 1 ] || { tail -n 20 "$LOGS/$pkg-fetch.log" >&2; die "could not fetch $pkg source"; }
    fi
    extracted=$(find "$dir" -mindepth 1 -maxdepth 1 -type d | head -n 1)
    [ -n "$extracted" ] || die "apt-get source $pkg did not unpack a directory"
    echo "$extracted" >"$dir/.fetched"
    SRCDIR=$extracted
    SRC_VERSIONS+=" $(basename "$SRCDIR")"
}

# Common CMake arguments for cross-building a C library into the stage.
cmake_cross() {
    cmake -S "$1" -B "$2" \
        -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=mips \
        -DCMAKE_C_COMPILER=$TRIPLE-gcc \
        -DCMAKE_C_FLAGS="$TARGET_CFLAGS" \
        -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib \
        -DCMAKE_FIND_ROOT_PATH=/usr/$TRIPLE \
        -DCMAKE_FIND_ROOT_PATH_MODE_PROGRAM=NEVER \
        -DCMAKE_FIND_ROOT_PATH_MODE_LIBRARY=ONLY \
        -DCMAKE_FIND_ROOT_PATH_MODE_INCLUDE=ONLY \
        "${@:3}"
}

# --- cJSON ------------------------------------------------------------------
fetch cjson
if [ ! -f "$WORK/build/cjson.done" ]; then
    say "building cJSON ($(basename "$SRCDIR"))"
    B=$WORK/build/cjson; rm -rf "$B"
    step "$LOGS/cjson-configure.log" cmake_cross "$SRCDIR" "$B" \
        -DBUILD_SHARED_LIBS=ON -DENABLE_CJSON_TEST=OFF -DENABLE_CJSON_UTILS=OFF
    step "$LOGS/cjson-build.log" make -C "$B" -j"$JOBS"
    step "$LOGS/cjson-install.log" make -C "$B" install DESTDIR="$STAGE"
    touch "$WORK/build/cjson.done"
fi

# --- miniupnpc --------------------------------------------------------------
fetch miniupnpc
if [ ! -f "$WORK/build/miniupnpc.done" ]; then
    say "building miniupnpc ($(basename "$SRCDIR"))"
    B=$WORK/build/miniupnpc; rm -rf "$B"
    step "$LOGS/miniupnpc-configure.log" cmake_cross "$SRCDIR" "$B" \
        -DUPNPC_BUILD_STATIC=OFF -DUPNPC_BUILD_SHARED=ON \
        -DUPNPC_BUILD_TESTS=OFF -DUPNPC_BUILD_SAMPLE=OFF
    step "$LOGS/miniupnpc-build.log" make -C "$B" -j"$JOBS"
    step "$LOGS/miniupnpc-install.log" make -C "$B" install DESTDIR="$STAGE"
    touch "$WORK/build/miniupnpc.done"
fi

# --- OpenSSL ----------------------------------------------------------------
# Libraries, headers and .pc files only (build_libs / install_dev): no
# openssl program, tests, docs, engines or providers installed.
fetch openssl
if [ ! -f "$WORK/build/openssl.done" ]; then
    say "building OpenSSL ($(basename "$SRCDIR")) - the long one, ~2 min on 2 cores"
    # Out-of-tree build keeps the unpacked source pristine for re-runs.
    B=$WORK/build/openssl; rm -rf "$B"; mkdir -p "$B"
    # shellcheck disable=SC2086
    step "$LOGS/openssl-configure.log" sh -c "cd '$B' && perl '$SRCDIR/Configure' linux-mips32 \
        shared no-tests \
        --prefix=/usr --libdir=lib --openssldir=/etc/ssl \
        --cross-compile-prefix=$TRIPLE- $TARGET_CFLAGS"
    step "$LOGS/openssl-build.log" make -C "$B" -j"$JOBS" build_libs
    step "$LOGS/openssl-install.log" make -C "$B" install_dev DESTDIR="$STAGE"
    touch "$WORK/build/openssl.done"
fi

# --- check & publish ----------------------------------------------------------
say "checking staged sysroot"
for f in $(key_files); do
    f=$STAGE${f#"$SYSROOT"}
    [ -e "$f" ] || die "missing after build: $f"
done
for lib in libcjson.so libssl.so libcrypto.so libminiupnpc.so; do
    file -L "$STAGE/usr/lib/$lib" | grep -q 'ELF 32-bit MSB.*MIPS' \
        || die "$lib is not a 32-bit big-endian MIPS library: $(file -L "$STAGE/usr/lib/$lib")"
done
PKG_CONFIG_LIBDIR=$STAGE/usr/lib/pkgconfig PKG_CONFIG_SYSROOT_DIR=$STAGE PKG_CONFIG_PATH="" \
    pkg-config --exists libcjson openssl miniupnpc || die "pkg-config cannot resolve the staged .pc files"

{
    echo "recipe=$RECIPE"
    echo "cflags=$TARGET_CFLAGS"
    echo "sources=${SRC_VERSIONS# }"
    echo "built=$(date -u +%Y-%m-%dT%H:%M:%SZ)"
    echo "seconds=$(( $(date +%s) - T0 ))"
} >"$STAGE/.korvat-sysroot.stamp"

rm -rf "$SYSROOT.old"
[ -e "$SYSROOT" ] && mv "$SYSROOT" "$SYSROOT.old"
mv "$STAGE" "$SYSROOT"
rm -rf "$SYSROOT.old"
if [ "${KORVAT_KEEP_WORKDIR:-0}" != 1 ]; then
    rm -rf "$WORK"
fi
say "done: $SYSROOT (${SRC_VERSIONS# })"
