"""A change of a paired network ("vekSetNetworkConfig") whose paired radio
has no enable list (or no network list): the request is refused after the
writes of the addressed network and its own radio's list, and nothing of
the paired network is written, set up or applied; the writes stay staged."""
import json
import re

import pytest

from conftest import MAC, pair_network_one

REFUSED = ('{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,'
           '"message":"Invalid method parameter","data":""}}')
SET = {"deviceId": MAC, "ssid": "Office", "security": "WPA2-PSK", "password": "officepass",
       "enabled": True, "broadcastEnabled": True}


@pytest.mark.parametrize("index, missing, own", [
    (1, "wireless.wifi1.enlist", ("w0_index1", "wifi0", "1,1")),
    (1, "wireless.wifi1.wlanlist", ("w0_index1", "wifi0", "1,1")),
    (51, "wireless.wifi0.enlist", ("w1_index1", "wifi1", "1,1")),
], ids=["radio1-enlist", "radio1-wlanlist", "radio0-enlist"])
def test_a_paired_radio_without_its_lists_refuses_the_change(device, server, start_agent,
                                                             index, missing, own):
    pair_network_one(device)
    device.uci_ok("delete", missing)
    device.uci_ok("commit", "wireless")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    agent.out.wait_for(re.compile(r"=== support2G=1, support5G=1$"), timeout=15)
    device.clear_journal()
    reply = server.request("vekSetNetworkConfig", dict(SET, networkIndex=index), id="pair",
                           timeout=60)
    assert reply.raw == REFUSED % "pair"
    # handlers run one at a time: once this is answered, the change is over
    about = server.request("dxGetAbout", {"deviceId": MAC}, id="barrier", timeout=60)
    assert json.loads(about.raw)["id"] == "barrier"
    section, radio, flags = own
    journal = device.journal()
    assert [line for line in journal if line.startswith("uci set ")] == [
        "uci set wireless.%s.ssid=Office" % section,
        "uci set wireless.%s.WLANVLANID=" % section,
        "uci set wireless.%s.WLANVLANEnable=0" % section,
        "uci set wireless.%s.WLANEnable=1" % section,
        "uci set wireless.%s.enlist=%s" % (radio, flags),
    ]
    # the paired radio's lists were asked for
    other = "wifi1" if radio == "wifi0" else "wifi0"
    assert "uci get wireless.%s.enlist" % other in journal
    assert "kapri_util.lua setVlan" not in journal
    assert "kapri_util.lua cloud_action_apply" not in journal
    # staged, uncommitted
    assert device.uci_get("wireless.%s.ssid" % section) == "Office"
    assert device.uci_committed("wireless.%s.ssid" % section) != "Office"
