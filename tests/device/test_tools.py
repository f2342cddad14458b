# Outputs of the simulated device tools for the pipelines the agent runs,
# per-run overrides, the journal, and flash persistence through mount.
import json

from conftest import run_sh

MODEL = ("cat /etc/mDNSResponder.conf  | grep VK | sed 's/^.\"//g' |  "
         "sed 's/\".*$//g' | tr -d '\\n'")


def one(device, cmd):
    status, out, err = run_sh(device, cmd)
    assert status == 0, err
    return out


def test_fact_pipelines(device):
    out = one(device, "; echo; ".join([
        MODEL,
        "cat /etc/version | cut -d- -f1 | cut -d' ' -f1 | tr -d '\n'",
        "ifconfig br-lan | grep 'inet addr' | sed -e 's/.*addr://g' | "
        "sed -e 's/ .*//g' | tr -d '\\n'",
        "ifconfig br-lan | grep 'Mask:' | sed -e 's/.*Mask://g' | tr -d '\\n'",
        "ip route | grep 'default via' | sed -e 's/.*via //g' | "
        "sed -e 's/ .*//g' | tr -d '\\n'",
        "free | awk '/^Mem/ {print $4}' | tr -d '\\n'",
        "free | awk '/^Mem/ {print $3}' | tr -d '\\n'",
        "top -bn1 | grep CPU | head -n 1 | "
        "awk '{print $2 + $4 + $6 + $10 + $12 + $14}'",
        "sntool | tr -d '\\n'",
        "uci get led.led.SystemLED | tr -d '\\n'",
    ]))
    assert out.split("\n") == ["VK310", "2.0.1.7", "192.168.1.2",
                               "255.255.255.0", "192.168.1.1", "55032",
                               "48440", "2.3", "", "7K2X9Q3", "1"]


def test_lan_values_follow_committed_config(device):
    device.uci_ok("set", "network.lan.ipaddr=10.1.2.3")
    device.uci_ok("set", "network.lan.netmask=255.255.0.0")
    out = one(device, "ifconfig br-lan; ip route")
    assert "inet addr:192.168.1.2 " in out  # not applied yet
    device.uci_ok("commit")
    out = one(device, "ifconfig br-lan; ip route")
    assert "inet addr:10.1.2.3  Bcast:10.1.255.255  Mask:255.255.0.0" in out
    assert "10.1.0.0/16 dev br-lan" in out


def test_busybox_date_form(device):
    out = one(device, "TZ=UTC0 date -d \"11.15-23:12:24\" "
                      "+'%Y-%m-%dT%H:%M:%S%z' | tr -d '\\n'")
    assert out.endswith("-11-15T23:12:24+0000")


def test_overrides_out_rc_and_script(device):
    device.set_output("free", "              total        used        free\n"
                              "Mem:          1000         900         100\n")
    device.set_output("ifconfig", "nothing\n", "eth9", rc=3)
    device.set_script("sntool", "echo tag-$#-$1\n")
    device.set_output("kapri_util.lua", '{"RadioNum":3}\n', "WifiInfo")
    device.set_output("kapri_util.lua", "42\n", "GetSysTxRx", "eth0", "0",
                      "rx")
    out = one(device, "free | awk '/^Mem/ {print $4}'; ifconfig eth9; "
                      "echo rc=$?; sntool x; "
                      "/usr/sbin/kapri_util.lua WifiInfo; "
                      "/usr/sbin/kapri_util.lua GetSysTxRx eth0 0 rx bytes; "
                      "/usr/sbin/kapri_util.lua GetSysTxRx eth0 0 tx bytes")
    assert out == ("100\nnothing\nrc=3\ntag-1-x\n{\"RadioNum\":3}\n42\n"
                   "987654321\n")


def test_utility_script(device):
    out = one(device, """
K=/usr/sbin/kapri_util.lua
$K get_support_radio | tr -d '\n'; echo
$K WifiInfo | tr -d '\n'; echo
$K getNetwordId 192.168.1.77 255.255.255.0
$K getNetwordId 10.10.10.100 255.255.255.0
$K no_such_command; echo "[unknown]"
$K add_a_notification 2 INFO Reboot
""").split("\n")
    assert json.loads(out[0]) == {"wifi0": "2.4G", "wifi1": "5G"}
    info = json.loads(out[1])
    assert info["RadioNum"] == 2 and info["Dev5G"]["Status"] == "Enabled"
    assert out[2:5] == ["192.168.1.0", "10.10.10.0", "[unknown]"]
    evt = device.read_file("/tmp/cEvtLog")
    assert evt.startswith("number:2 dateTime:") and \
        evt.endswith(" type:INFO event:Reboot\n")
    assert "kapri_util.lua no_such_command" in device.journal()


def test_network_config_reflects_uci(device):
    device.uci_ok("set", "wireless.w1_index2.ssid=Lab")
    device.uci_ok("set", "wireless.w1_index2.encryption=wpa2 aes")
    device.uci_ok("set", "wireless.w1_index2.server=10.0.0.9")
    out = one(device, "/usr/sbin/kapri_util.lua vekGetNetworkConfig "
                      "result 52")
    cfgj = json.loads(out)
    assert cfgj["ssid"] == "Lab" and cfgj["security"] == "WPA2"
    assert cfgj["radiusServer"] == "10.0.0.9" and "password" not in cfgj


def test_apply_commits(device):
    device.uci_ok("set", "system.system.SystemName=Applied")
    device.uci_ok("set", "wireless.w0_index3.ssid=Gone")
    one(device, "/usr/sbin/kapri_util.lua rm_wifi_config w0_index3; "
                "/usr/sbin/kapri_util.lua cloud_action_apply")
    assert device.uci_committed("system.system.SystemName") == "Applied"
    assert device.uci_committed("wireless.w0_index3") is None
    assert device.uci_committed("wireless.w0_index2") == "wifi-iface"
    assert device.journal() == ["kapri_util.lua rm_wifi_config w0_index3",
                                "kapri_util.lua cloud_action_apply"]


def test_journal_lines(device):
    device.set_output("reboot", "")  # recorded only: the device stays up
    one(device, """
reboot; /sbin/reboot; /usr/sbin/reboot
luci-reload ntpclient
udhcpc -i br-lan -R
upnpc-static -d 50001 tcp
logger "Memory usage greater then 90%."
/etc/init.d/korvatCloud restart
/etc/init.d/upnpc restart
/bin/cli.sh fwupgrade a\\;reboot
/usr/bin/lua /usr/sbin/session_timeout.lua 600 | tr -d '\\n'
""")
    assert device.journal() == [
        "reboot", "reboot", "reboot", "luci-reload ntpclient",
        "udhcpc -i br-lan -R", "upnpc-static -d 50001 tcp",
        "logger Memory usage greater then 90%.", "korvatCloud restart",
        "upnpc restart", "cli.sh fwupgrade a;reboot",
        "session_timeout.lua 600"]


def test_concurrent_journal_lines_do_not_mix(device):
    one(device, "for i in $(seq 1 40); do "
                "logger -t t$i xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx$i & "
                "done; wait")
    lines = device.journal()
    assert len(lines) == 40
    assert sorted(lines) == sorted(
        "logger -t t%d xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx%d" % (i, i)
        for i in range(1, 41))


def test_logread_and_follow(device):
    p = device.start(["/bin/sh", "-c",
                      "logread -f > /tmp/cloud_log_file & sleep 0.8; "
                      "logger -t app hello; sleep 0.8; killall logread; "
                      "sleep 0.3; cat /tmp/cloud_log_file; ps"])
    out, err = p.communicate(timeout=20)
    lines = out.decode().splitlines()
    # as BusyBox's logread -f: only what is logged after it started
    assert lines[0].endswith(" VK310 user.notice app: hello")
    assert not any(" kern.notice kernel:" in x for x in lines)
    assert not any("/simdevice/bin/logread" in x for x in lines)
    assert "killall logread" in device.journal()
    line = lines[0]
    assert line[3] == " " and line[6] == " " and line[9] == ":"


def test_killall_inside_only(device):
    status, out, err = run_sh(device, "sleep 30 & sleep 31 & "
                                      "killall -9 sleep; wait; echo done")
    assert out == "done\n"
    assert "killall -9 sleep" in device.journal()


def test_flash_persists_across_runs(device):
    run_sh(device, """
echo 1 > /etc/cloud_recv_cmd.backup
echo 2 > /etc/cloud_sent_cmd.backup
/usr/sbin/kapri_util.lua backup_cloud_files
rm /etc/cloud_*.backup
""")
    status, out, err = run_sh(device, """
mkdir -p /mnt/_sys1
mount -t jffs2 /dev/mtdblock2 /mnt/_sys1
for f in cloud_recv_cmd.backup cloud_sent_cmd.backup x.backup; do
  [ -f /mnt/_sys1/$f ] && cp /mnt/_sys1/$f /etc/$f; rm /mnt/_sys1/$f
done
umount /mnt/_sys1
rm -r /mnt/_sys1
cat /etc/cloud_recv_cmd.backup /etc/cloud_sent_cmd.backup
""")
    assert out == "1\n2\n"
    assert "mount -t jffs2 /dev/mtdblock2 /mnt/_sys1" in device.journal()
    assert "umount /mnt/_sys1" in device.journal()
    status, out, err = run_sh(device, "mkdir -p /mnt/_sys1; "
                              "mount -t jffs2 /dev/mtdblock2 /mnt/_sys1; "
                              "ls /mnt/_sys1; umount /mnt/_sys1")
    assert out == ""


def test_session_timeout_verdict(device):
    device.write_file("/tmp/luci-sessions/external/record_file", "")
    import os
    import time
    old = time.time() - 100
    os.utime(device.path("/tmp/luci-sessions/external/record_file"),
             (old, old))
    out = one(device, "/usr/bin/lua /usr/sbin/session_timeout.lua 600; "
                      "/usr/bin/lua /usr/sbin/session_timeout.lua 50")
    assert out == "0\n1\n"
