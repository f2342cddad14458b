"""What the console keeps: devices, status history, events, streamed log
lines and every request with its reply, in one SQLite file (Python's
sqlite3, nothing to install).  Reopening the file gives everything back.

All methods are thread-safe (one connection, one lock); rows come back as
plain dicts.
"""
import json
import sqlite3
import threading
import time

SCHEMA = """
CREATE TABLE IF NOT EXISTS devices (
    mac TEXT PRIMARY KEY,
    model TEXT, firmware TEXT, lan_address TEXT, service_tag TEXT,
    first_seen REAL, connected INTEGER DEFAULT 0,
    connected_since REAL, disconnected_at REAL,
    last_status_at REAL, last_status TEXT
);
CREATE TABLE IF NOT EXISTS status (
    id INTEGER PRIMARY KEY AUTOINCREMENT, mac TEXT, at REAL, date_time TEXT,
    cpu INTEGER, mem_free INTEGER, mem_used INTEGER, lan_rx REAL, lan_tx REAL,
    radio_rx REAL, radio_tx REAL, raw TEXT
);
CREATE INDEX IF NOT EXISTS status_mac ON status (mac, id);
CREATE TABLE IF NOT EXISTS events (
    id INTEGER PRIMARY KEY AUTOINCREMENT, mac TEXT, at REAL,
    number INTEGER, date_time TEXT, type TEXT, event TEXT
);
CREATE INDEX IF NOT EXISTS events_mac ON events (mac, id);
CREATE TABLE IF NOT EXISTS logs (
    id INTEGER PRIMARY KEY AUTOINCREMENT, mac TEXT, at REAL,
    date_time TEXT, message TEXT
);
CREATE INDEX IF NOT EXISTS logs_mac ON logs (mac, id);
CREATE TABLE IF NOT EXISTS requests (
    id INTEGER PRIMARY KEY AUTOINCREMENT, mac TEXT, at REAL, source TEXT,
    method TEXT, request TEXT, reply TEXT, rtt_ms REAL, outcome TEXT
);
CREATE INDEX IF NOT EXISTS requests_mac ON requests (mac, id);
"""


class Store(object):
    def __init__(self, path):
        self.path = path
        self._lock = threading.Lock()
        self._db = sqlite3.connect(path, check_same_thread=False, isolation_level=None)
        self._db.row_factory = sqlite3.Row
        with self._lock:
            self._db.execute("PRAGMA journal_mode=WAL")
            self._db.executescript(SCHEMA)
            # nothing is connected before this process accepts a connection
            self._db.execute("UPDATE devices SET connected = 0")

    def close(self):
        with self._lock:
            self._db.close()

    def _exec(self, sql, args=()):
        with self._lock:
            return self._db.execute(sql, args)

    def _rows(self, sql, args=()):
        with self._lock:
            return [dict(r) for r in self._db.execute(sql, args).fetchall()]

    # ----- devices ------------------------------------------------------------

    def device_connected(self, mac, at=None):
        at = at or time.time()
        self._exec("INSERT INTO devices (mac, first_seen, connected, connected_since) "
                   "VALUES (?, ?, 1, ?) ON CONFLICT(mac) DO UPDATE SET connected = 1, "
                   "connected_since = excluded.connected_since", (mac, at, at))

    def device_disconnected(self, mac, at=None):
        self._exec("UPDATE devices SET connected = 0, disconnected_at = ? WHERE mac = ?",
                   (at or time.time(), mac))

    def device_about(self, mac, about):
        self._exec("UPDATE devices SET model = ?, firmware = ?, lan_address = ?, "
                   "service_tag = ? WHERE mac = ?",
                   (about.get("model"), about.get("firmware"), about.get("lanAddress"),
                    about.get("serviceTag"), mac))

    def devices(self):
        rows = self._rows("SELECT * FROM devices ORDER BY mac")
        for r in rows:
            r["last_status"] = json.loads(r["last_status"]) if r["last_status"] else None
            r["connected"] = bool(r["connected"])
        return rows

    def device(self, mac):
        for r in self.devices():
            if r["mac"] == mac:
                return r
        return None

    # ----- what the agent sends --------------------------------------------------

    def add_status(self, mac, update, raw, at=None):
        at = at or time.time()
        system = update.get("system") or {}
        lan = update.get("lan") or {}
        radios = update.get("radios") or []
        rrx = sum(r.get("rx") or 0 for r in radios if isinstance(r, dict))
        rtx = sum(r.get("tx") or 0 for r in radios if isinstance(r, dict))
        row = (mac, at, update.get("dateTime"), system.get("cpu"), system.get("memFree"),
               system.get("memUsed"), lan.get("rx"), lan.get("tx"), rrx, rtx, raw)
        self._exec("INSERT INTO status (mac, at, date_time, cpu, mem_free, mem_used, lan_rx, "
                   "lan_tx, radio_rx, radio_tx, raw) VALUES (?,?,?,?,?,?,?,?,?,?,?)", row)
        self._exec("UPDATE devices SET last_status_at = ?, last_status = ? WHERE mac = ?",
                   (at, json.dumps(update), mac))

    def status(self, mac, after=0, limit=500):
        rows = self._rows("SELECT id, at, date_time, cpu, mem_free, mem_used, lan_rx, lan_tx, "
                          "radio_rx, radio_tx FROM status WHERE mac = ? AND id > ? "
                          "ORDER BY id DESC LIMIT ?", (mac, after, limit))
        return rows[::-1]

    def add_event(self, mac, event, at=None):
        self._exec("INSERT INTO events (mac, at, number, date_time, type, event) "
                   "VALUES (?,?,?,?,?,?)",
                   (mac, at or time.time(), event.get("number"), event.get("dateTime"),
                    event.get("type"), event.get("event")))

    def events(self, mac, after=0, limit=500):
        return self._rows("SELECT * FROM events WHERE mac = ? AND id > ? ORDER BY id DESC "
                          "LIMIT ?", (mac, after, limit))[::-1]

    def add_log(self, mac, line, at=None):
        self._exec("INSERT INTO logs (mac, at, date_time, message) VALUES (?,?,?,?)",
                   (mac, at or time.time(), line.get("dateTime"), line.get("message")))

    def logs(self, mac, after=0, limit=1000):
        return self._rows("SELECT * FROM logs WHERE mac = ? AND id > ? ORDER BY id DESC "
                          "LIMIT ?", (mac, after, limit))[::-1]

    # ----- requests --------------------------------------------------------------

    def add_request(self, mac, source, method, request, reply, rtt_ms, outcome, at=None):
        cur = self._exec("INSERT INTO requests (mac, at, source, method, request, reply, "
                         "rtt_ms, outcome) VALUES (?,?,?,?,?,?,?,?)",
                         (mac, at or time.time(), source, method, request, reply, rtt_ms,
                          outcome))
        return cur.lastrowid

    def requests(self, mac=None, after=0, limit=200):
        if mac:
            rows = self._rows("SELECT * FROM requests WHERE mac = ? AND id > ? ORDER BY id "
                              "DESC LIMIT ?", (mac, after, limit))
        else:
            rows = self._rows("SELECT * FROM requests WHERE id > ? ORDER BY id DESC LIMIT ?",
                              (after, limit))
        return rows
