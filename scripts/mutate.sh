#!/bin/sh
# Mutation check: are the suites able to notice a change of behaviour?
# Applies the source changes listed in tests/mutation/mutants.txt one at a
# time to a private copy of the tree (the working tree is never touched),
# rebuilds what the change affects, runs the tests named for it and tells
# whether they noticed (KILLED) or not (SURVIVED).  A change whose text is
# no longer found exactly once in its file is STALE.  As root on Debian
# bookworm (the end-to-end tests run the agent in the simulated device):
#
# Usage: scripts/mutate.sh [OPTIONS]     (the options: --help)
#
#   scripts/mutate.sh                 # every change of the list
#   scripts/mutate.sh --list          # the list, numbered; nothing runs
#   scripts/mutate.sh --only 3,17     # those changes only
#
# Exit status 0 when every change was noticed, 1 when one survived, was
# stale or did not build, 2 when the unchanged tree fails a listed test.
# Not part of scripts/test.sh; it runs under nice.
set -eu
cd "$(dirname "$0")/.."

for arg in "$@"; do
    case "$arg" in
    -h | --help)
        sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'
        echo
        # the options themselves (argparse prints them and exits; nothing runs)
        exec /usr/bin/python3 scripts/mutate.py --help ;;
    esac
done

exec /usr/bin/python3 -u scripts/mutate.py "$@"
