"""One scenario, three independent device servers (Python's websockets,
Node's ws, libwebsockets), over ws:// and wss://: the opening handshake as
each server parsed it, requests and the agent's exact replies on both sides
of the frame-length boundaries, the request size limit, pings, the server's
close and the agent's reconnection, and TLS session resumption.

The requests are a table (EXCHANGES): a new method gets a row there.
"""
import base64

import pytest

from conftest import MAC, URL_PATH

REQUEST_LIMIT = 16384          # the agent's largest accepted request, in bytes


# ----- texts -------------------------------------------------------------------

def request_text(id_raw, method="x", params='{"deviceId":"%s"}' % MAC, size=None):
    """A request whose "id" string is id_raw exactly as written on the wire;
    padded with blanks before the closing brace to `size` bytes."""
    text = '{"jsonrpc":"2.0","id":"%s","method":"%s","params":%s}' % (id_raw, method, params)
    if size is not None:
        assert len(text.encode()) <= size, "request longer than %d bytes" % size
        text = text[:-1] + " " * (size - len(text.encode())) + "}"
    return text


def error_reply(id_printed, code, message):
    return ('{"jsonrpc":"2.0","id":"%s","error":{"code":%d,"message":"%s","data":""}}'
            % (id_printed, code, message))


def unknown_method_reply(id_printed):
    return error_reply(id_printed, -32601, "The method is not available")


UNKNOWN_REPLY_BASE = len(unknown_method_reply(""))


def id_for_reply_size(size):
    """(id as sent, id as the agent prints it) making the unknown-method
    reply exactly `size` bytes.  Beyond what fits into a request, raw
    control characters (one byte in, six out: \\u0001) fill the id."""
    room = size - UNKNOWN_REPLY_BASE
    if room + len(request_text("")) <= REQUEST_LIMIT:
        return "a" * room, "a" * room
    sixes, ones = divmod(room, 6)
    return "\x01" * sixes + "a" * ones, "\\u0001" * sixes + "a" * ones


class Exchange(object):
    """A request and the agent's exact reply.

    reply: the exact text, or a function of the device giving it; setup:
    a function preparing the device before the request is sent.
    """

    def __init__(self, name, request, reply, setup=None, request_size=None,
                 reply_size=None, marks=()):
        self.name = name
        self.request = request
        self.reply = reply
        self.setup = setup
        self.request_size = request_size
        self.reply_size = reply_size
        self.marks = marks

    def param(self):
        return pytest.param(self, id=self.name, marks=self.marks)


def sized_reply(size, **kw):
    sent, printed = id_for_reply_size(size)
    return Exchange("reply of %d bytes" % size, request_text(sent),
                    unknown_method_reply(printed), reply_size=size, **kw)


def sized_request(size):
    id_raw = "r%d" % size
    return Exchange("request of %d bytes" % size, request_text(id_raw, size=size),
                    unknown_method_reply(id_raw), request_size=size)


def about_setup(device):
    device.write_file("/etc/version", "2.0.1.7-rc1 build 1234\n")
    device.write_file("/etc/mDNSResponder.conf", '# services\n\t"VK310-ap"\n_http._tcp\n')
    device.set_output("sntool", "SVC-TAG-0042\n")


def about_reply(device):
    # "deviceId" first: the MAC address the agent was started with
    return ('{"jsonrpc":"2.0","id":"a1","result":{"deviceId":"%s","macAddress":"%s",'
            '"firmware":"2.0.1","model":"VK310-AP","serviceTag":"SVC-TAG-0042",'
            '"lanAddress":"%s"}}' % (MAC, MAC, device.uci_committed("network.lan.ipaddr")))


EXCHANGES = [
    Exchange("unknown method", request_text("7"), unknown_method_reply("7")),
    Exchange("dxGetAbout", request_text("a1", method="dxGetAbout"), about_reply,
             setup=about_setup),
    Exchange("envelope without params",
             '{"jsonrpc":"2.0","id":"p1","method":"dxGetAbout"}',
             error_reply("p1", -32600, "The JSON sent is not a valid Request object")),
    sized_reply(125),
    sized_reply(126),
    sized_reply(65535),
    sized_request(125),
    sized_request(126),
    sized_request(REQUEST_LIMIT),
]

# Requests the agent must refuse by closing the connection: one byte over its
# limit, and the largest 16-bit and smallest 64-bit length forms.
OVERSIZED = [REQUEST_LIMIT + 1, 65535, 65536]

PING_PAYLOADS = [b"", b"abc", bytes(range(125))]


# ----- the scenario --------------------------------------------------------------

def expected_headers(rig, opened):
    return [
        ("Host", "%s:%d" % (rig.server.host, rig.server.port)),
        ("Upgrade", "websocket"),
        ("Connection", "Upgrade"),
        ("Sec-WebSocket-Key", dict((k.lower(), v) for k, v in opened["headers"])
         .get("sec-websocket-key")),
        ("Sec-WebSocket-Protocol", "nimb-protocol"),
        ("Sec-WebSocket-Version", "13"),
        ("Origin", MAC),
    ]


def test_opening_handshake(connected):
    rig, opened = connected
    kind = rig.server.kind
    assert opened["path"] == "/" + URL_PATH
    if kind.request_line:
        assert (opened["method"], opened["version"]) == ("GET", "1.1")
    assert opened["protocol"] == "nimb-protocol"
    assert opened["tls"] == (rig.server.tls)
    headers = [tuple(h) for h in opened["headers"]]
    expected = expected_headers(rig, opened)
    if kind.exact_headers:
        assert headers == expected
    else:   # the library gives header names in lower case, in its own order
        assert sorted((k.lower(), v) for k, v in headers) == \
            sorted((k.lower(), v) for k, v in expected)
    key = dict(expected)["Sec-WebSocket-Key"]
    assert len(key) == 24 and len(base64.b64decode(key, validate=True)) == 16


@pytest.mark.parametrize("exchange", [e.param() for e in EXCHANGES])
def test_request_and_reply(rig, exchange):
    if exchange.setup:
        exchange.setup(rig.device)
    rig.start_agent()
    opened = rig.server.wait_open(20)
    if exchange.request_size is not None:
        assert len(exchange.request.encode()) == exchange.request_size
    expected = exchange.reply(rig.device) if callable(exchange.reply) else exchange.reply
    if exchange.reply_size is not None:
        assert len(expected.encode()) == exchange.reply_size
    reply = rig.server.request(exchange.request, conn=opened["conn"], timeout=15)
    assert reply == expected
    # the connection stays usable
    assert rig.server.request(request_text("next"), conn=opened["conn"]) == \
        unknown_method_reply("next")


def test_a_long_form_reply_is_masked_with_key_bytes_three_and_four(connected):
    """A frame of 65536 bytes or more (64-bit length form) carries the
    masking key whole in its header but has its payload masked with key
    bytes 3 and 4 repeated, the agent's framing of such frames: a server,
    unmasking with the header's key, reads other bytes at every position 0
    and 1 modulo 4.  Depending on those bytes it hands on a garbled text or
    fails the connection (invalid UTF-8); never the agent's reply."""
    rig, opened = connected
    sent, printed = id_for_reply_size(65536)
    rig.server.send(request_text(sent), conn=opened["conn"])
    event = rig.server._take(
        lambda e: e["event"] in ("text", "closed") and e["conn"] == opened["conn"],
        15, "text or closing of connection %s" % opened["conn"])
    if event["event"] == "text":
        # the server decoded valid UTF-8: encoding it again gives its bytes
        garbled = event["text"].encode("utf-8")
        reply = unknown_method_reply(printed).encode()
        if rig.server.kind.name == "lws" and len(garbled) < len(reply):
            # the C server reports a text as a C string: a NUL byte that the
            # garbling made ends it there
            reply = reply[:len(garbled)]
            if len(garbled) < 4:
                return  # too short to tell the masking positions apart
        # garbled unless the random key's two halves are equal (1 in 65,536);
        # one position modulo 4 may come out right by chance (a key byte 0
        # equal to byte 2: 1 in 256), so the positions 0 and 1 are not
        # judged one by one
        assert len(garbled) == len(reply) and garbled != reply
        # positions 2 and 3 modulo 4 come out right (the payload was masked
        # there with the key bytes the header carries)
        assert garbled[2::4] == reply[2::4] and garbled[3::4] == reply[3::4]


@pytest.mark.parametrize("size", OVERSIZED)
def test_oversized_request_closes_and_agent_comes_back(connected, size):
    rig, opened = connected
    text = request_text("big", size=size)
    assert len(text.encode()) == size
    rig.server.send(text, conn=opened["conn"])
    closed = rig.server.wait_closed(opened["conn"], 15)
    if closed["code"] is not None:
        assert closed["code"] in (1005, 1006), closed   # empty close frame, or none
    assert rig.server.texts(opened["conn"]) == []
    again = rig.server.wait_open(20)
    assert rig.server.request(request_text("again"), conn=again["conn"]) == \
        unknown_method_reply("again")


def test_pings_are_answered_with_their_payload(connected):
    rig, opened = connected
    assert rig.state() == "0"
    for payload in PING_PAYLOADS:
        rig.server.ping(payload, conn=opened["conn"])
        if payload or rig.server.kind.reports_empty_pong:
            assert rig.server.wait_pong(opened["conn"], 10) == payload
    rig.wait_state("1")


def test_server_close_and_reconnection(connected):
    rig, first = connected
    rig.server.ping(b"p", conn=first["conn"])
    rig.server.wait_pong(first["conn"], 10)
    rig.wait_state("1")
    rig.server.close(1000, "bye", conn=first["conn"])
    closed = rig.server.wait_closed(first["conn"], 10)
    if rig.server.kind.close_code_after_server_close:
        assert closed["code"] == 1005, closed    # the agent answers with an empty close
    # The state file says "0" only until the agent's first reconnection,
    # which may come before the server reports the close: the new
    # connection is what shows that the agent saw the old one end.
    second = rig.server.wait_open(20)
    assert second["conn"] != first["conn"]
    key = dict((k.lower(), v) for k, v in second["headers"])["sec-websocket-key"]
    assert len(base64.b64decode(key, validate=True)) == 16
    assert rig.server.request(request_text("r2"), conn=second["conn"]) == \
        unknown_method_reply("r2")
    rig.server.ping(b"q", conn=second["conn"])
    assert rig.server.wait_pong(second["conn"], 10) == b"q"
    rig.wait_state("1")


@pytest.mark.parametrize("scheme", ["wss"])
def test_reconnections_resume_the_first_tls_session(connected, scheme):
    rig, first = connected
    if not rig.server.kind.reports_resumption:
        pytest.skip("%s cannot tell whether a session was resumed" % rig.server.kind.name)
    assert first["tls"] is True and first["resumed"] is False
    opened = first
    for n in range(2):
        assert rig.server.request(request_text("s%d" % n), conn=opened["conn"]) == \
            unknown_method_reply("s%d" % n)
        rig.server.close(1000, conn=opened["conn"])
        rig.server.wait_closed(opened["conn"], 10)
        opened = rig.server.wait_open(20)
        assert opened["resumed"] is True, "connection %d was not resumed" % opened["conn"]
