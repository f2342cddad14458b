"""Corner paths of "dxSetNetworkSettings": when the wait for the success
reply to leave the device ends (ten checks a second apart; the sleeps are
the agent's own, counted by the sleep shim), an empty "dnsServer2" that
keeps the second name server, and the guest range check of the 5 GHz guest
network and of a guest network whose enable option is missing."""
import re

import pytest

from conftest import MAC, wait_for

INVALID = ('{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,'
           '"message":"Invalid method parameter","data":""}}')
NOT_APPLIED = ('{"jsonrpc":"2.0","id":"%s","error":{"code":10001,"message":"Cannot execute '
               'request because the device is not in an appropriate state","data":""}}')
SUCCESS = '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}'
APPLY = "kapri_util.lua cloud_action_apply"

STATIC = {"deviceId": MAC, "deviceName": "VK310-AP", "deviceIpAddress": "192.168.1.20",
          "deviceSubnetMask": "255.255.255.0", "deviceDefaultGateway": "192.168.1.1",
          "dhcpEnabled": False, "dnsServer1": "192.168.1.1"}

SLEEP_LOG = "/tmp/fastsleep.log"
ACK_LINE = re.compile(r"dxSetNetworkSettingsHandler: reply ack is sent after waiting (\d+) "
                      r"seconds in reply command queue$")
TIMEOUT_LINE = re.compile(r"dxSetNetworkSettingsHandler: reply ack message timeout!$")


def one_second_sleeps(device):
    """The agent's sleep(1) calls so far (the reconnection waits are 7 s)."""
    return (device.read_file(SLEEP_LOG) or "").splitlines().count("sleep 1")


def send_and_cut(device, server, agent, id_):
    """Sends the request and takes the connection away (reconnection
    refused) while its gateway check runs: the reply cannot leave."""
    first = server.current
    device.set_script("kapri_util.lua", 'sleep 1\necho "$2/$3"\n', "getNetwordId")
    server.send_text('{"jsonrpc":"2.0","id":"%s","method":"dxSetNetworkSettings",'
                     '"params":{"deviceId":"%s","deviceIpAddress":"192.168.1.20",'
                     '"deviceSubnetMask":"255.255.255.0","deviceDefaultGateway":"192.168.1.1",'
                     '"dhcpEnabled":false,"dnsServer1":"192.168.1.1"}}' % (id_, MAC))
    assert device.wait_journal(lambda line: line.startswith("kapri_util.lua getNetwordId"))
    server.pause()
    server.drop(first)
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)


# ---- the wait for the reply to leave -----------------------------------------------------

def test_the_wait_gives_up_after_ten_one_second_checks(device, server, start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=7")
    device.uci_ok("commit", "korvatCloud")
    agent = start_agent(server.url, fastsleep=True)
    server.wait_for_connection(15)
    send_and_cut(device, server, agent, "cut")
    agent.out.wait_for(TIMEOUT_LINE, timeout=30)
    assert one_second_sleeps(device) == 10
    assert agent.out.matching(ACK_LINE) == []
    server.resume()
    server.wait_for_connection(30)
    got = [server.next_message(30), server.next_message(30)]
    assert [m.raw for m in got] == [SUCCESS % ("cut", MAC), NOT_APPLIED % "cut"]
    assert APPLY not in device.journal()


def test_a_reply_that_leaves_late_is_applied_after_the_seconds_waited(device, server,
                                                                       start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=2")
    device.uci_ok("commit", "korvatCloud")
    # sleeps of their full length, each written to the log as it begins
    agent = start_agent(server.url, fastsleep=True, env={"FASTSLEEP_SCALE": "1"})
    server.wait_for_connection(15)
    send_and_cut(device, server, agent, "late")
    # the reply waits while the handler checks once a second; the server
    # comes back after its second sleep began
    assert wait_for(lambda: one_second_sleeps(device) >= 2, 20)
    server.resume()
    server.wait_for_connection(30)
    assert server.next_message(30).raw == SUCCESS % ("late", MAC)
    line = agent.out.wait_for(ACK_LINE, timeout=30)
    waited = int(ACK_LINE.search(agent.out.lines[line]).group(1))
    # the seconds reported are the checks that found the reply still there,
    # each followed by one sleep of one second
    assert 2 <= waited < 10
    assert waited == one_second_sleeps(device)
    assert device.wait_journal(APPLY, timeout=15)
    assert agent.out.matching(TIMEOUT_LINE) == []


# ---- name servers ------------------------------------------------------------------------

def test_an_empty_second_name_server_keeps_the_current_one(device, connected):
    agent, server = connected
    device.write_file("/tmp/resolv.conf", "nameserver 192.168.1.1\nnameserver 10.0.0.54\n")
    for id_, params in (("empty", dict(STATIC, dnsServer2="")), ("absent", STATIC),
                        ("new", dict(STATIC, dnsServer2="9.9.9.9"))):
        device.clear_journal()
        reply = server.request("dxSetNetworkSettings", params, id=id_, timeout=30)
        assert reply.raw == SUCCESS % (id_, MAC)
        assert device.wait_journal(APPLY, timeout=15)
        dns = [line for line in device.journal() if line.startswith("uci set network.lan.dns=")]
        assert dns == ["uci set network.lan.dns=192.168.1.1 " +
                       ("9.9.9.9" if id_ == "new" else "10.0.0.54")], id_
    # without a second server to keep, the value ends in the blank
    device.write_file("/tmp/resolv.conf", "nameserver 192.168.1.1\n")
    device.clear_journal()
    reply = server.request("dxSetNetworkSettings", dict(STATIC, dnsServer2=""), id="one",
                           timeout=30)
    assert reply.raw == SUCCESS % ("one", MAC)
    assert device.wait_journal(APPLY, timeout=15)
    assert "uci set network.lan.dns=192.168.1.1 " in device.journal()


# ---- the guest range ---------------------------------------------------------------------

def guest_range_in_the_lan(device, w0, w1):
    """Guest DHCP range 192.168.1.100-150 (inside the LAN) and the enable
    options of the two guest networks (None: the option is missing)."""
    for section, value in (("w0_index25", w0), ("w1_index25", w1)):
        if value is None:
            device.uci_ok("delete", "wireless.%s.WLANEnable" % section)
        else:
            device.uci_ok("set", "wireless.%s.WLANEnable=%s" % (section, value))
    device.uci_ok("set", "dhcp.guest.start=192.168.1.100")
    device.uci_ok("set", "dhcp.guest.dhcp_stop_addr=192.168.1.150")
    device.uci_ok("commit")


def start_with_radios(device, server, start_agent, radios):
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    agent.out.wait_for(re.compile(r"=== %s$" % radios), timeout=15)
    device.clear_journal()
    return agent


@pytest.mark.parametrize("w0, w1", [("0", "1"), (None, "0"), ("0", None)],
                         ids=["5ghz-guest-on", "2.4ghz-option-missing", "5ghz-option-missing"])
def test_an_enabled_guest_range_inside_the_lan_is_refused(device, server, start_agent, w0, w1):
    guest_range_in_the_lan(device, w0, w1)
    start_with_radios(device, server, start_agent, "support2G=1, support5G=1")
    reply = server.request("dxSetNetworkSettings", STATIC, id="g", timeout=30)
    assert reply.raw == INVALID % "g"
    # the guest range was read, nothing was written
    journal = device.journal()
    assert "uci get dhcp.guest.start" in journal
    assert not [line for line in journal if line.startswith("uci set")]
    assert APPLY not in journal


def test_with_both_guest_networks_off_the_range_does_not_count(device, server, start_agent):
    guest_range_in_the_lan(device, "0", "0")
    start_with_radios(device, server, start_agent, "support2G=1, support5G=1")
    reply = server.request("dxSetNetworkSettings", STATIC, id="off", timeout=30)
    assert reply.raw == SUCCESS % ("off", MAC)
    assert "uci get dhcp.guest.start" not in device.journal()


def test_a_device_without_5ghz_never_asks_the_5ghz_guest_network(device, server, start_agent):
    device.set_profile("single-band")
    device.uci_ok("set", "wireless.w1_index25=wifi-iface")
    guest_range_in_the_lan(device, "0", "1")
    start_with_radios(device, server, start_agent, "support2G=1, support5G=0")
    reply = server.request("dxSetNetworkSettings", STATIC, id="single", timeout=30)
    assert reply.raw == SUCCESS % ("single", MAC)
    journal = device.journal()
    assert "uci get wireless.w1_index25.WLANEnable" not in journal
    assert "uci get dhcp.guest.start" not in journal
