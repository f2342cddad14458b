#!/usr/bin/python3
"""Test device-management server for the korvat-cloud agent.

A WebSocket server (ws:// or wss://, subprotocol "nimb-protocol") that the
agent connects to.  It pings the agent at a fixed interval, logs every frame
in both directions, records each connection's handshake headers, and offers a
synchronous API for pytest: send JSON-RPC requests and wait for their replies,
collect unsolicited messages, ping, close, drop, pause and resume listening.
The asyncio loop runs in a background thread.

Also a command-line tool for demonstrations:
    /usr/bin/python3 server/device_server.py [--port N] [--tls] [--ping-interval S]
                                             [--tour] [--once] [--timeout S]
                                             [--device-run RUNDIR] [--upnp-gateway URL]
"""
import argparse
import asyncio
import datetime
import itertools
import json
import os
import re
import subprocess
import sys
import threading
import time

import websockets
import websockets.legacy.server as ws_server
from websockets.exceptions import ConnectionClosed
from websockets.frames import OP_PING, OP_PONG, OP_TEXT

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import tlscert  # noqa: E402

SUBPROTOCOL = "nimb-protocol"
DEFAULT_PING_INTERVAL = 20.0

_OPNAMES = {0: "CONT", 1: "TEXT", 2: "BINARY", 8: "CLOSE", 9: "PING", 10: "PONG"}


def _join_netns(path):
    """Moves the calling thread into the network namespace at path: every
    socket it creates afterwards belongs to that namespace."""
    import ctypes
    libc = ctypes.CDLL(None, use_errno=True)
    fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
    try:
        if libc.setns(fd, 0x40000000) != 0:  # CLONE_NEWNET
            err = ctypes.get_errno()
            raise OSError(err, "cannot join %s: %s" % (path, os.strerror(err)))
    finally:
        os.close(fd)


class Reply(tuple):
    """A reply to a request: unpacks as (data, raw); also .data and .raw."""

    def __new__(cls, data, raw):
        return tuple.__new__(cls, (data, raw))

    data = property(lambda self: self[0])
    raw = property(lambda self: self[1])


class Message(object):
    """A text message from the agent that was not the awaited reply."""

    def __init__(self, data, raw, conn, at):
        self.data = data      # parsed JSON, or None when the text is not JSON
        self.raw = raw        # the exact text received
        self.conn = conn      # Connection it arrived on
        self.time = at

    @property
    def method(self):
        return self.data.get("method") if isinstance(self.data, dict) else None

    def __repr__(self):
        return "Message(%r)" % self.raw


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


class Connection(object):
    """One accepted WebSocket connection and what was seen on it."""

    def __init__(self, index, ws):
        self.index = index
        self.ws = ws
        self.path = ws.path
        self.headers = list(ws.request_headers.raw_items())  # as received, in order
        self.subprotocol = ws.subprotocol                     # negotiated one
        self.remote = ws.remote_address
        self.opened_at = time.time()
        self.closed_at = None
        self.close_code = None       # code of the agent's close frame (1005: empty,
        self.close_reason = None     # 1006: no close frame at all)
        self.close_sent_code = None  # code of the server's close frame, if one was sent
        self.pongs = []          # (time, payload) of every pong received
        self.pings_sent = []     # (time, payload)
        self.closed = threading.Event()
        ssl_obj = ws.transport.get_extra_info("ssl_object")
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


class _Protocol(ws_server.WebSocketServerProtocol):
    """Server protocol that reports every frame read and written."""

    def __init__(self, owner, *args, **kwargs):
        self._owner = owner
        self.conn_index = 0
        super().__init__(*args, **kwargs)

    async def read_frame(self, max_size):
        frame = await super().read_frame(max_size)
        self._owner._on_frame(self, "recv", frame.opcode, frame.fin, frame.data)
        return frame

    def write_frame_sync(self, fin, opcode, data):
        self._owner._on_frame(self, "send", int(opcode), fin, bytes(data))
        super().write_frame_sync(fin, opcode, data)


class DeviceServer(object):
    """WebSocket device server with a synchronous API (loop in a thread)."""

    def __init__(self, port=0, tls=False, ping_interval=DEFAULT_PING_INTERVAL,
                 url_path="", host="127.0.0.1", log_file=None, echo=True,
                 cert_dir=None, tls_max_version=None, ping_payload=b"",
                 close_timeout=3.0, netns=None, timeout_scale=1.0):
        """
        port: 0 for an ephemeral port (kept across pause/resume).
        tls: serve wss:// with a self-signed certificate made at start.
        ping_interval: seconds between server pings; None or 0 disables them.
        url_path: path put into .url (the server accepts any path).
        log_file: path of a file that receives every log line; echo: also
        print log lines to stdout (pytest shows them for failed tests).
        Lines are always kept in .log_lines.
        tls_max_version: None, "1.2" or "1.3".
        netns: path of a network namespace (such as the simulated device
        network's gateway namespace, /proc/PID/ns/net) in which the server
        listens: its event loop thread joins it before listening.
        timeout_scale: multiplies every wait of the calls below (replies,
        connections, pongs, messages), for a slow or loaded machine; a wait
        that ends as expected ends just as soon.
        """
        self.host = host
        self.port = port
        self.tls = tls
        self.ping_interval = ping_interval
        self.ping_payload = ping_payload
        self.url_path = url_path.lstrip("/")
        self.log_file = log_file
        self.echo = echo
        self.cert_dir = cert_dir
        self.tls_max_version = tls_max_version
        self.close_timeout = close_timeout
        self.netns = netns
        self.timeout_scale = timeout_scale
        self.certfile = self.keyfile = None
        self.ssl_context = None

        self.connections = []        # every Connection, in order of arrival
        self.handshakes = []         # (path, [(name, value)...]) of every request
        self.frames = []             # every FrameLog
        self.log_lines = []
        self.received_texts = []     # every text message received, in order
        self._returned = 0           # connections handed out by wait_for_connection
        self._messages = []          # unsolicited Message objects
        self._pending = {}           # reply key -> asyncio.Future
        self._cond = threading.Condition()
        self._log_lock = threading.Lock()
        self._log_fh = None
        self._ids = itertools.count(1)
        self._loop = None
        self._thread = None
        self._servers = []
        self._listening = False
        self._ws_by_proto = {}

    # ----- lifecycle -------------------------------------------------------

    def start(self):
        if self.tls:
            self.certfile, self.keyfile = tlscert.make_self_signed(self.cert_dir)
            self.ssl_context = tlscert.server_context(
                self.certfile, self.keyfile, max_version=self.tls_max_version)
        if self.log_file:
            self._log_fh = open(self.log_file, "a", buffering=1)
        self._loop = asyncio.new_event_loop()
        ready = threading.Event()

        failed = []

        def run():
            if self.netns is not None:
                try:
                    _join_netns(self.netns)
                except OSError as exc:
                    failed.append(exc)
                    ready.set()
                    return
            asyncio.set_event_loop(self._loop)
            ready.set()
            self._loop.run_forever()

        self._thread = threading.Thread(target=run, name="device-server", daemon=True)
        self._thread.start()
        ready.wait()
        if failed:
            self._loop.close()
            self._loop = None
            raise failed[0]
        self._call(self._listen(), 10)
        self._log("listening on %s" % self.url)
        return self

    def stop(self):
        if self._loop is None:
            return
        try:
            self._call(self._shutdown(), self.close_timeout + 5)
        except Exception:
            pass
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join(5)
        self._loop.close()
        self._loop = None
        if self._log_fh:
            self._log_fh.close()
            self._log_fh = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    @property
    def url(self):
        scheme = "wss" if self.tls else "ws"
        url = "%s://%s:%d" % (scheme, self.host, self.port)
        return url + ("/" + self.url_path if self.url_path else "")

    def pause(self):
        """Stop listening (new connections are refused); open ones stay."""
        self._call(self._pause(), 10)
        self._log("stopped listening")

    def resume(self):
        """Listen again on the same port."""
        self._call(self._listen(), 10)
        self._log("listening again on %s" % self.url)

    @property
    def listening(self):
        return self._listening

    # ----- connections -----------------------------------------------------

    @property
    def connection_count(self):
        return len(self.connections)

    @property
    def current(self):
        """The most recent connection that is still open, or None."""
        with self._cond:
            for conn in reversed(self.connections):
                if conn.is_open:
                    return conn
        return None

    def wait_for_connection(self, timeout=10.0):
        """Next connection not yet returned by this call, in arrival order."""
        timeout *= self.timeout_scale
        deadline = time.monotonic() + timeout
        with self._cond:
            while self._returned >= len(self.connections):
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError("no connection within %.1f s" % timeout)
                self._cond.wait(left)
            conn = self.connections[self._returned]
            self._returned += 1
            return conn

    def wait_for_disconnect(self, timeout=10.0, conn=None):
        conn = conn or self._latest()
        if conn is None:
            return True
        return conn.wait_closed(timeout * self.timeout_scale)

    def wait_for_pong(self, timeout=10.0, conn=None, count=1):
        """Wait until the connection has answered `count` pings; True/False."""
        timeout *= self.timeout_scale
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                target = conn or self._latest_locked()
                if target is not None and target.pongs_received >= count:
                    return True
                left = deadline - time.monotonic()
                if left <= 0:
                    return False
                self._cond.wait(left)

    @property
    def pongs_received(self):
        return sum(c.pongs_received for c in self.connections)

    def tls_stats(self):
        """The server context's session statistics (empty dict without TLS)."""
        return dict(self.ssl_context.session_stats()) if self.ssl_context else {}

    @property
    def tls_session_hits(self):
        """How many TLS handshakes resumed an earlier session."""
        return self.tls_stats().get("hits", 0)

    # ----- messages --------------------------------------------------------

    def new_id(self):
        return str(next(self._ids))

    def request(self, method, params=None, id=None, timeout=10.0, conn=None,
                omit=(), jsonrpc="2.0"):
        """Send a JSON-RPC request and return Reply(data, raw) with the same id.

        params None sends {}; omit names envelope members to leave out
        (e.g. omit=("params",)).  A numeric id is sent as a number and the
        reply is matched against that exact value.
        """
        if id is None:
            id = self.new_id()
        envelope = {"jsonrpc": jsonrpc, "id": id, "method": method,
                    "params": {} if params is None else params}
        for name in omit:
            envelope.pop(name, None)
        text = json.dumps(envelope, separators=(",", ":"))
        return self.request_raw(text, expect_id=id, timeout=timeout, conn=conn)

    def request_raw(self, text, expect_id, timeout=10.0, conn=None):
        """Send exact text and wait for the reply whose "id" equals expect_id
        (None matches a reply with "id": null or without "id")."""
        timeout *= self.timeout_scale
        return self._call(self._request(text, expect_id, timeout, conn), timeout + 5)

    def send_text(self, text, conn=None):
        """Send an arbitrary text frame."""
        self._call(self._send(text, conn), 10)

    def send_bytes(self, data, conn=None):
        """Send a binary frame."""
        self._call(self._send(bytes(data), conn), 10)

    def next_message(self, timeout=10.0, method=None, predicate=None):
        """Next unsolicited message (optionally only one with this "method",
        or one for which predicate(message) holds); others stay queued.
        Raises TimeoutError."""
        timeout *= self.timeout_scale
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for i, msg in enumerate(self._messages):
                    if ((method is None or msg.method == method) and
                            (predicate is None or predicate(msg))):
                        return self._messages.pop(i)
                left = deadline - time.monotonic()
                if left <= 0:
                    raise TimeoutError("no message%s within %.1f s" % (
                        "" if method is None else " %r" % method, timeout))
                self._cond.wait(left)

    @property
    def messages(self):
        """Unsolicited messages still queued (not yet taken by next_message)."""
        with self._cond:
            return list(self._messages)

    def clear_messages(self):
        with self._cond:
            del self._messages[:]

    def ping(self, payload=b"", timeout=10.0, conn=None):
        """Send a ping and return the payload of the matching pong."""
        if isinstance(payload, str):
            payload = payload.encode()
        return self._call(self._ping(payload, timeout, conn), timeout + 5)

    def close(self, code=1000, reason="", conn=None, wait=True):
        """Close the current connection with a close frame."""
        fut = self._submit(self._close(code, reason, conn))
        if wait:
            fut.result(self.close_timeout + 10)

    def drop(self, conn=None, tls_close_notify=False):
        """End the current connection without a WebSocket close frame.

        By default the transport is aborted (under TLS without close_notify,
        which an OpenSSL client treats as a fatal error: a session it saves
        then is no longer resumable).  tls_close_notify=True ends the TLS
        session cleanly first, still without a close frame.
        """
        self._call(self._drop(conn, tls_close_notify), 10)

    # ----- internals (loop thread) ----------------------------------------

    def _submit(self, coro):
        if self._loop is None:
            raise RuntimeError("server not started")
        return asyncio.run_coroutine_threadsafe(coro, self._loop)

    def _call(self, coro, timeout):
        fut = self._submit(coro)
        try:
            return fut.result(timeout)
        except TimeoutError:
            fut.cancel()
            raise

    def _latest(self):
        with self._cond:
            return self._latest_locked()

    def _latest_locked(self):
        for conn in reversed(self.connections):
            if conn.is_open:
                return conn
        return self.connections[-1] if self.connections else None

    def _target(self, conn):
        conn = conn or self.current
        if conn is None or not conn.is_open:
            raise ConnectionError("no open connection")
        return conn

    def _log(self, line, at=None):
        if at is None:
            stamp = datetime.datetime.now().strftime("%H:%M:%S.%f")[:-3]
            line = "%s %s" % (stamp, line)
        with self._log_lock:
            self.log_lines.append(line)
            if self._log_fh:
                self._log_fh.write(line + "\n")
            if self.echo:
                print(line, flush=True)

    def _on_frame(self, proto, direction, opcode, fin, data):
        entry = FrameLog(time.time(), proto.conn_index, direction, opcode, fin, bytes(data))
        self.frames.append(entry)
        self._log(entry.line(), at=entry.time)
        conn = self._ws_by_proto.get(id(proto))
        if conn is None:
            return
        if direction == "recv" and opcode == OP_PONG:
            with self._cond:
                conn.pongs.append((entry.time, entry.payload))
                self._cond.notify_all()
        elif direction == "send" and opcode == OP_PING:
            conn.pings_sent.append((entry.time, entry.payload))

    async def _listen(self):
        if self._listening:
            return
        server = await websockets.serve(
            self._handler, self.host, self.port,
            create_protocol=lambda *a, **kw: _Protocol(self, *a, **kw),
            ssl=self.ssl_context, subprotocols=[SUBPROTOCOL],
            ping_interval=None, compression=None, max_size=None,
            close_timeout=self.close_timeout,
            process_request=self._process_request)
        if self.port == 0:
            self.port = server.sockets[0].getsockname()[1]
        self._servers.append(server)
        self._listening = True

    async def _pause(self):
        if not self._listening:
            return
        for server in self._servers:
            server.server.close()   # listening sockets only; connections stay
        self._listening = False

    async def _shutdown(self):
        for conn in list(self.connections):
            if conn.is_open:
                conn.ws.transport.abort()
        for server in self._servers:
            server.close()
        for server in self._servers:
            try:
                await asyncio.wait_for(server.wait_closed(), self.close_timeout + 2)
            except Exception:
                pass
        self._listening = False

    async def _process_request(self, path, headers):
        self.handshakes.append((path, list(headers.raw_items())))
        return None

    async def _handler(self, ws, path=None):
        with self._cond:
            conn = Connection(len(self.connections) + 1, ws)
            ws.conn_index = conn.index
            self._ws_by_proto[id(ws)] = conn
            self.connections.append(conn)
            self._cond.notify_all()
        self._log("[conn %d] open path=%s origin=%s protocol=%s%s" % (
            conn.index, conn.path, conn.origin, conn.subprotocol,
            "" if not conn.tls else " tls=%s resumed=%s" % (
                conn.tls_version, conn.tls_session_reused)))
        pinger = None
        if self.ping_interval:
            pinger = asyncio.ensure_future(self._ping_loop(ws))
        try:
            while True:
                data = await ws.recv()
                self._on_message(conn, data)
        except ConnectionClosed:
            pass
        finally:
            if pinger:
                pinger.cancel()
            rcvd, sent = ws.close_rcvd, ws.close_sent
            conn.close_code = rcvd.code if rcvd is not None else 1006
            conn.close_reason = rcvd.reason if rcvd is not None else ""
            conn.close_sent_code = sent.code if sent is not None else None
            conn.closed_at = time.time()
            with self._cond:
                conn.closed.set()
                self._cond.notify_all()
            self._ws_by_proto.pop(id(ws), None)
            self._log("[conn %d] closed: agent's code=%s reason=%r, server's code=%s" % (
                conn.index, conn.close_code, conn.close_reason, conn.close_sent_code))

    async def _ping_loop(self, ws):
        try:
            while True:
                await asyncio.sleep(self.ping_interval)
                await ws.write_frame(True, OP_PING, self.ping_payload)
        except (ConnectionClosed, Exception):
            return

    def _on_message(self, conn, data):
        raw = data if isinstance(data, str) else data.decode("utf-8", "replace")
        at = time.time()
        self.received_texts.append(raw)
        try:
            parsed = json.loads(raw)
        except ValueError:
            parsed = None
        if isinstance(parsed, dict) and "method" not in parsed and (
                "result" in parsed or "error" in parsed):
            key = json.dumps(parsed.get("id"))
            fut = self._pending.pop(key, None)
            if fut is not None and not fut.done():
                fut.set_result(Reply(parsed, raw))
                return
        with self._cond:
            self._messages.append(Message(parsed, raw, conn, at))
            self._cond.notify_all()

    async def _send(self, data, conn):
        conn = self._target(conn)
        await conn.ws.send(data)

    async def _request(self, text, expect_id, timeout, conn):
        conn = self._target(conn)
        key = json.dumps(expect_id)
        fut = self._loop.create_future()
        self._pending[key] = fut
        try:
            await conn.ws.send(text)
            return await asyncio.wait_for(fut, timeout)
        except asyncio.TimeoutError:
            raise TimeoutError("no reply with id %s within %.1f s" % (key, timeout))
        finally:
            if self._pending.get(key) is fut:
                del self._pending[key]

    async def _ping(self, payload, timeout, conn):
        conn = self._target(conn)
        sent_at = time.time()
        await conn.ws.write_frame(True, OP_PING, payload)
        deadline = time.monotonic() + timeout
        while True:
            for at, data in conn.pongs:
                if at >= sent_at and data == payload:
                    return data
            if time.monotonic() > deadline:
                seen = [d for at, d in conn.pongs if at >= sent_at]
                raise TimeoutError("no pong with payload %r within %.1f s (got %r)"
                                   % (payload, timeout, seen))
            if not conn.is_open:
                raise ConnectionError("connection closed while waiting for pong")
            await asyncio.sleep(0.01)

    async def _close(self, code, reason, conn):
        conn = self._target(conn)
        await conn.ws.close(code, reason)

    async def _drop(self, conn, tls_close_notify):
        conn = self._target(conn)
        if tls_close_notify and conn.tls:
            conn.ws.transport.close()      # close_notify, then the socket
        else:
            conn.ws.transport.abort()
        self._log("[conn %d] dropped (no close frame%s)" % (
            conn.index, ", TLS close_notify" if tls_close_notify and conn.tls else ""))


# ----- command line -----------------------------------------------------------

# The demonstration tour: requests of every family, what they changed in
# the device, the agent's own messages, a reboot and (with a UPnP gateway)
# remote access.  Each step prints "=== title", every request ("--> ") and
# reply or message ("<-- "); a reply other than the expected one ends the
# tour as failed.

_TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
RUN_DEVICE = os.path.join(_TOP, "device", "run-device")

_ISO = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d"


class TourFailed(Exception):
    pass


def _envelope(method, params, rid):
    return json.dumps({"jsonrpc": "2.0", "id": rid, "method": method, "params": params},
                      separators=(",", ":"))


def _uci_values(text):
    """{path: value} of `uci show` lines (path='value')."""
    values = {}
    for line in text.splitlines():
        path, sep, value = line.partition("=")
        if sep and path.count(".") >= 1:
            if len(value) >= 2 and value[0] == value[-1] == "'":
                value = value[1:-1]
            values[path] = value
    return values


class _Tour(object):
    def __init__(self, server, timeout, run=None, upnp=None):
        self.server = server
        self.deadline = time.monotonic() + timeout
        self.run = run
        self.upnp = upnp
        self.conn = None
        self.mac = ""

    # ----- printing and time ----------------------------------------------

    def left(self, most=None):
        rest = max(0.1, self.deadline - time.monotonic())
        return rest if most is None else min(rest, most)

    def say(self, text=""):
        # one line at a time with the server's own log lines
        with self.server._log_lock:
            print(text, flush=True)

    def title(self, text):
        self.say("=== " + text)

    def fail(self, text):
        self.say("!!! " + text)
        raise TourFailed(text)

    def check(self, raw, expect, what):
        """expect: exact text, or a compiled pattern the whole text matches."""
        if hasattr(expect, "fullmatch"):
            ok = expect.fullmatch(raw) is not None
            shown = expect.pattern
        else:
            ok = raw == expect
            shown = expect
        if not ok:
            self.fail("unexpected %s; wanted %s" % (what, shown))

    # ----- the agent --------------------------------------------------------

    def request(self, method, params, rid, expect, timeout=60):
        text = _envelope(method, params, rid)
        self.say("--> " + text)
        reply = self.server.request_raw(text, expect_id=rid, timeout=self.left(timeout),
                                        conn=self.conn)
        self.say("<-- " + reply.raw)
        self.check(reply.raw, expect, "reply to %s" % method)
        return reply

    def send(self, method, params, rid):
        """A request whose answers come as messages (or not at all)."""
        text = _envelope(method, params, rid)
        self.say("--> " + text)
        self.server.send_text(text, conn=self.conn)

    def take(self, test, what, timeout=30):
        """The first queued message for which test(message) holds (others
        stay queued)."""
        srv = self.server
        end = time.monotonic() + self.left(timeout)
        with srv._cond:
            while True:
                for i, msg in enumerate(srv._messages):
                    if test(msg):
                        return srv._messages.pop(i)
                wait = end - time.monotonic()
                if wait <= 0:
                    self.fail("no %s within %.0f s" % (what, timeout))
                srv._cond.wait(wait)

    def success(self, rid):
        return '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s"}}' % (rid, self.mac)

    # ----- the device (through run-device: nothing is read by following a
    # ----- link the device may have planted) --------------------------------

    def device(self, argv, stdin=None, timeout=30):
        r = subprocess.run([RUN_DEVICE, "exec", self.run, "--"] + list(argv),
                           input=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                           text=True, timeout=timeout)
        return r.stdout

    def device_sh(self, script, **kw):
        return self.device(["/bin/sh", "-c", script], **kw)

    def device_rebooted(self):
        """True from the device's `reboot` until its next boot."""
        return subprocess.run([RUN_DEVICE, "rebooted", self.run], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, timeout=30).returncode == 0

    def journal(self):
        r = subprocess.run([RUN_DEVICE, "journal", self.run], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, text=True, timeout=30)
        return r.stdout.splitlines()

    def wait_journal(self, test, start=0, what="", timeout=20):
        end = time.monotonic() + self.left(timeout)
        while True:
            lines = self.journal()
            found = [line for line in lines[start:] if test(line)]
            if found:
                return found
            if time.monotonic() > end:
                self.fail("the device never ran %s" % what)
            time.sleep(0.5)

    def uci_show(self, *paths):
        script = "; ".join("uci show %s 2>&1" % p for p in paths)
        return self.device_sh(script)

    def show_uci(self, label, text, keep=None):
        lines = [line for line in text.splitlines()
                 if keep is None or any(k in line for k in keep)]
        self.say("device UCI %s:" % label)
        for line in lines:
            self.say("    " + line)

    def show_changes(self, before, after):
        changes = {}
        for path in sorted(set(before) | set(after)):
            old, new = before.get(path), after.get(path)
            if old != new:
                changes[path] = (old, new)
                self.say("    changed: %s: %s -> %s" % (
                    path, "(none)" if old is None else "'%s'" % old,
                    "(none)" if new is None else "'%s'" % new))
        if not changes:
            self.say("    (no change)")
        return changes

    def wait_applied(self, package, mark, timeout=30):
        """Waits until the apply step the request started (after journal
        line `mark`) has committed what it staged: no changes of the package
        left in `uci changes`.  (Some handlers reply before they write.)"""
        self.wait_journal(lambda line: line == "kapri_util.lua cloud_action_apply", mark,
                          "the apply step", timeout)
        end = time.monotonic() + self.left(timeout)
        while self.device(["uci", "changes", package]).strip():
            if time.monotonic() > end:
                self.fail("the changes of %s were never committed" % package)
            time.sleep(0.5)

    def expect_changes(self, changes, wanted, what):
        got = {p: changes.get(p) for p in wanted}
        if got != wanted:
            self.fail("unexpected UCI change of %s: %r, wanted %r" % (what, got, wanted))

    # ----- the steps --------------------------------------------------------

    def first_steps(self):
        mac = self.mac
        steps = [
            ("dxGetAbout", _envelope("dxGetAbout", {"deviceId": mac}, "1"), "1",
             re.compile(r'\{"jsonrpc":"2\.0","id":"1","result":\{"deviceId":%s,.*\}\}'
                        % re.escape(json.dumps(mac)))),
            ("unknown method", _envelope("dxNoSuchMethod", {"deviceId": mac}, "2"), "2",
             '{"jsonrpc":"2.0","id":"2","error":{"code":-32601,'
             '"message":"The method is not available","data":""}}'),
            ("envelope without params", '{"jsonrpc":"2.0","id":"3","method":"dxGetAbout"}', "3",
             '{"jsonrpc":"2.0","id":"3","error":{"code":-32600,'
             '"message":"The JSON sent is not a valid Request object","data":""}}'),
        ]
        for title, text, rid, expect in steps:
            self.say("=== %s\n--> %s" % (title, text))
            reply = self.server.request_raw(text, expect_id=rid, timeout=self.left(),
                                            conn=self.conn)
            self.say("<-- %s" % reply.raw)
            self.check(reply.raw, expect, "reply to %s" % title)

    def network_settings(self):
        self.title("network settings: read them, add a second name server, "
                   "the device's UCI before and after")
        before_text = self.uci_show("network.lan")
        self.show_uci("before (uci show network.lan)", before_text)
        got = self.request("dxGetNetworkSettings", {"deviceId": self.mac}, "4", re.compile(
            r'\{"jsonrpc":"2\.0","id":"4","result":\{"deviceId":%s,"deviceName":"[^"]*",'
            r'"deviceIpAddress":"192\.168\.1\.2",.*\}\}' % re.escape(json.dumps(self.mac))))
        params = dict(got.data["result"])
        # the same address, mask and gateway: the connection stays up
        params["dnsServer2"] = "9.9.9.9"
        mark = len(self.journal())
        self.request("dxSetNetworkSettings", params, "5", self.success("5"))
        self.wait_applied("network", mark)
        after_text = self.uci_show("network.lan")
        self.show_uci("after the apply step", after_text)
        changes = self.show_changes(_uci_values(before_text), _uci_values(after_text))
        self.expect_changes(changes, {"network.lan.dns": (
            "192.168.1.1 8.8.8.8", "192.168.1.1 9.9.9.9")}, "network")

    def time_settings(self):
        self.title("time settings: read them, move the zone to +2:00, "
                   "the device's UCI before and after")
        before_text = self.uci_show("system.system")
        self.show_uci("before (uci show system.system)", before_text)
        reply = (r'\{"jsonrpc":"2\.0","id":"%%s","result":\{"deviceId":%s,"timeZone":"%%s",'
                 r'"currentTime":"%s","daylightSavings":"(en|dis)abled"\}\}'
                 % (re.escape(json.dumps(self.mac)), _ISO))
        self.request("dxGetTimeSettings", {"deviceId": self.mac}, "6",
                     re.compile(reply % ("6", r"\+0:00")))
        mark = len(self.journal())
        self.request("dxSetTimeSettings", {"deviceId": self.mac, "timeZone": "+2:00"}, "7",
                     self.success("7"))
        self.wait_applied("system", mark)
        after_text = self.uci_show("system.system")
        self.show_uci("after the apply step", after_text)
        changes = self.show_changes(_uci_values(before_text), _uci_values(after_text))
        self.expect_changes(changes, {"system.system.timezone": ("UTC0", "UTC-2")}, "system")
        self.request("dxGetTimeSettings", {"deviceId": self.mac}, "8",
                     re.compile(reply % ("8", r"\+2:00")))

    WIRELESS_LISTS = ("wlanlist", "enlist", "network_profile")
    SECTION_OPTIONS = ("ssid", "encryption", "key", "WLANEnable", "hidden", "isolate")

    def wireless_lists(self):
        text = self.uci_show("wireless.wifi0", "wireless.wifi1")
        lines = [line for line in text.splitlines()
                 if line.rpartition(".")[2].split("=")[0] in self.WIRELESS_LISTS]
        return "\n".join(lines)

    def wireless_sections(self, sections):
        text = self.uci_show(*["wireless." + s for s in sections])
        lines = []
        for line in text.splitlines():
            name = line.split("=")[0]
            if name.count(".") == 1 or name.rpartition(".")[2] in self.SECTION_OPTIONS \
                    or "not found" in line:
                lines.append(line)
        return "\n".join(lines)

    def wireless(self):
        self.title("wireless networks: the radios and networks, add a network on both "
                   "radios, change it, delete it, the device's UCI along the way")
        # requests on the 5 GHz radio need the radios the agent detects at its start
        self.wait_journal(lambda line: line == "kapri_util.lua get_support_radio",
                          what="get_support_radio")
        for rid, interface in (("9", "2.4GHz"), ("10", "5GHz")):
            self.request("vekGetRadioConfig", {"deviceId": self.mac, "interface": interface},
                         rid, re.compile(r'\{"jsonrpc":"2\.0","id":"%s","result":\{.*'
                                         r'"interface":"%s","enabled":true,"opMode":"ap",.*\}\}'
                                         % (rid, re.escape(interface))))
        for rid, index in (("11", 0), ("12", 50)):
            self.request("vekGetNetworkConfig", {"deviceId": self.mac, "networkIndex": index},
                         rid, re.compile(r'\{"jsonrpc":"2\.0","id":"%s","result":\{.*'
                                         r'"networkIndex":%d,.*"ssid":"[^"]+",.*\}\}'
                                         % (rid, index)))
        lists_before = self.wireless_lists()
        self.show_uci("before (radio lists)", lists_before)
        added = {"deviceId": self.mac, "interface": "BOTH", "ssid": "Demo-Both",
                 "security": "WPA2-PSK", "password": "demo-pass-1", "broadcastEnabled": True}
        mark = len(self.journal())
        self.request("vekAddNetwork", added, "13", self.success("13"))
        self.wait_applied("wireless", mark)
        lists_added = self.wireless_lists()
        self.show_uci("after the apply step (radio lists)", lists_added)
        changes = self.show_changes(_uci_values(lists_before), _uci_values(lists_added))
        profile = changes.get("wireless.wifi0.network_profile")
        pair = (profile[1] or "").rpartition(",")[2] if profile else ""
        m = re.fullmatch(r"w0_index(\d+):w1_index(\d+)", pair)
        if m is None:
            self.fail("no paired network was added to wireless.wifi0.network_profile")
        sections = pair.split(":")
        index = int(m.group(1))
        self.say("the new network: sections %s and %s (networkIndex %d)"
                 % (sections[0], sections[1], index))
        before_set = self.wireless_sections(sections)
        self.show_uci("of the new network", before_set)
        for section in sections:
            self.expect_changes(_uci_values(before_set), {
                "wireless.%s.ssid" % section: "Demo-Both",
                "wireless.%s.encryption" % section: "psk2 aes",
                "wireless.%s.WLANEnable" % section: "1"}, section)
        changed = {"deviceId": self.mac, "networkIndex": index, "ssid": "Demo-Renamed",
                   "enabled": True, "security": "WPA2-PSK", "password": "demo-pass-2",
                   "broadcastEnabled": False}
        mark = len(self.journal())
        self.request("vekSetNetworkConfig", changed, "14", self.success("14"))
        self.wait_applied("wireless", mark)
        after_set = self.wireless_sections(sections)
        self.show_uci("after the apply step", after_set)
        changes = self.show_changes(_uci_values(before_set), _uci_values(after_set))
        for section in sections:
            self.expect_changes(changes, {
                "wireless.%s.ssid" % section: ("Demo-Both", "Demo-Renamed"),
                "wireless.%s.key" % section: ("demo-pass-1", "demo-pass-2"),
                "wireless.%s.hidden" % section: ("0", "1")}, section)
        mark = len(self.journal())
        self.request("vekDeleteNetwork", {"deviceId": self.mac, "networkIndex": index}, "15",
                     self.success("15"))
        self.wait_applied("wireless", mark)
        lists_deleted = self.wireless_lists()
        self.show_uci("after the apply step (radio lists)", lists_deleted)
        self.show_changes(_uci_values(lists_added), _uci_values(lists_deleted))
        gone = self.wireless_sections(sections)
        self.show_uci("of the deleted network", gone)
        if lists_deleted != lists_before:
            self.fail("the radio lists are not back to what they were")
        if any(p.startswith("wireless.%s" % s) for p in _uci_values(gone) for s in sections):
            self.fail("the sections of the deleted network are still there")

    def telemetry(self):
        mac = re.escape(json.dumps(self.mac))
        self.title("telemetry: a periodic status update from the agent")
        update = self.take(lambda m: m.method == "dsLogStatusUpdates", "status update", 60)
        self.say("<-- " + update.raw)
        self.check(update.raw, re.compile(
            r'\{"jsonrpc":"2\.0","method":"dsLogStatusUpdates","params":\{"deviceId":%s,'
            r'"version":0,"updates":\[\{"dateTime":"%s","system":\{"cpu":\d+,"memFree":\d+,'
            r'"memUsed":\d+\},"lan":\{"rx":\d+,"tx":\d+\},"radios":\[.*\]\}\]\}\}'
            % (mac, _ISO)), "status update")

        self.title("telemetry: an event written in the device")
        argv = ["/usr/sbin/kapri_util.lua", "add_a_notification", "7", "INFO",
                "Demo", "tour", "event"]
        self.say("device $ " + " ".join(argv[1:]))
        self.device(argv)
        event = self.take(lambda m: m.method == "dsEventNotifications" and
                          "Demo tour event" in m.raw, "event notification")
        self.say("<-- " + event.raw)
        self.check(event.raw, re.compile(
            r'\{"jsonrpc":"2\.0","method":"dsEventNotifications","params":\{"deviceId":%s,'
            r'"version":0,"events":\[\{"number":7,"dateTime":"%s","type":"INFO",'
            r'"event":"Demo tour event"\}\]\}\}' % (mac, _ISO)), "event notification")

        self.title("telemetry: the system log streamed while it is on")
        mark = len(self.journal())
        self.send("dxStreamSystemLogs", {"deviceId": self.mac, "enable": True}, "16")
        self.wait_journal(lambda line: line == "logread -f", mark, "logread -f")
        self.say("(no reply of its own: streamed results carry the request's id)")
        lines = ["hello from the device", "a second line", "and a third"]
        self.say("device $ logger -t demo  (three lines: %s)" % ", ".join(lines))
        self.device(["logger", "-t", "demo"], stdin="".join(l + "\n" for l in lines))
        wanted = [l + " " for l in lines]
        seen = []
        while not all(w in seen for w in wanted):
            message = self.take(lambda m: isinstance(m.data, dict) and
                                m.data.get("id") == "16", "streamed log lines", 30)
            self.say("<-- " + message.raw)
            self.check(message.raw, re.compile(
                r'\{"jsonrpc":"2\.0","id":"16","stream":true,"result":\{"deviceId":%s,'
                r'"logs":\[.*\]\}\}' % mac), "streamed result")
            seen += [log.get("message") for log in message.data["result"]["logs"]
                     if isinstance(log, dict)]
        if [s for s in seen if s in wanted] != wanted:
            self.fail("streamed lines %r, wanted %r" % (seen, wanted))
        self.send("dxStreamSystemLogs", {"deviceId": self.mac, "enable": False}, "17")
        end = time.monotonic() + self.left(20)
        while self.device_sh("[ -e /tmp/cloud_log_file ] && echo on || echo off").strip() != "off":
            if time.monotonic() > end:
                self.fail("the log capture was never stopped")
            time.sleep(0.5)
        self.say("(no reply: streaming is off; the agent stopped its capture and removed it)")

    def queued_so_far(self):
        """Requests this agent process has put into its receive queue: every
        text frame the server sent it (one process since the tour began)."""
        return sum(1 for f in list(self.server.frames)
                   if f.direction == "send" and f.opcode == OP_TEXT)

    def reset(self):
        self.title("reset: the device reboots, the agent starts again at boot and "
                   "restores the requests it had saved")
        mac = self.mac
        # The receive queue is a ring of 10 requests whose saved copy comes
        # back only when it has not wrapped around: start the reset where
        # it and the two requests behind it fit without wrapping.
        n = self.queued_so_far()
        extra = 0
        while (n + 1) % 10 > 7:
            extra += 1
            n += 1
        if extra:
            self.say("(%d more request%s first, so that the reset and the two requests "
                     "behind it do not wrap around the receive queue's ring of 10)"
                     % (extra, "" if extra == 1 else "s"))
            for i in range(extra):
                rid = "18.%d" % (i + 1)
                self.request("dxGetNetworkSettings", {"deviceId": mac}, rid, re.compile(
                    r'\{"jsonrpc":"2\.0","id":"%s","result":\{.*\}\}' % re.escape(rid)))
        # While the web configuration reloads (/tmp/luci_reload_cmd), the
        # agent holds the request it has taken: the two behind the reset
        # wait in its receive queue and are saved with it.
        self.say("device $ touch /tmp/luci_reload_cmd   (the web configuration reloads)")
        self.device(["touch", "/tmp/luci_reload_cmd"])
        time.sleep(3)  # the agent looks for it every second
        mark = len(self.journal())
        old = self.conn
        self.send("dxResetDevice", {"deviceId": mac}, "19")
        self.send("dxGetNetworkSettings", {"deviceId": mac}, "20")
        self.send("dxGetTimeSettings", {"deviceId": mac}, "21")
        time.sleep(3)

        def reply_on(conn, rid):
            return lambda m: (m.conn is conn and isinstance(m.data, dict) and
                              m.data.get("id") == rid and "method" not in m.data)
        if any(reply_on(old, "19")(m) for m in self.server.messages):
            self.fail("the agent did not wait for the configuration reload")
        self.say("device $ rm /tmp/luci_reload_cmd   (reload over; the agent goes on "
                 "5 s later)")
        self.device(["rm", "-f", "/tmp/luci_reload_cmd"])
        reset = self.take(reply_on(old, "19"), "reply to dxResetDevice", 30)
        self.say("<-- " + reset.raw)
        self.check(reset.raw, self.success("19"), "reply to dxResetDevice")
        event = self.take(lambda m: m.conn is old and m.method == "dsEventNotifications",
                          "the reset's event")
        self.say("<-- " + event.raw)
        self.check(event.raw, re.compile(
            r'\{"jsonrpc":"2\.0","method":"dsEventNotifications","params":\{"deviceId":%s,'
            r'"version":0,"events":\[\{"number":2,"dateTime":"%s","type":"INFO",'
            r'"event":"Reboot"\}\]\}\}' % (re.escape(json.dumps(mac)), _ISO)),
            "event of the reset")
        self.say("waiting for the device to go down and the agent to come back...")
        self.wait_journal(lambda line: line == "reboot", mark, "reboot")
        if not old.wait_closed(self.left(30)):
            self.fail("the connection stayed open: the device did not reboot")
        self.say("connection %d closed" % old.index)
        # `reboot` leaves its mark in the run directory until the next boot;
        # the agent that is stopping may still reconnect for a moment, so
        # the agent of the next boot is the one connected after the boot
        # has read its queues back from flash
        end = time.monotonic() + self.left(60)
        while self.device_rebooted():
            if time.monotonic() > end:
                self.fail("the device did not boot again")
            time.sleep(0.5)
        self.say("the device booted")
        self.wait_journal(lambda line: line == "umount /mnt/_sys1", mark,
                          "umount /mnt/_sys1 (the restore of the queues)", 60)
        end = time.monotonic() + self.left(30)
        while self.server.current is None or self.server.current is old:
            if time.monotonic() > end:
                self.fail("the agent did not come back after the reboot")
            time.sleep(0.2)
        self.conn = self.server.current
        self.say("agent connected again after the boot: connection %d" % self.conn.index)
        journal = self.journal()[mark:]
        self.say("device journal since the reset (the queues saved to flash, the reboot, "
                 "the flash read back at boot):")
        for line in journal:
            if line.startswith(("kapri_util.lua add_a_notification", "kapri_util.lua backup",
                                "reboot", "mount", "umount")):
                self.say("    " + line)
        saved = journal.index("kapri_util.lua backup_cloud_files") \
            if "kapri_util.lua backup_cloud_files" in journal else None
        read = journal.index("mount -t jffs2 /dev/mtdblock2 /mnt/_sys1") \
            if "mount -t jffs2 /dev/mtdblock2 /mnt/_sys1" in journal else None
        if "reboot" not in journal or saved is None or read is None or saved > read:
            self.fail("the device did not save the queues, reboot and read them back")
        for rid, method in (("20", "dxGetNetworkSettings"), ("21", "dxGetTimeSettings")):
            again = self.take(reply_on(self.conn, rid), "restored reply to " + method, 60)
            self.say("<-- (restored and answered after the boot) " + again.raw)
            if "result" not in again.data:
                self.fail("the restored %s was not answered with a result" % method)
            # saved for the next boot means run there only: never twice
            twice = [m for m in self.server.messages
                     if m.conn is not self.conn and reply_on(m.conn, rid)(m)]
            if twice:
                self.fail("%s was answered before the reboot as well: %s"
                          % (method, twice[0].raw))

    def upnp_mappings(self):
        r = subprocess.run(["upnpc", "-u", self.upnp, "-l"], stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, text=True, timeout=30)
        found = re.findall(r"^\s*\d+\s+(TCP|UDP)\s+(\d+)->([\d.]+):(\d+)\s+'([^']*)'",
                           r.stdout, re.M)
        self.say("gateway's port mappings (upnpc -l):")
        for proto, ext, client, internal, desc in found:
            self.say("    %s %s -> %s:%s '%s'" % (proto, ext, client, internal, desc))
        if not found:
            self.say("    (none)")
        return found

    def remote_access(self):
        if not self.upnp:
            self.title("remote access over UPnP: skipped (run the demo with --upnp)")
            return
        self.title("remote access over UPnP: open the web interface, the gateway's "
                   "mappings, close it")
        if self.upnp_mappings():
            self.fail("the gateway has mappings before the request")
        reply = self.request(
            "dxEnableRemoteWebUiAccess",
            {"deviceId": self.mac, "protocol": "http", "timeout": 600}, "22", re.compile(
                r'\{"jsonrpc":"2\.0","id":"22","result":\{"deviceId":%s,"protocol":"http",'
                r'"ipAddress":"[\d.]+","port":"\d+"\}\}' % re.escape(json.dumps(self.mac))))
        result = reply.data["result"]
        found = self.upnp_mappings()
        if [(p, e, i) for p, e, _, i, _ in found] != [("TCP", result["port"], "80")]:
            self.fail("the gateway does not map port %s to the web interface" % result["port"])
        self.request("dxDisableRemoteWebUiAccess",
                     {"deviceId": self.mac, "ipAddress": result["ipAddress"],
                      "port": result["port"]}, "23", self.success("23"))
        if self.upnp_mappings():
            self.fail("the mapping is still there")

    def run_all(self):
        self.conn = self.server.wait_for_connection(self.left())
        self.say("agent connected: path=%s origin=%s protocol=%s" % (
            self.conn.path, self.conn.origin, self.conn.protocol))
        self.mac = self.conn.origin or ""
        self.first_steps()
        if self.run:
            self.network_settings()
            self.time_settings()
            self.wireless()
            self.telemetry()
            self.reset()
            self.remote_access()
        self.title("waiting for an answered ping")
        if not self.server.wait_for_pong(self.left(30), conn=self.conn):
            self.fail("no pong received")
        self.say("ping answered; tour complete")


def _tour(server, timeout, run=None, upnp=None):
    """Run the demonstration exchange; True if every step got its expected
    answer.  run: run directory of the simulated device the agent runs in
    (the device-side steps need it); upnp: root description URL of the
    device's UPnP gateway (the remote-access step needs it)."""
    try:
        _Tour(server, timeout, run, upnp).run_all()
    except TourFailed as exc:
        print("tour failed: %s" % exc, flush=True)
        return False
    return True


def main(argv=None):
    ap = argparse.ArgumentParser(description="Test device server for the korvat-cloud agent")
    ap.add_argument("--port", type=int, default=0, help="TCP port (default: ephemeral)")
    ap.add_argument("--host", default="127.0.0.1")
    ap.add_argument("--path", default="", help="path shown in the URL")
    ap.add_argument("--tls", action="store_true", help="serve wss:// with a self-signed certificate")
    ap.add_argument("--ping-interval", type=float, default=None,
                    help="seconds between pings (default 20, or 2 with --tour)")
    ap.add_argument("--tour", action="store_true", help="send the demonstration requests")
    ap.add_argument("--once", action="store_true", help="exit after the tour")
    ap.add_argument("--timeout", type=float, default=60.0, help="time limit of the tour")
    ap.add_argument("--log-file", default=None, help="also write the frame log here")
    ap.add_argument("--url-file", default=None, help="write the server URL into this file")
    ap.add_argument("--device-run", default=None, metavar="RUNDIR",
                    help="run directory of the simulated device the agent runs in: the "
                         "tour then also shows every request family, the device's UCI "
                         "changes, the agent's messages and a reboot")
    ap.add_argument("--upnp-gateway", default=None, metavar="URL",
                    help="root description URL of the device's UPnP gateway: the tour "
                         "then also opens and closes remote access")
    args = ap.parse_args(argv)

    interval = args.ping_interval
    if interval is None:
        interval = 2.0 if args.tour else DEFAULT_PING_INTERVAL
    server = DeviceServer(port=args.port, host=args.host, tls=args.tls,
                          ping_interval=interval, url_path=args.path,
                          log_file=args.log_file, echo=True)
    server.start()
    print("device server URL: %s" % server.url, flush=True)
    if args.url_file:
        with open(args.url_file, "w") as fh:
            fh.write(server.url + "\n")
    status = 0
    try:
        if args.tour:
            try:
                ok = _tour(server, args.timeout, args.device_run, args.upnp_gateway)
            except (TimeoutError, ConnectionError) as exc:
                print("tour failed: %s" % exc, flush=True)
                ok = False
            if args.once:
                status = 0 if ok else 1
                # let the agent record the answered ping before the
                # connection goes away with the server
                time.sleep(1.0)
                return status
        while True:
            time.sleep(1)
    except KeyboardInterrupt:
        pass
    finally:
        server.stop()
    return status


if __name__ == "__main__":
    sys.exit(main())
