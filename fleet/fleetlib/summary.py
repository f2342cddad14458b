"""The live summary in the terminal: a progress bar while the devices start,
then a table that refreshes in place.  Without a terminal (a pipe, a log
file, CI) the same figures go out as one plain line every few seconds, so
that a log holds them too."""
import os
import sys
import time

FIELDS = (("connected", "connected"), ("reconnecting", "reconnecting"),
          ("answered", "requests answered"), ("status_updates", "status updates sent"),
          ("events", "events sent"), ("memory_mib", "memory (MiB)"),
          ("cpu_pct", "CPU (% of one core)"))


def bar(done, total, width=30):
    filled = int(width * done / total) if total else width
    return "[" + "#" * filled + "." * (width - filled) + "]"


class Summary:
    def __init__(self, out=None, interactive=None, plain_every=5.0):
        self.out = out or sys.stdout
        if interactive is None:
            interactive = self.out.isatty() and os.environ.get("TERM") != "dumb"
        self.interactive = interactive
        self.plain_every = plain_every
        self._last_plain = 0.0
        self._lines = 0
        self.last = None

    def _write(self, text):
        try:
            self.out.write(text)
            self.out.flush()
        except (OSError, ValueError):
            pass

    def _clear(self):
        if self.interactive and self._lines:
            self._write("\x1b[%dF\x1b[J" % self._lines)
        self._lines = 0

    def say(self, text):
        """A line that stays (above the table)."""
        self._clear()
        self._write(text.rstrip("\n") + "\n")
        if self.last is not None and self.interactive:
            self.table(self.last, force=True)

    def progress(self, what, done, total, extra=""):
        if self.interactive:
            self._clear()
            self._write("%s %s %d/%d %s\n" % (what, bar(done, total), done, total, extra))
            self._lines = 1
        else:
            now = time.monotonic()
            if done == total or now - self._last_plain >= self.plain_every:
                self._last_plain = now
                self._write("%s %d/%d %s\n" % (what, done, total, extra))

    def table(self, figures, force=False):
        """figures: dict with the FIELDS keys, "devices", "elapsed",
        "phase"."""
        self.last = figures
        if not self.interactive:
            now = time.monotonic()
            if not force and now - self._last_plain < self.plain_every:
                return
            self._last_plain = now
            self._write(plain_line(figures) + "\n")
            return
        self._clear()
        rows = ["fleet: %d devices, %s, %.0f s" % (figures.get("devices", 0),
                                                   figures.get("phase", ""),
                                                   figures.get("elapsed", 0))]
        for key, label in FIELDS:
            value = figures.get(key)
            rows.append("  %-22s %s" % (label, "-" if value is None else value))
        self._write("\n".join(rows) + "\n")
        self._lines = len(rows)

    def final(self, figures):
        self.last = None
        self._clear()
        self._write("final: " + plain_line(figures) + "\n")


def plain_line(figures):
    parts = ["%s=%s" % (key, "-" if figures.get(key) is None else figures.get(key))
             for key, _ in FIELDS]
    return "[%s %.0fs] %s" % (figures.get("phase", ""), figures.get("elapsed", 0),
                              " ".join(parts))
