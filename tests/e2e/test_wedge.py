"""A server that stops taking part must not wedge the agent: it tears the
connection down and reconnects, and a SIGTERM still does its work.

- zero window: the server upgrades the connection, sends requests whose
  replies the agent cannot get rid of, then stops reading and sends
  nothing, or nothing but pings; the agent's sends fill the socket (the
  TCP buffers of the device's and the gateway's network namespaces are
  shrunk, never the host's, and the peer keeps a tiny receive buffer);
- half a TLS record: over wss:// the server sends the first bytes of a
  record and nothing more, and does not read;
- SIGTERM during such a wedge: to the main thread it closes the connection
  at once (the server keeps the receiving side busy, so no read time-out
  helps); to the maintenance timer it saves the queues and ends the agent.

The agent closes a connection that has been silent for 40 s (its read
time-out); a reconnection is awaited for that, the retry interval (1 s
here) and a margin scaled with KC_TIMEOUT_SCALE (the agent's own 40 s are
real time on any machine).
"""
import json
import re
import signal
import subprocess
import threading

import pytest

from conftest import MAC, TIMEOUT_SCALE, Deadline, request_text, settings, wait_for
from rawpeer import RawPeer, encode_frame, OP_PING, OP_PONG

import simnet

READ_TIMEOUT = 40
RETRY = 1
# Beyond the read time-out and the retry interval: noticing the time-out,
# starting a connection, on a loaded machine (scaled).
MARGIN = 15


def reconnection_wait():
    return READ_TIMEOUT + RETRY + MARGIN * TIMEOUT_SCALE

# Per network namespace: the device's and the gateway's sockets start
# (and stay) with 4 KiB buffers, so a few kilobytes fill the way.
SMALL_BUFFERS = {"tcp_wmem": "4096 4096 4096", "tcp_rmem": "4096 4096 4096"}
PEER_RCVBUF = 2048
# The id comes back in the reply: each reply is a frame of about 12 KB,
# more than the socket and the peer's window take together.
BIG_ID = 12000
REQUESTS = 16

BACKUPS = {
    "recv": "/etc/cloud_recv_cmd.backup",
    "reply": "/etc/cloud_sent_cmd.backup",
}


def host_buffers():
    return {name: open("/proc/sys/net/ipv4/" + name).read() for name in SMALL_BUFFERS}


@pytest.fixture
def small_buffers(device):
    """Shrinks the TCP buffers inside the device's and the gateway's network
    namespaces (each has its own settings); the host's stay as they are."""
    before = host_buffers()
    script = "; ".join("echo '%s' > /proc/sys/net/ipv4/%s" % (value, name)
                       for name, value in SMALL_BUFFERS.items())
    for ns in (device.net.device_ns, device.net.gateway_ns):
        subprocess.run(simnet.ns_argv(ns, ["/bin/sh", "-c", script]), check=True)
        got = subprocess.run(simnet.ns_argv(ns, ["cat", "/proc/sys/net/ipv4/tcp_wmem"]),
                             check=True, stdout=subprocess.PIPE, text=True).stdout
        assert got.split() == SMALL_BUFFERS["tcp_wmem"].split()
    yield
    assert host_buffers() == before, "the host's TCP settings changed"


def queued(ns, column):
    """Bytes in the Recv-Q (column 1) or Send-Q (column 2) of the
    established TCP connections of a network namespace (`ss`)."""
    out = subprocess.run(simnet.ns_argv(ns, ["ss", "-tnH"]),
                         stdout=subprocess.PIPE, text=True).stdout
    total = 0
    for line in out.splitlines():
        words = line.split()
        if len(words) >= 3 and words[0] == "ESTAB":
            total += int(words[column])
    return total


def unsent_bytes(device):
    """Bytes the agent has written that the peer has not taken."""
    return queued(device.net.device_ns, 2)


def taken_by_the_agent(device):
    """Everything the peer sent has arrived (nothing unacknowledged in the
    gateway's namespace) and the agent has read it (nothing unread in the
    device's)."""
    return queued(device.net.gateway_ns, 2) == 0 and queued(device.net.device_ns, 1) == 0


def big_request(n):
    return request_text("dxNoSuchMethod", {"deviceId": MAC},
                        "w%02d-" % n + "x" * BIG_ID)


class Wedge(object):
    """A connection the peer holds open without reading: the socket is
    kept aside (closing it would reset the connection and free the agent)
    while the peer waits for the next one."""

    def __init__(self, peer):
        self.peer = peer
        self.sock = peer.sock
        peer.sock = None
        self._stop = threading.Event()
        self._thread = None

    def keep_receiver_busy(self, frames, every=5.0):
        """Sends one of `frames` (bytes, in turn) every few seconds: the
        agent's receiving side keeps getting data, so its read time-out
        never ends the connection."""
        frames = list(frames)

        def run():
            while frames and not self._stop.wait(every):
                try:
                    self._send(frames.pop(0))
                except OSError:
                    return
        self._thread = threading.Thread(target=run, daemon=True)
        self._thread.start()

    def _send(self, data):
        raw = getattr(self.sock, "raw", self.sock)
        raw.sendall(data)

    def send(self, text):
        """One text frame on the held connection (plain sockets)."""
        self.sock.sendall(encode_frame(text))

    def next_connection(self, seconds):
        """The agent's next connection, accepted within `seconds` of real
        time (not scaled again); True if one came."""
        try:
            self.peer.accept(seconds / self.peer.timeout_scale)
            return True
        except OSError:
            return False

    def release(self):
        self._stop.set()
        if self._thread is not None:
            self._thread.join(10)
        try:
            self.sock.close()
        except OSError:
            pass


def zero_window(device, peer, start_agent, requests=REQUESTS):
    """The agent connected to a peer that stopped reading with the agent's
    replies queued behind a full socket."""
    settings(device, conn_retry=RETRY)
    agent = start_agent(peer.url())
    peer.handshake(15)
    for n in range(requests):
        peer.send_text(big_request(n))
    # the agent has more to send than the way takes
    assert wait_for(lambda: unsent_bytes(device) > 1000, 30), \
        "the agent's socket never filled up (%d bytes queued)" % unsent_bytes(device)
    return agent, Wedge(peer)


@pytest.fixture
def window_peer(device, small_buffers):
    p = RawPeer(host=device.net.gateway_ip, netns=device.net.gateway_ns, rcvbuf=PEER_RCVBUF)
    yield p
    p.shutdown()


@pytest.fixture
def tls_peer(device):
    p = RawPeer(tls="memory", host=device.net.gateway_ip, netns=device.net.gateway_ns)
    yield p
    p.shutdown()


def answered(peer, request_id):
    """The new connection upgraded and a request answered on it."""
    peer.handshake(15)
    peer.send_text(request_text("dxNoSuchMethod", {"deviceId": MAC}, request_id))
    deadline = Deadline(30)
    while True:
        frame = peer.read_message(deadline.budget(), answer_pings=True)
        if json.loads(frame.text).get("id") == request_id:
            return


# ---- the agent tears down and reconnects -------------------------------------

@pytest.mark.parametrize("pinging", [False, True], ids=["silent", "pinging"])
def test_a_peer_that_stops_reading_is_left_and_the_agent_reconnects(device, window_peer,
                                                                    start_agent, pinging):
    agent, wedge = zero_window(device, window_peer, start_agent)
    if pinging:
        # as a server's keep-alive does: each ping wants a pong, which
        # waits behind the stuck reply, so no read time-out comes
        wedge.keep_receiver_busy([encode_frame(b"alive?", OP_PING)] * 100, every=10)
    try:
        # silent: the read time-out ends the connection; pinging: the agent
        # must give up on the stuck write within the same time
        wait = reconnection_wait()
        assert wedge.next_connection(wait), \
            "no new connection within %.0f s of the peer's last read" % wait
    finally:
        wedge.release()
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=5)
    answered(window_peer, "after-wedge")
    assert agent.alive()


def test_half_a_tls_record_is_left_and_the_agent_reconnects(device, tls_peer, start_agent):
    settings(device, conn_retry=RETRY)
    agent = start_agent(tls_peer.url())
    tls_peer.handshake(15)
    # a ping begins: its record's header and a few bytes, then nothing
    tls_peer.send_partial_tls_record(encode_frame(b"are you there", OP_PING), keep=10)
    assert wait_for(lambda: taken_by_the_agent(device), 10)
    wedge = Wedge(tls_peer)
    try:
        wait = reconnection_wait()
        assert wedge.next_connection(wait), \
            "no new connection within %.0f s of the half record" % wait
    finally:
        wedge.release()
    answered(tls_peer, "after-half-record")
    assert agent.alive()


# ---- SIGTERM during a wedge ------------------------------------------------

# The peer keeps the receiving side busy, so no read time-out ends these
# wedges: only the SIGTERM can, and at once.
PROMPT = 15


def half_record_wedge(device, peer, start_agent):
    """The agent inside a TLS record the peer sends one byte at a time,
    every few seconds, without reading."""
    settings(device, conn_retry=RETRY)
    agent = start_agent(peer.url())
    peer.handshake(15)
    part, record = peer.send_partial_tls_record(encode_frame(b"x" * 40, OP_PING), keep=8)
    # the agent has read the beginning: it is inside the record
    assert wait_for(lambda: taken_by_the_agent(device), 10)
    wedge = Wedge(peer)
    # the rest one byte at a time, all but the last
    wedge.keep_receiver_busy(record[i:i + 1] for i in range(len(part), len(record) - 1))
    return agent, wedge


def zero_window_busy(device, peer, start_agent, requests=REQUESTS):
    """The zero window, while the peer keeps sending the agent pongs, which
    it takes and drops (no answer, nothing to send)."""
    agent, wedge = zero_window(device, peer, start_agent, requests)
    wedge.keep_receiver_busy([encode_frame(b"", OP_PONG)] * 1000)
    return agent, wedge


WEDGES = {"zero-window": ("window_peer", zero_window_busy),
          "half-tls-record": ("tls_peer", half_record_wedge)}


@pytest.mark.parametrize("kind", sorted(WEDGES))
def test_sigterm_to_the_main_thread_closes_a_wedged_connection(device, start_agent,
                                                               request, kind):
    fixture, make = WEDGES[kind]
    peer = request.getfixturevalue(fixture)
    agent, wedge = make(device, peer, start_agent)
    try:
        before = len(agent.out.matching(r"\] ACK close\.$"))
        device.signal_thread(agent.main_tid(), signal.SIGTERM)
        wait = PROMPT * TIMEOUT_SCALE
        assert wedge.next_connection(wait), \
            "no new connection within %.0f s of the SIGTERM" % wait
        # the line is printed before the new connection starts, but the
        # reader of the agent's output may take it after the test saw that
        assert wait_for(lambda: len(agent.out.matching(r"\] ACK close\.$")) > before, 10)
        assert len(agent.out.matching(r"\] ACK close\.$")) == before + 1
    finally:
        wedge.release()
    answered(peer, "after-sigterm")


def backup_ids(device, name):
    text = device.read_file(BACKUPS[name])
    if text is None:
        return None
    lines = text.splitlines()
    assert int(lines[0]) == len(lines) - 1, text[:200]
    return [json.loads(line)["id"][:3] for line in lines[1:]]


# The handler of dxGetAbout stays in `sntool` while /tmp/slow exists.
SLOW_WHILE = 'while [ -e /tmp/slow ]; do sleep 0.2; done\necho TAG-1\n'


@pytest.mark.parametrize("main_first", [False, True], ids=["timer", "main-then-timer"])
def test_sigterm_to_the_timer_saves_the_queues_of_a_wedged_agent(device, window_peer,
                                                                 start_agent, main_first):
    # w00's reply is stuck in the socket, w01..w04's wait in the reply
    # queue, the main thread runs w05 (a dxGetAbout held up in `sntool`),
    # w06..w08 wait in the receive queue.  (Few enough that neither ring
    # has wrapped: a backup writes the items of an unwrapped ring only.)
    device.set_script("sntool", SLOW_WHILE)
    device.write_file("/tmp/slow", "")
    agent, wedge = zero_window(device, window_peer, start_agent, requests=5)
    try:
        timer = agent.timer_tid()
        wedge.send(request_text("dxGetAbout", {"deviceId": MAC}, "w05"))
        for n in (6, 7, 8):
            wedge.send(request_text("dxNoSuchMethod", {"deviceId": MAC}, "w%02d" % n))
        wedge.keep_receiver_busy([encode_frame(b"", OP_PONG)] * 1000)
        assert device.wait_journal("sntool", timeout=30)
        assert wait_for(lambda: len(agent.out.matching(r"^Recieved text frame: ")) >= 9, 30)
        if main_first:
            # `kill PID` first, as an operator would, then the service's stop
            device.signal_thread(agent.main_tid(), signal.SIGTERM)
            agent.out.wait_for(re.compile(r"\]: close web socket\.$"), timeout=10)
        device.signal_thread(timer, signal.SIGTERM)
        try:
            status = agent.wait_exit(PROMPT)
        except subprocess.TimeoutExpired:
            pytest.fail("the agent still runs %.0f s after the SIGTERM to its timer"
                        % (PROMPT * TIMEOUT_SCALE))
    finally:
        wedge.release()
    assert status == 128 + signal.SIGKILL
    assert "killall -9 korvat-cloud" in device.journal()
    assert agent.out.count("Backup queue commands to file...") >= 1
    assert backup_ids(device, "reply") == ["w01", "w02", "w03", "w04"]
    assert backup_ids(device, "recv") == ["w06", "w07", "w08"]
