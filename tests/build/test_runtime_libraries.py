"""The agent needs no C++ runtime: none of the shared libraries it names
(NEEDED) is one, and no symbol it takes from a library carries a C++
runtime version (GLIBCXX_*, CXXABI_*).  On the device the C++ runtime is
a package of its own, about a megabyte of flash, and its pages would be
the agent's to pay for.

Read from the built file with readelf; the agent is not run."""
import os
import re
import subprocess

from conftest import ROOT

AGENT = os.environ.get("KC_AGENT") or os.path.join(ROOT, "build", "korvat-cloud")
CXX_RUNTIMES = re.compile(r"^lib(stdc\+\+|c\+\+|c\+\+abi|supc\+\+)\.so")
CXX_VERSIONS = re.compile(r"\b(GLIBCXX|CXXABI)_\d")


def readelf(*options):
    r = subprocess.run(["readelf", "-W", *options, AGENT],
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 0, r.stderr
    return r.stdout


def test_no_cxx_runtime_is_needed():
    needed = re.findall(r"\(NEEDED\)\s+Shared library: \[([^\]]+)\]",
                        readelf("--dynamic"))
    # the entries were read: the C library is always among them
    assert any(name.startswith("libc.so") for name in needed), needed
    assert [name for name in needed if CXX_RUNTIMES.match(name)] == []


def test_no_symbol_of_a_cxx_runtime_version_is_used():
    assert not CXX_VERSIONS.search(readelf("--version-info"))
    undefined = [line for line in readelf("--dyn-syms").splitlines()
                 if " UND " in line]
    assert [line for line in undefined if CXX_VERSIONS.search(line)] == []
