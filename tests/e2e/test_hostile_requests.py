"""Hostile text in every request field that reaches a device command: the
firmware URL, the LAN and guest addresses and masks, names, pass-phrases,
RADIUS settings, client MACs and the server URL.  Whatever a field holds,
only the tools the methods name run, and each tool gets the text literally
(as the journal of the simulated device shows it), or the request is
refused."""

import pytest

from conftest import MAC, request_barrier, wait_for

# Each would leave a marker file if the shell ran it as code.
HOSTILE = [
    "`touch /tmp/pwned-bq`",
    "$(touch /tmp/pwned-dollar)",
    "x;touch /tmp/pwned-semi",
    "x|touch /tmp/pwned-pipe",
    "x&&touch /tmp/pwned-and",
    "x' ; touch /tmp/pwned-sq; '",
    'x" ; touch /tmp/pwned-dq; "',
    "x > /tmp/pwned-redir",
    "$HOME*?[a]~#",
]
MARKERS = ["/tmp/pwned-bq", "/tmp/pwned-dollar", "/tmp/pwned-semi", "/tmp/pwned-pipe",
           "/tmp/pwned-and", "/tmp/pwned-sq", "/tmp/pwned-dq", "/tmp/pwned-redir"]
SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'
INVALID = ('{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,'
           '"message":"Invalid method parameter","data":""}}')
LONG = 60

# the firmware tool records how many arguments it got and each of them
RECORD_ARGS = 'n=0; for a in "$@"; do n=$((n+1)); echo "$n:$a" >> /tmp/fw-args; done\n'


def no_marker(device):
    return [m for m in MARKERS if device.exists(m)]


@pytest.mark.parametrize("text", HOSTILE + ["http://fw.example/VK310 fw (v2).bin"])
def test_a_firmware_url_reaches_the_tool_as_one_literal_argument(device,
                                                                 connected_with_radios_known,
                                                                 text):
    agent, server = connected_with_radios_known
    device.set_script("cli.sh", RECORD_ARGS)
    url = "http://fw.example/" + text
    reply = server.request("dxUpdateFirmware", {"deviceId": MAC, "url": url}, id="fw",
                           timeout=LONG)
    assert reply.raw == SUCCESS % ("fw", MAC)
    assert wait_for(lambda: device.exists("/tmp/fw-args"))
    request_barrier(server, LONG)
    assert device.read_file("/tmp/fw-args") == "1:fwupgrade\n2:%s\n" % url
    assert device.wait_journal("cli.sh fwupgrade " + url)
    assert no_marker(device) == []
    assert not device.reboot_pending()


@pytest.mark.parametrize("url", ["http://fw.example/a.bin\nreboot",
                                 "http://fw.example/a.bin\ttouch /tmp/pwned-tab",
                                 "http://fw.example/a.bin\rreboot",
                                 "http://fw.example/\x01.bin"])
def test_a_firmware_url_with_a_control_character_is_refused(device, connected_with_radios_known,
                                                            url):
    agent, server = connected_with_radios_known
    device.clear_journal()
    reply = server.request("dxUpdateFirmware", {"deviceId": MAC, "url": url}, id="fwc",
                           timeout=LONG)
    assert reply.raw == INVALID % "fwc"
    request_barrier(server, LONG)
    assert not [line for line in device.journal() if line.startswith(("cli.sh", "reboot"))]
    assert not device.exists("/tmp/pwned-tab")
    assert not device.reboot_pending()


STATIC = {"deviceId": MAC, "deviceName": "Office AP", "deviceIpAddress": "192.168.1.20",
          "deviceSubnetMask": "255.255.255.0", "deviceDefaultGateway": "192.168.1.1",
          "dhcpEnabled": False, "dnsServer1": "192.168.1.1", "dnsServer2": "9.9.9.9"}


@pytest.mark.parametrize("field", ["deviceIpAddress", "deviceSubnetMask",
                                   "deviceDefaultGateway", "dnsServer1", "dnsServer2",
                                   "deviceName"])
def test_hostile_lan_settings_reach_the_tools_literally(device, connected_with_radios_known,
                                                        field):
    """A mask such as "255.255.255.0; touch /tmp/x" passes the mask check
    (its four numbers read well): it must still reach the network check and
    UCI as text."""
    agent, server = connected_with_radios_known
    for n, text in enumerate(HOSTILE):
        value = STATIC[field] + text if field != "deviceName" else text
        device.clear_journal()
        reply = server.request("dxSetNetworkSettings", dict(STATIC, **{field: value}),
                               id="n%d" % n, timeout=LONG)
        assert reply.data.get("result") == {"deviceId": MAC} or \
            reply.raw == INVALID % ("n%d" % n), reply.raw
        request_barrier(server, LONG)
        journal = device.journal()
        if field in ("deviceIpAddress", "deviceSubnetMask", "deviceDefaultGateway"):
            # the same-network check got the text as one argument
            assert [line for line in journal if line.startswith("kapri_util.lua getNetwordId")
                    and value in line], (value, journal)
        if reply.data.get("result"):
            stored = value[:20] if field == "deviceName" else value[:64]
            assert [line for line in journal
                    if line.startswith("uci set ") and stored in line], (stored, journal)
        assert no_marker(device) == [], (field, text)


GUEST = {"deviceId": MAC, "interface": "2.4GHz", "ssid": "Guest-2", "guestEnabled": True,
         "broadcastEnabled": False, "security": "WPA2-PSK", "password": "guestpass1",
         "separationEnabled": False, "gatewayIp": "10.20.30.1", "subnetMask": "255.255.255.0",
         "startingIp": "10.20.30.100", "endingIp": "10.20.30.200"}


@pytest.mark.parametrize("field", ["gatewayIp", "subnetMask", "startingIp", "endingIp",
                                   "ssid", "password"])
def test_hostile_guest_settings_reach_the_tools_literally(device, connected_with_radios_known,
                                                          field):
    agent, server = connected_with_radios_known
    for n, text in enumerate(HOSTILE):
        value = GUEST[field] + text if field not in ("ssid",) else text[:32]
        if field == "password":
            value = ("guest" + text)[:63]
        device.clear_journal()
        reply = server.request("vekSetGuestNetworkConfig", dict(GUEST, **{field: value}),
                               id="g%d" % n, timeout=LONG)
        request_barrier(server, LONG)
        journal = device.journal()
        if field in ("gatewayIp", "subnetMask", "startingIp", "endingIp"):
            assert [line for line in journal if line.startswith("kapri_util.lua getNetwordId")
                    and value in line], (value, journal)
        if reply.data.get("result"):
            assert [line for line in journal if line.startswith("uci set ") and
                    line.endswith("=" + value)], (value, journal)
        assert no_marker(device) == [], (field, text)


def test_hostile_wireless_settings_reach_uci_literally(device, connected_with_radios_known):
    agent, server = connected_with_radios_known
    for n, text in enumerate(HOSTILE):
        ssid = text[:32]
        password = ("pass" + text)[:63]
        secret = ("s" + text)[:64]
        server_name = "10.0.0.5" + text
        device.clear_journal()
        reply = server.request("vekSetNetworkConfig",
                               {"deviceId": MAC, "networkIndex": 1, "ssid": ssid,
                                "security": "WPA2-PSK", "password": password,
                                "enabled": True}, id="w%d" % n, timeout=LONG)
        assert reply.raw == SUCCESS % ("w%d" % n, MAC)
        reply = server.request("vekSetNetworkConfig",
                               {"deviceId": MAC, "networkIndex": 1, "ssid": ssid,
                                "security": "WPA2", "radiusServer": server_name,
                                "radiusSecret": secret, "enabled": True},
                               id="r%d" % n, timeout=LONG)
        assert reply.raw == SUCCESS % ("r%d" % n, MAC)
        request_barrier(server, LONG)
        journal = device.journal()
        for line in ("uci set wireless.w0_index1.ssid=" + ssid,
                     "uci set wireless.w0_index1.key=" + password,
                     "uci set wireless.w0_index1.server=" + server_name,
                     "uci set wireless.w0_index1.WLANWpaRadiusSrvSecret=" + secret):
            assert line in journal, (line, journal)
        assert no_marker(device) == [], text


def test_a_hostile_client_mac_reaches_the_script_literally(device, connected_with_radios_known):
    agent, server = connected_with_radios_known
    for n, text in enumerate(HOSTILE):
        device.clear_journal()
        server.request("vekGetClientStatus", {"deviceId": MAC, "cmac": text}, id="c%d" % n,
                       timeout=LONG)
        assert "kapri_util.lua vekGetClientStatus result " + text in device.journal()
        assert no_marker(device) == [], text


def test_a_hostile_server_url_reaches_uci_literally(device, connected_with_radios_known):
    agent, server = connected_with_radios_known
    # the agent restarts itself through the init script: keep that from running
    device.set_output("korvatCloud", "")
    for n, text in enumerate(HOSTILE):
        device.clear_journal()
        url = "ws://cloud.example/" + text
        reply = server.request("dxSetCloudServerUrl", {"deviceId": MAC, "url": url,
                                                       "port": 8443}, id="u%d" % n,
                               timeout=LONG)
        assert reply.raw == SUCCESS % ("u%d" % n, MAC)
        assert device.wait_journal("uci set korvatCloud.korvatCloud.server_url=" + url)
        assert no_marker(device) == [], text
