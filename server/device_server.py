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
"""
import argparse
import asyncio
import datetime
import itertools
import json
import os
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
                 close_timeout=3.0, netns=None):
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
        return conn.wait_closed(timeout)

    def wait_for_pong(self, timeout=10.0, conn=None, count=1):
        """Wait until the connection has answered `count` pings; True/False."""
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
        return self._call(self._request(text, expect_id, timeout, conn), timeout + 5)

    def send_text(self, text, conn=None):
        """Send an arbitrary text frame."""
        self._call(self._send(text, conn), 10)

    def send_bytes(self, data, conn=None):
        """Send a binary frame."""
        self._call(self._send(bytes(data), conn), 10)

    def next_message(self, timeout=10.0, method=None):
        """Next unsolicited message (optionally only one with this "method");
        others stay queued.  Raises TimeoutError."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for i, msg in enumerate(self._messages):
                    if method is None or msg.method == method:
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

def _tour(server, timeout):
    """Run the demonstration exchange on the first connection; True if complete."""
    deadline = time.monotonic() + timeout

    def left():
        return max(0.1, deadline - time.monotonic())

    conn = server.wait_for_connection(left())
    print("agent connected: path=%s origin=%s protocol=%s" % (
        conn.path, conn.origin, conn.protocol), flush=True)
    mac = conn.origin or ""
    steps = [
        ("dxGetAbout", '{"jsonrpc":"2.0","id":"1","method":"dxGetAbout",'
                       '"params":{"deviceId":%s}}' % json.dumps(mac), "1"),
        ("unknown method", '{"jsonrpc":"2.0","id":"2","method":"dxNoSuchMethod",'
                           '"params":{"deviceId":%s}}' % json.dumps(mac), "2"),
        ("envelope without params", '{"jsonrpc":"2.0","id":"3","method":"dxGetAbout"}', "3"),
    ]
    for title, text, rid in steps:
        print("=== %s\n--> %s" % (title, text), flush=True)
        reply = server.request_raw(text, expect_id=rid, timeout=left(), conn=conn)
        print("<-- %s" % reply.raw, flush=True)
    print("=== waiting for an answered ping", flush=True)
    if not server.wait_for_pong(left(), conn=conn):
        print("no pong received", flush=True)
        return False
    print("ping answered; tour complete", flush=True)
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
                ok = _tour(server, args.timeout)
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
