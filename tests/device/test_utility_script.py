# The access-point answers of the device's utility script
# (/usr/sbin/kapri_util.lua): taken from the device's UCI state and from
# the client and traffic model, in the three device profiles.
import json

import pytest

import apmodel
import safefs
from conftest import run_sh

K = "/usr/sbin/kapri_util.lua"


def script(device, *commands):
    """Outputs of the sub-commands, one run of the device for all."""
    marker = "=====\n"
    status, out, err = run_sh(device, "".join(
        "%s %s; printf '%s'\n" % (K, c, marker.replace("\n", "\\n"))
        for c in commands))
    assert status == 0, err
    parts = out.split(marker)
    assert len(parts) == len(commands) + 1 and parts[-1] == ""
    return parts[:-1]


def answer(device, command):
    return json.loads(script(device, command)[0])


# ---- profiles -------------------------------------------------------------

def test_dual_band_profile_is_the_template(device):
    device.set_profile("dual-band")
    radios, info = script(device, "get_support_radio", "WifiInfo")
    assert json.loads(radios) == {"wifi0": "2.4G", "wifi1": "5G"}
    info = json.loads(info)
    assert info["RadioNum"] == 2
    assert [info["Dev2G"]["HwMode"], info["Dev5G"]["HwMode"]] == ["11ng", "11ac"]
    assert device.uci_get("wireless.wifi0.network_profile") == "w0_index0:w1_index0,w0_index1"


def test_single_band_profile_has_no_5ghz_radio(device):
    device.set_profile("single-band")
    out = script(device, "get_support_radio", "WifiInfo", "GuestNetworkInfo",
                 "vekGetRadioConfig result 1", "vekGetNetworkConfig result 50",
                 "vekGetGuestNetworkConfig result 5GHz")
    assert json.loads(out[0]) == {"wifi0": "2.4G"}
    info = json.loads(out[1])
    assert info["RadioNum"] == 1 and "Dev5G" not in info
    guest = json.loads(out[2])
    assert guest["GuestNetworkNum"] == 1 and "Dev5G" not in guest
    # nothing at all about the missing radio
    assert out[3:] == ["", "", ""]
    assert device.uci_get("wireless.wifi1") is None
    assert device.uci_get("wireless.w1_index0") is None
    assert device.uci_get("wireless.wifi0.network_profile") == "w0_index0,w0_index1"
    # the model's 5 GHz client went with the radio
    assert [c["network"] for c in device.ap_model()["clients"]] == ["w0_index0", "w0_index1"]


def test_not_ap_profile_runs_radio_0_as_station(device):
    device.set_profile("not-ap")
    radio0, radio1 = script(device, "vekGetRadioConfig result 0", "vekGetRadioConfig result 1")
    assert json.loads(radio0)["opMode"] == "sta"
    assert json.loads(radio1)["opMode"] == "ap"
    assert device.uci_get("wireless.wifi0.opmode") == "sta"


def test_a_profile_replaces_earlier_changes(device):
    device.uci_ok("set", "wireless.w0_index0.ssid=Changed")
    device.uci_ok("commit")
    device.uci_ok("set", "wireless.w0_index1.ssid=Staged")
    device.set_profile("not-ap")
    assert device.uci_get("wireless.w0_index0.ssid") == "Korvat"
    assert device.uci_get("wireless.w0_index1.ssid") == "Korvat-Office"


def test_profile_names_and_timing_are_checked(device):
    with pytest.raises(ValueError):
        device.set_profile("triple-band")
    device.start(["/bin/sh", "-c", "sleep 30"])
    with pytest.raises(RuntimeError):
        device.set_profile("single-band")


# ---- radios and networks from UCI ------------------------------------------

def test_wifi_info_counts_networks_clients_and_traffic(device):
    out = answer(device, "WifiInfo")
    assert out == {
        "RadioNum": 2,
        "Dev2G": {"RxByte": "123456", "TxByte": "654321", "NetworkNum": 2, "ClientNum": 2,
                  "Status": "Enabled", "Channel": "auto", "HwMode": "11ng"},
        "Dev5G": {"RxByte": "223344", "TxByte": "443322", "NetworkNum": 1, "ClientNum": 1,
                  "Status": "Enabled", "Channel": "auto", "HwMode": "11ac"}}


def test_a_network_added_through_uci_shows_once_committed(device):
    device.uci_ok("set", "wireless.wifi0.wlanlist=0,1,3")
    device.uci_ok("set", "wireless.wifi0.enlist=1,1,1")
    device.uci_ok("set", "wireless.wifi0.network_profile=w0_index0:w1_index0,w0_index1,w0_index3")
    device.uci_ok("set", "wireless.w0_index3.ssid=Lab")
    device.uci_ok("set", "wireless.w0_index3.WLANEnable=1")
    device.set_traffic(networks={"w0_index3": (1000, "2000")})
    staged, config = script(device, "vekGetNetworkStatus result", "vekGetNetworkConfig result 3")
    # the running device does not know it yet; its configuration does
    assert [n["networkIndex"] for n in json.loads(staged)["networks"]] == [0, 1, 50]
    assert json.loads(config)["ssid"] == "Lab"
    device.uci_ok("commit")
    status, info = script(device, "vekGetNetworkStatus result", "WifiInfo")
    nets = json.loads(status)["networks"]
    assert [n["networkIndex"] for n in nets] == [0, 1, 3, 50]
    assert nets[2] == {"networkIndex": 3, "enabled": True, "mac": "00:11:22:33:46:03",
                       "ssid": "Lab", "interface": "2.4GHz", "clients": 0, "rx": "1000",
                       "tx": "2000", "ifname": "ath3", "security": "OPEN"}
    info = json.loads(info)
    assert info["Dev2G"]["NetworkNum"] == 3
    assert info["Dev2G"]["RxByte"] == str(123456 + 1000)


def test_a_deleted_network_and_its_clients_disappear(device):
    run_sh(device, "%s rm_wifi_config w0_index1; uci set wireless.wifi0.wlanlist=0; "
                   "uci set wireless.wifi0.enlist=1; %s cloud_action_apply" % (K, K))
    status, clients, info = script(device, "vekGetNetworkStatus result",
                                   "vekGetClientStatus result 00:00:00:00:00:00", "WifiInfo")
    assert [n["ssid"] for n in json.loads(status)["networks"]] == ["Korvat", "Korvat"]
    assert [c["name"] for c in json.loads(clients)["clients"]] == ["laptop", "phone"]
    assert json.loads(info)["Dev2G"]["ClientNum"] == 1
    assert device.uci_committed("wireless.w0_index1") is None


def test_enable_flags_switch_a_network_and_its_clients_off(device):
    # w0_index1 off by its enlist flag, the 5 GHz radio switched off
    device.uci_ok("set", "wireless.wifi0.enlist=1,0")
    device.uci_ok("set", "wireless.wifi1.disabled=1")
    device.uci_ok("commit")
    status, info, clients = script(device, "vekGetNetworkStatus result", "WifiInfo",
                                   "vekGetClientStatus result 00:00:00:00:00:00")
    assert [(n["networkIndex"], n["enabled"]) for n in json.loads(status)["networks"]] == \
        [(0, True), (1, False), (50, False)]
    info = json.loads(info)
    assert (info["Dev2G"]["NetworkNum"], info["Dev5G"]["NetworkNum"]) == (1, 0)
    assert info["Dev5G"]["Status"] == "Disabled"
    assert [c["name"] for c in json.loads(clients)["clients"]] == ["laptop"]


def test_network_status_carries_more_than_the_agent_reports(device):
    out = answer(device, "vekGetNetworkStatus result")
    assert out["deviceId"] == "00:11:22:33:44:55" and out["networkNum"] == 3
    assert out["networks"][0] == {
        "networkIndex": 0, "enabled": True, "mac": "00:11:22:33:46:00", "ssid": "Korvat",
        "interface": "2.4GHz", "clients": 1, "rx": "120000", "tx": "640000",
        "ifname": "ath0", "security": "WPA2-PSK"}


# ---- clients ---------------------------------------------------------------

CLIENTS = [
    {"cmac": "aa:bb:cc:00:00:01", "network": "w0_index0", "name": "cam", "rx": "1234",
     "tx": 4321, "signal": -61.5, "vendor": "Acme"},
    {"cmac": "AA:BB:CC:00:00:02", "network": "w1_index0", "name": "tv", "rx": "12.5",
     "tx": None, "signal": -50},
    # slot 5 is not in use (not in wlanlist), though switched on
    {"cmac": "AA:BB:CC:00:00:03", "network": "w0_index5", "name": "ghost"},
]


def test_client_status_by_mac_and_for_all(device):
    device.uci_ok("set", "wireless.w0_index5.WLANEnable=1")
    device.uci_ok("commit")
    device.set_clients(CLIENTS)
    every, one, none = script(device, "vekGetClientStatus result 00:00:00:00:00:00",
                              "vekGetClientStatus result AA:BB:CC:00:00:01",
                              "vekGetClientStatus result 'a b;$(touch /tmp/x)'")
    every = json.loads(every)
    assert every["clientNum"] == 2
    assert every["clients"][0] == {
        "cmac": "aa:bb:cc:00:00:01", "mac": "00:11:22:33:46:00", "networkIndex": 0,
        "ssid": "Korvat", "interface": "2.4GHz", "name": "cam", "ip": "", "rx": "1234",
        "tx": "4321", "signal": -61.5, "uptime": 0, "vendor": "Acme"}
    assert every["clients"][1]["rx"] == "12.5" and every["clients"][1]["tx"] is None
    assert every["clients"][1]["networkIndex"] == 50
    assert [c["name"] for c in json.loads(one)["clients"]] == ["cam"]
    assert json.loads(none) == {"deviceId": "00:11:22:33:44:55", "clientNum": 0, "clients": []}
    assert not device.exists("/tmp/x")


def test_client_list_by_network_index(device):
    device.set_clients(CLIENTS)
    every, first, fifty, none = script(device, "vekGetClientList result -999",
                                       "vekGetClientList result 0", "vekGetClientList result 50",
                                       "vekGetClientList result 1")
    assert [c["name"] for c in json.loads(every)["clients"]] == ["cam", "tv"]
    assert [c["name"] for c in json.loads(first)["clients"]] == ["cam"]
    assert [c["name"] for c in json.loads(fifty)["clients"]] == ["tv"]
    assert json.loads(none)["clients"] == []


def test_a_client_needs_a_mac_and_a_network(device):
    with pytest.raises(ValueError):
        device.set_clients([{"cmac": "AA:BB:CC:00:00:01"}])


# ---- traffic and LAN link ----------------------------------------------------

def test_lan_counters_and_link(device):
    device.set_traffic(lan=(5, 6), link=("100Mbps", "Half"))
    out = script(device, "GetSysTxRx eth0 0 rx bytes", "GetSysTxRx eth0 0 tx bytes",
                 "vekGetLanStatus speed", "vekGetLanStatus duplexMode",
                 "vekGetLanStatus rx", "vekGetLanStatus tx", "vekGetLanStatus other",
                 "GetSysTxRx ath0 0 rx bytes", "GetSysTxRx eth9 0 rx bytes")
    assert out == ["5\n", "6\n", "100Mbps\n", "Half\n", "5\n", "6\n", "", "120000\n", ""]


def test_a_value_set_to_none_prints_nothing(device):
    device.set_traffic(lan=(None, 7), link=(None, "Full"))
    assert script(device, "GetSysTxRx eth0 0 rx bytes", "GetSysTxRx eth0 0 tx bytes",
                  "vekGetLanStatus speed", "vekGetLanStatus duplexMode") == \
        ["", "7\n", "", "Full\n"]


def test_the_model_keeps_what_is_not_changed(device):
    device.set_clients(CLIENTS[:1])
    device.set_traffic(lan=(1, 2))
    model = device.ap_model()
    assert [c["name"] for c in model["clients"]] == ["cam"]
    assert model["lan"] == {"rx": 1, "tx": 2, "speed": "1000Mbps", "duplexMode": "Full"}
    assert model["networks"] == apmodel.DEFAULT_MODEL["networks"]


# ---- configuration answers ---------------------------------------------------

def test_personal_network_config_with_leftover_radius_settings(device):
    device.uci_ok("set", "wireless.w0_index1.server=10.0.0.9")
    device.uci_ok("set", "wireless.w0_index1.WLANWpaRadiusSrvSecret=s3cret")
    device.uci_ok("set", "wireless.w0_index1.WLANVLANEnable=1")
    device.uci_ok("set", "wireless.w0_index1.WLANVLANID=12")
    device.uci_ok("set", "wireless.w0_index1.hidden=1")
    assert answer(device, "vekGetNetworkConfig result 1") == {
        "deviceId": "00:11:22:33:44:55", "networkIndex": 1, "mac": "00:11:22:33:46:01",
        "ssid": "Korvat-Office", "interface": "2.4GHz", "enabled": True,
        "security": "WPA-PSK MIXED", "password": "korvat1234", "radiusServer": "10.0.0.9",
        "radiusPort": 1812, "radiusSecret": "s3cret", "vlanId": 12,
        "broadcastEnabled": False, "separationEnabled": False, "ifname": "ath1",
        "encryption": "psk-mixed tkip+aes"}


def test_enterprise_network_config_has_no_pass_phrase(device):
    device.uci_ok("set", "wireless.w1_index2.encryption=wpa-mixed tkip+aes")
    device.uci_ok("set", "wireless.w1_index2.server=10.0.0.9")
    device.uci_ok("set", "wireless.w1_index2.port=1645")
    out = answer(device, "vekGetNetworkConfig result 52")
    assert out["security"] == "WPA MIXED" and "password" not in out
    assert (out["radiusServer"], out["radiusPort"], out["radiusSecret"]) == ("10.0.0.9", 1645, "")
    assert out["vlanId"] is None and out["networkIndex"] == 52


def test_network_config_of_no_network_prints_nothing(device):
    device.uci_ok("delete", "wireless.w0_index7")
    assert script(device, "vekGetNetworkConfig result 7", "vekGetNetworkConfig result 8",
                  "vekGetNetworkConfig result 58", "vekGetNetworkConfig result x") == \
        ["", "", "", ""]


def test_guest_config_takes_the_guest_addressing(device):
    device.uci_ok("set", "network.guest.ipaddr=10.20.0.1")
    device.uci_ok("set", "dhcp.guest.start=10.20.0.50")
    device.uci_ok("set", "wireless.w1_index25.WLANEnable=1")
    device.uci_ok("set", "wireless.w1_index25.encryption=psk2 aes")
    device.uci_ok("set", "wireless.w1_index25.key=guestpass")
    assert answer(device, "vekGetGuestNetworkConfig result 5GHz") == {
        "deviceId": "00:11:22:33:44:55", "interface": "5GHz", "ssid": "Korvat-Guest",
        "guestEnabled": True, "broadcastEnabled": True, "security": "WPA2-PSK",
        "password": "guestpass", "separationEnabled": True, "gatewayIp": "10.20.0.1",
        "subnetMask": "255.255.255.0", "startingIp": "10.20.0.50",
        "endingIp": "10.10.10.200", "mac": "00:11:22:33:47:19", "networkIndex": 75,
        "leaseTime": "12h"}


def test_guest_network_info_follows_the_committed_guest_networks(device):
    device.uci_ok("set", "wireless.w0_index25.WLANEnable=1")
    device.uci_ok("set", "wireless.w0_index25.ssid=Visitors")
    device.uci_ok("commit")
    device.set_clients([{"cmac": "AA:BB:CC:00:00:09", "network": "w0_index25"}])
    device.set_traffic(networks={"w0_index25": (10, 20)})
    info = answer(device, "GuestNetworkInfo")
    assert info["GuestNetworkNum"] == 2
    assert info["Dev2G"] == {"NetworkIndex": 25, "Status": "Enabled", "Mac": "00:11:22:33:46:19",
                             "SSID": "Visitors", "Interface": "2.4GHz", "ClientNum": 1,
                             "RxByte": "10", "TxByte": "20", "Ifname": "ath16",
                             "Security": "OPEN"}
    assert info["Dev5G"]["Status"] == "Disabled"


def test_radio_config(device):
    device.uci_ok("set", "wireless.wifi1.disabled=1")
    device.uci_ok("set", "wireless.wifi1.channel=36")
    assert answer(device, "vekGetRadioConfig result 1") == {
        "deviceId": "00:11:22:33:44:55", "interface": "5GHz", "enabled": False,
        "opMode": "ap", "wirelessMode": "11ac", "channel": "36", "txPower": "auto",
        "networkNum": 1}


def test_device_mac_of_the_answers_comes_from_the_model(device):
    model = device.ap_model()
    model["mac"] = "02:4B:56:31:30:01"
    safefs.write_text(device.run, apmodel.MODEL_FILE, apmodel.dump_model(model))
    assert answer(device, "vekGetNetworkStatus result")["deviceId"] == "02:4B:56:31:30:01"
    assert answer(device, "vekGetNetworkStatus result")["networks"][0]["mac"] == \
        "02:4B:56:31:32:00"


# ---- changes -----------------------------------------------------------------

def test_set_vlan_prints_nothing_and_apply_commits(device):
    device.uci_ok("set", "wireless.w0_index0.WLANVLANID=9")
    out = script(device, "setVlan", "cloud_action_apply")
    assert out == ["", ""]
    assert device.uci_committed("wireless.w0_index0.WLANVLANID") == "9"
    assert device.journal() == ["kapri_util.lua setVlan", "kapri_util.lua cloud_action_apply"]


def test_network_id(device):
    assert script(device, "getNetwordId 192.168.1.77 255.255.255.0",
                  "getNetwordId 10.1.2.3 255.0.0.0", "getNetwordId x 255.0.0.0") == \
        ["192.168.1.0\n", "10.0.0.0\n", "0.0.0.0\n"]


def test_an_override_still_wins(device):
    device.set_output("kapri_util.lua", '{"RadioNum":3}', "WifiInfo")
    assert script(device, "WifiInfo") == ['{"RadioNum":3}']
