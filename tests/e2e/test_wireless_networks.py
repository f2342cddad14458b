"""Wireless networks from the server: "vekSetNetworkConfig", "vekAddNetwork"
and "vekDeleteNetwork" against the simulated device, with the exact reply
bytes, the uci calls in their order, the changes staged in the wireless
package until the apply step commits them, every refusal answered before
any write, and the reply out before the apply step runs."""
import re

from conftest import (MAC, assert_staged_until_applied, hold_apply_step, invalid_parameter_reply,
                      not_a_status_update, pair_network_one, release_apply_step, request_barrier,
                      script_call_lines, uci_set_lines, unsolicited, wait_radios_known, without)

SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'
NON_AP = "This method is not supported in Non-AP operation mode."
# A handler that writes many options runs many device tools one after the
# other: give its reply time on a busy machine.
LONG = 60


def refuse_all(server, device, method, rows):
    """Sends every (params, data) row, each of which must be refused with
    exactly that "data"; then no row may have written anything."""
    device.clear_journal()
    wrong = []
    for n, (params, data) in enumerate(rows):
        id = "r%d" % n
        reply = server.request(method, params, id=id, timeout=LONG)
        if reply.raw != invalid_parameter_reply(id, data):
            wrong.append((params, data, reply.raw))
    assert not wrong, "\n".join("%r: wanted %r, got %s" % w for w in wrong)
    request_barrier(server, LONG)
    journal = device.journal()
    assert not [line for line in journal if line.startswith("uci set ")], journal
    assert "kapri_util.lua cloud_action_apply" not in journal
    assert "kapri_util.lua setVlan" not in journal
    assert not [line for line in journal if line.startswith("kapri_util.lua rm_wifi_config")]
    assert not unsolicited(server), server.messages


# ---- vekAddNetwork ------------------------------------------------------------------------

def test_add_both_takes_the_free_slots_of_each_radio(device, server, start_agent):
    device.uci_ok("set", "wireless.wifi0.wlanlist=0,1,2,4")
    device.uci_ok("set", "wireless.wifi0.enlist=1,1,0,0")
    device.uci_ok("set", "wireless.wifi1.wlanlist=0,1,3")
    device.uci_ok("set", "wireless.wifi1.enlist=1,0,0")
    device.uci_ok("set", "wireless.wifi0.network_profile=w0_index0:w1_index0,w0_index1,"
                         "w0_index2,w0_index4,w1_index1,w1_index3")
    device.uci_ok("commit", "wireless")
    hold_apply_step(device)
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    device.clear_journal()
    params = {"deviceId": MAC, "interface": "BOTH", "ssid": "Both-Bands",
              "security": "WPA2-PSK", "password": "bothbands1", "broadcastEnabled": True}
    reply = server.request("vekAddNetwork", params, id="add1", timeout=LONG)
    # the reply is out while the apply step still waits
    assert reply.raw == SUCCESS % ("add1", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    assert not device.exists("/tmp/apply_done")
    agent.out.wait_for(re.compile(r"\[FUNC nimb_client\.cpp::vekAddNetworkHandler\]\[LINE \d+\]: "
                                  r"available_pf2 = 3, available_pf5 = 2, pf_is_enough\[1\]$"))
    assert uci_set_lines(device) == [
        "uci set wireless.wifi0.wlanlist=0,1,2,4,3",
        "uci set wireless.wifi0.enlist=1,1,0,0,1",
        "uci set wireless.wifi1.wlanlist=0,1,3,2",
        "uci set wireless.wifi1.enlist=1,0,0,1",
        "uci set wireless.wifi0.network_profile=w0_index0:w1_index0,w0_index1,w0_index2,"
        "w0_index4,w1_index1,w1_index3,w0_index3:w1_index2",
        "uci set wireless.w0_index3.ssid=Both-Bands",
        "uci set wireless.w0_index3.WLANEnable=1",
        "uci set wireless.w0_index3.hidden=0",
        "uci set wireless.w0_index3.isolate=0",
        "uci set wireless.w0_index3.encryption=psk2 aes",
        "uci set wireless.w0_index3.key=bothbands1",
        "uci set wireless.w1_index2.ssid=Both-Bands",
        "uci set wireless.w1_index2.WLANEnable=1",
        "uci set wireless.w1_index2.hidden=0",
        "uci set wireless.w1_index2.isolate=0",
        "uci set wireless.w1_index2.encryption=psk2 aes",
        "uci set wireless.w1_index2.key=bothbands1",
    ]
    # no VLAN work on add
    assert not script_call_lines(device, "setVlan")
    expected = {
        "wireless.wifi0.wlanlist": ("0,1,2,4", "0,1,2,4,3"),
        "wireless.wifi1.wlanlist": ("0,1,3", "0,1,3,2"),
        "wireless.wifi0.enlist": ("1,1,0,0", "1,1,0,0,1"),
        "wireless.wifi1.enlist": ("1,0,0", "1,0,0,1"),
        "wireless.w0_index3.ssid": ("Korvat-0-3", "Both-Bands"),
        "wireless.w1_index2.ssid": ("Korvat-1-2", "Both-Bands"),
        "wireless.w0_index3.encryption": ("none", "psk2 aes"),
        "wireless.w1_index2.encryption": ("none", "psk2 aes"),
        "wireless.w0_index3.key": ("korvat1234", "bothbands1"),
        "wireless.w1_index2.key": ("korvat1234", "bothbands1"),
        "wireless.w0_index3.WLANEnable": ("0", "1"),
        "wireless.w1_index2.WLANEnable": ("0", "1"),
    }
    assert_staged_until_applied(device, expected)
    assert device.uci_committed("wireless.wifi0.network_profile").endswith(",w0_index3:w1_index2")


def test_add_on_one_radio(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    params = {"deviceId": MAC, "interface": "5GHz", "ssid": "Five", "security": "OPEN"}
    reply = server.request("vekAddNetwork", params, id="add5", timeout=LONG)
    assert reply.raw == SUCCESS % ("add5", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    assert uci_set_lines(device) == [
        "uci set wireless.wifi1.wlanlist=0,1",
        "uci set wireless.wifi1.enlist=1,1",
        "uci set wireless.wifi0.network_profile=w0_index0:w1_index0,w0_index1,w1_index1",
        "uci set wireless.w1_index1.ssid=Five",
        "uci set wireless.w1_index1.WLANEnable=1",
        "uci set wireless.w1_index1.hidden=1",
        "uci set wireless.w1_index1.isolate=0",
        "uci set wireless.w1_index1.encryption=none",
    ]
    request_barrier(server, LONG)
    assert device.uci_committed("wireless.w1_index1.ssid") == "Five"
    assert device.uci_committed("wireless.wifi1.wlanlist") == "0,1"


def test_add_with_radius_writes_server_port_and_secret(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    params = {"deviceId": MAC, "interface": "2.4GHz", "ssid": "Radius", "security": "WPA MIXED",
              "radiusServer": "10.0.0.5", "radiusPort": 1812, "radiusSecret": "s3cret"}
    reply = server.request("vekAddNetwork", params, id="addr", timeout=LONG)
    assert reply.raw == SUCCESS % ("addr", MAC)
    request_barrier(server, LONG)
    sets = uci_set_lines(device)
    assert sets[-4:] == [
        "uci set wireless.w0_index2.encryption=wpa-mixed tkip+aes",
        "uci set wireless.w0_index2.server=10.0.0.5",
        "uci set wireless.w0_index2.port=1812",
        "uci set wireless.w0_index2.WLANWpaRadiusSrvSecret=s3cret",
    ]


def test_add_lacking_interface_and_ssid_gives_two_errors_in_order(connected_with_radios_known,
                                                                  device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    reply = server.request("vekAddNetwork", {"deviceId": MAC, "security": "OPEN"}, id="two", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("two", "Invalid interface.")
    second = server.next_message(10, predicate=not_a_status_update)
    assert second.raw == invalid_parameter_reply("two", "Invalid ssid.")
    request_barrier(server, LONG)
    assert not unsolicited(server)
    assert not uci_set_lines(device)


def test_add_lacking_everything_gives_four_errors(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    reply = server.request("vekAddNetwork", {}, id="four", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("four", "Invalid device id.")
    assert [server.next_message(10, predicate=not_a_status_update).raw for _ in range(3)] == [
        invalid_parameter_reply("four", "Invalid interface."),
        invalid_parameter_reply("four", "Invalid ssid."),
        invalid_parameter_reply("four", "Invalid security.")]


ADD = {"deviceId": MAC, "interface": "2.4GHz", "ssid": "New", "security": "WPA2-PSK",
       "password": "newpass12"}


ADD_REFUSALS = [
    (without(ADD, "deviceId"), "Invalid device id."),
    (without(ADD, "security"), "Invalid security."),
    (dict(ADD, ssid=""), "Invalid ssid."),
    (dict(ADD, ssid="x" * 33), "Invalid ssid."),
    (dict(ADD, interface="6GHz"), "Unknown interface."),
    (dict(ADD, interface="both"), "Unknown interface."),
    (without(ADD, "password"), "Invalid password."),
    (dict(without(ADD, "password"), security="WPA-PSK MIXED"), "Invalid password."),
    (dict(ADD, security="WPA2", radiusServer="10.0.0.5", radiusSecret=""), "Invalid secret."),
    (dict(ADD, security="WPA2", radiusServer="10.0.0.5"), "Invalid secret."),
    (dict(ADD, security="WPA2", radiusServer="10.0.0.5", radiusSecret="s" * 65),
     "Invalid secret."),
    (dict(ADD, security="WPA2", radiusSecret="secret"), "Invalid server."),
    (dict(ADD, security="WPA MIXED", radiusSecret=""), "Invalid server."),
    (dict(ADD, security="WPA2", radiusServer="10.0.0.5", radiusSecret="s", radiusPort=0),
     "Invalid port number."),
    (dict(ADD, security="WPA2", radiusServer="10.0.0.5", radiusSecret="s", radiusPort=65536),
     "Invalid port number."),
    (dict(ADD, security="WEP"), "Invalid security."),
    (dict(ADD, security="wpa2-psk"), "Invalid security."),
    (dict(ADD, password="short12"), "Invalid password."),
    (dict(ADD, security="psk2 aes", password="g" * 64), "Invalid password."),
    (dict(without(ADD, "password"), security="psk2 aes"), "Invalid password."),
]


def test_add_refusals_come_before_any_write(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    refuse_all(server, device, "vekAddNetwork", ADD_REFUSALS)


def test_add_when_radio_zero_is_full_is_insufficient(device, server, start_agent):
    device.uci_ok("set", "wireless.wifi0.wlanlist=0,1,2,3,4,5,6,7")
    device.uci_ok("set", "wireless.wifi0.enlist=1,1,1,1,1,1,1,1")
    device.uci_ok("commit", "wireless")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    device.clear_journal()
    reply = server.request("vekAddNetwork", ADD, id="full", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("full", "Insufficient interface.")
    # a pair needs both radios: radio 0 is still full
    reply = server.request("vekAddNetwork", dict(ADD, interface="BOTH"), id="full2", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("full2", "Insufficient interface.")
    request_barrier(server, LONG)
    assert not uci_set_lines(device)
    # radio 1 alone still has room
    reply = server.request("vekAddNetwork", dict(ADD, interface="5GHz"), id="five", timeout=LONG)
    assert reply.raw == SUCCESS % ("five", MAC)


# ---- vekSetNetworkConfig ------------------------------------------------------------------

def test_change_of_a_paired_network_changes_both_halves(device, server, start_agent):
    pair_network_one(device)
    hold_apply_step(device)
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    device.clear_journal()
    params = {"deviceId": "someone-else", "networkIndex": 1, "ssid": "Office-2",
              "enabled": True, "security": "WPA2-PSK", "password": "officepass",
              "vlanId": 20, "broadcastEnabled": False, "separationEnabled": True}
    reply = server.request("vekSetNetworkConfig", params, id="set1", timeout=LONG)
    # the agent's own device id, not the request's
    assert reply.raw == SUCCESS % ("set1", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    assert not device.exists("/tmp/apply_done")
    assert uci_set_lines(device) == [
        "uci set wireless.w0_index1.ssid=Office-2",
        "uci set wireless.w0_index1.WLANVLANID=20",
        "uci set wireless.w0_index1.WLANVLANEnable=1",
        "uci set wireless.w0_index1.WLANEnable=1",
        "uci set wireless.wifi0.enlist=1,1",
        "uci set wireless.wifi1.enlist=1,1",
        "uci set wireless.w0_index1.hidden=1",
        "uci set wireless.w0_index1.isolate=1",
        "uci set wireless.w0_index1.encryption=psk2 aes",
        "uci set wireless.w0_index1.key=officepass",
        "uci set wireless.w1_index1.ssid=Office-2",
        "uci set wireless.w1_index1.WLANEnable=1",
        "uci set wireless.w1_index1.hidden=1",
        "uci set wireless.w1_index1.isolate=1",
        "uci set wireless.w1_index1.encryption=psk2 aes",
        "uci set wireless.w1_index1.key=officepass",
    ]
    journal = device.journal()
    assert journal.index("kapri_util.lua setVlan") < journal.index(
        "kapri_util.lua cloud_action_apply")
    assert "uci get wireless.wifi0.network_profile" in journal
    expected = {
        "wireless.w0_index1.ssid": ("Korvat-Office", "Office-2"),
        "wireless.w1_index1.ssid": ("Korvat-1-1", "Office-2"),
        "wireless.w1_index1.WLANEnable": ("0", "1"),
        "wireless.w1_index1.hidden": ("0", "1"),
        "wireless.w1_index1.isolate": ("0", "1"),
        "wireless.w1_index1.encryption": ("none", "psk2 aes"),
        "wireless.w1_index1.key": ("korvat1234", "officepass"),
        "wireless.w0_index1.WLANVLANID": (None, "20"),
        "wireless.w0_index1.WLANVLANEnable": ("0", "1"),
        "wireless.wifi1.enlist": ("1,0", "1,1"),
    }
    # the VLAN is never written on the brother
    assert device.uci_get("wireless.w1_index1.WLANVLANID") is None
    assert device.uci_get("wireless.w1_index1.WLANVLANEnable") == "0"
    assert_staged_until_applied(device, expected)


def test_switching_a_paired_network_off(device, server, start_agent):
    pair_network_one(device)
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    device.clear_journal()
    params = {"deviceId": MAC, "networkIndex": 51, "ssid": "Off", "security": "OPEN"}
    reply = server.request("vekSetNetworkConfig", params, id="off", timeout=LONG)
    assert reply.raw == SUCCESS % ("off", MAC)
    request_barrier(server, LONG)
    sets = uci_set_lines(device)
    # addressed through radio 1: its VLAN goes off, the flags of both go to 0
    assert sets[:6] == [
        "uci set wireless.w1_index1.ssid=Off",
        "uci set wireless.w1_index1.WLANVLANID=",
        "uci set wireless.w1_index1.WLANVLANEnable=0",
        "uci set wireless.w1_index1.WLANEnable=0",
        "uci set wireless.wifi1.enlist=1,0",
        "uci set wireless.wifi0.enlist=1,0",
    ]
    assert "uci set wireless.w0_index1.WLANEnable=0" in sets
    assert device.uci_committed("wireless.w0_index1.WLANEnable") == "0"
    assert device.uci_committed("wireless.w0_index1.ssid") == "Off"
    assert script_call_lines(device, "setVlan") == ["kapri_util.lua setVlan"]


def test_vlan_with_the_network_disabled_is_switched_off(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.uci_ok("set", "wireless.w0_index1.WLANVLANEnable=1")
    device.uci_ok("set", "wireless.w0_index1.WLANVLANID=30")
    device.uci_ok("commit", "wireless")
    device.clear_journal()
    params = {"deviceId": MAC, "networkIndex": 1, "ssid": "Office", "security": "OPEN",
              "enabled": False, "vlanId": 30}
    reply = server.request("vekSetNetworkConfig", params, id="v0", timeout=LONG)
    assert reply.raw == SUCCESS % ("v0", MAC)
    request_barrier(server, LONG)
    assert "uci set wireless.w0_index1.WLANVLANID=" in uci_set_lines(device)
    assert "uci set wireless.w0_index1.WLANVLANEnable=0" in uci_set_lines(device)
    assert script_call_lines(device, "setVlan") == ["kapri_util.lua setVlan"]
    assert device.uci_committed("wireless.w0_index1.WLANVLANEnable") == "0"
    # uci drops an option set to the empty text
    assert device.uci_committed("wireless.w0_index1.WLANVLANID") is None


def test_the_same_vlan_again_does_not_run_set_vlan(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.uci_ok("set", "wireless.w0_index1.WLANVLANEnable=1")
    device.uci_ok("set", "wireless.w0_index1.WLANVLANID=4094")
    device.uci_ok("commit", "wireless")
    device.clear_journal()
    params = {"deviceId": MAC, "networkIndex": 1, "ssid": "Office", "security": "OPEN",
              "enabled": True, "vlanId": 4094}
    reply = server.request("vekSetNetworkConfig", params, id="same", timeout=LONG)
    assert reply.raw == SUCCESS % ("same", MAC)
    request_barrier(server, LONG)
    assert not any("VLAN" in line for line in uci_set_lines(device))
    assert "uci get wireless.w0_index1.WLANVLANEnable" in device.journal()
    assert not script_call_lines(device, "setVlan")
    assert script_call_lines(device, "cloud_action_apply")


def test_networkindex_missing_means_the_primary_network(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    params = {"deviceId": MAC, "ssid": "Primary", "security": "psk2 aes",
              "password": "primary12", "enabled": True}
    reply = server.request("vekSetNetworkConfig", params, id="p", timeout=LONG)
    assert reply.raw == SUCCESS % ("p", MAC)
    request_barrier(server, LONG)
    sets = uci_set_lines(device)
    assert sets[0] == "uci set wireless.w0_index0.ssid=Primary"
    # a UCI value is taken as it stands; the primary network's brother follows
    assert "uci set wireless.w0_index0.encryption=psk2 aes" in sets
    assert "uci set wireless.w1_index0.ssid=Primary" in sets
    assert device.uci_committed("wireless.w1_index0.key") == "primary12"


def test_accepted_pass_phrases(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    for password in ("0123456789abcdefABCDEF0123456789abcdefABCDEF0123456789abcdef0123",
                     "g" * 63, "12345678"):
        params = {"deviceId": MAC, "networkIndex": 1, "ssid": "Office",
                  "security": "WPA2-PSK", "password": password}
        reply = server.request("vekSetNetworkConfig", params, id="pw", timeout=LONG)
        assert reply.raw == SUCCESS % ("pw", MAC), password
        request_barrier(server, LONG)
        assert device.uci_committed("wireless.w0_index1.key") == password


SET = {"deviceId": MAC, "networkIndex": 1, "ssid": "Office", "security": "WPA2-PSK",
       "password": "officepass", "enabled": True}
RADIUS = dict(without(SET, "password"), security="WPA2", radiusServer="10.0.0.5",
              radiusSecret="secret")


SET_REFUSALS = [
    (without(SET, "deviceId"), ""),
    (without(SET, "ssid"), ""),
    (without(SET, "security"), ""),
    (dict(SET, ssid=""), "Invalid ssid."),
    (dict(SET, ssid="s" * 33), "Invalid ssid."),
    (without(SET, "password"), ""),
    (dict(without(SET, "password"), security="WPA-PSK MIXED"), ""),
    (without(RADIUS, "radiusServer"), ""),
    (without(RADIUS, "radiusSecret"), ""),
    (dict(RADIUS, radiusSecret=""), ""),
    (dict(RADIUS, radiusSecret="s" * 65), ""),
    (dict(RADIUS, security="WPA MIXED", radiusPort=0), ""),
    (dict(RADIUS, radiusPort=65536), ""),
    (dict(SET, vlanId=0), ""),
    (dict(SET, vlanId=4095), ""),
    (dict(SET, security="WEP"), ""),
    (dict(SET, password="short12"), ""),
    (dict(SET, password="0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdeg"), ""),
    (dict(SET, password="p" * 65), ""),
    (dict(SET, networkIndex=8), "Invalid network index."),
    (dict(SET, networkIndex=49), "Invalid network index."),
    (dict(SET, networkIndex=58), "Invalid network index."),
    (dict(SET, networkIndex=-1), "Invalid network index."),
    (dict(SET, networkIndex=5), ""),   # w0_index5 is not in the profile
    (dict(SET, networkIndex=52), ""),  # neither is w1_index2
]


def test_set_refusals_come_before_any_write(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    refuse_all(server, device, "vekSetNetworkConfig", SET_REFUSALS)


def test_vlan_limits(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    for vlan, raw in ((4094, SUCCESS % ("v", MAC)), (1, SUCCESS % ("v", MAC)),
                      (4095, invalid_parameter_reply("v")), (0, invalid_parameter_reply("v"))):
        reply = server.request("vekSetNetworkConfig", dict(SET, vlanId=vlan), id="v", timeout=LONG)
        assert reply.raw == raw, vlan
    request_barrier(server, LONG)


def test_a_section_name_inside_the_guest_one_passes_the_profile_check(device, server,
                                                                       start_agent):
    """The profile check is a plain substring search: w0_index2 is found
    inside w0_index25."""
    device.uci_ok("set", "wireless.wifi0.network_profile=w0_index0:w1_index0,w0_index25")
    device.uci_ok("commit", "wireless")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    reply = server.request("vekSetNetworkConfig", dict(SET, networkIndex=2), id="sub", timeout=LONG)
    assert reply.raw == SUCCESS % ("sub", MAC)
    request_barrier(server, LONG)
    assert device.uci_committed("wireless.w0_index2.ssid") == "Office"


def test_missing_enable_list_is_refused_after_the_first_writes(device, server, start_agent):
    device.uci_ok("delete", "wireless.wifi0.enlist")
    device.uci_ok("commit", "wireless")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    device.clear_journal()
    reply = server.request("vekSetNetworkConfig", SET, id="nolist", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("nolist")
    request_barrier(server, LONG)
    assert uci_set_lines(device) == [
        "uci set wireless.w0_index1.ssid=Office",
        "uci set wireless.w0_index1.WLANVLANID=",
        "uci set wireless.w0_index1.WLANVLANEnable=0",
        "uci set wireless.w0_index1.WLANEnable=1",
    ]
    # staged, never applied
    assert not script_call_lines(device, "cloud_action_apply")
    assert device.uci_get("wireless.w0_index1.ssid") == "Office"
    assert device.uci_committed("wireless.w0_index1.ssid") == "Korvat-Office"


# ---- vekDeleteNetwork ---------------------------------------------------------------------

def test_delete_of_a_paired_network_removes_both_halves(device, server, start_agent):
    pair_network_one(device)
    hold_apply_step(device)
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    device.clear_journal()
    reply = server.request("vekDeleteNetwork", {"deviceId": MAC, "networkIndex": 51,
                                                "ssid": "ignored"}, id="del", timeout=LONG)
    assert reply.raw == SUCCESS % ("del", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    calls = [line for line in device.journal()
             if line.startswith("uci set ") or line.startswith("kapri_util.lua ")]
    assert calls == [
        "uci set wireless.wifi0.network_profile=w0_index0:w1_index0",
        "uci set wireless.wifi1.wlanlist=0",
        "uci set wireless.wifi1.enlist=1",
        "kapri_util.lua rm_wifi_config w1_index1",
        "uci set wireless.wifi0.network_profile=w0_index0:w1_index0",
        "uci set wireless.wifi0.wlanlist=0",
        "uci set wireless.wifi0.enlist=1",
        "kapri_util.lua rm_wifi_config w0_index1",
        "kapri_util.lua setVlan",
        "kapri_util.lua cloud_action_apply",
    ]
    # staged: lists, profile and both sections gone; the file still has them
    assert device.uci_get("wireless.wifi0.network_profile") == "w0_index0:w1_index0"
    assert device.uci_get("wireless.w0_index1") is None
    assert device.uci_get("wireless.w1_index1") is None
    assert device.uci_committed("wireless.w0_index1") == "wifi-iface"
    release_apply_step(device)
    assert device.uci_committed("wireless.wifi0.network_profile") == "w0_index0:w1_index0"
    assert device.uci_committed("wireless.wifi0.wlanlist") == "0"
    assert device.uci_committed("wireless.wifi1.wlanlist") == "0"
    assert device.uci_committed("wireless.wifi1.enlist") == "1"
    assert device.uci_committed("wireless.w0_index1") is None
    assert device.uci_committed("wireless.w1_index1") is None
    assert device.uci_committed("wireless.w0_index0") == "wifi-iface"


def test_delete_of_an_unpaired_network(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    device.clear_journal()
    reply = server.request("vekDeleteNetwork", {"deviceId": MAC, "networkIndex": 1}, id="d1", timeout=LONG)
    assert reply.raw == SUCCESS % ("d1", MAC)
    request_barrier(server, LONG)
    assert script_call_lines(device, "rm_wifi_config") == ["kapri_util.lua rm_wifi_config w0_index1"]
    assert device.uci_committed("wireless.wifi0.network_profile") == "w0_index0:w1_index0"
    assert device.uci_committed("wireless.wifi0.wlanlist") == "0"
    assert device.uci_committed("wireless.w0_index1") is None


DELETE_REFUSALS = [
    ({"networkIndex": 1}, "Invalid device id."),
    ({"deviceId": MAC, "networkIndex": 0}, "Network index 0/50 cannot be deleted."),
    ({"deviceId": MAC}, "Network index 0/50 cannot be deleted."),
    ({"deviceId": MAC, "networkIndex": 50}, "Network index 0/50 cannot be deleted."),
    ({"deviceId": MAC, "networkIndex": 8}, "Invalid network index."),
    ({"deviceId": MAC, "networkIndex": 49}, "Invalid network index."),
    ({"deviceId": MAC, "networkIndex": 58}, "Invalid network index."),
    ({"deviceId": MAC, "networkIndex": -3}, "Invalid network index."),
    ({"deviceId": MAC, "networkIndex": 3}, "Network index is not in the profile."),
    ({"deviceId": MAC, "networkIndex": 57}, "Network index is not in the profile."),
]


def test_delete_refusals_come_before_any_write(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    refuse_all(server, device, "vekDeleteNetwork", DELETE_REFUSALS)


# ---- request text ----------------------------------------------------------------------------

SPECIAL_SSID = 'a"b $c `d` \\e'
SPECIAL_KEY = 'k"e$y`x`\\z $(touch /tmp/pwned)'


def test_ssid_and_pass_phrase_reach_uci_exactly(connected_with_radios_known, device):
    agent, server = connected_with_radios_known
    params = {"deviceId": MAC, "interface": "BOTH", "ssid": SPECIAL_SSID,
              "security": "WPA2-PSK", "password": SPECIAL_KEY}
    reply = server.request("vekAddNetwork", params, id="q1", timeout=LONG)
    assert reply.raw == SUCCESS % ("q1", MAC)
    request_barrier(server, LONG)
    for section in ("w0_index2", "w1_index1"):
        assert device.uci_get("wireless.%s.ssid" % section) == SPECIAL_SSID
        assert device.uci_get("wireless.%s.key" % section) == SPECIAL_KEY
        assert device.uci_committed("wireless.%s.key" % section) == SPECIAL_KEY
    params = {"deviceId": MAC, "networkIndex": 1, "ssid": SPECIAL_SSID[::-1],
              "security": "WPA-PSK MIXED", "password": SPECIAL_KEY[::-1], "enabled": True}
    reply = server.request("vekSetNetworkConfig", params, id="q2", timeout=LONG)
    assert reply.raw == SUCCESS % ("q2", MAC)
    request_barrier(server, LONG)
    assert device.uci_get("wireless.w0_index1.ssid") == SPECIAL_SSID[::-1]
    assert device.uci_get("wireless.w0_index1.key") == SPECIAL_KEY[::-1]
    assert not device.exists("/tmp/pwned")


# ---- devices of other kinds -----------------------------------------------------------------

def test_single_band_device(device, server, start_agent):
    device.set_output("kapri_util.lua", '{"wifi0":"2.4G"}\n', "get_support_radio")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    assert wait_radios_known(agent).endswith("=== support2G=1, support5G=0")
    device.clear_journal()
    for interface in ("BOTH", "5GHz"):
        reply = server.request("vekAddNetwork", dict(ADD, interface=interface), id="sb", timeout=LONG)
        assert reply.raw == invalid_parameter_reply("sb", "The interface is not supported.")
    reply = server.request("vekSetNetworkConfig", dict(SET, networkIndex=50), id="sb50", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("sb50", "Invalid network index.")
    reply = server.request("vekDeleteNetwork", {"deviceId": MAC, "networkIndex": 51}, id="sbd", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("sbd", "Invalid network index.")
    request_barrier(server, LONG)
    assert not uci_set_lines(device)
    # radio 0 works as before
    reply = server.request("vekAddNetwork", ADD, id="sb24", timeout=LONG)
    assert reply.raw == SUCCESS % ("sb24", MAC)


def test_a_station_mode_radio_refuses_every_change(device, server, start_agent):
    device.uci_ok("set", "wireless.wifi0.opmode=sta")
    device.uci_ok("commit", "wireless")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    device.clear_journal()
    for method, params in (("vekSetNetworkConfig", SET), ("vekAddNetwork", ADD),
                           ("vekAddNetwork", dict(ADD, interface="5GHz")),
                           ("vekAddNetwork", dict(ADD, interface="BOTH")),
                           ("vekDeleteNetwork", {"deviceId": MAC, "networkIndex": 1})):
        reply = server.request(method, params, id="sta", timeout=LONG)
        assert reply.raw == invalid_parameter_reply("sta", NON_AP), method
    request_barrier(server, LONG)
    assert not uci_set_lines(device)
    assert "uci get wireless.wifi0.opmode" in device.journal()


def test_radio_one_in_station_mode_refuses_too(device, server, start_agent):
    device.uci_ok("set", "wireless.wifi1.opmode=sta")
    device.uci_ok("commit", "wireless")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    device.clear_journal()
    reply = server.request("vekSetNetworkConfig", SET, id="sta1", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("sta1", NON_AP)
    reply = server.request("vekAddNetwork", ADD, id="sta2", timeout=LONG)
    assert reply.raw == invalid_parameter_reply("sta2", NON_AP)
    request_barrier(server, LONG)
    assert not uci_set_lines(device)


def test_an_unset_operation_mode_counts_as_access_point(device, server, start_agent):
    device.uci_ok("delete", "wireless.wifi0.opmode")
    device.uci_ok("delete", "wireless.wifi1.opmode")
    device.uci_ok("commit", "wireless")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    wait_radios_known(agent)
    reply = server.request("vekSetNetworkConfig", SET, id="unset", timeout=LONG)
    assert reply.raw == SUCCESS % ("unset", MAC)
