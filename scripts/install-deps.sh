#!/bin/sh
# Installs the Debian packages the build, the simulated device, the tests
# (with the interoperability suite's Node ws and libwebsockets servers, and
# the UPnP gateway of the remote-access tests: miniupnpd with its nftables
# backend, a package that installs no service) and the big-endian MIPS
# target build (cross compilers, qemu-user) need, and the device server's web
# console: aiohttp, jsonschema (the protocol check), Chart.js (Debian's
# libjs-chart.js, served from /usr/share/javascript, never fetched at run
# time), and for its browser test headless Chromium driven by Selenium; and
# the fleet's description files (PyYAML) and report plot (Matplotlib).
# Safe to run again: it only calls apt-get when something is missing, and
# installing needs root (a user who is not root is told what is missing and
# stops here).
#
# Usage: scripts/install-deps.sh [--list]
#   --list   prints the packages, one a line, and exits
set -eu

PACKAGES="build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
libcjson-dev libssl-dev libminiupnpc-dev libgtest-dev
python3 python3-websockets python3-pytest python3-yaml python3-matplotlib
bubblewrap busybox iproute2 openssl procps psmisc
file gcc-mips-linux-gnu g++-mips-linux-gnu qemu-user dpkg-dev
nodejs node-ws libwebsockets-dev
miniupnpd-nftables nftables miniupnpc
python3-aiohttp python3-jsonschema libjs-chart.js python3-selenium chromium chromium-driver"

case "${1:-}" in
"") ;;
-h | --help)
    sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'
    exit 0 ;;
--list)
    for p in $PACKAGES; do echo "$p"; done
    exit 0 ;;
*) echo "usage: scripts/install-deps.sh [--list | --help]" >&2; exit 2 ;;
esac

missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    if [ "$(id -u)" != 0 ]; then
        echo "install-deps: missing Debian packages:$missing" >&2
        echo "install-deps: installing them needs root: run scripts/install-deps.sh as root" \
             "(or apt-get install them)" >&2
        exit 1
    fi
    echo "Installing:$missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    # shellcheck disable=SC2086
    apt-get install -y -q $missing
fi
