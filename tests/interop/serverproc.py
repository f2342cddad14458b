"""One device server of the interoperability suite, as a child process driven
over its standard input and output (see README.md beside this file).

    srv = ServerProcess("lws", host="127.0.0.1", tls=True, cert_dir=d).start()
    opened = srv.wait_open(20)             # {"conn": 1, "headers": [...], ...}
    srv.send('{"jsonrpc":"2.0",...}')
    srv.wait_text(opened["conn"], 10)      # the text the agent sent
    srv.ping(b"abc"); srv.wait_pong(opened["conn"], 10)
    srv.close(1000); srv.wait_closed(opened["conn"], 10)
    srv.stop()

Every server reports the same events; `caps` tells what each library can
report at all (exact header names and order, close codes of closings the
server started, TLS session resumption).
"""
import json
import os
import subprocess
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.abspath(os.path.join(HERE, "..", ".."))
PYTHON = "/usr/bin/python3"


class Kind(object):
    def __init__(self, name, argv, exact_headers, close_code_after_server_close,
                 request_line, reports_resumption, reports_empty_pong):
        self.name = name
        self.argv = argv                      # callable -> argv list
        self.exact_headers = exact_headers    # names as sent, in their order
        self.close_code_after_server_close = close_code_after_server_close
        self.request_line = request_line      # method and HTTP version reported
        self.reports_resumption = reports_resumption
        self.reports_empty_pong = reports_empty_pong


def _node():
    return os.environ.get("KC_NODE") or "node"


def _lws():
    return os.environ.get("KC_LWS_SERVER") or os.path.join(
        ROOT, "build", "tests", "interop", "lws_server")


KINDS = {
    "python": Kind("python", lambda: [PYTHON, os.path.join(HERE, "py_server.py")],
                   exact_headers=True, close_code_after_server_close=True,
                   request_line=False, reports_resumption=True, reports_empty_pong=True),
    "ws": Kind("ws", lambda: [_node(), os.path.join(HERE, "ws_server.js")],
               exact_headers=True, close_code_after_server_close=True,
               request_line=True, reports_resumption=True, reports_empty_pong=True),
    "lws": Kind("lws", lambda: [_lws()],
                exact_headers=False, close_code_after_server_close=False,
                request_line=False, reports_resumption=True,
                # libwebsockets 4.1 passes on no pong without payload
                reports_empty_pong=False),
}


class ServerError(Exception):
    pass


class ServerProcess(object):
    def __init__(self, kind, host="127.0.0.1", tls=False, cert_dir=None,
                 popen=subprocess.Popen):
        self.kind = KINDS[kind]
        self.host = host
        self.tls = tls
        self.cert_dir = cert_dir
        self.popen = popen
        self.proc = None
        self.port = None
        self.events = []          # every event, in order of arrival
        self.stderr_lines = []
        self._taken = set()       # positions in events handed out by _take
        self._cond = threading.Condition()
        self._seq = 0
        self._eof = False

    # ----- process --------------------------------------------------------

    def argv(self):
        argv = self.kind.argv() + ["--host", self.host, "--port", "0"]
        if self.tls:
            argv += ["--tls", "--cert-dir", self.cert_dir]
        return argv

    def start(self, timeout=20.0):
        env = dict(os.environ)
        env.setdefault("NODE_PATH", "/usr/share/nodejs")
        self.proc = self.popen(self.argv(), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, env=env)
        threading.Thread(target=self._read_events, daemon=True).start()
        threading.Thread(target=self._read_stderr, daemon=True).start()
        listening = self._take(lambda e: e["event"] == "listening", timeout, "listening")
        self.port = listening["port"]
        return self

    def url(self, path=""):
        return "%s://%s:%d/%s" % ("wss" if self.tls else "ws", self.host, self.port,
                                  path.lstrip("/"))

    def stop(self, timeout=10.0):
        """Quit the server (ending its connections); kill it if it lingers."""
        if self.proc is None:
            return
        try:
            if self.proc.poll() is None:
                self.proc.stdin.write(b'{"cmd":"quit"}\n')
                self.proc.stdin.flush()
            self.proc.stdin.close()
        except (BrokenPipeError, OSError):
            pass
        try:
            self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait(5)
        self.proc.stdout.close()
        self.proc.stderr.close()

    def _read_events(self):
        for raw in iter(self.proc.stdout.readline, b""):
            try:
                event = json.loads(raw.decode("utf-8", "surrogateescape"))
            except ValueError:
                event = {"event": "garbage", "line": raw.decode("utf-8", "replace")}
            event["received_at"] = time.monotonic()
            with self._cond:
                self.events.append(event)
                self._cond.notify_all()
        with self._cond:
            self._eof = True
            self._cond.notify_all()

    def _read_stderr(self):
        for raw in iter(self.proc.stderr.readline, b""):
            self.stderr_lines.append(raw.decode("utf-8", "replace").rstrip("\n"))

    def describe(self):
        """The server's event and error lines, for failure messages."""
        def short(e):
            text = json.dumps(e)
            return text if len(text) < 300 else text[:300] + "..."
        return "%s server events:\n%s\nstandard error:\n%s" % (
            self.kind.name, "\n".join(short(e) for e in self.events[-40:]),
            "\n".join(self.stderr_lines[-40:]))

    # ----- events ---------------------------------------------------------

    def _take(self, match, timeout, what):
        """First event not yet taken that matches; marks it taken."""
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for i, event in enumerate(self.events):
                    if i not in self._taken and match(event):
                        self._taken.add(i)
                        return event
                left = deadline - time.monotonic()
                if left <= 0 or self._eof:
                    raise ServerError("%s: no %s within %.1f s%s\n%s" % (
                        self.kind.name, what, timeout,
                        " (server exited)" if self._eof else "", self.describe()))
                self._cond.wait(left)

    def wait_open(self, timeout=20.0):
        return self._take(lambda e: e["event"] == "open", timeout, "connection")

    def wait_text(self, conn=None, timeout=10.0):
        """The next text received (on connection conn); fails at once when
        that connection closes first."""
        def match(e):
            if e["event"] == "closed" and conn is not None and e["conn"] == conn:
                raise ServerError("%s: connection %s closed while waiting for text: %s\n%s"
                                  % (self.kind.name, conn, e, self.describe()))
            return e["event"] == "text" and conn in (None, e["conn"])
        return self._take(match, timeout, "text on connection %s" % conn)["text"]

    def wait_pong(self, conn=None, timeout=10.0):
        event = self._take(lambda e: e["event"] == "pong" and conn in (None, e["conn"]),
                           timeout, "pong on connection %s" % conn)
        return bytes.fromhex(event["payload"])

    def wait_closed(self, conn, timeout=10.0):
        return self._take(lambda e: e["event"] == "closed" and e["conn"] == conn,
                          timeout, "closing of connection %s" % conn)

    def texts(self, conn=None):
        """Every text received so far (taken or not)."""
        with self._cond:
            return [e["text"] for e in self.events
                    if e["event"] == "text" and conn in (None, e["conn"])]

    # ----- commands -------------------------------------------------------

    def command(self, cmd, timeout=10.0, **args):
        with self._cond:
            self._seq += 1
            seq = self._seq
        line = json.dumps(dict(args, cmd=cmd, seq=seq), separators=(",", ":"))
        self.proc.stdin.write(line.encode("utf-8") + b"\n")
        self.proc.stdin.flush()
        ack = self._take(lambda e: e["event"] == "ack" and e.get("seq") == seq,
                         timeout, "answer to %s" % cmd)
        if not ack["ok"]:
            raise ServerError("%s: %s failed: %s" % (self.kind.name, cmd, ack.get("error")))
        return ack

    def send(self, text, conn=None):
        self.command("send", text=text, conn=conn)

    def ping(self, payload=b"", conn=None):
        self.command("ping", payload=bytes(payload).hex(), conn=conn)

    def close(self, code=1000, reason="", conn=None):
        self.command("close", code=code, reason=reason, conn=conn)

    def request(self, text, conn=None, timeout=10.0):
        """Send a request text and return the next text the agent sends."""
        self.send(text, conn)
        return self.wait_text(conn, timeout)
