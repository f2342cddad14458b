# Nothing a device run does may reach the host: a stand-in for the agent does
# the host-affecting things the agent does, and HostGuard finds no change.
import os
import shutil

from conftest import run_sh
from hostguard import HostGuard

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


def test_agent_stand_in_killall_inside_not_host(device, tmp_path):
    fake = tmp_path / "agent"
    shutil.copy2("/bin/sleep", fake)
    with HostGuard(device) as guard:
        p = device.start(["/usr/bin/korvat-cloud", "30"], agent=str(fake))
        device.wait_journal(lambda x: True, timeout=0.3)
        r = device.exec(["/bin/sh", "-c", "echo 7 > /proc/sys/kernel/printk;"
                         " killall -9 korvat-cloud"])
        # the device ends with its main process, and with it everything
        # entered into it: the shell may be killed before it exits itself
        assert r.returncode in (0, -9), r
        assert p.wait(10) == 137
        assert device.read_file("/proc/sys/kernel/printk") == "7\n"
        assert guard.problems() == []


def test_guard_notices_changes(device):
    with HostGuard(device) as guard:
        assert guard.problems() == []
        path = "/tmp/cloud_conn_state"
        existed = os.path.exists(path)
        if not existed:
            with open(path, "w") as f:
                f.write("0\n")
            try:
                assert "host /tmp/cloud_conn_state changed" in \
                    guard.problems()
            finally:
                os.unlink(path)
        guard.decoys["korvat-cloud"].kill()
        guard.decoys["korvat-cloud"].wait()
        assert any("korvat-cloud was killed" in x for x in guard.problems())
