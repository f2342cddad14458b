"""What each agent has sent, read from its own output.

The agent prints every text frame it sends ("Sending text frame:" and the
formatted message, whatever its debug setting), so its output file tells,
without asking any server, how many status updates, event notifications
and replies it sent.  The runner reads each device's file from where it
stopped the last time (the files grow; only the new part is read).
"""
import re

_FRAME = b"Sending text frame:"
_METHOD = re.compile(rb'^\t"method":\t"(?:\x1b\[[0-9;]*m)?([A-Za-z]+)', re.M)
_REPLY = re.compile(rb'^\t"(?:result|error)":', re.M)
_CONNECTED = b"Connected"


class SentCounts:
    __slots__ = ("offset", "frames", "status_updates", "events", "replies", "rest")

    def __init__(self):
        self.offset = 0
        self.frames = 0
        self.status_updates = 0
        self.events = 0
        self.replies = 0
        self.rest = b""

    def feed(self, data):
        """Counts the frames in data (the file's next bytes); a dump cut
        at the end waits for the rest."""
        text = self.rest + data
        # whole dumps only: keep what follows the last frame header until
        # the next one arrives (or the dump's closing dashes)
        last = text.rfind(_FRAME)
        if last == -1:
            self.rest = b""
            return
        end = text.find(b"\n" + b"-" * 20, last)
        if end == -1:
            whole, self.rest = text[:last], text[last:]
        else:
            whole, self.rest = text, b""
        parts = whole.split(_FRAME)[1:]
        for part in parts:
            body = part.split(b"\n" + b"-" * 20, 1)[0]
            self.frames += 1
            m = _METHOD.search(body)
            if m:
                name = m.group(1)
                if name == b"dsLogStatusUpdates":
                    self.status_updates += 1
                elif name == b"dsEventNotifications":
                    self.events += 1
            elif _REPLY.search(body):
                self.replies += 1


def read_new(path, counts, limit=1 << 20):
    """Feeds counts with what path gained since the last call."""
    try:
        with open(path, "rb") as f:
            f.seek(counts.offset)
            data = f.read(limit)
    except OSError:
        return
    counts.offset += len(data)
    if data:
        counts.feed(data)
