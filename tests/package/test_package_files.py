# The OpenWrt package's files checked on the host: the package Makefile
# (its fields, evaluated with a minimal stand-in of the build system: the
# prepared source tree, the installed files and their modes), the default
# UCI config (parsed by the simulated device's uci) and the service script's
# shape.
import os
import re
import shutil
import subprocess

import pytest

from pkgsupport import (DEFAULT_CONFIG, HERE, INIT_SCRIPT, PKG_DIR, ROOT,
                        read, simdevice)

MAKEFILE = os.path.join(PKG_DIR, "Makefile")
MOCK_TOPDIR = os.path.join(HERE, "openwrt_mock")


def make(target, tmp, **extra):
    args = ["make", "-s", "-C", PKG_DIR, "TOPDIR=" + MOCK_TOPDIR,
            "BUILD_DIR=%s/build" % tmp, "STAGING_DIR=%s/staging" % tmp,
            "DL_DIR=%s/dl" % tmp]
    args += ["%s=%s" % kv for kv in extra.items()]  # (later ones win)
    args.append(target)
    r = subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       text=True)
    assert r.returncode == 0, r.stderr
    return r.stdout


# ---- Makefile, read as text ------------------------------------------------

def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt")) as f:
        return re.search(r"^project\(korvat-cloud VERSION (\S+)", f.read(),
                         re.M).group(1)


def makefile_code():
    return "\n".join(x for x in read(MAKEFILE).splitlines()
                     if not x.startswith("#"))


def test_makefile_structure():
    lines = makefile_code().splitlines()
    code = "\n".join(lines)
    assert lines[[i for i, x in enumerate(lines) if x.strip()][0]] == \
        "include $(TOPDIR)/rules.mk"
    for var, value in (("PKG_NAME", "korvat-cloud"), ("PKG_RELEASE", "1")):
        assert re.search(r"^%s:=%s$" % (var, re.escape(value)), code, re.M)
    for var in ("PKG_VERSION", "PKG_LICENSE", "PKG_LICENSE_FILES",
                "PKG_MAINTAINER"):
        assert re.search(r"^%s:=\S" % var, code, re.M), var
    # every licence file the package names is in the tree
    files = re.search(r"^PKG_LICENSE_FILES:=(.*)$", code, re.M).group(1).split()
    assert files
    for name in files:
        assert os.path.isfile(os.path.join(ROOT, name)), name
    # includes in order: rules.mk, package.mk, cmake.mk, then BuildPackage
    order = [code.index(s) for s in (
        "include $(TOPDIR)/rules.mk", "include $(INCLUDE_DIR)/package.mk",
        "include $(INCLUDE_DIR)/cmake.mk", "define Package/korvat-cloud\n",
        "$(eval $(call BuildPackage,korvat-cloud))")]
    assert order == sorted(order)
    for define in ("Package/korvat-cloud", "Package/korvat-cloud/description",
                   "Package/korvat-cloud/conffiles", "Build/Configure",
                   "Package/korvat-cloud/install"):
        assert re.search(r"^define %s\n(.*\n)*?endef$" % re.escape(define),
                         code, re.M), define
    conffiles = re.search(r"^define Package/korvat-cloud/conffiles\n(.*?)"
                          r"^endef$", code, re.M | re.S).group(1)
    assert conffiles.split() == ["/etc/config/korvatCloud"]
    # recipe lines start with a tab
    for define in ("Build/Configure", "Package/korvat-cloud/install"):
        body = re.search(r"^define %s\n(.*?)^endef$" % re.escape(define),
                         code, re.M | re.S).group(1)
        for line in body.splitlines():
            assert line.startswith("\t"), (define, line)


def test_sources_are_not_copied_from_around_the_package():
    """The sources come from the download or from OpenWrt's own
    USE_SOURCE_DIR / git-src override: the package neither defines
    Build/Prepare nor reaches out of its directory."""
    code = makefile_code()
    assert "define Build/Prepare" not in code
    assert "CURDIR" not in code and "../.." not in code
    assert "PKG_FILE_DEPENDS" not in code


def test_makefile_evaluated(tmp_path):
    info = dict(line.split(": ", 1) for line in
                make("dumpinfo", tmp_path).splitlines())
    assert info["Package"] == "korvat-cloud"
    assert info["Version"] == project_version() + "-1"
    assert info["Section"] == "net" and info["Category"] == "Network"
    assert info["Title"]
    # libpthread is part of musl's libc: an empty package, gone from OpenWrt;
    # the agent needs no C++ runtime (tests/build/test_runtime_libraries.py)
    assert info["Depends"].split() == ["+libopenssl", "+cJSON", "+libminiupnpc"]
    assert info["Install"] == "1"
    opts = info["CMake-Options"].split()
    assert "-DKC_TESTS=OFF" in opts and "-DKC_FUZZ=OFF" in opts
    # a release: the tag of the version in git, checked by its hash
    assert info["Source-Proto"] == "git"
    assert re.match(r"^https://\S+\.git$", info["Source-URL"])
    assert info["Source-Version"] == "v" + project_version()
    assert re.match(r"^[0-9a-f]{64}$", info["Mirror-Hash"])
    assert info["Source"] == "korvat-cloud-%s.tar.xz" % project_version()
    assert set(info["Build-Flags"].split()) == {"gc-sections", "lto"}
    assert re.match(r"^[^<>]+ <[^@<>\s]+@[^@<>\s]+>$", info["Maintainer"])
    assert info["License"] and info["License-Files"]
    # CMake builds in a directory of its own (a checkout stays clean but
    # for it, and git ignores it)
    assert info["CMake-Binary-Dir"] == \
        "%s/build/korvat-cloud-%s/build-openwrt" % (tmp_path, project_version())


def clean_copy(dest):
    ignore = shutil.ignore_patterns("build*", ".git", "__pycache__", "*.pyc")
    shutil.copytree(ROOT, dest, ignore=ignore, symlinks=True)
    return dest


def configure_prepared(tmp_path, build, **extra):
    """make configure (the staging directory has its include and lib
    directories, as in a build tree), then a look at the result."""
    for d in ("include", "lib"):
        (tmp_path / "staging" / "usr" / d).mkdir(parents=True, exist_ok=True)
    make("configure", tmp_path, **extra)
    b = os.path.join(build, "build-openwrt")
    assert os.path.isfile(os.path.join(b, "CMakeCache.txt"))
    with open(os.path.join(b, "CMakeCache.txt")) as f:
        cache = f.read()
    assert "KC_TESTS:STRING=OFF" in cache
    return b


def test_development_build_uses_the_working_tree(tmp_path):
    """USE_SOURCE_DIR: the build directory is the checkout itself, nothing
    is downloaded, and the configure leaves the checkout as it was but for
    build-openwrt/ (ignored by git) and OpenWrt's .source_dir marker."""
    if not shutil.which("cmake"):
        pytest.skip("no cmake")
    checkout = clean_copy(str(tmp_path / "checkout"))
    before = sorted(os.listdir(checkout))
    make("prepare", tmp_path, USE_SOURCE_DIR=checkout)
    build = tmp_path / "build" / ("korvat-cloud-" + project_version())
    assert os.path.islink(str(build))
    assert os.path.realpath(str(build)) == os.path.realpath(checkout)
    assert not (tmp_path / "dl").exists()
    b = configure_prepared(tmp_path, str(build), USE_SOURCE_DIR=checkout)
    pc = open(os.path.join(b, "pkgconfig-compat", "lib", "pkgconfig",
                           "miniupnpc.pc")).read()
    assert "prefix=%s/staging/usr\n" % tmp_path in pc
    assert "libdir=${prefix}/lib\n" in pc
    assert "Libs: -L${libdir} -lminiupnpc\n" in pc
    if shutil.which("pkg-config"):
        r = subprocess.run(["pkg-config", "--libs", "--cflags", "miniupnpc"],
                           env=dict(os.environ, PKG_CONFIG_PATH=os.path.join(
                               b, "pkgconfig-compat/lib/pkgconfig")),
                           stdout=subprocess.PIPE, text=True)
        assert r.stdout.split() == ["-I%s/staging/usr/include" % tmp_path,
                                    "-L%s/staging/usr/lib" % tmp_path,
                                    "-lminiupnpc"]
    assert sorted(os.listdir(checkout)) == sorted(
        before + [".source_dir", "build-openwrt"])
    if shutil.which("git") and os.path.isdir(os.path.join(ROOT, ".git")):
        ignored = subprocess.run(["git", "-c", "safe.directory=*", "-C", ROOT,
                                  "check-ignore", "-q", "build-openwrt/"])
        assert ignored.returncode == 0


def test_release_build_unpacks_the_downloaded_tarball(tmp_path):
    """Without USE_SOURCE_DIR the sources are the tarball OpenWrt made of
    the tagged commit ($(DL_DIR)/$(PKG_SOURCE), top directory
    korvat-cloud-VERSION)."""
    top = "korvat-cloud-" + project_version()
    clean_copy(str(tmp_path / "export" / top))
    (tmp_path / "dl").mkdir()
    subprocess.run(["tar", "-C", str(tmp_path / "export"), "-cJf",
                    str(tmp_path / "dl" / (top + ".tar.xz")), top], check=True)
    make("prepare", tmp_path)
    build = tmp_path / "build" / top
    assert not os.path.islink(str(build))
    assert (build / "CMakeLists.txt").read_text() == \
        read(os.path.join(ROOT, "CMakeLists.txt"))
    assert (build / "src" / "client" / "main.cpp").is_file()
    if shutil.which("cmake"):
        configure_prepared(tmp_path, str(build))


def test_configure_keeps_staged_miniupnpc_pc(tmp_path):
    if not shutil.which("cmake") or not shutil.which("pkg-config"):
        pytest.skip("no cmake or pkg-config")
    staged = tmp_path / "staging" / "usr" / "lib" / "pkgconfig"
    staged.mkdir(parents=True)
    host_pc = subprocess.run(["pkg-config", "--variable=pcfiledir",
                              "miniupnpc"], stdout=subprocess.PIPE,
                             text=True, check=True).stdout.strip()
    shutil.copy(os.path.join(host_pc, "miniupnpc.pc"), str(staged))
    checkout = clean_copy(str(tmp_path / "checkout"))
    make("prepare", tmp_path, USE_SOURCE_DIR=checkout)
    b = configure_prepared(tmp_path, checkout, USE_SOURCE_DIR=checkout)
    assert not os.path.exists(os.path.join(
        b, "pkgconfig-compat", "lib", "pkgconfig", "miniupnpc.pc"))


def test_install_paths_and_modes(tmp_path):
    inst = (tmp_path / "build" / ("korvat-cloud-" + project_version()) /
            "ipkg-install")
    (inst / "usr" / "bin").mkdir(parents=True)
    (inst / "usr" / "bin" / "korvat-cloud").write_text("agent\n")
    root = tmp_path / "root"
    make("install", tmp_path, ROOT=root)
    files = {}
    for d, _, names in os.walk(root):
        for n in names:
            p = os.path.join(d, n)
            files["/" + os.path.relpath(p, root)] = os.stat(p).st_mode & 0o777
    assert files == {"/usr/bin/korvat-cloud": 0o755,
                     "/etc/init.d/korvatCloud": 0o755,
                     "/etc/config/korvatCloud": 0o600}
    assert (root / "etc/init.d/korvatCloud").read_text() == read(INIT_SCRIPT)
    assert (root / "etc/config/korvatCloud").read_text() == \
        read(DEFAULT_CONFIG)


# ---- default UCI config -------------------------------------------------------

@pytest.mark.root
def test_default_config_parses_with_defaults():
    dev = simdevice.Device()
    try:
        with open(DEFAULT_CONFIG) as f:
            dev.write_file("/etc/config/korvatCloud", f.read())
        r = dev.uci("show", "korvatCloud")
        assert r.returncode == 0, r.stderr
    finally:
        dev.close()
    shown = dict(line.split("=", 1) for line in r.stdout.splitlines())
    pre = "korvatCloud.korvatCloud."
    assert shown == {
        "korvatCloud.korvatCloud": "korvatCloud",
        pre + "enabled": "'1'",
        pre + "conn_retry": "'10'",
        pre + "auto_update": "'60'",
        pre + "ts_autoUpdate": "'NONE'",
        pre + "ts_manualEntry": "''",
        pre + "remote_access_timeout": "'600'",
        pre + "beta_mode": "'0'",
        pre + "syslog_mode": "'PRODUCTION'",
        # no placeholder host the device would try for ever: the agent
        # stays stopped until a server is set
        pre + "server_url": "''",
        pre + "port_number": "'443'",
    }


# ---- service script, read as text --------------------------------------------

def test_init_script_shape():
    text = read(INIT_SCRIPT)
    assert text.startswith("#!/bin/sh /etc/rc.common\n")
    assert os.stat(INIT_SCRIPT).st_mode & 0o111
    for line in ("START=99", "STOP=10", "USE_PROCD=1"):
        assert re.search(r"^%s$" % line, text, re.M), line
    for fn in ("start_service", "service_triggers",
               "validate_korvatcloud_section"):
        assert re.search(r"^%s\(\) \{$" % fn, text, re.M), fn
    assert 'procd_add_reload_trigger "$NAME"' in text
    assert "procd_add_validation validate_korvatcloud_section" in text
    assert "get_mac_label" in text and ". /lib/functions/system.sh" in text
    assert "NAME=korvatCloud" in text
