"""The devices the console knows: every agent connected to any of the device
servers given, what each reports, and requests sent to one named by its MAC.
Everything is kept in the Store (SQLite) as it arrives.

    devices = Devices([server, ...], store, protocol)
    devices.request(mac, "dxGetAbout", {"deviceId": mac})   # -> dict (see below)

On every new connection it asks the agent "dxGetAbout" (model, firmware,
LAN address), as a request of the source "auto".
"""
import itertools
import json
import threading
import time

REQUEST_TIMEOUT = 30.0


class Devices(object):
    def __init__(self, servers, store, protocol, about_on_connect=True):
        self.servers = list(servers)
        self.store = store
        self.protocol = protocol
        self.about_on_connect = about_on_connect
        self._lock = threading.Lock()
        self._conns = {}         # mac -> (server, Connection) of the open connection
        self._ids = itertools.count(1)
        self._id_prefix = "c%d-" % int(time.time())
        for server in self.servers:
            server.add_observer(self)

    # ----- observer of the device servers (loop threads) ---------------------------

    def on_open(self, conn):
        mac = conn.origin or "(no origin)"
        with self._lock:
            self._conns[mac] = conn
        self.store.device_connected(mac, conn.opened_at)
        if self.about_on_connect:
            threading.Thread(target=self._about, args=(mac, conn), daemon=True).start()

    def on_close(self, conn):
        mac = conn.origin or "(no origin)"
        with self._lock:
            if self._conns.get(mac) is not conn:
                return
            del self._conns[mac]
        self.store.device_disconnected(mac, conn.closed_at)

    def on_message(self, conn, raw, data, method, at):
        mac = conn.origin or "(no origin)"
        if not isinstance(data, dict):
            return
        params = data.get("params") if isinstance(data.get("params"), dict) else {}
        if data.get("method") == "dsLogStatusUpdates":
            for update in params.get("updates") or []:
                if isinstance(update, dict):
                    self.store.add_status(mac, update, raw, at)
        elif data.get("method") == "dsEventNotifications":
            for event in params.get("events") or []:
                if isinstance(event, dict):
                    self.store.add_event(mac, event, at)
        elif data.get("stream") is True and isinstance(data.get("result"), dict):
            for line in data["result"].get("logs") or []:
                if isinstance(line, dict):
                    self.store.add_log(mac, line, at)

    # ----- requests ---------------------------------------------------------------

    def connection(self, mac):
        with self._lock:
            return self._conns.get(mac)

    def connected(self):
        with self._lock:
            return dict(self._conns)

    def _server_for(self, conn):
        for server in self.servers:
            if any(c is conn for c in server.connections):
                return server
        return None

    def _about(self, mac, conn):
        got = self.request(mac, "dxGetAbout", {"deviceId": mac}, source="auto", conn=conn)
        reply = got.get("reply_data")
        if isinstance(reply, dict) and isinstance(reply.get("result"), dict):
            self.store.device_about(mac, reply["result"])

    def new_id(self):
        return self._id_prefix + str(next(self._ids))

    def request(self, mac, method, params, source="console", timeout=REQUEST_TIMEOUT,
                conn=None, id=None):
        """Sends one request to the device and waits for its reply.
        Returns {"id", "request", "reply", "reply_data", "rtt_ms", "outcome",
        "history_id"}; outcome is "result", "error", "timeout", "sent" (a
        method whose answers come as streamed results) or "offline"."""
        conn = conn or self.connection(mac)
        rid = id or self.new_id()
        text = json.dumps({"jsonrpc": "2.0", "id": rid, "method": method, "params": params},
                          separators=(",", ":"))
        out = {"id": rid, "request": text, "reply": None, "reply_data": None,
               "rtt_ms": None, "outcome": "offline"}
        server = self._server_for(conn) if conn is not None else None
        if server is None or not conn.is_open:
            out["history_id"] = self.store.add_request(mac, source, method, text, None, None,
                                                       "offline")
            return out
        m = self.protocol.method(method) if self.protocol else None
        started = time.monotonic()
        try:
            if m is not None and m.get("x-streamed"):
                server.send_text(text, conn=conn)
                out["outcome"] = "sent"
            else:
                reply = server.request_raw(text, expect_id=rid, timeout=timeout, conn=conn)
                out["rtt_ms"] = round((time.monotonic() - started) * 1000.0, 1)
                out["reply"], out["reply_data"] = reply.raw, reply.data
                out["outcome"] = "error" if "error" in reply.data else "result"
        except TimeoutError:
            out["outcome"] = "timeout"
        except ConnectionError:
            out["outcome"] = "offline"
        out["history_id"] = self.store.add_request(mac, source, method, text, out["reply"],
                                                   out["rtt_ms"], out["outcome"])
        return out
