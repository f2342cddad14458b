"""The agent's --help, -h and --version, and every other command line as
before.

Only these forms run on the host: a lone --help, -h or --version, and too
few operands, all of which return before the agent does anything.  Every
other command line starts the agent, so it runs inside the simulated
device."""
import os
import re

import pytest

from conftest import ROOT, run

AGENT = os.environ.get("KC_AGENT") or os.path.join(ROOT, "build", "korvat-cloud")
USAGE = "Usage: %s [-d] <device_server_url> <device_mac_address>"
DEVICE_USAGE = USAGE % "/usr/bin/korvat-cloud"


def project_version():
    with open(os.path.join(ROOT, "CMakeLists.txt")) as f:
        m = re.search(r"^project\(korvat-cloud VERSION (\d+\.\d+\.\d+)\b",
                      f.read(), re.M)
    assert m, "no project(VERSION) in CMakeLists.txt"
    return m.group(1)


@pytest.fixture
def quiet_host_tmp():
    """The host's /tmp must not gain the agent's files."""
    before = {n for n in os.listdir("/tmp") if n.startswith("cloud_")}
    yield
    assert {n for n in os.listdir("/tmp") if n.startswith("cloud_")} == before


@pytest.mark.parametrize("flag", ["--help", "-h"])
def test_help_prints_usage_and_exits_0(flag, quiet_host_tmp):
    r = run([AGENT, flag], timeout=10)
    assert r.returncode == 0
    lines = r.stdout.splitlines()
    assert lines[0] == USAGE % AGENT
    assert "(version %s)" % project_version() in lines[1]
    assert any(line.split()[:1] == ["-d"] for line in lines[2:])
    assert r.stderr == ""


def test_version_comes_from_the_project_version(quiet_host_tmp):
    r = run([AGENT, "--version"], timeout=10)
    assert (r.returncode, r.stdout, r.stderr) == (
        0, "korvat-cloud %s\n" % project_version(), "")


@pytest.mark.parametrize("args", [[], ["ws://192.0.2.1/"], ["-d"]])
def test_too_few_operands_still_print_usage_and_exit_255(args, quiet_host_tmp):
    r = run([AGENT] + args, timeout=10)
    assert (r.returncode, r.stdout) == (255, USAGE % AGENT + "\n")


# ---- in the simulated device: the agent runs ---------------------------------

def device_run(args):
    from simdevice import Device
    with Device() as dev:
        p = dev.start(["/usr/bin/korvat-cloud"] + args, agent=AGENT)
        out, err = p.communicate(timeout=60)
    return p.returncode, out.decode(), err.decode()


@pytest.mark.root
@pytest.mark.parametrize("args", [
    ["--help", "ws://192.0.2.1/", "aa:bb:cc:dd:ee:ff", "extra"],
    ["-h", "--version", "ws://192.0.2.1/", "aa:bb:cc:dd:ee:ff"],
])
def test_more_than_three_operands_stay_a_usage_error(args):
    status, out, _ = device_run(args)
    assert (status, out) == (255, DEVICE_USAGE + "\n")


@pytest.mark.root
@pytest.mark.parametrize("args,url", [
    (["--help", "not-a-url", "aa:bb:cc:dd:ee:ff"], "not-a-url"),
    (["--version", "aa:bb:cc:dd:ee:ff"], "--version"),
    (["-h", "WSS://example"], "-h"),
])
def test_help_words_among_operands_are_operands(args, url):
    """With two or three operands --help, -h and --version are what they
    always were: a first word that is not -d, or the URL."""
    status, out, err = device_run(args)
    assert status == 255
    assert "Invalid device server URL: %s" % url in err
    assert DEVICE_USAGE not in out and "version" not in out
