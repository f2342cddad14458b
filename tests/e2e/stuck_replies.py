"""A peer whose window stays shut, so that the agent's reply sending thread
is held inside the write of one reply (shared by test_reply_resend.py and
test_reply_before_change.py).

The TCP buffers of the device's and the gateway's network namespaces are
shrunk (never the host's) and the peer offers a tiny window and reads
nothing: a reply of about 12 KB is more than the way takes, so once part of
it is in the device's socket its write cannot end until the peer reads or
resets the connection."""
import subprocess

import pytest

from conftest import MAC, request_text, wait_for
from rawpeer import RawPeer

import simnet

SMALL_BUFFERS = {"tcp_wmem": "4096 4096 4096", "tcp_rmem": "4096 4096 4096"}
PEER_RCVBUF = 2048
# the id comes back in the reply
BIG_ID = 12000
# what the agent prints for the request used here (a method it lacks)
UNKNOWN = "Command handler not yet implemented for: dxNoSuchMethod"


def host_buffers():
    return {name: open("/proc/sys/net/ipv4/" + name).read() for name in SMALL_BUFFERS}


@pytest.fixture
def window_peer(device):
    """A RawPeer in the device network's gateway namespace, with the small
    buffers in place."""
    before = host_buffers()
    script = "; ".join("echo '%s' > /proc/sys/net/ipv4/%s" % (value, name)
                       for name, value in SMALL_BUFFERS.items())
    for ns in (device.net.device_ns, device.net.gateway_ns):
        subprocess.run(simnet.ns_argv(ns, ["/bin/sh", "-c", script]), check=True)
    p = RawPeer(host=device.net.gateway_ip, netns=device.net.gateway_ns, rcvbuf=PEER_RCVBUF)
    yield p
    p.shutdown()
    assert host_buffers() == before, "the host's TCP settings changed"


def unsent_bytes(device):
    """Bytes the agent has written that the peer has not taken (the Send-Q
    of the device's established connections)."""
    out = subprocess.run(simnet.ns_argv(device.net.device_ns, ["ss", "-tnH"]),
                         stdout=subprocess.PIPE, text=True).stdout
    return sum(int(line.split()[2]) for line in out.splitlines()
               if line.split()[:1] == ["ESTAB"])


def big_id(name):
    return name + "-" + "x" * BIG_ID


def unknown_method(id_):
    return request_text("dxNoSuchMethod", {"deviceId": MAC}, id_)


def hold_reply_thread(device, peer, name="r0"):
    """Sends a request whose reply cannot leave and waits until its write
    has begun (part of it is in the device's socket)."""
    peer.send_text(unknown_method(big_id(name)))
    assert wait_for(lambda: unsent_bytes(device) > 1000, 30), \
        "the agent's socket never filled up"
