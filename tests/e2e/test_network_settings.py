"""LAN settings from the server: "dxGetNetworkSettings" and
"dxSetNetworkSettings" against the simulated device, with the exact reply
bytes, the uci calls in their order, every refusal answered before any
write, and the apply step only after the success reply has left."""
import json
import re

import pytest

from conftest import MAC, request_barrier, uci_set_lines, uci_write_lines, wait_uci_committed

INVALID = '{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,"message":"Invalid method parameter","data":""}}'
NOT_APPLIED = ('{"jsonrpc":"2.0","id":"%s","error":{"code":10001,"message":"Cannot execute request '
               'because the device is not in an appropriate state","data":""}}')
SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'

STATIC = {"deviceId": MAC, "deviceName": "Office AP", "deviceIpAddress": "192.168.1.20",
          "deviceSubnetMask": "255.255.255.0", "deviceDefaultGateway": "192.168.1.1",
          "dhcpEnabled": False, "dnsServer1": "192.168.1.1", "dnsServer2": "9.9.9.9"}


def test_get_network_settings_static_exact_reply(connected):
    agent, server = connected
    reply = server.request("dxGetNetworkSettings", {"deviceId": "x"}, id="1")
    # "dnsServer2" is left out: /tmp/resolv.conf holds one name server
    assert reply.raw == (
        '{"jsonrpc":"2.0","id":"1","result":{"deviceId":"%s","deviceName":"VK310-AP",'
        '"deviceIpAddress":"192.168.1.2","deviceSubnetMask":"255.255.255.0",'
        '"deviceDefaultGateway":"192.168.1.1","dhcpEnabled":false,'
        '"dnsServer1":"192.168.1.1"}}' % MAC)


def test_get_network_settings_dhcp_with_two_name_servers(device, server, start_agent):
    device.uci_ok("set", "network.lan.proto=dhcp")
    device.uci_ok("set", "dhcp.@dnsmasq[0].resolvfile=/tmp/resolv.conf.auto")
    device.uci_ok("commit")
    device.write_file("/tmp/resolv.conf.auto",
                      "# Interface lan\nnameserver 127.0.0.1\nnameserver 10.0.0.53\n"
                      "nameserver 10.0.0.54\nnameserver 10.0.0.55\n")
    start_agent(server.url)
    server.wait_for_connection(15)
    reply = server.request("dxGetNetworkSettings", {"deviceId": MAC}, id="2")
    # dhcpEnabled is a boolean; 127.0.0.1 is skipped; the second server shows
    assert reply.raw == (
        '{"jsonrpc":"2.0","id":"2","result":{"deviceId":"%s","deviceName":"VK310-AP",'
        '"deviceIpAddress":"192.168.1.2","deviceSubnetMask":"255.255.255.0",'
        '"deviceDefaultGateway":"192.168.1.1","dhcpEnabled":true,'
        '"dnsServer1":"10.0.0.53","dnsServer2":"10.0.0.54"}}' % MAC)


def test_get_network_settings_without_device_id(connected):
    agent, server = connected
    reply = server.request("dxGetNetworkSettings", {}, id="3")
    assert reply.raw == INVALID % "3"


def test_set_static_settings_writes_in_order_then_applies_after_the_reply(device, connected):
    agent, server = connected
    # the apply step announces itself on the agent's own output (a tool
    # run with system() writes there), then commits as the device does
    device.set_script("kapri_util.lua", "echo 'device tool ran: apply'\nuci commit\n",
                      "cloud_action_apply")
    device.clear_journal()
    start = len(agent.out.lines)
    reply = server.request("dxSetNetworkSettings", STATIC, id="4")
    assert reply.raw == SUCCESS % ("4", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    # the sending thread said the reply had left before the apply ran
    sent = agent.out.wait_for(re.compile(
        r"queueReader: dxSetNetworkSettings method reply ack message is sent\.$"), start=start)
    applied = agent.out.wait_for("device tool ran: apply", start=start)
    assert sent < applied, "applied before the reply was out"
    assert uci_set_lines(device) == [
        "uci set snmpd.snmpv2.sysName=Office AP",
        "uci set system.system.SystemName=Office AP",
        "uci set system.system.SystemName=Office AP",
        "uci set network.lan.ipaddr=192.168.1.20",
        "uci set network.lan.netmask=255.255.255.0",
        "uci set network.lan.gateway=192.168.1.1",
        "uci set network.lan.proto=static",
        "uci set network.lan.dns=192.168.1.1 9.9.9.9",
        "uci set dhcp.@dnsmasq[0].resolvfile=/tmp/resolv.conf",
    ]
    # the gateway check ran the utility script for both addresses
    journal = device.journal()
    assert "kapri_util.lua getNetwordId 192.168.1.20 255.255.255.0" in journal
    assert "kapri_util.lua getNetwordId 192.168.1.1 255.255.255.0" in journal
    # committed by the apply step; the device now reports the new address
    assert wait_uci_committed(device, "network.lan.ipaddr", "192.168.1.20") == "192.168.1.20"
    assert device.uci_committed("system.system.SystemName") == "Office AP"
    after = server.request("dxGetNetworkSettings", {"deviceId": MAC}, id="5")
    assert after.data["result"]["deviceIpAddress"] == "192.168.1.20"
    assert after.data["result"]["deviceName"] == "Office AP"
    agent.out.wait_for(re.compile(
        r"dxSetNetworkSettingsHandler: reply ack is sent after waiting \d seconds"))


def test_dhcp_with_only_device_id_is_accepted(device, connected):
    agent, server = connected
    device.clear_journal()
    reply = server.request("dxSetNetworkSettings", {"deviceId": MAC, "dhcpEnabled": True}, id="6")
    assert reply.raw == SUCCESS % ("6", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    assert wait_uci_committed(device, "network.lan.proto", "dhcp") == "dhcp"
    assert device.uci_committed("dhcp.@dnsmasq[0].resolvfile") == "/tmp/resolv.conf.auto"
    # the current values were written back; the same name changes nothing
    assert "uci set snmpd.snmpv2.sysName=VK310-AP" not in device.journal()
    assert "uci commit" not in device.journal()[:device.journal().index(
        "kapri_util.lua cloud_action_apply")]
    # an empty second server keeps the blank of "%s %s"
    assert "uci set network.lan.dns=192.168.1.1 " in device.journal()


def test_same_name_means_no_snmp_change_and_no_commit(device, connected):
    agent, server = connected
    device.clear_journal()
    params = dict(STATIC, deviceName="VK310-AP")
    reply = server.request("dxSetNetworkSettings", params, id="7")
    assert reply.raw == SUCCESS % ("7", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    journal = device.journal()
    assert not any(line.startswith("uci set snmpd.") for line in journal)
    assert "uci commit" not in journal


def test_a_name_is_cut_to_20_characters(device, connected):
    agent, server = connected
    params = dict(STATIC, deviceName="A" * 25)
    server.request("dxSetNetworkSettings", params, id="8")
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    assert wait_uci_committed(device, "system.system.SystemName", "A" * 20) == "A" * 20


@pytest.mark.parametrize("name,params", [
    ("no device id", {k: v for k, v in STATIC.items() if k != "deviceId"}),
    ("static without dns1", {k: v for k, v in STATIC.items() if k != "dnsServer1"}),
    ("static without address", {k: v for k, v in STATIC.items() if k != "deviceIpAddress"}),
    ("static without mask", {k: v for k, v in STATIC.items() if k != "deviceSubnetMask"}),
    ("static without gateway", {k: v for k, v in STATIC.items() if k != "deviceDefaultGateway"}),
    ("gateway in another network", dict(STATIC, deviceDefaultGateway="10.1.1.1",
                                        deviceName="VK310-AP")),
    ("dhcp with a gateway elsewhere", {"deviceId": MAC, "dhcpEnabled": 1,
                                       "deviceDefaultGateway": "172.16.0.1"}),
])
def test_refusals_come_before_any_write(device, connected, name, params):
    agent, server = connected
    device.clear_journal()
    reply = server.request("dxSetNetworkSettings", params, id="r")
    assert reply.raw == INVALID % "r"
    request_barrier(server)
    assert uci_write_lines(device) == []
    assert "kapri_util.lua cloud_action_apply" not in device.journal()


def test_a_new_name_is_committed_even_when_a_later_check_refuses(device, connected):
    """The rename is made (and committed) before the address checks."""
    agent, server = connected
    device.clear_journal()
    params = dict(STATIC, deviceDefaultGateway="10.1.1.1")
    reply = server.request("dxSetNetworkSettings", params, id="n")
    assert reply.raw == INVALID % "n"
    request_barrier(server)
    assert uci_set_lines(device) == ["uci set snmpd.snmpv2.sysName=Office AP",
                                "uci set system.system.SystemName=Office AP"]
    assert device.uci_committed("system.system.SystemName") == "Office AP"
    assert device.uci_committed("network.lan.ipaddr") == "192.168.1.2"
    assert "kapri_util.lua cloud_action_apply" not in device.journal()


def test_an_address_in_the_guest_range_is_refused(device, server, start_agent):
    # an enabled guest network whose DHCP range lies in 192.168.1.0/24
    device.uci_ok("set", "wireless.w0_index25.WLANEnable=1")
    device.uci_ok("set", "dhcp.guest.start=192.168.1.100")
    device.uci_ok("set", "dhcp.guest.dhcp_stop_addr=192.168.1.150")
    device.uci_ok("commit")
    start_agent(server.url)
    server.wait_for_connection(15)
    device.clear_journal()
    reply = server.request("dxSetNetworkSettings", dict(STATIC, deviceName="VK310-AP"), id="g")
    assert reply.raw == INVALID % "g"
    request_barrier(server)
    assert not any(line.startswith("uci set") for line in device.journal())
    # the same with the guest network switched off is accepted
    device.uci_ok("set", "wireless.w0_index25.WLANEnable=0")
    device.uci_ok("set", "wireless.w1_index25.WLANEnable=0")
    device.uci_ok("commit")
    reply = server.request("dxSetNetworkSettings", STATIC, id="h")
    assert reply.raw == SUCCESS % ("h", MAC)


def test_a_reply_that_cannot_leave_gives_10001_and_nothing_is_applied(device, server,
                                                                      start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=1")
    device.uci_ok("commit", "korvatCloud")
    agent = start_agent(server.url)
    first = server.wait_for_connection(15)
    # the gateway check takes a moment, so that the connection is gone
    # before the reply is ready
    device.set_script("kapri_util.lua", 'sleep 1\necho "$2/$3"\n', "getNetwordId")
    server.send_text(json.dumps({"jsonrpc": "2.0", "id": "cut", "method": "dxSetNetworkSettings",
                                 "params": STATIC}))
    assert device.wait_journal(lambda line: line.startswith("kapri_util.lua getNetwordId"))
    server.pause()
    server.drop(first)
    # reconnection is refused for longer than 10 seconds
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)
    agent.out.wait_for(re.compile(r"reply ack message timeout!"), timeout=20)
    server.resume()
    second = server.wait_for_connection(20)
    not_status = lambda m: m.method != "dsLogStatusUpdates"  # noqa: E731
    got = [server.next_message(15, predicate=not_status) for _ in range(2)]
    # the success reply, queued first, then the refusal of the same request
    assert [m.raw for m in got] == [SUCCESS % ("cut", MAC), NOT_APPLIED % "cut"]
    assert all(m.conn is second for m in got)
    # the wait is over: the late reply is no acknowledgement any more (the
    # slot no longer refers to it)
    assert agent.out.matching(r"reply ack message is sent\.$") == []
    # the handler is over once a later request is answered
    request_barrier(server)
    journal = device.journal()
    assert "kapri_util.lua cloud_action_apply" not in journal
    # the new values stay staged, uncommitted
    assert device.uci_get("network.lan.ipaddr") == "192.168.1.20"
    assert device.uci_committed("network.lan.ipaddr") == "192.168.1.2"


def test_request_text_reaches_uci_literally(device, connected):
    agent, server = connected
    name = 'a"b $(touch /tmp/pwned) `id`'
    params = dict(STATIC, deviceName=name)
    reply = server.request("dxSetNetworkSettings", params, id="q")
    assert reply.raw == SUCCESS % ("q", MAC)
    assert device.wait_journal("kapri_util.lua cloud_action_apply")
    assert "uci set system.system.SystemName=" + name[:20] in device.journal()
    assert wait_uci_committed(device, "system.system.SystemName", name[:20]) == name[:20]
    assert not device.exists("/tmp/pwned")
