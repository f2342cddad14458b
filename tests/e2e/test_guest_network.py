"""The guest network and the client list from the server:
"vekGetClientList", "vekGetGuestNetworkConfig" and "vekSetGuestNetworkConfig"
against the simulated device, with the exact reply bytes, the utility
script's calls, the guest options staged until the apply step commits them,
the band-steering rule, the addressing checks against the LAN, and every
refusal answered before any write."""
import json

from conftest import (MAC, assert_staged_until_applied, hold_apply_step, invalid_parameter_reply,
                      not_a_status_update, request_barrier, script_call_lines, uci_set_lines,
                      unsolicited, wait_radios_known, without)

SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'
NON_AP = "This method is not supported in Non-AP operation mode."
MASK_LINE = "[vekSetGuestNetworkConfigHandler 3573]"
# A handler that writes many options runs many device tools one after the
# other: give its reply time on a busy machine.
LONG = 60

CLIENTS = {"deviceId": "AA:BB:CC:00:00:01", "extra": 1, "clients": [
    {"name": "laptop", "cmac": "A0:B1:C2:D3:E4:01", "rx": "12.5", "signal": -61.5,
     "networkIndex": 0, "mac": "00:11:22:33:44:56", "ssid": "Korvat", "interface": "2.4GHz"},
    {"cmac": "A0:B1:C2:D3:E4:02", "networkIndex": 50.7, "name": None, "ssid": "Korvat"},
]}
CLIENTS_FILTERED = (
    '{"deviceId":"AA:BB:CC:00:00:01","clients":['
    '{"cmac":"A0:B1:C2:D3:E4:01","networkIndex":0,"mac":"00:11:22:33:44:56","ssid":"Korvat",'
    '"interface":"2.4GHz","name":"laptop"},'
    '{"cmac":"A0:B1:C2:D3:E4:02","networkIndex":50,"ssid":"Korvat","name":""}]}')

GUEST_ANSWER = {"mac": "00:11:22:33:44:70", "deviceId": "AA:BB:CC:00:00:01",
                "interface": "2.4GHz", "ssid": "Guest", "guestEnabled": True,
                "broadcastEnabled": False, "security": "WPA2-PSK", "password": "guestpass1",
                "separationEnabled": True, "gatewayIp": "10.10.10.1",
                "subnetMask": "255.255.255.0", "startingIp": "10.10.10.100",
                "endingIp": "10.10.10.200", "interface_name": "w0_index25"}
GUEST_FILTERED = (
    '{"deviceId":"AA:BB:CC:00:00:01","interface":"2.4GHz","ssid":"Guest","guestEnabled":true,'
    '"broadcastEnabled":false,"security":"WPA2-PSK","password":"guestpass1",'
    '"separationEnabled":true,"gatewayIp":"10.10.10.1","subnetMask":"255.255.255.0",'
    '"startingIp":"10.10.10.100","endingIp":"10.10.10.200"}')

GUEST = {"deviceId": MAC, "interface": "2.4GHz", "ssid": "Guest-2", "guestEnabled": True,
         "broadcastEnabled": False, "security": "WPA2-PSK", "password": "guestpass1",
         "separationEnabled": False, "gatewayIp": "10.20.30.1", "subnetMask": "255.255.255.0",
         "startingIp": "10.20.30.100", "endingIp": "10.20.30.200"}


def reply_without_result(server, method, params, id):
    """The text of a reply that carries neither "result" nor "error"."""
    server.send_text(json.dumps({"jsonrpc": "2.0", "id": id, "method": method,
                                 "params": params}))
    return server.next_message(LONG, predicate=not_a_status_update).raw


def start_ready(device, server, start_agent, **kw):
    agent = start_agent(server.url, **kw)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    return agent


# ---- vekGetClientList -----------------------------------------------------------------------

def test_client_list_without_network_index_asks_for_every_client(connected_with_radios_known,
                                                                 device):
    agent, server = connected_with_radios_known
    device.set_output("kapri_util.lua", json.dumps(CLIENTS) + "\n", "vekGetClientList")
    device.clear_journal()
    reply = server.request("vekGetClientList", {"deviceId": MAC}, id="c1")
    # listed members only, in list order; the script's deviceId is passed on
    assert reply.raw == '{"jsonrpc":"2.0","id":"c1","result":%s}' % CLIENTS_FILTERED
    assert script_call_lines(device, "vekGetClientList") == [
        "kapri_util.lua vekGetClientList result -999"]


def test_client_list_of_one_network(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    one = {"deviceId": "AA:BB:CC:00:00:01", "clients": [
        {"cmac": "A0:B1:C2:D3:E4:02", "rx": "5678", "tx": "8765", "networkIndex": 50,
         "interface": "5GHz"}]}
    device.set_output("kapri_util.lua", json.dumps(one) + "\n", "vekGetClientList", "result",
                      "50")
    device.clear_journal()
    reply = server.request("vekGetClientList", {"deviceId": MAC, "networkIndex": 50}, id="c2")
    assert script_call_lines(device, "vekGetClientList") == [
        "kapri_util.lua vekGetClientList result 50"]
    # "rx" and "tx" are not among the listed members of a client
    assert reply.raw == ('{"jsonrpc":"2.0","id":"c2","result":{"deviceId":"AA:BB:CC:00:00:01",'
                         '"clients":[{"cmac":"A0:B1:C2:D3:E4:02","networkIndex":50,'
                         '"interface":"5GHz"}]}}')


def test_client_list_refusals_and_odd_answers(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    for index in (8, 49, 58, -1, -999):
        reply = server.request("vekGetClientList", {"deviceId": MAC, "networkIndex": index},
                               id="ci")
        assert reply.raw == invalid_parameter_reply("ci", "Invalid network index."), index
    reply = server.request("vekGetClientList", {"networkIndex": 1}, id="nd")
    assert reply.raw == invalid_parameter_reply("nd")
    assert not script_call_lines(device, "vekGetClientList")
    # an answer that is not JSON
    device.set_output("kapri_util.lua", "clients: none\n", "vekGetClientList")
    reply = server.request("vekGetClientList", {"deviceId": MAC}, id="nj")
    assert reply.raw == invalid_parameter_reply("nj")
    # no answer at all: a reply without "result"
    device.set_output("kapri_util.lua", "", "vekGetClientList")
    assert reply_without_result(server, "vekGetClientList", {"deviceId": MAC},
                                "na") == '{"jsonrpc":"2.0","id":"na"}'


# ---- vekGetGuestNetworkConfig -----------------------------------------------------------------

def test_guest_network_config_is_the_filtered_answer(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.set_output("kapri_util.lua", json.dumps(GUEST_ANSWER) + "\n",
                      "vekGetGuestNetworkConfig")
    device.clear_journal()
    reply = server.request("vekGetGuestNetworkConfig", {"deviceId": MAC, "interface": "2.4GHz"},
                           id="g1")
    assert reply.raw == '{"jsonrpc":"2.0","id":"g1","result":%s}' % GUEST_FILTERED
    reply = server.request("vekGetGuestNetworkConfig", {"deviceId": MAC, "interface": "5GHz"},
                           id="g2")
    assert reply.raw == '{"jsonrpc":"2.0","id":"g2","result":%s}' % GUEST_FILTERED
    assert script_call_lines(device, "vekGetGuestNetworkConfig") == [
        "kapri_util.lua vekGetGuestNetworkConfig result 2.4GHz",
        "kapri_util.lua vekGetGuestNetworkConfig result 5GHz"]


def test_guest_network_config_refusals_and_odd_answers(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    for params in ({"interface": "2.4GHz"}, {"deviceId": MAC},
                   {"deviceId": MAC, "interface": "6GHz"},
                   {"deviceId": MAC, "interface": "2.4ghz"},
                   {"deviceId": MAC, "interface": 5}):
        reply = server.request("vekGetGuestNetworkConfig", params, id="gr")
        assert reply.raw == invalid_parameter_reply("gr"), params
    assert not script_call_lines(device, "vekGetGuestNetworkConfig")
    device.set_output("kapri_util.lua", "{broken\n", "vekGetGuestNetworkConfig")
    reply = server.request("vekGetGuestNetworkConfig", {"deviceId": MAC, "interface": "5GHz"},
                           id="gj")
    assert reply.raw == invalid_parameter_reply("gj")
    device.set_output("kapri_util.lua", "", "vekGetGuestNetworkConfig")
    assert reply_without_result(server, "vekGetGuestNetworkConfig",
                                {"deviceId": MAC, "interface": "5GHz"},
                                "gn") == '{"jsonrpc":"2.0","id":"gn"}'


# ---- vekSetGuestNetworkConfig -----------------------------------------------------------------

def test_band_steering_shares_ssid_and_security_but_not_the_switches(device, server,
                                                                     start_agent):
    device.uci_ok("set", "clientcontrol.bandsteer.enable=1")
    device.uci_ok("commit", "clientcontrol")
    hold_apply_step(device)
    start_ready(device, server, start_agent)
    device.clear_journal()
    reply = server.request("vekSetGuestNetworkConfig", GUEST, id="bs", timeout=LONG)
    assert reply.raw == SUCCESS % ("bs", MAC)
    # the reply is out while the apply step still waits
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    assert not device.exists("/tmp/apply_done")
    assert uci_set_lines(device) == [
        "uci set wireless.w0_index25.ssid=Guest-2",
        "uci set wireless.w1_index25.ssid=Guest-2",
        "uci set wireless.w0_index25.WLANEnable=1",
        "uci set dhcp.guest.ignore=0",
        "uci set wireless.w0_index25.hidden=1",
        "uci set wireless.w0_index25.isolate=0",
        "uci set wireless.w0_index25.encryption=psk2 aes",
        "uci set wireless.w1_index25.encryption=psk2 aes",
        "uci set wireless.w0_index25.key=guestpass1",
        "uci set wireless.w1_index25.key=guestpass1",
        "uci set network.guest.ipaddr=10.20.30.1",
        "uci set network.guest.netmask=255.255.255.0",
        "uci set dhcp.guest.start=10.20.30.100",
        "uci set dhcp.guest.dhcp_stop_addr=10.20.30.200",
    ]
    journal = device.journal()
    # the LAN checks: each guest address against the LAN address
    for line in ("kapri_util.lua getNetwordId 10.20.30.100 255.255.255.0",
                 "kapri_util.lua getNetwordId 10.20.30.200 255.255.255.0",
                 "kapri_util.lua getNetwordId 10.20.30.1 255.255.255.0",
                 "kapri_util.lua getNetwordId 192.168.1.2 255.255.255.0"):
        assert line in journal, line
    assert "uci get clientcontrol.bandsteer.enable" in journal
    expected = {
        "wireless.w0_index25.ssid": ("Korvat-Guest", "Guest-2"),
        "wireless.w1_index25.ssid": ("Korvat-Guest", "Guest-2"),
        "wireless.w0_index25.encryption": ("none", "psk2 aes"),
        "wireless.w1_index25.encryption": ("none", "psk2 aes"),
        "wireless.w0_index25.key": (None, "guestpass1"),
        "wireless.w1_index25.key": (None, "guestpass1"),
        "wireless.w0_index25.WLANEnable": ("0", "1"),
        "wireless.w0_index25.hidden": ("0", "1"),
        "wireless.w0_index25.isolate": ("1", "0"),
        "dhcp.guest.ignore": ("1", "0"),
        "network.guest.ipaddr": ("10.10.10.1", "10.20.30.1"),
        "dhcp.guest.start": ("10.10.10.100", "10.20.30.100"),
        "dhcp.guest.dhcp_stop_addr": ("10.10.10.200", "10.20.30.200"),
    }
    assert_staged_until_applied(device, expected)
    # the 5 GHz guest network keeps its own switches
    assert device.uci_committed("wireless.w1_index25.WLANEnable") == "0"
    assert device.uci_committed("wireless.w1_index25.hidden") == "0"
    assert device.uci_committed("wireless.w1_index25.isolate") == "1"


def test_without_band_steering_only_the_addressed_network_changes(connected_with_radios_known,
                                                                  device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    params = {"deviceId": MAC, "interface": "5GHz", "ssid": "Guest-5", "guestEnabled": False,
              "broadcastEnabled": True, "security": "OPEN", "separationEnabled": True}
    reply = server.request("vekSetGuestNetworkConfig", params, id="g5", timeout=LONG)
    assert reply.raw == SUCCESS % ("g5", MAC)
    request_barrier(server, LONG)
    # both guest networks are off now: guest DHCP goes off
    assert uci_set_lines(device) == [
        "uci set wireless.w1_index25.ssid=Guest-5",
        "uci set wireless.w1_index25.WLANEnable=0",
        "uci set dhcp.guest.ignore=1",
        "uci set wireless.w1_index25.hidden=0",
        "uci set wireless.w1_index25.isolate=1",
        "uci set wireless.w1_index25.encryption=none",
    ]
    assert "uci get wireless.w0_index25.WLANEnable" in device.journal()
    # no addressing given and the guest network off: no LAN check
    assert not script_call_lines(device, "getNetwordId")
    assert device.uci_committed("wireless.w1_index25.ssid") == "Guest-5"
    assert device.uci_committed("wireless.w0_index25.ssid") == "Korvat-Guest"


def test_guest_dhcp_stays_on_while_the_other_guest_network_is_on(connected_with_radios_known,
                                                                 device):
    agent, server = connected_with_radios_known
    device.uci_ok("set", "wireless.w1_index25.WLANEnable=1")
    device.uci_ok("set", "dhcp.guest.ignore=0")
    device.uci_ok("commit")
    device.clear_journal()
    params = {"deviceId": MAC, "interface": "2.4GHz", "ssid": "Guest", "guestEnabled": False,
              "security": "WPA-PSK MIXED", "password": "mixedpass"}
    reply = server.request("vekSetGuestNetworkConfig", params, id="on", timeout=LONG)
    assert reply.raw == SUCCESS % ("on", MAC)
    request_barrier(server, LONG)
    assert not [line for line in uci_set_lines(device) if line.startswith("uci set dhcp.")]
    assert "uci get wireless.w1_index25.WLANEnable" in device.journal()
    assert device.uci_committed("dhcp.guest.ignore") == "0"
    assert device.uci_committed("wireless.w0_index25.key") == "mixedpass"
    assert device.uci_committed("wireless.w1_index25.key") is None


LAN_START = dict(GUEST, startingIp="192.168.1.50")
GUEST_REFUSALS = [
    (without(GUEST, "deviceId"), ""),
    (without(GUEST, "interface"), ""),
    (without(GUEST, "ssid"), ""),
    (without(GUEST, "security"), ""),
    (dict(GUEST, ssid=""), "Invalid ssid."),
    (dict(GUEST, ssid="g" * 33), "Invalid ssid."),
    (dict(GUEST, interface="6GHz"), ""),
    (dict(GUEST, interface="BOTH"), ""),
    (without(GUEST, "password"), ""),
    (dict(without(GUEST, "password"), security="WPA-PSK MIXED"), ""),
    (dict(GUEST, security="WPA2", radiusServer="10.0.0.5", radiusSecret="secret"), ""),
    (dict(GUEST, security="WPA MIXED", radiusServer="10.0.0.5", radiusSecret="secret"), ""),
    (dict(GUEST, security="wpa2 aes"), ""),
    (dict(GUEST, security="WEP"), ""),
    (dict(GUEST, password="short12"), ""),
    (dict(GUEST, password="0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdeg"), ""),
    (dict(without(GUEST, "password"), security="psk2 aes"), ""),
    # addressing
    (LAN_START, ""),                                     # start inside the LAN
    (dict(GUEST, endingIp="192.168.1.200"), ""),          # end inside the LAN
    (dict(GUEST, gatewayIp="192.168.5.1", subnetMask="255.255.0.0",
          startingIp="192.168.5.10", endingIp="192.168.5.20"), ""),  # LAN under the guest mask
    (dict(GUEST, gatewayIp="10.20.31.1"), ""),            # gateway in another network
    (dict(GUEST, endingIp="10.20.31.200"), ""),           # end in another network
    (without(GUEST, "endingIp"), ""),                     # three of four
    (without(GUEST, "gatewayIp"), ""),
    (without(GUEST, "startingIp", "endingIp", "subnetMask"), ""),
    (dict(GUEST, subnetMask="255.0.255.0"), ""),
]


def test_guest_refusals_come_before_any_write(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    wrong = []
    for n, (params, data) in enumerate(GUEST_REFUSALS):
        id = "r%d" % n
        reply = server.request("vekSetGuestNetworkConfig", params, id=id, timeout=LONG)
        if reply.raw != invalid_parameter_reply(id, data):
            wrong.append((params, data, reply.raw))
    assert not wrong, "\n".join("%r: wanted %r, got %s" % w for w in wrong)
    request_barrier(server, LONG)
    journal = device.journal()
    assert not [line for line in journal if line.startswith("uci set ")], journal
    assert "kapri_util.lua cloud_action_apply" not in journal
    assert not unsolicited(server)
    # printed for the refused mask (the 255.0.255.0 row) only
    agent.out.wait_for(MASK_LINE)
    assert agent.out.count(MASK_LINE) == 1


def test_an_all_hosts_mask_is_refused_with_its_line_even_without_debug(device, server,
                                                                      start_agent):
    agent = start_agent(server.url, debug=False)
    server.wait_for_connection(15)
    device.clear_journal()
    reply = server.request("vekSetGuestNetworkConfig", dict(GUEST, subnetMask="255.255.255.255"),
                           id="m", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("m")
    agent.out.wait_for(MASK_LINE)
    request_barrier(server, LONG)
    assert not uci_set_lines(device)
    # no debug line: the agent runs without -d
    assert not any("[PID " in line for line in agent.out.lines)


def test_a_stored_guest_range_inside_the_lan_refuses_enabling(device, server, start_agent):
    device.uci_ok("set", "dhcp.guest.start=192.168.1.100")
    device.uci_ok("set", "dhcp.guest.dhcp_stop_addr=192.168.1.150")
    device.uci_ok("commit", "dhcp")
    start_ready(device, server, start_agent)
    device.clear_journal()
    params = without(GUEST, "gatewayIp", "subnetMask", "startingIp", "endingIp")
    reply = server.request("vekSetGuestNetworkConfig", params, id="st", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("st")
    request_barrier(server, LONG)
    assert not uci_set_lines(device)
    journal = device.journal()
    for path in ("dhcp.guest.start", "dhcp.guest.dhcp_stop_addr", "network.guest.ipaddr",
                 "network.guest.netmask"):
        assert "uci get " + path in journal, path
    # switched off, the stored range is not looked at
    reply = server.request("vekSetGuestNetworkConfig", dict(params, guestEnabled=False), id="st2", timeout=LONG)
    assert reply.raw == SUCCESS % ("st2", MAC)


def test_the_stored_guest_range_outside_the_lan_allows_enabling(connected_with_radios_known,
                                                                device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    params = without(GUEST, "gatewayIp", "subnetMask", "startingIp", "endingIp")
    reply = server.request("vekSetGuestNetworkConfig", params, id="ok", timeout=LONG)
    assert reply.raw == SUCCESS % ("ok", MAC)
    request_barrier(server, LONG)
    assert "kapri_util.lua getNetwordId 10.10.10.100 255.255.255.0" in device.journal()
    assert not [line for line in uci_set_lines(device) if "guest.start" in line]
    assert device.uci_committed("wireless.w0_index25.WLANEnable") == "1"


def test_guest_text_reaches_uci_exactly(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    ssid = 'g"u $e `s` \\t'
    key = 'p"w$d`x`\\y $(touch /tmp/pwned)'
    params = dict(GUEST, ssid=ssid, password=key)
    reply = server.request("vekSetGuestNetworkConfig", params, id="q", timeout=LONG)
    assert reply.raw == SUCCESS % ("q", MAC)
    request_barrier(server, LONG)
    assert device.uci_get("wireless.w0_index25.ssid") == ssid
    assert device.uci_get("wireless.w0_index25.key") == key
    assert device.uci_committed("wireless.w0_index25.key") == key
    assert not device.exists("/tmp/pwned")


# ---- devices of other kinds -----------------------------------------------------------------

def test_single_band_device(device, server, start_agent):
    device.set_output("kapri_util.lua", '{"wifi0":"2.4G"}\n', "get_support_radio")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    assert wait_radios_known(agent).endswith("=== support2G=1, support5G=0")
    device.clear_journal()
    reply = server.request("vekSetGuestNetworkConfig", dict(GUEST, interface="5GHz"), id="s5", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("s5")
    reply = server.request("vekGetClientList", {"deviceId": MAC, "networkIndex": 50}, id="c50")
    assert reply.raw == invalid_parameter_reply("c50", "Invalid network index.")
    request_barrier(server, LONG)
    assert not uci_set_lines(device)
    assert not script_call_lines(device, "vekGetClientList")
    reply = server.request("vekSetGuestNetworkConfig", GUEST, id="s24", timeout=LONG)
    assert reply.raw == SUCCESS % ("s24", MAC)


def test_station_mode_refuses_the_guest_network_of_that_radio_only(device, server,
                                                                   start_agent):
    device.uci_ok("set", "wireless.wifi1.opmode=sta")
    device.uci_ok("commit", "wireless")
    start_ready(device, server, start_agent)
    device.clear_journal()
    reply = server.request("vekSetGuestNetworkConfig", dict(GUEST, interface="5GHz"), id="n5", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("n5", NON_AP)
    request_barrier(server, LONG)
    assert not uci_set_lines(device)
    reply = server.request("vekSetGuestNetworkConfig", GUEST, id="n24", timeout=LONG)
    assert reply.raw == SUCCESS % ("n24", MAC)
    device.uci_ok("set", "wireless.wifi0.opmode=sta")
    device.uci_ok("commit", "wireless")
    reply = server.request("vekSetGuestNetworkConfig", GUEST, id="n0", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("n0", NON_AP)
