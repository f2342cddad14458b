"""The device server's request API: DeviceServer, a WebSocket server with a
synchronous interface for tests and tools (its asyncio loop runs in a
background thread).

It pings the agent at a fixed interval, logs every frame in both directions
(wire.py), records each connection's handshake headers, sends JSON-RPC
requests and waits for their replies, collects unsolicited messages, and
pings, closes, drops, pauses and resumes listening on request.
"""
import asyncio
import datetime
import itertools
import json
import os
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
import tlscert  # noqa: E402

from .wire import (OP_PING, OP_PONG, Connection, FrameLog, Hooks, Link)  # noqa: E402

DEFAULT_PING_INTERVAL = 20.0


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


class DeviceServer(Hooks):
    """WebSocket device server with a synchronous API (loop in a thread)."""

    def __init__(self, port=0, tls=False, ping_interval=DEFAULT_PING_INTERVAL,
                 url_path="", host="127.0.0.1", log_file=None, echo=True,
                 cert_dir=None, tls_max_version=None, ping_payload=b"",
                 close_timeout=3.0, netns=None, timeout_scale=1.0,
                 certfile=None, keyfile=None, validate=None, retain=True):
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
        certfile, keyfile: with tls, the server's own certificate and key
        (PEM files) instead of a self-signed pair made at start.
        validate: check every message the agent sends against the protocol
        document (docs/openrpc.json, protocol.py); what does not conform is
        kept in .violations as (raw text, [problems]) and logged.  None
        means: when the environment sets KC_VALIDATE_PROTOCOL=1.
        retain: keep frames, log lines, received texts and unsolicited
        messages in memory (tests read them).  A long-running server whose
        observers take what they need (the console) passes False.
        Observers (.observers, add_observer) are told of connections,
        frames, messages and requests as they happen (in the loop thread).
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
        self.certfile, self.keyfile = certfile, keyfile
        self.ssl_context = None
        if validate is None:
            validate = os.environ.get("KC_VALIDATE_PROTOCOL") == "1"
        self.protocol = None
        if validate:
            from .protocol import Protocol
            self.protocol = Protocol()
        self.violations = []         # (raw text, [problems]) when validating
        self.retain = retain
        self.observers = []
        self._sent_methods = {}      # json.dumps(id) -> method of the request sent

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
        self._links = set()
        self._listening = False

    # ----- lifecycle -------------------------------------------------------

    def start(self):
        if self.tls and self.certfile is None:
            self.certfile, self.keyfile = tlscert.make_self_signed(self.cert_dir)
        if self.tls:
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

    def say(self, text=""):
        """Prints a line among the server's log lines (not logged)."""
        with self._log_lock:
            print(text, flush=True)

    def _log(self, line, at=None):
        if at is None:
            stamp = datetime.datetime.now().strftime("%H:%M:%S.%f")[:-3]
            line = "%s %s" % (stamp, line)
        with self._log_lock:
            if self.retain:
                self.log_lines.append(line)
            if self._log_fh:
                self._log_fh.write(line + "\n")
            if self.echo:
                print(line, flush=True)

    # ----- what the connections report (wire.Hooks, loop thread) ----------

    def frame(self, conn, direction, opcode, fin, payload):
        entry = FrameLog(time.time(), conn.index, direction, opcode, fin, payload)
        if self.retain:
            self.frames.append(entry)
        self._log(entry.line(), at=entry.time)
        self._notify("on_frame", conn, entry)
        if direction == "recv" and opcode == OP_PONG:
            with self._cond:
                conn.pongs.append((entry.time, entry.payload))
                self._cond.notify_all()
        elif direction == "send" and opcode == OP_PING:
            conn.pings_sent.append((entry.time, entry.payload))

    def handshake(self, path, headers):
        self.handshakes.append((path, headers))

    def opened(self, link, path, headers, subprotocol):
        with self._cond:
            conn = Connection(len(self.connections) + 1, link, path, headers, subprotocol)
            self.connections.append(conn)
            self._cond.notify_all()
        self._log("[conn %d] open path=%s origin=%s protocol=%s%s" % (
            conn.index, conn.path, conn.origin, conn.subprotocol,
            "" if not conn.tls else " tls=%s resumed=%s" % (
                conn.tls_version, conn.tls_session_reused)))
        if self.ping_interval:
            conn.pinger = asyncio.ensure_future(self._ping_loop(conn))
        self._notify("on_open", conn)
        return conn

    def closed(self, conn):
        pinger = getattr(conn, "pinger", None)
        if pinger is not None:
            pinger.cancel()
        with self._cond:
            conn.closed.set()
            self._cond.notify_all()
        self._log("[conn %d] closed: agent's code=%s reason=%r, server's code=%s" % (
            conn.index, conn.close_code, conn.close_reason, conn.close_sent_code))
        self._notify("on_close", conn)

    def message(self, conn, data):
        self._on_message(conn, data)

    # ----- the loop thread ---------------------------------------------------

    async def _listen(self):
        if self._listening:
            return
        server = await asyncio.start_server(self._accept, self.host, self.port,
                                            ssl=self.ssl_context)
        if self.port == 0:
            self.port = server.sockets[0].getsockname()[1]
        self._servers.append(server)
        self._listening = True

    async def _accept(self, reader, writer):
        link = Link(reader, writer, self, close_timeout=self.close_timeout)
        self._links.add(link)
        try:
            await link.run()
        finally:
            self._links.discard(link)

    async def _pause(self):
        if not self._listening:
            return
        for server in self._servers:
            server.close()   # the listening sockets only; connections stay
        self._listening = False

    async def _shutdown(self):
        for link in list(self._links):
            link.abort()
        for server in self._servers:
            server.close()
        for server in self._servers:
            try:
                await asyncio.wait_for(server.wait_closed(), self.close_timeout + 2)
            except Exception:
                pass
        self._listening = False
        # what is left (closing handshakes, pings) ends with the loop
        rest = [t for t in asyncio.all_tasks() if t is not asyncio.current_task()]
        for task in rest:
            task.cancel()
        await asyncio.gather(*rest, return_exceptions=True)

    async def _ping_loop(self, conn):
        try:
            while True:
                await asyncio.sleep(self.ping_interval)
                await conn.link.ping(self.ping_payload)
        except (ConnectionError, Exception):
            return

    def _on_message(self, conn, data):
        raw = data if isinstance(data, str) else data.decode("utf-8", "replace")
        at = time.time()
        if self.retain:
            self.received_texts.append(raw)
        try:
            parsed = json.loads(raw)
        except (ValueError, RecursionError):
            parsed = None
        key = json.dumps(parsed.get("id")) if isinstance(parsed, dict) else None
        method = self._sent_methods.get(key) if key is not None else None
        if self.protocol is not None:
            problems = self.protocol.check(raw, parsed, method)
            if problems:
                self.violations.append((raw, problems))
                self._log("[conn %d] PROTOCOL VIOLATION (docs/openrpc.json): %s" % (
                    conn.index, "; ".join(problems)))
        self._notify("on_message", conn, raw, parsed, method, at)
        # a reply: no "method", and a result, an error or at least an "id"
        # (the agent passes an empty script answer on without a result)
        if isinstance(parsed, dict) and "method" not in parsed and (
                "result" in parsed or "error" in parsed or "id" in parsed):
            fut = self._pending.pop(key, None)
            if fut is not None and not fut.done():
                fut.set_result(Reply(parsed, raw))
                return
        if not self.retain:
            return
        with self._cond:
            self._messages.append(Message(parsed, raw, conn, at))
            self._cond.notify_all()

    def add_observer(self, observer):
        """observer may have on_open(conn), on_close(conn), on_frame(conn,
        FrameLog), on_message(conn, raw, data, method, time) (method: of the
        request a reply answers, when known) and on_sent(conn, text, data);
        each is called in the loop thread and must not block."""
        self.observers.append(observer)
        return observer

    def _notify(self, name, *args):
        for observer in list(self.observers):
            hook = getattr(observer, name, None)
            if hook is None:
                continue
            try:
                hook(*args)
            except Exception as exc:  # an observer never breaks the server
                self._log("observer %s.%s failed: %r" % (type(observer).__name__, name, exc))

    def _note_sent(self, conn, data):
        if not isinstance(data, str):
            return
        try:
            parsed = json.loads(data)
        except (ValueError, RecursionError):     # what tests send may be anything
            parsed = None
        if isinstance(parsed, dict) and isinstance(parsed.get("method"), str) \
                and "id" in parsed:
            key = json.dumps(parsed["id"])
            self._sent_methods.pop(key, None)         # the latest request of an id last
            self._sent_methods[key] = parsed["method"]
            while len(self._sent_methods) > 10000:    # a long run keeps the recent ones
                del self._sent_methods[next(iter(self._sent_methods))]
        self._notify("on_sent", conn, data, parsed)

    async def _send(self, data, conn):
        conn = self._target(conn)
        self._note_sent(conn, data)
        await conn.link.send(data)

    async def _request(self, text, expect_id, timeout, conn):
        conn = self._target(conn)
        key = json.dumps(expect_id)
        fut = self._loop.create_future()
        self._pending[key] = fut
        try:
            self._note_sent(conn, text)
            await conn.link.send(text)
            return await asyncio.wait_for(fut, timeout)
        except asyncio.TimeoutError:
            raise TimeoutError("no reply with id %s within %.1f s" % (key, timeout))
        finally:
            if self._pending.get(key) is fut:
                del self._pending[key]

    async def _ping(self, payload, timeout, conn):
        conn = self._target(conn)
        sent_at = time.time()
        await conn.link.ping(payload)
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
        await conn.link.close(code, reason)

    async def _drop(self, conn, tls_close_notify):
        conn = self._target(conn)
        conn.link.drop(tls_close_notify)
        self._log("[conn %d] dropped (no close frame%s)" % (
            conn.index, ", TLS close_notify" if tls_close_notify and conn.tls else ""))
