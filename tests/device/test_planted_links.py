# The host's side of the sandbox cannot be tricked: the device can write
# anything into its run directory, links included, and the host-side
# helpers (which run as root) must never follow one to a host file.
import hashlib
import os
import subprocess
import sys

import pytest

import safefs
import simdevice

CLI = os.path.join(os.path.dirname(__file__), "..", "..", "device", "run-device")


@pytest.fixture
def host_file(tmp_path):
    """A host file outside the run directory, standing for /etc/shadow."""
    path = tmp_path / "host-secret"
    path.write_text("host secret\n")
    os.chmod(path, 0o600)
    return str(path)


def fingerprint(path):
    st = os.lstat(path)
    with open(path, "rb") as f:
        digest = hashlib.sha256(f.read()).hexdigest()
    return (digest, st.st_size, st.st_mtime_ns, st.st_mode, st.st_nlink)


PLANTS = """
set -e
ln -sf {target} /simrun/journal.log
ln -sf {target} /simrun/syslog.log
rm -f /etc/config/network && ln -s {target} /etc/config/network
mkdir -p /tmp/.uci && ln -sf {target} /tmp/.uci/wireless
ln -sf {target} /tmp/cloud_conn_state
ln -sf {target} /tmp/luci_reload_cmd
ln -sf {target} /simrun/sim/sntool.out
rm -rf /simrun/sim/kapri_util && ln -s {target_dir} /simrun/sim/kapri_util
ln -sf {target} /simrun/proc_printk.new
echo planted
"""


def plant(device, host_file):
    """Plant the links from inside the device; the targets name the host
    file by its host path, which a host-side helper that follows links
    would reach."""
    r = device.exec(["/bin/sh", "-c", PLANTS.format(
        target=host_file, target_dir=os.path.dirname(host_file))])
    assert r.stdout == "planted\n", r.stderr


def expect_refusal(call):
    """A helper may refuse (UnsafePath, a missing file) but must not reach
    the host file; returns what it returned or the exception."""
    try:
        return call()
    except (OSError, ValueError) as e:
        return e


def test_links_planted_inside_never_lead_host_helpers_to_host_files(
        host_file, tmp_path):
    before = fingerprint(host_file)
    dir_before = sorted(os.listdir(os.path.dirname(host_file)))
    device = simdevice.Device()
    try:
        device.start(["/bin/sh", "-c", "sleep 600"])
        assert device.sandbox_pid() is not None
        plant(device, host_file)

        results = {
            "journal": expect_refusal(device.journal),
            "clear_journal": expect_refusal(device.clear_journal),
            "wait_journal": expect_refusal(
                lambda: device.wait_journal("x", timeout=0.1)),
            "append_syslog": expect_refusal(
                lambda: device.append_syslog("Nov 1 00:00:00 x: y")),
            "read_file": expect_refusal(
                lambda: device.read_file("/tmp/cloud_conn_state")),
            "write_file": expect_refusal(
                lambda: device.write_file("/tmp/cloud_conn_state", "0\n")),
            "write_file2": expect_refusal(
                lambda: device.write_file("/tmp/luci_reload_cmd", "")),
            "exists": expect_refusal(
                lambda: device.exists("/etc/config/network")),
            "set_output": expect_refusal(
                lambda: device.set_output("sntool", "X\n")),
            "set_output_sub": expect_refusal(
                lambda: device.set_output("kapri_util.lua", "{}", "WifiInfo")),
            "set_script_sub": expect_refusal(
                lambda: device.set_script("kapri_util.lua", "echo", "WifiInfo")),
            "clear_output": expect_refusal(
                lambda: device.clear_output("kapri_util.lua", "WifiInfo")),
            "uci_get": expect_refusal(
                lambda: device.uci_get("network.lan.ipaddr")),
            "uci_committed": expect_refusal(
                lambda: device.uci_committed("network.lan.ipaddr")),
            "uci_set": expect_refusal(
                lambda: device.uci("set", "network.lan.ipaddr=1.2.3.4")),
            "uci_set_staged": expect_refusal(
                lambda: device.uci("set", "wireless.w0_index0.ssid=x")),
            "uci_commit": expect_refusal(lambda: device.uci("commit")),
            "remove_file": expect_refusal(
                lambda: device.remove_file("/tmp/cloud_conn_state")),
        }
        # the command-line helpers too
        for args in (["journal", device.run],
                     ["read", device.run, "/etc/config/network"],
                     ["read", device.run, "/tmp/luci_reload_cmd"]):
            r = subprocess.run([sys.executable, CLI] + args,
                               capture_output=True, text=True, timeout=30)
            results["cli " + " ".join(args[:1] + args[2:])] = r
            assert "host secret" not in r.stdout
        # the run directory is not set up again over what is there
        assert simdevice.create_run_dir(device.run) == device.run

        # nothing reached the host file or its directory
        assert fingerprint(host_file) == before
        assert sorted(os.listdir(os.path.dirname(host_file))) == dir_before
        # no helper read the host file's text either
        for name, value in results.items():
            assert "host secret" not in repr(value), name
        # the reads that met a link refused it
        assert isinstance(results["journal"], safefs.UnsafePath)
        assert isinstance(results["read_file"], safefs.UnsafePath)
        assert isinstance(results["set_output_sub"], safefs.UnsafePath)
        # uci worked inside a sandbox of its own: the link resolved inside
        # the device's tree (no such file there), never to the host file
        assert results["uci_get"] is None
    finally:
        device.close()
    assert fingerprint(host_file) == before


def test_a_planted_fifo_is_refused_without_blocking(tmp_path):
    device = simdevice.Device()
    try:
        device.start(["/bin/sh", "-c", "sleep 600"])
        assert device.sandbox_pid() is not None
        r = device.exec(["/bin/sh", "-c",
                         "rm -f /tmp/cloud_conn_state; mkfifo /tmp/cloud_conn_state"])
        assert r.returncode == 0, r.stderr
        with pytest.raises(safefs.UnsafePath):
            device.read_file("/tmp/cloud_conn_state")
        with pytest.raises(safefs.UnsafePath):
            device.write_file("/tmp/cloud_conn_state", "1\n")
    finally:
        device.close()


def test_safefs_refuses_links_in_every_component(tmp_path, host_file):
    root = tmp_path / "run"
    (root / "a").mkdir(parents=True)
    os.symlink(os.path.dirname(host_file), root / "a" / "dir")
    os.symlink(host_file, root / "a" / "file")
    for rel in ("a/dir/host-secret", "a/file"):
        with pytest.raises(safefs.UnsafePath):
            safefs.read_text(str(root), rel)
        with pytest.raises(safefs.UnsafePath):
            safefs.write_text(str(root), rel, "x")
    with pytest.raises(ValueError):
        safefs.read_text(str(root), "../run/a/file")
    safefs.unlink(str(root), "a/file")       # removes the link itself
    assert not os.path.lexists(root / "a" / "file")
    assert open(host_file).read() == "host secret\n"
