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
            "BUILD_DIR=%s/build" % tmp, "STAGING_DIR=%s/staging" % tmp]
    args += ["%s=%s" % kv for kv in extra.items()]
    args.append(target)
    r = subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       text=True)
    assert r.returncode == 0, r.stderr
    return r.stdout


# ---- Makefile, read as text ------------------------------------------------

def test_makefile_structure():
    text = read(MAKEFILE)
    lines = [x for x in text.splitlines() if not x.startswith("#")]
    code = "\n".join(lines)
    assert lines[[i for i, x in enumerate(lines) if x.strip()][0]] == \
        "include $(TOPDIR)/rules.mk"
    for var, value in (("PKG_NAME", "korvat-cloud"), ("PKG_RELEASE", "1")):
        assert re.search(r"^%s:=%s$" % (var, re.escape(value)), code, re.M)
    for var in ("PKG_VERSION", "PKG_LICENSE"):
        assert re.search(r"^%s:=\S" % var, code, re.M), var
    # includes in order: rules.mk, package.mk, cmake.mk, then BuildPackage
    order = [code.index(s) for s in (
        "include $(TOPDIR)/rules.mk", "include $(INCLUDE_DIR)/package.mk",
        "include $(INCLUDE_DIR)/cmake.mk", "define Package/korvat-cloud\n",
        "$(eval $(call BuildPackage,korvat-cloud))")]
    assert order == sorted(order)
    for define in ("Package/korvat-cloud", "Package/korvat-cloud/description",
                   "Package/korvat-cloud/conffiles", "Build/Prepare",
                   "Package/korvat-cloud/install"):
        assert re.search(r"^define %s\n(.*\n)*?endef$" % re.escape(define),
                         code, re.M), define
    conffiles = re.search(r"^define Package/korvat-cloud/conffiles\n(.*?)"
                          r"^endef$", code, re.M | re.S).group(1)
    assert conffiles.split() == ["/etc/config/korvatCloud"]
    # recipe lines start with a tab
    for define in ("Build/Prepare", "Package/korvat-cloud/install"):
        body = re.search(r"^define %s\n(.*?)^endef$" % re.escape(define),
                         code, re.M | re.S).group(1)
        for line in body.splitlines():
            assert line.startswith("\t"), (define, line)


def test_makefile_evaluated(tmp_path):
    info = dict(line.split(": ", 1) for line in
                make("dumpinfo", tmp_path).splitlines())
    assert info["Package"] == "korvat-cloud"
    assert info["Section"] == "net" and info["Category"] == "Network"
    assert info["Title"]
    assert info["Depends"].split() == ["+libopenssl", "+cJSON",
                                       "+libminiupnpc", "+libstdcpp",
                                       "+libpthread"]
    assert info["Install"] == "1"
    opts = info["CMake-Options"].split()
    assert "-DKC_TESTS=OFF" in opts and "-DKC_FUZZ=OFF" in opts


def test_prepare_copies_sources_and_configures(tmp_path):
    make("prepare", tmp_path)
    build = tmp_path / "build" / "korvat-cloud-1.0.0"
    assert (build / "CMakeLists.txt").read_text() == \
        read(os.path.join(ROOT, "CMakeLists.txt"))
    assert (build / "src" / "client" / "main.cpp").is_file()
    assert not (build / "tests").exists()
    pc = (build / "pkgconfig-compat" / "lib" / "pkgconfig" /
          "miniupnpc.pc").read_text()
    assert "prefix=%s/staging/usr\n" % tmp_path in pc
    assert "libdir=${prefix}/lib\n" in pc
    assert "Libs: -L${libdir} -lminiupnpc\n" in pc
    if shutil.which("pkg-config"):
        r = subprocess.run(["pkg-config", "--libs", "--cflags", "miniupnpc"],
                           env=dict(os.environ, PKG_CONFIG_PATH=str(
                               build / "pkgconfig-compat/lib/pkgconfig")),
                           stdout=subprocess.PIPE, text=True)
        assert r.stdout.split() == ["-I%s/staging/usr/include" % tmp_path,
                                    "-L%s/staging/usr/lib" % tmp_path,
                                    "-lminiupnpc"]
    # the prepared tree configures with the tests off (host libraries)
    if not shutil.which("cmake"):
        pytest.skip("no cmake")
    r = subprocess.run(["cmake", "-S", str(build), "-B", str(build / "b"),
                        "-DKC_TESTS=OFF", "-DKC_FUZZ=OFF"],
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       text=True)
    assert r.returncode == 0, r.stdout


def test_prepare_keeps_staged_miniupnpc_pc(tmp_path):
    staged = tmp_path / "staging" / "usr" / "lib" / "pkgconfig"
    staged.mkdir(parents=True)
    (staged / "miniupnpc.pc").write_text("Name: miniupnpc\n")
    make("prepare", tmp_path)
    assert not (tmp_path / "build" / "korvat-cloud-1.0.0" /
                "pkgconfig-compat/lib/pkgconfig/miniupnpc.pc").exists()


def test_install_paths_and_modes(tmp_path):
    inst = tmp_path / "build" / "korvat-cloud-1.0.0" / "ipkg-install"
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
        pre + "conn_retry": "'10'",
        pre + "auto_update": "'60'",
        pre + "ts_autoUpdate": "'NONE'",
        pre + "ts_manualEntry": "''",
        pre + "remote_access_timeout": "'600'",
        pre + "beta_mode": "'0'",
        pre + "syslog_mode": "'PRODUCTION'",
        pre + "server_url": "'wss://cloud.example.net/device'",
        pre + "port_number": "'443'",
    }


# ---- service script, read as text --------------------------------------------

def test_init_script_shape():
    text = read(INIT_SCRIPT)
    assert text.startswith("#!/bin/sh /etc/rc.common\n")
    assert os.stat(INIT_SCRIPT).st_mode & 0o111
    for line in ("START=99", "STOP=10", "USE_PROCD=1"):
        assert re.search(r"^%s$" % line, text, re.M), line
    for fn in ("start_service", "service_triggers"):
        assert re.search(r"^%s\(\) \{$" % fn, text, re.M), fn
    assert 'procd_add_reload_trigger "$NAME"' in text
    assert "NAME=korvatCloud" in text
