#!/usr/bin/env bash
# Runs MIPS (32-bit big-endian) programs as if they were native, without
# touching the host: a private binfmt_misc instance is mounted inside a new
# user + mount namespace (Linux >= 6.7 gives every user namespace its own),
# qemu-mips is registered there with the F (fix binary) and P (preserve
# argv[0]) flags, and then the given command runs. Executing the MIPS ELF
# directly keeps its name: /proc/PID/comm is the file's basename (e.g.
# "korvat-cloud"), so pgrep, BusyBox killall/pidof and psmisc killall find it.
# Nested sandboxes (bwrap --unshare-user ...) inherit the instance.
#
# Usage:
#   target/qemu-binfmt.sh run [--pid] -- CMD [ARGS...]
#       CMD runs with the registration in place and QEMU_LD_PREFIX set to the
#       guest root. No new PID namespace unless --pid (so a wrapped bwrap
#       keeps its host pid for bwrap --info-fd / nsenter users).
#   target/qemu-binfmt.sh guest-root
#       (Re)creates the guest library root and prints its path.
#   target/qemu-binfmt.sh interpreter
#       Prints the qemu-mips used, fetching it first if need be.
#   target/qemu-binfmt.sh check
#       Exits 0 when this kernel gives a user namespace its own binfmt_misc
#       (Linux 6.7 or later, and one can be mounted here); else prints why
#       in one line and exits 1.  Debian bookworm's own kernel (6.1) has
#       none: run the target's end-to-end suites on a newer kernel
#       (bookworm-backports has one).
#   target/qemu-binfmt.sh selftest [MIPS_BINARY]
#       Proves it: runs a MIPS program named korvat-cloud directly, checks
#       comm, finds and kills it by name (also inside a nested bwrap sandbox),
#       and checks the host's binfmt_misc is the same before and after.
#
# Environment:
#   KORVAT_MIPS_SYSROOT  library sysroot (default /var/cache/korvat-cloud/mips-sysroot)
#   KORVAT_MIPS_GUEST    guest root: lib/ with ld.so.1, libc, libstdc++ and the
#                        sysroot's shared libraries (default <sysroot>/../mips-guest)
#   KORVAT_QEMU          interpreter:
#                        "backports" (default): the static qemu-mips of
#                        bookworm-backports' qemu-user (10.x), fetched once
#                        into <sysroot>/../qemu-backports without installing
#                        it or adding the suite to the host's apt sources.
#                        Bookworm's own qemu 7.2 can leave the child of a
#                        fork() hanging when the program has other threads
#                        running (both of the child's threads wait on a
#                        futex and never reach exec): the agent forks for
#                        every command while its timer, status and socket
#                        threads run, so a request's command could hang.
#                        "system": qemu-mips-static if installed, else
#                        /usr/bin/qemu-mips (dynamic: needs the host's /usr
#                        and /lib64 visible wherever the program runs).
#                        "static": qemu-mips-static from bookworm's
#                        qemu-user-static .deb.  Or a path.
#   KORVAT_KERNEL_RELEASE  the kernel release `check` judges (default:
#                        uname -r), to see the answer for another kernel
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
SYSROOT=${KORVAT_MIPS_SYSROOT:-/var/cache/korvat-cloud/mips-sysroot}
SYSROOT=${SYSROOT%/}
GUEST=${KORVAT_MIPS_GUEST:-$(dirname "$SYSROOT")/mips-guest}
TOOLCHAIN_LIB=/usr/mips-linux-gnu/lib
BINFMT=/proc/sys/fs/binfmt_misc
ENTRY=korvat-mips
# ELF32, big-endian, EM_MIPS (8), ET_EXEC or ET_DYN (same as Debian's qemu-mips entry).
MAGIC='\x7f\x45\x4c\x46\x01\x02\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x08'
MASK='\xff\xff\xff\xff\xff\xff\xff\x00\xfe\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff'

say() { echo "[qemu-binfmt] $*" >&2; }
die() { say "ERROR: $*"; exit 1; }

BACKPORTS="deb http://deb.debian.org/debian bookworm-backports main"

# Fetches qemu-user from bookworm-backports with a private apt list
# directory (the host's sources and package lists stay as they are) and
# keeps its static qemu-mips at $1.  One fetch at a time (flock).
fetch_backports_qemu() {
    local q=$1 dir; dir=$(dirname "$q")
    mkdir -p "$dir"
    exec 9>"$dir/.lock"
    flock 9
    if [ ! -x "$q" ]; then
        say "fetching qemu-mips from bookworm-backports' qemu-user (not installed)"
        local tmp; tmp=$(mktemp -d)
        mkdir -p "$tmp/lists/partial"
        echo "$BACKPORTS" >"$tmp/sources.list"
        local opts=(-q -o Dir::Etc::SourceList="$tmp/sources.list" -o Dir::Etc::SourceParts=/dev/null
                    -o Dir::State::Lists="$tmp/lists" -o APT::Sandbox::User=root)
        apt-get "${opts[@]}" update >/dev/null || die "apt-get update of bookworm-backports failed"
        (cd "$tmp" && apt-get "${opts[@]}" download qemu-user/bookworm-backports >/dev/null) \
            || die "apt-get download qemu-user/bookworm-backports failed"
        dpkg-deb --fsys-tarfile "$tmp"/qemu-user_*.deb | tar -x -C "$tmp" ./usr/bin/qemu-mips
        "$tmp/usr/bin/qemu-mips" --version | head -n 1 >&2
        mv "$tmp/usr/bin/qemu-mips" "$q"
        rm -rf "$tmp"
    fi
    exec 9>&-
}

pick_qemu() {
    local q=${KORVAT_QEMU:-backports}
    if [ "$q" = backports ]; then
        q=$(dirname "$SYSROOT")/qemu-backports/qemu-mips
        [ -x "$q" ] || fetch_backports_qemu "$q"
    elif [ "$q" = static ]; then
        q=$(dirname "$SYSROOT")/qemu-static/qemu-mips-static
        if [ ! -x "$q" ]; then
            say "extracting qemu-mips-static from qemu-user-static.deb (not installed)"
            local tmp; tmp=$(mktemp -d)
            (cd "$tmp" && apt-get download -q qemu-user-static >/dev/null) \
                || die "apt-get download qemu-user-static failed"
            mkdir -p "$(dirname "$q")"
            dpkg-deb --fsys-tarfile "$tmp"/qemu-user-static_*.deb \
                | tar -x -C "$tmp" ./usr/bin/qemu-mips-static
            mv "$tmp/usr/bin/qemu-mips-static" "$q"
            rm -rf "$tmp"
        fi
    elif [ "$q" = system ]; then
        if [ -x /usr/bin/qemu-mips-static ]; then q=/usr/bin/qemu-mips-static; else q=/usr/bin/qemu-mips; fi
    fi
    [ -x "$q" ] || die "no qemu interpreter at $q (apt-get install qemu-user)"
    echo "$q"
}

# Guest root for QEMU_LD_PREFIX: only lib/, so qemu redirects no other
# absolute paths the program opens (/etc, /tmp, /proc stay the real ones).
make_guest_root() {
    [ -f "$SYSROOT/.korvat-sysroot.stamp" ] || "$here/build-sysroot.sh" >&2
    if [ -f "$GUEST/.stamp" ] && [ "$GUEST/.stamp" -nt "$SYSROOT/.korvat-sysroot.stamp" ]; then
        echo "$GUEST"; return
    fi
    rm -rf "$GUEST.new"; mkdir -p "$GUEST.new/lib"
    cp -a "$TOOLCHAIN_LIB"/*.so* "$GUEST.new/lib/"
    cp -a "$SYSROOT"/usr/lib/*.so* "$GUEST.new/lib/"
    touch "$GUEST.new/.stamp"
    rm -rf "$GUEST"; mv "$GUEST.new" "$GUEST"
    echo "$GUEST"
}

# Runs inside the new namespaces: private binfmt_misc, register, exec.
inner() {
    local qemu=$1; shift
    mount -t binfmt_misc binfmt_misc "$BINFMT" || die "cannot mount a private binfmt_misc (kernel $(uname -r); needs >= 6.7)"
    printf ':%s:M::%s:%s:%s:FP' "$ENTRY" "$MAGIC" "$MASK" "$qemu" >"$BINFMT/register"
    exec "$@"
}

# Linux 6.7 gave every user namespace a binfmt_misc instance of its own.
cmd_check() {
    local rel=${KORVAT_KERNEL_RELEASE:-$(uname -r)} major minor
    major=${rel%%.*}
    minor=${rel#*.}
    minor=${minor%%[!0-9]*}
    case "$major.$minor" in
    *[!0-9.]* | .* | *.) echo "kernel $rel: cannot tell its version"; return 1 ;;
    esac
    if [ "$major" -lt 6 ] || { [ "$major" -eq 6 ] && [ "$minor" -lt 7 ]; }; then
        echo "kernel $rel has no private binfmt_misc for a user namespace (Linux 6.7 or later has)"
        return 1
    fi
    if [ -z "${KORVAT_KERNEL_RELEASE:-}" ] &&
        ! unshare --user --map-root-user --mount --propagation private \
            sh -c "mount -t binfmt_misc binfmt_misc $BINFMT" 2>/dev/null; then
        echo "kernel $rel: a private binfmt_misc cannot be mounted here" \
            "(user namespaces or their mounts are not allowed)"
        return 1
    fi
    return 0
}

cmd_run() {
    local pidns=()
    [ "${1:-}" = --pid ] && { pidns=(--pid --fork --mount-proc); shift; }
    [ "${1:-}" = -- ] && shift
    [ $# -gt 0 ] || die "usage: $0 run [--pid] -- CMD [ARGS...]"
    local qemu guest
    qemu=$(pick_qemu)
    guest=$(make_guest_root)
    export QEMU_LD_PREFIX=$guest
    # --map-root-user: uid/gid 0 only. Host files of other owners show as
    # nobody; enough for the agent and bwrap, which map root only as well.
    exec unshare --user --map-root-user --mount --propagation private "${pidns[@]}" \
        "$0" __inner "$qemu" "$@"
}

# Host's own binfmt_misc registrations, read in a throw-away mount namespace
# (as real root; nothing is mounted in the host's namespace).
host_binfmt_state() {
    unshare --mount --propagation private sh -c '
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc 2>/dev/null || { echo "(cannot mount)"; exit 0; }
        cd /proc/sys/fs/binfmt_misc && for f in *; do echo "== $f"; [ "$f" = register ] || cat "$f"; done'
    echo "== host mount table entries:"
    grep binfmt /proc/self/mounts || echo "(none)"
}

cmd_selftest() {
    local bin=${1:-}
    work=$(mktemp -d /tmp/korvat-binfmt.XXXXXX)
    trap 'rm -rf "$work"' EXIT
    if [ -z "$bin" ]; then
        "$here/smoke-test.sh" "$work/korvat-cloud" >&2
    else
        cp "$bin" "$work/korvat-cloud"
    fi
    chmod 755 "$work/korvat-cloud"
    local before after
    before=$(host_binfmt_state)
    say "kernel $(uname -r), interpreter $(pick_qemu)"

    cat >"$work/check.sh" <<'EOF'
# Started as a MIPS "korvat-cloud" that sleeps; must be found and killed by name.
set -u
where=$1; bin=$2; fail=0
"$bin" sleep >"$TMPDIR/out.$where" 2>&1 &
for _ in 1 2 3 4 5 6 7 8 9 10; do grep -q sleeping "$TMPDIR/out.$where" 2>/dev/null && break; sleep 0.3; done
pid=$(pgrep -x korvat-cloud || true)
[ -n "$pid" ] || { echo "[$where] FAIL: pgrep -x korvat-cloud found nothing"; cat "$TMPDIR/out.$where"; exit 1; }
echo "[$where] pid $pid comm=$(cat /proc/$pid/comm) exe=$(readlink /proc/$pid/exe)"
echo "[$where] cmdline: $(tr '\0' ' ' </proc/$pid/cmdline)"
[ "$(cat /proc/$pid/comm)" = korvat-cloud ] || { echo "[$where] FAIL: comm"; fail=1; }
echo "[$where] busybox pidof: $(busybox pidof korvat-cloud || echo none); procps pidof: $(pidof korvat-cloud || echo none)"
busybox killall -9 korvat-cloud || { echo "[$where] FAIL: busybox killall"; fail=1; }
wait 2>/dev/null
if pgrep -x korvat-cloud >/dev/null; then echo "[$where] FAIL: still running"; fail=1
else echo "[$where] busybox killall -9 korvat-cloud: killed"; fi
exit $fail
EOF
    local rc=0
    say "1) private instance: run the MIPS program directly"
    TMPDIR=$work "$0" run --pid -- sh -c '
        set -e
        echo "[ns] registered: $(tr "\n" " " </proc/sys/fs/binfmt_misc/korvat-mips)"
        "$1/korvat-cloud" | sed "s/^/[ns]   /"
        sh "$1/check.sh" ns "$1/korvat-cloud"' sh "$work" || rc=1

    say "2) nested bwrap sandbox (like the simulated device), instance inherited"
    local guest; guest=$(make_guest_root)
    TMPDIR=$work "$0" run -- bwrap --unshare-user --unshare-pid --unshare-ipc --unshare-uts \
        --die-with-parent --new-session --cap-drop ALL \
        --ro-bind /usr /usr --symlink usr/bin /bin --symlink usr/sbin /sbin \
        --symlink usr/lib /lib --symlink usr/lib64 /lib64 \
        --proc /proc --remount-ro /proc --dev /dev --tmpfs /tmp --tmpfs /var \
        --ro-bind "$guest" "$guest" --bind "$work" /work \
        --ro-bind "$work/korvat-cloud" /opt/korvat/korvat-cloud \
        --setenv TMPDIR /work --setenv PATH /opt/korvat:/usr/sbin:/usr/bin \
        -- sh /work/check.sh bwrap korvat-cloud || rc=1

    say "3) without the private instance the host cannot run it (nothing registered there)"
    if "$work/korvat-cloud" >/dev/null 2>&1; then
        say "   note: host executed it directly (host has its own MIPS registration)"
    else
        say "   host exec fails as expected: $("$work/korvat-cloud" 2>&1 | head -n1 || true)"
    fi

    after=$(host_binfmt_state)
    if [ "$before" = "$after" ]; then
        say "4) host binfmt_misc unchanged:"; echo "$after" | sed 's/^/      /' >&2
    else
        say "4) FAIL: host binfmt_misc changed"; diff <(echo "$before") <(echo "$after") >&2 || true; rc=1
    fi
    [ $rc = 0 ] && say "selftest OK" || say "selftest FAILED"
    return $rc
}

case "${1:-}" in
    -h | --help) sed -n '2,/^set -euo/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'; exit 0 ;;
    check) cmd_check ;;
    run) shift; cmd_run "$@" ;;
    guest-root) make_guest_root ;;
    interpreter) pick_qemu ;;
    selftest) shift; cmd_selftest "$@" ;;
    __inner) shift; inner "$@" ;;
    *) sed -n '2,/^set -euo/p' "$0" | sed '$d'; exit 2 ;;
esac
