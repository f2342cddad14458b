"""Raw-socket WebSocket peer for protocol-fault tests of the agent.

Plays the device server with plain sockets (no WebSocket library) so that a
test controls every byte: it captures the agent's HTTP upgrade request exactly
as sent, answers with any status line and headers, sends frames with any
header (opcode, FIN, RSV, mask, any length encoding, even wrong ones), and
decodes the agent's frames exactly as they arrived.  Optional TLS uses the
self-signed certificate helper of the test device server.

    peer = RawPeer()                  # or RawPeer(tls=True)
    start_agent(peer.url("path"))
    peer.accept()
    req = peer.read_request()         # HttpRequest: .raw, .path, .header(...)
    peer.send_response()              # correct 101 for req.key
    peer.send_frame(b"{...}", opcode=OP_TEXT)
    frame = peer.read_frame()         # Frame: .fin .rsv .opcode .masked ...

Beyond one well-behaved connection: refuse() answers an upgrade with any
HTTP status and hangs up; rcvbuf= keeps every accepted connection's
receive buffer small (a peer that then stops reading fills the agent's
send path quickly); tls="memory" runs the TLS server side over memory
buffers (ssl.SSLObject), so that the peer can also put raw TLS bytes on the
wire, e.g. send_partial_tls_record() sends the first bytes of a record and
nothing more.
"""
import base64
import hashlib
import os
import socket
import ssl
import struct
import sys
import time

_SERVER_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "server")
if _SERVER_DIR not in sys.path:
    sys.path.insert(0, _SERVER_DIR)

# Every wait for the agent below is that many times longer on a loaded
# machine (KC_TIMEOUT_SCALE, as the end-to-end suite's own waits).
TIMEOUT_SCALE = float(os.environ.get("KC_TIMEOUT_SCALE") or "1")

GUID = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11"
SUBPROTOCOL = "nimb-protocol"

OP_CONT, OP_TEXT, OP_BINARY = 0, 1, 2
OP_CLOSE, OP_PING, OP_PONG = 8, 9, 10


def accept_value(key):
    """Sec-WebSocket-Accept value for a Sec-WebSocket-Key value."""
    if isinstance(key, bytes):
        key = key.decode("ascii")
    digest = hashlib.sha1((key + GUID).encode("ascii")).digest()
    return base64.b64encode(digest).decode("ascii")


def mask_bytes(data, key):
    """XOR data with the 4-byte key repeated (masking and unmasking)."""
    key = bytes(key)
    return bytes(b ^ key[i % 4] for i, b in enumerate(data))


def length_form_for(n):
    """Length form a conforming sender uses for n payload bytes: 7, 16 or 64."""
    if n < 126:
        return 7
    if n < 65536:
        return 16
    return 64


def encode_frame(payload=b"", opcode=OP_TEXT, fin=True, rsv=0, mask=False,
                 mask_key=None, length_form=None, length=None,
                 length_order="big", first_byte=None):
    """Build one frame.

    payload: bytes or str (UTF-8).  rsv: 3-bit value (bits 0x40 0x20 0x10 of
    byte 0, given as 0..7).  mask: set the MASK bit and mask the payload with
    mask_key (4 bytes; random when None).  length_form: 7, 16 or 64 (default:
    the shortest allowed).  length: declared length (default: the real one;
    set it to lie).  length_order: "big" (correct) or "little" for the
    extended length bytes.  first_byte: replace byte 0 entirely.
    """
    if isinstance(payload, str):
        payload = payload.encode("utf-8")
    payload = bytes(payload)
    declared = len(payload) if length is None else length
    form = length_form or length_form_for(declared)
    b0 = (0x80 if fin else 0) | ((rsv & 7) << 4) | (opcode & 0x0F)
    if first_byte is not None:
        b0 = first_byte & 0xFF
    mbit = 0x80 if mask else 0
    if form == 7:
        if declared > 127:
            raise ValueError("7-bit length form holds at most 127")
        header = bytes([b0, mbit | declared])
    elif form == 16:
        header = bytes([b0, mbit | 126]) + declared.to_bytes(2, length_order)
    elif form == 64:
        header = bytes([b0, mbit | 127]) + declared.to_bytes(8, length_order)
    else:
        raise ValueError("length_form must be 7, 16 or 64")
    if mask:
        key = os.urandom(4) if mask_key is None else bytes(mask_key)
        return header + key + mask_bytes(payload, key)
    return header + payload


class Frame(object):
    """A decoded frame, exactly as it was on the wire."""

    def __init__(self, fin, rsv, opcode, masked, mask_key, length, length_form,
                 header, raw_payload, payload):
        self.fin = fin                  # bool
        self.rsv = rsv                  # 0..7 (RSV1 is 4)
        self.opcode = opcode
        self.masked = masked            # bool
        self.mask_key = mask_key        # 4 bytes or None
        self.length = length            # declared payload length
        self.length_form = length_form  # 7, 16 or 64
        self.header = header            # raw header bytes (incl. mask key)
        self.raw_payload = raw_payload  # payload as sent (masked)
        self.payload = payload          # unmasked payload

    @property
    def raw(self):
        return self.header + self.raw_payload

    @property
    def text(self):
        return self.payload.decode("utf-8")

    def __repr__(self):
        return ("Frame(fin=%s rsv=%d opcode=%d masked=%s key=%s len=%d form=%d payload=%r)"
                % (self.fin, self.rsv, self.opcode, self.masked,
                   self.mask_key.hex() if self.mask_key else None,
                   self.length, self.length_form, self.payload[:80]))


def decode_frame(buf):
    """Decode one frame from the start of buf: (Frame, bytes used) or None if
    buf does not hold a whole frame yet.  Extended lengths are big-endian."""
    buf = bytes(buf)
    if len(buf) < 2:
        return None
    b0, b1 = buf[0], buf[1]
    len7 = b1 & 0x7F
    masked = bool(b1 & 0x80)
    pos = 2
    if len7 == 126:
        form, ext = 16, 2
    elif len7 == 127:
        form, ext = 64, 8
    else:
        form, ext = 7, 0
    need = pos + ext + (4 if masked else 0)
    if len(buf) < need:
        return None
    length = int.from_bytes(buf[pos:pos + ext], "big") if ext else len7
    pos += ext
    key = None
    if masked:
        key = buf[pos:pos + 4]
        pos += 4
    if len(buf) < pos + length:
        return None
    raw_payload = buf[pos:pos + length]
    payload = mask_bytes(raw_payload, key) if masked else raw_payload
    frame = Frame(bool(b0 & 0x80), (b0 >> 4) & 7, b0 & 0x0F, masked, key, length,
                  form, buf[:pos], raw_payload, payload)
    return frame, pos + length


class HttpRequest(object):
    """The HTTP upgrade request as received (raw bytes up to the blank line)."""

    def __init__(self, raw):
        self.raw = raw
        text = raw.decode("latin-1")
        lines = text.split("\r\n")
        self.request_line = lines[0]
        parts = self.request_line.split(" ")
        self.method = parts[0] if parts else ""
        self.path = parts[1] if len(parts) > 1 else ""
        self.version = parts[2] if len(parts) > 2 else ""
        self.headers = []               # [(name, value)] in order
        for line in lines[1:]:
            if not line:
                continue
            name, _, value = line.partition(":")
            self.headers.append((name, value.strip()))

    def header(self, name, default=None):
        for key, value in self.headers:
            if key.lower() == name.lower():
                return value
        return default

    @property
    def key(self):
        return self.header("Sec-WebSocket-Key")

    @property
    def origin(self):
        return self.header("Origin")

    def __repr__(self):
        return "HttpRequest(%r)" % self.raw


def build_response(key=None, status=101, reason="Switching Protocols",
                   accept=True, protocol=SUBPROTOCOL, upgrade=True,
                   extra_headers=(), version="HTTP/1.1"):
    """Bytes of an HTTP answer.

    accept: True for the value computed from key, False to leave the header
    out, or a string to send verbatim.  protocol: subprotocol value, or None
    to leave the header out.  extra_headers: raw lines (without CRLF).
    """
    lines = ["%s %d %s" % (version, status, reason) if reason is not None
             else "%s %d" % (version, status)]
    if upgrade:
        lines += ["Upgrade: websocket", "Connection: Upgrade"]
    if accept is True:
        if key is None:
            raise ValueError("a computed accept value needs the client's key")
        lines.append("Sec-WebSocket-Accept: " + accept_value(key))
    elif accept:
        lines.append("Sec-WebSocket-Accept: " + accept)
    if protocol is not None:
        lines.append("Sec-WebSocket-Protocol: " + protocol)
    lines += list(extra_headers)
    return ("\r\n".join(lines) + "\r\n\r\n").encode("latin-1")


class MemoryTlsSocket(object):
    """Server side of a TLS connection run over memory buffers on a plain
    socket: it reads and writes like a socket (recv, sendall, settimeout,
    setsockopt, close) and can also hand out the raw bytes of a record
    (record_bytes), which the caller may put on the wire whole, in part or
    not at all."""

    def __init__(self, sock, context, timeout=10.0):
        self.raw = sock
        self.incoming = ssl.MemoryBIO()
        self.outgoing = ssl.MemoryBIO()
        self.obj = context.wrap_bio(self.incoming, self.outgoing, server_side=True)
        self._timeout = timeout
        deadline = time.monotonic() + timeout
        while True:
            try:
                self.obj.do_handshake()
                break
            except ssl.SSLWantReadError:
                self._flush()
                if not self._pull(deadline):
                    raise ConnectionError("peer closed during the TLS handshake")
        self._flush()

    @property
    def session_reused(self):
        return self.obj.session_reused

    def _flush(self):
        data = self.outgoing.read()
        if data:
            self.raw.sendall(data)

    def _pull(self, deadline):
        """More ciphertext from the socket; False on EOF."""
        left = None if deadline is None else deadline - time.monotonic()
        if left is not None and left <= 0:
            raise socket.timeout("timed out")
        self.raw.settimeout(left)
        data = self.raw.recv(65536)
        if not data:
            self.incoming.write_eof()
            return False
        self.incoming.write(data)
        return True

    def settimeout(self, timeout):
        self._timeout = timeout

    def setsockopt(self, *args):
        return self.raw.setsockopt(*args)

    def recv(self, n):
        deadline = None if self._timeout is None else time.monotonic() + self._timeout
        while True:
            try:
                data = self.obj.read(n)
                self._flush()
                return data
            except ssl.SSLWantReadError:
                self._flush()
                if not self._pull(deadline):
                    return b""
            except ssl.SSLZeroReturnError:
                return b""

    def sendall(self, data):
        self.obj.write(data)
        self._flush()

    def record_bytes(self, data):
        """The ciphertext that carries data (one record for up to 16 KiB),
        not sent."""
        self._flush()
        self.obj.write(data)
        return self.outgoing.read()

    def close(self):
        self.raw.close()


class RawPeer(object):
    """Listening raw WebSocket peer; one accepted connection at a time."""

    def __init__(self, tls=False, host="127.0.0.1", port=0, cert_dir=None,
                 tls_max_version=None, netns=None, rcvbuf=None, timeout_scale=None):
        """netns: path of a network namespace to listen in (the device
        network's gateway namespace); the listening socket, and so every
        accepted connection, belongs to it.  tls: True for TLS through
        ssl.SSLSocket, "memory" for TLS over memory buffers
        (MemoryTlsSocket: raw records can be sent).  rcvbuf: SO_RCVBUF of
        the listening socket, inherited by every accepted connection (and
        so the window it offers).  timeout_scale: multiplies every timeout
        given to the calls below (default KC_TIMEOUT_SCALE)."""
        self.host = host
        self.tls = tls
        self.timeout_scale = TIMEOUT_SCALE if timeout_scale is None else timeout_scale
        self.ssl_context = None
        if tls:
            import tlscert
            cert, key = tlscert.make_self_signed(cert_dir)
            self.ssl_context = tlscert.server_context(cert, key, max_version=tls_max_version)
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        if netns is not None:
            import simnet
            with simnet.in_netns(netns):
                self.listener = socket.socket(family)
        else:
            self.listener = socket.socket(family)
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        if rcvbuf is not None:
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.listener.bind((host, port))
        self.listener.listen(8)
        self.port = self.listener.getsockname()[1]
        self.sock = None
        self.request = None
        self.received = bytearray()     # every byte the agent sent on this connection
        self.sent = bytearray()         # every byte sent to the agent
        self.connections = 0
        self.peer_closed = False
        self._buf = bytearray()         # received but not yet consumed

    # ----- connection ------------------------------------------------------

    def url(self, path=""):
        scheme = "wss" if self.tls else "ws"
        return "%s://%s:%d%s" % (scheme, self.host, self.port,
                                 ("/" + path.lstrip("/")) if path else "")

    def _deadline(self, timeout):
        """The monotonic time at which a wait of `timeout` (scaled) ends."""
        return time.monotonic() + timeout * self.timeout_scale

    def accept(self, timeout=10.0):
        """Accept the next TCP (and TLS) connection; the previous one is closed."""
        if self.sock is not None:
            self.close()
        timeout *= self.timeout_scale
        self.listener.settimeout(timeout)
        sock, _ = self.listener.accept()
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if self.ssl_context is not None and self.tls == "memory":
            sock = MemoryTlsSocket(sock, self.ssl_context, timeout)
        elif self.ssl_context is not None:
            sock.settimeout(timeout)
            sock = self.ssl_context.wrap_socket(sock, server_side=True)
        self.sock = sock
        self.request = None
        self.received = bytearray()
        self.sent = bytearray()
        self._buf = bytearray()
        self.peer_closed = False
        self.connections += 1
        return self

    @property
    def session_reused(self):
        if isinstance(self.sock, (ssl.SSLSocket, MemoryTlsSocket)):
            return bool(self.sock.session_reused)
        return None

    def tls_session_hits(self):
        return self.ssl_context.session_stats()["hits"] if self.ssl_context else 0

    def close(self):
        """Close the TCP connection (TLS without close_notify)."""
        if self.sock is not None:
            try:
                self.sock.close()
            except OSError:
                pass
            self.sock = None

    def abort(self):
        """Reset the TCP connection (RST)."""
        if self.sock is not None:
            raw = self.sock.raw if isinstance(self.sock, MemoryTlsSocket) else self.sock
            try:
                raw.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            except OSError:
                pass
            self.close()

    def shutdown(self):
        """Close everything, listener included."""
        self.close()
        self.listener.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.shutdown()

    # ----- bytes -----------------------------------------------------------

    def _fill(self, deadline):
        """Receive more bytes into the buffer; False on EOF or reset."""
        left = deadline - time.monotonic()
        if left <= 0:
            raise TimeoutError("timed out waiting for the agent")
        self.sock.settimeout(left)
        try:
            data = self.sock.recv(65536)
        except socket.timeout:
            raise TimeoutError("timed out waiting for the agent")
        except (ConnectionResetError, BrokenPipeError, ssl.SSLError, OSError) as exc:
            if isinstance(exc, socket.timeout):
                raise TimeoutError("timed out waiting for the agent")
            data = b""
        if not data:
            self.peer_closed = True
            return False
        self.received += data
        self._buf += data
        return True

    def read_exact(self, n, timeout=10.0):
        """Exactly n bytes (EOFError if the agent closes first)."""
        deadline = self._deadline(timeout)
        while len(self._buf) < n:
            if not self._fill(deadline):
                raise EOFError("agent closed after %d of %d bytes" % (len(self._buf), n))
        data = bytes(self._buf[:n])
        del self._buf[:n]
        return data

    def read_available(self, timeout=0.5):
        """Whatever arrives within timeout (b"" if nothing)."""
        deadline = self._deadline(timeout)
        try:
            if not self._buf:
                self._fill(deadline)
        except TimeoutError:
            pass
        data = bytes(self._buf)
        del self._buf[:]
        return data

    def send_raw(self, data):
        if isinstance(data, str):
            data = data.encode("latin-1")
        self.sock.sendall(data)
        self.sent += data

    def wait_closed(self, timeout=10.0):
        """True once the agent has closed (EOF or reset); bytes read meanwhile
        stay available to read_frame()."""
        deadline = self._deadline(timeout)
        if self.peer_closed:
            return True
        try:
            while self._fill(deadline):
                pass
        except TimeoutError:
            return False
        return True

    # ----- handshake -------------------------------------------------------

    def read_request(self, timeout=10.0):
        """Read the upgrade request up to and including the blank line."""
        deadline = self._deadline(timeout)
        while b"\r\n\r\n" not in self._buf:
            if not self._fill(deadline):
                raise EOFError("agent closed during the request: %r" % bytes(self._buf))
        end = self._buf.index(b"\r\n\r\n") + 4
        raw = bytes(self._buf[:end])
        del self._buf[:end]
        self.request = HttpRequest(raw)
        return self.request

    def send_response(self, **kwargs):
        """Send build_response(key=<the request's key>, **kwargs)."""
        kwargs.setdefault("key", self.request.key if self.request else None)
        self.send_raw(build_response(**kwargs))

    def handshake(self, timeout=10.0, **kwargs):
        """accept() if needed, read the request and answer a correct 101."""
        if self.sock is None:
            self.accept(timeout)
        req = self.read_request(timeout)
        self.send_response(**kwargs)
        return req

    def refuse(self, status=503, reason="Service Unavailable", timeout=10.0,
               extra_headers=()):
        """Accept the next connection, read its upgrade request, answer it
        with a plain HTTP status (no upgrade headers, an empty body) and
        hang up.  Returns the request."""
        self.accept(timeout)
        req = self.read_request(timeout)
        self.send_response(status=status, reason=reason, upgrade=False,
                           accept=False, protocol=None,
                           extra_headers=["Content-Length: 0"] + list(extra_headers))
        self.close()
        return req

    # ----- raw TLS ---------------------------------------------------------

    def send_partial_tls_record(self, payload, keep=10):
        """Encrypt payload into a TLS record and send only its first `keep`
        bytes (the 5-byte record header and a few bytes of the body): the
        agent sees a record begin and never end.  Needs tls="memory".
        Returns (the bytes sent, the whole record): the rest may follow
        later with send_raw_tls()."""
        if not isinstance(self.sock, MemoryTlsSocket):
            raise RuntimeError("raw TLS records need RawPeer(tls=\"memory\")")
        if isinstance(payload, str):
            payload = payload.encode("utf-8")
        record = self.sock.record_bytes(payload)
        part = record[:keep]
        self.send_raw_tls(part)
        return part, record

    def send_raw_tls(self, data):
        """Put bytes on the wire below TLS (ciphertext as it is)."""
        raw = self.sock.raw if isinstance(self.sock, MemoryTlsSocket) else self.sock
        raw.sendall(data)

    # ----- frames ----------------------------------------------------------

    def send_frame(self, payload=b"", opcode=OP_TEXT, **kwargs):
        """Send encode_frame(payload, opcode, **kwargs); returns the bytes."""
        data = encode_frame(payload, opcode, **kwargs)
        self.send_raw(data)
        return data

    def send_text(self, text, **kwargs):
        return self.send_frame(text, OP_TEXT, **kwargs)

    def send_ping(self, payload=b"", **kwargs):
        return self.send_frame(payload, OP_PING, **kwargs)

    def send_pong(self, payload=b"", **kwargs):
        return self.send_frame(payload, OP_PONG, **kwargs)

    def send_close(self, code=None, reason=b"", **kwargs):
        payload = b"" if code is None else struct.pack("!H", code) + (
            reason.encode() if isinstance(reason, str) else reason)
        return self.send_frame(payload, OP_CLOSE, **kwargs)

    def read_frame(self, timeout=10.0):
        """Next frame from the agent (TimeoutError; EOFError if it closed)."""
        return self._read_frame_by(self._deadline(timeout))

    def _read_frame_by(self, deadline):
        while True:
            got = decode_frame(self._buf)
            if got is not None:
                frame, used = got
                del self._buf[:used]
                return frame
            if not self._fill(deadline):
                raise EOFError("agent closed; %d unparsed bytes" % len(self._buf))

    def read_message(self, timeout=10.0, answer_pings=False):
        """Next text/binary frame, skipping control frames (optionally
        answering pings); a close frame raises EOFError."""
        deadline = self._deadline(timeout)
        while True:
            frame = self._read_frame_by(deadline)
            if frame.opcode in (OP_TEXT, OP_BINARY, OP_CONT):
                return frame
            if frame.opcode == OP_CLOSE:
                raise EOFError("agent sent a close frame: %r" % frame)
            if frame.opcode == OP_PING and answer_pings:
                self.send_pong(frame.payload)


if __name__ == "__main__":
    # Tiny manual check: wait for one client, answer the handshake, print frames.
    peer = RawPeer(tls="--tls" in sys.argv)
    print("listening on", peer.url(), flush=True)
    peer.accept(600)
    print(peer.handshake().raw.decode("latin-1"), flush=True)
    peer.send_ping(b"hi")
    while True:
        try:
            print(peer.read_frame(60), flush=True)
        except (EOFError, TimeoutError) as exc:
            print(exc)
            break
