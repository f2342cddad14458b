"""Remote access to the web interface through a real UPnP gateway: Debian's
miniupnpd as the device's upstream router, in the run's own namespaces
(device/simgateway.py).  The mappings are checked in the gateway's own
listing; no SSDP packet of these tests reaches the host's namespace."""
import os
import re
import socket
import stat
import struct
import threading

import pytest

import simnet
from simdevice import Device
from simgateway import UpnpGateway

from conftest import AGENT, MAC, TIMEOUT_SCALE, device_server, timer_barrier, wait_for

RECORD = "/tmp/luci-sessions/external/record_file"


@pytest.fixture
def wan_device():
    net = simnet.DeviceNet(wan=True)
    dev = Device(net=net)
    dev.timeout_scale = TIMEOUT_SCALE
    try:
        yield dev
    finally:
        dev.close()
        net.close()


@pytest.fixture
def gateway(wan_device, tmp_path):
    with UpnpGateway(wan_device.net, str(tmp_path)) as gw:
        yield gw


@pytest.fixture
def rig(wan_device, gateway, start_agent_on):
    """(device, gateway, agent, server) with the agent connected."""
    srv = device_server(wan_device)
    srv.start()
    try:
        agent = start_agent_on(wan_device, srv.url)
        srv.wait_for_connection(15)
        agent.timer_tid()
        yield wan_device, gateway, agent, srv
    finally:
        srv.stop()


@pytest.fixture
def start_agent_on():
    """start_agent for a device the test made itself."""
    from conftest import Agent
    started = []

    def start(device, url):
        proc = device.start(["/usr/bin/korvat-cloud", "-d", url, MAC], agent=AGENT)
        agent = Agent(device, proc)
        started.append(agent)
        return agent

    yield start
    for agent in started:
        agent.device.stop()
        agent.out._thread.join(5)
        agent.err._thread.join(5)
        assert not agent.sanitizer_reports(), agent.err.text()


def enable(server, timeout=600, protocol="http", id="e1"):
    params = {"deviceId": MAC}
    if protocol is not None:
        params["protocol"] = protocol
    if timeout is not None:
        params["timeout"] = timeout
    return server.request("dxEnableRemoteWebUiAccess", params, id=id, timeout=60)


def test_enable_maps_a_random_high_port_to_the_web_interface(rig):
    device, gateway, agent, server = rig
    reply = enable(server)
    result = reply.data["result"]
    port = result["port"]
    # the port is text in the reply, between 49152 and 65534
    assert isinstance(port, str) and 49152 <= int(port) <= 65534
    assert reply.raw == ('{"jsonrpc":"2.0","id":"e1","result":{"deviceId":"%s","protocol":"http",'
                         '"ipAddress":"%s","port":"%s"}}' % (MAC, simnet.WAN_IP, port))
    # the gateway's own listing holds the mapping to this device's web port
    mappings = gateway.mappings()
    assert mappings == [{"protocol": "TCP", "external": int(port), "client": simnet.DEVICE_IP,
                         "internal": 80, "description": "nimb:UPnP:port", "lease": mappings[0]["lease"]}]
    assert 0 < mappings[0]["lease"] <= 600
    assert "dport %s dnat ip to %s:80" % (port, simnet.DEVICE_IP) in gateway.rules()
    # the device records the open access
    assert wait_for(lambda: device.uci_committed("upnpc.http.enable") == "1")
    assert device.uci_committed("upnpc.http.ext_port") == port
    assert device.uci_committed("korvatCloud.korvatCloud.remote_access_timeout") == "600"
    assert wait_for(lambda: device.exists(RECORD))
    for d in ("/tmp/luci-sessions", "/tmp/luci-sessions/external"):
        mode = os.lstat(device.path(d)).st_mode
        assert stat.S_IMODE(mode) == 0o700
    journal = device.journal()
    assert "uci commit korvatCloud.korvatCloud.remote_access_timeout" in journal
    assert "uci get httpd.httpd.port" in journal
    agent.out.wait_for(re.compile(r"add upnp port\(%s\)\.$" % port))


def test_a_second_enable_moves_access_to_a_fresh_port(rig):
    device, gateway, agent, server = rig
    first = enable(server, id="a").data["result"]["port"]
    assert wait_for(lambda: device.uci_committed("upnpc.http.ext_port") == first)
    second = enable(server, id="b").data["result"]["port"]
    assert second != first
    assert wait_for(lambda: device.uci_committed("upnpc.http.ext_port") == second)
    # the earlier mapping was closed after the new one had been answered
    assert [m["external"] for m in gateway.mappings()] == [int(second)]
    agent.out.wait_for(re.compile(r"close port\[%s\]$" % first))


def test_disable_removes_the_mapping_and_leaves_the_record(rig):
    device, gateway, agent, server = rig
    port = enable(server).data["result"]["port"]
    assert wait_for(lambda: device.exists(RECORD))
    reply = server.request("dxDisableRemoteWebUiAccess",
                           {"deviceId": MAC, "ipAddress": simnet.WAN_IP, "port": port},
                           id="d1", timeout=60)
    assert reply.raw == '{"jsonrpc":"2.0","id":"d1","result":{"deviceId":"%s"}}' % MAC
    assert gateway.mappings() == []
    assert device.uci_committed("upnpc.http.enable") == "0"
    # only the expiry removes the marker file
    assert device.exists(RECORD)


def test_disable_with_a_port_that_is_no_number_deletes_port_0_and_succeeds(rig):
    device, gateway, agent, server = rig
    port = enable(server).data["result"]["port"]
    reply = server.request("dxDisableRemoteWebUiAccess",
                           {"deviceId": MAC, "ipAddress": "x", "port": "abc"},
                           id="d2", timeout=60)
    assert reply.data["result"] == {"deviceId": MAC}
    # port 0 does not exist: the real mapping stays
    assert [m["external"] for m in gateway.mappings()] == [int(port)]
    assert "DeletePortMapping" in gateway.log_text()


@pytest.mark.parametrize("missing", ["deviceId", "ipAddress", "port"])
def test_disable_needs_all_three_members(rig, missing):
    device, gateway, agent, server = rig
    params = {"deviceId": MAC, "ipAddress": simnet.WAN_IP, "port": "50000"}
    del params[missing]
    reply = server.request("dxDisableRemoteWebUiAccess", params, id="m", timeout=30)
    assert reply.raw == ('{"jsonrpc":"2.0","id":"m","error":{"code":-32602,'
                         '"message":"Invalid method parameter","data":""}}')


def test_another_protocol_is_refused_and_changes_nothing(rig):
    device, gateway, agent, server = rig
    device.clear_journal()
    reply = enable(server, protocol="https", id="p")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"p","error":{"code":10102,'
                         '"message":"The device does not support the protocol requested",'
                         '"data":""}}')
    assert gateway.mappings() == []
    assert not any(line.startswith("uci set") or line.startswith("uci commit")
                   for line in device.journal())


def test_without_protocol_and_timeout_the_mapping_never_expires(rig):
    device, gateway, agent, server = rig
    device.set_output("session_timeout.lua", "1\n")
    reply = enable(server, protocol=None, timeout=None, id="n")
    port = int(reply.data["result"]["port"])
    assert gateway.mappings()[0]["external"] == port
    # a lease of 0 asks for a mapping without expiry: this gateway grants
    # its longest lease (7 days) for it, where a 600 s request gets 600 s
    assert gateway.mappings()[0]["lease"] > 600000
    assert wait_for(lambda: device.uci_committed("korvatCloud.korvatCloud.remote_access_timeout") == "0")
    # the time-out check is off: the session verdict is never asked for,
    # while the timer goes on with its checks
    device.clear_journal()
    timer_barrier(device, server)
    assert not any(line.startswith("session_timeout.lua") for line in device.journal())
    assert [m["external"] for m in gateway.mappings()] == [port]


def test_the_mapping_goes_when_the_web_session_expires(rig):
    device, gateway, agent, server = rig
    device.set_output("session_timeout.lua", "0\n")
    port = enable(server, timeout=120).data["result"]["port"]
    assert wait_for(lambda: device.exists(RECORD))
    # asked every tick, with the time-out; the session is still alive: once
    # a third tick asks, the first two verdicts have been acted on
    assert wait_for(lambda: device.journal().count("session_timeout.lua 120") >= 3, 15)
    assert [m["external"] for m in gateway.mappings()] == [int(port)]
    # the web interface reports the session over
    device.set_output("session_timeout.lua", "1\n")
    agent.out.wait_for(re.compile(r"delete upnp port\(%s\)\.$" % port), timeout=15)
    assert wait_for(lambda: gateway.mappings() == [])
    assert wait_for(lambda: device.uci_committed("upnpc.http.enable") == "0")
    assert wait_for(lambda: not device.exists(RECORD))


def test_no_gateway_is_10100(device, connected):
    agent, server = connected
    reply = enable(server, id="g")
    assert reply.raw == ('{"jsonrpc":"2.0","id":"g","error":{"code":10100,'
                         '"message":"The router is not a UPnP router","data":""}}')
    assert device.uci_committed("upnpc.http.enable") == "0"
    assert not device.exists(RECORD)


def test_a_gateway_that_refuses_every_port_is_10101(wan_device, tmp_path, start_agent_on):
    with UpnpGateway(wan_device.net, str(tmp_path), refuse=True) as gw:
        srv = device_server(wan_device)
        srv.start()
        try:
            start_agent_on(wan_device, srv.url)
            srv.wait_for_connection(15)
            reply = enable(srv, id="r")
            assert reply.raw == ('{"jsonrpc":"2.0","id":"r","error":{"code":10101,'
                                 '"message":"The router could not perform the request",'
                                 '"data":""}}')
            # twenty random ports were asked for, each refused
            log = gw.log_text()
            assert log.count("SOAPAction: urn:schemas-upnp-org:service:WANIPConnection:"
                             "2#AddPortMapping") == 20
            assert gw.mappings() == []
        finally:
            srv.stop()


def test_no_ssdp_packet_reaches_the_host(rig):
    device, gateway, agent, server = rig
    host = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    host.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    host.bind(("", 1900))
    host.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                    struct.pack("4s4s", socket.inet_aton("239.255.255.250"),
                                socket.inet_aton("0.0.0.0")))
    host.settimeout(0.2)
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    seen = []
    stop = threading.Event()
    nonce = os.urandom(8).hex()

    def listen():
        while not stop.is_set():
            try:
                seen.append(host.recvfrom(4096)[0])
            except socket.timeout:
                pass

    def probe(n):
        """A datagram sent on purpose from the host to the SSDP group: the
        listener hears it (else the check below would prove nothing), and
        whatever reached the listener before it is in `seen` by then."""
        text = ("host probe %s %d" % (nonce, n)).encode()
        sender.sendto(text, ("239.255.255.250", 1900))
        assert wait_for(lambda: text in list(seen), 10), \
            "the host's SSDP listener did not hear a probe sent to it"

    t = threading.Thread(target=listen)
    t.start()
    try:
        probe(1)
        port = enable(server).data["result"]["port"]
        server.request("dxDisableRemoteWebUiAccess",
                       {"deviceId": MAC, "ipAddress": simnet.WAN_IP, "port": port},
                       id="x", timeout=60)
        # the agent did discover the gateway: its M-SEARCH reached the device network
        assert "SSDP M-SEARCH from 192.168.1.2" in gateway.log_text()
        probe(2)
    finally:
        stop.set()
        t.join()
        host.close()
        sender.close()
    # ...and nothing of it reached the host's namespace: only the probes
    agent_traffic = [p for p in seen if b"nimb" in p or b"192.168.1." in p or b"M-SEARCH" in p
                     or b"ssdp:" in p.lower()]
    assert agent_traffic == []
    assert [p for p in seen if nonce.encode() in p] == [
        ("host probe %s %d" % (nonce, n)).encode() for n in (1, 2)]
