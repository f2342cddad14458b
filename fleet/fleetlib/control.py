"""The runner's side of the fleet server's control socket
(server/devserver/fleet.py): one JSON object a line each way."""
import json
import socket
import threading
import time


class ControlError(RuntimeError):
    pass


class Control:
    def __init__(self, path, timeout=60.0):
        self.path = path
        self.timeout = timeout
        self._sock = None
        self._file = None
        self._lock = threading.Lock()

    def connect(self, wait=10.0):
        end = time.monotonic() + wait
        while True:
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            try:
                s.connect(self.path)
                break
            except OSError:
                s.close()
                if time.monotonic() > end:
                    raise
                time.sleep(0.05)
        s.settimeout(self.timeout)
        self._sock = s
        self._file = s.makefile("rwb", buffering=0)
        return self

    def call(self, cmd, **kw):
        kw["cmd"] = cmd
        with self._lock:
            if self._file is None:
                raise ControlError("not connected")
            self._file.write(json.dumps(kw).encode() + b"\n")
            line = self._file.readline()
        if not line:
            raise ControlError("the fleet server closed its control socket")
        answer = json.loads(line)
        if not answer.get("ok"):
            raise ControlError(answer.get("error"))
        return answer["data"]

    def close(self):
        with self._lock:
            for x in (self._file, self._sock):
                try:
                    if x is not None:
                        x.close()
                except OSError:
                    pass
            self._file = self._sock = None
