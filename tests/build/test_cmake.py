"""CMake as a packager uses it: a plain build of a clean copy of the tree
on a host without the test dependencies, its install, and the configure's
handling of the dependencies only the tests need.

The test dependencies are hidden rather than removed: GoogleTest through
CMAKE_DISABLE_FIND_PACKAGE_GTest, libwebsockets by a pkg-config search path
that holds only the agent's own libraries, Node.js and the Python of the
suites by paths that do not exist."""
import glob
import os
import re
import subprocess

import pytest

from conftest import ROOT, copy_tree

CMAKE = os.environ.get("KC_CMAKE") or "cmake"
HIDE_GTEST = ["-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"]
HIDE_PYTHON = ["-DKC_PYTHON=/nonexistent/python3"]
HIDE_NODE = ["-DKC_NODE=/nonexistent/node"]


def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt")) as f:
        return re.search(r"^project\(korvat-cloud VERSION (\S+)", f.read(),
                         re.M).group(1)


@pytest.fixture(scope="module")
def agent_pc_dir(tmp_path_factory):
    """A pkg-config directory with the agent's libraries only (no
    libwebsockets)."""
    d = tmp_path_factory.mktemp("pkgconfig")
    for module in ("libcjson", "openssl", "libssl", "libcrypto", "miniupnpc"):
        src = subprocess.run(["pkg-config", "--variable=pcfiledir", module],
                             stdout=subprocess.PIPE, text=True,
                             check=True).stdout.strip()
        os.symlink(os.path.join(src, module + ".pc"), str(d / (module + ".pc")))
    return str(d)


def configure(source, build, args=(), pc_dir=None):
    env = dict(os.environ)
    if pc_dir:
        env["PKG_CONFIG_LIBDIR"] = pc_dir
        env.pop("PKG_CONFIG_PATH", None)
    return subprocess.run([CMAKE, "-S", source, "-B", build] + list(args),
                          env=env, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, timeout=300)


def warnings(stderr):
    """The project's warnings (not CMake's own list of unused -D
    variables)."""
    return [w for w in re.split(r"^(?=CMake Warning)", stderr, flags=re.M)
            if w.startswith("CMake Warning") and
            "Manually-specified variables were not used" not in w]


def unused_variables(stderr):
    m = re.search(r"Manually-specified variables were not used by the "
                  r"project:\n\n((?:    \S+\n)+)", stderr)
    return m.group(1).split() if m else []


def errors(stderr):
    return re.findall(r"^CMake Error", stderr, re.M)


def test_plain_build_without_test_dependencies_installs_the_agent(
        tmp_path, agent_pc_dir):
    src = copy_tree(str(tmp_path / "src"))
    build = str(tmp_path / "build")
    r = configure(src, build, HIDE_GTEST + HIDE_PYTHON + HIDE_NODE,
                  pc_dir=agent_pc_dir)
    assert r.returncode == 0, r.stdout + r.stderr
    # one message naming everything missing; the agent is built anyway
    assert len(warnings(r.stderr)) == 1, r.stderr
    text = " ".join(r.stderr.split())
    for missing in ("GoogleTest", "/nonexistent/python3 with pytest",
                    "libwebsockets", "Node.js"):
        assert missing in text, missing
    assert "-- Tests: OFF, interoperability suite: OFF" in r.stdout
    b = subprocess.run(["nice", "-n", "10", CMAKE, "--build", build,
                        "--parallel", "2"],
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       text=True, timeout=1500)
    assert b.returncode == 0, b.stdout[-3000:]
    assert not os.path.exists(os.path.join(build, "tests"))
    assert not glob.glob(os.path.join(build, "**", "unit_tests"),
                         recursive=True)
    prefix = tmp_path / "x"
    i = subprocess.run([CMAKE, "--install", build, "--prefix", str(prefix)],
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       text=True, timeout=120)
    assert i.returncode == 0, i.stdout
    installed = sorted(os.path.relpath(os.path.join(d, n), str(prefix))
                       for d, _, names in os.walk(str(prefix)) for n in names)
    assert installed == ["bin/korvat-cloud"]
    agent = str(prefix / "bin" / "korvat-cloud")
    assert os.access(agent, os.X_OK)
    # --version returns before the agent does anything: safe on the host
    v = subprocess.run([agent, "--version"], stdout=subprocess.PIPE,
                       text=True, timeout=10)
    assert (v.returncode, v.stdout) == (0, "korvat-cloud %s\n" %
                                        project_version())


def test_install_honours_gnu_install_dirs(tmp_path):
    build = str(tmp_path / "build")
    r = configure(ROOT, build, ["-DBUILD_TESTING=OFF",
                                "-DCMAKE_INSTALL_BINDIR=sbin"])
    assert r.returncode == 0, r.stderr
    with open(os.path.join(build, "cmake_install.cmake")) as f:
        text = f.read()
    assert re.search(r'file\(INSTALL DESTINATION "\$\{CMAKE_INSTALL_PREFIX\}/sbin" '
                     r'TYPE EXECUTABLE FILES "[^"]*/korvat-cloud"\)', text), text


def test_tests_on_require_every_dependency_in_one_message(tmp_path,
                                                          agent_pc_dir):
    for switch in ("-DKC_TESTS=ON", "-DBUILD_TESTING=ON"):
        r = configure(ROOT, str(tmp_path / switch),
                      [switch] + HIDE_GTEST + HIDE_PYTHON + HIDE_NODE,
                      pc_dir=agent_pc_dir)
        assert r.returncode != 0
        assert len(errors(r.stderr)) == 1, r.stderr
        text = " ".join(r.stderr.split())
        for missing in ("GoogleTest (libgtest-dev)",
                        "/nonexistent/python3 with pytest and websockets",
                        "libwebsockets (libwebsockets-dev)",
                        "Node.js with ws (nodejs, node-ws)"):
            assert missing in text, (switch, missing)


def test_build_testing_off_looks_nothing_up(tmp_path, agent_pc_dir):
    build = str(tmp_path / "build")
    r = configure(ROOT, build, ["-DBUILD_TESTING=OFF"] + HIDE_GTEST +
                  HIDE_PYTHON + HIDE_NODE, pc_dir=agent_pc_dir)
    assert r.returncode == 0, r.stderr
    assert warnings(r.stderr) == []
    assert "-- Tests: OFF, interoperability suite: OFF" in r.stdout
    assert "websockets" not in r.stdout
    assert not os.path.exists(os.path.join(build, "tests"))
    # the switches that hide the test dependencies were never read
    assert {"CMAKE_DISABLE_FIND_PACKAGE_GTest", "KC_NODE"} <= set(
        unused_variables(r.stderr))


def test_interop_dependencies_only_for_the_interop_suite(tmp_path,
                                                         agent_pc_dir):
    # required tests without the interoperability suite: its dependencies
    # are not asked for
    r = configure(ROOT, str(tmp_path / "on"),
                  ["-DKC_TESTS=ON", "-DKC_INTEROP_TESTS=OFF"] + HIDE_NODE,
                  pc_dir=agent_pc_dir)
    assert r.returncode == 0, r.stderr
    assert warnings(r.stderr) == []
    assert unused_variables(r.stderr) == ["KC_NODE"]
    assert "-- Tests: ON, interoperability suite: OFF" in r.stdout
    # by default the suite alone is left out, with one message naming what
    # it needs
    r = configure(ROOT, str(tmp_path / "auto"), HIDE_NODE,
                  pc_dir=agent_pc_dir)
    assert r.returncode == 0, r.stderr
    assert len(warnings(r.stderr)) == 1
    text = " ".join(r.stderr.split())
    assert ("the interoperability suite needs libwebsockets "
            "(libwebsockets-dev), Node.js with ws (nodejs, node-ws)") in text
    assert "GoogleTest" not in text
    assert "-- Tests: ON, interoperability suite: OFF" in r.stdout
    assert os.path.exists(str(tmp_path / "auto" / "tests" / "e2e"))
    assert not os.path.exists(str(tmp_path / "auto" / "tests" / "interop"))


def test_fuzz_option_checks_for_clang(tmp_path):
    r = configure(ROOT, str(tmp_path / "b"),
                  ["-DKC_FUZZ=ON", "-DBUILD_TESTING=OFF",
                   "-DCMAKE_C_COMPILER=gcc", "-DCMAKE_CXX_COMPILER=g++"])
    assert r.returncode != 0
    assert len(errors(r.stderr)) == 1
    assert "KC_FUZZ needs clang" in " ".join(r.stderr.split())
