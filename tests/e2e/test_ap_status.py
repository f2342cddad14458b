"""The access point's status and configuration from the server: the
"vekGet*Status" queries, "vekGetSystemConfig" / "vekSetSystemConfig",
"vekGetRadioConfig" and "vekGetNetworkConfig", against the simulated device
in its three profiles (dual-band, single-band, not in access-point mode).
Exact reply bytes, the utility-script commands in the journal, UCI values,
and every refusal answered before any write."""
import json
import re

import pytest

from conftest import MAC as SCRIPT_MAC  # the device MAC in the script's own answers
from conftest import journal_lines, not_a_status_update, request_barrier, script_call_lines

# The agent runs with another MAC, so that every reply shows whether its
# "deviceId" is the agent's or the utility script's.
AGENT_MAC = "02:4B:56:31:30:01"

INVALID = ('{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,'
           '"message":"Invalid method parameter","data":"%s"}}')
NOT_NOW = ('{"jsonrpc":"2.0","id":"%s","error":{"code":10001,"message":"Cannot execute request '
           'because the device is not in an appropriate state","data":""}}')
SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'
NO_RESULT = '{"jsonrpc":"2.0","id":"%s"}'
BAD_INDEX = "Invalid network index."

# CPU times whose busy share is 0, so that "cpu" is known
IDLE_STAT = "cpu  0 0 0 1000 0 0 0 0 0 0\ncpu0 0 0 0 1000 0 0 0 0 0 0\n"
RADIOS = {"dual-band": "support2G=1, support5G=1", "single-band": "support2G=1, support5G=0",
          "not-ap": "support2G=1, support5G=1"}

APPLY = "kapri_util.lua cloud_action_apply"
# the apply step waits for /tmp/go, then commits as the device does
BLOCKED_APPLY = "while [ ! -e /tmp/go ]; do sleep 0.05; done\nuci commit\n"


@pytest.fixture
def ap(device, server, start_agent):
    """ap(profile="dual-band"): the agent connected to the device of that
    profile, once its maintenance timer has detected the radios.  The
    profile rewrites the wireless configuration: change it afterwards."""

    def start(profile="dual-band"):
        device.set_profile(profile)
        device.set_proc_stat(IDLE_STAT)
        agent = start_agent(server.url, mac=AGENT_MAC)
        server.wait_for_connection(15)
        agent.out.wait_for(re.compile(r"=== " + RADIOS[profile] + "$"), timeout=15)
        return agent
    return start


def request(server, method, params=None, id="1", **kw):
    return server.request(method, params if params is not None else {"deviceId": "x"},
                          id=id, **kw)


def bare_reply(server, method, params, id):
    """The reply to a request that has neither "result" nor "error" (the
    device server takes it for a message of its own)."""
    server.send_text(json.dumps({"jsonrpc": "2.0", "id": id, "method": method,
                                 "params": params}, separators=(",", ":")))
    return server.next_message(10, predicate=not_a_status_update).raw


def writes(device):
    return journal_lines(device, "uci set", "uci commit", "uci delete", APPLY)


def result(reply):
    return reply.data["result"]


# ---- vekGetSystemConfig -----------------------------------------------------

def test_system_config_exact_reply_and_steering_switch(device, server, ap):
    ap()
    reply = request(server, "vekGetSystemConfig", id="s1")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"s1","result":{"deviceId":"%s",'
                         '"name":"VK310-AP","steeringEnabled":false}}' % AGENT_MAC)
    device.uci_ok("set", "clientcontrol.bandsteer.enable=1")
    assert result(request(server, "vekGetSystemConfig"))["steeringEnabled"] is True
    # an unset switch is not reported
    device.uci_ok("delete", "clientcontrol.bandsteer.enable")
    assert request(server, "vekGetSystemConfig", id="s3").raw == (
        '{"jsonrpc":"2.0","id":"s3","result":{"deviceId":"%s","name":"VK310-AP"}}' % AGENT_MAC)


def test_single_band_system_config_never_carries_steering(device, server, ap):
    device.uci_ok("set", "clientcontrol.bandsteer.enable=1")
    device.uci_ok("commit")
    ap("single-band")
    device.clear_journal()
    reply = request(server, "vekGetSystemConfig", id="s")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"s","result":{"deviceId":"%s",'
                         '"name":"VK310-AP"}}' % AGENT_MAC)
    assert "uci get clientcontrol.bandsteer.enable" not in device.journal()


def test_system_config_without_a_name_is_not_answerable(device, server, ap):
    ap()
    device.uci_ok("set", "system.system.SystemName=")
    assert request(server, "vekGetSystemConfig", id="n").raw == NOT_NOW % "n"
    assert request(server, "vekGetSystemConfig", {}, id="d").raw == INVALID % ("d", "")


# ---- vekSetSystemConfig -------------------------------------------------------

def test_same_name_and_steering_change_nothing_and_apply_nothing(device, server, ap):
    ap()
    device.clear_journal()
    reply = request(server, "vekSetSystemConfig",
                    {"deviceId": "x", "name": "VK310-AP", "steeringEnabled": False}, id="same")
    assert reply.raw == SUCCESS % ("same", AGENT_MAC)
    request_barrier(server)
    assert writes(device) == []
    assert "uci get system.system.SystemName" in device.journal()
    assert "uci get clientcontrol.bandsteer.enable" in device.journal()


def test_new_name_is_committed_then_applied_after_the_reply(device, server, ap):
    ap()
    device.set_script("kapri_util.lua", BLOCKED_APPLY, "cloud_action_apply")
    device.clear_journal()
    reply = request(server, "vekSetSystemConfig",
                    {"deviceId": "x", "name": "Hall AP", "steeringEnabled": 0}, id="r")
    # the reply left while the apply step was still waiting
    assert reply.raw == SUCCESS % ("r", AGENT_MAC)
    assert device.wait_journal(APPLY)
    assert writes(device) == ["uci set snmpd.snmpv2.sysName=Hall AP", "uci commit",
                              "uci set system.system.SystemName=Hall AP", "uci commit", APPLY]
    assert device.uci_committed("system.system.SystemName") == "Hall AP"
    assert device.uci_committed("snmpd.snmpv2.sysName") == "Hall AP"
    device.write_file("/tmp/go", "")
    assert device.wait_journal(lambda line: line == "uci commit" and
                               device.journal().count("uci commit") == 3)


def test_enabling_steering_copies_the_guest_profile_to_5ghz(device, server, ap):
    ap()
    device.uci_ok("set", "wireless.w0_index25.ssid=Visitors")
    device.uci_ok("set", "wireless.w0_index25.encryption=psk2 aes")
    device.uci_ok("set", "wireless.w0_index25.key=guest-pass")
    device.uci_ok("commit")
    device.clear_journal()
    reply = request(server, "vekSetSystemConfig",
                    {"deviceId": "x", "name": "VK310-AP", "steeringEnabled": True}, id="on")
    assert reply.raw == SUCCESS % ("on", AGENT_MAC)
    assert device.wait_journal(APPLY)
    # staged, not committed by the handler; the apply step commits
    assert writes(device) == ["uci set clientcontrol.bandsteer.enable=1",
                              "uci set wireless.w1_index25.ssid=Visitors",
                              "uci set wireless.w1_index25.encryption=psk2 aes",
                              "uci set wireless.w1_index25.key=guest-pass", APPLY]
    assert device.uci_committed("clientcontrol.bandsteer.enable") == "1"
    assert device.uci_committed("wireless.w1_index25.key") == "guest-pass"
    assert result(request(server, "vekGetSystemConfig"))["steeringEnabled"] is True


def test_disabling_steering_touches_no_guest_network(device, server, ap):
    device.uci_ok("set", "clientcontrol.bandsteer.enable=1")
    device.uci_ok("commit")
    ap()
    device.clear_journal()
    reply = request(server, "vekSetSystemConfig",
                    {"deviceId": "x", "name": "VK310-AP", "steeringEnabled": False}, id="off")
    assert reply.raw == SUCCESS % ("off", AGENT_MAC)
    assert device.wait_journal(APPLY)
    assert writes(device) == ["uci set clientcontrol.bandsteer.enable=0", APPLY]
    assert device.uci_committed("clientcontrol.bandsteer.enable") == "0"


def test_a_steering_value_of_2_writes_0(device, server, ap):
    ap()
    device.clear_journal()
    reply = request(server, "vekSetSystemConfig",
                    {"deviceId": "x", "name": "VK310-AP", "steeringEnabled": 2}, id="two")
    assert reply.raw == SUCCESS % ("two", AGENT_MAC)
    assert device.wait_journal(APPLY)
    assert writes(device) == ["uci set clientcontrol.bandsteer.enable=0", APPLY]


def test_single_band_rename_without_steering(device, server, ap):
    ap("single-band")
    device.clear_journal()
    reply = request(server, "vekSetSystemConfig", {"deviceId": "x", "name": "Small"}, id="sb")
    assert reply.raw == SUCCESS % ("sb", AGENT_MAC)
    assert device.wait_journal(APPLY)
    assert "uci get clientcontrol.bandsteer.enable" not in device.journal()
    assert device.uci_committed("system.system.SystemName") == "Small"


@pytest.mark.parametrize("profile,params,data", [
    ("dual-band", {"name": "New", "steeringEnabled": True}, ""),               # no deviceId
    ("dual-band", {"deviceId": "x", "steeringEnabled": True}, ""),             # no name
    ("dual-band", {"deviceId": "x", "name": 5, "steeringEnabled": True}, ""),  # name not text
    ("dual-band", {"deviceId": "x", "name": "New"}, ""),                       # steering missing
    ("single-band", {"deviceId": "x", "name": "New", "steeringEnabled": False},
     "vk310 NOT support."),
])
def test_system_config_refusals_come_before_any_write(device, server, ap, profile, params,
                                                      data):
    ap(profile)
    device.clear_journal()
    reply = request(server, "vekSetSystemConfig", params, id="no")
    assert reply.raw == INVALID % ("no", data)
    request_barrier(server)
    assert writes(device) == []
    assert device.uci_committed("system.system.SystemName") == "VK310-AP"


def test_a_name_reaches_uci_literally(device, server, ap):
    ap()
    name = 'a"b $(touch /tmp/pwned) `id` \\x'
    reply = request(server, "vekSetSystemConfig",
                    {"deviceId": "x", "name": name, "steeringEnabled": False}, id="q")
    assert reply.raw == SUCCESS % ("q", AGENT_MAC)
    assert device.wait_journal(APPLY)
    assert "uci set system.system.SystemName=" + name in device.journal()
    assert device.uci_committed("system.system.SystemName") == name
    assert not device.exists("/tmp/pwned")


# ---- vekGetStatus -------------------------------------------------------------

DUAL_STATUS = ('{"jsonrpc":"2.0","id":"st","result":{"deviceId":"%s",'
               '"system":{"cpu":0,"memFree":56352768,"memUsed":49602560},'
               '"lan":{"rx":123456789,"tx":987654321},'
               '"radios":[{"interface":"2.4GHz","rx":123456,"tx":654321,"networks":2,'
               '"clients":2,"enabled":true},'
               '{"interface":"5GHz","rx":223344,"tx":443322,"networks":1,"clients":1,'
               '"enabled":true}]}}' % AGENT_MAC)


def test_status_exact_reply_and_commands(device, server, ap):
    ap()
    device.clear_journal()
    reply = request(server, "vekGetStatus", id="st")
    assert reply.raw == DUAL_STATUS
    assert script_call_lines(device) == ["kapri_util.lua GetSysTxRx eth0 0 rx bytes",
                                    "kapri_util.lua GetSysTxRx eth0 0 tx bytes",
                                    "kapri_util.lua WifiInfo"]


def test_status_follows_the_device(device, server, ap):
    ap()
    device.set_traffic(lan=(5000000000, 7), networks={"w1_index0": (1, 2)})
    device.set_clients([{"cmac": "AA:BB:CC:00:00:01", "network": "w1_index0"}])
    device.uci_ok("set", "wireless.wifi0.disabled=1")
    device.uci_ok("commit")
    got = result(request(server, "vekGetStatus"))
    assert got["lan"] == {"rx": 5000000000, "tx": 7}
    assert got["radios"] == [
        {"interface": "2.4GHz", "rx": 123456, "tx": 654321, "networks": 0, "clients": 0,
         "enabled": False},
        {"interface": "5GHz", "rx": 1, "tx": 2, "networks": 1, "clients": 1, "enabled": True}]


def test_single_band_status_has_one_radio(device, server, ap):
    ap("single-band")
    reply = request(server, "vekGetStatus", id="st")
    assert reply.raw == DUAL_STATUS.replace(
        ',{"interface":"5GHz","rx":223344,"tx":443322,"networks":1,"clients":1,'
        '"enabled":true}', "")


def test_radio_count_0_2_and_3(device, server, ap):
    ap()
    device.set_output("kapri_util.lua", '{"RadioNum":0,"Dev2G":{"RxByte":"1"}}', "WifiInfo")
    assert result(request(server, "vekGetStatus"))["radios"] == []
    assert result(request(server, "vekGetRadioStatus"))["radios"] == []
    device.set_output("kapri_util.lua", json.dumps({
        "RadioNum": 2, "Dev2G": {"RxByte": "10", "TxByte": "20", "NetworkNum": 1,
                                 "ClientNum": 4, "Status": "Enabled"},
        "Dev5G": {"RxByte": "30", "TxByte": "40", "NetworkNum": 2, "ClientNum": 5,
                  "Status": "Enabled"}}), "WifiInfo")
    assert [r["interface"] for r in result(request(server, "vekGetStatus"))["radios"]] == \
        ["2.4GHz", "5GHz"]
    device.set_output("kapri_util.lua", '{"RadioNum":3}', "WifiInfo")
    assert request(server, "vekGetStatus", id="3a").raw == NOT_NOW % "3a"
    assert request(server, "vekGetRadioStatus", id="3b").raw == NOT_NOW % "3b"


def test_a_missing_radio_object_reads_as_zeros(device, server, ap):
    ap()
    device.set_output("kapri_util.lua", '{"RadioNum":2,"Dev2G":{"RxByte":"9","TxByte":"8",'
                      '"NetworkNum":1,"ClientNum":1,"Status":"Enabled"}}', "WifiInfo")
    assert result(request(server, "vekGetStatus"))["radios"][1] == {
        "interface": "5GHz", "rx": 0, "tx": 0, "networks": 0, "clients": 0, "enabled": False}


def test_status_without_answers_leaves_members_out(device, server, ap):
    ap()
    device.set_output("kapri_util.lua", "", "WifiInfo")
    device.set_output("kapri_util.lua", "", "GetSysTxRx", "eth0", "0", "rx")
    reply = request(server, "vekGetStatus", id="e")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"e","result":{"deviceId":"%s",'
                         '"system":{"cpu":0,"memFree":56352768,"memUsed":49602560},'
                         '"lan":{"tx":987654321}}}' % AGENT_MAC)
    assert request(server, "vekGetRadioStatus", id="r").raw == SUCCESS % ("r", AGENT_MAC)


def test_status_queries_need_a_device_id(device, server, ap):
    ap()
    for i, method in enumerate(("vekGetStatus", "vekGetLanStatus", "vekGetRadioStatus",
                                "vekGetGuestNetworkStatus", "vekGetNetworkStatus",
                                "vekGetClientStatus", "vekGetRadioConfig",
                                "vekGetNetworkConfig")):
        device.clear_journal()
        assert request(server, method, {"cmac": "", "interface": "2.4GHz"},
                       id="m%d" % i).raw == INVALID % ("m%d" % i, "")
        assert script_call_lines(device) == [], method


# ---- vekGetLanStatus ----------------------------------------------------------

def test_lan_status_exact_reply(device, server, ap):
    ap()
    device.set_traffic(lan=(1234, 5678), link=("100Mbps", "Half"))
    device.clear_journal()
    assert request(server, "vekGetLanStatus", id="l").raw == (
        '{"jsonrpc":"2.0","id":"l","result":{"deviceId":"%s","speed":"100Mbps",'
        '"duplexMode":"Half","rx":1234,"tx":5678}}' % AGENT_MAC)
    assert script_call_lines(device) == ["kapri_util.lua vekGetLanStatus speed",
                                    "kapri_util.lua vekGetLanStatus duplexMode",
                                    "kapri_util.lua vekGetLanStatus rx",
                                    "kapri_util.lua vekGetLanStatus tx"]
    device.set_traffic(lan=(None, 5678), link=(None, "Half"))
    assert request(server, "vekGetLanStatus", id="m").raw == (
        '{"jsonrpc":"2.0","id":"m","result":{"deviceId":"%s",'
        '"duplexMode":"Half","tx":5678}}' % AGENT_MAC)


# ---- vekGetRadioStatus ----------------------------------------------------------

def test_radio_status_exact_reply_in_its_own_order(device, server, ap):
    ap()
    device.uci_ok("set", "wireless.wifi1.disabled=1")
    device.uci_ok("commit")
    device.clear_journal()
    assert request(server, "vekGetRadioStatus", id="rs").raw == (
        '{"jsonrpc":"2.0","id":"rs","result":{"deviceId":"%s","radios":['
        '{"interface":"2.4GHz","enabled":true,"rx":123456,"tx":654321,"networks":2,"clients":2},'
        '{"interface":"5GHz","enabled":false,"rx":223344,"tx":443322,"networks":0,"clients":0}'
        ']}}' % AGENT_MAC)
    assert script_call_lines(device) == ["kapri_util.lua WifiInfo"]


def test_single_band_radio_status(device, server, ap):
    ap("single-band")
    assert request(server, "vekGetRadioStatus", id="rs").raw == (
        '{"jsonrpc":"2.0","id":"rs","result":{"deviceId":"%s","radios":['
        '{"interface":"2.4GHz","enabled":true,"rx":123456,"tx":654321,"networks":2,"clients":2}'
        ']}}' % AGENT_MAC)


# ---- vekGetGuestNetworkStatus -------------------------------------------------------

def test_guest_network_status_exact_reply(device, server, ap):
    ap()
    device.uci_ok("set", "wireless.w0_index25.WLANEnable=1")
    device.uci_ok("set", "wireless.w0_index25.ssid=Visitors")
    device.uci_ok("commit")
    device.set_clients([{"cmac": "AA:BB:CC:00:00:09", "network": "w0_index25"}])
    device.set_traffic(networks={"w0_index25": (100, 200)})
    device.clear_journal()
    assert request(server, "vekGetGuestNetworkStatus", id="g").raw == (
        '{"jsonrpc":"2.0","id":"g","result":{"deviceId":"%s","network":['
        '{"networkIndex":25,"enabled":true,"mac":"00:11:22:33:46:19","ssid":"Visitors",'
        '"interface":"2.4GHz","clients":1,"rx":100,"tx":200},'
        '{"networkIndex":75,"enabled":false,"mac":"00:11:22:33:47:19","ssid":"Korvat-Guest",'
        '"interface":"5GHz","clients":0,"rx":0,"tx":0}]}}' % AGENT_MAC)
    assert script_call_lines(device) == ["kapri_util.lua GuestNetworkInfo"]


def test_guest_network_counts(device, server, ap):
    ap("single-band")
    assert [n["networkIndex"] for n in
            result(request(server, "vekGetGuestNetworkStatus"))["network"]] == [25]
    device.set_output("kapri_util.lua", '{"GuestNetworkNum":3}', "GuestNetworkInfo")
    assert request(server, "vekGetGuestNetworkStatus", id="3").raw == NOT_NOW % "3"
    device.set_output("kapri_util.lua", '{"GuestNetworkNum":1,"Dev2G":{"NetworkIndex":25}}',
                      "GuestNetworkInfo")
    assert result(request(server, "vekGetGuestNetworkStatus"))["network"] == [
        {"networkIndex": 25, "enabled": False, "mac": "", "ssid": "", "interface": "",
         "clients": 0, "rx": 0, "tx": 0}]
    device.set_output("kapri_util.lua", "", "GuestNetworkInfo")
    assert request(server, "vekGetGuestNetworkStatus", id="e").raw == \
        SUCCESS % ("e", AGENT_MAC)


# ---- vekGetNetworkStatus ----------------------------------------------------------

NETWORKS = ('"networks":[{"networkIndex":0,"enabled":true,"mac":"00:11:22:33:46:00",'
            '"ssid":"Korvat","interface":"2.4GHz","clients":1,"rx":120000,"tx":640000},'
            '{"networkIndex":1,"enabled":true,"mac":"00:11:22:33:46:01","ssid":"Korvat-Office",'
            '"interface":"2.4GHz","clients":1,"rx":3456,"tx":14321}%s]')
NET_50 = (',{"networkIndex":50,"enabled":true,"mac":"00:11:22:33:47:00","ssid":"Korvat",'
          '"interface":"5GHz","clients":1,"rx":223344,"tx":443322}')
GUEST_24 = ('{"enabled":false,"mac":"00:11:22:33:46:19","ssid":"Korvat-Guest",'
            '"interface":"2.4GHz"}')
GUEST_5 = ',{"enabled":false,"mac":"00:11:22:33:47:19","ssid":"Korvat-Guest","interface":"5GHz"}'


def test_network_status_exact_reply(device, server, ap):
    ap()
    device.clear_journal()
    reply = request(server, "vekGetNetworkStatus", id="ns")
    # deviceId as the script gives it; the script's extra members are gone
    assert reply.raw == ('{"jsonrpc":"2.0","id":"ns","result":{"deviceId":"%s",%s,'
                         '"guestNetworks":[%s%s]}}'
                         % (SCRIPT_MAC, NETWORKS % NET_50, GUEST_24, GUEST_5))
    assert script_call_lines(device) == ["kapri_util.lua vekGetNetworkStatus result",
                                    "kapri_util.lua vekGetGuestNetworkConfig result 2.4GHz",
                                    "kapri_util.lua vekGetGuestNetworkConfig result 5GHz"]


def test_single_band_network_status(device, server, ap):
    ap("single-band")
    device.clear_journal()
    reply = request(server, "vekGetNetworkStatus", id="ns")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"ns","result":{"deviceId":"%s",%s,'
                         '"guestNetworks":[%s]}}' % (SCRIPT_MAC, NETWORKS % "", GUEST_24))
    assert "kapri_util.lua vekGetGuestNetworkConfig result 5GHz" not in script_call_lines(device)


def test_a_network_added_and_deleted_through_uci(device, server, ap):
    ap()
    device.uci_ok("set", "wireless.wifi1.wlanlist=0,4")
    device.uci_ok("set", "wireless.wifi1.enlist=1,1")
    device.uci_ok("set", "wireless.w1_index4.ssid=Lab")
    device.uci_ok("set", "wireless.w1_index4.WLANEnable=1")
    device.uci_ok("commit")
    nets = result(request(server, "vekGetNetworkStatus"))["networks"]
    assert [(n["networkIndex"], n["ssid"]) for n in nets] == \
        [(0, "Korvat"), (1, "Korvat-Office"), (50, "Korvat"), (54, "Lab")]
    device.uci_ok("delete", "wireless.w0_index1")
    device.uci_ok("set", "wireless.wifi0.wlanlist=0")
    device.uci_ok("set", "wireless.wifi0.enlist=1")
    device.uci_ok("commit")
    nets = result(request(server, "vekGetNetworkStatus"))["networks"]
    assert [n["networkIndex"] for n in nets] == [0, 50, 54]


def test_network_status_answers_that_do_not_parse_or_are_empty(device, server, ap):
    ap()
    device.set_output("kapri_util.lua", "{not json", "vekGetNetworkStatus")
    assert request(server, "vekGetNetworkStatus", id="bad").raw == INVALID % ("bad", "")
    device.set_output("kapri_util.lua", "", "vekGetNetworkStatus")
    device.set_output("kapri_util.lua", "", "vekGetGuestNetworkConfig", "result", "5GHz")
    assert request(server, "vekGetNetworkStatus", id="e").raw == (
        '{"jsonrpc":"2.0","id":"e","result":{"guestNetworks":[%s]}}' % GUEST_24)


def test_network_status_guest_switch_is_an_integer_value(device, server, ap):
    ap()
    device.set_output("kapri_util.lua", '{"guestEnabled":1,"mac":"m","ssid":"s",'
                      '"interface":"2.4GHz","key":"k"}', "vekGetGuestNetworkConfig", "result",
                      "2.4GHz")
    device.set_output("kapri_util.lua", '{"guestEnabled":"1","ssid":7}',
                      "vekGetGuestNetworkConfig", "result", "5GHz")
    assert result(request(server, "vekGetNetworkStatus"))["guestNetworks"] == [
        {"enabled": True, "mac": "m", "ssid": "s", "interface": "2.4GHz"},
        {"enabled": False, "mac": "", "ssid": "", "interface": ""}]


# ---- vekGetClientStatus -----------------------------------------------------------

CLIENTS = [
    {"cmac": "A0:B1:C2:D3:E4:01", "network": "w0_index0", "name": "laptop", "rx": "1234",
     "tx": "4321", "signal": -61.5, "ip": "192.168.1.101"},
    {"cmac": "A0:B1:C2:D3:E4:02", "network": "w1_index0", "name": "phone", "rx": "12.5",
     "tx": None, "signal": -48},
]


def test_client_status_of_all_clients(device, server, ap):
    agent = ap()
    device.set_clients(CLIENTS)
    device.clear_journal()
    reply = request(server, "vekGetClientStatus", id="c")
    # "rx" text becomes a number, "signal" loses its fraction, null becomes
    # "", and "mac", "networkIndex", "ip", "uptime" are dropped
    assert reply.raw == (
        '{"jsonrpc":"2.0","id":"c","result":{"deviceId":"%s","clients":['
        '{"cmac":"A0:B1:C2:D3:E4:01","ssid":"Korvat","rx":1234,"tx":4321,"signal":-61,'
        '"name":"laptop","interface":"2.4GHz"},'
        '{"cmac":"A0:B1:C2:D3:E4:02","ssid":"Korvat","rx":12.5,"tx":"","signal":-48,'
        '"name":"phone","interface":"5GHz"}]}}' % SCRIPT_MAC)
    assert script_call_lines(device) == [
        "kapri_util.lua vekGetClientStatus result 00:00:00:00:00:00"]
    agent.out.wait_for(re.compile(r"\]: sys_cmd = /usr/sbin/kapri_util\.lua vekGetClientStatus "
                                  r"result 00:00:00:00:00:00$"), timeout=5)
    device.clear_journal()
    assert request(server, "vekGetClientStatus", {"deviceId": "x", "cmac": ""},
                   id="c2").raw == reply.raw.replace('"id":"c"', '"id":"c2"')
    assert script_call_lines(device) == [
        "kapri_util.lua vekGetClientStatus result 00:00:00:00:00:00"]


def test_client_status_of_one_client(device, server, ap):
    agent = ap()
    device.set_clients(CLIENTS)
    device.clear_journal()
    got = result(request(server, "vekGetClientStatus",
                         {"deviceId": "x", "cmac": "a0:b1:c2:d3:e4:02"}))
    assert [c["name"] for c in got["clients"]] == ["phone"]
    assert script_call_lines(device) == [
        "kapri_util.lua vekGetClientStatus result a0:b1:c2:d3:e4:02"]
    agent.out.wait_for(re.compile(r"\]: sys_cmd = /usr/sbin/kapri_util\.lua vekGetClientStatus "
                                  r"result a0:b1:c2:d3:e4:02$"), timeout=5)


def test_a_client_mac_with_shell_characters_reaches_the_script_literally(device, server, ap):
    ap()
    cmac = "a b;$(touch /tmp/pwned)`id`'x\"\\"
    # the script records its arguments: how many, and the MAC
    device.set_script("kapri_util.lua", 'printf "%s\\n" "$#" "$2" > /tmp/args\n'
                      'echo \'{"deviceId":"d","clients":[]}\'\n', "vekGetClientStatus")
    reply = request(server, "vekGetClientStatus", {"deviceId": "x", "cmac": cmac}, id="q")
    assert reply.raw == '{"jsonrpc":"2.0","id":"q","result":{"deviceId":"d","clients":[]}}'
    assert device.read_file("/tmp/args") == "2\n" + cmac + "\n"
    assert "kapri_util.lua vekGetClientStatus result " + cmac in device.journal()
    assert not device.exists("/tmp/pwned")


def test_client_status_answers_that_do_not_parse_or_are_empty(device, server, ap):
    ap()
    device.set_output("kapri_util.lua", "clients: none", "vekGetClientStatus")
    assert request(server, "vekGetClientStatus", id="bad").raw == INVALID % ("bad", "")
    device.set_output("kapri_util.lua", "", "vekGetClientStatus")
    assert bare_reply(server, "vekGetClientStatus", {"deviceId": "x"}, "e") == NO_RESULT % "e"


# ---- vekGetRadioConfig -------------------------------------------------------------

def test_radio_config_exact_reply_and_interface_names(device, server, ap):
    ap()
    device.clear_journal()
    reply = request(server, "vekGetRadioConfig", {"deviceId": "x", "interface": "2.4GHz"},
                    id="rc")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"rc","result":{"deviceId":"%s",'
                         '"interface":"2.4GHz","enabled":true,"opMode":"ap",'
                         '"wirelessMode":"11ng"}}' % SCRIPT_MAC)
    assert script_call_lines(device) == ["kapri_util.lua vekGetRadioConfig result 0"]
    for name, radio in (("2.4ghz", 0), ("2.4GHZ", 0), ("5ghz", 1), ("5GHz", 1)):
        device.clear_journal()
        got = result(request(server, "vekGetRadioConfig", {"deviceId": "x", "interface": name}))
        assert got["interface"] == ("2.4GHz", "5GHz")[radio]
        assert script_call_lines(device) == ["kapri_util.lua vekGetRadioConfig result %d" % radio]


@pytest.mark.parametrize("params", [
    {"deviceId": "x", "interface": "5G"}, {"deviceId": "x", "interface": "2.4"},
    {"deviceId": "x", "interface": ""}, {"deviceId": "x"}, {"deviceId": "x", "interface": 5},
    {"interface": "5GHz"}])
def test_radio_config_refusals(device, server, ap, params):
    ap()
    device.clear_journal()
    assert request(server, "vekGetRadioConfig", params, id="no").raw == INVALID % ("no", "")
    assert script_call_lines(device) == []


def test_radio_config_of_a_station_radio(device, server, ap):
    ap("not-ap")
    assert result(request(server, "vekGetRadioConfig",
                          {"deviceId": "x", "interface": "2.4GHz"}))["opMode"] == "sta"


def test_radio_config_without_an_answer_has_no_result(device, server, ap):
    ap("single-band")
    assert bare_reply(server, "vekGetRadioConfig", {"deviceId": "x", "interface": "5GHz"},
                      "none") == NO_RESULT % "none"
    device.set_output("kapri_util.lua", "<html>", "vekGetRadioConfig")
    assert request(server, "vekGetRadioConfig", {"deviceId": "x", "interface": "2.4GHz"},
                   id="bad").raw == INVALID % ("bad", "")


# ---- vekGetNetworkConfig -------------------------------------------------------------

def test_network_config_exact_reply(device, server, ap):
    ap()
    device.clear_journal()
    reply = request(server, "vekGetNetworkConfig",
                    {"deviceId": "x", "networkIndex": 0, "mac": "ignored"}, id="nc")
    # the VLAN id of a network without VLAN is null in the answer: ""
    assert reply.raw == ('{"jsonrpc":"2.0","id":"nc","result":{"deviceId":"%s",'
                         '"networkIndex":0,"mac":"00:11:22:33:46:00","ssid":"Korvat",'
                         '"interface":"2.4GHz","enabled":true,"security":"WPA2-PSK",'
                         '"password":"korvat1234","vlanId":"","broadcastEnabled":true,'
                         '"separationEnabled":false}}' % SCRIPT_MAC)
    assert script_call_lines(device) == ["kapri_util.lua vekGetNetworkConfig result 0"]


def test_enterprise_network_config_exact_reply(device, server, ap):
    ap()
    for option in ("encryption=wpa2 aes", "server=10.0.0.9", "port=1645",
                   "WLANWpaRadiusSrvSecret=s3cret", "WLANVLANEnable=1", "WLANVLANID=12",
                   "hidden=1", "isolate=1"):
        device.uci_ok("set", "wireless.w1_index0." + option)
    assert request(server, "vekGetNetworkConfig", {"deviceId": "x", "networkIndex": 50},
                   id="ent").raw == (
        '{"jsonrpc":"2.0","id":"ent","result":{"deviceId":"%s","networkIndex":50,'
        '"mac":"00:11:22:33:47:00","ssid":"Korvat","interface":"5GHz","enabled":true,'
        '"security":"WPA2","radiusServer":"10.0.0.9","radiusPort":1645,'
        '"radiusSecret":"s3cret","vlanId":12,"broadcastEnabled":false,'
        '"separationEnabled":true}}' % SCRIPT_MAC)


def test_a_wpa2_psk_network_reports_its_password_and_no_radius_secret(device, server, ap):
    ap()
    # RADIUS settings left over from an earlier enterprise setting: the
    # script shows them, the agent does not pass them on
    device.uci_ok("set", "wireless.w0_index1.encryption=psk2 aes")
    device.uci_ok("set", "wireless.w0_index1.server=10.0.0.9")
    device.uci_ok("set", "wireless.w0_index1.WLANWpaRadiusSrvSecret=s3cret")
    got = result(request(server, "vekGetNetworkConfig", {"deviceId": "x", "networkIndex": 1}))
    assert got["security"] == "WPA2-PSK" and got["password"] == "korvat1234"
    assert "radiusSecret" not in got and "radiusServer" not in got
    # "WPA MIXED" counts as enterprise
    device.set_output("kapri_util.lua", '{"security":"WPA MIXED","password":"p",'
                      '"radiusSecret":"s"}', "vekGetNetworkConfig")
    assert result(request(server, "vekGetNetworkConfig", {"deviceId": "x"})) == \
        {"security": "WPA MIXED", "radiusSecret": "s"}


def test_valid_network_indexes(device, server, ap):
    ap()
    for index, params in ((7, {"networkIndex": 7}), (50, {"networkIndex": 50}),
                          (57, {"networkIndex": 57}), (0, {})):
        device.clear_journal()
        params = dict(params, deviceId="x")
        got = result(request(server, "vekGetNetworkConfig", params))
        assert got["networkIndex"] == index
        assert script_call_lines(device) == [
            "kapri_util.lua vekGetNetworkConfig result %d" % index]


@pytest.mark.parametrize("profile,index", [
    ("dual-band", 8), ("dual-band", 49), ("dual-band", 58), ("dual-band", -1),
    ("single-band", 50), ("single-band", 57)])
def test_invalid_network_indexes(device, server, ap, profile, index):
    ap(profile)
    device.clear_journal()
    reply = request(server, "vekGetNetworkConfig", {"deviceId": "x", "networkIndex": index},
                    id="bad")
    assert reply.raw == INVALID % ("bad", BAD_INDEX)
    assert script_call_lines(device) == []


def test_network_config_answers_that_do_not_parse_or_are_empty(device, server, ap):
    ap()
    device.uci_ok("delete", "wireless.w0_index7")
    assert bare_reply(server, "vekGetNetworkConfig", {"deviceId": "x", "networkIndex": 7},
                      "gone") == NO_RESULT % "gone"
    device.set_output("kapri_util.lua", "]", "vekGetNetworkConfig")
    assert request(server, "vekGetNetworkConfig", {"deviceId": "x", "networkIndex": 1},
                   id="bad").raw == INVALID % ("bad", "")
