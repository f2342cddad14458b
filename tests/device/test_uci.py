# UCI semantics of the device's `uci` tool: lookups, staged changes in
# /tmp/.uci, commit, revert and the config file syntax.
import os

from conftest import run_sh


def cfg(device, pkg):
    with open(device.path("/etc/config/" + pkg)) as f:
        return f.read()


def test_get_option_section_and_extended(device):
    assert device.uci_get("korvatCloud.korvatCloud.conn_retry") == "10"
    assert device.uci_get("system.system") == "system"
    assert device.uci_get("dhcp.@dnsmasq[0].resolvfile") == "/tmp/resolv.conf"
    assert device.uci_get("ntpclient.@ntpserver[0].hostname") == "pool.ntp.org"
    assert device.uci_get("ntpclient.@ntpserver[-1].hostname") == \
        "time.nist.gov"
    assert device.uci_get("wireless.w1_index25.WLANEnable") == "0"


def test_missing_entry(device):
    for path in ("korvatCloud.korvatCloud.nope", "korvatCloud.nosec.x",
                 "nopkg.a.b", "ntpclient.@ntpserver[5].hostname"):
        r = device.uci("get", path)
        assert r.returncode == 1, path
        assert r.stderr == "uci: Entry not found\n"
        assert r.stdout == ""


def test_set_is_staged_until_commit(device):
    before = cfg(device, "network")
    assert device.uci("set", "network.lan.ipaddr=10.0.0.5").returncode == 0
    assert device.uci_get("network.lan.ipaddr") == "10.0.0.5"
    assert cfg(device, "network") == before
    assert os.path.exists(device.path("/tmp/.uci/network"))
    assert device.uci("changes").stdout == "network.lan.ipaddr='10.0.0.5'\n"
    assert device.uci_committed("network.lan.ipaddr") == "192.168.1.2"
    assert device.uci("commit", "network").returncode == 0
    assert "\toption ipaddr '10.0.0.5'\n" in cfg(device, "network")
    assert not os.path.exists(device.path("/tmp/.uci/network"))
    assert device.uci("changes").stdout == ""


def test_commit_all_and_dotted_path(device):
    device.uci_ok("set", "korvatCloud.korvatCloud.syslog_mode=DEBUG")
    device.uci_ok("set", "led.led.SystemLED=0")
    device.uci_ok("commit", "korvatCloud.korvatCloud.syslog_mode")
    assert device.uci_committed("korvatCloud.korvatCloud.syslog_mode") == \
        "DEBUG"
    assert device.uci_committed("led.led.SystemLED") == "1"
    device.uci_ok("commit")
    assert device.uci_committed("led.led.SystemLED") == "0"


def test_revert(device):
    device.uci_ok("set", "system.system.SystemName=new")
    device.uci_ok("set", "system.system.timezone=UTC5")
    device.uci_ok("revert", "system.system.SystemName")
    assert device.uci_get("system.system.SystemName") == "VK310-AP"
    assert device.uci_get("system.system.timezone") == "UTC5"
    device.uci_ok("revert", "system")
    assert device.uci_get("system.system.timezone") == "UTC0"
    assert device.uci("changes", "system").stdout == ""


def test_extended_set_and_anonymous_sections(device):
    device.uci_ok("set", "dhcp.@dnsmasq[0].resolvfile=/tmp/resolv.conf.auto")
    device.uci_ok("commit", "dhcp")
    text = cfg(device, "dhcp")
    assert "\nconfig dnsmasq\n" in text  # stays anonymous
    assert "option resolvfile '/tmp/resolv.conf.auto'" in text
    name = device.uci("add", "ntpclient", "ntpserver").stdout.strip()
    assert name.startswith("cfg")
    device.uci_ok("set", "ntpclient.%s.hostname=ntp.example" % name)
    assert device.uci_get("ntpclient.@ntpserver[-1].hostname") == \
        "ntp.example"
    assert device.uci_get("ntpclient.@ntpserver[2].hostname") == "ntp.example"


def test_section_create_delete_rename_lists(device):
    r = device.uci("set", "wireless.w0_index9.ssid=x")
    assert r.returncode == 1 and r.stderr == "uci: Invalid argument\n"
    device.uci_ok("set", "wireless.w0_index9=wifi-iface")
    device.uci_ok("set", "wireless.w0_index9.ssid=New Net")
    assert device.uci_get("wireless.w0_index9") == "wifi-iface"
    device.uci_ok("add_list", "wireless.w0_index9.maclist=aa")
    device.uci_ok("add_list", "wireless.w0_index9.maclist=bb")
    assert device.uci_get("wireless.w0_index9.maclist") == "aa bb"
    device.uci_ok("del_list", "wireless.w0_index9.maclist=aa")
    assert device.uci_get("wireless.w0_index9.maclist") == "bb"
    device.uci_ok("rename", "wireless.w0_index9.ssid=name")
    assert device.uci_get("wireless.w0_index9.name") == "New Net"
    device.uci_ok("commit", "wireless")
    text = cfg(device, "wireless")
    assert "config wifi-iface 'w0_index9'\n\toption name 'New Net'\n" \
        "\tlist maclist 'bb'\n" in text
    device.uci_ok("delete", "wireless.w0_index9")
    assert device.uci_get("wireless.w0_index9") is None
    r = device.uci("delete", "wireless.w0_index9")
    assert r.returncode == 1 and r.stderr == "uci: Entry not found\n"


def test_empty_value_deletes_option(device):
    device.uci_ok("set", "wireless.w0_index1.WLANVLANID=")
    assert device.uci("get", "wireless.w0_index1.WLANVLANID").returncode == 1
    device.uci_ok("set", "wireless.w0_index1.WLANVLANID=12")
    device.uci_ok("set", "wireless.w0_index1.WLANVLANID=")
    assert device.uci_get("wireless.w0_index1.WLANVLANID") is None


def test_show_format(device):
    out = device.uci("show", "ntpclient").stdout.splitlines()
    assert "ntpclient.@ntpserver[1]=ntpserver" in out
    assert "ntpclient.@ntpserver[1].hostname='time.nist.gov'" in out
    assert "ntpclient.daylightsaving.startMonth='3'" in out
    assert device.uci("show", "led.led.SystemLED").stdout == \
        "led.led.SystemLED='1'\n"


def test_quoting_round_trip(device):
    with open(device.path("/etc/config/test"), "w") as f:
        f.write("config t 'a'\n\toption x \"say \\\"hi\\\"\"  # c\n"
                "\toption y it\\'s\n\toption z 'one two'\n")
    assert device.uci_get("test.a.x") == 'say "hi"'
    assert device.uci_get("test.a.y") == "it's"
    device.uci_ok("set", "test.a.w=quote ' and \" both")
    device.uci_ok("commit", "test")
    assert device.uci_get("test.a.w") == "quote ' and \" both"
    assert device.uci_get("test.a.z") == "one two"


def test_inside_device_shell_quoting_and_journal(device):
    status, out, err = run_sh(device, """
uci set korvatCloud.korvatCloud.server_url="ws://a b"
uci get korvatCloud.korvatCloud.server_url | tr -d '\\n'; echo
uci set korvatCloud.korvatCloud.auto_update=300
uci commit korvatCloud.korvatCloud.auto_update
uci get korvatCloud.korvatCloud.missing; echo rc=$?
""")
    assert out == "ws://a b\nrc=1\n"
    assert err == "uci: Entry not found\n"
    assert device.uci_committed("korvatCloud.korvatCloud.auto_update") == "300"
    assert device.journal() == [
        "uci set korvatCloud.korvatCloud.server_url=ws://a b",
        "uci get korvatCloud.korvatCloud.server_url",
        "uci set korvatCloud.korvatCloud.auto_update=300",
        "uci commit korvatCloud.korvatCloud.auto_update",
        "uci get korvatCloud.korvatCloud.missing"]


def test_tools_refuse_to_run_on_the_host(tmp_path):
    import subprocess
    import sys
    from conftest import DEVICE_DIR
    env = {k: v for k, v in os.environ.items() if k != "SIMDEVICE_RUN"}
    for tool in ("uci", "reboot", "kapri_util.lua"):
        r = subprocess.run([sys.executable, "-S",
                            os.path.join(DEVICE_DIR, "sim", "bin", tool),
                            "set", "x.y.z=1"], env=env, capture_output=True,
                           text=True)
        assert r.returncode == 2, tool
        assert "not inside a simulated device" in r.stderr
    assert not os.path.exists("/tmp/.uci/x")
