"""Helpers of the build suite: the project's commands run as a newcomer
runs them.

Tests marked `root` need root (the simulated device, a user to drop to);
without root they are skipped with the reason, and a file whose tests all
need root ends with status 77, which CTest reports as skipped.

`stubs` puts stand-ins for the commands that install, build or change the
host (apt-get, dpkg-query, cmake, ...) first on PATH: each records its
command line, so a test can tell that nothing of the kind ran.
"""
import os
import shutil
import subprocess
import sys
import tempfile

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.abspath(os.path.join(HERE, "..", ".."))
IS_ROOT = os.geteuid() == 0
NEEDS_ROOT = ("needs root (the simulated device's namespaces and mounts, "
              "or a user to drop to); run the suite as root")
NOBODY = 65534

# Commands that install, build, emulate or make namespaces.
STUBBED = ("apt-get", "apt", "apt-cache", "dpkg-query", "dpkg-source",
           "cmake", "ctest", "ninja", "make", "cc", "gcc", "g++", "clang",
           "clang++", "mips-linux-gnu-gcc", "mips-linux-gnu-g++",
           "mips-linux-gnu-strip", "mips-linux-gnu-readelf",
           "mips-linux-gnu-size", "qemu-mips", "qemu-mips-static",
           "unshare", "nsenter", "bwrap", "ip", "flock", "renice", "sudo",
           "mount", "file")


def pytest_configure(config):
    config.addinivalue_line("markers", "root: the test needs root")


def pytest_collection_modifyitems(config, items):
    config._kc_all_root = bool(items) and all(
        item.get_closest_marker("root") for item in items)
    if IS_ROOT:
        return
    skip = pytest.mark.skip(reason=NEEDS_ROOT)
    for item in items:
        if item.get_closest_marker("root"):
            item.add_marker(skip)


def pytest_sessionfinish(session, exitstatus):
    if (not IS_ROOT and exitstatus == 0 and
            getattr(session.config, "_kc_all_root", False)):
        session.exitstatus = 77


class Stubs:
    """A directory of recording stand-ins, first on PATH."""

    def __init__(self, tmp):
        self.dir = os.path.join(tmp, "stubs")
        self.log = os.path.join(tmp, "stub-calls.log")
        os.makedirs(self.dir)
        os.chmod(tmp, 0o755)
        with open(self.log, "w"):
            pass
        os.chmod(self.log, 0o666)
        for name in STUBBED:
            self.add(name)

    def add(self, name, body="exit 0"):
        """(Re)define stand-in name: it records "name args" and runs body."""
        path = os.path.join(self.dir, name)
        with open(path, "w") as f:
            f.write('#!/bin/sh\necho "%s $*" >> %s\n%s\n' % (name, self.log, body))
        os.chmod(path, 0o755)

    def calls(self):
        with open(self.log) as f:
            return [x for x in f.read().splitlines() if x]

    def env(self, **extra):
        env = dict(os.environ, PATH=self.dir + ":/usr/sbin:/usr/bin:/sbin:/bin",
                   PYTHONDONTWRITEBYTECODE="1")
        env.update(extra)
        return env


@pytest.fixture
def stubs():
    # outside pytest's own temporary directory, which only its owner can
    # enter: the stand-ins must be found when a test drops to nobody
    tmp = tempfile.mkdtemp(prefix="kc-stubs.")
    try:
        yield Stubs(tmp)
    finally:
        shutil.rmtree(tmp)


@pytest.fixture
def open_tmp():
    """A temporary directory anyone may enter and write."""
    tmp = tempfile.mkdtemp(prefix="kc-build-test.")
    os.chmod(tmp, 0o777)
    try:
        yield tmp
    finally:
        shutil.rmtree(tmp, ignore_errors=True)


def run(argv, env=None, as_nobody=False, timeout=120, cwd=ROOT, **kw):
    """Runs argv (as user nobody when asked and possible); returns the
    CompletedProcess with text output."""
    if as_nobody and IS_ROOT:
        argv = ["setpriv", "--reuid=%d" % NOBODY, "--regid=%d" % NOBODY,
                "--clear-groups", "--"] + list(argv)
    return subprocess.run(argv, env=env, cwd=cwd, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, timeout=timeout,
                          **kw)


def copy_tree(dest):
    """A clean copy of the working tree (no build directories, no git)."""
    def ignore(path, names):
        top = os.path.abspath(path) == ROOT
        return [n for n in names
                if n in (".git", "__pycache__", ".pytest_cache") or
                n.endswith(".pyc") or (top and n.startswith("build"))]
    shutil.copytree(ROOT, dest, ignore=ignore, symlinks=True)
    return dest


sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(ROOT, "device"))
