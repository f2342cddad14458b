"""The project's commands before they do anything: every script answers
-h and --help with its usage and exit status 0 without installing,
building or changing anything; install-deps.sh and run-device name the
root they need; the demo and the benchmark build the agent alone; the
target stage tells an old kernel in one line."""
import glob
import os
import re

import pytest

from conftest import ROOT, run

SCRIPTS = sorted(
    [os.path.relpath(p, ROOT) for p in
     glob.glob(os.path.join(ROOT, "scripts", "*.sh")) +
     glob.glob(os.path.join(ROOT, "target", "*.sh"))] +
    ["tests/fuzz/run-fuzzers.sh", "device/run-device"])


@pytest.mark.parametrize("flag", ["-h", "--help"])
@pytest.mark.parametrize("script", SCRIPTS)
def test_help_prints_usage_and_does_nothing(script, flag, stubs, open_tmp):
    # As an unprivileged user where possible: a script that went on past
    # its help could not write into the tree; the stand-ins record any
    # install, build or namespace command it started.
    r = run([os.path.join(ROOT, script), flag], env=stubs.env(),
            as_nobody=True, cwd=open_tmp)
    assert r.returncode == 0, (r.stdout, r.stderr)
    assert os.path.basename(script) in r.stdout or "usage" in r.stdout.lower()
    if not script.endswith("run-fuzzers.sh"):
        assert "usage" in r.stdout.lower(), r.stdout
    assert stubs.calls() == []
    assert "Traceback" not in r.stderr


def test_stand_ins_are_found_by_the_unprivileged_user(stubs, open_tmp):
    # (else the tests above would not see what a script started)
    r = run(["sh", "-c", "command -v apt-get; cmake --version"],
            env=stubs.env(), as_nobody=True, cwd=open_tmp)
    assert r.stdout.splitlines()[0] == os.path.join(stubs.dir, "apt-get")
    assert stubs.calls() == ["cmake --version"]


def test_every_script_is_covered():
    # a new script must join the list above (and answer --help)
    found = {os.path.relpath(p, ROOT) for p in
             glob.glob(os.path.join(ROOT, "scripts", "*.sh")) +
             glob.glob(os.path.join(ROOT, "target", "*.sh"))}
    assert found <= set(SCRIPTS)
    assert len(found) >= 11


def test_test_sh_refuses_unknown_arguments(stubs, open_tmp):
    r = run([os.path.join(ROOT, "scripts/test.sh"), "--fast"],
            env=stubs.env(), as_nobody=True, cwd=open_tmp)
    assert r.returncode == 2
    assert "usage" in r.stderr.lower()
    assert stubs.calls() == []


@pytest.mark.root
def test_install_deps_without_root_says_root_is_needed(stubs, open_tmp):
    # dpkg-query reports nothing installed: there is something to install
    stubs.add("dpkg-query", "exit 1")
    r = run([os.path.join(ROOT, "scripts/install-deps.sh")], env=stubs.env(),
            as_nobody=True, cwd=open_tmp)
    assert r.returncode == 1
    assert "needs root" in r.stderr
    assert "build-essential" in r.stderr        # what is missing
    assert [c for c in stubs.calls() if not c.startswith("dpkg-query ")] == []


def test_install_deps_with_nothing_missing_needs_no_root(stubs, open_tmp):
    stubs.add("dpkg-query", "echo 'install ok installed'")
    r = run([os.path.join(ROOT, "scripts/install-deps.sh")], env=stubs.env(),
            as_nobody=True, cwd=open_tmp)
    assert r.returncode == 0, r.stderr
    assert [c for c in stubs.calls() if not c.startswith("dpkg-query ")] == []


def test_install_deps_list():
    r = run([os.path.join(ROOT, "scripts/install-deps.sh"), "--list"])
    assert r.returncode == 0
    names = r.stdout.split()
    assert "libgtest-dev" in names and "bubblewrap" in names
    assert len(names) == len(set(names)) > 20


@pytest.mark.root
@pytest.mark.parametrize("script", ["scripts/demo.sh", "scripts/bench.sh"])
def test_builds_the_agent_alone(script, stubs):
    """The demo and the benchmark run the agent only: they build that
    target, not the tests, fuzz replays and test servers."""
    stubs.add("dpkg-query", "echo 'install ok installed'")
    # the build "fails", so the script stops right after it
    stubs.add("cmake", 'case "$1" in --build) exit 1 ;; esac; exit 0')
    env = stubs.env()
    env.pop("KC_AGENT", None)
    r = run([os.path.join(ROOT, script)], env=env, as_nobody=True)
    assert r.returncode != 0
    builds = [c.split() for c in stubs.calls() if c.startswith("cmake --build")]
    assert builds == [["cmake", "--build", "build", "--target", "korvat-cloud"]]


@pytest.mark.root
def test_net_up_without_root_names_the_cause(open_tmp):
    r = run([os.path.join(ROOT, "device/run-device"), "net-up",
             os.path.join(open_tmp, "run")], as_nobody=True)
    assert r.returncode == 1
    assert "Traceback" not in r.stderr
    lines = r.stderr.splitlines()
    assert lines[0] == "run-device: the device network could not be made"
    assert "CAP_NET_ADMIN" in r.stderr and "root" in lines[1]


@pytest.mark.root
def test_net_up_without_cap_net_admin_names_it(tmp_path):
    """Root in a container started without CAP_NET_ADMIN."""
    r = run(["setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin",
             "--", os.path.join(ROOT, "device/run-device"), "net-up",
             str(tmp_path / "run")])
    assert r.returncode == 1
    assert "could not be made" in r.stderr
    assert "lacks CAP_NET_ADMIN" in r.stderr
    assert "CAP_SYS_ADMIN" not in r.stderr


@pytest.mark.root
def test_net_up_passes_on_the_helpers_own_error(tmp_path):
    """The namespace helper's message reaches the user (here: a tool it
    needs is missing from PATH)."""
    run_dir = str(tmp_path / "run")
    r = run([os.path.join(ROOT, "device/run-device"), "net-up", run_dir],
            env=dict(os.environ, PATH=str(tmp_path)))
    try:
        assert r.returncode == 1
        assert r.stderr.startswith(
            "run-device: the device network could not be made: simnet: ")
        assert "nsenter" in r.stderr
    finally:
        run([os.path.join(ROOT, "device/run-device"), "net-down", run_dir])


def test_binfmt_check_names_an_old_kernel():
    r = run([os.path.join(ROOT, "target/qemu-binfmt.sh"), "check"],
            env=dict(os.environ, KORVAT_KERNEL_RELEASE="6.1.0-28-amd64"))
    assert r.returncode == 1
    assert r.stdout.splitlines() == [
        "kernel 6.1.0-28-amd64 has no private binfmt_misc for a user "
        "namespace (Linux 6.7 or later has)"]
    for release in ("6.7.0", "6.12.9+bpo-amd64"):
        r = run([os.path.join(ROOT, "target/qemu-binfmt.sh"), "check"],
                env=dict(os.environ, KORVAT_KERNEL_RELEASE=release))
        assert (r.returncode, r.stdout) == (0, ""), release


def fake_sysroot(tmp_path):
    """A library sysroot that build-sysroot.sh takes as complete (its stamp
    and key files), so that nothing is built."""
    with open(os.path.join(ROOT, "target", "build-sysroot.sh")) as f:
        script = f.read()
    recipe = re.search(r"^RECIPE=(\d+)$", script, re.M).group(1)
    cflags = re.search(r"^TARGET_CFLAGS=\$\{KORVAT_MIPS_CFLAGS:-(.*)\}$",
                       script, re.M).group(1)
    root = tmp_path / "sysroot"
    for key in re.findall(r'^    echo "\$SYSROOT/(\S+)"$', script, re.M):
        (root / key).parent.mkdir(parents=True, exist_ok=True)
        (root / key).write_text("")
    (root / ".korvat-sysroot.stamp").write_text(
        "recipe=%s\ncflags=%s\nsources=fake\n" % (recipe, cflags))
    return str(root)


@pytest.mark.root
def test_target_stage_on_an_old_kernel_runs_the_unit_tests_only(stubs,
                                                                tmp_path):
    """On bookworm's own kernel the target stage says why in one line,
    still builds, and runs every test but the end-to-end suites."""
    stubs.add("dpkg-query", "echo 'install ok installed'")
    build = tmp_path / "build-mips"
    build.mkdir()
    sysroot = fake_sysroot(tmp_path)
    r = run([os.path.join(ROOT, "target/test-target.sh"), str(build)],
            env=stubs.env(KORVAT_KERNEL_RELEASE="6.1.0-28-amd64",
                          KORVAT_MIPS_SYSROOT=sysroot))
    assert r.returncode == 0, (r.stdout, r.stderr)
    assert "sysroot up to date: %s" % sysroot in r.stdout
    first = r.stdout.splitlines()[0]
    assert first.startswith("target: end-to-end suites skipped, unit tests "
                            "only: kernel 6.1.0-28-amd64 has no private "
                            "binfmt_misc"), first
    ctest = [c.split() for c in stubs.calls() if c.startswith("ctest ")]
    assert ctest == [["ctest", "--output-on-failure", "-E", "^e2e\\."]]
    configure = [c for c in stubs.calls() if c.startswith("cmake -S")]
    assert len(configure) == 1 and "-DKC_TESTS=ON" in configure[0]
    assert not [c for c in stubs.calls() if c.startswith("apt-get")]

