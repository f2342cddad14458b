# procd's `stdout 1` / `stderr 1`: what the started program prints also
# goes to the device's system log, where `logread -f` sees it, while the
# caller still reads it on the program's standard output and error.
import os
import re
import subprocess
import sys
import time

import safefs

CLI = os.path.join(os.path.dirname(__file__), "..", "..", "device", "run-device")

# Waits until a `logread -f` follows the log (its journal line is written
# once it has its starting point), then prints.
SCRIPT = """
logread -f > /tmp/follow &
until grep -qx 'logread -f' /simrun/journal.log; do sleep 0.05; done
echo "pid $$"
echo one
echo two >&2
until grep -q two /tmp/follow; do sleep 0.05; done
printf 'no newline at the end'
until [ -e /tmp/go ]; do sleep 0.05; done
"""

LINE = r"[A-Z][a-z]{2} [ 1-3]\d \d\d:\d\d:\d\d VK310 "


def wait_for(call, timeout=10.0):
    end = time.monotonic() + timeout
    while True:
        value = call()
        if value or time.monotonic() > end:
            return value
        time.sleep(0.05)


def test_program_output_goes_to_the_system_log_and_to_the_caller(device):
    p = device.start(["/bin/sh", "-c", SCRIPT], stdout_to_syslog=True)
    first = p.stdout.readline().decode()
    m = re.fullmatch(r"pid (\d+)\n", first)
    assert m, first
    pid = int(m.group(1))
    assert p.stdout.readline() == b"one\n"
    assert p.stderr.readline() == b"two\n"
    tag = "sh[%d]" % pid
    expected = [LINE + re.escape("daemon.info %s: pid %d" % (tag, pid)),
                LINE + re.escape("daemon.info %s: one" % tag),
                LINE + re.escape("daemon.err %s: two" % tag)]

    def logged(text):
        lines = text.splitlines()
        return all(any(re.fullmatch(e, x) for x in lines) for e in expected)
    # a running `logread -f` sees the lines, as it sees `logger` lines
    assert wait_for(lambda: logged(device.read_file("/tmp/follow", ""))), \
        device.read_file("/tmp/follow")
    # and so does the log buffer
    assert logged(device.syslog())
    # the pid in the tag is the program's own pid in the device
    assert [x["comm"] for x in device.processes() if x["pid"] == pid] == ["sh"]
    # a line without its newline is logged when the program ends
    device.write_file("/tmp/go", "")
    out, err = p.communicate(timeout=30)
    assert (p.returncode, out) == (0, b"no newline at the end")
    assert re.search(LINE + re.escape("daemon.info %s: no newline at the end"
                                      % tag), device.syslog())


def test_status_and_signals_pass_through(device):
    p = device.start(["/bin/sh", "-c", "echo bye; exit 3"],
                     stdout_to_syslog=True)
    out, err = p.communicate(timeout=30)
    assert (p.returncode, out, err) == (3, b"bye\n", b"")
    assert re.search(r"daemon\.info sh\[\d+\]: bye\n", device.syslog())
    device.stop()
    p = device.start(["/bin/sh", "-c", "echo dying; kill -9 $$"],
                     stdout_to_syslog=True)
    out, err = p.communicate(timeout=30)
    assert (p.returncode, out) == (128 + 9, b"dying\n")
    device.stop()
    p = device.start(["/nonexistent/prog"], stdout_to_syslog=True)
    out, err = p.communicate(timeout=30)
    assert p.returncode == 1 and b"/nonexistent/prog" in err


def test_without_the_option_the_log_is_left_alone(device):
    before = device.syslog()
    p = device.start(["/bin/sh", "-c", "echo one; echo two >&2"])
    out, err = p.communicate(timeout=30)
    assert (out, err) == (b"one\n", b"two\n")
    assert device.syslog() == before


def test_the_command_line_option(tmp_path):
    run = str(tmp_path / "dev")
    r = subprocess.run([sys.executable, CLI, "run", "--stdout-to-syslog", run,
                        "--", "/nonexistent/prog"],
                       capture_output=True, text=True, timeout=60)
    assert r.returncode == 1  # no such program: as bwrap says it
    r = subprocess.run([sys.executable, CLI, "run", "--stdout-to-syslog", run,
                        "--", "/bin/sh", "-c", "echo out; echo err >&2"],
                       capture_output=True, text=True, timeout=60)
    assert (r.returncode, r.stdout, r.stderr) == (0, "out\n", "err\n")
    log = safefs.read_text(run, "syslog.log")
    assert re.search(LINE + r"daemon\.info sh\[\d+\]: out\n", log), log
    assert re.search(LINE + r"daemon\.err sh\[\d+\]: err\n", log), log
