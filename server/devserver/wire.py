"""The device server's WebSocket connections and their frame log.

Each accepted TCP (or TLS) connection is driven by the websockets library's
Sans-I/O layer (`websockets.server.ServerConnection`, public since 10.0):
this module reads and writes the socket itself, so that it sees every frame
exactly as it crossed the wire in both directions, sends pings with any
payload when it is told to, and can end a connection without a close frame
(abort, or TLS close_notify first).  Nothing here relies on the library's
asyncio implementation or its internals.

Library version: written against Debian bookworm's python3-websockets 10.4;
needs at least 10.0 (the Sans-I/O layer).  From 11.0 on the class is named
`ServerProtocol` (the old name stays as an alias): both are accepted here,
and this is the one place that knows it.
"""
import asyncio
import datetime
import threading
import time

import websockets
import websockets.server

try:                                            # 11.0 and later
    from websockets.server import ServerProtocol as _ServerProtocol
except ImportError:                             # 10.x (Debian bookworm: 10.4)
    from websockets.server import ServerConnection as _ServerProtocol
try:
    from websockets.http import USER_AGENT
except ImportError:                             # pragma: no cover
    USER_AGENT = "Python websockets/%s" % websockets.__version__

MIN_WEBSOCKETS = (10, 0)
if tuple(int(p) for p in websockets.__version__.split(".")[:2]) < MIN_WEBSOCKETS:
    raise ImportError("the device server needs websockets >= %d.%d (Sans-I/O layer), "
                      "found %s" % (MIN_WEBSOCKETS + (websockets.__version__,)))

SUBPROTOCOL = "nimb-protocol"

OP_CONT, OP_TEXT, OP_BINARY, OP_CLOSE, OP_PING, OP_PONG = 0, 1, 2, 8, 9, 10
_OPNAMES = {0: "CONT", 1: "TEXT", 2: "BINARY", 8: "CLOSE", 9: "PING", 10: "PONG"}


class FrameLog(object):
    """One logged frame: time, connection index, direction ('recv'/'send')."""

    def __init__(self, at, conn_index, direction, opcode, fin, payload):
        self.time = at
        self.conn_index = conn_index
        self.direction = direction
        self.opcode = opcode
        self.fin = fin
        self.payload = payload

    @property
    def kind(self):
        return _OPNAMES.get(self.opcode, "OP%d" % self.opcode)

    def text(self):
        if self.opcode == OP_TEXT:
            return self.payload.decode("utf-8", "replace")
        return self.payload.hex()

    def line(self):
        stamp = datetime.datetime.fromtimestamp(self.time).strftime("%H:%M:%S.%f")[:-3]
        arrow = "<" if self.direction == "recv" else ">"
        body = self.text()
        return "%s [conn %d] %s %s %s%s" % (
            stamp, self.conn_index, arrow, self.direction.upper(), self.kind,
            (" " + body) if body else "")


def parse_frame(data):
    """(opcode, fin, payload) of one whole frame as serialized (masked or not)."""
    b0, b1 = data[0], data[1]
    length, pos = b1 & 0x7F, 2
    if length == 126:
        length, pos = int.from_bytes(data[2:4], "big"), 4
    elif length == 127:
        length, pos = int.from_bytes(data[2:10], "big"), 10
    payload = data[pos + 4 if b1 & 0x80 else pos:]
    if b1 & 0x80:
        key = data[pos:pos + 4]
        payload = bytes(c ^ key[i % 4] for i, c in enumerate(payload))
    return b0 & 0x0F, bool(b0 & 0x80), bytes(payload[:length])


class Connection(object):
    """One accepted WebSocket connection and what was seen on it."""

    def __init__(self, index, link, path, headers, subprotocol):
        self.index = index
        self.link = link
        self.path = path
        self.headers = headers           # [(name, value)] as received, in order
        self.subprotocol = subprotocol   # the negotiated one
        self.remote = link.writer.get_extra_info("peername")
        self.opened_at = time.time()
        self.closed_at = None
        self.close_code = None       # code of the agent's close frame (1005: empty,
        self.close_reason = None     # 1006: no close frame at all)
        self.close_sent_code = None  # code of the server's close frame, if one was sent
        self.pongs = []          # (time, payload) of every pong received
        self.pings_sent = []     # (time, payload)
        self.closed = threading.Event()
        ssl_obj = link.writer.get_extra_info("ssl_object")
        self.tls = ssl_obj is not None
        self.tls_version = ssl_obj.version() if ssl_obj else None
        self.tls_session_reused = bool(ssl_obj.session_reused) if ssl_obj else None

    def header(self, name, default=None):
        """First value of a request header (case-insensitive name)."""
        for key, value in self.headers:
            if key.lower() == name.lower():
                return value
        return default

    host = property(lambda self: self.header("Host"))
    origin = property(lambda self: self.header("Origin"))
    key = property(lambda self: self.header("Sec-WebSocket-Key"))
    protocol = property(lambda self: self.header("Sec-WebSocket-Protocol"))
    version = property(lambda self: self.header("Sec-WebSocket-Version"))

    @property
    def is_open(self):
        return not self.closed.is_set()

    @property
    def pongs_received(self):
        return len(self.pongs)

    def wait_closed(self, timeout=10.0):
        """True once the connection is closed (by either side)."""
        return self.closed.wait(timeout)

    def __repr__(self):
        return "Connection(#%d path=%r origin=%r open=%s)" % (
            self.index, self.path, self.origin, self.is_open)


class Hooks(object):
    """What a Link reports to its server (all called in the loop thread)."""

    def handshake(self, path, headers):
        """Every parsed upgrade request, accepted or not."""

    def opened(self, link, path, headers, subprotocol):
        """The handshake succeeded: returns the new Connection."""
        raise NotImplementedError

    def frame(self, conn, direction, opcode, fin, payload):
        """Every frame, as it was read or is about to be written."""

    def message(self, conn, data):
        """A whole text (str) or binary (bytes) message."""

    def closed(self, conn):
        """The TCP connection is gone; conn.close_* are set."""


class ConnectionClosedError(ConnectionError):
    pass


class Link(object):
    """Drives one connection: the Sans-I/O protocol between the socket and
    the server's hooks.  Its coroutines run in the server's loop."""

    def __init__(self, reader, writer, hooks, close_timeout=3.0):
        self.reader = reader
        self.writer = writer
        self.hooks = hooks
        self.close_timeout = close_timeout
        self.proto = _ServerProtocol(subprotocols=[SUBPROTOCOL], max_size=None)
        self.conn = None
        self._lost = asyncio.Event()
        self._eof_sent = asyncio.Event()
        self._closing_task = None
        self._fragments = None      # (opcode, [payloads]) of a message in pieces

    # ----- the connection's life -----------------------------------------

    async def run(self):
        try:
            if await self._handshake():
                await self._read_frames()
        finally:
            self._lost.set()
            if not self.writer.transport.is_closing():
                self.writer.transport.close()
            if self._closing_task is not None:
                self._closing_task.cancel()
            if self.conn is not None:
                rcvd, sent = self.proto.close_rcvd, self.proto.close_sent
                self.conn.close_code = rcvd.code if rcvd is not None else 1006
                self.conn.close_reason = rcvd.reason if rcvd is not None else ""
                self.conn.close_sent_code = sent.code if sent is not None else None
                self.conn.closed_at = time.time()
                self.hooks.closed(self.conn)

    async def _read(self):
        try:
            return await self.reader.read(65536)
        except (ConnectionError, OSError):
            return b""

    async def _handshake(self):
        while True:
            data = await self._read()
            if not data:
                return False
            try:
                self.proto.receive_data(data)
            except Exception:          # not an HTTP request the library parses
                return False
            events = self.proto.events_received()
            if events:
                break
        request = events[0]
        headers = list(request.headers.raw_items())
        self.hooks.handshake(request.path, headers)
        response = self.proto.accept(request)
        response.headers["Server"] = USER_AGENT
        self.proto.send_response(response)
        self._flush()           # the HTTP response: no frame
        if response.status_code != 101:
            return False
        self.conn = self.hooks.opened(self, request.path, headers, self.proto.subprotocol)
        # frames that came in the same read as the request
        self._take_events(events[1:] + self.proto.events_received())
        self._flush()
        return True

    async def _read_frames(self):
        while True:
            data = await self._read()
            if not data:
                try:
                    self.proto.receive_eof()
                except EOFError:
                    pass
                self._flush()
                return
            try:
                self.proto.receive_data(data)
            except EOFError:           # data after the end of the stream
                continue
            self._take_events(self.proto.events_received())
            self._flush()

    def _take_events(self, events):
        for frame in events:
            opcode = int(frame.opcode)
            self.hooks.frame(self.conn, "recv", opcode, frame.fin, bytes(frame.data))
            if opcode in (OP_TEXT, OP_BINARY):
                self._fragments = (opcode, [bytes(frame.data)])
            elif opcode == OP_CONT and self._fragments is not None:
                self._fragments[1].append(bytes(frame.data))
            else:
                continue
            if frame.fin:
                kind, parts = self._fragments
                self._fragments = None
                self._deliver(kind, b"".join(parts))

    def _deliver(self, kind, payload):
        if kind == OP_BINARY:
            self.hooks.message(self.conn, payload)
            return
        try:
            text = payload.decode("utf-8")
        except UnicodeDecodeError as exc:
            if self.proto.state.name == "OPEN":
                self.proto.fail(1007, "%s at position %d" % (exc.reason, exc.start))
            return
        self.hooks.message(self.conn, text)

    def _flush(self):
        """Writes what the protocol has to send, logging each frame."""
        for data in self.proto.data_to_send():
            if data == b"":          # the end of the stream: half-close
                try:
                    if self.writer.transport.is_closing():
                        pass
                    elif self.writer.can_write_eof():
                        self.writer.write_eof()
                    else:            # TLS: close_notify, then the socket
                        self.writer.transport.close()
                except OSError:      # the peer is gone already
                    self.writer.transport.abort()
                self._eof_sent.set()
                continue
            if self.conn is not None:
                opcode, fin, payload = parse_frame(data)
                self.hooks.frame(self.conn, "send", opcode, fin, payload)
            if not self.writer.transport.is_closing():
                try:
                    self.writer.write(data)
                except OSError:
                    self.writer.transport.abort()
        if self._closing_task is None and self.proto.close_expected() \
                and self.conn is not None:
            self._closing_task = asyncio.ensure_future(self._closing())

    async def _wait(self, event, timeout):
        try:
            await asyncio.wait_for(event.wait(), timeout)
            return True
        except asyncio.TimeoutError:
            return False

    async def _closing(self):
        """After the server's close frame: the agent's close frame, then its
        end of the TCP connection, each within close_timeout; otherwise the
        server closes the socket, and aborts it after one more wait."""
        if await self._wait(self._eof_sent, self.close_timeout):
            if await self._wait(self._lost, self.close_timeout):
                return
        self.writer.transport.close()
        if await self._wait(self._lost, self.close_timeout):
            return
        self.writer.transport.abort()

    # ----- what the server does on it --------------------------------------

    def _check_open(self):
        if self.proto.state.name != "OPEN":
            raise ConnectionClosedError("connection %d is %s" % (
                self.conn.index, self.proto.state.name.lower()))

    async def _drain(self):
        try:
            await self.writer.drain()
        except (ConnectionError, OSError) as exc:
            raise ConnectionClosedError(str(exc))

    async def send(self, data):
        """A text frame for str, a binary frame for bytes."""
        self._check_open()
        if isinstance(data, str):
            self.proto.send_text(data.encode("utf-8"))
        else:
            self.proto.send_binary(bytes(data))
        self._flush()
        await self._drain()

    async def ping(self, payload):
        self._check_open()
        self.proto.send_ping(bytes(payload))
        self._flush()
        await self._drain()

    async def close(self, code=1000, reason=""):
        """Starts the closing handshake and waits until the connection is gone."""
        self._check_open()
        self.proto.send_close(code, reason)
        self._flush()
        await self._lost.wait()

    def drop(self, tls_close_notify=False):
        """Ends the connection without a close frame."""
        if tls_close_notify and self.conn.tls:
            self.writer.transport.close()      # close_notify, then the socket
        else:
            self.writer.transport.abort()

    def abort(self):
        self.writer.transport.abort()
