"""Remote access with gateways that do not behave as miniupnpd does (the
stand-in gateway of device/simgateway.py answers SSDP and the port-mapping
actions in the run's gateway namespace): one that adds a mapping but never
confirms it, one that reports no external address, one that is gone by the
time access is closed; and an enable request without "deviceId"."""

import pytest

import simnet
from simgateway import IgdStandIn

from conftest import MAC, uci_write_lines, wait_for

RECORD = "/tmp/luci-sessions/external/record_file"
INVALID = ('{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,'
           '"message":"Invalid method parameter","data":""}}')
REFUSED = ('{"jsonrpc":"2.0","id":"%s","error":{"code":10101,'
           '"message":"The router could not perform the request","data":""}}')


@pytest.fixture
def gateway(device):
    """gateway(**options): the stand-in gateway, stopped at the end."""
    made = []

    def make(**options):
        gw = IgdStandIn(device.net, **options).start()
        made.append(gw)
        return gw

    yield make
    for gw in made:
        gw.stop()


def enable(server, id_, timeout=600, **params):
    params = dict({"deviceId": MAC, "protocol": "http", "timeout": timeout}, **params)
    return server.request("dxEnableRemoteWebUiAccess", params, id=id_, timeout=60)


def test_enable_without_device_id_is_refused_and_changes_nothing(device, server, start_agent,
                                                                 gateway):
    gw = gateway()
    # remote access left open: every tick checks the session with the timeout
    device.uci_ok("set", "upnpc.http.enable=1")
    device.uci_ok("set", "upnpc.http.ext_port=50123")
    device.uci_ok("commit")
    device.set_output("session_timeout.lua", "0\n")
    start_agent(server.url)
    server.wait_for_connection(15)
    assert device.wait_journal("session_timeout.lua 600", timeout=15)
    device.clear_journal()
    reply = server.request("dxEnableRemoteWebUiAccess", {"protocol": "http", "timeout": 30},
                           id="noid", timeout=30)
    assert reply.raw == INVALID % "noid"
    device.clear_journal()
    # the timeout is still the one loaded at start, and nothing was asked
    # of the gateway or written
    assert device.wait_journal("session_timeout.lua 600", timeout=15)
    journal = device.journal()
    assert "session_timeout.lua 30" not in journal
    assert uci_write_lines(device) == []
    assert "uci get httpd.httpd.port" not in journal
    assert gw.actions == [] and gw.searches == []
    assert device.uci_committed("korvatCloud.korvatCloud.remote_access_timeout") == "600"
    assert device.uci_committed("upnpc.http.ext_port") == "50123"


def test_a_gateway_that_never_confirms_a_mapping_is_10101(device, connected, gateway):
    agent, server = connected
    gw = gateway(confirm=False)
    device.clear_journal()
    reply = enable(server, "r", timeout=300)
    assert reply.raw == REFUSED % "r"
    # twenty random ports, each added and then not found; none removed
    names = gw.action_names()
    assert names.count("AddPortMapping") == 20
    assert names.count("GetSpecificPortMappingEntry") == 20
    assert "DeletePortMapping" not in names
    added = [args for name, args in gw.actions if name == "AddPortMapping"]
    assert all(49152 <= int(a["NewExternalPort"]) <= 65534 and a["NewInternalPort"] == "80" and
               a["NewInternalClient"] == simnet.DEVICE_IP and a["NewLeaseDuration"] == "300" and
               a["NewPortMappingDescription"] == "nimb:UPnP:port" for a in added), added
    # (a random port may come up twice: the gateway holds it once)
    assert sorted(gw.mappings) == sorted({int(a["NewExternalPort"]) for a in added})
    # access stays closed; the timeout asked for is kept
    assert device.uci_committed("upnpc.http.enable") == "0"
    assert not device.exists(RECORD)
    assert [line for line in uci_write_lines(device) if line.startswith("uci set upnpc")] == []
    assert device.uci_committed("korvatCloud.korvatCloud.remote_access_timeout") == "300"


@pytest.mark.parametrize("external_ip", ["", None], ids=["empty-address", "error-501"])
def test_a_gateway_without_an_external_address_opens_access_all_the_same(device, connected,
                                                                         gateway, external_ip):
    agent, server = connected
    gw = gateway(external_ip=external_ip)
    reply = enable(server, "e")
    port = reply.data["result"]["port"]
    assert reply.raw == ('{"jsonrpc":"2.0","id":"e","result":{"deviceId":"%s","protocol":"http",'
                         '"ipAddress":"","port":"%s"}}' % (MAC, port))
    assert "GetExternalIPAddress" in gw.action_names()
    assert list(gw.mappings) == [int(port)]
    assert wait_for(lambda: device.uci_committed("upnpc.http.ext_port") == port, 15)
    assert device.uci_committed("upnpc.http.enable") == "1"
    assert wait_for(lambda: device.exists(RECORD), 15)


def test_a_gateway_gone_by_the_disable_still_closes_access(device, connected, gateway):
    agent, server = connected
    gw = gateway()
    port = enable(server, "e").data["result"]["port"]
    assert wait_for(lambda: device.uci_committed("upnpc.http.enable") == "1", 15)
    gw.stop()
    reply = server.request("dxDisableRemoteWebUiAccess",
                           {"deviceId": MAC, "ipAddress": simnet.WAN_IP, "port": port},
                           id="d", timeout=60)
    assert reply.raw == '{"jsonrpc":"2.0","id":"d","result":{"deviceId":"%s"}}' % MAC
    assert device.uci_committed("upnpc.http.enable") == "0"
    # nothing reached a gateway; the record stays (only the expiry removes it)
    assert "DeletePortMapping" not in gw.action_names()
    assert device.exists(RECORD)
