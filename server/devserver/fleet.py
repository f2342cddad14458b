"""The device server in front of a fleet: per-device state and the hooks of
the fleet's scenarios (fleet/README.md).

FleetState observes a DeviceServer (api.py, retain=False: nothing grows
with every frame) and keeps, for every device, addressed by its MAC (the
Origin header of its connections), not by its latest connection:

    connected or not, the connection open now, when each connection
    opened and closed, the Sec-WebSocket-Key of each, status updates
    (count, the last one), events (count, the last few), requests sent
    to it and every reply to them (so that a reply that never came or
    came twice shows).

and offers what a scenario needs: send one request to every device
(request_all), read the replies (replies), go away for T seconds and come
back (go_away: the listening socket closes, every connection is half-closed
as a server process that ends closes its sockets, the agents' last frames
are still read, then the server listens again), and read the counts
(counts, devices, timeline).

A process of its own (server/fleet_server.py) serves it to the fleet's
runner over a Unix socket: one JSON object a line each way.

    {"cmd": "counts"}
    {"cmd": "request_all", "method": M, "params": {...}, "id": ID}
          ("deviceId": null in params is each device's own MAC)
    {"cmd": "replies", "id": ID}
    {"cmd": "go_away", "seconds": T, "mode": "close"|"drop",
     "request": {"method": M, "params": {...}, "id": ID}}
    {"cmd": "devices"}          {"cmd": "timeline"}          {"cmd": "stop"}
"""
import asyncio
import json
import os
import socket
import threading
import time

EVENTS_KEPT = 20


class DeviceRecord(object):
    __slots__ = ("mac", "conn", "opened", "closed", "keys", "status_updates",
                 "last_status", "last_status_at", "events", "last_events",
                 "requests", "replies", "other")

    def __init__(self, mac):
        self.mac = mac
        self.conn = None            # the connection open now
        self.opened = []            # (time, connection index)
        self.closed = []            # (time, connection index)
        self.keys = []              # Sec-WebSocket-Key of every connection
        self.status_updates = 0
        self.last_status = None
        self.last_status_at = None
        self.events = 0
        self.last_events = []
        self.requests = {}          # id -> (time sent, connection index)
        self.replies = {}           # id -> [(time, connection index, summary)]
        self.other = 0              # other messages

    @property
    def connected(self):
        return self.conn is not None and self.conn.is_open

    def summary(self):
        return {"mac": self.mac, "connected": self.connected,
                "connections": len(self.opened),
                "opened": [t for t, _ in self.opened],
                "closed": [t for t, _ in self.closed],
                "status_updates": self.status_updates,
                "last_status_at": self.last_status_at,
                "events": self.events, "last_events": self.last_events,
                "keys": self.keys}


def _reply_summary(data):
    if "error" in data:
        err = data.get("error")
        return {"error": err.get("code") if isinstance(err, dict) else None}
    result = data.get("result")
    if isinstance(result, dict):
        # what a check needs: the identity members of dxGetAbout and the like
        return {"result": {k: result[k] for k in ("deviceId", "macAddress", "firmware",
                                                  "model", "serviceTag", "lanAddress")
                           if k in result}}
    return {"result": None}


class FleetState(object):
    """Per-device state of the devices connected to `server` (a started
    DeviceServer) and the fleet's hooks."""

    def __init__(self, server):
        self.server = server
        self.devices = {}           # mac -> DeviceRecord
        self.timeline = []          # (time, mac, +1 opened / -1 closed)
        self.away = []              # (went, back) of every go_away, back None while away
        self.started_at = time.time()
        self.messages = 0
        self.bytes_in = 0
        self._lock = threading.Lock()
        self._closing = threading.Event()
        self._returns = []          # the threads that bring the server back
        server.add_observer(self)

    def close(self):
        """No coming back any more: a server away stays away (its
        return thread ends without listening again).  Before the server
        stops."""
        self._closing.set()
        for t in list(self._returns):
            t.join(15)

    def _device(self, mac):
        dev = self.devices.get(mac)
        if dev is None:
            dev = self.devices[mac] = DeviceRecord(mac)
        return dev

    # ----- observer of the server (its loop thread) ------------------------

    def on_open(self, conn):
        mac = conn.origin or "(no origin)"
        with self._lock:
            dev = self._device(mac)
            dev.conn = conn
            dev.opened.append((conn.opened_at, conn.index))
            dev.keys.append(conn.key)
            self.timeline.append((conn.opened_at, mac, 1))

    def on_close(self, conn):
        mac = conn.origin or "(no origin)"
        at = conn.closed_at or time.time()
        with self._lock:
            dev = self._device(mac)
            dev.closed.append((at, conn.index))
            if dev.conn is conn:
                dev.conn = None
            self.timeline.append((at, mac, -1))

    def on_message(self, conn, raw, data, method, at):
        mac = conn.origin or "(no origin)"
        with self._lock:
            self.messages += 1
            self.bytes_in += len(raw)
            dev = self._device(mac)
            if not isinstance(data, dict):
                dev.other += 1
                return
            kind = data.get("method")
            if kind == "dsLogStatusUpdates":
                dev.status_updates += 1
                params = data.get("params")
                dev.last_status = params if isinstance(params, dict) else None
                dev.last_status_at = at
            elif kind == "dsEventNotifications":
                params = data.get("params") if isinstance(data.get("params"), dict) else {}
                events = [e for e in params.get("events") or [] if isinstance(e, dict)]
                dev.events += len(events)
                dev.last_events = (dev.last_events + events)[-EVENTS_KEPT:]
            elif kind is None and ("result" in data or "error" in data) \
                    and data.get("stream") is not True:
                rid = data.get("id")
                key = rid if isinstance(rid, str) else json.dumps(rid)
                dev.replies.setdefault(key, []).append(
                    (at, conn.index, _reply_summary(data)))
            else:
                dev.other += 1

    # ----- hooks ------------------------------------------------------------

    def request_all(self, method, params=None, rid=None, macs=None, timeout=30.0,
                    spread=0.0):
        """Sends the request to every connected device (or those of macs
        that are connected), "deviceId": None in params being each one's
        MAC; returns {"id", "sent": [macs], "skipped": [macs not connected],
        "sent_at": first, "took": seconds the sending took}.  spread:
        the sends are spread evenly over this many seconds (a server's
        everyday traffic) instead of going out at once (a burst); the call
        returns once the last has gone."""
        rid = rid or "fleet-%d" % int(time.time() * 1000)
        with self._lock:
            targets = []
            skipped = []
            names = list(self.devices) if macs is None else list(macs)
            for mac in names:
                dev = self.devices.get(mac)
                if dev is not None and dev.connected:
                    targets.append((mac, dev.conn))
                else:
                    skipped.append(mac)

        async def send_all():
            sent = []
            step = spread / len(targets) if targets and spread > 0 else 0.0
            start = time.monotonic()
            for k, (mac, conn) in enumerate(targets):
                if step:
                    await asyncio.sleep(max(0.0, start + k * step - time.monotonic()))
                if await self._send_request(mac, conn, method, params, rid):
                    sent.append(mac)
                else:
                    skipped.append(mac)
            return sent

        started = time.time()
        sent = self.server._call(send_all(), timeout + spread)
        return {"id": rid, "sent": sent, "skipped": skipped, "sent_at": started,
                "took": time.time() - started}

    async def _send_request(self, mac, conn, method, params, rid):
        """(loop thread) The request to one device; False when its
        connection failed."""
        p = dict(params or {})
        if "deviceId" in p and p["deviceId"] is None:
            p["deviceId"] = mac
        text = json.dumps({"jsonrpc": "2.0", "id": rid, "method": method,
                           "params": p}, separators=(",", ":"))
        at = time.time()
        try:
            self.server._note_sent(conn, text)
            await conn.link.send(text)
        except (ConnectionError, OSError):
            return False
        with self._lock:
            self.devices[mac].requests[rid] = (at, conn.index)
        return True

    def replies(self, rid):
        """{mac: {"sent": time, "sent_conn": index, "replies": [[time, conn
        index, summary]...]}} of every device the request went to."""
        with self._lock:
            out = {}
            for mac, dev in self.devices.items():
                if rid not in dev.requests and rid not in dev.replies:
                    continue
                sent = dev.requests.get(rid)
                out[mac] = {"sent": sent[0] if sent else None,
                            "sent_conn": sent[1] if sent else None,
                            "replies": [list(r) for r in dev.replies.get(rid, [])]}
            return out

    def go_away(self, seconds, grace=3.0, mode="close", request=None):
        """The server goes away for `seconds` and comes back, as a server
        that is restarted: it stops listening (an agent's connect is
        refused) and ends every connection, then listens again `seconds`
        after it went.  mode "close": a WebSocket close frame with 1001
        (going away) on every connection, as a server shutting down
        sends; what an agent sent before its own close frame is still
        read and recorded; a connection not closed within `grace` seconds
        is aborted.  mode "drop": every connection is aborted at once
        (TCP reset), as when the server's host fails: a frame an agent
        sent at that moment is lost on the way.  request ({"method",
        "params", "id"}): sent on each connection right before its close
        frame (mode close), so that the reply can only leave the device
        once it has reconnected.  Returns once the connections are being
        closed: {"went": time, "back_at": planned} and, with a request,
        "id", "sent" and "skipped" as request_all's."""
        if mode not in ("close", "drop"):
            raise ValueError("mode is close or drop")
        went = time.time()
        with self._lock:
            self.away.append([went, None])
            record = self.away[-1]
        self.server.pause()

        rid = None
        if request is not None:
            rid = request.get("id") or "fleet-%d" % int(went * 1000)
        outcome = {"sent": [], "skipped": []}
        begun = threading.Event()

        async def end_all():
            targets = [(mac, dev.conn) for mac, dev in list(self.devices.items())
                       if dev.conn is not None and dev.conn.is_open]
            links = []
            try:
                if rid is not None:
                    for mac, conn in targets:
                        ok = await self._send_request(mac, conn, request["method"],
                                                      request.get("params"), rid)
                        outcome["sent" if ok else "skipped"].append(mac)
                        if mode == "close":
                            # the close frame right behind the request: the
                            # task writes it as soon as it runs, before the
                            # next device's request (sending does not
                            # otherwise give the loop a turn)
                            links.append((conn.link, self._close_soon(conn.link)))
                            await asyncio.sleep(0)
                if mode == "close" and rid is None:
                    links = [(conn.link, self._close_soon(conn.link)) for _, conn in targets]
            finally:
                begun.set()
            if mode == "drop":
                for _, conn in targets:
                    conn.link.abort()
                return
            closing = [task for _, task in links if task is not None]
            for link, task in links:
                if task is None:
                    link.abort()
            if closing:
                await asyncio.wait(closing, timeout=grace)
            for task in closing:
                if not task.done():
                    task.cancel()
                elif not task.cancelled():
                    task.exception()        # (a connection closed meanwhile)
            for link, _ in links:
                link.abort()                # those still there

        self.server._submit(end_all())
        begun.wait(30.0)

        def come_back():
            if self._closing.wait(max(0.0, went + seconds - time.time())):
                return
            if getattr(self.server, "_loop", None) is None:
                return              # stopped meanwhile (stop() without close())
            try:
                self.server.resume()
            except Exception:
                # stopped while it resumed: it stays away
                if self._closing.is_set() or getattr(self.server, "_loop", None) is None:
                    return
                raise
            with self._lock:
                record[1] = time.time()

        t = threading.Thread(target=come_back, name="fleet-back", daemon=True)
        self._returns = [x for x in self._returns if x.is_alive()] + [t]
        t.start()
        out = {"went": went, "back_at": went + seconds, "mode": mode}
        if rid is not None:
            out.update({"id": rid, "sent": outcome["sent"], "skipped": outcome["skipped"]})
        return out

    @staticmethod
    def _close_soon(link):
        """(loop thread) The close frame of a server going away, as a
        task; None when the connection closed meanwhile."""
        try:
            return asyncio.ensure_future(link.close(1001, "going away"))
        except Exception:
            return None

    def counts(self):
        with self._lock:
            devs = list(self.devices.values())
            return {"at": time.time(), "known": len(devs),
                    "connected": sum(1 for d in devs if d.connected),
                    "connections": sum(len(d.opened) for d in devs),
                    "status_updates": sum(d.status_updates for d in devs),
                    "events": sum(d.events for d in devs),
                    "replies": sum(len(r) for d in devs for r in d.replies.values()),
                    "requests": sum(len(d.requests) for d in devs),
                    "messages": self.messages, "bytes_in": self.bytes_in,
                    "listening": self.server.listening,
                    "away": [list(a) for a in self.away]}

    def device_summaries(self):
        with self._lock:
            return {mac: dev.summary() for mac, dev in self.devices.items()}

    def timeline_since(self, index=0):
        with self._lock:
            return [list(e) for e in self.timeline[index:]]


# ----- the process: a DeviceServer, its FleetState and the control socket --------

def serve_control(state, path, stop):
    """Answers the runner's commands on the Unix socket at path until a
    "stop" command (then stop is set)."""
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        os.unlink(path)
    except FileNotFoundError:
        pass
    listener.bind(path)
    os.chmod(path, 0o600)
    listener.listen(8)

    def handle(conn):
        f = conn.makefile("rwb", buffering=0)
        try:
            for line in f:
                try:
                    cmd = json.loads(line)
                    answer = {"ok": True, "data": _command(state, cmd, stop)}
                except Exception as exc:          # the answer says what failed
                    answer = {"ok": False, "error": "%s: %s" % (type(exc).__name__, exc)}
                f.write(json.dumps(answer, separators=(",", ":")).encode() + b"\n")
                if stop.is_set():
                    break
        except (OSError, ValueError):
            pass
        finally:
            conn.close()

    def accept_loop():
        while not stop.is_set():
            try:
                conn, _ = listener.accept()
            except OSError:
                return
            threading.Thread(target=handle, args=(conn,), daemon=True).start()

    threading.Thread(target=accept_loop, name="fleet-control", daemon=True).start()
    return listener


def _command(state, cmd, stop):
    name = cmd.get("cmd")
    if name == "counts":
        return state.counts()
    if name == "request_all":
        return state.request_all(cmd["method"], cmd.get("params"), cmd.get("id"),
                                 cmd.get("macs"), spread=float(cmd.get("spread", 0.0)))
    if name == "replies":
        return state.replies(cmd["id"])
    if name == "go_away":
        return state.go_away(float(cmd["seconds"]), float(cmd.get("grace", 3.0)),
                             cmd.get("mode", "close"), cmd.get("request"))
    if name == "devices":
        return state.device_summaries()
    if name == "timeline":
        return state.timeline_since(int(cmd.get("since", 0)))
    if name == "stop":
        stop.set()
        return {}
    raise ValueError("unknown command %r" % (name,))


def main(argv=None):
    import argparse
    import signal
    from .api import DeviceServer
    ap = argparse.ArgumentParser(description="The device server of a fleet (fleet/README.md)")
    ap.add_argument("--host", default="127.0.0.1")
    ap.add_argument("--port", type=int, default=8765)
    ap.add_argument("--path", default="")
    ap.add_argument("--tls", action="store_true")
    ap.add_argument("--cert-dir", default=None)
    ap.add_argument("--ping-interval", type=float, default=20.0)
    ap.add_argument("--control", required=True, help="Unix socket of the runner's commands")
    args = ap.parse_args(argv)
    server = DeviceServer(port=args.port, host=args.host, tls=args.tls, url_path=args.path,
                          ping_interval=args.ping_interval, echo=False, retain=False,
                          validate=False, cert_dir=args.cert_dir)
    server.start()
    state = FleetState(server)
    stop = threading.Event()
    listener = serve_control(state, args.control, stop)
    for sig in (signal.SIGTERM, signal.SIGINT):
        signal.signal(sig, lambda *_: stop.set())
    print("ready %s" % server.url, flush=True)
    try:
        while not stop.wait(1.0):
            pass
    finally:
        listener.close()
        state.close()
        server.stop()
    return 0
