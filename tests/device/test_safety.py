# Nothing a device run does may reach the host: a stand-in for the agent does
# the host-affecting things the agent does, and HostGuard finds no change.
import os
import shutil
import time
import uuid

from conftest import run_sh
from hostguard import HostGuard

# waits for the device scale like the end-to-end suite's
TIMEOUT_SCALE = float(os.environ.get("KC_TIMEOUT_SCALE") or "1")


def wait_for(condition, timeout=10.0):
    deadline = time.monotonic() + timeout * TIMEOUT_SCALE
    while not condition():
        if time.monotonic() > deadline:
            return condition()
        time.sleep(0.05)
    return True

STAND_IN = """
echo 7 > /proc/sys/kernel/printk
echo '{"a":1}' > /etc/cloud_recv_cmd.backup
echo x > /etc/x.backup
echo y > /tmp/y
echo 0 > /tmp/cloud_conn_state
echo $$ > /tmp/cloud_timer_pid
ps > /tmp/ps.txt
reboot
/sbin/reboot
/usr/sbin/reboot
sleep 2; reboot
mkdir -p /mnt/_sys1
mount -t jffs2 /dev/mtdblock2 /mnt/_sys1
echo z > /mnt/_sys1/z
umount /mnt/_sys1
rm -r /mnt/_sys1
echo 1 > /proc/sys/kernel/printk_ratelimit 2>/dev/null
echo 1 > /proc/sysrq-trigger 2>/dev/null
hostname evil 2>/dev/null
busybox killall -STOP korvat-cloud 2>/dev/null
/usr/bin/killall -9 korvat-cloud
killall -9 korvat-cloud
echo finished
"""


def test_stand_in_run_leaves_host_unchanged(device, tmp_path):
    device.set_output("reboot", "")  # recorded only: the device stays up
    with HostGuard(device, decoys=("korvat-cloud", "logread")) as guard:
        status, out, err = run_sh(device, STAND_IN)
        assert out == "finished\n"
        assert guard.problems() == []
    # ... and everything landed in the run directory instead.
    assert device.read_file("/proc/sys/kernel/printk") == "7\n"
    assert device.read_file("/etc/x.backup") == "x\n"
    assert device.read_file("/tmp/y") == "y\n"
    assert open(os.path.join(device.run, "flash", "z")).read() == "z\n"
    j = device.journal()
    assert j.count("reboot") == 4
    assert "killall -9 korvat-cloud" in j
    assert "mount -t jffs2 /dev/mtdblock2 /mnt/_sys1" in j
    assert "umount /mnt/_sys1" in j


def can_enter(device):
    """Whether a command can be run inside the device.  Device.exec may take
    the sandbox's descriptors too early when the command started just now
    (nsenter then finds no /usr/bin/setpriv, for as long as it keeps them):
    they are taken again then."""
    if device.sh("true").returncode == 0:
        return True
    device._release_enter()
    return False


def test_agent_stand_in_killall_inside_not_host(device, tmp_path):
    fake = tmp_path / "agent"
    shutil.copy2("/bin/sleep", fake)
    with HostGuard(device) as guard:
        p = device.start(["/usr/bin/korvat-cloud", "30"], agent=str(fake))
        assert wait_for(lambda: device.find("korvat-cloud") != [])
        assert wait_for(lambda: can_enter(device))
        r = device.exec(["/bin/sh", "-c", "echo 7 > /proc/sys/kernel/printk;"
                         " killall -9 korvat-cloud"])
        # the device ends with its main process, and with it everything
        # entered into it: the shell may be killed before it exits itself
        assert r.returncode in (0, -9), r
        assert p.wait(10) == 137
        assert device.read_file("/proc/sys/kernel/printk") == "7\n"
        assert guard.problems() == []


def test_guard_notices_changes(device):
    # a name the device has in its /tmp and the host has not (a fresh one,
    # so that whatever the host holds, the case is the one checked): the
    # guard watches it on the host too
    name = "kc-guard-%s" % uuid.uuid4().hex
    path = os.path.join("/tmp", name)
    assert not os.path.lexists(path)
    device.write_file("/tmp/" + name, "device\n")
    with HostGuard(device) as guard:
        assert guard.problems() == []
        with open(path, "w") as f:
            f.write("0\n")
        try:
            assert guard.problems() == ["host /tmp/%s changed" % name]
        finally:
            os.unlink(path)
        assert guard.problems() == []
        guard.decoys["korvat-cloud"].kill()
        guard.decoys["korvat-cloud"].wait()
        assert any("korvat-cloud was killed" in x for x in guard.problems())
