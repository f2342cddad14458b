#!/usr/bin/python3
"""Device server on Python's websockets library (server/device_server.py),
driven over standard input and output with one JSON object per line (the
control protocol of tests/interop/README.md).

    /usr/bin/python3 tests/interop/py_server.py [--host H] [--port N] [--tls --cert-dir D]

Only DeviceServer's public API is used: connections, pongs, messages and
closings are watched by small threads and reported as events.
"""
import argparse
import json
import os
import sys
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "server"))
from device_server import DeviceServer  # noqa: E402

_out_lock = threading.Lock()


def emit(**event):
    line = json.dumps(event, separators=(",", ":"))
    with _out_lock:
        sys.stdout.write(line + "\n")
        sys.stdout.flush()


class Adapter(object):
    def __init__(self, server):
        self.server = server
        self.stopping = threading.Event()

    def start(self):
        for target in (self._watch_connections, self._watch_messages):
            threading.Thread(target=target, daemon=True).start()

    def _watch_connections(self):
        while not self.stopping.is_set():
            try:
                conn = self.server.wait_for_connection(0.2)
            except TimeoutError:
                continue
            emit(event="open", conn=conn.index, method=None, path=conn.path,
                 version=None, protocol=conn.subprotocol,
                 headers=[list(h) for h in conn.headers], tls=conn.tls,
                 resumed=conn.tls_session_reused)
            threading.Thread(target=self._watch_connection, args=(conn,),
                             daemon=True).start()

    def _watch_connection(self, conn):
        """Reports the connection's pongs, then its closing."""
        seen = 0
        while not self.stopping.is_set():
            if self.server.wait_for_pong(0.1, conn=conn, count=seen + 1):
                emit(event="pong", conn=conn.index, payload=conn.pongs[seen][1].hex())
                seen += 1
            elif conn.wait_closed(0):
                if len(conn.pongs) > seen:
                    continue
                emit(event="closed", conn=conn.index, code=conn.close_code,
                     reason=conn.close_reason)
                return

    def _watch_messages(self):
        while not self.stopping.is_set():
            try:
                msg = self.server.next_message(0.2)
            except TimeoutError:
                continue
            emit(event="text", conn=msg.conn.index, text=msg.raw)

    def _target(self, cmd):
        index = cmd.get("conn")
        if index is None:
            conn = self.server.current
            if conn is None:
                raise ConnectionError("no open connection")
            return conn
        for conn in self.server.connections:
            if conn.index == index and conn.is_open:
                return conn
        raise ConnectionError("connection %s is not open" % index)

    def _ping(self, conn, payload):
        try:
            self.server.ping(payload, timeout=10, conn=conn)
        except Exception:  # the pong (or its absence) is reported by the watcher
            pass

    def run(self, cmd):
        name = cmd.get("cmd")
        if name == "send":
            self.server.send_text(cmd["text"], conn=self._target(cmd))
        elif name == "ping":
            conn = self._target(cmd)
            payload = bytes.fromhex(cmd.get("payload", ""))
            threading.Thread(target=self._ping, args=(conn, payload), daemon=True).start()
        elif name == "close":
            self.server.close(cmd.get("code", 1000), cmd.get("reason", ""),
                              conn=self._target(cmd), wait=False)
        elif name == "quit":
            return False
        else:
            raise ValueError("unknown command %r" % name)
        return True


def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--host", default="127.0.0.1")
    ap.add_argument("--port", type=int, default=0)
    ap.add_argument("--tls", action="store_true")
    ap.add_argument("--cert-dir", default=None)
    args = ap.parse_args(argv)
    if args.tls and not args.cert_dir:
        ap.error("--tls needs --cert-dir")

    server = DeviceServer(port=args.port, host=args.host, tls=args.tls,
                          ping_interval=None, echo=False, cert_dir=args.cert_dir)
    server.start()
    adapter = Adapter(server)
    adapter.start()
    emit(event="listening", server="python", port=server.port, tls=args.tls)
    try:
        for line in sys.stdin:
            if not line.strip():
                continue
            cmd = {}
            try:
                cmd = json.loads(line)
                going_on = adapter.run(cmd)
                emit(event="ack", cmd=cmd.get("cmd"), seq=cmd.get("seq"), ok=True)
            except Exception as exc:
                emit(event="ack", cmd=cmd.get("cmd"), seq=cmd.get("seq"), ok=False,
                     error=str(exc) or type(exc).__name__)
                going_on = True
            if not going_on:
                break
    finally:
        adapter.stopping.set()
        server.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
