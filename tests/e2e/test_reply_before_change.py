"""Adding and deleting a network queue their success reply before the first
change: while the reply waits for a place in the reply queue, nothing on
the device has changed.  (The reply queue is held full behind a reply that
cannot leave: stuck_replies.py.)"""
import json
import re

import pytest

from conftest import MAC, request_text, settings, wait_for
from stuck_replies import UNKNOWN, hold_reply_thread, unknown_method, \
    window_peer  # noqa: F401 (fixture)

CHANGES = {
    "vekAddNetwork": {"interface": "2.4GHz", "ssid": "Held-Back", "security": "OPEN"},
    "vekDeleteNetwork": {"networkIndex": 1},
}


def uci_changes(device):
    return [c for c in device.journal() if c.startswith("uci set") or
            c.startswith("uci commit") or "rm_wifi_config" in c or "setVlan" in c]


@pytest.mark.parametrize("method", sorted(CHANGES))
def test_the_reply_is_queued_before_the_first_change(device, window_peer, start_agent,
                                                     method):
    peer = window_peer
    device.uci_ok("set", "wireless.wifi0.wlanlist=0,1")
    device.uci_ok("set", "wireless.wifi0.enlist=1,1")
    device.uci_ok("set", "wireless.wifi0.network_profile=w0_index0:w1_index0,w0_index1")
    device.uci_ok("commit", "wireless")
    settings(device, conn_retry=1)
    agent = start_agent(peer.url())
    peer.handshake(15)
    agent.out.wait_for(re.compile(r"\]: === support2G=1, support5G=1$"), timeout=15)
    # the reply thread is held inside one reply; ten more fill the queue
    hold_reply_thread(device, peer)
    for n in range(1, 11):
        peer.send_text(unknown_method("q%d" % n))
    assert wait_for(lambda: agent.out.count(UNKNOWN) == 11, 15)
    device.clear_journal()
    peer.send_text(request_text(method, dict(CHANGES[method], deviceId=MAC), "held"))
    start = agent.out.wait_for(re.compile(r"::%sHandler\]\[LINE \d+\]: === START ===$" % method),
                               timeout=15)
    # the handler hands its reply over and waits for a place: nothing changed
    agent.out.wait_for(re.compile(r"::writeJsonReply\]\[LINE 680\]: produceObject: start$"),
                       timeout=15, start=start)
    assert uci_changes(device) == []
    # once the replies can leave, the reply goes out and the change follows
    peer.abort()
    peer.accept(30)
    peer.handshake(15)
    ids = []
    while "held" not in ids:
        message = json.loads(peer.read_message(30).text)
        ids.append(message["id"] if len(message["id"]) < 10 else message["id"][:3])
    assert message == {"jsonrpc": "2.0", "id": "held", "result": {"deviceId": MAC}}
    assert ids == ["r0-"] + ["q%d" % n for n in range(1, 11)] + ["held"]
    assert wait_for(lambda: "kapri_util.lua cloud_action_apply" in device.journal(), 15)
    assert any(c.startswith("uci set wireless.") for c in uci_changes(device))
