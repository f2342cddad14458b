"""A reply whose send fails because the connection breaks under it is not
lost: it goes out again, whole, on the next connection, ahead of the
replies queued behind it.  (The reply is bigger than the way to a peer that
reads nothing takes: stuck_replies.py.)"""
import json

from conftest import settings, wait_for
from stuck_replies import UNKNOWN, big_id, hold_reply_thread, unknown_method, \
    window_peer  # noqa: F401 (fixture)


def test_a_reply_cut_off_by_a_reset_goes_out_whole_on_the_next_connection(device, window_peer,
                                                                        start_agent):
    peer = window_peer
    settings(device, conn_retry=1)
    agent = start_agent(peer.url())
    peer.handshake(15)
    # the first reply's write cannot end; the second waits behind it
    hold_reply_thread(device, peer, "r1")
    peer.send_text(unknown_method("r2"))
    assert wait_for(lambda: agent.out.count(UNKNOWN) == 2, 15), "r2 was not answered"
    # the write fails under the reply thread
    peer.abort()
    peer.accept(30)
    peer.handshake(15)
    first = json.loads(peer.read_message(30).text)
    second = json.loads(peer.read_message(30).text)
    assert first["id"] == big_id("r1"), first["id"][:40]
    assert first["error"]["code"] == -32601
    assert second["id"] == "r2"
    assert agent.alive()
