"""A JSON-lines history of every frame the device server saw, for test
suites in any language (`--history FILE`).  One object a line:

    {"type":"open","time":1700000000.123,"conn":1,"device":"02:4b:...","path":"/","tls":false}
    {"type":"frame","time":...,"conn":1,"device":"...","direction":"recv",
     "opcode":"TEXT","fin":true,"text":"{\\"jsonrpc\\":...}"}
    {"type":"frame",...,"opcode":"PING","fin":true,"hex":"6b63"}
    {"type":"close","time":...,"conn":1,"device":"...","code":1005,"reason":"","sent_code":null}

"direction" is "recv" (from the agent) or "send" (to it); text frames carry
"text" (the payload as UTF-8, invalid bytes replaced), every other frame
"hex".  "device" is the connection's Origin header (the agent's MAC).
Lines are written and flushed as frames pass.
"""
import json
import threading

from .wire import OP_TEXT


class FrameHistory(object):
    def __init__(self, path):
        self.path = path
        self._fh = open(path, "a", buffering=1)
        self._lock = threading.Lock()

    def _write(self, record):
        line = json.dumps(record, separators=(",", ":"), ensure_ascii=False)
        with self._lock:
            if self._fh is not None:
                self._fh.write(line + "\n")

    def on_open(self, conn):
        self._write({"type": "open", "time": conn.opened_at, "conn": conn.index,
                     "device": conn.origin, "path": conn.path, "tls": conn.tls})

    def on_frame(self, conn, entry):
        record = {"type": "frame", "time": entry.time, "conn": entry.conn_index,
                  "device": conn.origin, "direction": entry.direction,
                  "opcode": entry.kind, "fin": entry.fin}
        if entry.opcode == OP_TEXT:
            record["text"] = entry.payload.decode("utf-8", "replace")
        else:
            record["hex"] = entry.payload.hex()
        self._write(record)

    def on_close(self, conn):
        self._write({"type": "close", "time": conn.closed_at, "conn": conn.index,
                     "device": conn.origin, "code": conn.close_code,
                     "reason": conn.close_reason, "sent_code": conn.close_sent_code})

    def close(self):
        with self._lock:
            if self._fh is not None:
                self._fh.close()
                self._fh = None
