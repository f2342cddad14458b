#!/bin/sh
# Installs the Debian packages the build, the simulated device, the tests
# (with the interoperability suite's Node ws and libwebsockets servers, and
# the UPnP gateway of the remote-access tests: miniupnpd with its nftables
# backend, a package that installs no service) and the big-endian MIPS
# target build (cross compilers, qemu-user) need.  Safe to run again: it
# only calls apt-get when something is missing.
set -eu

PACKAGES="build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
libcjson-dev libssl-dev libminiupnpc-dev libgtest-dev
python3 python3-websockets python3-pytest bubblewrap busybox iproute2 openssl procps psmisc
file gcc-mips-linux-gnu g++-mips-linux-gnu qemu-user dpkg-dev
nodejs node-ws libwebsockets-dev
miniupnpd-nftables nftables miniupnpc"

missing=""
for p in $PACKAGES; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing="$missing $p"
done
if [ -n "$missing" ]; then
    echo "Installing:$missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -q
    # shellcheck disable=SC2086
    apt-get install -y -q $missing
fi
