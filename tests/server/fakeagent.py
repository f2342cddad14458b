"""Small stand-in for the agent, used to test the test device server.

Connects with raw sockets (optionally TLS, optionally resuming a saved TLS
session), sends the agent's upgrade request (Origin = MAC address, protocol
"nimb-protocol"), checks the 101 answer, then in a thread answers pings with
masked pongs and answers JSON-RPC requests the way the agent's dispatcher does
(envelope checks, unknown method, a minimal "dxGetAbout").
"""
import base64
import json
import os
import socket
import ssl
import sys
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))
sys.path.insert(0, os.path.join(HERE, "..", "..", "server"))

import rawpeer  # noqa: E402
import tlscert  # noqa: E402

MAC = "00:11:22:33:44:55"
# One client context for all stand-ins: a TLS session resumes only within it.
CLIENT_CONTEXT = tlscert.client_context()
MESSAGES = {-32600: "The JSON sent is not a valid Request object",
            -32601: "The method is not available",
            -32603: "Internal JSON-RPC error"}


class FakeAgent(object):
    def __init__(self, url, mac=MAC, session=None, answer=True):
        self.url = url
        self.mac = mac
        self.answer = answer
        self.session = session          # TLS session to offer
        self.saved_session = None       # TLS session taken at disconnect
        self.sock = None
        self.request_bytes = b""
        self.response = b""
        self.pings = []                 # payloads of pings received
        self.texts = []                 # texts received
        self.closed = threading.Event()
        self.close_frame_seen = False
        self._buf = bytearray()
        self._wlock = threading.Lock()
        self._thread = None

    def connect(self, timeout=5.0):
        scheme, rest = self.url.split("://", 1)
        hostport, _, path = rest.partition("/")
        host, _, port = hostport.partition(":")
        sock = socket.create_connection((host, int(port)), timeout=timeout)
        if scheme == "wss":
            sock = CLIENT_CONTEXT.wrap_socket(sock, session=self.session)
        self.sock = sock
        key = base64.b64encode(os.urandom(16)).decode()
        req = ("GET /%s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\n"
               "Connection: Upgrade\r\nSec-WebSocket-Key: %s\r\n"
               "Sec-WebSocket-Protocol: nimb-protocol\r\nSec-WebSocket-Version: 13\r\n"
               "Origin: %s\r\n\r\n" % (path, hostport, key, self.mac))
        self.request_bytes = req.encode()
        sock.sendall(self.request_bytes)
        while b"\r\n\r\n" not in self._buf:
            data = sock.recv(4096)
            if not data:
                raise ConnectionError("closed during handshake")
            self._buf += data
        end = self._buf.index(b"\r\n\r\n") + 4
        self.response = bytes(self._buf[:end])
        del self._buf[:end]
        text = self.response.decode("latin-1")
        assert text.startswith("HTTP/1.1 101"), text
        assert "Sec-WebSocket-Accept: %s\r\n" % rawpeer.accept_value(key) in text, text
        assert "Sec-WebSocket-Protocol: nimb-protocol\r\n" in text, text
        sock.settimeout(None)
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        return self

    @property
    def tls_session(self):
        return self.sock.session if isinstance(self.sock, ssl.SSLSocket) else None

    @property
    def session_reused(self):
        return self.sock.session_reused if isinstance(self.sock, ssl.SSLSocket) else None

    def send_frame(self, payload, opcode=rawpeer.OP_TEXT):
        data = rawpeer.encode_frame(payload, opcode, mask=True)
        with self._wlock:
            self.sock.sendall(data)

    def send_json(self, obj):
        self.send_frame(json.dumps(obj, separators=(",", ":")))

    def close(self):
        """Close like the agent: empty masked close frame, then the socket."""
        try:
            self.send_frame(b"", rawpeer.OP_CLOSE)
        except OSError:
            pass
        self._shut()

    def _shut(self):
        # Shut the TCP connection down first and let the reader thread end
        # before the descriptor is released (it could be reused at once).
        try:
            socket.socket.shutdown(self.sock, socket.SHUT_RDWR)
        except OSError:
            pass
        if self._thread is not None and self._thread is not threading.current_thread():
            self._thread.join(5)
        if isinstance(self.sock, ssl.SSLSocket) and self.saved_session is None:
            try:
                self.saved_session = self.sock.session   # as the agent does
            except (OSError, ValueError):
                pass
        try:
            self.sock.close()
        except OSError:
            pass
        self.closed.set()

    def _run(self):
        try:
            while True:
                got = rawpeer.decode_frame(self._buf)
                if got is None:
                    data = self.sock.recv(65536)
                    if not data:
                        break
                    self._buf += data
                    continue
                frame, used = got
                del self._buf[:used]
                if frame.opcode == rawpeer.OP_PING:
                    self.pings.append(frame.payload)
                    self.send_frame(frame.payload, rawpeer.OP_PONG)
                elif frame.opcode == rawpeer.OP_CLOSE:
                    self.close_frame_seen = True
                    self.send_frame(b"", rawpeer.OP_CLOSE)
                    break
                elif frame.opcode == rawpeer.OP_TEXT:
                    self.texts.append(frame.text)
                    if self.answer:
                        self._dispatch(frame.text)
        except (OSError, ValueError):
            pass
        self._shut()

    def _error(self, rid, code):
        self.send_json({"jsonrpc": "2.0", "id": rid if isinstance(rid, str) else None,
                        "error": {"code": code, "message": MESSAGES[code], "data": ""}})

    def _dispatch(self, text):
        req = json.loads(text)
        rid = req.get("id")
        if not all(isinstance(req.get(k), str) for k in ("jsonrpc", "method", "id")) \
                or "params" not in req:
            return self._error(rid, -32600)
        if req["jsonrpc"] != "2.0":
            return self._error(rid, -32603)
        if req["method"] == "dxGetAbout":
            return self.send_json({"jsonrpc": "2.0", "id": rid,
                                   "result": {"deviceId": self.mac, "model": "fake"}})
        return self._error(rid, -32601)
