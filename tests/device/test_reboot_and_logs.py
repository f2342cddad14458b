# The device's side of the maintenance commands: a reboot that ends the
# device a moment later and a boot that starts it again on the same run
# directory (RAM state gone, configuration and flash kept), the queue
# backups carried on flash, the event file of the utility script, the
# system log that logger writes and logread follows, BusyBox date and
# killall, a settable /proc/stat and the firmware tool that only records.
import os
import re
import subprocess
import time

from conftest import run_sh
from hostguard import HostGuard

BACKUPS = ("cloud_recv_cmd.backup", "cloud_sent_cmd.backup",
           "cloud_sent_status_cmd.backup", "cloud_sent_event_cmd.backup")
LOG_LINE = re.compile(r"^(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) "
                      r"[ 123]\d \d\d:\d\d:\d\d VK310 ")


def one(device, script, **kw):
    status, out, err = run_sh(device, script, **kw)
    assert status == 0, err
    return out


def flash(device):
    return sorted(os.listdir(os.path.join(device.run, "flash")))


def test_reboot_ends_the_device_a_moment_later_and_the_next_start_boots(device):
    device.uci_ok("set", "system.system.SystemName=Committed")
    device.uci_ok("commit")
    p = device.start(["/bin/sh", "-c", """
for f in cloud_recv_cmd cloud_sent_cmd; do echo "1 $f" > /etc/$f.backup; done
echo kept > /etc/keep.me
uci set system.system.SystemName=Staged
echo 0 > /proc/sys/kernel/printk
logger before-reboot
echo ram > /tmp/t
mkdir -p /tmp/d/e; echo x > /tmp/d/e/f
reboot; echo "reboot returned $?"
/usr/sbin/kapri_util.lua backup_cloud_files; echo copied
while true; do sleep 0.1; done
"""])
    assert device.wait_rebooted(15)
    out = p.stdout.read().decode()
    # reboot returns at once; what follows it still runs before the end
    assert out == "reboot returned 0\ncopied\n"
    # the shell ended with the SIGTERM (or the SIGKILL after it)
    assert p.returncode in (128 + 15, 128 + 9)
    assert device.reboot_pending()
    assert "reboot" in device.journal()

    out = one(device, """
ls -A /tmp; echo --
cat /proc/sys/kernel/printk
ls /etc | grep -e cloud_ -e keep.me; echo --
uci get system.system.SystemName
logread | grep -c before-reboot
mkdir -p /mnt/_sys1; mount -t jffs2 /dev/mtdblock2 /mnt/_sys1
cat /mnt/_sys1/cloud_recv_cmd.backup /mnt/_sys1/cloud_sent_cmd.backup
umount /mnt/_sys1
""")
    assert out == ("resolv.conf\nresolv.conf.auto\n--\n"
                   "4\t4\t1\t7\n"
                   "keep.me\n--\n"
                   "Committed\n"
                   "0\n"
                   "1 cloud_recv_cmd\n1 cloud_sent_cmd\n")
    assert not device.reboot_pending()
    assert device.read_file("/tmp/resolv.conf") == "nameserver 192.168.1.1\n"


def test_a_start_without_reboot_is_no_boot(device):
    one(device, "echo ram > /tmp/t; echo 1 > /etc/cloud_recv_cmd.backup")
    assert one(device, "cat /tmp/t /etc/cloud_recv_cmd.backup") == "ram\n1\n"


def test_a_reboot_while_the_flash_is_mounted_keeps_what_was_written(device):
    p = device.start(["/bin/sh", "-c", """
mkdir -p /mnt/_sys1; mount -t jffs2 /dev/mtdblock2 /mnt/_sys1
echo written > /mnt/_sys1/cloud_sent_cmd.backup
reboot; while true; do sleep 0.1; done
"""])
    assert device.wait_rebooted(15)
    p.stdout.read()
    # the boot unmounts: the mount point is empty, the flash has the file
    out = one(device, "ls -A /mnt/_sys1; mkdir -p /mnt/_sys1; "
                      "mount -t jffs2 /dev/mtdblock2 /mnt/_sys1 && "
                      "cat /mnt/_sys1/cloud_sent_cmd.backup")
    assert out == "written\n"
    assert flash(device) == ["cloud_sent_cmd.backup"]


def test_an_override_makes_reboot_record_only(device):
    device.set_output("reboot", "")
    out = one(device, "reboot; sleep 4; echo still running")
    assert out == "still running\n"
    assert device.journal() == ["reboot"]
    assert not device.reboot_pending()


def test_reboot_refuses_outside_the_device_pid_namespace(tmp_path):
    import sys
    from conftest import DEVICE_DIR
    run = tmp_path / "run"
    run.mkdir()
    env = dict(os.environ, SIMDEVICE_RUN=str(run))
    r = subprocess.run([sys.executable, "-S",
                        os.path.join(DEVICE_DIR, "sim", "bin", "reboot")],
                       env=env, capture_output=True, text=True, timeout=10)
    assert r.returncode == 1
    assert "not inside a simulated device" in r.stderr
    assert not (run / "reboot.pending").exists()


def test_backup_cloud_files_copies_the_four_backups_to_flash(device):
    one(device, """
for f in cloud_recv_cmd cloud_sent_cmd cloud_sent_status_cmd cloud_sent_event_cmd cloud_other; do
  echo "$f" > /etc/$f.backup
done
/usr/sbin/kapri_util.lua backup_cloud_files
""")
    assert flash(device) == sorted(BACKUPS)
    for name in BACKUPS:
        with open(os.path.join(device.run, "flash", name)) as f:
            assert f.read() == name.replace(".backup", "") + "\n"
    assert device.journal()[-1] == "kapri_util.lua backup_cloud_files"


def test_backup_cloud_files_copies_only_what_exists(device):
    one(device, "echo 1 > /etc/cloud_sent_event_cmd.backup; "
                "/usr/sbin/kapri_util.lua backup_cloud_files")
    assert flash(device) == ["cloud_sent_event_cmd.backup"]


def test_add_a_notification_appends_an_event_line_with_the_local_zone(device):
    one(device, "/usr/sbin/kapri_util.lua add_a_notification 2 INFO Reboot; "
                "/usr/sbin/kapri_util.lua add_a_notification 9 WARN Two words",
        env={"TZ": "CET-1"})
    lines = device.read_file("/tmp/cEvtLog").split("\n")
    stamp = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+0100"
    assert re.fullmatch("number:2 dateTime:%s type:INFO event:Reboot" % stamp,
                        lines[0]), lines
    assert re.fullmatch("number:9 dateTime:%s type:WARN event:Two words" % stamp,
                        lines[1]), lines
    assert lines[2:] == [""]


def test_logread_f_follows_only_new_lines_and_logger_writes_busybox_lines(device):
    out = one(device, """
logread -f > /tmp/f &
logread -F > /tmp/F &
sleep 0.8
logger -t app hello
echo 'say "hi"' | logger
logger -p 3 -t d failed
logger -p 30 -t n numeric
logger -p daemon.info -t dnsmasq started
sleep 0.8
killall logread; sleep 0.2
echo --; cat /tmp/f; echo --; cat /tmp/F; echo --; logread
""")
    plain, follow, follow_all, everything = out.split("--\n")
    new = follow.splitlines()
    assert [x[16:] for x in new] == [
        "VK310 user.notice app: hello",
        "VK310 user.notice root: say \"hi\"",
        "VK310 user.err d: failed",
        "VK310 user.info n: numeric",
        "VK310 daemon.info dnsmasq: started"]
    assert all(LOG_LINE.match(x) for x in new), new
    old = device.syslog().splitlines()[:4]
    assert old[0].startswith("Nov 15 23:12:20 VK310 kern.notice kernel:")
    assert follow_all.splitlines() == old + new
    assert everything.splitlines() == old + new
    assert "logread -f" in device.journal() and "killall logread" in device.journal()


def test_a_follower_sees_every_line_logged_after_its_journal_line(device):
    p = device.start(["/bin/sh", "-c", "logread -f > /tmp/f & sleep 30"])
    assert device.wait_journal("logread -f")
    device.append_syslog("Nov 15 23:12:24 VK310 user.notice root: one\n"
                         "Nov 15 23:12:25 VK310 user.notice root: two")
    deadline = time.monotonic() + 5
    while (device.read_file("/tmp/f") or "").count("\n") < 2 and \
            time.monotonic() < deadline:
        time.sleep(0.05)
    assert device.read_file("/tmp/f") == (
        "Nov 15 23:12:24 VK310 user.notice root: one\n"
        "Nov 15 23:12:25 VK310 user.notice root: two\n")
    device.stop()
    p.wait()


def test_killall_signals_device_processes_only(device):
    with HostGuard(device, decoys=("logread", "korvat-cloud")) as guard:
        status, out, err = run_sh(
            device, "logread -f > /dev/null & sleep 0.5; "
                    "ps | grep -c '[/]simdevice/bin/logread'; "
                    "killall logread; echo $?; sleep 0.3; "
                    "ps | grep -c '[/]simdevice/bin/logread'")
        # one follower before, killall succeeded, none after
        assert out == "1\n0\n0\n", err
        assert guard.problems() == []
    assert "killall logread" in device.journal()


def test_busybox_date_takes_the_log_streamers_form_as_one_word(device):
    year = time.strftime("%Y")
    out = one(device, """
date -d 11.15-23:12:24 +'%Y-%m-%dT%H:%M:%S%z' | tr -d '\\n'; echo
date -d '11. 5-08:01:02' +'%Y-%m-%dT%H:%M:%S%z' | tr -d '\\n'; echo
date -d 06.15-12:00:00 +'%Y-%m-%dT%H:%M:%S%z' | tr -d '\\n'; echo
""", env={"TZ": "CET-1CEST,M3.5.0,M10.5.0/3"})
    assert out.split("\n") == [year + "-11-15T23:12:24+0100",
                               year + "-11-05T08:01:02+0100",
                               year + "-06-15T12:00:00+0200", ""]
    assert "date -d 11. 5-08:01:02 +%Y-%m-%dT%H:%M:%S%z" in device.journal()


STAT1 = ("cpu  100 0 100 800 0 0 0 0 0 0\n"
         "cpu0 100 0 100 800 0 0 0 0 0 0\n"
         "intr 0\nctxt 0\nbtime 1700000000\nprocesses 1\n")
STAT2 = STAT1.replace("cpu  100 0 100 800", "cpu  200 0 200 1000")


def test_proc_stat_reads_what_the_test_sets_and_follows_changes(device):
    device.set_proc_stat(STAT1)
    p = device.start(["/bin/sh", "-c",
                      "head -1 /proc/stat; while [ ! -e /tmp/go ]; do sleep 0.05; done; "
                      "head -1 /proc/stat; echo x > /proc/stat 2>/dev/null || echo read-only"])
    time.sleep(0.5)
    device.set_proc_stat(STAT2)
    device.write_file("/tmp/go", "")
    out, err = p.communicate(timeout=20)
    assert out.decode() == ("cpu  100 0 100 800 0 0 0 0 0 0\n"
                            "cpu  200 0 200 1000 0 0 0 0 0 0\n"
                            "read-only\n")


def test_without_a_set_proc_stat_the_device_reads_the_real_one(device):
    out = one(device, "head -c 4 /proc/stat; grep -c '^btime ' /proc/stat")
    assert out == "cpu 1\n"


def test_the_firmware_tool_only_records(device):
    out = one(device, "/bin/cli.sh fwupgrade a\\;reboot ; echo done")
    assert out == "done\n"
    assert device.journal() == ["cli.sh fwupgrade a;reboot"]
    assert not device.reboot_pending()
